#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "sim/router/router.h"
#include "sim/web/messages.h"

namespace routerd::web {

// What changed on the router since the pages were last told: one entry per
// destination, in the order of each destination's first change, holding the
// latest value. Every change passes here while a page is open, so a
// destination finds its entry through a table of the router's size, not a
// search.
class LatestChanges {
public:
    explicit LatestChanges(const Router& router);

    void note(int level, int destination, int value);
    const std::vector<DestinationChange>& changes() const { return changes_; }
    bool empty() const { return changes_.empty(); }
    // Forgets them all; costs what was noted, not the size of the router.
    void clear();

private:
    std::size_t slot(int level, int destination) const;

    std::vector<std::pair<int, std::size_t>> level_starts_;  // level number -> its first slot
    std::vector<std::uint32_t> entry_;  // per slot: 1 + the index of its entry in changes_, 0 for none
    std::vector<DestinationChange> changes_;
};

}  // namespace routerd::web
