#pragma once

// The Videohub Ethernet protocol (TCP, port 9990) as bytes in and bytes out:
// a Reader that turns what a router sends into events, and the requests a
// client sends, as text. No sockets, no threads, no clocks: the backend owns
// those, and the timeouts the protocol leaves to the client.
//
// Ports are decimal and 0-based on the wire: chassis port 1 is 0.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace routerd::videohub {

enum class LabelKind { input, output, monitoring_output };

// Video outputs and monitoring outputs are separate namespaces, each with its
// own routing and lock blocks.
enum class OutputKind { video_output, monitoring_output };

// A lock as the router reports it to this connection: the same lock reads O
// on its owner's connection and L on everyone else's.
enum class LockState : char {
    owned = 'O',
    locked = 'L',
    unlocked = 'U',
};

// What a client may ask of a lock.
enum class LockAction : char {
    own = 'O',
    unlock = 'U',        // releases a lock this client holds
    force_unlock = 'F',  // clears a lock another client holds; it comes back as U
};

// `Device present:` in the device block. Anything but `present` means no
// ports: the router resends every block once a device appears.
enum class Presence { present, absent, needs_update };

struct Label {
    int port = 0;
    std::string text;  // bytes as sent (UTF-8 in practice), may be empty or hold spaces
};

struct Route {
    int output = 0;
    int input = 0;
};

struct Lock {
    int output = 0;
    LockState state = LockState::unlocked;
};

struct LockChange {
    int output = 0;
    LockAction action = LockAction::own;
};

// ---------------------------------------------------------------------------
// What the router sends, one event per block. `malformed_lines` counts the
// item lines of a known block that could not be read (a port that is not a
// decimal int, a lock state other than O/L/U, a known key with a bad value);
// they are dropped, and the count is there for the backend's log.

struct Ack {};  // a request was understood; not that anything changed
struct Nak {};  // a request was not understood

struct Preamble {
    int major = 0;  // 0.0 when the block carries no readable `Version:`
    int minor = 0;
    int malformed_lines = 0;
};

// Keys other than the ones below (serial ports, friendly name, unique ID...)
// are skipped without being counted. A count the block does not carry is 0.
struct Device {
    Presence presence = Presence::absent;  // until the block says otherwise
    std::string model_name;
    int video_inputs = 0;
    int video_outputs = 0;
    int video_monitoring_outputs = 0;
    int malformed_lines = 0;
};

// Dump blocks hold every port; update blocks only the ports that changed, to
// be merged. Items come in the order sent, ports unchecked against the device
// counts (which may change between blocks).
struct Labels {
    LabelKind kind = LabelKind::input;
    std::vector<Label> items;
    int malformed_lines = 0;
};

struct Routing {
    OutputKind kind = OutputKind::video_output;
    std::vector<Route> items;
    int malformed_lines = 0;
};

struct Locks {
    OutputKind kind = OutputKind::video_output;
    std::vector<Lock> items;
    int malformed_lines = 0;
};

struct EndPrelude {};  // the initial dump is complete (newer firmware only)

// A block skipped whole: hardware status, configuration, network, serial
// ports, anything newer than this reader.
struct Ignored {
    std::string header;  // as sent, with its colon
};

using Event = std::variant<Ack, Nak, Preamble, Device, Labels, Routing, Locks, EndPrelude, Ignored>;

// ---------------------------------------------------------------------------
// Headers, shared by the reader and the requests so the two cannot disagree.
// The monitoring ones are inconsistent on the wire and copied exactly.

inline constexpr std::string_view kPreambleHeader = "PROTOCOL PREAMBLE:";
inline constexpr std::string_view kDeviceHeader = "VIDEOHUB DEVICE:";
inline constexpr std::string_view kEndPreludeHeader = "END PRELUDE:";
inline constexpr std::string_view kPingHeader = "PING:";
std::string_view labels_header(LabelKind kind);
std::string_view routing_header(OutputKind kind);
std::string_view locks_header(OutputKind kind);

// ---------------------------------------------------------------------------
// Reads what a Videohub router sends: blocks of a header line, item lines and
// an empty line; lines end in LF, with one CR before it dropped. Consumes
// every byte it is fed, whatever the cuts, and yields each block as one event
// once its empty line has come, in the order sent; feed() returns them. Empty
// lines between blocks are skipped. Headers match whatever their case.
//
// Bounded: a line holds at most kMostLineBytes (CR and LF not counted), a
// block at most kMostItemsPerBlock item lines and kMostBlockBytes (header and
// items, one LF each), known or skipped, and the device block announces at
// most kMostPorts inputs, outputs and monitoring outputs. Past any of
// them the stream is broken: the reader stops, drops what it held, and every
// feed from then on returns the same error and no events. Memory held
// between feeds is one unfinished line and one unfinished block; the work is
// linear in the bytes fed.
class Reader {
public:
    static constexpr std::size_t kMostLineBytes = 4096;  // a label line is the longest
    static constexpr std::size_t kMostItemsPerBlock = 100000;
    static constexpr std::size_t kMostBlockBytes = 16 * 1024 * 1024;
    static constexpr int kMostPorts = 65536;  // hardware stops at 288

    struct Received {
        std::vector<Event> events;  // the blocks completed, in order
        std::string error;          // set once the stream broke a bound; says which and by what
    };

    Received feed(const char* data, std::size_t length);
    Received feed(std::string_view bytes) { return feed(bytes.data(), bytes.size()); }

    bool failed() const { return !error_.empty(); }
    // Bytes of an unfinished line held until its LF: at most kMostLineBytes + 1 (a CR).
    std::size_t buffered_bytes() const { return line_.size(); }

private:
    bool hold(std::string_view piece);
    void take_line(std::string_view line, std::vector<Event>& events);
    void open_block(std::string_view header);
    void take_item(std::string_view line);
    void read_item(Preamble& preamble, std::string_view line);
    void read_item(Device& device, std::string_view line);
    void read_item(Labels& labels, std::string_view line);
    void read_item(Routing& routing, std::string_view line);
    void read_item(Locks& locks, std::string_view line);
    // ACK, NAK, END PRELUDE and skipped blocks: nothing in their lines is used.
    template <class Block>
    void read_item(Block&, std::string_view) {}
    void read_count(std::string_view key, std::string_view value, int& count, int& malformed_lines);
    void fail(std::string message);

    std::string line_;  // the unfinished line
    std::string error_;
    std::optional<Event> block_;  // the block being read, from its header to its empty line
    std::string block_name_;      // its header without the colon, for errors
    std::size_t block_items_ = 0;
    std::size_t block_bytes_ = 0;
};

// ---------------------------------------------------------------------------
// Requests, LF only. A request is acted on at its empty line and answered
// with ACK or NAK; the change itself, if any, comes back as a status block.
// Ports are written as given: 0 or more.

// All the routes in one block: one request, one ACK. Routers have been seen
// to drop routing blocks that come in a burst, so a take of several outputs
// goes as one block. Empty when `routes` is: a bare header would ask for the
// whole table instead.
std::string routing_request(OutputKind kind, const std::vector<Route>& routes);

// All the changes in one block; empty when `changes` is, as above.
std::string lock_request(OutputKind kind, const std::vector<LockChange>& changes);

// Answered with ACK and nothing else: the keepalive and liveness probe.
std::string ping_request();

// A header alone asks the router for that block again in full (ACK, then the
// block). `header` is one of those above or kDeviceHeader: a line ending in
// a colon, holding no line end.
std::string resend_request(std::string_view header);

}  // namespace routerd::videohub
