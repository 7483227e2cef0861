// The S:, V: and W! reports, and the router's change notifications.

#include <cstdio>

#include "leitch/leitch_host.h"

namespace {

// Every report starts on a new line.
constexpr const char* kPrefix = "\r\n";
constexpr const char* kPrompt = "\r\n>";

// Lock states as clients see them: 1 and 2 are themselves, anything else is 0.
int reported_lock_state(int state) { return state == 1 || state == 2 ? state : 0; }

}  // namespace

// A client reads the level as the one hex digit in front of the destination;
// levels above 15 are written out in full all the same.
void LeitchHost::SendXpointStatus(int level, int destination, int source) {
    char report[64];
    if (source < 0) {
        std::snprintf(report, sizeof report, "%sS:%X%X,X", kPrefix, level, destination);
    } else {
        std::snprintf(report, sizeof report, "%sS:%X%X,%X", kPrefix, level, destination, source);
    }
    Send(report);
}

void LeitchHost::SendXpointPreset(int level, int destination, int source) {
    char report[64];
    std::snprintf(report, sizeof report, "%sV:%X%X,%X", kPrefix, level, destination, source);
    Send(report);
}

void LeitchHost::SendXpointLockStatus(int level, int destination, int state) {
    const int owner = xpointLock[level][destination];
    char report[64];
    std::snprintf(report, sizeof report, "%sW!%X%X,%X,%X", kPrefix, level, destination, owner,
                  reported_lock_state(state));
    Send(report);
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
