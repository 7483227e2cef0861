// Commands: "@ P:", "@ X:", "@ B:E", "@ B:C", "@ Z:" and "@ W:".

#include <map>
#include <vector>

#include "leitch/leitch_host.h"
#include "leitch/scan.h"

using leitch::asc_val;
using leitch::ends_message;
using leitch::find_len;
using leitch::hex_digit;
using leitch::move_next;

namespace {

// Room for one entry per Leitch level in a lock command.
constexpr int kMaxLockLevels = 16;

// Lock codes the router is asked for: 1 and 2 are themselves, all else unlocks.
int lock_code(int state) { return state == 1 || state == 2 ? state : 0; }

// Lock state 2 admits presets from the lock's owner only.
constexpr int kOwnerOnly = 2;

}  // namespace

void LeitchHost::PresetXpoint(char* text) {
    int destination = -1;
    int source = -1;
    int device = deviceId;
    std::map<int, int> crosspoints;  // destination -> source, switched in this order

    // The levels run up to the "/"; they are read once there is something to
    // switch. Fields run on across ';' into later commands, so they are
    // measured with the line's field ends.
    char* const levelsEnd = text + fieldEnds.find_len(text, '/');

    // Groups "destination,source" separated by "/", up to an optional ":device".
    char* p = levelsEnd;
    while (*p != ':' && !ends_message(*p)) {
        p = move_next(p);
        p = asc_val(p, fieldEnds.find_len(p, ','), "%X", &destination, ',');
        // The source runs to the "/" of the next group or to the ":" of the
        // device field, whichever comes first.
        const char terminator =
            fieldEnds.find_len(p, '/') < fieldEnds.find_len(p, ':') ? '/' : ':';
        p = move_next(p);
        if (*p == 'X') {
            // No source. The scan stays on the "X", so "X" works as the last group
            // only: a following group is read as a (failing) destination field.
            crosspoints[destination] = -1;
        } else if (hex_digit(*p) >= 0) {
            p = asc_val(p, fieldEnds.find_len(p, terminator), "%X", &source, terminator);
            crosspoints[destination] = source;
        }
    }
    if (*p == ':') leitch::read_field(move_next(move_next(p)), "%X", &device, '\r');
    if (crosspoints.empty()) return;

    // Levels: one hex digit each, taken in turn as they stand in the text. A
    // character that is not a digit repeats the previous level; in first place
    // it is ignored.
    bool haveLevel = false;
    int l = 0;
    for (const char* c = text; c != levelsEnd; ++c) {
        const int digit = hex_digit(*c);
        if (digit >= 0) {
            l = digit;
            haveLevel = true;
        }
        if (!haveLevel) continue;
        for (const auto& [d, s] : crosspoints) {
            if (presetLock[l][d] == kOwnerOnly) {
                const auto owners = xpointLock.find(l);
                if (owners == xpointLock.end()) continue;
                const auto owner = owners->second.find(d);
                if (owner == owners->second.end() || owner->second != device) continue;
            }
            commandDriver->PresetCrosspoint(levelControl[l], s, d);
            xpointPreset[l][d] = s;
        }
    }
}

void LeitchHost::XpointDirectTake(char* text) {
    PresetXpoint(text);
    PresetExecute();
}

void LeitchHost::PresetExecute() {
    xpointPreset.clear();
    commandDriver->TakePresets();
}

void LeitchHost::PresetClear() {
    xpointPreset.clear();
    commandDriver->ClearPresets();
}

void LeitchHost::XpointReset(char* text) {
    // One hex digit per level to the end of the line; every character counts,
    // a non-digit repeating the previous level. No level: every mapped level.
    std::vector<int> levels;
    bool haveLevel = false;
    int level = 0;
    for (char* p = text; !ends_message(*p); ++p) {
        const int digit = hex_digit(*p);
        if (digit >= 0) {
            level = digit;
            haveLevel = true;
        }
        if (haveLevel) levels.push_back(level);
    }
    if (levels.empty()) {
        for (const auto& mapping : levelMapping) levels.push_back(mapping.second);
    }

    for (const int l : levels) {
        xpointLock[l].clear();  // the level's lock owners are forgotten
        const int destinations = levelSize[l].second;
        for (int d = 0; d < destinations; ++d) {
            commandDriver->LockCrosspoint(levelControl[l], d, 0);
            commandDriver->PresetCrosspoint(levelControl[l], 0, d);
        }
    }
    PresetExecute();
}

void LeitchHost::LockXpoint(char* text) {
    int levels[kMaxLockLevels];
    int count = 0;
    char* p = text;
    if (*p != '/') {
        // Levels: one hex digit each up to the "/". A non-digit repeats the
        // previous level. A command that never reaches the "/", or names more
        // levels than there are, is not a lock command and is ignored.
        bool haveLevel = false;
        int level = 0;
        for (; *p != '/'; ++p) {
            if (ends_message(*p) || count == kMaxLockLevels) return;
            const int digit = hex_digit(*p);
            if (digit >= 0) {
                level = digit;
                haveLevel = true;
            }
            if (haveLevel) levels[count++] = level;
        }
    }

    int destination = 0;
    int owner = 0;
    int state = 0;
    bool converted = false;
    // The destination and owner fields run to the next ',', which may lie in a
    // later command of the line.
    p = move_next(p);
    p = asc_val(p, fieldEnds.find_len(p, ','), "%X", &destination, ',', &converted);
    bool valid = converted;
    p = move_next(p);
    p = asc_val(p, fieldEnds.find_len(p, ','), "%X", &owner, ',', &converted);
    valid = valid && converted;
    p = move_next(p);
    valid = valid && !ends_message(*p);
    if (valid) {
        asc_val(p, 1, "%d", &state, 0, &converted);
        valid = converted;
    }
    // Without levels there is nothing to lock; the fields do not matter then.
    if (count > 0 && !valid) return;

    const int code = lock_code(state);
    for (int i = 0; i < count; ++i) {
        commandDriver->LockCrosspoint(levelControl[levels[i]], destination, code);
        // Recorded after the call: a lock report the router sends from inside
        // the call does not yet see this owner.
        xpointLock[levels[i]][destination] = owner;
    }
    PresetExecute();
}
