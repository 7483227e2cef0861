// The router model alone: ranges, locks, labels and the observers it tells.

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
    void labels_changed(int level) override { told.push_back("labels " + std::to_string(level)); }
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

Router labelled_router() {
    LevelSpec video{7, "video", 4, 3};
    video.source_labels = {"CAM 1", "", "VTR 3"};
    video.destination_labels = {"MON 1"};
    return Router({video, {9, "audio", 2, 2}});
}

TEST(RouterdModelLabels, ConfiguredLabelsAreReadAndTheRestHaveNone) {
    const Router router = labelled_router();
    EXPECT_EQ(router.source_label(7, 0), "CAM 1");
    EXPECT_EQ(router.source_label(7, 1), "");
    EXPECT_EQ(router.source_label(7, 2), "VTR 3");
    EXPECT_EQ(router.source_label(7, 3), "");
    EXPECT_EQ(router.destination_label(7, 0), "MON 1");
    EXPECT_EQ(router.destination_label(7, 2), "");
    EXPECT_EQ(router.source_label(9, 0), "");
    EXPECT_EQ(router.source_label(8, 0), "");   // no such level
    EXPECT_EQ(router.source_label(7, -1), "");  // no such source
    EXPECT_EQ(router.source_label(7, 4), "");
    EXPECT_EQ(router.levels()[0].source_labels, (std::vector<std::string>{"CAM 1", "", "VTR 3"}));
    EXPECT_EQ(router.label_bytes(), 15u);
}

TEST(RouterdModelLabels, TheListsKeepNothingPastTheirLastLabelNorPastTheLevel) {
    LevelSpec level{0, "video", 2, 2};
    level.source_labels = {"A", "B", "C"};
    level.destination_labels = {"X", "", ""};
    const Router router({level});
    EXPECT_EQ(router.levels()[0].source_labels, (std::vector<std::string>{"A", "B"}));
    EXPECT_EQ(router.levels()[0].destination_labels, (std::vector<std::string>{"X"}));
    EXPECT_EQ(router.label_bytes(), 3u);
}

TEST(RouterdModelLabels, ASetLabelIsStoredAndToldAtOnce) {
    Router router = labelled_router();
    Recorder recorder;
    router.subscribe(recorder);
    EXPECT_EQ(router.set_label(7, LabelSide::destination, 2, "Studio A PGM"), Refusal::none);
    EXPECT_EQ(router.destination_label(7, 2), "Studio A PGM");
    EXPECT_EQ(router.levels()[0].destination_labels, (std::vector<std::string>{"MON 1", "", "Studio A PGM"}));
    EXPECT_EQ(router.set_label(9, LabelSide::source, 1, "MIC 2"), Refusal::none);
    EXPECT_EQ(router.source_label(9, 1), "MIC 2");
    EXPECT_EQ(recorder.told, (std::vector<std::string>{"labels 7", "labels 9"}));
    EXPECT_FALSE(router.changed());  // no frame to publish
    EXPECT_EQ(router.label_bytes(), 15u + 12u + 5u);
}

TEST(RouterdModelLabels, AnEmptyLabelRemovesOneAndTheListShrinks) {
    Router router = labelled_router();
    Recorder recorder;
    router.subscribe(recorder);
    EXPECT_EQ(router.set_label(7, LabelSide::source, 2, ""), Refusal::none);
    EXPECT_EQ(router.levels()[0].source_labels, (std::vector<std::string>{"CAM 1"}));
    EXPECT_EQ(router.source_label(7, 2), "");
    EXPECT_EQ(router.label_bytes(), 10u);
    EXPECT_EQ(recorder.told, (std::vector<std::string>{"labels 7"}));
}

TEST(RouterdModelLabels, AnUnchangedLabelIsNotTold) {
    Router router = labelled_router();
    Recorder recorder;
    router.subscribe(recorder);
    EXPECT_EQ(router.set_label(7, LabelSide::source, 0, "CAM 1"), Refusal::none);
    EXPECT_EQ(router.set_label(7, LabelSide::source, 3, ""), Refusal::none);
    EXPECT_TRUE(recorder.told.empty());
}

TEST(RouterdModelLabels, LabelsOutOfRangeOrNotFitToShowAreRefusedAndNotTold) {
    Router router = labelled_router();
    Recorder recorder;
    router.subscribe(recorder);
    EXPECT_EQ(router.set_label(8, LabelSide::source, 0, "X"), Refusal::unknown_level);
    EXPECT_EQ(router.set_label(7, LabelSide::source, 4, "X"), Refusal::source_out_of_range);
    EXPECT_EQ(router.set_label(7, LabelSide::source, -1, "X"), Refusal::source_out_of_range);
    EXPECT_EQ(router.set_label(7, LabelSide::destination, 3, "X"), Refusal::destination_out_of_range);
    EXPECT_EQ(router.set_label(7, LabelSide::source, 1, std::string(65, 'x')), Refusal::label_not_allowed);
    EXPECT_EQ(router.set_label(7, LabelSide::source, 1, "two\nlines"), Refusal::label_not_allowed);
    EXPECT_EQ(router.set_label(7, LabelSide::source, 1, "caf\xe9"), Refusal::label_not_allowed);
    EXPECT_EQ(describe(Refusal::label_not_allowed), "label not allowed");
    EXPECT_EQ(router.set_label(7, LabelSide::source, 1, std::string(64, 'x')), Refusal::none);
    EXPECT_EQ(recorder.told, (std::vector<std::string>{"labels 7"}));
}

TEST(RouterdModelLabels, WhatALabelMayNotBe) {
    EXPECT_EQ(label_problem(""), "");
    EXPECT_EQ(label_problem("Studio A PGM"), "");
    EXPECT_EQ(label_problem("Caf\xC3\xA9 \xE2\x86\x92 \xF0\x9F\x8E\xA5"), "");  // two, three and four bytes
    EXPECT_EQ(label_problem(std::string(64, 'x')), "");
    EXPECT_EQ(label_problem(std::string(65, 'x')), "at most 64 bytes (this one has 65)");
    EXPECT_EQ(label_problem("CAM\t1"), "must hold no control characters or line breaks (U+0009 at byte 3)");
    EXPECT_EQ(label_problem("CAM 1\r\n"), "must hold no control characters or line breaks (U+000D at byte 5)");
    EXPECT_EQ(label_problem("CAM\x7F"), "must hold no control characters or line breaks (U+007F at byte 3)");
    EXPECT_EQ(label_problem("A\xC2\x85"), "must hold no control characters or line breaks (U+0085 at byte 1)");
    EXPECT_EQ(label_problem("A\xE2\x80\xA8" "B"), "must hold no control characters or line breaks (U+2028 at byte 1)");
    EXPECT_EQ(label_problem("caf\xE9"), "not UTF-8 (at byte 3)");
    EXPECT_EQ(label_problem("\xC0\xAF"), "not UTF-8 (at byte 0)");          // overlong '/'
    EXPECT_EQ(label_problem("A\xED\xA0\x80"), "not UTF-8 (at byte 1)");     // a surrogate
    EXPECT_EQ(label_problem("AB\xE2\x86"), "not UTF-8 (at byte 2)");         // cut short
}

// Observers written before labels existed still compile and are not told of them.
class CrosspointsOnly : public RouterObserver {
public:
    void crosspoint_changed(int, int, int) override { ++told; }
    void lock_changed(int, int, int) override { ++told; }
    int told = 0;
};

TEST(RouterdModelLabels, AnObserverWithoutLabelsHearsNothingOfThem) {
    Router router = labelled_router();
    CrosspointsOnly observer;
    router.subscribe(observer);
    EXPECT_EQ(router.set_label(7, LabelSide::source, 3, "CAM 4"), Refusal::none);
    EXPECT_EQ(observer.told, 0);
}

}  // namespace
}  // namespace routerd
