// The router's state told to a new observer in batches, without sockets.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/router/introduction.h"

namespace routerd {
namespace {

class Listener final : public RouterObserver {
public:
    void crosspoint_changed(int level, int source, int destination) override {
        told.push_back("X " + std::to_string(level) + " " + std::to_string(destination) + "=" + std::to_string(source));
    }
    void lock_changed(int level, int destination, int state) override {
        told.push_back("L " + std::to_string(level) + " " + std::to_string(destination) + "=" + std::to_string(state));
    }
    std::vector<std::string> told;
};

TEST(Introduction, EachLevelsCrosspointsThenItsLockedDestinations) {
    Router router({{0, "video", 3, 2}, {4, "audio", 3, 1}});
    router.preset_crosspoint(0, 2, 1);
    router.preset_crosspoint(4, 1, 0);
    router.preset_lock(0, 0, 1);
    router.preset_lock(4, 0, 2);
    Listener listener;
    Introduction introduction;
    EXPECT_TRUE(introduction.tell_next(router, listener));
    EXPECT_EQ(listener.told, (std::vector<std::string>{"X 0 0=0", "X 0 1=2", "L 0 0=1", "X 4 0=1", "L 4 0=2"}));
}

TEST(Introduction, ALargeRouterIsToldABatchAtATime) {
    Router router({{0, "video", 16, Introduction::kBatch + 10}});
    Listener listener;
    Introduction introduction;
    EXPECT_FALSE(introduction.tell_next(router, listener));
    EXPECT_EQ(listener.told.size(), static_cast<std::size_t>(Introduction::kBatch));
    // A batch counts the destinations walked: the last 10 crosspoints, then
    // unlocked destinations, which tell nothing, until the batch is full.
    EXPECT_FALSE(introduction.tell_next(router, listener));
    EXPECT_EQ(listener.told.size(), static_cast<std::size_t>(Introduction::kBatch + 10));
    EXPECT_TRUE(introduction.tell_next(router, listener));
    EXPECT_EQ(listener.told.size(), static_cast<std::size_t>(Introduction::kBatch + 10));
}

}  // namespace
}  // namespace routerd
