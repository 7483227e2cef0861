#pragma once

// How the plug-in writes to a Leitch client and reads the level lists of its
// commands: the rules every handler shares.

#include <cstddef>
#include <cstring>
#include <string_view>

#include "leitch/scan.h"

namespace leitch {

// Every report starts on a new line; a ';' between two commands is answered
// with a new line as well.
inline constexpr std::string_view kNewLine = "\r\n";
// Closes every line received and every unasked report.
inline constexpr std::string_view kPrompt = "\r\n>";

// Lock states as the router is asked for them and as clients see them: 1 and 2
// are themselves, anything else is 0.
inline int lock_code(int state) { return state == 1 || state == 2 ? state : 0; }

// Levels as the commands list them: one hexadecimal digit per level, nothing
// between them. A character that is not a digit repeats the previous level;
// before the first digit it names no level.
class LevelDigits {
public:
    // The level the next character names, or -1 for none.
    int next(char c) {
        const int digit = hex_digit(c);
        if (digit >= 0) level_ = digit;
        return level_;
    }

private:
    int level_ = -1;
};

// Reports are written into a fixed buffer, as "%s" and "%X" would write them,
// and sent as one string. The query answers come in thousands, so the digits
// are written here rather than by the C library's formatted printing.
constexpr size_t kReportRoom = 64;  // the longest report is 49 characters

inline char* write_text(char* out, std::string_view text) {
    std::memcpy(out, text.data(), text.size());
    return out + text.size();
}

// Upper-case hexadecimal without leading zeros; a negative number as its
// 32-bit two's complement.
inline char* write_hex(char* out, int value) {
    unsigned v = static_cast<unsigned>(value);
    // Levels are always one digit, and so are most sources.
    if (v < 16) {
        *out = "0123456789ABCDEF"[v];
        return out + 1;
    }
    // One digit per started group of four bits.
    char* const end = out + ((35 - __builtin_clz(v)) >> 2);
    char* p = end;
    do {
        *--p = "0123456789ABCDEF"[v & 0xF];
        v >>= 4;
    } while (v != 0);
    return end;
}

}  // namespace leitch
