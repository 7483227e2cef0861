#pragma once

// How the plug-in writes to a Leitch client and reads the level lists of its
// commands: the rules every handler shares.

#include <cstddef>
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

// One report, built in a fixed buffer as "%s" and "%X" would write it. The
// query answers come in thousands, so the digits are written here rather than
// by the C library's formatted printing. The longest report is 31 characters.
class Report {
public:
    explicit Report(std::string_view opening) { text(opening); }

    Report& text(std::string_view s) {
        for (const char c : s) buffer_[length_++] = c;
        return *this;
    }
    Report& character(char c) {
        buffer_[length_++] = c;
        return *this;
    }
    // Upper-case hexadecimal without leading zeros; a negative number as its
    // 32-bit two's complement.
    Report& hex(int value) {
        const unsigned v = static_cast<unsigned>(value);
        int digits = 1;
        while (digits < 8 && (v >> (4 * digits)) != 0) ++digits;
        for (int i = digits - 1; i >= 0; --i) {
            buffer_[length_++] = "0123456789ABCDEF"[(v >> (4 * i)) & 0xF];
        }
        return *this;
    }
    std::string_view view() const { return {buffer_, length_}; }

private:
    char buffer_[64];
    size_t length_ = 0;
};

}  // namespace leitch
