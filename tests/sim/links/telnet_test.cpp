// The telnet codec alone: what reaches the converter and what the client is
// answered, whatever the reads look like.

#include <gtest/gtest.h>

#include <string>

#include "sim/links/telnet.h"

namespace routerd {
namespace {

constexpr char IAC = '\xff', DONT = '\xfe', DO = '\xfd', WONT = '\xfc', WILL = '\xfb', SB = '\xfa', SE = '\xf0';
constexpr char kEcho = 1, kSuppressGoAhead = 3, kTerminalType = 24;

struct Decoded {
    bool sound = true;
    std::string data;
    std::string answers;
};

Decoded decode(TelnetCodec& codec, const std::string& bytes) {
    Decoded result;
    result.sound = codec.decode(bytes.data(), bytes.size(), result.data, result.answers);
    return result;
}

Decoded decode(const std::string& bytes) {
    TelnetCodec codec;
    return decode(codec, bytes);
}

std::string seq(std::initializer_list<char> bytes) { return std::string(bytes); }

TEST(Telnet, PlainDataPassesUnchanged) {
    const Decoded d = decode("@ X:0/5,3\r\n");
    EXPECT_TRUE(d.sound);
    EXPECT_EQ(d.data, "@ X:0/5,3\r\n");
    EXPECT_EQ(d.answers, "");
}

TEST(Telnet, SuppressGoAheadIsAcceptedBothWays) {
    EXPECT_EQ(decode(seq({IAC, DO, kSuppressGoAhead})).answers, seq({IAC, WILL, kSuppressGoAhead}));
    EXPECT_EQ(decode(seq({IAC, WILL, kSuppressGoAhead})).answers, seq({IAC, DO, kSuppressGoAhead}));
}

TEST(Telnet, EchoIsRefused) {
    const Decoded d = decode(seq({IAC, DO, kEcho}));
    EXPECT_EQ(d.answers, seq({IAC, WONT, kEcho}));
    EXPECT_EQ(d.data, "");
}

TEST(Telnet, OtherOptionsAreRefused) {
    EXPECT_EQ(decode(seq({IAC, WILL, kTerminalType})).answers, seq({IAC, DONT, kTerminalType}));
    EXPECT_EQ(decode(seq({IAC, DO, '\x1f'})).answers, seq({IAC, WONT, '\x1f'}));
}

TEST(Telnet, AnOptionAlreadyAgreedIsNotAnsweredTwice) {
    TelnetCodec codec;
    EXPECT_EQ(decode(codec, seq({IAC, DO, kSuppressGoAhead})).answers, seq({IAC, WILL, kSuppressGoAhead}));
    EXPECT_EQ(decode(codec, seq({IAC, DO, kSuppressGoAhead})).answers, "");
}

TEST(Telnet, NegotiationNeverReachesTheConverter) {
    const Decoded d = decode("@ X:" + seq({IAC, DO, kEcho, IAC, WILL, kTerminalType}) + "0/5,3\r");
    EXPECT_EQ(d.data, "@ X:0/5,3\r");
}

TEST(Telnet, DoubledIacIsOneByte) {
    EXPECT_EQ(decode("a" + seq({IAC, IAC}) + "b").data, "a\xff" "b");
}

TEST(Telnet, CrNulIsABareCr) {
    EXPECT_EQ(decode(std::string("@ ?\r\0@ !\r\n", 10)).data, "@ ?\r@ !\r\n");
}

TEST(Telnet, CrNulCutBetweenReadsIsABareCr) {
    TelnetCodec codec;
    EXPECT_EQ(decode(codec, "@ ?\r").data, "@ ?\r");
    EXPECT_EQ(decode(codec, std::string("\0@", 2)).data, "@");
}

TEST(Telnet, ANulElsewhereIsData) {
    EXPECT_EQ(decode(std::string("a\0b", 3)).data, std::string("a\0b", 3));
}

TEST(Telnet, SubnegotiationIsSwallowed) {
    const Decoded d = decode("a" + seq({IAC, SB, kTerminalType, 0}) + "VT100" + seq({IAC, SE}) + "b");
    EXPECT_TRUE(d.sound);
    EXPECT_EQ(d.data, "ab");
}

TEST(Telnet, OtherCommandsAreSwallowed) {
    // NOP, are-you-there, go-ahead.
    EXPECT_EQ(decode("a" + seq({IAC, '\xf1', IAC, '\xf6', IAC, '\xf9'}) + "b").data, "ab");
}

// The same bytes cut into two reads at every offset give the same data and
// the same answers as in one read.
TEST(Telnet, ASplitAtEveryOffsetChangesNothing) {
    const std::string input = "@ X:" + seq({IAC, DO, kSuppressGoAhead}) + "0/" + seq({IAC, IAC}) + "5," +
                              seq({IAC, SB, kTerminalType, 0}) + "xterm" + seq({IAC, SE}) + "3\r" + std::string(1, '\0') +
                              seq({IAC, WILL, kTerminalType}) + "@ ?\r\n";
    const Decoded whole = decode(input);
    ASSERT_EQ(whole.data, "@ X:0/\xff" "5,3\r@ ?\r\n");
    ASSERT_EQ(whole.answers, seq({IAC, WILL, kSuppressGoAhead, IAC, DONT, kTerminalType}));
    for (std::size_t cut = 0; cut <= input.size(); ++cut) {
        TelnetCodec codec;
        const Decoded first = decode(codec, input.substr(0, cut));
        const Decoded second = decode(codec, input.substr(cut));
        EXPECT_EQ(first.data + second.data, whole.data) << "cut at " << cut;
        EXPECT_EQ(first.answers + second.answers, whole.answers) << "cut at " << cut;
    }
}

TEST(Telnet, AByteAtATimeChangesNothing) {
    const std::string input = "@ X:" + seq({IAC, DO, kEcho}) + "0/5,3" + seq({IAC, IAC}) + "\r\n";
    TelnetCodec codec;
    std::string data, answers;
    for (const char c : input) {
        const Decoded d = decode(codec, std::string(1, c));
        data += d.data;
        answers += d.answers;
    }
    EXPECT_EQ(data, "@ X:0/5,3\xff\r\n");
    EXPECT_EQ(answers, seq({IAC, WONT, kEcho}));
}

TEST(Telnet, AnEndlessSubnegotiationIsAnErrorAndNothingOfItIsData) {
    TelnetCodec codec;
    EXPECT_TRUE(decode(codec, "ok" + seq({IAC, SB, kTerminalType})).sound);
    bool sound = true;
    std::string data;
    for (int i = 0; i < 64 && sound; ++i) {
        const Decoded d = decode(codec, std::string(1024, 'x'));
        sound = d.sound;
        data += d.data;
    }
    EXPECT_FALSE(sound);
    EXPECT_NE(codec.error(), "");
    EXPECT_EQ(data, "");
}

TEST(Telnet, CompressionThatWasNeverAgreedIsAnError) {
    constexpr char kCompress2 = 86;
    const Decoded d = decode("ok" + seq({IAC, SB, kCompress2, IAC, SE}) + "\x78\x9c\x4b\x4c\x04\x00");
    EXPECT_FALSE(d.sound);
    EXPECT_EQ(d.data, "ok");
}

TEST(Telnet, AMalformedSubnegotiationIsSwallowedWithoutAnError) {
    // IAC followed by neither SE nor IAC inside a subnegotiation.
    const Decoded d = decode("a" + seq({IAC, SB, kTerminalType, IAC, 'x', IAC, SE}) + "b");
    EXPECT_TRUE(d.sound);
    EXPECT_EQ(d.data, "ab");
}

TEST(Telnet, OutputDoublesIac) {
    TelnetCodec codec;
    std::string bytes;
    codec.encode("S:05,3\xff\r\n", bytes);
    EXPECT_EQ(bytes, "S:05,3\xff\xff\r\n");
}

TEST(Telnet, OutputWithoutIacIsUnchanged) {
    TelnetCodec codec;
    std::string bytes;
    codec.encode("\r\nS:05,3\r\n>", bytes);
    EXPECT_EQ(bytes, "\r\nS:05,3\r\n>");
}

}  // namespace
}  // namespace routerd
