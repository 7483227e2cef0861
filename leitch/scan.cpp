#include "leitch/scan.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

namespace leitch {

const HeaderRow statusHeader[19] = {
    {kReportOn, "@ ?"},       {kReportOff, "@ !"},       {kReset, "@ Z:"},
    {kLevelStatus, "@ S?"},   {kOutputStatus, "@ X?"},   {kLock, "@ W:"},
    {kLockDuplicate, "@ W:"}, {kDirectTake, "@ X:"},     {kPresetClear, "@ B:C"},
    {kPresetExecute, "@ B:E"}, {kPreset, "@ P:"},        {kOutputPreset, "@ P?"},
    {kLevelPreset, "@ V?"},   {kFrameSize, "@ F?"},      {kDeviceInfo, "@ I?"},
    {kQueryQ, "@ Q?"},        {kQueryM, "@ M?"},         {kTimeSet, "@ T,"},
    {kUnknown, "  "},
};

int msg_switcher(char** text) {
    const char* const command = *text;
    for (const HeaderRow* row = statusHeader; row->code != kUnknown; ++row) {
        // A header matches when all of its characters (at most 10) begin the
        // command. The comparison stops at the first difference, so it never
        // reads past the NUL of a shorter command.
        size_t n = 0;
        while (n < 10 && row->text[n] != '\0' && row->text[n] == command[n]) ++n;
        if (n < 10 && row->text[n] != '\0') continue;
        *text += n;
        return row->code;
    }
    return kUnknown;
}

int find_len(const char* p, char terminator) {
    const unsigned char t = static_cast<unsigned char>(terminator);
    int n = 0;
    for (;; ++n) {
        const unsigned char c = static_cast<unsigned char>(p[n]);
        if (c == t || c == '\0' || c == '\n' || c == '\r') return n;
    }
}

namespace {

constexpr int kScratchChars = 31;

// Copy at most `width` characters (and at most the scratch's 31) of p,
// stopping at a NUL, and convert them.
bool convert(const char* p, int width, const char* format, void* out) {
    char scratch[kScratchChars + 1];
    int n = 0;
    const int limit = width < kScratchChars ? width : kScratchChars;
    while (n < limit && p[n] != '\0') {
        scratch[n] = p[n];
        ++n;
    }
    scratch[n] = '\0';
    // The two conversions the handlers use are done here, exactly as scanf
    // does them; anything else goes to scanf itself.
    if (std::strcmp(format, "%X") == 0) return scan_hex(scratch, static_cast<int*>(out));
    if (std::strcmp(format, "%d") == 0) return scan_decimal(scratch, static_cast<int*>(out));
    return std::sscanf(scratch, format, out) == 1;
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
    const unsigned char t = static_cast<unsigned char>(terminator);
    while (width < kScratchChars) {
        const unsigned char c = static_cast<unsigned char>(p[width]);
        if (c == t || c == '\0' || c == '\n' || c == '\r') break;
        ++width;
    }
    return convert(p, width, format, out);
}

char* move_next(char* p) {
    while (*p == ',' || *p == '/' || *p == ':' || *p == 'I') ++p;
    return p;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

namespace {

// White space as the C locale's isspace() knows it.
const char* skip_space(const char* p) {
    while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
    return p;
}

}  // namespace

bool scan_hex(const char* p, int* out) {
    p = skip_space(p);
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    // "0x" may lead the digits; the "0" alone is a number already, so "0x"
    // with no digit after it reads as 0.
    bool digits = false;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        digits = true;
        p += 2;
    }
    // scanf converts through strtoul: the magnitude saturates at the range of
    // unsigned long, a sign negates it, and the result is narrowed to unsigned.
    unsigned long magnitude = 0;
    bool overflow = false;
    for (int digit; (digit = hex_digit(*p)) >= 0; ++p) {
        digits = true;
        if (magnitude > (ULONG_MAX - static_cast<unsigned long>(digit)) / 16) overflow = true;
        magnitude = magnitude * 16 + static_cast<unsigned long>(digit);
    }
    if (!digits) return false;
    unsigned long value = ULONG_MAX;
    if (!overflow) value = negative ? 0UL - magnitude : magnitude;
    *out = static_cast<int>(static_cast<unsigned>(value));
    return true;
}

bool scan_decimal(const char* p, int* out) {
    p = skip_space(p);
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    if (*p < '0' || *p > '9') return false;
    // scanf converts through strtol: the magnitude saturates at the range of
    // long, and the result is then narrowed to int.
    unsigned long magnitude = 0;
    bool overflow = false;
    const unsigned long limit = negative ? static_cast<unsigned long>(LONG_MAX) + 1
                                         : static_cast<unsigned long>(LONG_MAX);
    for (; *p >= '0' && *p <= '9'; ++p) {
        const unsigned digit = static_cast<unsigned>(*p - '0');
        if (overflow || magnitude > (limit - digit) / 10) {
            overflow = true;
            continue;
        }
        magnitude = magnitude * 10 + digit;
    }
    long value;
    if (overflow) {
        value = negative ? LONG_MIN : LONG_MAX;
    } else if (negative) {
        value = magnitude == static_cast<unsigned long>(LONG_MAX) + 1
                    ? LONG_MIN
                    : -static_cast<long>(magnitude);
    } else {
        value = static_cast<long>(magnitude);
    }
    *out = static_cast<int>(static_cast<unsigned long>(value));
    return true;
}

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

int FieldEnds::find_len(const char* p, char terminator) {
    // Most fields end within a few characters: those are measured directly.
    constexpr int kNear = 32;
    const unsigned char t = static_cast<unsigned char>(terminator);
    for (int n = 0; n < kNear; ++n) {
        const unsigned char c = static_cast<unsigned char>(p[n]);
        if (c == t || c == '\0' || c == '\n' || c == '\r') return n;
    }
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
