#include "sim/backends/videohub_codec.h"

#include <climits>
#include <cstring>
#include <utility>

namespace routerd::videohub {

namespace {

constexpr LabelKind kLabelKinds[] = {LabelKind::input, LabelKind::output, LabelKind::monitoring_output};
constexpr OutputKind kOutputKinds[] = {OutputKind::video_output, OutputKind::monitoring_output};

// The counts of the device block that size the router, read by key: the
// order of the keys differs between firmware versions.
struct DeviceCount {
    std::string_view key;
    int Device::*field;
};
constexpr DeviceCount kDeviceCounts[] = {
    {"Video inputs", &Device::video_inputs},
    {"Video outputs", &Device::video_outputs},
    {"Video monitoring outputs", &Device::video_monitoring_outputs},
};

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Headers are upper case on the wire; some peers match them in any case, and
// so does this reader (keys too: nothing is lost by it).
bool same_words(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (lower(a[i]) != lower(b[i])) return false;
    return true;
}

bool all_digits(std::string_view text) {
    if (text.empty()) return false;
    for (const char c : text)
        if (c < '0' || c > '9') return false;
    return true;
}

// Decimal digits only: a sign, a space, or a value past INT_MAX makes the
// item malformed rather than wrapping into some other port.
std::optional<int> parse_number(std::string_view text) {
    if (!all_digits(text)) return std::nullopt;
    long long value = 0;
    for (const char c : text) {
        value = value * 10 + (c - '0');
        if (value > INT_MAX) return std::nullopt;
    }
    return static_cast<int>(value);
}

// Routing, lock and label items are "<port> <value>", split at the first space.
struct Item {
    std::string_view port;
    std::string_view value;
};

std::optional<Item> split_item(std::string_view line) {
    const std::size_t space = line.find(' ');
    if (space == std::string_view::npos) return std::nullopt;
    return Item{line.substr(0, space), line.substr(space + 1)};
}

// Preamble and device items are "<key>: <value>"; a model name may itself
// hold colons, so only the first one separates.
struct Field {
    std::string_view key;
    std::string_view value;
};

std::optional<Field> split_field(std::string_view line) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    std::string_view value = line.substr(colon + 1);
    while (!value.empty() && value.front() == ' ') value.remove_prefix(1);
    // One third-party server sends "Version: 2.3 ".
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.remove_suffix(1);
    return Field{line.substr(0, colon), value};
}

std::optional<Route> parse_route(std::string_view line) {
    const std::optional<Item> item = split_item(line);
    if (!item) return std::nullopt;
    const std::optional<int> output = parse_number(item->port);
    const std::optional<int> input = parse_number(item->value);
    if (!output || !input) return std::nullopt;
    return Route{*output, *input};
}

std::optional<Lock> parse_lock(std::string_view line) {
    const std::optional<Item> item = split_item(line);
    if (!item || item->value.size() != 1) return std::nullopt;
    const std::optional<int> output = parse_number(item->port);
    const char state = item->value[0];
    if (!output || (state != 'O' && state != 'L' && state != 'U')) return std::nullopt;
    return Lock{*output, static_cast<LockState>(state)};
}

// The text is everything after the first space, spaces included; an empty
// text is a label cleared.
std::optional<Label> parse_label(std::string_view line) {
    const std::optional<Item> item = split_item(line);
    if (!item) return std::nullopt;
    const std::optional<int> port = parse_number(item->port);
    if (!port) return std::nullopt;
    return Label{*port, std::string(item->value)};
}

std::optional<Presence> parse_presence(std::string_view value) {
    if (same_words(value, "true")) return Presence::present;
    if (same_words(value, "false")) return Presence::absent;
    if (same_words(value, "needs_update")) return Presence::needs_update;
    return std::nullopt;
}

// "major.minor": a minor bump is compatible, a major one is not, so both are kept.
bool parse_version(std::string_view value, Preamble& preamble) {
    const std::size_t dot = value.find('.');
    if (dot == std::string_view::npos) return false;
    const std::optional<int> major = parse_number(value.substr(0, dot));
    const std::optional<int> minor = parse_number(value.substr(dot + 1));
    if (!major || !minor) return false;
    preamble.major = *major;
    preamble.minor = *minor;
    return true;
}

// The event a header opens. ACK and NAK carry no colon but still end with an
// empty line, so they are blocks like any other.
Event opened_block(std::string_view header) {
    if (same_words(header, "ACK")) return Ack{};
    if (same_words(header, "NAK")) return Nak{};
    if (same_words(header, kPreambleHeader)) return Preamble{};
    if (same_words(header, kDeviceHeader)) return Device{};
    if (same_words(header, kEndPreludeHeader)) return EndPrelude{};
    for (const LabelKind kind : kLabelKinds)
        if (same_words(header, labels_header(kind))) return Labels{kind, {}, 0};
    for (const OutputKind kind : kOutputKinds) {
        if (same_words(header, routing_header(kind))) return Routing{kind, {}, 0};
        if (same_words(header, locks_header(kind))) return Locks{kind, {}, 0};
    }
    return Ignored{std::string(header)};
}

std::string_view without_colon(std::string_view header) {
    if (!header.empty() && header.back() == ':') header.remove_suffix(1);
    return header;
}

// Requests share one shape: the header, one line per item, the empty line.
template <class Entry, class WriteItem>
std::string request(std::string_view header, const std::vector<Entry>& items, WriteItem write_item) {
    if (items.empty()) return {};
    std::string block(header);
    block += '\n';
    for (const Entry& item : items) {
        write_item(block, item);
        block += '\n';
    }
    block += '\n';
    return block;
}

std::string line_too_long() { return "line longer than " + std::to_string(Reader::kMostLineBytes) + " bytes"; }

std::string header_alone(std::string_view header) {
    std::string block(header);
    block += "\n\n";
    return block;
}

}  // namespace

std::string_view labels_header(LabelKind kind) {
    switch (kind) {
        case LabelKind::input: return "INPUT LABELS:";
        case LabelKind::output: return "OUTPUT LABELS:";
        case LabelKind::monitoring_output: return "MONITORING OUTPUT LABELS:";
    }
    return {};
}

std::string_view routing_header(OutputKind kind) {
    switch (kind) {
        case OutputKind::video_output: return "VIDEO OUTPUT ROUTING:";
        case OutputKind::monitoring_output: return "VIDEO MONITORING OUTPUT ROUTING:";
    }
    return {};
}

std::string_view locks_header(OutputKind kind) {
    switch (kind) {
        case OutputKind::video_output: return "VIDEO OUTPUT LOCKS:";
        case OutputKind::monitoring_output: return "MONITORING OUTPUT LOCKS:";
    }
    return {};
}

// ---------------------------------------------------------------------------
// Reader

Reader::Received Reader::feed(const char* data, std::size_t length) {
    Received received;
    std::size_t at = 0;
    while (!failed() && at < length) {
        const char* start = data + at;
        const auto* lf = static_cast<const char*>(std::memchr(start, '\n', length - at));
        if (lf == nullptr) {
            hold(std::string_view(start, length - at));
            break;
        }
        const std::string_view piece(start, static_cast<std::size_t>(lf - start));
        at += piece.size() + 1;
        // A line whole within this feed is read where it lies, without a copy.
        if (line_.empty()) {
            take_line(piece, received.events);
            continue;
        }
        if (!hold(piece)) break;
        take_line(line_, received.events);
        line_.clear();
    }
    if (failed()) {
        std::string().swap(line_);
        block_.reset();
    }
    received.error = error_;
    return received;
}

// Keeps the start of a line until its LF comes, with room for a CR beyond the
// longest line so that CR LF and LF allow the same text.
bool Reader::hold(std::string_view piece) {
    if (line_.size() + piece.size() > kMostLineBytes + 1) {
        fail(line_too_long());
        return false;
    }
    line_.append(piece);
    return true;
}

void Reader::take_line(std::string_view line, std::vector<Event>& events) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.size() > kMostLineBytes) return fail(line_too_long());
    if (!block_) {
        if (!line.empty()) open_block(line);
        return;
    }
    if (!line.empty()) return take_item(line);
    events.push_back(std::move(*block_));
    block_.reset();
}

void Reader::open_block(std::string_view header) {
    block_ = opened_block(header);
    block_name_ = without_colon(header);
    block_items_ = 0;
    block_bytes_ = header.size() + 1;
}

// Skipped blocks are bounded too: a block that never ends is a broken stream
// whatever its header.
void Reader::take_item(std::string_view line) {
    if (++block_items_ > kMostItemsPerBlock)
        return fail(block_name_ + " block of more than " + std::to_string(kMostItemsPerBlock) + " items");
    block_bytes_ += line.size() + 1;
    if (block_bytes_ > kMostBlockBytes)
        return fail(block_name_ + " block longer than " + std::to_string(kMostBlockBytes) + " bytes");
    std::visit([this, line](auto& block) { read_item(block, line); }, *block_);
}

// Version is the preamble's only key; any other is skipped, as the protocol
// asks of clients so that it can grow.
void Reader::read_item(Preamble& preamble, std::string_view line) {
    const std::optional<Field> field = split_field(line);
    if (!field) {
        ++preamble.malformed_lines;
        return;
    }
    if (same_words(field->key, "Version") && !parse_version(field->value, preamble)) ++preamble.malformed_lines;
}

void Reader::read_item(Device& device, std::string_view line) {
    const std::optional<Field> field = split_field(line);
    if (!field) {
        ++device.malformed_lines;
        return;
    }
    if (same_words(field->key, "Device present")) {
        const std::optional<Presence> presence = parse_presence(field->value);
        if (presence)
            device.presence = *presence;
        else
            ++device.malformed_lines;
        return;
    }
    if (same_words(field->key, "Model name")) {
        device.model_name = field->value;
        return;
    }
    for (const DeviceCount& count : kDeviceCounts)
        if (same_words(field->key, count.key))
            return read_count(count.key, field->value, device.*count.field, device.malformed_lines);
}

// The counts size the backend's tables, so a count past any real router is a
// broken stream, not a line to skip.
void Reader::read_count(std::string_view key, std::string_view value, int& count, int& malformed_lines) {
    if (!all_digits(value)) {
        ++malformed_lines;
        return;
    }
    const std::optional<int> number = parse_number(value);
    if (!number || *number > kMostPorts)
        return fail(std::string(key) + ": " + std::string(value) + " is more than " + std::to_string(kMostPorts));
    count = *number;
}

namespace {

// An item read goes into its block; one that could not be read is counted.
template <typename Block, typename Item>
void keep(Block& block, std::optional<Item> item) {
    if (item)
        block.items.push_back(std::move(*item));
    else
        ++block.malformed_lines;
}

}  // namespace

void Reader::read_item(Labels& labels, std::string_view line) { keep(labels, parse_label(line)); }

void Reader::read_item(Routing& routing, std::string_view line) { keep(routing, parse_route(line)); }

void Reader::read_item(Locks& locks, std::string_view line) { keep(locks, parse_lock(line)); }

// The first error stands: what follows it in the stream cannot be trusted.
void Reader::fail(std::string message) {
    if (error_.empty()) error_ = std::move(message);
}

// ---------------------------------------------------------------------------
// Requests

std::string routing_request(OutputKind kind, const std::vector<Route>& routes) {
    return request(routing_header(kind), routes, [](std::string& block, const Route& route) {
        block += std::to_string(route.output);
        block += ' ';
        block += std::to_string(route.input);
    });
}

std::string lock_request(OutputKind kind, const std::vector<LockChange>& changes) {
    return request(locks_header(kind), changes, [](std::string& block, const LockChange& change) {
        block += std::to_string(change.output);
        block += ' ';
        block += static_cast<char>(change.action);
    });
}

std::string ping_request() { return header_alone(kPingHeader); }

std::string resend_request(std::string_view header) { return header_alone(header); }

}  // namespace routerd::videohub
