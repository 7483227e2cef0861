#include "sim/router/introduction.h"

namespace routerd {

// A level may be empty (a real router not read yet), or shrink between two
// calls (it announced other counts): the sizes are read afresh each step.
bool Introduction::tell_next(const Router& router, RouterObserver& observer) {
    const std::vector<LevelSpec>& levels = router.levels();
    int told = 0;
    while (told < kBatch && level_ < levels.size()) {
        const LevelSpec& level = levels[level_];
        if (destination_ >= level.destinations) {
            destination_ = 0;
            if (locks_) ++level_;
            locks_ = !locks_;
            continue;
        }
        const int destination = destination_++;
        ++told;
        if (!locks_) {
            observer.crosspoint_changed(level.number, router.source_of(level.number, destination), destination);
        } else if (const int lock = router.lock_of(level.number, destination); lock != 0) {
            observer.lock_changed(level.number, destination, lock);
        }
    }
    return level_ == levels.size();
}

}  // namespace routerd
