#pragma once

#include <cstddef>

#include "sim/router/router.h"

namespace routerd {

// The router's current state told to a new observer a batch at a time: the
// crosspoint of every destination of a level, then the state of each of its
// locked destinations, level by level. Changes published meanwhile reach the
// observer as they come; a destination told twice is told the same.
class Introduction {
public:
    // Destinations told per call: telling a large router to a new observer
    // costs the other clients no more than a slice of input does.
    static constexpr int kBatch = 2048;

    // Tells the observer the next kBatch destinations; true once everything is told.
    bool tell_next(const Router& router, RouterObserver& observer);

private:
    std::size_t level_ = 0;  // index into the router's levels
    bool locks_ = false;     // telling the level's locks, after its crosspoints
    int destination_ = 0;
};

}  // namespace routerd
