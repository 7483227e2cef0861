// Failed logins by address, with the times given: the growing delay, the
// refusal after ten failures in a row, forgetting, and the bound on memory.

#include <gtest/gtest.h>

#include <string>

#include "sim/links/failed_logins.h"

namespace routerd {
namespace {

using namespace std::chrono_literals;
using Clock = FailedLogins::Clock;

class FailedLoginsTest : public ::testing::Test {
protected:
    // `count` failures from `address` at `when`; the delay of the last.
    std::chrono::seconds fail(const std::string& address, int count, Clock::time_point when) {
        std::chrono::seconds delay{0};
        for (int i = 0; i < count; ++i) delay = failures.failed(address, when);
        return delay;
    }

    Log log;
    FailedLogins failures{log};
    const Clock::time_point start = Clock::now();
};

TEST_F(FailedLoginsTest, TheDelayDoublesFromOneSecondUpToSixteen) {
    std::string delays;
    for (int i = 0; i < 7; ++i) delays += std::to_string(failures.failed("127.0.0.2", start).count()) + " ";
    EXPECT_EQ(delays, "1 2 4 8 16 16 16 ");
}

TEST_F(FailedLoginsTest, EachAddressHasItsOwnDelay) {
    fail("127.0.0.2", 4, start);
    EXPECT_EQ(failures.failed("127.0.0.3", start), 1s);
    EXPECT_EQ(failures.failed("127.0.0.2", start), 16s);
}

TEST_F(FailedLoginsTest, TenFailuresInARowRefuseTheAddressForFiveMinutes) {
    fail("127.0.0.2", 9, start);
    EXPECT_EQ(failures.refused("127.0.0.2", start), std::nullopt);
    fail("127.0.0.2", 1, start);
    EXPECT_EQ(failures.refused("127.0.0.2", start), 300s);
    EXPECT_EQ(failures.refused("127.0.0.2", start + 299500ms), 1s);
    EXPECT_EQ(failures.refused("127.0.0.3", start), std::nullopt);
    failures.end_second(start + 300s);
    EXPECT_EQ(failures.refused("127.0.0.2", start + 300s), std::nullopt);
}

TEST_F(FailedLoginsTest, AFailureAfterTheRefusalStartsItAgain) {
    fail("127.0.0.2", 10, start);
    failures.end_second(start + 300s);
    EXPECT_EQ(failures.failed("127.0.0.2", start + 301s), 16s);
    EXPECT_EQ(failures.refused("127.0.0.2", start + 301s), 300s);
}

TEST_F(FailedLoginsTest, ALoginThatPassesForgetsTheAddressEvenWhileRefused) {
    fail("127.0.0.2", 10, start);
    failures.passed("127.0.0.2");
    EXPECT_EQ(failures.refused("127.0.0.2", start), std::nullopt);
    EXPECT_EQ(failures.failed("127.0.0.2", start), 1s);
}

TEST_F(FailedLoginsTest, AnAddressIsForgottenAfterFifteenQuietMinutes) {
    fail("127.0.0.2", 3, start);
    failures.end_second(start + 899s);
    EXPECT_EQ(failures.addresses(), 1u);
    failures.end_second(start + 900s);
    EXPECT_EQ(failures.addresses(), 0u);
    EXPECT_EQ(failures.failed("127.0.0.2", start + 900s), 1s);
}

TEST_F(FailedLoginsTest, ARefusedAddressIsNotForgottenBeforeItsRefusalEnds) {
    fail("127.0.0.2", 10, start);
    failures.end_second(start + 299s);
    EXPECT_EQ(failures.addresses(), 1u);
    EXPECT_EQ(failures.refused("127.0.0.2", start + 299s), 1s);
}

TEST_F(FailedLoginsTest, AtMostSoManyAddressesAreRememberedAndTheRefusedOnesAreKept) {
    fail("10.0.0.1", 10, start);
    for (int i = 0; i < 5000; ++i)
        failures.failed("10.1." + std::to_string(i / 256) + "." + std::to_string(i % 256), start + 1s);
    EXPECT_EQ(failures.addresses(), FailedLogins::kMostAddresses);
    EXPECT_EQ(failures.refused("10.0.0.1", start + 1s), 299s);
}

}  // namespace
}  // namespace routerd
