#include "sim/backends/swp08_codec.h"

#include <algorithm>
#include <cstdio>

namespace routerd::swp08 {

namespace {

// Command bytes, as the protocol's tables number them in decimal.
enum Command : std::uint8_t {
    kInterrogate = 0x01,
    kConnect = 0x02,
    kTally = 0x03,
    kConnected = 0x04,
    kDualStatusRequest = 0x08,
    kDualStatus = 0x09,
    kProtectInterrogate = 0x0A,
    kProtectTally = 0x0B,
    kProtectConnect = 0x0C,
    kProtectConnected = 0x0D,
    kProtectDisconnect = 0x0E,
    kProtectDisconnected = 0x0F,
    kDeviceNameRequest = 0x11,
    kDeviceNameResponse = 0x12,
    kProtectDumpRequest = 0x13,
    kProtectDump = 0x14,
    kTallyDumpRequest = 0x15,
    kTallyDumpByte = 0x16,
    kTallyDumpWord = 0x17,
    kNamesChanged = 0x1E,
    kImplementationRequest = 0x61,
    kImplementation = 0x62,
    kInvalid = 0x63,
    kSourceNamesRequest = 0x64,
    kDestinationNamesRequest = 0x66,
    kSourceNames = 0x6A,
    kDestinationNames = 0x6B,
    kSalvoConnect = 0x78,
    kSalvoGo = 0x79,
    kSalvoConnectAck = 0x7A,
    kSalvoDone = 0x7B,
    kExtInterrogate = 0x81,
    kExtConnect = 0x82,
    kExtTally = 0x83,
    kExtConnected = 0x84,
    kExtProtectInterrogate = 0x8A,
    kExtProtectTally = 0x8B,
    kExtProtectConnect = 0x8C,
    kExtProtectConnected = 0x8D,
    kExtProtectDisconnect = 0x8E,
    kExtProtectDisconnected = 0x8F,
    kExtProtectDumpRequest = 0x93,
    kExtProtectDump = 0x94,
    kExtTallyDumpRequest = 0x95,
    kExtTallyDump = 0x97,
    kExtSourceNamesRequest = 0xE4,
    kExtDestinationNamesRequest = 0xE6,
    kExtSourceNames = 0xEA,
    kExtDestinationNames = 0xEB,
    kExtSalvoConnect = 0xF8,
    kExtSalvoConnectAck = 0xFA,
};

std::uint8_t checksum(const Bytes& message) {
    unsigned sum = static_cast<unsigned>(message.size());
    for (const std::uint8_t b : message) sum += b;
    return static_cast<std::uint8_t>(0x100 - (sum & 0xFF));
}

void put_stuffed(std::string& out, std::uint8_t byte) {
    out += static_cast<char>(byte);
    if (byte == kDle) out += static_cast<char>(kDle);
}

std::uint8_t byte(int value) { return static_cast<std::uint8_t>(value & 0xFF); }
std::uint8_t high(int value) { return byte(value >> 8); }
std::uint8_t low(int value) { return byte(value); }

// The ML byte: matrix in the high nibble, level in the low one.
std::uint8_t matrix_level(int matrix, int level) { return static_cast<std::uint8_t>((matrix & 0x0F) << 4 | (level & 0x0F)); }

// The multiplier byte of the standard crosspoint messages: destination DIV 128
// in bits 6-4, source DIV 128 in bits 2-0. Bit 3 is the router's flag for a
// bad source, never part of a number.
std::uint8_t multiplier(int destination, int other) {
    return static_cast<std::uint8_t>((destination / 128 & 0x07) << 4 | (other / 128 & 0x07));
}

int word(const Bytes& m, std::size_t at) { return m[at] << 8 | m[at + 1]; }

// Standard fields: destination DIV 128 and MOD 128, source (or device) likewise.
int standard_destination(std::uint8_t mu, std::uint8_t rest) { return (mu >> 4 & 0x07) * 128 + (rest & 0x7F); }
int standard_other(std::uint8_t mu, std::uint8_t rest) { return (mu & 0x07) * 128 + (rest & 0x7F); }

int length_code(int length) {
    switch (length) {
        case 4: return 0;
        case 8: return 1;
        case 12: return 2;
        case 16: return 3;
        case 32: return 4;
        default: return -1;
    }
}

int name_length(std::uint8_t code) {
    static constexpr int kLengths[] = {4, 8, 12, 16, 32};
    return code < 5 ? kLengths[code] : 0;
}

Message malformed(const Bytes& m) { return Other{m[0], true}; }

Message crosspoint(const Bytes& m) {
    if (m.size() < 5) return malformed(m);
    return Crosspoints{m[1] >> 4, m[1] & 0x0F, {{standard_destination(m[2], m[3]), standard_other(m[2], m[4])}}};
}

// The extended tally and connected carry a status byte after the source; at
// least one router leaves it out.
Message extended_crosspoint(const Bytes& m) {
    if (m.size() < 7) return malformed(m);
    return Crosspoints{m[1], m[2], {{word(m, 3), word(m, 5)}}};
}

Message tally_dump_byte(const Bytes& m) {
    if (m.size() < 4 || m.size() < 4u + m[2]) return malformed(m);
    Crosspoints dump{m[1] >> 4, m[1] & 0x0F, {}};
    for (int i = 0; i < m[2]; ++i) dump.items.push_back({m[3] + i, m[4 + i]});
    return dump;
}

Message tally_dump_word(const Bytes& m, bool extended) {
    const std::size_t head = extended ? 6 : 5;  // command, (M, L | ML), N, dH, dL
    if (m.size() < head) return malformed(m);
    const int count = m[head - 3];
    if (m.size() < head + 2u * count) return malformed(m);
    Crosspoints dump = extended ? Crosspoints{m[1], m[2], {}} : Crosspoints{m[1] >> 4, m[1] & 0x0F, {}};
    const int first = word(m, head - 2);
    for (int i = 0; i < count; ++i) dump.items.push_back({first + i, word(m, head + 2u * i)});
    return dump;
}

// 0B, 0D, 0F: ML, P, MU, destination MOD 128, device MOD 128 (P before MU).
Message protect(const Bytes& m, ProtectReport report) {
    if (m.size() < 6) return malformed(m);
    return Protects{report, m[1] >> 4, m[1] & 0x0F,
                    {{standard_destination(m[3], m[4]), standard_other(m[3], m[5]), m[2]}}};
}

// 8B, 8D, 8F: M, L, P, dH, dL, devH, devL.
Message extended_protect(const Bytes& m, ProtectReport report) {
    if (m.size() < 8) return malformed(m);
    return Protects{report, m[1], m[2], {{word(m, 4), word(m, 6), m[3]}}};
}

// 14, 94: N words after the first destination, each the state in bits 14-12
// and the device in bits 9-0.
Message protect_dump(const Bytes& m, bool extended) {
    const std::size_t head = extended ? 6 : 5;
    if (m.size() < head) return malformed(m);
    const int count = m[head - 3];
    if (m.size() < head + 2u * count) return malformed(m);
    Protects dump = extended ? Protects{ProtectReport::dump, m[1], m[2], {}}
                             : Protects{ProtectReport::dump, m[1] >> 4, m[1] & 0x0F, {}};
    const int first = word(m, head - 2);
    for (int i = 0; i < count; ++i) {
        const int w = word(m, head + 2u * i);
        dump.items.push_back({first + i, w & 0x3FF, w >> 12 & 0x07});
    }
    return dump;
}

std::string trimmed(const std::uint8_t* text, std::size_t size) {
    std::string name(reinterpret_cast<const char*>(text), size);
    const std::size_t end = name.find_last_not_of(std::string(" \0", 2));
    name.erase(end == std::string::npos ? 0 : end + 1);
    return name;
}

// `at` is where the length code is; the first port, the count and the names follow.
Message names(const Bytes& m, Names head, std::size_t at) {
    if (m.size() < at + 4) return malformed(m);
    const int width = name_length(m[at]);
    const int count = m[at + 3];
    if (width == 0 || m.size() < at + 4 + static_cast<std::size_t>(width) * count) return malformed(m);
    head.first = word(m, at + 1);
    for (int i = 0; i < count; ++i) head.names.push_back(trimmed(&m[at + 4 + static_cast<std::size_t>(width) * i], width));
    return head;
}

Message implementation(const Bytes& m) {
    if (m.size() < 3 || m.size() < 3u + m[1] + m[2]) return malformed(m);
    Implementation list;
    list.transmitted.assign(m.begin() + 3, m.begin() + 3 + m[1]);
    list.accepted.assign(m.begin() + 3 + m[1], m.begin() + 3 + m[1] + m[2]);
    return list;
}

Message salvo_entry(const Bytes& m, bool extended) {
    if (extended) {
        if (m.size() < 8) return malformed(m);
        return SalvoEntry{m[1], m[2], {word(m, 3), word(m, 5)}, m[7]};
    }
    if (m.size() < 6) return malformed(m);
    return SalvoEntry{m[1] >> 4, m[1] & 0x0F, {standard_destination(m[2], m[3]), standard_other(m[2], m[4])}, m[5]};
}

}  // namespace

// ---- Framing

std::string frame(const Bytes& message) {
    std::string out{static_cast<char>(kDle), static_cast<char>(kStx)};
    for (const std::uint8_t b : message) put_stuffed(out, b);
    put_stuffed(out, byte(static_cast<int>(message.size())));
    put_stuffed(out, checksum(message));
    out += static_cast<char>(kDle);
    out += static_cast<char>(kEtx);
    return out;
}

std::string ack() { return {static_cast<char>(kDle), static_cast<char>(kAck)}; }
std::string nak() { return {static_cast<char>(kDle), static_cast<char>(kNak)}; }

void Receiver::feed(const std::uint8_t* data, std::size_t size, std::vector<Received>& out) {
    for (std::size_t i = 0; i < size; ++i) {
        const std::uint8_t b = data[i];
        if (!after_dle_) {
            if (b == kDle) {
                after_dle_ = true;
            } else if (!in_frame_) {
                ++dropped_since_frame_;
            } else if (body_.size() < kMaxMessage + 2) {
                body_.push_back(b);
            } else {
                overlong_ = true;
                ++dropped_since_frame_;
            }
            continue;
        }
        after_dle_ = false;
        switch (b) {
            case kDle:
                if (!in_frame_) {
                    dropped_since_frame_ += 2;
                } else if (body_.size() < kMaxMessage + 2) {
                    body_.push_back(kDle);
                } else {
                    overlong_ = true;
                }
                break;
            case kStx:
                if (in_frame_) drop_frame();
                in_frame_ = true;
                break;
            case kEtx:
                if (in_frame_) {
                    finish(out);
                } else {
                    dropped_since_frame_ += 2;
                }
                break;
            case kAck: out.emplace_back(LinkAck{}); break;
            case kNak: out.emplace_back(LinkNak{}); break;
            default:
                // A DLE before anything else cannot be read: the frame it is in is lost.
                if (in_frame_) {
                    drop_frame();
                    in_frame_ = false;
                }
                dropped_since_frame_ += 2;
                break;
        }
    }
}

void Receiver::drop_frame() {
    dropped_since_frame_ += body_.size() + 2;
    body_.clear();
    overlong_ = false;
}

void Receiver::finish(std::vector<Received>& out) {
    in_frame_ = false;
    if (overlong_) {
        drop_frame();
        out.emplace_back(BadFrame{"longer than " + std::to_string(kMaxMessage) + " message bytes"});
        return;
    }
    if (body_.size() < 3) {
        drop_frame();
        out.emplace_back(BadFrame{"too short for a command, a byte count and a checksum"});
        return;
    }
    unsigned sum = 0;
    for (const std::uint8_t b : body_) sum += b;
    const std::size_t count = body_[body_.size() - 2];
    const std::size_t message_size = body_.size() - 2;
    if ((sum & 0xFF) != 0) {
        drop_frame();
        out.emplace_back(BadFrame{"bad checksum"});
        return;
    }
    if (count != message_size) {
        drop_frame();
        out.emplace_back(BadFrame{"byte count " + std::to_string(count) + " for " + std::to_string(message_size) +
                                  " message bytes"});
        return;
    }
    body_.resize(message_size);
    out.emplace_back(Frame{std::move(body_)});
    body_ = Bytes();
    dropped_since_frame_ = 0;
}

// ---- The link

void Link::flush(Clock::time_point now, LinkOutput& out) {
    if (awaiting_ || queue_.empty()) return;
    awaiting_ = frame(queue_.front());
    queue_.pop_front();
    resends_ = 0;
    sent_at_ = now;
    out.write += *awaiting_;
}

void Link::receive(const std::uint8_t* data, std::size_t size, Clock::time_point now, LinkOutput& out) {
    received_.clear();
    receiver_.feed(data, size, received_);
    for (Received& item : received_) {
        if (std::holds_alternative<LinkAck>(item)) {
            // An ACK with nothing waiting for one is a late repeat: nothing to do.
            awaiting_.reset();
        } else if (std::holds_alternative<LinkNak>(item)) {
            if (awaiting_) resend(now, out, "NAK");
        } else if (Frame* f = std::get_if<Frame>(&item)) {
            out.write += ack();
            out.messages.push_back(std::move(f->message));
        } else {
            out.write += nak();
            out.bad.push_back(std::get<BadFrame>(item).reason);
        }
        if (out.failed) return;
    }
    flush(now, out);
}

void Link::tick(Clock::time_point now, LinkOutput& out) {
    if (awaiting_ && now - sent_at_ >= timing_.ack_timeout) resend(now, out, "no ACK");
    flush(now, out);
}

void Link::resend(Clock::time_point now, LinkOutput& out, const char* why) {
    if (resends_ >= timing_.resends) {
        out.failed = std::string(why) + " after " + std::to_string(timing_.resends) + " re-sends of " + hex(*awaiting_);
        return;
    }
    ++resends_;
    ++resent_;
    sent_at_ = now;
    out.write += *awaiting_;
}

std::optional<Link::Clock::time_point> Link::deadline() const {
    if (!awaiting_) return std::nullopt;
    return sent_at_ + timing_.ack_timeout;
}

// ---- Messages read

bool Implementation::accepts(std::uint8_t command) const {
    return std::find(accepted.begin(), accepted.end(), command) != accepted.end();
}

Message decode(const Bytes& m) {
    if (m.empty()) return Other{0, true};
    switch (m[0]) {
        case kTally:
        case kConnected: return crosspoint(m);
        case kExtTally:
        case kExtConnected: return extended_crosspoint(m);
        case kTallyDumpByte: return tally_dump_byte(m);
        case kTallyDumpWord: return tally_dump_word(m, false);
        case kExtTallyDump: return tally_dump_word(m, true);
        case kProtectTally: return protect(m, ProtectReport::tally);
        case kProtectConnected: return protect(m, ProtectReport::connected);
        case kProtectDisconnected: return protect(m, ProtectReport::disconnected);
        case kExtProtectTally: return extended_protect(m, ProtectReport::tally);
        case kExtProtectConnected: return extended_protect(m, ProtectReport::connected);
        case kExtProtectDisconnected: return extended_protect(m, ProtectReport::disconnected);
        case kProtectDump: return protect_dump(m, false);
        case kExtProtectDump: return protect_dump(m, true);
        case kSourceNames:
            if (m.size() < 2) return malformed(m);
            return names(m, Names{NameSide::source, m[1] >> 4, m[1] & 0x0F, 0, {}}, 2);
        case kDestinationNames:
            if (m.size() < 2) return malformed(m);
            return names(m, Names{NameSide::destination, m[1] >> 4, 0, 0, {}}, 2);
        case kExtSourceNames:
            if (m.size() < 3) return malformed(m);
            return names(m, Names{NameSide::source, m[1], m[2], 0, {}}, 3);
        case kExtDestinationNames:
            if (m.size() < 2) return malformed(m);
            return names(m, Names{NameSide::destination, m[1], 0, 0, {}}, 2);
        case kDualStatus:
            if (m.size() < 3) return malformed(m);
            return DualStatus{(m[1] & 0x02) != 0, (m[1] & 0x01) != 0, m[2]};
        case kImplementation: return implementation(m);
        case kSalvoConnectAck: return salvo_entry(m, false);
        case kExtSalvoConnectAck: return salvo_entry(m, true);
        case kSalvoDone:
            if (m.size() < 3 || m[1] > 2) return malformed(m);
            return SalvoDone{static_cast<SalvoResult>(m[1]), m[2]};
        case kNamesChanged: return NamesChanged{};
        case kDeviceNameRequest:
            if (m.size() < 3) return malformed(m);
            return DeviceNameRequest{standard_other(m[1], m[2])};
        case kInvalid:
            if (m.size() < 2) return malformed(m);
            return Invalid{m[1]};
        default: return Other{m[0], false};
    }
}

// ---- Messages sent

bool fits_standard(int matrix, int level, int destination, int source) {
    return matrix <= 15 && level <= 15 && destination <= 1023 && source <= 1023;
}

Bytes interrogate(int matrix, int level, int destination) {
    if (fits_standard(matrix, level, destination))
        return {kInterrogate, matrix_level(matrix, level), multiplier(destination, 0), byte(destination % 128)};
    return {kExtInterrogate, byte(matrix), byte(level), high(destination), low(destination)};
}

Bytes connect(int matrix, int level, int destination, int source) {
    if (fits_standard(matrix, level, destination, source))
        return {kConnect, matrix_level(matrix, level), multiplier(destination, source), byte(destination % 128),
                byte(source % 128)};
    return {kExtConnect, byte(matrix), byte(level), high(destination), low(destination), high(source), low(source)};
}

Bytes tally_dump_request(int matrix, int level) {
    if (fits_standard(matrix, level, 0)) return {kTallyDumpRequest, matrix_level(matrix, level)};
    return {kExtTallyDumpRequest, byte(matrix), byte(level)};
}

Bytes protect_interrogate(int matrix, int level, int destination) {
    if (fits_standard(matrix, level, destination))
        return {kProtectInterrogate, matrix_level(matrix, level), multiplier(destination, 0), byte(destination % 128)};
    return {kExtProtectInterrogate, byte(matrix), byte(level), high(destination), low(destination)};
}

namespace {

Bytes protect_change(std::uint8_t standard, std::uint8_t extended, int matrix, int level, int destination, int device) {
    if (fits_standard(matrix, level, destination, device))
        return {standard, matrix_level(matrix, level), multiplier(destination, device), byte(destination % 128),
                byte(device % 128)};
    return {extended, byte(matrix), byte(level), high(destination), low(destination), high(device), low(device)};
}

}  // namespace

Bytes protect_connect(int matrix, int level, int destination, int device) {
    return protect_change(kProtectConnect, kExtProtectConnect, matrix, level, destination, device);
}

Bytes protect_disconnect(int matrix, int level, int destination, int device) {
    return protect_change(kProtectDisconnect, kExtProtectDisconnect, matrix, level, destination, device);
}

Bytes protect_dump_request(int matrix, int level, int first) {
    if (fits_standard(matrix, level, first))
        return {kProtectDumpRequest, matrix_level(matrix, level), high(first), low(first)};
    return {kExtProtectDumpRequest, byte(matrix), byte(level), high(first), low(first)};
}

bool is_name_length(int length) { return length_code(length) >= 0; }

Bytes source_names_request(int matrix, int level, int length) {
    const std::uint8_t code = byte(length_code(length));
    if (fits_standard(matrix, level, 0)) return {kSourceNamesRequest, matrix_level(matrix, level), code};
    return {kExtSourceNamesRequest, byte(matrix), byte(level), code};
}

// The standard request carries the matrix in the high nibble, and no level:
// destination association names belong to the matrix.
Bytes destination_names_request(int matrix, int length) {
    const std::uint8_t code = byte(length_code(length));
    if (fits_standard(matrix, 0, 0)) return {kDestinationNamesRequest, matrix_level(matrix, 0), code};
    return {kExtDestinationNamesRequest, byte(matrix), code};
}

Bytes salvo_connect(int matrix, int level, int destination, int source, int salvo) {
    const std::uint8_t group = byte(salvo & 0x7F);
    if (fits_standard(matrix, level, destination, source))
        return {kSalvoConnect, matrix_level(matrix, level), multiplier(destination, source), byte(destination % 128),
                byte(source % 128), group};
    return {kExtSalvoConnect, byte(matrix), byte(level), high(destination), low(destination),
            high(source),     low(source),  group};
}

Bytes salvo_go(int salvo) { return {kSalvoGo, 0x00, byte(salvo & 0x7F)}; }
Bytes salvo_clear(int salvo) { return {kSalvoGo, 0x01, byte(salvo & 0x7F)}; }

Bytes implementation_request() { return {kImplementationRequest}; }
Bytes dual_status_request() { return {kDualStatusRequest}; }

Bytes device_name(int device, std::string_view name) {
    Bytes m{kDeviceNameResponse, multiplier(0, device), byte(device % 128)};
    for (std::size_t i = 0; i < 8; ++i) m.push_back(i < name.size() ? static_cast<std::uint8_t>(name[i]) : ' ');
    return m;
}

std::string hex(const Bytes& message) {
    std::string text;
    char digits[4];
    for (const std::uint8_t b : message) {
        std::snprintf(digits, sizeof digits, "%02X", b);
        if (!text.empty()) text += ' ';
        text += digits;
    }
    return text;
}

std::string hex(std::string_view bytes) {
    return hex(Bytes(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                     reinterpret_cast<const std::uint8_t*>(bytes.data()) + bytes.size()));
}

}  // namespace routerd::swp08
