#include "sim/web/latest_changes.h"

namespace routerd::web {

LatestChanges::LatestChanges(const Router& router) {
    std::size_t start = 0;
    for (const LevelSpec& level : router.levels()) {
        level_starts_.emplace_back(level.number, start);
        start += static_cast<std::size_t>(level.destinations);
    }
    entry_.assign(start, 0);
}

// A router has a few levels: a walk over them is quicker than any look-up.
std::size_t LatestChanges::slot(int level, int destination) const {
    for (const auto& [number, start] : level_starts_) {
        if (number == level) return start + static_cast<std::size_t>(destination);
    }
    return entry_.size();
}

void LatestChanges::note(int level, int destination, int value) {
    const std::size_t at = slot(level, destination);
    if (at >= entry_.size()) return;  // not the router's: never told
    std::uint32_t& entry = entry_[at];
    if (entry == 0) {
        changes_.push_back({level, destination, value});
        entry = static_cast<std::uint32_t>(changes_.size());
    } else {
        changes_[entry - 1][2] = value;
    }
}

void LatestChanges::clear() {
    for (const DestinationChange& change : changes_) entry_[slot(change[0], change[1])] = 0;
    changes_.clear();
}

}  // namespace routerd::web
