// A client's preset queue: one preset per destination, taken together in the
// order first preset.

#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>

#include "sim/backends/simulated_backend.h"
#include "sim/client_driver.h"

namespace routerd {
namespace {

class PresetQueue : public ::testing::Test {
protected:
    // Takes the queue and ends the frame.
    void take() {
        driver_.TakePresets();
        io_.poll();
    }
    void expect_sources(const std::vector<int>& expected) {
        for (std::size_t d = 0; d < expected.size(); ++d)
            EXPECT_EQ(router_.source_of(0, static_cast<int>(d)), expected[d]) << "destination " << d;
    }

    boost::asio::io_context io_;
    Log log_;
    RefusalLog refusals_{log_};
    Router router_{{{0, "video", 64, 40}}};
    SimulatedBackend backend_{router_};
    SwitchQueue switches_{io_.get_executor(), router_, backend_, refusals_, [] {}};
    ClientDriver driver_{1, router_, switches_, log_, refusals_};
};

TEST_F(PresetQueue, ASecondPresetOfADestinationReplacesItsSourceInAShortQueue) {
    driver_.PresetCrosspoint(0, 5, 2);
    driver_.PresetCrosspoint(0, 6, 3);
    driver_.PresetCrosspoint(0, 7, 2);
    EXPECT_EQ(driver_.presets_waiting(), 2u);
    take();
    expect_sources({0, 0, 7, 6});
}

// Long queues are searched through an index, built once the queue is long.
TEST_F(PresetQueue, ASecondPresetOfADestinationReplacesItsSourceInALongQueue) {
    for (int d = 0; d < 30; ++d) driver_.PresetCrosspoint(0, d + 1, d);
    driver_.PresetCrosspoint(0, 50, 0);   // queued before the index was built
    driver_.PresetCrosspoint(0, 51, 29);  // queued after
    driver_.PresetCrosspoint(0, 52, 30);  // new
    EXPECT_EQ(driver_.presets_waiting(), 31u);
    take();
    std::vector<int> expected;
    for (int d = 0; d < 31; ++d) expected.push_back(d + 1);
    expected[0] = 50;
    expected[29] = 51;
    expected[30] = 52;
    expect_sources(expected);
}

TEST_F(PresetQueue, ATakeEmptiesTheQueueAndItsIndex) {
    for (int d = 0; d < 20; ++d) driver_.PresetCrosspoint(0, 1, d);
    take();
    EXPECT_EQ(driver_.presets_waiting(), 0u);
    // The index of the taken queue must not point into the new one.
    driver_.PresetCrosspoint(0, 9, 15);
    driver_.PresetCrosspoint(0, 8, 16);
    driver_.PresetCrosspoint(0, 7, 15);
    EXPECT_EQ(driver_.presets_waiting(), 2u);
    take();
    EXPECT_EQ(router_.source_of(0, 15), 7);
    EXPECT_EQ(router_.source_of(0, 16), 8);
}

TEST_F(PresetQueue, ClearedPresetsAreNeverTaken) {
    for (int d = 0; d < 20; ++d) driver_.PresetCrosspoint(0, 3, d);
    driver_.ClearPresets();
    EXPECT_EQ(driver_.presets_waiting(), 0u);
    for (int d = 0; d < 12; ++d) driver_.PresetCrosspoint(0, 4, d);
    driver_.PresetCrosspoint(0, 5, 19);
    take();
    for (int d = 0; d < 12; ++d) EXPECT_EQ(router_.source_of(0, d), 4);
    for (int d = 12; d < 19; ++d) EXPECT_EQ(router_.source_of(0, d), 0);
    EXPECT_EQ(router_.source_of(0, 19), 5);
}

TEST_F(PresetQueue, APresetOutsideTheRouterIsNotQueued) {
    driver_.PresetCrosspoint(0, 64, 1);
    driver_.PresetCrosspoint(0, 1, 40);
    driver_.PresetCrosspoint(3, 1, 1);
    EXPECT_EQ(driver_.presets_waiting(), 0u);
}

}  // namespace
}  // namespace routerd
