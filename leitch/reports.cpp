// The S:, V: and W! reports, and the router's change notifications.

#include <string>

#include "leitch/leitch_host.h"

namespace {

// Every report starts on a new line.
constexpr const char* kPrefix = "\r\n";
constexpr const char* kPrompt = "\r\n>";

// Lock states as clients see them: 1 and 2 are themselves, anything else is 0.
int reported_lock_state(int state) { return state == 1 || state == 2 ? state : 0; }

// Builds one report in a fixed buffer, as "%s" and "%X" would write it. The
// query answers come in thousands, so this writes the digits itself rather
// than going through the formatted printing of the C library. The longest
// report is 31 characters.
class Report {
public:
    Report& text(const char* s) {
        while (*s) buffer_[length_++] = *s++;
        return *this;
    }
    // Upper-case hexadecimal without leading zeros; a negative number as its
    // 32-bit two's complement.
    Report& hex(int value) {
        unsigned v = static_cast<unsigned>(value);
        char digits[8];
        int n = 0;
        do {
            digits[n++] = "0123456789ABCDEF"[v & 0xF];
            v >>= 4;
        } while (v != 0);
        while (n > 0) buffer_[length_++] = digits[--n];
        return *this;
    }
    std::string str() const { return std::string(buffer_, length_); }

private:
    char buffer_[64];
    size_t length_ = 0;
};

}  // namespace

// A client reads the level as the one hex digit in front of the destination;
// levels above 15 are written out in full all the same.
void LeitchHost::SendXpointStatus(int level, int destination, int source) {
    Report report;
    report.text(kPrefix).text("S:").hex(level).hex(destination).text(",");
    if (source < 0) {
        report.text("X");
    } else {
        report.hex(source);
    }
    Send(report.str());
}

void LeitchHost::SendXpointPreset(int level, int destination, int source) {
    Report report;
    report.text(kPrefix).text("V:").hex(level).hex(destination).text(",").hex(source);
    Send(report.str());
}

void LeitchHost::SendXpointLockStatus(int level, int destination, int state) {
    const int owner = xpointLock[level][destination];
    Report report;
    report.text(kPrefix).text("W!").hex(level).hex(destination).text(",").hex(owner).text(",");
    report.hex(reported_lock_state(state));
    Send(report.str());
}

void LeitchHost::Crosspoint(int level, int source, int destination) {
    const auto mapped = levelMapping.find(level);
    if (mapped == levelMapping.end()) return;
    const int leitchLevel = mapped->second;
    if (levelSize.count(leitchLevel) == 0) return;
    // The framework's own negative sources go down to -3; below that is noise.
    if (source < -3) return;
    if (reportingEnabled) {
        SendXpointStatus(leitchLevel, destination, source);
        Send(kPrompt);
    }
    xpointStatus[leitchLevel][destination] = source;
}

void LeitchHost::CrosspointLock(int level, int destination, int state) {
    const auto mapped = levelMapping.find(level);
    if (mapped == levelMapping.end()) return;
    const int leitchLevel = mapped->second;
    if (levelSize.count(leitchLevel) == 0) return;
    // Only locks a Leitch client asked for are reported, whatever the report mode.
    const auto& owners = xpointLock[leitchLevel];
    if (owners.count(destination) != 0) {
        SendXpointLockStatus(leitchLevel, destination, state);
        Send(kPrompt);
    }
    presetLock[leitchLevel][destination] = state;
}
