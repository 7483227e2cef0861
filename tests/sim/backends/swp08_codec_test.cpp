// The SW-P-08 codec without sockets: frames built and read byte for byte
// (the protocol documents' worked frames among them), every cut between two
// reads, 0x10 in every field, the link's ACKs, NAKs and re-sends, and what
// each message a router sends reads as.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/backends/swp08_codec.h"

namespace routerd::swp08 {
namespace {

using namespace std::chrono_literals;

// "10 02 02 00" -> the bytes.
std::string bytes(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        if (text[i] == ' ') {
            ++i;
            continue;
        }
        out += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
        i += 2;
    }
    return out;
}

Bytes message(const std::string& text) {
    const std::string b = bytes(text);
    return Bytes(b.begin(), b.end());
}

// What a receiver read, one line per item: "ACK", "NAK", "frame 04 00 ...", "bad: why".
struct Describe {
    std::string operator()(const LinkAck&) const { return "ACK"; }
    std::string operator()(const LinkNak&) const { return "NAK"; }
    std::string operator()(const Frame& f) const { return "frame " + hex(f.message); }
    std::string operator()(const BadFrame& b) const { return "bad: " + b.reason; }
};

std::string described(const std::vector<Received>& items) {
    std::string text;
    for (const Received& item : items) text += std::visit(Describe{}, item) + "\n";
    return text;
}

std::string read(const std::string& wire) {
    Receiver receiver;
    std::vector<Received> out;
    receiver.feed(wire, out);
    return described(out);
}

// ---------------------------------------------------------------------------
// Frames the protocol's documents work through, as (message, whole frame).

struct Worked {
    const char* what;
    const char* message;
    const char* frame;
};

const Worked kWorked[] = {
    {"implementation request", "61", "10 02 61 01 9E 10 03"},
    {"interrogate M1 L1 destination 1", "01 11 00 01", "10 02 01 11 00 01 04 E9 10 03"},
    {"tally M1 L1 destination 1, source 153", "03 11 01 01 19", "10 02 03 11 01 01 19 05 CC 10 03"},
    {"connect M1 L1 destination 2, source 0", "02 11 00 02 00", "10 02 02 11 00 02 00 05 E6 10 03"},
    {"connected M1 L1 destination 2, source 0", "04 11 00 02 00", "10 02 04 11 00 02 00 05 E4 10 03"},
    {"connect M0 L0 destination 7, source 2", "02 00 00 07 02", "10 02 02 00 00 07 02 05 F0 10 03"},
    {"connected M0 L0 destination 7, source 2", "04 00 00 07 02", "10 02 04 00 00 07 02 05 EE 10 03"},
    {"connect M0 L1 destination 16, source 300", "02 01 02 10 2C", "10 02 02 01 02 10 10 2C 05 BA 10 03"},
    {"connected M0 L1 destination 16, source 300", "04 01 02 10 2C", "10 02 04 01 02 10 10 2C 05 B8 10 03"},
    {"connect M0 L0 destination 16, source 3", "02 00 00 10 03", "10 02 02 00 00 10 10 03 05 E6 10 03"},
    {"interrogate M0 L15 destination 892 (checksum 0x10)", "01 0F 60 7C", "10 02 01 0F 60 7C 04 10 10 10 03"},
    {"tally M0 L15 destination 892, source 1000", "03 0F 67 7C 68", "10 02 03 0F 67 7C 68 05 9E 10 03"},
    {"extended connect M0 L20 destination 1040, source 2000", "82 00 14 04 10 07 D0",
     "10 02 82 00 14 04 10 10 07 D0 07 78 10 03"},
    {"extended connected, with its status byte", "84 00 14 04 10 07 D0 00",
     "10 02 84 00 14 04 10 10 07 D0 00 08 75 10 03"},
    {"tally dump request M0 L0", "15 00", "10 02 15 00 02 E9 10 03"},
    {"go salvo 5", "79 00 05", "10 02 79 00 05 03 7F 10 03"},
};

TEST(Swp08Framing, EveryWorkedFrameIsBuiltByteForByte) {
    for (const Worked& w : kWorked) EXPECT_EQ(hex(frame(message(w.message))), hex(bytes(w.frame))) << w.what;
}

TEST(Swp08Framing, EveryWorkedFrameReadsBackToItsMessage) {
    for (const Worked& w : kWorked)
        EXPECT_EQ(read(bytes(w.frame)), "frame " + hex(message(w.message)) + "\n") << w.what;
}

// Whatever the cut between two reads, and byte by byte, a stream of every
// worked frame, with an ACK and a NAK between them, reads the same.
TEST(Swp08Framing, ACutAtEveryByteReadsTheSame) {
    std::string stream;
    std::string expected;
    for (const Worked& w : kWorked) {
        stream += bytes(w.frame) + ack();
        expected += "frame " + hex(message(w.message)) + "\nACK\n";
    }
    stream += nak();
    expected += "NAK\n";
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        Receiver receiver;
        std::vector<Received> out;
        receiver.feed(stream.substr(0, cut), out);
        receiver.feed(stream.substr(cut), out);
        ASSERT_EQ(described(out), expected) << "cut at " << cut;
    }
    Receiver receiver;
    std::vector<Received> out;
    for (const char c : stream) receiver.feed(std::string(1, c), out);
    EXPECT_EQ(described(out), expected);
}

// ---------------------------------------------------------------------------
// 0x10 in every field: doubled when sent, undoubled when read.

TEST(Swp08Framing, MatrixOneLevelZeroIsADoubledMatrixLevelByte) {
    EXPECT_EQ(hex(frame(connect(1, 0, 7, 2))), "10 02 02 10 10 00 07 02 05 E0 10 03");
    EXPECT_EQ(read(frame(connect(1, 0, 7, 2))), "frame 02 10 00 07 02\n");
}

TEST(Swp08Framing, DestinationOneHundredAndFortyFourDoublesTheMultiplier) {
    // Destination 144 = 128 + 16: the multiplier is 0x10 and so is the remainder.
    EXPECT_EQ(hex(frame(connect(0, 0, 144, 3))), "10 02 02 00 10 10 10 10 03 05 D6 10 03");
    EXPECT_EQ(read(frame(connect(0, 0, 144, 3))), "frame 02 00 10 10 03\n");
}

TEST(Swp08Framing, Source272IsSentAsMultiplierTwoAndRemainderSixteen) {
    EXPECT_EQ(hex(connect(0, 0, 5, 272)), "02 00 02 05 10");
    EXPECT_EQ(hex(frame(connect(0, 0, 5, 272))), "10 02 02 00 02 05 10 10 05 E2 10 03");
}

TEST(Swp08Framing, AByteCountOfSixteenIsDoubled) {
    const Bytes sixteen = message("6A 00 01 00 00 01 41 42 43 44 45 46 47 48 00 00");
    ASSERT_EQ(sixteen.size(), 16u);
    const std::string wire = frame(sixteen);
    EXPECT_EQ(hex(wire), "10 02 6A 00 01 00 00 01 41 42 43 44 45 46 47 48 00 00 10 10 60 10 03");
    EXPECT_EQ(read(wire), "frame " + hex(sixteen) + "\n");
}

TEST(Swp08Framing, DleDleEtxIsDataNotTheEnd) {
    // The first "10 03" pair of the frame is 0x10 then 0x03 in the message.
    EXPECT_EQ(read(bytes("10 02 02 00 00 10 10 03 05 E6 10 03")), "frame 02 00 00 10 03\n");
}

// ---------------------------------------------------------------------------
// The receiver's other rules.

TEST(Swp08Framing, AnAckInsideAFrameIsToldAndTheFrameGoesOn) {
    EXPECT_EQ(read(bytes("10 02 04 00 10 06 00 07 02 05 EE 10 03")), "ACK\nframe 04 00 00 07 02\n");
    EXPECT_EQ(read(bytes("10 02 04 00 00 07 02 10 15 05 EE 10 03")), "NAK\nframe 04 00 00 07 02\n");
}

TEST(Swp08Framing, ABadChecksumIsABadFrame) {
    EXPECT_EQ(read(bytes("10 02 04 00 00 07 02 05 EF 10 03")), "bad: bad checksum\n");
}

TEST(Swp08Framing, AByteCountThatIsNotTheMessagesLengthIsABadFrame) {
    // The checksum holds for a byte count of 6 (one more, the checksum one less).
    EXPECT_EQ(read(bytes("10 02 04 00 00 07 02 06 ED 10 03")), "bad: byte count 6 for 5 message bytes\n");
}

TEST(Swp08Framing, AFrameWithoutACommandByteCountAndChecksumIsABadFrame) {
    EXPECT_EQ(read(bytes("10 02 10 03")), "bad: too short for a command, a byte count and a checksum\n");
    EXPECT_EQ(read(bytes("10 02 01 FF 10 03")), "bad: too short for a command, a byte count and a checksum\n");
}

TEST(Swp08Framing, AStartInsideAFrameDropsThePartReadAndStartsAgain) {
    EXPECT_EQ(read(bytes("10 02 04 00 00 10 02 04 00 00 07 02 05 EE 10 03")), "frame 04 00 00 07 02\n");
}

TEST(Swp08Framing, AnUnknownPairInsideAFrameLosesTheFrame) {
    Receiver receiver;
    std::vector<Received> out;
    receiver.feed(bytes("10 02 04 00 10 41 00 07 02 05 EE 10 03"), out);
    EXPECT_EQ(described(out), "");
    receiver.feed(bytes("10 02 04 00 00 07 02 05 EE 10 03"), out);
    EXPECT_EQ(described(out), "frame 04 00 00 07 02\n");
}

TEST(Swp08Framing, BytesOutsideFramesAreCountedAndDropped) {
    Receiver receiver;
    std::vector<Received> out;
    receiver.feed(bytes("41 42 43 10 03 0D 0A"), out);
    EXPECT_EQ(described(out), "");
    EXPECT_EQ(receiver.dropped_since_frame(), 7u);
    receiver.feed(bytes("10 02 04 00 00 07 02 05 EE 10 03"), out);
    EXPECT_EQ(described(out), "frame 04 00 00 07 02\n");
    EXPECT_EQ(receiver.dropped_since_frame(), 0u);
}

TEST(Swp08Framing, The255ByteMessageIsTheLongestThatReads) {
    Bytes longest(kMaxMessage, 0x41);
    longest[0] = 0x6A;
    EXPECT_EQ(read(frame(longest)), "frame " + hex(longest) + "\n");
}

TEST(Swp08Framing, AFrameWithoutAnEndCostsOneFramesMemoryAndIsRefusedAtItsEnd) {
    Receiver receiver;
    std::vector<Received> out;
    receiver.feed(bytes("10 02"), out);
    const std::string endless(1 << 20, 'A');
    for (int i = 0; i < 4; ++i) receiver.feed(endless, out);
    EXPECT_EQ(described(out), "");
    EXPECT_GE(receiver.dropped_since_frame(), 4u * endless.size() - kMaxMessage - 2);
    receiver.feed(bytes("10 03 10 02 04 00 00 07 02 05 EE 10 03"), out);
    EXPECT_EQ(described(out), "bad: longer than 255 message bytes\nframe 04 00 00 07 02\n");
}

// ---------------------------------------------------------------------------
// The link.

struct LinkTest : ::testing::Test {
    Link::Clock::time_point t0{};
    Link link{LinkTiming{1000ms, 5}};

    LinkOutput receive(const std::string& wire, Link::Clock::time_point now) {
        LinkOutput out;
        link.receive(reinterpret_cast<const std::uint8_t*>(wire.data()), wire.size(), now, out);
        return out;
    }
    LinkOutput flush(Link::Clock::time_point now) {
        LinkOutput out;
        link.flush(now, out);
        return out;
    }
    LinkOutput tick(Link::Clock::time_point now) {
        LinkOutput out;
        link.tick(now, out);
        return out;
    }
};

TEST_F(LinkTest, EveryFrameReadIsAcknowledgedAtOnce) {
    const LinkOutput out = receive(bytes("10 02 04 00 00 07 02 05 EE 10 03 10 02 04 00 00 08 03 05 EC 10 03"), t0);
    EXPECT_EQ(hex(out.write), "10 06 10 06");
    ASSERT_EQ(out.messages.size(), 2u);
    EXPECT_EQ(hex(out.messages[0]), "04 00 00 07 02");
    EXPECT_EQ(hex(out.messages[1]), "04 00 00 08 03");
}

TEST_F(LinkTest, ABadFrameIsAnsweredNak) {
    const LinkOutput out = receive(bytes("10 02 04 00 00 07 02 05 EF 10 03"), t0);
    EXPECT_EQ(hex(out.write), "10 15");
    EXPECT_TRUE(out.messages.empty());
    ASSERT_EQ(out.bad.size(), 1u);
    EXPECT_EQ(out.bad[0], "bad checksum");
}

TEST_F(LinkTest, TheNextMessageLeavesOnlyOnceTheOneBeforeIsAcknowledged) {
    link.send(connect(0, 0, 7, 2));
    link.send(connect(0, 0, 8, 3));
    EXPECT_EQ(hex(flush(t0).write), "10 02 02 00 00 07 02 05 F0 10 03");
    EXPECT_EQ(flush(t0).write, "");
    EXPECT_EQ(link.queued(), 2u);
    EXPECT_EQ(hex(receive(ack(), t0 + 5ms).write), "10 02 02 00 00 08 03 05 EE 10 03");
    EXPECT_EQ(receive(ack(), t0 + 10ms).write, "");
    EXPECT_TRUE(link.idle());
}

TEST_F(LinkTest, AFrameWithoutAnAckIsSentAgainAfterTheTimeout) {
    link.send(connect(0, 0, 7, 2));
    flush(t0);
    EXPECT_EQ(link.deadline(), t0 + 1000ms);
    EXPECT_EQ(tick(t0 + 999ms).write, "");
    EXPECT_EQ(hex(tick(t0 + 1000ms).write), "10 02 02 00 00 07 02 05 F0 10 03");
    EXPECT_EQ(link.deadline(), t0 + 2000ms);
    EXPECT_EQ(link.resent(), 1u);
}

TEST_F(LinkTest, ANakSendsTheFrameAgainAtOnce) {
    link.send(connect(0, 0, 7, 2));
    flush(t0);
    EXPECT_EQ(hex(receive(nak(), t0 + 3ms).write), "10 02 02 00 00 07 02 05 F0 10 03");
}

TEST_F(LinkTest, FiveResendsWithoutAnAckGiveTheLinkUp) {
    link.send(connect(0, 0, 7, 2));
    flush(t0);
    for (int i = 1; i <= 5; ++i) {
        const LinkOutput out = tick(t0 + i * 1000ms);
        EXPECT_FALSE(out.failed) << i;
        EXPECT_FALSE(out.write.empty()) << i;
    }
    const LinkOutput out = tick(t0 + 6000ms);
    ASSERT_TRUE(out.failed);
    EXPECT_EQ(*out.failed, "no ACK after 5 re-sends of 10 02 02 00 00 07 02 05 F0 10 03");
}

TEST_F(LinkTest, NaksCountAsResendsToo) {
    link.send(connect(0, 0, 7, 2));
    flush(t0);
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(receive(nak(), t0).failed);
    const LinkOutput out = receive(nak(), t0);
    ASSERT_TRUE(out.failed);
    EXPECT_EQ(*out.failed, "NAK after 5 re-sends of 10 02 02 00 00 07 02 05 F0 10 03");
}

TEST_F(LinkTest, AFrameSentTwiceIsReadTwiceAndAcknowledgedTwice) {
    const std::string connected = bytes("10 02 04 00 00 07 02 05 EE 10 03");
    const LinkOutput out = receive(connected + connected, t0);
    EXPECT_EQ(hex(out.write), "10 06 10 06");
    EXPECT_EQ(out.messages.size(), 2u);
}

TEST_F(LinkTest, AnAckInsideTheRoutersFrameAcknowledgesOurs) {
    link.send(connect(0, 0, 7, 2));
    flush(t0);
    const LinkOutput out = receive(bytes("10 02 04 00 10 06 00 07 02 05 EE 10 03"), t0);
    EXPECT_EQ(hex(out.write), "10 06");
    EXPECT_TRUE(link.idle());
    EXPECT_EQ(out.messages.size(), 1u);
}

// ---------------------------------------------------------------------------
// Messages read.

struct Read {
    std::string operator()(const Crosspoints& c) const {
        std::string text = "crosspoints M" + std::to_string(c.matrix) + " L" + std::to_string(c.level) + ":";
        for (const Crosspoint& x : c.items) text += " " + std::to_string(x.destination) + "<" + std::to_string(x.source);
        return text;
    }
    std::string operator()(const Protects& p) const {
        static const char* kReports[] = {"tally", "connected", "disconnected", "dump"};
        std::string text = std::string("protect ") + kReports[static_cast<int>(p.report)] + " M" +
                           std::to_string(p.matrix) + " L" + std::to_string(p.level) + ":";
        for (const Protect& x : p.items)
            text += " " + std::to_string(x.destination) + " P" + std::to_string(x.state) + " by " + std::to_string(x.device);
        return text;
    }
    std::string operator()(const Names& n) const {
        std::string text = std::string(n.side == NameSide::source ? "source" : "destination") + " names M" +
                           std::to_string(n.matrix) + " L" + std::to_string(n.level) + " from " + std::to_string(n.first) + ":";
        for (const std::string& name : n.names) text += " '" + name + "'";
        return text;
    }
    std::string operator()(const DualStatus& d) const {
        return std::string("dual: this ") + (d.this_active ? "active" : "idle") + ", " +
               (d.slave_active ? "slave" : "master") + " active, idle state " + std::to_string(d.idle_state);
    }
    std::string operator()(const Implementation& i) const {
        return "implementation: sends " + hex(i.transmitted) + "; accepts " + hex(i.accepted);
    }
    std::string operator()(const SalvoEntry& s) const {
        return "salvo " + std::to_string(s.salvo) + " entry M" + std::to_string(s.matrix) + " L" + std::to_string(s.level) +
               " " + std::to_string(s.crosspoint.destination) + "<" + std::to_string(s.crosspoint.source);
    }
    std::string operator()(const SalvoDone& s) const {
        static const char* kResults[] = {"set", "cleared", "nothing"};
        return "salvo " + std::to_string(s.salvo) + " " + kResults[static_cast<int>(s.result)];
    }
    std::string operator()(const NamesChanged&) const { return "names changed"; }
    std::string operator()(const DeviceNameRequest& d) const { return "device name asked for " + std::to_string(d.device); }
    std::string operator()(const Invalid& i) const { return "invalid: " + std::to_string(i.command); }
    std::string operator()(const Other& o) const {
        return "other " + hex(Bytes{o.command}) + (o.malformed ? " (malformed)" : "");
    }
};

std::string decoded(const std::string& text) { return std::visit(Read{}, decode(message(text))); }

TEST(Swp08Messages, TallyAndConnectedSayTheDestinationCarriesTheSource) {
    EXPECT_EQ(decoded("03 11 01 01 19"), "crosspoints M1 L1: 1<153");
    EXPECT_EQ(decoded("04 01 02 10 2C"), "crosspoints M0 L1: 16<300");
    EXPECT_EQ(decoded("03 0F 67 7C 68"), "crosspoints M0 L15: 892<1000");
}

TEST(Swp08Messages, TheBadSourceFlagIsNotPartOfTheSourceNumber) {
    EXPECT_EQ(decoded("04 00 0A 05 03"), "crosspoints M0 L0: 5<259");
}

TEST(Swp08Messages, ExtendedTalliesReadWithOrWithoutTheirStatusByte) {
    EXPECT_EQ(decoded("84 00 14 04 10 07 D0 00"), "crosspoints M0 L20: 1040<2000");
    EXPECT_EQ(decoded("83 00 14 04 10 07 D0"), "crosspoints M0 L20: 1040<2000");
    EXPECT_EQ(decoded("84 00 14 04 10 07"), "other 84 (malformed)");
}

TEST(Swp08Messages, TallyDumpsReadAsConsecutiveDestinations) {
    EXPECT_EQ(decoded("16 01 03 0A 05 06 07"), "crosspoints M0 L1: 10<5 11<6 12<7");
    EXPECT_EQ(decoded("17 02 02 01 00 00 05 01 2C"), "crosspoints M0 L2: 256<5 257<300");
    EXPECT_EQ(decoded("97 03 20 02 04 00 00 01 FF FF"), "crosspoints M3 L32: 1024<1 1025<65535");
}

TEST(Swp08Messages, ADumpShorterThanItsCountIsMalformed) {
    EXPECT_EQ(decoded("17 00 03 00 00 00 01 00 02"), "other 17 (malformed)");
    EXPECT_EQ(decoded("16 00 03 00 01 02"), "other 16 (malformed)");
}

TEST(Swp08Messages, ProtectReportsCarryTheStateBeforeTheMultiplier) {
    EXPECT_EQ(decoded("0B 01 01 17 12 7F"), "protect tally M0 L1: 146 P1 by 1023");
    EXPECT_EQ(decoded("0D 00 01 00 07 03"), "protect connected M0 L0: 7 P1 by 3");
    EXPECT_EQ(decoded("0F 00 00 00 07 03"), "protect disconnected M0 L0: 7 P0 by 3");
    EXPECT_EQ(decoded("8D 00 14 01 04 10 01 F4"), "protect connected M0 L20: 1040 P1 by 500");
}

TEST(Swp08Messages, ProtectDumpWordsHoldTheStateAndTheDevice) {
    EXPECT_EQ(decoded("14 00 03 00 04 00 00 13 FF 10 05"), "protect dump M0 L0: 4 P0 by 0 5 P1 by 1023 6 P1 by 5");
    EXPECT_EQ(decoded("94 01 12 01 04 00 10 03"), "protect dump M1 L18: 1024 P1 by 3");
}

TEST(Swp08Messages, NamesAreFixedWidthWithPaddingTakenOff) {
    EXPECT_EQ(decoded("6A 02 01 00 03 02 43 41 4D 20 31 20 20 20 56 54 52 00 00 00 00 00"),
              "source names M0 L2 from 3: 'CAM 1' 'VTR'");
    EXPECT_EQ(decoded("6B 10 00 00 00 01 4D 4F 4E 31"), "destination names M1 L0 from 0: 'MON1'");
    EXPECT_EQ(decoded("EA 00 14 00 04 00 01 54 58 20 20"), "source names M0 L20 from 1024: 'TX'");
    EXPECT_EQ(decoded("EB 11 00 00 10 01 41 42 43 44"), "destination names M17 L0 from 16: 'ABCD'");
}

TEST(Swp08Messages, NamesWithAnUnknownLengthCodeOrCutShortAreMalformed) {
    EXPECT_EQ(decoded("6A 00 07 00 00 01 41 42 43 44"), "other 6A (malformed)");
    EXPECT_EQ(decoded("6A 00 00 00 00 02 41 42 43 44"), "other 6A (malformed)");
}

TEST(Swp08Messages, DualStatusSaysWhetherThisControllerIsActive) {
    EXPECT_EQ(decoded("09 02 00"), "dual: this active, master active, idle state 0");
    EXPECT_EQ(decoded("09 01 01"), "dual: this idle, slave active, idle state 1");
}

TEST(Swp08Messages, ImplementationListsWhatTheRouterSendsAndAccepts) {
    const std::string text = decoded("62 02 03 04 7B 02 78 79");
    EXPECT_EQ(text, "implementation: sends 04 7B; accepts 02 78 79");
    const Implementation list = std::get<Implementation>(decode(message("62 02 03 04 7B 02 78 79")));
    EXPECT_TRUE(list.accepts(0x79));
    EXPECT_FALSE(list.accepts(0x04));
}

TEST(Swp08Messages, SalvoAcknowledgementsAndGoDone) {
    EXPECT_EQ(decoded("7A 01 02 10 2C 05"), "salvo 5 entry M0 L1 16<300");
    EXPECT_EQ(decoded("FA 00 14 04 10 07 D0 05"), "salvo 5 entry M0 L20 1040<2000");
    EXPECT_EQ(decoded("7B 00 05"), "salvo 5 set");
    EXPECT_EQ(decoded("7B 02 05"), "salvo 5 nothing");
    EXPECT_EQ(decoded("7B 03 05"), "other 7B (malformed)");
}

TEST(Swp08Messages, TheRestOfWhatARouterMaySend) {
    EXPECT_EQ(decoded("1E 00 00 00 01 00 00 00 01"), "names changed");
    EXPECT_EQ(decoded("11 01 05"), "device name asked for 133");
    EXPECT_EQ(decoded("63 82"), "invalid: 130");
    EXPECT_EQ(decoded("56 00 00 01 01"), "other 56");
    EXPECT_EQ(decoded("03 00 00"), "other 03 (malformed)");
}

// ---------------------------------------------------------------------------
// Messages sent.

TEST(Swp08Requests, StandardFormWhileEverythingFits) {
    EXPECT_EQ(hex(connect(15, 15, 1023, 1023)), "02 FF 77 7F 7F");
    EXPECT_EQ(hex(interrogate(0, 15, 892)), "01 0F 60 7C");
    EXPECT_EQ(hex(tally_dump_request(0, 0)), "15 00");
    EXPECT_EQ(hex(protect_interrogate(0, 1, 146)), "0A 01 10 12");
    EXPECT_EQ(hex(protect_connect(0, 1, 146, 1023)), "0C 01 17 12 7F");
    EXPECT_EQ(hex(protect_disconnect(0, 1, 146, 1023)), "0E 01 17 12 7F");
    EXPECT_EQ(hex(protect_dump_request(0, 2, 300)), "13 02 01 2C");
    EXPECT_EQ(hex(source_names_request(1, 2, 8)), "64 12 01");
    EXPECT_EQ(hex(destination_names_request(1, 32)), "66 10 04");
    EXPECT_EQ(hex(salvo_connect(0, 1, 16, 300, 5)), "78 01 02 10 2C 05");
}

TEST(Swp08Requests, ExtendedFormPastLevel15Matrix15OrNumber1023) {
    EXPECT_EQ(hex(connect(0, 20, 1040, 2000)), "82 00 14 04 10 07 D0");
    EXPECT_EQ(hex(connect(16, 0, 0, 0)), "82 10 00 00 00 00 00");
    EXPECT_EQ(hex(connect(0, 0, 0, 1024)), "82 00 00 00 00 04 00");
    EXPECT_EQ(hex(interrogate(0, 16, 3)), "81 00 10 00 03");
    EXPECT_EQ(hex(tally_dump_request(0, 16)), "95 00 10");
    EXPECT_EQ(hex(protect_connect(0, 0, 1024, 7)), "8C 00 00 04 00 00 07");
    EXPECT_EQ(hex(protect_dump_request(0, 16, 0)), "93 00 10 00 00");
    EXPECT_EQ(hex(source_names_request(0, 16, 16)), "E4 00 10 03");
    EXPECT_EQ(hex(destination_names_request(16, 4)), "E6 10 00");
    EXPECT_EQ(hex(salvo_connect(0, 20, 1040, 2000, 5)), "F8 00 14 04 10 07 D0 05");
}

TEST(Swp08Requests, SalvoGoClearAndTheSmallRequests) {
    EXPECT_EQ(hex(salvo_go(5)), "79 00 05");
    EXPECT_EQ(hex(salvo_clear(127)), "79 01 7F");
    EXPECT_EQ(hex(implementation_request()), "61");
    EXPECT_EQ(hex(dual_status_request()), "08");
    EXPECT_EQ(hex(device_name(133, "LEITCH")), "12 01 05 4C 45 49 54 43 48 20 20");
    EXPECT_EQ(hex(device_name(3, "A LONG NAME")), "12 00 03 41 20 4C 4F 4E 47 20 4E");
}

TEST(Swp08Requests, NameLengthsAreTheProtocolsFive) {
    for (const int length : {4, 8, 12, 16, 32}) EXPECT_TRUE(is_name_length(length)) << length;
    for (const int length : {0, 5, 10, 24, 64}) EXPECT_FALSE(is_name_length(length)) << length;
}

}  // namespace
}  // namespace routerd::swp08
