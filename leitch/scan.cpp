#include "leitch/scan.h"

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
    for (const HeaderRow* row = statusHeader; row->code != kUnknown; ++row) {
        const size_t n = strnlen(row->text, 10);
        // strncmp stops at the NUL of a shorter text, which then differs.
        if (std::strncmp(row->text, *text, n) == 0) {
            *text += n;
            return row->code;
        }
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

bool scan_decimal(const char* p, int* out) {
    // White space as the C locale's isspace() knows it.
    while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
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

}  // namespace leitch
