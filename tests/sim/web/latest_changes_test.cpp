// The changes a page is told at its next push: one per destination, the
// latest value, in the order of each destination's first change.

#include <gtest/gtest.h>

#include "sim/web/latest_changes.h"

namespace routerd::web {
namespace {

const Router& two_levels() {
    static const Router router({{3, "video", 8, 4}, {0, "audio", 8, 2}});
    return router;
}

TEST(LatestChanges, EachDestinationOnceWithItsLatestValueInTheOrderFirstChanged) {
    LatestChanges changes(two_levels());
    changes.note(3, 2, 5);
    changes.note(0, 1, 7);
    changes.note(3, 2, 6);
    changes.note(3, 0, 1);
    const std::vector<DestinationChange> expected = {{3, 2, 6}, {0, 1, 7}, {3, 0, 1}};
    EXPECT_EQ(changes.changes(), expected);
}

TEST(LatestChanges, TheSameDestinationNumberOnTwoLevelsIsTwoDestinations) {
    LatestChanges changes(two_levels());
    changes.note(3, 1, 4);
    changes.note(0, 1, 5);
    const std::vector<DestinationChange> expected = {{3, 1, 4}, {0, 1, 5}};
    EXPECT_EQ(changes.changes(), expected);
}

TEST(LatestChanges, AfterClearingADestinationIsNewAgain) {
    LatestChanges changes(two_levels());
    changes.note(3, 3, 1);
    changes.note(0, 0, 2);
    changes.clear();
    EXPECT_TRUE(changes.empty());
    changes.note(0, 0, 3);
    changes.note(3, 3, 4);
    changes.note(0, 0, 5);
    const std::vector<DestinationChange> expected = {{0, 0, 5}, {3, 3, 4}};
    EXPECT_EQ(changes.changes(), expected);
}

TEST(LatestChanges, ALevelTheRouterDoesNotHaveIsNotNoted) {
    LatestChanges changes(two_levels());
    changes.note(1, 0, 1);
    EXPECT_TRUE(changes.empty());
}

}  // namespace
}  // namespace routerd::web
