#include "leitch/scan.h"

#include <algorithm>
#include <climits>
#include <cstdint>

namespace leitch {

namespace {

constexpr int kHeaderRows = sizeof statusHeader / sizeof statusHeader[0] - 1;  // without the end row

constexpr size_t header_length(const HeaderRow& row) {
    size_t n = 0;
    while (n < 10 && row.text[n] != '\0') ++n;  // a header counts at most 10 characters
    return n;
}

constexpr bool every_header_starts_with_at_blank_and_one_more() {
    for (int i = 0; i < kHeaderRows; ++i) {
        const HeaderRow& row = statusHeader[i];
        if (row.text[0] != '@' || row.text[1] != ' ' || header_length(row) < 3) return false;
    }
    return statusHeader[kHeaderRows].code == kUnknown;
}
static_assert(every_header_starts_with_at_blank_and_one_more(),
              "classification looks rows up by the character after \"@ \"");

// The rows of statusHeader whose third character is c, in table order, so a
// command is compared only with the headers it can start with.
struct HeaderIndex {
    unsigned char first[256] = {};  // index into rows of the first candidate
    unsigned char count[256] = {};  // how many candidates follow in rows
    unsigned char rows[kHeaderRows] = {};
};

constexpr HeaderIndex index_headers() {
    HeaderIndex index;
    int next = 0;
    for (int c = 0; c < 256; ++c) {
        index.first[c] = static_cast<unsigned char>(next);
        for (int i = 0; i < kHeaderRows; ++i) {
            if (static_cast<unsigned char>(statusHeader[i].text[2]) != c) continue;
            index.rows[next++] = static_cast<unsigned char>(i);
            ++index.count[c];
        }
    }
    return index;
}

constexpr HeaderIndex kHeaderIndex = index_headers();

}  // namespace

int msg_switcher(char** text) {
    const char* const command = *text;
    if (command[0] != '@' || command[1] != ' ') return kUnknown;
    const unsigned char third = static_cast<unsigned char>(command[2]);
    const unsigned char* row = kHeaderIndex.rows + kHeaderIndex.first[third];
    for (const unsigned char* end = row + kHeaderIndex.count[third]; row != end; ++row) {
        // All of the header's characters must begin the command. The comparison
        // stops at the first difference, so it never reads past the NUL of a
        // shorter command.
        const HeaderRow& header = statusHeader[*row];
        size_t n = 3;
        while (n < 10 && header.text[n] != '\0' && header.text[n] == command[n]) ++n;
        if (n < 10 && header.text[n] != '\0') continue;
        *text += n;
        return header.code;
    }
    return kUnknown;
}

int find_len(const char* p, char terminator) {
    int n = 0;
    while (p[n] != terminator && !ends_message(p[n])) ++n;
    return n;
}

namespace {

// Only this many characters of a field take part in its conversion.
constexpr int kConvertedChars = 31;

// Converts the first `width` characters of p (at most 31; fewer at a NUL) as
// "%X" or "%d" would; those two are the only formats the handlers use.
bool convert(const char* p, int width, const char* format, void* out) {
    const size_t length = static_cast<size_t>(width < 0 ? 0 : std::min(width, kConvertedChars));
    int* const value = static_cast<int*>(out);
    return format[1] == 'd' ? scan_decimal(p, length, value) : scan_hex(p, length, value);
}

}  // namespace

char* asc_val(char* p, int width, const char* format, void* out, char terminator,
              bool* converted) {
    if (width == -1) width = find_len(p, terminator);
    const bool ok = convert(p, width, format, out);
    if (converted) *converted = ok;
    return p + width;
}

char* asc_val(char* p, int width, const char* format, void* out, char terminator) {
    return asc_val(p, width, format, out, terminator, nullptr);
}

bool read_field(const char* p, const char* format, int* out, char terminator) {
    // Only the first 31 characters take part in the conversion, so the field
    // needs measuring only that far.
    int width = 0;
    while (width < kConvertedChars && p[width] != terminator && !ends_message(p[width])) ++width;
    return convert(p, width, format, out);
}

char* move_next(char* p) {
    while (*p == ',' || *p == '/' || *p == ':' || *p == 'I') ++p;
    return p;
}


namespace {

// White space as the C locale's isspace() knows it.
bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

}  // namespace

bool scan_hex(const char* p, size_t length, int* out) {
    // Characters at and after `length` read as the end of the text, as a NUL does.
    const auto at = [p, length](size_t i) { return i < length ? p[i] : '\0'; };
    // Most fields are a few digits and nothing else: up to eight digits cannot
    // overflow, and without a leading "0x" there is nothing else to look at.
    if (hex_digit(at(0)) >= 0 && !(at(0) == '0' && (at(1) == 'x' || at(1) == 'X'))) {
        unsigned value = 0;
        size_t n = 0;
        for (int digit; n < 8 && (digit = hex_digit(at(n))) >= 0; ++n) {
            value = value * 16 + static_cast<unsigned>(digit);
        }
        if (hex_digit(at(n)) < 0) {
            *out = static_cast<int>(value);
            return true;
        }
    }
    size_t i = 0;
    while (is_space(at(i))) ++i;
    bool negative = false;
    if (at(i) == '+' || at(i) == '-') negative = at(i++) == '-';
    // "0x" may lead the digits; the "0" alone is a number already, so "0x"
    // with no digit after it reads as 0.
    bool digits = false;
    if (at(i) == '0' && (at(i + 1) == 'x' || at(i + 1) == 'X')) {
        digits = true;
        i += 2;
    }
    // scanf converts through strtoul: the magnitude saturates at the range of
    // unsigned long, a sign negates it, and the result is narrowed to unsigned.
    // Always with the 64 bits unsigned long has on x86-64 and arm64, so that a
    // client gets the same answers from a 32-bit controller too.
    std::uint64_t magnitude = 0;
    bool overflow = false;
    for (int digit; (digit = hex_digit(at(i))) >= 0; ++i) {
        digits = true;
        if (magnitude > (UINT64_MAX - static_cast<std::uint64_t>(digit)) / 16) overflow = true;
        magnitude = magnitude * 16 + static_cast<std::uint64_t>(digit);
    }
    if (!digits) return false;
    std::uint64_t value = UINT64_MAX;
    if (!overflow) value = negative ? 0 - magnitude : magnitude;
    *out = static_cast<int>(static_cast<unsigned>(value));
    return true;
}

bool scan_decimal(const char* p, size_t length, int* out) {
    const auto at = [p, length](size_t i) { return i < length ? p[i] : '\0'; };
    size_t i = 0;
    while (is_space(at(i))) ++i;
    bool negative = false;
    if (at(i) == '+' || at(i) == '-') negative = at(i++) == '-';
    if (at(i) < '0' || at(i) > '9') return false;
    // scanf converts through strtol: the magnitude saturates at the range of
    // long, and the result is then narrowed to int. Always with the 64 bits long
    // has on x86-64 and arm64, so that a 32-bit controller answers the same.
    std::uint64_t magnitude = 0;
    bool overflow = false;
    const std::uint64_t limit = negative ? static_cast<std::uint64_t>(INT64_MAX) + 1
                                         : static_cast<std::uint64_t>(INT64_MAX);
    for (; at(i) >= '0' && at(i) <= '9'; ++i) {
        const unsigned digit = static_cast<unsigned>(at(i) - '0');
        if (overflow || magnitude > (limit - digit) / 10) {
            overflow = true;
            continue;
        }
        magnitude = magnitude * 10 + digit;
    }
    std::int64_t value;
    if (overflow) {
        value = negative ? INT64_MIN : INT64_MAX;
    } else if (negative) {
        value = magnitude == static_cast<std::uint64_t>(INT64_MAX) + 1
                    ? INT64_MIN
                    : -static_cast<std::int64_t>(magnitude);
    } else {
        value = static_cast<std::int64_t>(magnitude);
    }
    *out = static_cast<int>(static_cast<std::uint32_t>(static_cast<std::uint64_t>(value)));
    return true;
}

bool scan_hex(const char* p, int* out) { return scan_hex(p, SIZE_MAX, out); }

bool scan_decimal(const char* p, int* out) { return scan_decimal(p, SIZE_MAX, out); }

void FieldEnds::begin_line(const char* line) {
    line_ = line;
    ++lineNumber_;
}

void FieldEnds::end_line() { line_ = nullptr; }

FieldEnds::Scan* FieldEnds::scan_for(char terminator) {
    if (!line_) return nullptr;
    Scan* scan = nullptr;
    switch (terminator) {
        case ',': scan = &scans_[0]; break;
        case '/': scan = &scans_[1]; break;
        case ':': scan = &scans_[2]; break;
        default: return nullptr;
    }
    if (scan->lineNumber != lineNumber_) {
        // First use on this line. A very long line's list is not kept.
        constexpr size_t kKeptEnds = 4096;
        if (scan->ends.capacity() > kKeptEnds) std::vector<const char*>().swap(scan->ends);
        scan->ends.clear();
        scan->next = line_;
        scan->lineNumber = lineNumber_;
    }
    return scan;
}

char FieldEnds::nearer(const char* p, char first, char second) {
    for (int n = 0; n < kNear && !ends_message(p[n]); ++n) {
        if (p[n] == first) return first;
        if (p[n] == second) return second;
    }
    return find_len(p, first) < find_len(p, second) ? first : second;
}

int FieldEnds::find_far(const char* p, char terminator) {
    Scan* const scan = scan_for(terminator);
    if (!scan) return kNear + leitch::find_len(p + kNear, terminator);
    // Every field end of the line before `next` is in `ends`. Scan on until
    // there is one at or after p, or the scan has reached the line's NUL.
    while (scan->next && (scan->ends.empty() || scan->ends.back() < p)) {
        const char* const end = scan->next + leitch::find_len(scan->next, terminator);
        scan->ends.push_back(end);
        scan->next = *end == '\0' ? nullptr : end + 1;
    }
    const auto end = std::lower_bound(scan->ends.begin(), scan->ends.end(), p);
    if (end == scan->ends.end()) return leitch::find_len(p, terminator);  // beyond the NUL
    return static_cast<int>(*end - p);
}

}  // namespace leitch
