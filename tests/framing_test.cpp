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

// The framing rules as written: append, drop white space that something else
// follows, cut at the first CR or LF, searching the whole buffer every time.
std::vector<std::string> lines_by_the_rules(const std::vector<std::string>& chunks) {
    std::string buffer;
    std::vector<std::string> lines;
    for (const std::string& chunk : chunks) {
        buffer += chunk;
        for (;;) {
            const size_t text = buffer.find_first_not_of("\t\r\n");
            if (text != std::string::npos) buffer.erase(0, text);
            const size_t end = buffer.find_first_of("\r\n");
            if (end == std::string::npos) break;
            lines.push_back(buffer.substr(0, end));
            buffer.erase(0, end + 1);
        }
    }
    return lines;
}

// Each line in a chunk of its own, CR-terminated: the instance decodes exactly these lines.
std::vector<std::string> one_chunk_per_line(const std::vector<std::string>& lines) {
    std::vector<std::string> chunks;
    for (const std::string& line : lines) chunks.push_back(line + "\r");
    return chunks;
}

// Unterminated tails in every state the buffer can be left in between chunks:
// text, TABs only, TABs before text, half a CR LF, TABs and terminators alone,
// a NUL inside a line; report mode on, so every line comes back as its echo.
const std::string kTailInput = std::string(
    "@ ?\r@ X:0/5,3\t\t\r\t\t\t@ Q?\r\n\t\t\t\r\t\t\n\r\n\t@ S?0\r\n\n\t\t@ P:01/A,1F\0x\r\t"
    "@ W:0/5,2,2;@ I?T\r\r\t\t\t\t\r\n@ V?\r\t\t", 92);

TEST(Chunking, TailsLeftAtEverySplitPointAreDecodedAsTheRulesCutThem) {
    const EventLog whole = feed({kTailInput});
    ASSERT_GT(whole.size(), 20u);
    for (size_t cut = 0; cut <= kTailInput.size(); ++cut) {
        const std::vector<std::string> chunks{kTailInput.substr(0, cut), kTailInput.substr(cut)};
        EXPECT_EQ(feed(one_chunk_per_line(lines_by_the_rules(chunks))), feed(chunks)) << "cut at " << cut;
    }
}

TEST(Chunking, TailsLeftInChunksOfEverySizeAreDecodedAsTheRulesCutThem) {
    for (size_t size = 1; size <= 8; ++size) {
        std::vector<std::string> chunks;
        for (size_t at = 0; at < kTailInput.size(); at += size) chunks.push_back(kTailInput.substr(at, size));
        EXPECT_EQ(feed(one_chunk_per_line(lines_by_the_rules(chunks))), feed(chunks)) << "chunks of " << size;
    }
}

TEST_F(Framing, LineOfTabsInManyChunksIsOneLineOnceTerminated) {
    for (int i = 0; i < 1000; ++i) EXPECT_EQ("", sent("\t\t\t"));
    EXPECT_EQ(std::string(3000, '\t') + "\r\n>", sent("\r"));
}

TEST_F(Framing, TabsInManyChunksAreDroppedWhenTextFollows) {
    for (int i = 0; i < 1000; ++i) EXPECT_EQ("", sent("\t\t\t"));
    EXPECT_EQ("", sent("@ Q"));
    EXPECT_EQ("@ Q?\r\n>", sent("?\r"));
}

TEST_F(Framing, LongLineInManyChunksIsOneLine) {
    const std::string chunk(64, 'x');
    for (int i = 0; i < 1000; ++i) EXPECT_EQ("", sent(chunk));
    std::string expected;
    for (int i = 0; i < 1000; ++i) expected += chunk;
    EXPECT_EQ(expected + "\r\n>", sent("\r"));
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
