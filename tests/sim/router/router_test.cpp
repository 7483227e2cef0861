// The router model alone: ranges, locks and the observers it tells.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/router/router.h"

namespace routerd {
namespace {

class Recorder : public RouterObserver {
public:
    void crosspoint_changed(int level, int source, int destination) override {
        told.push_back("crosspoint " + std::to_string(level) + " " + std::to_string(source) + " " +
                       std::to_string(destination));
    }
    void lock_changed(int level, int destination, int state) override {
        told.push_back("lock " + std::to_string(level) + " " + std::to_string(destination) + " " +
                       std::to_string(state));
    }
    std::vector<std::string> told;
};

Router small_router() { return Router({{7, "video", 4, 3}}); }

TEST(RouterdModel, EveryDestinationStartsOnSourceZeroUnlocked) {
    const Router router = small_router();
    for (int destination = 0; destination < 3; ++destination) {
        EXPECT_EQ(router.source_of(7, destination), 0);
        EXPECT_EQ(router.lock_of(7, destination), 0);
    }
}

TEST(RouterdModel, OutOfRangeChangesAreRefusedAndNotTold) {
    Router router = small_router();
    Recorder recorder;
    router.subscribe(recorder);
    EXPECT_EQ(router.take(6, 1, 1), Refusal::unknown_level);
    EXPECT_EQ(router.take(7, 1, 3), Refusal::destination_out_of_range);
    EXPECT_EQ(router.take(7, 1, -1), Refusal::destination_out_of_range);
    EXPECT_EQ(router.take(7, 4, 1), Refusal::source_out_of_range);
    EXPECT_EQ(router.take(7, -1, 1), Refusal::source_out_of_range);
    EXPECT_EQ(router.take(7, 1, 0x0FFFFFFF), Refusal::destination_out_of_range);
    EXPECT_EQ(router.lock(7, 0x0FFFFFFF, 1), Refusal::destination_out_of_range);
    EXPECT_TRUE(recorder.told.empty());
}

TEST(RouterdModel, AnUnchangedCrosspointIsToldAgain) {
    Router router = small_router();
    Recorder recorder;
    router.subscribe(recorder);
    router.take(7, 2, 1);
    router.publish();
    router.take(7, 2, 1);
    router.publish();
    EXPECT_EQ(recorder.told, (std::vector<std::string>{"crosspoint 7 2 1", "crosspoint 7 2 1"}));
}

TEST(RouterdModel, ChangesAreToldOnlyWhenPublished) {
    Router router = small_router();
    Recorder recorder;
    router.subscribe(recorder);
    EXPECT_EQ(router.take(7, 2, 1), Refusal::none);
    EXPECT_EQ(router.source_of(7, 1), 2);  // in effect at once
    EXPECT_TRUE(recorder.told.empty());
    EXPECT_TRUE(router.changed());
    router.publish();
    EXPECT_FALSE(router.changed());
    EXPECT_EQ(recorder.told, (std::vector<std::string>{"crosspoint 7 2 1"}));
    router.publish();
    EXPECT_EQ(recorder.told.size(), 1u);
}

TEST(RouterdModel, OneFrameTellsEachDestinationOnceWithItsLastValue) {
    Router router = small_router();
    Recorder recorder;
    router.subscribe(recorder);
    router.take(7, 1, 2);
    router.lock(7, 0, 2);
    router.take(7, 3, 0);
    for (int i = 0; i < 1000; ++i) router.take(7, i % 4, 2);
    router.lock(7, 0, 0);
    router.publish();
    EXPECT_EQ(recorder.told,
              (std::vector<std::string>{"crosspoint 7 3 2", "lock 7 0 0", "crosspoint 7 3 0"}));
}

TEST(RouterdModel, ATakeAfterALockInTheSameFrameIsRefused) {
    Router router = small_router();
    Recorder recorder;
    router.subscribe(recorder);
    router.take(7, 1, 1);
    router.lock(7, 1, 1);
    EXPECT_EQ(router.take(7, 2, 1), Refusal::destination_locked);
    router.publish();
    EXPECT_EQ(recorder.told, (std::vector<std::string>{"crosspoint 7 1 1", "lock 7 1 1"}));
}

// An observer that changes the router while being told: the change waits for
// the next publish.
class Changer : public RouterObserver {
public:
    explicit Changer(Router& router) : router_(router) {}
    void crosspoint_changed(int level, int source, int destination) override {
        told.push_back(source);
        if (source == 1) router_.take(level, 2, destination);
    }
    void lock_changed(int, int, int) override {}
    std::vector<int> told;

private:
    Router& router_;
};

TEST(RouterdModel, AChangeMadeWhilePublishingIsToldByTheNextPublish) {
    Router router = small_router();
    Changer changer(router);
    router.subscribe(changer);
    router.take(7, 1, 0);
    router.publish();
    EXPECT_EQ(changer.told, (std::vector<int>{1}));
    EXPECT_TRUE(router.changed());
    router.publish();
    EXPECT_EQ(changer.told, (std::vector<int>{1, 2}));
}

TEST(RouterdModel, LockStateOneRefusesSwitchingOtherStatesDoNot) {
    Router router = small_router();
    router.lock(7, 1, 1);
    EXPECT_EQ(router.take(7, 2, 1), Refusal::destination_locked);
    EXPECT_EQ(router.source_of(7, 1), 0);
    router.lock(7, 1, 2);
    EXPECT_EQ(router.take(7, 2, 1), Refusal::none);
    router.lock(7, 1, 0);
    EXPECT_EQ(router.take(7, 3, 1), Refusal::none);
    EXPECT_EQ(router.source_of(7, 1), 3);
}

// An observer that leaves while being told must not break the others.
class Leaver : public RouterObserver {
public:
    explicit Leaver(Router& router) : router_(router) {}
    void crosspoint_changed(int, int, int) override {
        ++told;
        router_.unsubscribe(*this);
    }
    void lock_changed(int, int, int) override {}
    int told = 0;

private:
    Router& router_;
};

TEST(RouterdModel, AnObserverMayUnsubscribeWhileBeingTold) {
    Router router = small_router();
    Leaver leaver(router);
    Recorder after;
    router.subscribe(leaver);
    router.subscribe(after);
    router.take(7, 1, 0);
    router.publish();
    router.take(7, 2, 0);
    router.publish();
    EXPECT_EQ(leaver.told, 1);
    EXPECT_EQ(after.told, (std::vector<std::string>{"crosspoint 7 1 0", "crosspoint 7 2 0"}));
}

}  // namespace
}  // namespace routerd
