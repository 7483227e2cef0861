#pragma once

// SW-P-08 (the "General Remote Control" protocol, over RS-422 or TCP) as
// bytes in and bytes out, in three layers, none with sockets or threads:
//   - framing: DLE STX, the message, its byte count and checksum, DLE ETX,
//     with every 0x10 after the start doubled (frame(), Receiver);
//   - the link: every frame is answered DLE ACK or DLE NAK, and a frame not
//     acknowledged is sent again (Link, which is told the time);
//   - messages: what a router's frames say (decode()) and the requests a
//     client sends (the functions at the end), in the standard form when the
//     numbers fit it and the extended one otherwise.
//
// Sources and destinations are 0-based on the wire. Matrices and levels are
// sent as given: whether a router counts them from 0 or 1 is its own.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace routerd::swp08 {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kDle = 0x10;
constexpr std::uint8_t kStx = 0x02;
constexpr std::uint8_t kEtx = 0x03;
constexpr std::uint8_t kAck = 0x06;
constexpr std::uint8_t kNak = 0x15;

// A frame's message (the command byte and what follows it) has at most 255
// bytes: its byte count is one byte.
constexpr std::size_t kMaxMessage = 255;

// ---------------------------------------------------------------------------
// Framing

// The whole frame for one message: DLE STX, the message, its byte count and
// checksum (0x10 doubled in all three), DLE ETX. `message` holds 1 to 255 bytes.
std::string frame(const Bytes& message);

std::string ack();  // DLE ACK: a frame was well formed
std::string nak();  // DLE NAK: it was not

// What came in on the link, in the order it came.
struct LinkAck {};
struct LinkNak {};
struct Frame {
    Bytes message;  // the command byte first; byte count and checksum checked and taken off
};
// A frame that ended but cannot be used: it is answered NAK, and the sender
// sends it again.
struct BadFrame {
    std::string reason;
};
using Received = std::variant<LinkAck, LinkNak, Frame, BadFrame>;

// Reads the link byte pair by byte pair, whatever the cuts between reads.
// DLE ACK and DLE NAK may come between two bytes of another frame: they are
// told and the frame goes on. "10 10" is a data byte 0x10, so "10 10 03" is
// 0x10 then 0x03, not the end. A DLE STX inside a frame drops the part read
// and starts again (the sender will send the dropped frame again). A frame
// longer than any message can be is dropped as it grows, so a stream without
// an end costs no more memory than one frame. Bytes outside any frame are
// counted and dropped.
class Receiver {
public:
    void feed(const std::uint8_t* data, std::size_t size, std::vector<Received>& out);
    void feed(std::string_view data, std::vector<Received>& out) {
        feed(reinterpret_cast<const std::uint8_t*>(data.data()), data.size(), out);
    }

    // Bytes dropped since the last whole frame (outside frames, in frames
    // dropped); the count a backend watches for a router that sends only noise.
    std::size_t dropped_since_frame() const { return dropped_since_frame_; }

private:
    void finish(std::vector<Received>& out);
    void drop_frame();

    bool in_frame_ = false;
    bool after_dle_ = false;
    bool overlong_ = false;  // this frame passed the bound; its end is waited for
    Bytes body_;             // message, byte count and checksum, 0x10 undoubled
    std::size_t dropped_since_frame_ = 0;
};

// ---------------------------------------------------------------------------
// The link: one frame out at a time, each sent again until acknowledged.

struct LinkTiming {
    // Without an ACK for this long, a frame is sent again.
    std::chrono::milliseconds ack_timeout{1000};
    // How many times a frame is sent again (after a NAK or a missed ACK)
    // before the link is given up.
    int resends = 5;
};

// What the link has to write and what it read, after each step.
struct LinkOutput {
    std::string write;              // ACKs and NAKs of frames read, frames sent and sent again
    std::vector<Bytes> messages;    // frames read, well formed, in order
    std::vector<std::string> bad;   // frames answered NAK, and why
    std::optional<std::string> failed;  // the link cannot go on: why
};

// Sends messages one at a time: the next leaves once the one before is
// acknowledged. Every frame read is answered at once, ACK or NAK; a frame the
// peer sends twice (it missed our ACK) is read twice, so whatever reads the
// messages must take a repeat as a no-op.
class Link {
public:
    using Clock = std::chrono::steady_clock;

    explicit Link(LinkTiming timing = {}) : timing_(timing) {}

    void send(Bytes message) { queue_.push_back(std::move(message)); }
    // Puts the next message on the wire if none waits for its ACK.
    void flush(Clock::time_point now, LinkOutput& out);
    void receive(const std::uint8_t* data, std::size_t size, Clock::time_point now, LinkOutput& out);
    // Sends again what waited too long for its ACK.
    void tick(Clock::time_point now, LinkOutput& out);

    // When tick() next has work: the unacknowledged frame's deadline.
    std::optional<Clock::time_point> deadline() const;
    // Nothing waits to be sent or acknowledged.
    bool idle() const { return !awaiting_ && queue_.empty(); }
    std::size_t queued() const { return queue_.size() + (awaiting_ ? 1 : 0); }
    std::size_t dropped_since_frame() const { return receiver_.dropped_since_frame(); }
    std::uint64_t resent() const { return resent_; }

private:
    void resend(Clock::time_point now, LinkOutput& out, const char* why);

    LinkTiming timing_;
    Receiver receiver_;
    std::deque<Bytes> queue_;
    std::optional<std::string> awaiting_;  // the frame sent, not acknowledged yet
    Clock::time_point sent_at_{};
    int resends_ = 0;
    std::uint64_t resent_ = 0;
    std::vector<Received> received_;
};

// ---------------------------------------------------------------------------
// Messages a router sends. Every form that says "this destination now carries
// that source" (tally, connected, extended or not, and the dumps) reads as
// Crosspoints; every protect report as Protects.

struct Crosspoint {
    int destination = 0;
    int source = 0;
};

struct Crosspoints {
    int matrix = 0;
    int level = 0;
    std::vector<Crosspoint> items;
};

enum class ProtectReport { tally, connected, disconnected, dump };

struct Protect {
    int destination = 0;
    int device = 0;   // the controller that holds it
    int state = 0;    // 0: not protected
};

struct Protects {
    ProtectReport report = ProtectReport::tally;
    int matrix = 0;
    int level = 0;
    std::vector<Protect> items;
};

enum class NameSide { source, destination };

// Names of consecutive ports from `first`. Destination names are the
// matrix's destination association names: one list for every level.
struct Names {
    NameSide side = NameSide::source;
    int matrix = 0;
    int level = 0;  // sources only
    int first = 0;
    std::vector<std::string> names;  // trailing spaces and NULs taken off
};

// Which of two controllers is active, as the one on this link sees it.
struct DualStatus {
    bool this_active = false;
    bool slave_active = false;
    int idle_state = 0;  // 0 ok, 1 missing or faulty, 2 unknown
};

struct Implementation {
    std::vector<std::uint8_t> transmitted;
    std::vector<std::uint8_t> accepted;
    bool accepts(std::uint8_t command) const;
};

// A crosspoint taken into a salvo group, to switch on its go.
struct SalvoEntry {
    int matrix = 0;
    int level = 0;
    Crosspoint crosspoint;
    int salvo = 0;
};

enum class SalvoResult { set = 0, cleared = 1, nothing = 2 };

struct SalvoDone {
    SalvoResult result = SalvoResult::set;
    int salvo = 0;
};

struct NamesChanged {};

// The router asks a protect's device for its name.
struct DeviceNameRequest {
    int device = 0;
};

// The router could not read a message of ours.
struct Invalid {
    int command = 0;
};

// A command this client has no use for, or one too short for its layout.
struct Other {
    std::uint8_t command = 0;
    bool malformed = false;
};

using Message = std::variant<Crosspoints, Protects, Names, DualStatus, Implementation, SalvoEntry, SalvoDone,
                             NamesChanged, DeviceNameRequest, Invalid, Other>;

Message decode(const Bytes& message);

// ---------------------------------------------------------------------------
// Messages a client sends. Each picks the standard form when the matrix and
// level are at most 15 and the numbers at most 1023, else the extended one.

bool fits_standard(int matrix, int level, int destination, int source = 0);

Bytes interrogate(int matrix, int level, int destination);
Bytes connect(int matrix, int level, int destination, int source);
Bytes tally_dump_request(int matrix, int level);

Bytes protect_interrogate(int matrix, int level, int destination);
Bytes protect_connect(int matrix, int level, int destination, int device);
Bytes protect_disconnect(int matrix, int level, int destination, int device);
Bytes protect_dump_request(int matrix, int level, int first);

// Names `length` characters wide: 4, 8, 12, 16 or 32.
bool is_name_length(int length);
Bytes source_names_request(int matrix, int level, int length);
Bytes destination_names_request(int matrix, int length);

Bytes salvo_connect(int matrix, int level, int destination, int source, int salvo);
Bytes salvo_go(int salvo);
Bytes salvo_clear(int salvo);

Bytes implementation_request();
Bytes dual_status_request();
// The answer to a DeviceNameRequest: the name cut or padded to 8 characters.
Bytes device_name(int device, std::string_view name);

// "02 00 00 07 02": a message in hex, for logs and tests.
std::string hex(const Bytes& message);
std::string hex(std::string_view bytes);

}  // namespace routerd::swp08
