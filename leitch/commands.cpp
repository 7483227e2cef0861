// Commands: "@ P:", "@ X:", "@ B:E", "@ B:C", "@ Z:" and "@ W:".

#include <algorithm>
#include <utility>
#include <vector>

#include <boost/container/small_vector.hpp>

#include "leitch/leitch_host.h"
#include "leitch/scan.h"
#include "leitch/wire.h"

using leitch::asc_val;
using leitch::ends_message;
using leitch::hex_digit;
using leitch::LevelDigits;
using leitch::move_next;

namespace {

// Room for one entry per Leitch level in a lock command.
constexpr int kMaxLockLevels = 16;

// Lock state 2 admits presets from the lock's owner only.
constexpr int kOwnerOnly = 2;

// The crosspoints of one preset command, destination -> source. They are
// switched in ascending destination; a destination given twice keeps the
// source of its last group.
class CrosspointSet {
public:
    void set(int destination, int source) { entries_.emplace_back(destination, source); }
    bool empty() const { return entries_.empty(); }

    // The crosspoints in switching order. Groups almost always come in
    // ascending order already; only otherwise are they sorted.
    const auto& in_destination_order() {
        const auto byDestination = [](const Entry& a, const Entry& b) { return a.first < b.first; };
        if (!std::is_sorted(entries_.begin(), entries_.end(), byDestination)) {
            std::stable_sort(entries_.begin(), entries_.end(), byDestination);
        }
        // Of the groups for one destination, the last one counts.
        auto kept = entries_.begin();
        for (auto it = entries_.begin(); it != entries_.end(); ++it) {
            if (kept != entries_.begin() && std::prev(kept)->first == it->first) {
                *std::prev(kept) = *it;
            } else {
                *kept++ = *it;
            }
        }
        entries_.erase(kept, entries_.end());
        return entries_;
    }

private:
    using Entry = std::pair<int, int>;
    boost::container::small_vector<Entry, 4> entries_;
};

}  // namespace

void LeitchHost::PresetXpoint(char* text) {
    int destination = -1;
    int source = -1;
    int device = deviceId;
    CrosspointSet crosspoints;

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
        const char terminator = fieldEnds.nearer(p, '/', ':');
        p = move_next(p);
        if (*p == 'X') {
            // No source. The scan stays on the "X", so "X" works as the last group
            // only: a following group is read as a (failing) destination field.
            crosspoints.set(destination, -1);
        } else if (hex_digit(*p) >= 0) {
            p = asc_val(p, fieldEnds.find_len(p, terminator), "%X", &source, terminator);
            crosspoints.set(destination, source);
        }
    }
    if (*p == ':') leitch::read_field(move_next(move_next(p)), "%X", &device, '\r');
    if (crosspoints.empty()) return;

    const auto& switched = crosspoints.in_destination_order();
    LevelDigits levels;
    for (const char* c = text; c != levelsEnd; ++c) {
        const int l = levels.next(*c);
        if (l < 0) continue;
        for (const auto& [d, s] : switched) {
            if (presetLock[l][d] == kOwnerOnly && !OwnsLock(l, d, device)) continue;
            commandDriver->PresetCrosspoint(levelControl[l], s, d);
            xpointPreset[l][d] = s;
        }
    }
}

bool LeitchHost::OwnsLock(int level, int destination, int device) const {
    const auto owners = xpointLock.find(level);
    if (owners == xpointLock.end()) return false;
    const auto owner = owners->second.find(destination);
    return owner != owners->second.end() && owner->second == device;
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
    // Levels to the end of the line: every character counts. No level: every
    // mapped level.
    std::vector<int> levels;
    LevelDigits digits;
    for (char* p = text; !ends_message(*p); ++p) {
        const int l = digits.next(*p);
        if (l >= 0) levels.push_back(l);
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
    // Levels up to the "/". A command that never reaches the "/", or names
    // more levels than there are, is not a lock command and is ignored.
    LevelDigits digits;
    for (; *p != '/'; ++p) {
        if (ends_message(*p) || count == kMaxLockLevels) return;
        const int l = digits.next(*p);
        if (l >= 0) levels[count++] = l;
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

    const int code = leitch::lock_code(state);
    for (int i = 0; i < count; ++i) {
        commandDriver->LockCrosspoint(levelControl[levels[i]], destination, code);
        // Recorded after the call: a lock report the router sends from inside
        // the call does not yet see this owner.
        xpointLock[levels[i]][destination] = owner;
    }
    PresetExecute();
}
