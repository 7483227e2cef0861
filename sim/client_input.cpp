#include "sim/client_input.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "sim/limits.h"

namespace routerd {

namespace {

// The start of a client's last line kept for the web view.
constexpr std::size_t kNotedLineBytes = 256;

bool is_line_end(char c) { return c == '\r' || c == '\n'; }

// The first CR or LF in [from, end), or end. Every byte a client sends passes
// here, so it looks at eight bytes at a time: a byte of `word ^ pattern` is
// zero where the word holds the pattern's byte, and (x - 0x01..) & ~x & 0x80..
// marks zero bytes, the lowest of them exactly (higher marks may be false).
const char* find_line_end(const char* from, const char* end) {
    constexpr std::uint64_t kOnes = 0x0101010101010101u;
    constexpr std::uint64_t kHighs = 0x8080808080808080u;
    const auto zero_bytes = [](std::uint64_t x) { return (x - kOnes) & ~x & kHighs; };
    while (end - from >= 8) {
        std::uint64_t word;
        std::memcpy(&word, from, sizeof word);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
        word = __builtin_bswap64(word);  // the first byte in memory at the low end, as below
#endif
        const std::uint64_t marks = zero_bytes(word ^ (kOnes * '\r')) | zero_bytes(word ^ (kOnes * '\n'));
        if (marks != 0) return from + __builtin_ctzll(marks) / 8;
        from += 8;
    }
    while (from != end && !is_line_end(*from)) ++from;
    return from;
}

// The converter drops TAB, CR and LF in front of a line only while something
// else follows them in its buffer, so a chunk that ends in one of them can
// leave a bare terminator that would otherwise have been dropped. A chunk that
// ends on any other character is cut like the whole input would be.
bool is_white(char c) { return c == '\t' || is_line_end(c); }

// Report mode as far as the simulator can tell: from the lines that are
// exactly "@ ?" or "@ !" (the converter itself may see it otherwise, for
// instance in a line of several commands).
void note_mode(const char* line, std::size_t length, LineNotes& notes) {
    if (length != 3 || line[0] != '@' || line[1] != ' ') return;
    if (line[2] == '?') notes.report_mode = true;
    if (line[2] == '!') notes.report_mode = false;
}

}  // namespace

bool ClientInput::hold(std::size_t begin, std::size_t end, LineNotes& notes) {
    const char* data = received_.data() + begin;
    const std::size_t length = end - begin;
    if (line_too_long(data, length)) return false;
    if (log_.verbose()) log_received(data, length);
    note_lines(data, length, notes);
    begin_ = begin;
    end_ = end;
    return true;
}

std::string_view ClientInput::next_slice() {
    const char* const data = received_.data();
    const std::size_t budget_end = begin_ + kInputSliceBytes;
    std::size_t cut = end_;
    if (end_ > budget_end) {
        cut = budget_end;
        while (cut > begin_ && is_white(data[cut - 1])) --cut;
        if (cut == begin_) {
            // Nothing but white space so far: up to and including the next other character.
            cut = budget_end;
            while (cut < end_ && is_white(data[cut])) ++cut;
            cut = cut < end_ ? cut + 1 : end_;
        }
    }
    const std::string_view slice(data + begin_, cut - begin_);
    begin_ = cut;
    return slice;
}

bool ClientInput::line_too_long(const char* data, std::size_t length) {
    for (std::size_t i = length; i > 0; --i) {
        if (is_line_end(data[i - 1])) {
            bytes_since_line_end_ = length - i;
            return bytes_since_line_end_ > max_line_bytes_;
        }
    }
    bytes_since_line_end_ += length;
    return bytes_since_line_end_ > max_line_bytes_;
}

void ClientInput::log_received(const char* data, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
        const char c = data[i];
        if (!is_line_end(c)) {
            // Long lines are cut in the log; their start is enough to tell them apart.
            if (activity_line_.size() < 256) activity_line_ += c;
            continue;
        }
        if (!activity_line_.empty())
            log_.activity(client_name(client_) + " << \"" + escape(activity_line_) + "\"");
        activity_line_.clear();
    }
}

// This sees every byte a client sends: whole runs are handled at once, and of
// the lines that end in one read only the last is copied.
void ClientInput::note_lines(const char* data, std::size_t length, LineNotes& notes) {
    const char* const end = data + length;
    const char* last = nullptr;  // the last line that both began and ended in this read
    std::size_t last_length = 0;
    while (data != end) {
        const char* const line_end = find_line_end(data, end);
        const std::size_t run = static_cast<std::size_t>(line_end - data);
        if (line_end == end || !current_line_.empty()) {
            const std::size_t room = kNotedLineBytes - std::min(kNotedLineBytes, current_line_.size());
            current_line_.append(data, std::min(room, run));
            if (line_end == end) break;
            ++notes.lines_received;
            note_mode(current_line_.data(), current_line_.size(), notes);
            notes.last_line.swap(current_line_);
            current_line_.clear();
            last = nullptr;
        } else if (run > 0) {
            ++notes.lines_received;
            note_mode(data, run, notes);
            last = data;
            last_length = std::min(run, kNotedLineBytes);
        }
        data = line_end + 1;
    }
    if (last) notes.last_line.assign(last, last_length);
}

}  // namespace routerd
