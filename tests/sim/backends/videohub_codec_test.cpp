// The Videohub protocol codec without sockets: what a router sends, read into
// events whatever the cuts; what a client sends, byte for byte; and the
// bounds that keep a broken router from costing unbounded memory.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "sim/backends/videohub_codec.h"

namespace routerd::videohub {
namespace {

// ---------------------------------------------------------------------------
// Events as one line of text each, so whole streams compare in one EXPECT.

std::string with_malformed(std::string text, int malformed_lines) {
    if (malformed_lines > 0) text += " (" + std::to_string(malformed_lines) + " malformed)";
    return text;
}

std::string name(LabelKind kind) {
    switch (kind) {
        case LabelKind::input: return "input labels";
        case LabelKind::output: return "output labels";
        case LabelKind::monitoring_output: return "monitoring output labels";
    }
    return "?";
}

std::string name(OutputKind kind) { return kind == OutputKind::video_output ? "video output" : "monitoring output"; }

std::string name(Presence presence) {
    switch (presence) {
        case Presence::present: return "present";
        case Presence::absent: return "absent";
        case Presence::needs_update: return "needs_update";
    }
    return "?";
}

std::string item(const Label& label) { return std::to_string(label.port) + " '" + label.text + "'"; }
std::string item(const Route& route) { return std::to_string(route.output) + " " + std::to_string(route.input); }
std::string item(const Lock& lock) { return std::to_string(lock.output) + " " + static_cast<char>(lock.state); }

template <class Items>
std::string listed(std::string title, const Items& items) {
    title += ":";
    for (std::size_t i = 0; i < items.size(); ++i) title += (i == 0 ? " " : ", ") + item(items[i]);
    return title;
}

struct Describe {
    std::string operator()(const Ack&) const { return "ACK"; }
    std::string operator()(const Nak&) const { return "NAK"; }
    std::string operator()(const Preamble& p) const {
        return with_malformed("preamble " + std::to_string(p.major) + "." + std::to_string(p.minor), p.malformed_lines);
    }
    std::string operator()(const Device& d) const {
        return with_malformed("device " + name(d.presence) + ", model '" + d.model_name + "', " +
                                  std::to_string(d.video_inputs) + " inputs, " + std::to_string(d.video_outputs) +
                                  " outputs, " + std::to_string(d.video_monitoring_outputs) + " monitoring outputs",
                              d.malformed_lines);
    }
    std::string operator()(const Labels& l) const {
        return with_malformed(listed(name(l.kind), l.items), l.malformed_lines);
    }
    std::string operator()(const Routing& r) const {
        return with_malformed(listed(name(r.kind) + " routing", r.items), r.malformed_lines);
    }
    std::string operator()(const Locks& l) const {
        return with_malformed(listed(name(l.kind) + " locks", l.items), l.malformed_lines);
    }
    std::string operator()(const EndPrelude&) const { return "end prelude"; }
    std::string operator()(const Ignored& i) const { return "ignored " + i.header; }
};

std::string describe(const Event& event) { return std::visit(Describe{}, event); }

std::string described(const Reader::Received& received) {
    std::string text;
    for (const Event& event : received.events) text += describe(event) + "\n";
    if (!received.error.empty()) text += "error: " + received.error + "\n";
    return text;
}

// Feeds `bytes` in one piece and returns its events, one line each.
std::string read(Reader& reader, std::string_view bytes) { return described(reader.feed(bytes)); }

std::string read(std::string_view bytes) {
    Reader reader;
    return read(reader, bytes);
}

std::string with_cr_lf(const std::string& text) {
    std::string out;
    for (const char c : text) out += c == '\n' ? std::string("\r\n") : std::string(1, c);
    return out;
}

// ---------------------------------------------------------------------------
// Streams as units send them.

// A protocol 2.8 unit: locks before routing, then configuration and the end marker.
const std::string kDump28 =
    "PROTOCOL PREAMBLE:\n"
    "Version: 2.8\n"
    "\n"
    "VIDEOHUB DEVICE:\n"
    "Device present: true\n"
    "Model name: Smart Videohub 4x4\n"
    "Friendly name: Studio A\n"
    "Unique ID: 7C2E0D021B4A\n"
    "Video inputs: 4\n"
    "Video processing units: 0\n"
    "Video outputs: 4\n"
    "Video monitoring outputs: 0\n"
    "Serial ports: 0\n"
    "\n"
    "INPUT LABELS:\n"
    "0 Camera 1\n"
    "1 Camera 2\n"
    "2 Playout A\n"
    "3 Bars\n"
    "\n"
    "OUTPUT LABELS:\n"
    "0 Monitor 1\n"
    "1 Monitor 2\n"
    "2 Transmission\n"
    "3 Record\n"
    "\n"
    "VIDEO OUTPUT LOCKS:\n"
    "0 U\n"
    "1 U\n"
    "2 L\n"
    "3 U\n"
    "\n"
    "VIDEO OUTPUT ROUTING:\n"
    "0 0\n"
    "1 1\n"
    "2 2\n"
    "3 3\n"
    "\n"
    "CONFIGURATION:\n"
    "Take Mode: false\n"
    "\n"
    "END PRELUDE:\n"
    "\n";

const std::string kDump28Events =
    "preamble 2.8\n"
    "device present, model 'Smart Videohub 4x4', 4 inputs, 4 outputs, 0 monitoring outputs\n"
    "input labels: 0 'Camera 1', 1 'Camera 2', 2 'Playout A', 3 'Bars'\n"
    "output labels: 0 'Monitor 1', 1 'Monitor 2', 2 'Transmission', 3 'Record'\n"
    "video output locks: 0 U, 1 U, 2 L, 3 U\n"
    "video output routing: 0 0, 1 1, 2 2, 3 3\n"
    "ignored CONFIGURATION:\n"
    "end prelude\n";

// What follows the dump in a session: an answer, updates from this and other
// clients, a hardware block and a refusal.
const std::string kSession =
    "ACK\n"
    "\n"
    "VIDEO OUTPUT ROUTING:\n"
    "2 3\n"
    "\n"
    "ALARM STATUS:\n"
    "Fan: OK\n"
    "\n"
    "VIDEO OUTPUT LOCKS:\n"
    "2 U\n"
    "1 O\n"
    "\n"
    "OUTPUT LABELS:\n"
    "2 TX main\n"
    "\n"
    "NAK\n"
    "\n";

const std::string kSessionEvents =
    "ACK\n"
    "video output routing: 2 3\n"
    "ignored ALARM STATUS:\n"
    "video output locks: 2 U, 1 O\n"
    "output labels: 2 'TX main'\n"
    "NAK\n";

// ---------------------------------------------------------------------------
// The worked examples, both directions.

TEST(VideohubExamples, TakeIsOneRoutingBlockByteForByte) {
    const unsigned char expected[] = {0x56, 0x49, 0x44, 0x45, 0x4F, 0x20, 0x4F, 0x55, 0x54, 0x50, 0x55, 0x54, 0x20, 0x52,
                                      0x4F, 0x55, 0x54, 0x49, 0x4E, 0x47, 0x3A, 0x0A, 0x37, 0x20, 0x32, 0x0A, 0x0A};
    const std::string request = routing_request(OutputKind::video_output, {{7, 2}});
    EXPECT_EQ(request, "VIDEO OUTPUT ROUTING:\n7 2\n\n");
    EXPECT_EQ(request, std::string(std::begin(expected), std::end(expected)));
}

TEST(VideohubExamples, TakeIsAnsweredWithAckThenTheStatusBlock) {
    EXPECT_EQ(read("ACK\n\nVIDEO OUTPUT ROUTING:\n7 2\n\n"),
              "ACK\n"
              "video output routing: 7 2\n");
}

TEST(VideohubExamples, AnotherClientsTakeArrivesUnsolicited) {
    EXPECT_EQ(read("VIDEO OUTPUT ROUTING:\n7 2\n\n"), "video output routing: 7 2\n");
}

TEST(VideohubExamples, MultiDestinationTakeIsOneBlock) {
    EXPECT_EQ(routing_request(OutputKind::video_output, {{0, 5}, {1, 5}}), "VIDEO OUTPUT ROUTING:\n0 5\n1 5\n\n");
}

TEST(VideohubExamples, MultiDestinationUpdateHoldsEveryChangedOutput) {
    EXPECT_EQ(read("ACK\n\nVIDEO OUTPUT ROUTING:\n0 5\n1 5\n\n"),
              "ACK\n"
              "video output routing: 0 5, 1 5\n");
}

TEST(VideohubExamples, LockAndForcedUnlockRequests) {
    EXPECT_EQ(lock_request(OutputKind::video_output, {{7, LockAction::own}}), "VIDEO OUTPUT LOCKS:\n7 O\n\n");
    EXPECT_EQ(lock_request(OutputKind::video_output, {{7, LockAction::force_unlock}}), "VIDEO OUTPUT LOCKS:\n7 F\n\n");
    EXPECT_EQ(lock_request(OutputKind::video_output, {{7, LockAction::unlock}}), "VIDEO OUTPUT LOCKS:\n7 U\n\n");
}

TEST(VideohubExamples, ALockReadsOwnedOnTheOwnersConnection) {
    EXPECT_EQ(read("ACK\n\nVIDEO OUTPUT LOCKS:\n7 O\n\n"),
              "ACK\n"
              "video output locks: 7 O\n");
}

TEST(VideohubExamples, ALockReadsLockedOnAnotherConnection) {
    EXPECT_EQ(read("VIDEO OUTPUT LOCKS:\n7 L\n\n"), "video output locks: 7 L\n");
}

TEST(VideohubExamples, AForcedUnlockComesBackAsUnlocked) {
    EXPECT_EQ(read("ACK\n\nVIDEO OUTPUT LOCKS:\n7 U\n\n"),
              "ACK\n"
              "video output locks: 7 U\n");
}

TEST(VideohubExamples, PingByteForByte) {
    const unsigned char expected[] = {0x50, 0x49, 0x4E, 0x47, 0x3A, 0x0A, 0x0A};
    EXPECT_EQ(ping_request(), "PING:\n\n");
    EXPECT_EQ(ping_request(), std::string(std::begin(expected), std::end(expected)));
    EXPECT_EQ(read("ACK\n\n"), "ACK\n");
}

TEST(VideohubExamples, ABareHeaderAsksForTheWholeBlockAgain) {
    EXPECT_EQ(resend_request(routing_header(OutputKind::video_output)), "VIDEO OUTPUT ROUTING:\n\n");
    EXPECT_EQ(read("ACK\n\nVIDEO OUTPUT ROUTING:\n0 0\n1 1\n2 2\n3 3\n\n"),
              "ACK\n"
              "video output routing: 0 0, 1 1, 2 2, 3 3\n");
}

TEST(VideohubExamples, AMalformedRequestIsAnsweredWithNak) { EXPECT_EQ(read("NAK\n\n"), "NAK\n"); }

// ---------------------------------------------------------------------------
// Whole dumps.

TEST(VideohubDump, AProtocol28UnitSendsLocksBeforeRoutingAndAnEndMarker) { EXPECT_EQ(read(kDump28), kDump28Events); }

TEST(VideohubDump, AProtocol23UnitSendsTheDocumentOrderWithoutAnEndMarker) {
    EXPECT_EQ(read("PROTOCOL PREAMBLE:\n"
                   "Version: 2.3\n"
                   "\n"
                   "VIDEOHUB DEVICE:\n"
                   "Device present: true\n"
                   "Model name: Studio Videohub\n"
                   "Video inputs: 2\n"
                   "Video processing units: 0\n"
                   "Video outputs: 2\n"
                   "Video monitoring outputs: 1\n"
                   "Serial ports: 0\n"
                   "\n"
                   "INPUT LABELS:\n"
                   "0 VTR 1\n"
                   "1 VTR 2\n"
                   "\n"
                   "OUTPUT LABELS:\n"
                   "0 Edit\n"
                   "1 QC\n"
                   "\n"
                   "MONITORING OUTPUT LABELS:\n"
                   "0 Engineering\n"
                   "\n"
                   "VIDEO OUTPUT ROUTING:\n"
                   "0 1\n"
                   "1 0\n"
                   "\n"
                   "VIDEO MONITORING OUTPUT ROUTING:\n"
                   "0 1\n"
                   "\n"
                   "VIDEO OUTPUT LOCKS:\n"
                   "0 U\n"
                   "1 O\n"
                   "\n"
                   "MONITORING OUTPUT LOCKS:\n"
                   "0 U\n"
                   "\n"),
              "preamble 2.3\n"
              "device present, model 'Studio Videohub', 2 inputs, 2 outputs, 1 monitoring outputs\n"
              "input labels: 0 'VTR 1', 1 'VTR 2'\n"
              "output labels: 0 'Edit', 1 'QC'\n"
              "monitoring output labels: 0 'Engineering'\n"
              "video output routing: 0 1, 1 0\n"
              "monitoring output routing: 0 1\n"
              "video output locks: 0 U, 1 O\n"
              "monitoring output locks: 0 U\n");
}

// ---------------------------------------------------------------------------
// TCP cuts a stream anywhere: the events must not depend on where.

std::string read_in_two(const std::string& stream, std::size_t cut) {
    Reader reader;
    // Two statements: the operands of + may be evaluated in either order.
    std::string events = read(reader, std::string_view(stream).substr(0, cut));
    return events + read(reader, std::string_view(stream).substr(cut));
}

TEST(VideohubSplits, EveryCutInTwoGivesTheEventsOfTheWholeStream) {
    const std::string stream = kDump28 + kSession;
    for (std::size_t cut = 0; cut <= stream.size(); ++cut)
        ASSERT_EQ(read_in_two(stream, cut), kDump28Events + kSessionEvents) << "cut at " << cut;
}

TEST(VideohubSplits, EveryCutInTwoOfACrLfStreamGivesTheSameEvents) {
    const std::string stream = with_cr_lf(kDump28 + kSession);
    for (std::size_t cut = 0; cut <= stream.size(); ++cut)
        ASSERT_EQ(read_in_two(stream, cut), kDump28Events + kSessionEvents) << "cut at " << cut;
}

TEST(VideohubSplits, ByteByByteGivesTheEventsOfTheWholeStream) {
    for (const std::string& stream : {kDump28 + kSession, with_cr_lf(kDump28 + kSession)}) {
        Reader reader;
        std::string events;
        for (const char c : stream) events += read(reader, std::string_view(&c, 1));
        EXPECT_EQ(events, kDump28Events + kSessionEvents);
    }
}

TEST(VideohubSplits, EveryCutOfAStreamThatBreaksABoundGivesTheSameEventsAndError) {
    const std::string stream = kSession + "INPUT LABELS:\n0 " + std::string(Reader::kMostLineBytes, 'x') + "\n\n";
    const std::string expected = kSessionEvents + "error: line longer than 4096 bytes\n";
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        Reader reader;
        const Reader::Received first = reader.feed(std::string_view(stream).substr(0, cut));
        const Reader::Received second = reader.feed(std::string_view(stream).substr(cut));
        // Once failed, a feed repeats the error: count it once.
        ASSERT_EQ(described({first.events, {}}) + described(second), expected) << "cut at " << cut;
    }
}

// ---------------------------------------------------------------------------
// Line ends.

TEST(VideohubLines, CrLfAndLfGiveTheSameEvents) { EXPECT_EQ(read(with_cr_lf(kDump28)), kDump28Events); }

TEST(VideohubLines, OnlyOneCrBeforeTheLfIsDropped) {
    EXPECT_EQ(read("VIDEO OUTPUT ROUTING:\r\n7 2\r\r\n\r\n"), "video output routing: (1 malformed)\n");
}

TEST(VideohubLines, EmptyLinesBetweenBlocksAreSkipped) { EXPECT_EQ(read("\n\r\n\nACK\n\n\n\nNAK\n\n"), "ACK\nNAK\n"); }

TEST(VideohubLines, ABlockIsYieldedOnlyAtItsEmptyLine) {
    Reader reader;
    EXPECT_EQ(read(reader, "VIDEO OUTPUT ROUTING:\n7 2\n"), "");
    EXPECT_EQ(read(reader, "6 1\n"), "");
    EXPECT_EQ(read(reader, "\n"), "video output routing: 7 2, 6 1\n");
}

TEST(VideohubLines, AckDirectlyFollowedByARoutingBlockInOneChunkGivesBoth) {
    EXPECT_EQ(read("ACK\n\nVIDEO OUTPUT ROUTING:\n7 2\n\n"), "ACK\nvideo output routing: 7 2\n");
}

// ---------------------------------------------------------------------------
// Labels.

TEST(VideohubLabels, TextIsEverythingAfterTheFirstSpaceSpacesIncluded) {
    EXPECT_EQ(read("INPUT LABELS:\n0 Camera 1  wide \n1  leading\n\n"),
              "input labels: 0 'Camera 1  wide ', 1 ' leading'\n");
}

TEST(VideohubLabels, AnEmptyTextIsAClearedLabel) {
    EXPECT_EQ(read("OUTPUT LABELS:\n4 \n5 Record\n\n"), "output labels: 4 '', 5 'Record'\n");
}

TEST(VideohubLabels, BytesThatAreNotUtf8AreKeptAsSent) {
    Reader reader;
    const Reader::Received received = reader.feed("INPUT LABELS:\n0 Cam\xff\xfe\x80 \xc3\xa9t\xc3\xa9\n\n");
    ASSERT_EQ(received.events.size(), 1u);
    const Labels& labels = std::get<Labels>(received.events[0]);
    ASSERT_EQ(labels.items.size(), 1u);
    EXPECT_EQ(labels.items[0].text, "Cam\xff\xfe\x80 \xc3\xa9t\xc3\xa9");
}

TEST(VideohubLabels, ALineWithoutASpaceOrWithABadPortIsMalformed) {
    EXPECT_EQ(read("INPUT LABELS:\n3\nthree Camera\n-1 Camera\n2 Camera 3\n\n"),
              "input labels: 2 'Camera 3' (3 malformed)\n");
}

// ---------------------------------------------------------------------------
// Blocks.

TEST(VideohubBlocks, UnknownBlocksBetweenKnownOnesAreSkipped) {
    EXPECT_EQ(read("VIDEO OUTPUT ROUTING:\n0 1\n\n"
                   "TAKE MODE:\n0 false\n1 true\n\n"
                   "NETWORK INTERFACE 1:\nDynamic IP: true\nCurrent Addresses: 192.168.10.20/255.255.255.0\n\n"
                   "SERIAL PORT ROUTING:\n0 1\n\n"
                   "VIDEO INPUT STATUS:\n0 BNC\n\n"
                   "FRAME BUFFER ROUTING:\n0 1\n\n"
                   "VIDEO OUTPUT LOCKS:\n0 U\n\n"),
              "video output routing: 0 1\n"
              "ignored TAKE MODE:\n"
              "ignored NETWORK INTERFACE 1:\n"
              "ignored SERIAL PORT ROUTING:\n"
              "ignored VIDEO INPUT STATUS:\n"
              "ignored FRAME BUFFER ROUTING:\n"
              "video output locks: 0 U\n");
}

TEST(VideohubBlocks, MonitoringHeadersAreReadExactlyAsUnitsSendThem) {
    EXPECT_EQ(read("MONITORING OUTPUT LABELS:\n0 Scope\n\n"
                   "VIDEO MONITORING OUTPUT ROUTING:\n0 3\n\n"
                   "MONITORING OUTPUT LOCKS:\n0 L\n\n"
                   "MONITOR OUTPUT LABELS:\n0 Scope\n\n"
                   "MONITORING OUTPUT ROUTING:\n0 3\n\n"),
              "monitoring output labels: 0 'Scope'\n"
              "monitoring output routing: 0 3\n"
              "monitoring output locks: 0 L\n"
              "ignored MONITOR OUTPUT LABELS:\n"
              "ignored MONITORING OUTPUT ROUTING:\n");
}

TEST(VideohubBlocks, HeadersMatchInAnyCase) {
    EXPECT_EQ(read("Video Output Routing:\n7 2\n\nack\n\n"), "video output routing: 7 2\nACK\n");
}

TEST(VideohubBlocks, ALineOutsideABlockOpensAnUnknownBlock) {
    EXPECT_EQ(read("7 2\n6 1\n\nACK\n\n"), "ignored 7 2\nACK\n");
}

TEST(VideohubBlocks, LinesInsideAckAndEndPreludeAreSkipped) {
    EXPECT_EQ(read("ACK\nsomething\n\nEND PRELUDE:\nmore\n\n"), "ACK\nend prelude\n");
}

TEST(VideohubBlocks, RoutingItemsThatAreNotTwoDecimalPortsAreCountedAndDropped) {
    EXPECT_EQ(read("VIDEO OUTPUT ROUTING:\n"
                   "7 two\n"
                   "-1 2\n"
                   "+1 2\n"
                   "7\n"
                   "7  2\n"
                   "7 2 \n"
                   "0x7 2\n"
                   "2147483648 0\n"
                   "0 2147483648\n"
                   "99999999999999999999 0\n"
                   "2147483647 0\n"
                   "007 2\n"
                   "\n"),
              "video output routing: 2147483647 0, 7 2 (10 malformed)\n");
}

TEST(VideohubBlocks, LockItemsOtherThanOLOrUAreCountedAndDropped) {
    EXPECT_EQ(read("VIDEO OUTPUT LOCKS:\n7 X\n7 o\n7 OL\n7 F\n7\nseven U\n3 L\n\n"),
              "video output locks: 3 L (6 malformed)\n");
}

TEST(VideohubBlocks, AnUpdateHoldsDuplicatesInTheOrderSent) {
    EXPECT_EQ(read("VIDEO OUTPUT ROUTING:\n7 2\n7 3\n\n"), "video output routing: 7 2, 7 3\n");
}

// ---------------------------------------------------------------------------
// Preamble and device.

TEST(VideohubDevice, KeysAreReadByNameInAnyOrder) {
    EXPECT_EQ(read("VIDEOHUB DEVICE:\n"
                   "Video outputs: 40\n"
                   "Unique ID: 7C2E0D021B4A\n"
                   "Model name: Smart Videohub 12G 40x40: rack 2\n"
                   "Video monitoring outputs: 2\n"
                   "Video inputs: 40\n"
                   "Device present: true\n"
                   "\n"),
              "device present, model 'Smart Videohub 12G 40x40: rack 2', 40 inputs, 40 outputs, 2 monitoring outputs\n");
}

TEST(VideohubDevice, MonitoringOutputsAreZeroWhenNotAnnounced) {
    EXPECT_EQ(read("VIDEOHUB DEVICE:\nDevice present: true\nModel name: Micro\nVideo inputs: 16\nVideo outputs: 16\n\n"),
              "device present, model 'Micro', 16 inputs, 16 outputs, 0 monitoring outputs\n");
}

TEST(VideohubDevice, DevicePresentFalseIsAbsent) {
    EXPECT_EQ(read("VIDEOHUB DEVICE:\nDevice present: false\n\n"),
              "device absent, model '', 0 inputs, 0 outputs, 0 monitoring outputs\n");
}

TEST(VideohubDevice, DevicePresentNeedsUpdateIsItsOwnState) {
    EXPECT_EQ(read("VIDEOHUB DEVICE:\nDevice present: needs_update\n\n"),
              "device needs_update, model '', 0 inputs, 0 outputs, 0 monitoring outputs\n");
}

TEST(VideohubDevice, WithoutAReadablePresenceTheDeviceIsAbsent) {
    EXPECT_EQ(read("VIDEOHUB DEVICE:\nDevice present: maybe\nVideo inputs: 4\nVideo outputs: 4\n\n"),
              "device absent, model '', 4 inputs, 4 outputs, 0 monitoring outputs (1 malformed)\n");
}

TEST(VideohubDevice, CountsThatAreNotDecimalAreMalformed) {
    EXPECT_EQ(read("VIDEOHUB DEVICE:\nDevice present: true\nVideo inputs: many\nVideo outputs: -4\n"
                   "Video monitoring outputs:\nno colon here\n\n"),
              "device present, model '', 0 inputs, 0 outputs, 0 monitoring outputs (4 malformed)\n");
}

TEST(VideohubPreamble, VersionIsMajorAndMinor) {
    EXPECT_EQ(read("PROTOCOL PREAMBLE:\nVersion: 2.10\n\n"), "preamble 2.10\n");
}

TEST(VideohubPreamble, SpacesAfterAValueAreNotPartOfIt) {
    EXPECT_EQ(read("PROTOCOL PREAMBLE:\nVersion: 2.3 \n\nVIDEOHUB DEVICE:\nDevice present: true\t\nVideo inputs: 16  \n\n"),
              "preamble 2.3\ndevice present, model '', 16 inputs, 0 outputs, 0 monitoring outputs\n");
}

TEST(VideohubPreamble, AnUnreadableVersionIsZeroAndCounted) {
    EXPECT_EQ(read("PROTOCOL PREAMBLE:\nVersion: 3\nVersion: two.three\nBuild: 8.1\n\n"),
              "preamble 0.0 (2 malformed)\n");
}

// ---------------------------------------------------------------------------
// Requests.

TEST(VideohubRequests, MonitoringRequestsUseTheMonitoringHeaders) {
    EXPECT_EQ(routing_request(OutputKind::monitoring_output, {{0, 3}}), "VIDEO MONITORING OUTPUT ROUTING:\n0 3\n\n");
    EXPECT_EQ(lock_request(OutputKind::monitoring_output, {{0, LockAction::own}, {1, LockAction::unlock}}),
              "MONITORING OUTPUT LOCKS:\n0 O\n1 U\n\n");
}

TEST(VideohubRequests, AnEmptyRequestIsNothingToSendNotABareHeader) {
    EXPECT_EQ(routing_request(OutputKind::video_output, {}), "");
    EXPECT_EQ(lock_request(OutputKind::video_output, {}), "");
}

TEST(VideohubRequests, BareHeadersForEveryTable) {
    EXPECT_EQ(resend_request(kDeviceHeader), "VIDEOHUB DEVICE:\n\n");
    EXPECT_EQ(resend_request(labels_header(LabelKind::input)), "INPUT LABELS:\n\n");
    EXPECT_EQ(resend_request(labels_header(LabelKind::output)), "OUTPUT LABELS:\n\n");
    EXPECT_EQ(resend_request(labels_header(LabelKind::monitoring_output)), "MONITORING OUTPUT LABELS:\n\n");
    EXPECT_EQ(resend_request(locks_header(OutputKind::video_output)), "VIDEO OUTPUT LOCKS:\n\n");
    EXPECT_EQ(resend_request(locks_header(OutputKind::monitoring_output)), "MONITORING OUTPUT LOCKS:\n\n");
}

TEST(VideohubRequests, ARoutingRequestReadsBackAsTheSameRoutes) {
    EXPECT_EQ(read(routing_request(OutputKind::video_output, {{0, 5}, {287, 0}, {12, 12}})),
              "video output routing: 0 5, 287 0, 12 12\n");
}

// ---------------------------------------------------------------------------
// Bounds: a broken router costs bounded memory and time, and says why.

std::string label_line(std::size_t bytes) { return "0 " + std::string(bytes - 2, 'x'); }

TEST(VideohubBounds, ALineOfTheMostBytesIsRead) {
    Reader reader;
    const Reader::Received received = reader.feed("INPUT LABELS:\n" + label_line(Reader::kMostLineBytes) + "\n\n");
    ASSERT_EQ(received.error, "");
    ASSERT_EQ(received.events.size(), 1u);
    EXPECT_EQ(std::get<Labels>(received.events[0]).items.at(0).text, std::string(4094, 'x'));
}

TEST(VideohubBounds, ALineOfTheMostBytesEndingInCrLfIsRead) {
    Reader reader;
    const Reader::Received received =
        reader.feed("INPUT LABELS:\r\n" + label_line(Reader::kMostLineBytes) + "\r\n\r\n");
    EXPECT_EQ(received.error, "");
    EXPECT_EQ(received.events.size(), 1u);
}

TEST(VideohubBounds, ALineOneByteLongerIsAnError) {
    EXPECT_EQ(read("INPUT LABELS:\n" + label_line(Reader::kMostLineBytes + 1) + "\n\n"),
              "error: line longer than 4096 bytes\n");
    EXPECT_EQ(read("INPUT LABELS:\r\n" + label_line(Reader::kMostLineBytes + 1) + "\r\n\r\n"),
              "error: line longer than 4096 bytes\n");
}

TEST(VideohubBounds, ALineOneByteLongerIsAnErrorWhenItComesInPieces) {
    Reader reader;
    EXPECT_EQ(read(reader, "INPUT LABELS:\n" + label_line(Reader::kMostLineBytes)), "");
    EXPECT_EQ(read(reader, "y\r"), "error: line longer than 4096 bytes\n");
}

std::string routing_block_of(std::size_t items) {
    std::string block = "VIDEO OUTPUT ROUTING:\n";
    for (std::size_t i = 0; i < items; ++i) block += "0 0\n";
    return block + "\n";
}

TEST(VideohubBounds, ABlockOfTheMostItemsIsRead) {
    Reader reader;
    const Reader::Received received = reader.feed(routing_block_of(Reader::kMostItemsPerBlock));
    ASSERT_EQ(received.error, "");
    ASSERT_EQ(received.events.size(), 1u);
    EXPECT_EQ(std::get<Routing>(received.events[0]).items.size(), 100000u);
}

TEST(VideohubBounds, ABlockOfOneItemMoreIsAnError) {
    Reader reader;
    const Reader::Received received = reader.feed(routing_block_of(Reader::kMostItemsPerBlock + 1));
    EXPECT_EQ(received.events.size(), 0u);
    EXPECT_EQ(received.error, "VIDEO OUTPUT ROUTING block of more than 100000 items");
}

TEST(VideohubBounds, ASkippedBlockIsBoundedToo) {
    std::string block = "TAKE MODE:\n";
    for (std::size_t i = 0; i <= Reader::kMostItemsPerBlock; ++i) block += "0 false\n";
    EXPECT_EQ(read(block), "error: TAKE MODE block of more than 100000 items\n");
}

// An INPUT LABELS block whose header and item lines come to `bytes`, line
// ends included, made of the longest lines.
std::string labels_block_of(std::size_t bytes) {
    std::string block = "INPUT LABELS:\n";
    block.reserve(bytes + 1);
    while (block.size() < bytes) {
        const std::size_t line = std::min(bytes - block.size() - 1, Reader::kMostLineBytes);
        block.append("0 ").append(line - 2, 'x') += '\n';
    }
    return block + "\n";
}

TEST(VideohubBounds, ABlockOfTheMostBytesIsRead) {
    const std::string block = labels_block_of(Reader::kMostBlockBytes);
    ASSERT_EQ(block.size(), 16u * 1024 * 1024 + 1);
    Reader reader;
    const Reader::Received received = reader.feed(block);
    EXPECT_EQ(received.error, "");
    EXPECT_EQ(received.events.size(), 1u);
}

TEST(VideohubBounds, ABlockOfOneByteMoreIsAnError) {
    EXPECT_EQ(read(labels_block_of(Reader::kMostBlockBytes + 1)),
              "error: INPUT LABELS block longer than 16777216 bytes\n");
}

TEST(VideohubBounds, TheMostPortsAreAccepted) {
    EXPECT_EQ(read("VIDEOHUB DEVICE:\nDevice present: true\nVideo inputs: 65536\nVideo outputs: 65536\n"
                   "Video monitoring outputs: 65536\n\n"),
              "device present, model '', 65536 inputs, 65536 outputs, 65536 monitoring outputs\n");
}

TEST(VideohubBounds, OnePortMoreIsAnError) {
    EXPECT_EQ(read("VIDEOHUB DEVICE:\nDevice present: true\nVideo inputs: 65537\n\n"),
              "error: Video inputs: 65537 is more than 65536\n");
}

TEST(VideohubBounds, AnAbsurdCountIsAnErrorThatNamesIt) {
    EXPECT_EQ(read("VIDEOHUB DEVICE:\nVideo outputs: 4000000000\n\n"),
              "error: Video outputs: 4000000000 is more than 65536\n");
    EXPECT_EQ(read("VIDEOHUB DEVICE:\nVideo monitoring outputs: 99999999999999999999999\n\n"),
              "error: Video monitoring outputs: 99999999999999999999999 is more than 65536\n");
}

TEST(VideohubBounds, CountsOfKeysNotReadAreNotBounded) {
    EXPECT_EQ(read("VIDEOHUB DEVICE:\nDevice present: true\nSerial ports: 4000000000\n\n"),
              "device present, model '', 0 inputs, 0 outputs, 0 monitoring outputs\n");
}

TEST(VideohubBounds, BlocksBeforeTheErrorInTheSameFeedAreYielded) {
    EXPECT_EQ(read("ACK\n\nVIDEOHUB DEVICE:\nVideo outputs: 4000000000\n\nNAK\n\n"),
              "ACK\n"
              "error: Video outputs: 4000000000 is more than 65536\n");
}

TEST(VideohubBounds, TheErrorIsSticky) {
    Reader reader;
    read(reader, "VIDEOHUB DEVICE:\nVideo outputs: 4000000000\n\n");
    EXPECT_TRUE(reader.failed());
    EXPECT_EQ(read(reader, "ACK\n\n"), "error: Video outputs: 4000000000 is more than 65536\n");
    EXPECT_EQ(read(reader, ""), "error: Video outputs: 4000000000 is more than 65536\n");
}

TEST(VideohubBounds, AnEndlessLineIn64KiBChunksStopsAtTheLimit) {
    Reader reader;
    const std::string chunk(64 * 1024, 'x');
    for (int i = 0; i < 64; ++i) {
        EXPECT_EQ(read(reader, chunk), "error: line longer than 4096 bytes\n");
        EXPECT_EQ(reader.buffered_bytes(), 0u);
    }
}

TEST(VideohubBounds, AnEndlessLineInSmallChunksIsHeldUpToTheLimitThenDropped) {
    Reader reader;
    const std::string chunk(1024, 'x');
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(read(reader, chunk), "");
        EXPECT_EQ(reader.buffered_bytes(), 1024u * (i + 1));
    }
    EXPECT_EQ(read(reader, "\r"), "");
    EXPECT_EQ(reader.buffered_bytes(), 4097u);
    EXPECT_EQ(read(reader, "x"), "error: line longer than 4096 bytes\n");
    EXPECT_EQ(reader.buffered_bytes(), 0u);
}

}  // namespace
}  // namespace routerd::videohub
