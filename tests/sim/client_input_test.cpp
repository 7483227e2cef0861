// A client's input on its way to the converter, without sockets: slices,
// the line bound, and the notes the web view shows.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "sim/client_input.h"
#include "sim/limits.h"

namespace routerd {
namespace {

class ClientInputTest : public ::testing::Test {
protected:
    bool hold(const std::string& bytes) {
        std::memcpy(input.buffer(), bytes.data(), bytes.size());
        return input.hold(0, bytes.size(), notes);
    }
    std::string slices() {
        std::string joined;
        while (!input.empty()) {
            if (!joined.empty()) joined += '|';
            joined += input.next_slice();
        }
        return joined;
    }

    Log log;
    ClientInput input{1, log, 1024};
    LineNotes notes;
};

TEST_F(ClientInputTest, ShortInputIsOneSlice) {
    ASSERT_TRUE(hold("@ X:0/5,3\r@ ?\r"));
    EXPECT_EQ(slices(), "@ X:0/5,3\r@ ?\r");
}

TEST_F(ClientInputTest, LongInputIsCutAtTheSliceSize) {
    const std::string line(1000, 'a');
    ASSERT_TRUE(hold(line.substr(0, 1000) + "\r"));
    const std::string expected = line.substr(0, kInputSliceBytes) + "|" + line.substr(0, kInputSliceBytes) + "|" +
                                 line.substr(0, kInputSliceBytes) + "|" + line.substr(0, 1000 - 3 * kInputSliceBytes) +
                                 "\r";
    EXPECT_EQ(slices(), expected);
}

TEST_F(ClientInputTest, ASliceNeverEndsJustAfterTabCrOrLf) {
    const std::string head(kInputSliceBytes - 2, 'a');
    ASSERT_TRUE(hold(head + "\r\n\tb" + "rest\r"));
    EXPECT_EQ(slices(), head + "|\r\n\tbrest\r");
}

TEST_F(ClientInputTest, WhiteSpaceOnlyRunsUpToTheNextOtherCharacter) {
    const std::string white(kInputSliceBytes + 5, '\r');
    ASSERT_TRUE(hold(white + "xy"));
    EXPECT_EQ(slices(), white + "x|y");
}

TEST_F(ClientInputTest, ALineOverTheBoundIsRefusedAndNothingOfItNoted) {
    ASSERT_TRUE(hold(std::string(1000, 'a')));
    EXPECT_FALSE(hold(std::string(25, 'a')));
    EXPECT_EQ(notes.lines_received, 0u);
    EXPECT_EQ(notes.last_line, "");
}

TEST_F(ClientInputTest, ALineEndStartsTheCountAgain) {
    ASSERT_TRUE(hold(std::string(1000, 'a') + "\n" + std::string(1000, 'b')));
    EXPECT_TRUE(hold(std::string(24, 'b')));
    EXPECT_FALSE(hold("b"));
}

TEST_F(ClientInputTest, LinesAreCountedAndTheLastIsKeptCutAt256Bytes) {
    ASSERT_TRUE(hold("@ X:0/5,3\r\n\r\n" + std::string(300, 'z') + "\r"));
    EXPECT_EQ(notes.lines_received, 2u);
    EXPECT_EQ(notes.last_line, std::string(256, 'z'));
}

TEST_F(ClientInputTest, ALineCutAcrossReadsIsNotedWhole) {
    ASSERT_TRUE(hold("@ X:0"));
    EXPECT_EQ(notes.lines_received, 0u);
    ASSERT_TRUE(hold("/5,3\r"));
    EXPECT_EQ(notes.lines_received, 1u);
    EXPECT_EQ(notes.last_line, "@ X:0/5,3");
}

TEST_F(ClientInputTest, TheLastOfSeveralLinesInOneReadIsKept) {
    ASSERT_TRUE(hold("@ X:0"));
    ASSERT_TRUE(hold("/5,3\r@ X:0/6,3\r\n@ X:0/7,3\r@ X:0/8"));
    EXPECT_EQ(notes.lines_received, 3u);
    EXPECT_EQ(notes.last_line, "@ X:0/7,3");
    ASSERT_TRUE(hold(",3\r"));
    EXPECT_EQ(notes.last_line, "@ X:0/8,3");
}

TEST_F(ClientInputTest, EmptyLinesAreNotCounted) {
    ASSERT_TRUE(hold("@ ?\r\n\r\n\n"));
    EXPECT_EQ(notes.lines_received, 1u);
    EXPECT_EQ(notes.last_line, "@ ?");
}

TEST_F(ClientInputTest, ReportModeFollowsLinesThatAreExactlyTheModeCommands) {
    ASSERT_TRUE(hold("@ ?\r"));
    EXPECT_TRUE(notes.report_mode);
    ASSERT_TRUE(hold("@ !;@ ?\r"));
    EXPECT_TRUE(notes.report_mode);
    ASSERT_TRUE(hold("@ "));
    ASSERT_TRUE(hold("!\n"));
    EXPECT_FALSE(notes.report_mode);
}

// Line ends are looked for several bytes at a time: every byte value around
// them, at every offset, must neither hide one nor pass for one.
TEST_F(ClientInputTest, EveryByteValueNextToALineEndAtEveryOffsetIsReadRight) {
    for (const char end : {'\r', '\n'}) {
        for (int value = 0; value < 256; ++value) {
            const char c = static_cast<char>(value);
            if (c == '\r' || c == '\n') continue;
            for (std::size_t offset = 0; offset < 20; ++offset) {
                ClientInput fresh{1, log, 1024};
                LineNotes seen;
                const std::string line = std::string(offset, 'x') + c + c;
                const std::string bytes = line + end + std::string(3, c);
                std::memcpy(fresh.buffer(), bytes.data(), bytes.size());
                ASSERT_TRUE(fresh.hold(0, bytes.size(), seen));
                ASSERT_EQ(seen.lines_received, 1u) << "byte " << value << " offset " << offset;
                ASSERT_EQ(seen.last_line, line) << "byte " << value << " offset " << offset;
            }
        }
    }
}

}  // namespace
}  // namespace routerd
