// Message intake: receive buffering, line framing and command dispatch.

#include <iterator>

#include "leitch/leitch_host.h"
#include "leitch/scan.h"
#include "leitch/wire.h"

using leitch::ends_message;

namespace {

// Erases the lines a ReceiveData call has consumed when the call ends, however
// it ends. Erasing once per call instead of once per line keeps the intake
// linear in the size of the chunk.
class ConsumedPrefix {
public:
    explicit ConsumedPrefix(std::string& buffer) : buffer_(buffer) {}
    ~ConsumedPrefix() {
        if (consumed == buffer_.size()) {
            buffer_.clear();
        } else {
            buffer_.erase(0, consumed);
        }
    }
    ConsumedPrefix(const ConsumedPrefix&) = delete;
    ConsumedPrefix& operator=(const ConsumedPrefix&) = delete;
    size_t consumed = 0;

private:
    std::string& buffer_;
};

using Handler = void (*)(LeitchHost&, char*);

struct Route {
    leitch::MessageCode code;
    Handler handler;  // null: the header has no handler
};

// The handler of every message code, in code order.
constexpr Route kRoutes[] = {
    {leitch::kReportOff, nullptr},
    {leitch::kReportOn, nullptr},
    {leitch::kPresetClear, [](LeitchHost& h, char*) { h.PresetClear(); }},
    {leitch::kPresetExecute, [](LeitchHost& h, char*) { h.PresetExecute(); }},
    {leitch::kPreset, [](LeitchHost& h, char* t) { h.PresetXpoint(t); }},
    {leitch::kLevelStatus, [](LeitchHost& h, char* t) { h.SendXpointLevelStatus(t); }},
    {leitch::kOutputStatus, [](LeitchHost& h, char* t) { h.SendXpointOutputStatus(t); }},
    {leitch::kLock, [](LeitchHost& h, char* t) { h.LockXpoint(t); }},
    {leitch::kLockDuplicate, [](LeitchHost& h, char* t) { h.LockXpoint(t); }},
    {leitch::kReset, [](LeitchHost& h, char* t) { h.XpointReset(t); }},
    {leitch::kDirectTake, [](LeitchHost& h, char* t) { h.XpointDirectTake(t); }},
    {leitch::kFrameSize, [](LeitchHost& h, char* t) { h.SendFramesSize(t); }},
    {leitch::kDeviceInfo, [](LeitchHost& h, char* t) { h.SendDeviceInformation(t); }},
    {leitch::kQueryQ, nullptr},
    {leitch::kQueryM, nullptr},
    {leitch::kTimeSet, nullptr},
    {leitch::kOutputPreset, [](LeitchHost& h, char* t) { h.SendXpointOutputPreset(t); }},
    {leitch::kLevelPreset, [](LeitchHost& h, char* t) { h.SendXpointLevelPreset(t); }},
};

constexpr bool routes_follow_the_header_table() {
    if (std::size(kRoutes) != leitch::kCodeCount) return false;
    for (int code = 0; code < leitch::kCodeCount; ++code) {
        if (kRoutes[code].code != code) return false;
    }
    for (const leitch::HeaderRow& row : leitch::statusHeader) {
        if (row.code != leitch::kUnknown && (row.code < 0 || row.code >= leitch::kCodeCount)) {
            return false;
        }
    }
    return true;
}
static_assert(routes_follow_the_header_table(),
              "one route per message code, in code order, for every code of statusHeader");

void dispatch(LeitchHost& host, int code, char* arguments) {
    if (code < 0 || code >= leitch::kCodeCount) return;
    if (const Handler handler = kRoutes[code].handler) handler(host, arguments);
}

// Lets the handlers use the field ends of one line for as long as it is being
// decoded, however the decoding ends.
class LineFields {
public:
    LineFields(leitch::FieldEnds& fields, const char* line) : fields_(fields) {
        fields_.begin_line(line);
    }
    ~LineFields() { fields_.end_line(); }
    LineFields(const LineFields&) = delete;
    LineFields& operator=(const LineFields&) = delete;

private:
    leitch::FieldEnds& fields_;
};

// TAB, LF and CR are all at or below CR: most characters are settled by one comparison.
bool is_terminator(char c) {
    return static_cast<unsigned char>(c) <= '\r' && (c == '\r' || c == '\n');
}
bool is_leading_white(char c) {
    return static_cast<unsigned char>(c) <= '\r' && (c == '\t' || c == '\r' || c == '\n');
}

}  // namespace

void LeitchHost::ReceiveData(const std::string& data, Interface* /*source*/) {
    // What the previous call left is an unterminated tail: it holds no CR or
    // LF, and it either starts with a character that is not white space or is
    // nothing but TABs. Should a Decode throw, nothing is known the next time.
    const size_t searched = rxSearched;
    rxSearched = 0;
    rxBuffer += data;
    ConsumedPrefix done(rxBuffer);
    char* const text = &rxBuffer[0];
    const size_t size = rxBuffer.size();
    for (;;) {
        // White space between lines is dropped, but only while something else
        // follows it: a buffer of nothing but TAB, CR and LF is left as it is,
        // so the LF of a CR LF that ends a chunk becomes an empty line. A tail
        // of TABs is white space through to where it was searched.
        size_t start = done.consumed;
        if (start < searched && text[start] == '\t') start = searched;
        while (start < size && is_leading_white(text[start])) ++start;
        if (start < size) done.consumed = start;

        size_t end = done.consumed < searched ? searched : done.consumed;
        while (end < size && !is_terminator(text[end])) ++end;
        if (end == size) {
            rxSearched = size - done.consumed;
            return;  // unterminated: wait for more text
        }

        // The line is decoded where it stands, ended by a NUL over its
        // terminator, which goes with it.
        char* const line = text + done.consumed;
        text[end] = '\0';
        done.consumed = end + 1;
        DecodeText(line);
    }
}

void LeitchHost::Decode(std::string& line) { DecodeText(&line[0]); }

void LeitchHost::DecodeText(char* line) {
    // The line is read as C text: it ends at its first NUL (or, should one ever
    // be there, at a CR or LF).
    char* cursor = line;
    const LineFields fields(fieldEnds, cursor);
    while (!ends_message(*cursor)) {
        char* const command = cursor;
        const int code = leitch::msg_switcher(&cursor);

        if (code == leitch::kReportOff) {
            reportingEnabled = false;
        } else {
            if (code == leitch::kReportOn) reportingEnabled = true;
            if (reportingEnabled) {
                // The command as received, up to the ';' that ends it.
                size_t n = 0;
                while (!ends_message(command[n]) && command[n] != ';') ++n;
                Send(std::string_view(command, n));
            }
            dispatch(*this, code, cursor);
        }

        // A ';' ends the command, even inside its arguments.
        while (!ends_message(*cursor) && *cursor != ';') ++cursor;
        if (*cursor != ';') break;
        ++cursor;
        Send(leitch::kNewLine);
    }
    Send(leitch::kPrompt);
}
