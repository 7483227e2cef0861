// Message intake: receive buffering, line framing and command dispatch.

#include <cstring>

#include "leitch/leitch_host.h"
#include "leitch/scan.h"

namespace {

constexpr const char* kLineEnd = "\r\n";
constexpr const char* kPrompt = "\r\n>";

// Erases the lines a ReceiveData call has consumed when the call ends, however
// it ends. Erasing once per call instead of once per line keeps the intake
// linear in the size of the chunk.
class ConsumedPrefix {
public:
    explicit ConsumedPrefix(std::string& buffer) : buffer_(buffer) {}
    ~ConsumedPrefix() { buffer_.erase(0, consumed); }
    ConsumedPrefix(const ConsumedPrefix&) = delete;
    ConsumedPrefix& operator=(const ConsumedPrefix&) = delete;
    size_t consumed = 0;

private:
    std::string& buffer_;
};

using Handler = void (*)(LeitchHost&, char*);

// Dispatch by message code. Codes without a handler ("@ !", "@ ?", "@ Q?",
// "@ M?", "@ T,") are null; both "@ W:" codes go to the lock command.
const Handler kHandlers[leitch::kCodeCount] = {
    nullptr,                                                         // 0 "@ !"
    nullptr,                                                         // 1 "@ ?"
    [](LeitchHost& h, char*) { h.PresetClear(); },                   // 2 "@ B:C"
    [](LeitchHost& h, char*) { h.PresetExecute(); },                 // 3 "@ B:E"
    [](LeitchHost& h, char* t) { h.PresetXpoint(t); },               // 4 "@ P:"
    [](LeitchHost& h, char* t) { h.SendXpointLevelStatus(t); },      // 5 "@ S?"
    [](LeitchHost& h, char* t) { h.SendXpointOutputStatus(t); },     // 6 "@ X?"
    [](LeitchHost& h, char* t) { h.LockXpoint(t); },                 // 7 "@ W:"
    [](LeitchHost& h, char* t) { h.LockXpoint(t); },                 // 8 "@ W:"
    [](LeitchHost& h, char* t) { h.XpointReset(t); },                // 9 "@ Z:"
    [](LeitchHost& h, char* t) { h.XpointDirectTake(t); },           // 10 "@ X:"
    [](LeitchHost& h, char* t) { h.SendFramesSize(t); },             // 11 "@ F?"
    [](LeitchHost& h, char* t) { h.SendDeviceInformation(t); },      // 12 "@ I?"
    nullptr,                                                         // 13 "@ Q?"
    nullptr,                                                         // 14 "@ M?"
    nullptr,                                                         // 15 "@ T,"
    [](LeitchHost& h, char* t) { h.SendXpointOutputPreset(t); },     // 16 "@ P?"
    [](LeitchHost& h, char* t) { h.SendXpointLevelPreset(t); },      // 17 "@ V?"
};

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

bool is_terminator(char c) { return c == '\r' || c == '\n'; }
bool is_leading_white(char c) { return c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

void LeitchHost::ReceiveData(const std::string& data, Interface* /*source*/) {
    rxBuffer += data;
    ConsumedPrefix done(rxBuffer);
    std::string line;
    const size_t size = rxBuffer.size();
    for (;;) {
        // White space between lines is dropped, but only while something else
        // follows it: a buffer of nothing but TAB, CR and LF is left as it is,
        // so the LF of a CR LF that ends a chunk becomes an empty line.
        size_t start = done.consumed;
        while (start < size && is_leading_white(rxBuffer[start])) ++start;
        if (start < size) done.consumed = start;

        size_t end = done.consumed;
        while (end < size && !is_terminator(rxBuffer[end])) ++end;
        if (end == size) return;  // unterminated: wait for more text

        line.assign(rxBuffer, done.consumed, end - done.consumed);
        done.consumed = end + 1;  // the line and exactly one terminator
        Decode(line);
    }
}

void LeitchHost::Decode(std::string& line) {
    // The line is read as C text: it ends at its first NUL (or, should one ever
    // be there, at a CR or LF).
    char* cursor = &line[0];
    const LineFields fields(fieldEnds, cursor);
    while (!leitch::ends_message(*cursor)) {
        char* const command = cursor;
        const int code = leitch::msg_switcher(&cursor);

        if (code == leitch::kReportOff) {
            reportingEnabled = false;
        } else {
            if (code == leitch::kReportOn) reportingEnabled = true;
            if (reportingEnabled) {
                // Echo the command as received, up to the ';' that ends it.
                size_t n = 0;
                while (!leitch::ends_message(command[n]) && command[n] != ';') ++n;
                Send(std::string(command, n));
            }
            if (code >= 0 && code < leitch::kCodeCount && kHandlers[code]) {
                kHandlers[code](*this, cursor);
            }
        }

        // A ';' ends the command, even inside its arguments.
        while (!leitch::ends_message(*cursor) && *cursor != ';') ++cursor;
        if (*cursor != ';') break;
        ++cursor;
        Send(kLineEnd);
    }
    Send(kPrompt);
}
