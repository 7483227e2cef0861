// leitch-routerd over real loopback sockets with the built-in router: two host
// levels of 32 by 32, seen by clients as Leitch levels 0 and 1 of device 1.

#include <gtest/gtest.h>

#include <cstdio>

#include "support/routerd.h"

namespace simtest {
namespace {

const std::string kPrompt = "\r\n>";

// "\r\nS:" reports of every destination of a 32-destination level.
std::string level_status(int level, int source_of_5 = 0) {
    std::string out;
    for (int destination = 0; destination < 32; ++destination) {
        char report[32];
        std::snprintf(report, sizeof report, "\r\nS:%X%X,%X", level, destination,
                      destination == 5 ? source_of_5 : 0);
        out += report;
    }
    return out;
}

// Switches report mode on and waits for its echo.
void report_mode(Client& client) {
    client.send("@ ?\r");
    ASSERT_EQ(client.read_until(kPrompt), "@ ?" + kPrompt);
}

// Asks for one destination; the answer is one status report and the prompt.
std::string ask(Client& client, const std::string& level_and_destination) {
    client.send("@ X?" + level_and_destination + "\r");
    return client.read_until(kPrompt);
}

TEST(RouterdReports, TakeIsReportedToEveryReportModeClientAndToNoOther) {
    Routerd routerd;
    Client taker(routerd.port()), watcher(routerd.port()), quiet(routerd.port());
    report_mode(taker);
    report_mode(watcher);

    taker.send("@ X:0/5,3\r");
    EXPECT_EQ(taker.read_until("S:05,3" + kPrompt), "@ X:0/5,3" + kPrompt + "\r\nS:05,3" + kPrompt);
    EXPECT_EQ(watcher.read_until("S:05,3" + kPrompt), "\r\nS:05,3" + kPrompt);
    EXPECT_EQ(quiet.read_for(200ms), "");
    EXPECT_EQ(ask(quiet, "05"), "\r\nS:05,3" + kPrompt);
}

TEST(RouterdReports, AnUnchangedCrosspointIsReportedAgain) {
    Routerd routerd;
    Client taker(routerd.port()), watcher(routerd.port());
    report_mode(watcher);
    taker.send("@ X:1/2,4\r");
    EXPECT_EQ(watcher.read_until(kPrompt), "\r\nS:12,4" + kPrompt);
    taker.send("@ X:1/2,4\r");
    EXPECT_EQ(watcher.read_until(kPrompt), "\r\nS:12,4" + kPrompt);
}

TEST(RouterdStatus, LevelQueryListsEveryDestinationOfTheLevel) {
    Routerd routerd;
    Client client(routerd.port());
    client.send("@ X:0/5,3\r");
    ASSERT_EQ(client.read_until(kPrompt), kPrompt);
    client.send("@ S?0\r");
    EXPECT_EQ(client.read_until(kPrompt), level_status(0, 3) + kPrompt);
}

TEST(RouterdStatus, ANewClientKnowsTheWholeMatrixAtOnce) {
    Routerd routerd;
    Client first(routerd.port());
    first.send("@ X:1/5,9\r");
    ASSERT_EQ(first.read_until(kPrompt), kPrompt);
    ASSERT_EQ(ask(first, "15"), "\r\nS:15,9" + kPrompt);

    Client later(routerd.port());
    later.send("@ S?1\r");
    EXPECT_EQ(later.read_until(kPrompt), level_status(1, 9) + kPrompt);
}

TEST(RouterdStatus, EverythingAnsweredToOneLineLeavesInOneWrite) {
    Routerd routerd;
    Client client(routerd.port());
    client.send("@ ?\r@ S?0\r@ S?1\r");
    const std::string expected = "@ ?" + kPrompt + "@ S?0" + level_status(0) + kPrompt + "@ S?1" +
                                 level_status(1) + kPrompt;
    EXPECT_EQ(client.read_once(), expected);
}

TEST(RouterdStatus, StateFromTheConfigurationIsReported) {
    Routerd routerd({"--config", LEITCH_SIM_TEST_DIR "/configs/initial_state.toml"});
    Client client(routerd.port());
    EXPECT_EQ(ask(client, "02"), "\r\nS:02,7" + kPrompt);
    client.send("@ X:0/3,1\r");
    ASSERT_EQ(client.read_until(kPrompt), kPrompt);
    EXPECT_TRUE(routerd.log_contains("destination locked"));
    EXPECT_EQ(ask(client, "03"), "\r\nS:03,0" + kPrompt);
}

TEST(RouterdLocks, StateOneRefusesTakesFromEveryoneUntilUnlocked) {
    Routerd routerd;
    Client owner(routerd.port()), other(routerd.port());
    owner.send("@ W:0/5,1,1\r");
    EXPECT_EQ(owner.read_until("W!05,1,1" + kPrompt), kPrompt + "\r\nW!05,1,1" + kPrompt);

    other.send("@ X:0/5,3\r");
    ASSERT_EQ(other.read_until(kPrompt), kPrompt);
    owner.send("@ X:0/5,4\r");
    ASSERT_EQ(owner.read_until(kPrompt), kPrompt);
    EXPECT_EQ(ask(other, "05"), "\r\nS:05,0" + kPrompt);
    EXPECT_TRUE(routerd.log_contains("refused take of source 3 to destination 5 on level 0: destination locked"));

    owner.send("@ W:0/5,1,0\r");
    EXPECT_EQ(owner.read_until("W!05,1,0" + kPrompt), kPrompt + "\r\nW!05,1,0" + kPrompt);
    other.send("@ X:0/5,3\r");
    ASSERT_EQ(other.read_until(kPrompt), kPrompt);
    EXPECT_EQ(ask(other, "05"), "\r\nS:05,3" + kPrompt);
}

TEST(RouterdLocks, StateTwoLetsOnlyTheOwnerSwitch) {
    Routerd routerd;
    Client owner(routerd.port()), other(routerd.port());
    // Device 2 locks destination 5 of level 0 with state 2.
    owner.send("@ W:0/5,2,2\r");
    EXPECT_EQ(owner.read_until("W!05,2,2" + kPrompt), kPrompt + "\r\nW!05,2,2" + kPrompt);

    other.send("@ X:0/5,3:2\r");
    ASSERT_EQ(other.read_until(kPrompt), kPrompt);
    EXPECT_EQ(ask(other, "05"), "\r\nS:05,0" + kPrompt);

    owner.send("@ X:0/5,3\r");  // the owner's own device is 1, not 2
    ASSERT_EQ(owner.read_until(kPrompt), kPrompt);
    EXPECT_EQ(ask(other, "05"), "\r\nS:05,0" + kPrompt);

    owner.send("@ X:0/5,3:2\r");
    ASSERT_EQ(owner.read_until(kPrompt), kPrompt);
    EXPECT_EQ(ask(other, "05"), "\r\nS:05,3" + kPrompt);
}

TEST(RouterdReset, ResetPutsEveryDestinationOfTheLevelToSourceZeroAndUnlocksIt) {
    Routerd routerd;
    Client client(routerd.port());
    client.send("@ X:0/5,3\r@ X:1/7,2\r@ W:0/9,1,1\r");
    client.read_count(kPrompt, 3);
    ASSERT_EQ(client.read_until(kPrompt), "\r\nW!09,1,1" + kPrompt);
    ASSERT_EQ(ask(client, "05"), "\r\nS:05,3" + kPrompt);

    client.send("@ Z:0\r");
    ASSERT_EQ(client.read_until(kPrompt), kPrompt);
    client.send("@ S?0\r");
    EXPECT_EQ(client.read_until(kPrompt), level_status(0) + kPrompt);
    EXPECT_EQ(ask(client, "17"), "\r\nS:17,2" + kPrompt);

    client.send("@ X:0/9,4\r");
    ASSERT_EQ(client.read_until(kPrompt), kPrompt);
    EXPECT_EQ(ask(client, "09"), "\r\nS:09,4" + kPrompt);
}

TEST(RouterdPresets, ExecuteTakesOnlyTheClientsOwnPresets) {
    Routerd routerd;
    Client first(routerd.port()), second(routerd.port()), watcher(routerd.port());
    first.send("@ P:0/5,3\r");
    ASSERT_EQ(first.read_until(kPrompt), kPrompt);
    second.send("@ P:0/6,4\r");
    ASSERT_EQ(second.read_until(kPrompt), kPrompt);

    second.send("@ B:E\r");
    ASSERT_EQ(second.read_until(kPrompt), kPrompt);
    EXPECT_EQ(ask(watcher, "05"), "\r\nS:05,0" + kPrompt);
    EXPECT_EQ(ask(watcher, "06"), "\r\nS:06,4" + kPrompt);

    first.send("@ B:E\r");
    ASSERT_EQ(first.read_until(kPrompt), kPrompt);
    EXPECT_EQ(ask(watcher, "05"), "\r\nS:05,3" + kPrompt);
}

TEST(RouterdPresets, ClearDiscardsTheClientsPresets) {
    Routerd routerd;
    Client client(routerd.port());
    client.send("@ P:0/5,3\r@ B:C\r@ B:E\r");
    client.read_count(kPrompt, 3);
    EXPECT_EQ(ask(client, "05"), "\r\nS:05,0" + kPrompt);
}

TEST(RouterdRanges, OutOfRangeChangesAreRefusedAndLogged) {
    Routerd routerd;
    Client client(routerd.port());
    const long before = routerd.resident_kib();
    client.send("@ X:0/FFFFFFF,1\r@ X:0/5,FFFFFFF\r@ W:0/FFFFFFF,1,1\r");
    client.read_count(kPrompt, 3);
    EXPECT_TRUE(routerd.log_contains("refused preset of source 1 to destination 268435455 on level 0: destination out of range"));
    EXPECT_TRUE(routerd.log_contains("refused preset of source 268435455 to destination 5 on level 0: source out of range"));
    EXPECT_TRUE(routerd.log_contains("refused lock state 1 of destination 268435455 on level 0: destination out of range"));
    EXPECT_EQ(ask(client, "05"), "\r\nS:05,0" + kPrompt);
    EXPECT_LT(routerd.resident_kib() - before, 4 * 1024);
}

}  // namespace
}  // namespace simtest
