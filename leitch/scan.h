#pragma once

// Header classification and field scanning for Leitch command text. Everything
// here works in place on NUL-terminated text; only FieldEnds keeps a list.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace leitch {

// Message-type codes of the header table.
enum MessageCode : int {
    kUnknown = -1,
    kReportOff = 0,       // "@ !"
    kReportOn = 1,        // "@ ?"
    kPresetClear = 2,     // "@ B:C"
    kPresetExecute = 3,   // "@ B:E"
    kPreset = 4,          // "@ P:"
    kLevelStatus = 5,     // "@ S?"
    kOutputStatus = 6,    // "@ X?"
    kLock = 7,            // "@ W:"
    kLockDuplicate = 8,   // "@ W:" again; never produced, the row above matches first
    kReset = 9,           // "@ Z:"
    kDirectTake = 10,     // "@ X:"
    kFrameSize = 11,      // "@ F?"
    kDeviceInfo = 12,     // "@ I?"
    kQueryQ = 13,         // "@ Q?", ignored
    kQueryM = 14,         // "@ M?", ignored
    kTimeSet = 15,        // "@ T,", ignored
    kOutputPreset = 16,   // "@ P?"
    kLevelPreset = 17,    // "@ V?"
    kCodeCount = 18,
};

struct HeaderRow {
    int code;
    char text[12];
};

// The header table, in match order, ended by a row with code -1. The first
// header a command starts with gives its code, so "@ W:" is always 7.
inline constexpr HeaderRow statusHeader[19] = {
    {kReportOn, "@ ?"},       {kReportOff, "@ !"},       {kReset, "@ Z:"},
    {kLevelStatus, "@ S?"},   {kOutputStatus, "@ X?"},   {kLock, "@ W:"},
    {kLockDuplicate, "@ W:"}, {kDirectTake, "@ X:"},     {kPresetClear, "@ B:C"},
    {kPresetExecute, "@ B:E"}, {kPreset, "@ P:"},        {kOutputPreset, "@ P?"},
    {kLevelPreset, "@ V?"},   {kFrameSize, "@ F?"},      {kDeviceInfo, "@ I?"},
    {kQueryQ, "@ Q?"},        {kQueryM, "@ M?"},         {kTimeSet, "@ T,"},
    {kUnknown, "  "},
};

// True for the characters that end a message: NUL, LF and CR.
inline bool ends_message(char c) {
    // Most characters are above CR: one comparison settles them.
    return static_cast<unsigned char>(c) <= '\r' && (c == '\0' || c == '\n' || c == '\r');
}

// Classify the command at *text by the first header of statusHeader that it
// starts with; on a match step *text over the header. Returns the code or -1.
int msg_switcher(char** text);

// Length of the field at p: characters up to the first terminator, NUL, LF or CR.
int find_len(const char* p, char terminator);

// Read one field at p as scanf's "%X" or "%d" would, into an int.
// width -1 means "up to the terminator" (find_len); any other width is taken as
// it stands. At most 31 characters are converted. The conversion's outcome is
// not reported: `out` keeps its value when nothing converts. Returns p + width.
char* asc_val(char* p, int width, const char* format, void* out, char terminator);

// As asc_val, and tells whether the conversion produced a value.
char* asc_val(char* p, int width, const char* format, void* out, char terminator,
              bool* converted);

// Convert the field that asc_val with width -1 would read at p, without
// measuring the whole field: for fields that run to the end of a message
// (terminator CR) where the caller does not need the end position.
bool read_field(const char* p, const char* format, int* out, char terminator);

// Step over a run of separators: ',', '/', ':' and 'I'.
char* move_next(char* p);

// What sscanf(p, "%d", out) does where long has 64 bits (x86-64, arm64), on
// every processor, without measuring the rest of the text: skip white space,
// optional sign, decimal digits. Returns false when no digit follows.
// With `length`, the text ends after that many characters or at a NUL.
bool scan_decimal(const char* p, int* out);
bool scan_decimal(const char* p, size_t length, int* out);

// What sscanf(p, "%X", out) does where long has 64 bits, on every processor:
// skip white space, optional sign, optional "0x", hexadecimal digits. Returns
// false when no number is there.
bool scan_hex(const char* p, int* out);
bool scan_hex(const char* p, size_t length, int* out);

// A single hexadecimal digit as "%X" reads one character; -1 for anything else.
inline int hex_digit(char c) {
    struct Digits {
        signed char value[256];
        constexpr Digits() : value() {
            for (int c = 0; c < 256; ++c) {
                value[c] = c >= '0' && c <= '9'   ? static_cast<signed char>(c - '0')
                           : c >= 'A' && c <= 'F' ? static_cast<signed char>(c - 'A' + 10)
                           : c >= 'a' && c <= 'f' ? static_cast<signed char>(c - 'a' + 10)
                                                  : -1;
            }
        }
    };
    static constexpr Digits kDigits;
    return kDigits.value[static_cast<unsigned char>(c)];
}

// find_len for the separators ',', '/' and ':' on one line, answered from one
// scan of the line per separator. The preset and lock commands read their
// fields on across ';' into the commands after them, so on a long line of such
// commands measuring every field from scratch costs time in the square of the
// line's length; with this the cost stays linear.
class FieldEnds {
public:
    // From now on find_len may answer from `line`, which must stay unchanged
    // until end_line.
    void begin_line(const char* line);
    void end_line();

    // Exactly find_len(p, terminator). Most fields end within a few
    // characters: those are measured directly.
    int find_len(const char* p, char terminator) {
        for (int n = 0; n < kNear; ++n) {
            if (p[n] == terminator || ends_message(p[n])) return n;
        }
        return find_far(p, terminator);
    }

    // Whichever of the two ends the field at p first: `first` when
    // find_len(p, first) < find_len(p, second), else `second`.
    char nearer(const char* p, char first, char second);

private:
    static constexpr int kNear = 32;
    // find_len for a field at least kNear long.
    int find_far(const char* p, char terminator);

    struct Scan {
        std::vector<const char*> ends;  // every field end found so far, ascending
        const char* next = nullptr;     // where the scan goes on; null once at the NUL
        // The line the two above belong to. 64 bits on every processor: a
        // count that wrapped could take a line for one seen long ago.
        std::uint64_t lineNumber = 0;
    };
    Scan* scan_for(char terminator);

    const char* line_ = nullptr;  // null outside a line
    std::uint64_t lineNumber_ = 0;
    Scan scans_[3];  // ',', '/', ':'
};

}  // namespace leitch
