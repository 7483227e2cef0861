#include "sim/router/introduction.h"

namespace routerd {

bool Introduction::tell_next(const Router& router, RouterObserver& observer) {
    const std::vector<LevelSpec>& levels = router.levels();
    for (int told = 0; told < kBatch && level_ < levels.size(); ++told) {
        const LevelSpec& level = levels[level_];
        const int destination = destination_;
        if (!locks_) {
            observer.crosspoint_changed(level.number, router.source_of(level.number, destination), destination);
        } else if (const int lock = router.lock_of(level.number, destination); lock != 0) {
            observer.lock_changed(level.number, destination, lock);
        }
        if (++destination_ < level.destinations) continue;
        destination_ = 0;
        if (locks_) ++level_;
        locks_ = !locks_;
    }
    return level_ == levels.size();
}

}  // namespace routerd
