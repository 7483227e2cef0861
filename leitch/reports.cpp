// The S:, V: and W! reports, and the router's change notifications.

#include <string>

#include "leitch/leitch_host.h"
#include "leitch/wire.h"

using leitch::kNewLine;
using leitch::kReportRoom;
using leitch::lock_code;
using leitch::write_hex;
using leitch::write_text;

// A client reads the level as the one hex digit in front of the destination;
// levels above 15 are written out in full all the same.
void LeitchHost::SendXpointStatus(int level, int destination, int source) {
    char report[kReportRoom];
    char* end = write_text(write_text(report, kNewLine), "S:");
    end = write_hex(write_hex(end, level), destination);
    *end++ = ',';
    end = source < 0 ? write_text(end, "X") : write_hex(end, source);
    Send({report, static_cast<size_t>(end - report)});
}

void LeitchHost::SendXpointPreset(int level, int destination, int source) {
    char report[kReportRoom];
    char* end = write_text(write_text(report, kNewLine), "V:");
    end = write_hex(write_hex(end, level), destination);
    *end++ = ',';
    end = write_hex(end, source);
    Send({report, static_cast<size_t>(end - report)});
}

void LeitchHost::SendXpointLockStatus(int level, int destination, int state) {
    const int owner = xpointLock[level][destination];
    char report[kReportRoom];
    char* end = write_text(write_text(report, kNewLine), "W!");
    end = write_hex(write_hex(end, level), destination);
    *end++ = ',';
    end = write_hex(end, owner);
    *end++ = ',';
    end = write_hex(end, lock_code(state));
    Send({report, static_cast<size_t>(end - report)});
}

int LeitchHost::NotifiedLevel(int level) {
    if (seenLeitchLevel >= 0 && level == seenHostLevel) return seenLeitchLevel;
    const auto mapped = levelMapping.find(level);
    if (mapped == levelMapping.end()) return -1;
    // A level unknown now may become known (queries insert into levelSize):
    // only a level seen is remembered.
    if (levelSize.count(mapped->second) == 0) return -1;
    seenHostLevel = level;
    seenLeitchLevel = mapped->second;
    return seenLeitchLevel;
}

void LeitchHost::Crosspoint(int level, int source, int destination) {
    const int leitchLevel = NotifiedLevel(level);
    if (leitchLevel < 0) return;
    // The framework's own negative sources go down to -3; below that is noise.
    if (source < -3) return;
    if (reportingEnabled) {
        SendXpointStatus(leitchLevel, destination, source);
        Send(leitch::kPrompt);
    }
    xpointStatus[leitchLevel][destination] = source;
}

void LeitchHost::CrosspointLock(int level, int destination, int state) {
    const int leitchLevel = NotifiedLevel(level);
    if (leitchLevel < 0) return;
    // Only locks a Leitch client asked for are reported, whatever the report mode.
    const auto& owners = xpointLock[leitchLevel];
    if (owners.count(destination) != 0) {
        SendXpointLockStatus(leitchLevel, destination, state);
        Send(leitch::kPrompt);
    }
    presetLock[leitchLevel][destination] = state;
}
