// Receive buffering and line framing. With report mode on, every line comes
// back as its echo followed by a prompt, so the lines the instance cut are
// visible in what it sends.

#include <gtest/gtest.h>

#include "support/loaded_plugin.h"

namespace testhost {
namespace {

// An instance in report mode with nothing sent yet.
class Framing : public testing::Test {
protected:
    void SetUp() override {
        session.receive("@ ?\r");
        session.link().sent.clear();
        session.take_events();
    }
    std::string sent(const std::string& bytes) {
        session.link().sent.clear();
        session.receive(bytes);
        return session.link().sent;
    }
    Session session;
};

TEST_F(Framing, EmptyDataWithEmptyBufferDoesNothing) {
    session.receive("");
    EXPECT_TRUE(session.take_events().empty());
}

TEST_F(Framing, UnterminatedLineWaitsForItsTerminator) {
    EXPECT_EQ("", sent("@ S?0"));
    EXPECT_EQ("@ S?0\r\n>", sent("\r"));
}

TEST_F(Framing, CrLfInOneChunkYieldsAnEmptyLine) {
    EXPECT_EQ("@ S?0\r\n>\r\n>", sent("@ S?0\r\n"));
}

TEST_F(Framing, LfOfCrLfInAChunkOfItsOwnYieldsAnEmptyLine) {
    EXPECT_EQ("@ S?0\r\n>", sent("@ S?0\r"));
    EXPECT_EQ("\r\n>", sent("\n"));
}

TEST_F(Framing, LfBeforeMoreTextIsDroppedAsLeadingWhiteSpace) {
    EXPECT_EQ("@ S?0\r\n>@ X?01\r\n>", sent("@ S?0\r\n@ X?01\r"));
}

TEST_F(Framing, EveryTerminatorOfABlankBufferIsALine) {
    EXPECT_EQ("\r\n>\r\n>\r\n>\r\n>", sent("\r\n\r\n"));
}

TEST_F(Framing, TabsBeforeATerminatorInABlankBufferFormALine) {
    EXPECT_EQ("\t\t\r\n>", sent("\t\t\r"));
}

TEST_F(Framing, LeadingTabsAreDroppedWhenTextFollows) {
    EXPECT_EQ("@ Q?\r\n>", sent("\t\t@ Q?\r"));
}

TEST_F(Framing, TabsInsideALineAreKept) {
    EXPECT_EQ("@ Q?\t1\r\n>", sent("@ Q?\t1\r"));
}

TEST_F(Framing, LeadingBlankIsKeptAndSpoilsTheHeader) {
    EXPECT_EQ(" @ S?0\r\n>", sent(" @ S?0\r"));
}

TEST_F(Framing, LoneLfEndsALine) {
    EXPECT_EQ("@ Q?\r\n>", sent("@ Q?\n"));
}

TEST_F(Framing, LfCrEndsALineAndTheCrBecomesAnEmptyLine) {
    EXPECT_EQ("@ Q?\r\n>\r\n>", sent("@ Q?\n\r"));
}

TEST_F(Framing, NulEndsTheTextOfALine) {
    EXPECT_EQ("@ Q?\r\n>", sent(std::string("@ Q?\0@ S?0\r", 11)));
}

TEST_F(Framing, NulAtTheStartMakesAnEmptyLine) {
    EXPECT_EQ("\r\n>", sent(std::string("\0@ Q?\r", 6)));
}

TEST_F(Framing, HeaderCutAcrossChunks) {
    EXPECT_EQ("", sent("@"));
    EXPECT_EQ("", sent(" I"));
    EXPECT_EQ("@ I?T\r\nI!T,1,0,0,FFFF,100\r\n>", sent("?T\r"));
}

TEST_F(Framing, NullInterfaceArgument) {
    session.host().ReceiveData("@ Q?\r", nullptr);
    EXPECT_EQ("@ Q?\r\n>", session.link().sent);
}

TEST_F(Framing, BytesAbove127AndControlCharactersPassThrough) {
    EXPECT_EQ("\x80\xFF\x01\x7F\r\n>", sent("\x80\xFF\x01\x7F\r"));
}

TEST_F(Framing, VeryLongLineIsOneLine) {
    const std::string longLine(100000, 'x');
    EXPECT_EQ(longLine + "\r\n>", sent(longLine + "\r"));
}

TEST_F(Framing, ManyLinesInOneChunk) {
    std::string input, expected;
    for (int i = 0; i < 1000; ++i) {
        input += "@ Q?\r";
        expected += "@ Q?\r\n>";
    }
    EXPECT_EQ(expected, sent(input));
}

// Feeding the same bytes in any chunks gives the same result.
EventLog feed(const std::vector<std::string>& chunks) {
    Session session;
    session.configure({{"level_mapping_video", "3,4"}, {"device_id", "2"}});
    session.levels({{3, 32, 16}, {4, 8, 8}});
    session.driver().routerTarget = &session.host();
    for (const std::string& chunk : chunks) session.receive(chunk);
    return session.take_events();
}

// Bare prompts of empty lines are the one thing chunking may change.
EventLog without_bare_prompts(EventLog log) {
    const std::string bare = "send " + escape("\r\n>");
    EventLog out;
    for (size_t i = 0; i < log.size(); ++i) {
        const bool afterCommand = i > 0 && log[i - 1] != bare;
        if (log[i] == bare && !afterCommand) continue;
        out.push_back(log[i]);
    }
    return out;
}

const std::string kCrInput =
    "@ ?\r@ X:0/5,3\r@ P:01/A,1F/B,20\r@ V?\r@ B:E;@ S?0\r\t@ X?05\r@ W:0/5,2,2\r"
    "@ F?0;@ I?A\r@ Z:1\r@ P?0A;@ B:C\r@ !\r@ S?1\r";

TEST(Chunking, EverySplitPointGivesTheSameCallsAndOutput) {
    const EventLog whole = feed({kCrInput});
    ASSERT_GT(whole.size(), 20u);
    for (size_t cut = 0; cut <= kCrInput.size(); ++cut) {
        EXPECT_EQ(whole, feed({kCrInput.substr(0, cut), kCrInput.substr(cut)})) << "cut at " << cut;
    }
}

TEST(Chunking, EveryPairOfSplitPointsGivesTheSameCallsAndOutput) {
    const EventLog whole = feed({kCrInput});
    for (size_t a = 0; a <= kCrInput.size(); a += 3) {
        for (size_t b = a; b <= kCrInput.size(); b += 5) {
            EXPECT_EQ(whole, feed({kCrInput.substr(0, a), kCrInput.substr(a, b - a), kCrInput.substr(b)}));
        }
    }
}

TEST(Chunking, ByteByByteGivesTheSameCallsAndOutput) {
    std::vector<std::string> bytes;
    for (const char c : kCrInput) bytes.emplace_back(1, c);
    EXPECT_EQ(feed({kCrInput}), feed(bytes));
}

TEST(Chunking, CrLfInputDiffersOnlyInBarePrompts) {
    std::string crlf;
    for (const char c : kCrInput) {
        crlf += c;
        if (c == '\r') crlf += '\n';
    }
    const EventLog whole = without_bare_prompts(feed({crlf}));
    EXPECT_EQ(without_bare_prompts(feed({kCrInput})), whole);
    for (size_t cut = 0; cut <= crlf.size(); ++cut) {
        EXPECT_EQ(whole, without_bare_prompts(feed({crlf.substr(0, cut), crlf.substr(cut)})))
            << "cut at " << cut;
    }
}

TEST(Chunking, CrLfByteByByteAnswersEveryLfWithABarePrompt) {
    std::vector<std::string> bytes;
    for (const char c : std::string("@ Q?\r\n@ Q?\r\n")) bytes.emplace_back(1, c);
    EventLog log = feed(bytes);
    const std::string prompt = "send " + escape("\r\n>");
    EXPECT_EQ((EventLog{prompt, prompt, prompt, prompt}), log);
}

}  // namespace
}  // namespace testhost
