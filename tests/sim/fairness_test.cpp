// What one client's input may cost the others: router changes told once per
// destination per frame, input handed to the converter in slices that it cannot
// tell from the whole, back-pressure on a client that asks for more than it
// reads, refusals logged without flooding the log, and router sizes refused at
// start-up when one event's answers could outgrow a client's output bound.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <regex>
#include <stdexcept>
#include <thread>

#include "support/routerd.h"

namespace simtest {
namespace {

const std::string kPrompt = "\r\n>";

void report_mode(Client& client) {
    client.send("@ ?\r");
    ASSERT_EQ(client.read_until(kPrompt), "@ ?" + kPrompt);
}

// "\r\nS:" reports of every destination of a level, all on source 0, and the prompt.
std::string level_on_source_zero(int level, int destinations) {
    std::string out;
    for (int destination = 0; destination < destinations; ++destination) {
        char report[32];
        std::snprintf(report, sizeof report, "\r\nS:%X%X,0", level, destination);
        out += report;
    }
    return out + kPrompt;
}

std::string repeat(const std::string& text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += text;
    return out;
}

// One level of 1152 by 1152 where a client's output over 1 KiB stops its input.
std::string large_level_with_small_mark() {
    return "[server]\nmax_output_bytes = 1024\n" + test_config("one_large_level.toml");
}

TEST(RouterdFrames, SeveralTakesOfOneDestinationInOneFrameAreToldOnceWithTheLast) {
    Routerd routerd;
    Client taker(routerd.port()), watcher(routerd.port());
    report_mode(watcher);
    taker.send("@ X:0/5,1;@ X:0/5,2;@ X:0/5,3\r");
    EXPECT_EQ(taker.read_until(kPrompt), "\r\n\r\n" + kPrompt);
    EXPECT_EQ(watcher.read_for(300ms), "\r\nS:05,3" + kPrompt);
}

TEST(RouterdFrames, AResetFloodTellsEachDestinationOncePerFrame) {
    Routerd routerd;
    Client flooder(routerd.port()), watcher(routerd.port());
    report_mode(watcher);
    // 1,500 resets of both levels in one packet: 96,000 changes asked for.
    flooder.send(repeat("@ Z:;", 1499) + "@ Z:\r");
    ASSERT_EQ(occurrences(flooder.read_until(kPrompt), "\r\n"), 1500u);
    const std::string told = watcher.read_for(500ms);
    const std::size_t reports = occurrences(told, "\r\nS:");
    // Each frame tells every destination at most once; the packet is handled
    // in a few slices, each ending a frame.
    EXPECT_GE(reports, 64u);
    EXPECT_EQ(reports % 64, 0u);
    EXPECT_LE(reports, 64u * 40);
    EXPECT_EQ(occurrences(told, kPrompt), reports);
    watcher.send("@ X?05\r");
    EXPECT_EQ(watcher.read_until(kPrompt), "@ X?05\r\nS:05,0" + kPrompt);
}

// A chunk that ended just after a CR LF would leave the LF alone in the
// converter's buffer and cost an extra empty line; slices never end there.
TEST(RouterdSlices, APacketOfManyLinesIsAnsweredAsOneChunk) {
    Routerd routerd;
    Client client(routerd.port());
    client.send(repeat("@ X?01\r\n", 1000));
    const std::string expected = repeat("\r\nS:01,0" + kPrompt, 1000) + kPrompt;
    EXPECT_EQ(client.read_count(kPrompt, 1001), expected);
    EXPECT_EQ(client.read_for(200ms), "");
}

TEST(RouterdSlices, WhiteSpaceRunsAcrossSliceBoundariesAreAnsweredAsOneChunk) {
    Routerd routerd;
    Client client(routerd.port());
    // TABs and CR LF pairs between lines are dropped while a line follows.
    client.send(repeat("\t\r\n", 200) + "@ X?02" + repeat("\r\n\t", 300) + "@ X?03\r\n");
    EXPECT_EQ(client.read_count(kPrompt, 3), "\r\nS:02,0" + kPrompt + "\r\nS:03,0" + kPrompt + kPrompt);
    EXPECT_EQ(client.read_for(200ms), "");
}

TEST(RouterdBackPressure, AClientThatAsksForMoreThanItReadsGetsAllOfItLaterAndOthersAreServed) {
    const TempFile config("small_mark.toml", large_level_with_small_mark());
    Routerd routerd({"--config", config.path()});
    Client greedy(routerd.port(), 8192), other(routerd.port());
    // 200 whole-level answers, about 3 MiB, asked for at once and not read for a while.
    greedy.send(repeat("@ S?0\r", 200));
    std::this_thread::sleep_for(300ms);
    other.send("@ X:0/5,3\r");
    EXPECT_EQ(other.read_until(kPrompt, 2s), kPrompt);
    other.send("@ X?05\r");
    EXPECT_EQ(other.read_until(kPrompt, 2s), "\r\nS:05,3" + kPrompt);

    // The take happened between two of the greedy client's answers.
    const std::string answers = greedy.read_count(kPrompt, 200, 30s);
    ASSERT_EQ(occurrences(answers, kPrompt), 200u);
    EXPECT_EQ(answers.size(), 200 * level_on_source_zero(0, 1152).size());
    EXPECT_EQ(answers.substr(0, level_on_source_zero(0, 1152).size()), level_on_source_zero(0, 1152));
    EXPECT_EQ(routerd.log().find("disconnected"), std::string::npos) << routerd.log();
    greedy.send("@ X?05\r");
    EXPECT_EQ(greedy.read_until(kPrompt), "\r\nS:05,3" + kPrompt);
}

TEST(RouterdBackPressure, TheLargestAnswerReachesAReadingClientWhateverTheMark) {
    const TempFile config("small_mark.toml", large_level_with_small_mark());
    Routerd routerd({"--config", config.path()});
    Client client(routerd.port());
    client.send("@ S?0000000000000000\r");
    // Sixteen times the whole level, about 190 KiB, then one prompt.
    const std::string level = level_on_source_zero(0, 1152);
    const std::string reports = level.substr(0, level.size() - kPrompt.size());
    EXPECT_EQ(client.read_until(kPrompt, 10s), repeat(reports, 16) + kPrompt);
    EXPECT_FALSE(client.closed_by_server(300ms));
}

// The router's reports to a client that does not read pile up only to the
// output bound, long before the output timeout (10 s by default) runs out.
TEST(RouterdBackPressure, AReportModeClientThatDoesNotReadIsDisconnectedAtTheOutputBound) {
    Routerd routerd;
    Client sleeper(routerd.port(), 4096), flooder(routerd.port());
    report_mode(sleeper);
    // Every take changes a destination of either level: 64 reports a frame.
    std::string takes;
    for (int i = 0; i < 200; ++i) {
        char take[32];
        std::snprintf(take, sizeof take, "@ X:%X/%X,%X\r", i % 2, (i / 2) % 32, (i / 64) % 32);
        takes += take;
    }
    const std::string packets = repeat(takes, 50);
    const auto began = std::chrono::steady_clock::now();
    while (!routerd.log_contains("(client reads slower than the router changes)", 0ms) &&
           std::chrono::steady_clock::now() - began < 8s) {
        flooder.send(packets);
        ASSERT_EQ(occurrences(flooder.read_count(kPrompt, 10000), kPrompt), 10000u);
    }
    EXPECT_TRUE(routerd.log_contains("client 1 (127.0.0.1:"));
    EXPECT_TRUE(routerd.log_contains("disconnected: more than 1,048,576 bytes of router reports waiting besides its "
                                     "own answers (client reads slower than the router changes)"));
    EXPECT_TRUE(sleeper.closed_by_server());
#ifndef __SANITIZE_ADDRESS__  // its shadow memory makes the figure meaningless
    EXPECT_LT(routerd.resident_kib(), 32 * 1024);
#endif
}

// "@ X?" adds every destination it names to the instance's table, even far
// beyond the router; a level query then answers all of them. One event whose
// answer passes the client's output bound is cut short and that client alone
// is disconnected.
TEST(RouterdBackPressure, AnAnswerBloatedByTheClientsOwnLookUpsDisconnectsThatClientOnly) {
    Routerd routerd;
    Client bloater(routerd.port()), other(routerd.port());
    for (int batch = 0; batch < 20; ++batch) {
        std::string lookups;
        for (int i = 0; i < 1000; ++i) {
            char line[32];
            std::snprintf(line, sizeof line, "@ X?0%X\r", 0x100 + batch * 1000 + i);
            lookups += line;
        }
        bloater.send(lookups);
        ASSERT_EQ(occurrences(bloater.read_count(kPrompt, 1000), kPrompt), 1000u);
    }
    try {
        bloater.send(repeat("@ S?0000000000000000;", 40) + "\r");
    } catch (const std::runtime_error&) {
    }
    EXPECT_TRUE(bloater.closed_by_server(10s));
    EXPECT_TRUE(routerd.log_contains("client 1 (127.0.0.1:"));
    EXPECT_TRUE(routerd.log_contains("bytes of output from its own commands in one event"));
    other.send("@ X?05\r");
    EXPECT_EQ(other.read_until(kPrompt), "\r\nS:05,0" + kPrompt);
}

TEST(RouterdRefusals, ARefusalFloodIsLoggedOnceAndCounted) {
    Routerd routerd;
    Client client(routerd.port());
    // 500 presets of destination 0xFFF, beyond the 32 of level 0.
    for (int line = 0; line < 10; ++line) {
        client.send(repeat("@ P:0/FFF,1;", 49) + "@ P:0/FFF,1\r");
        ASSERT_EQ(client.read_until(kPrompt), repeat("\r\n", 49) + kPrompt);
    }
    ASSERT_TRUE(routerd.log_contains("presets refused (destination out of range) in the last second", 3s));
    const std::string log = routerd.log();
    const std::size_t full = occurrences(log, "client 1: refused preset of source 1 to destination 4095 on level 0: "
                                              "destination out of range\n");
    std::size_t counted = 0;
    const std::regex summary("client 1: ([0-9,]+) more presets refused \\(destination out of range\\) in the last second");
    for (std::sregex_iterator it(log.begin(), log.end(), summary), end; it != end; ++it) {
        std::string number = (*it)[1];
        number.erase(std::remove(number.begin(), number.end(), ','), number.end());
        counted += std::stoul(number);
    }
    // A second's boundary may fall inside the flood: then it starts afresh.
    EXPECT_GE(full, 1u);
    EXPECT_LE(full, 2u);
    EXPECT_EQ(full + counted, 500u);
    EXPECT_LT(occurrences(log, "\n"), 10u);
}

TEST(RouterdRefusals, ClientsConnectingInALoopAreLoggedAFewDozenLinesASecond) {
    Routerd routerd;
    for (int i = 0; i < 300; ++i) {
        Client client(routerd.port());
        client.send("@ X?05\r");
        ASSERT_EQ(client.read_until(kPrompt), "\r\nS:05,0" + kPrompt);
    }
    ASSERT_TRUE(routerd.log_contains(" more lines about clients coming and going in the last second, not logged one "
                                     "by one\n",
                                     3s));
    // 900 lines about 300 clients: opened, the plug-in's own line, closed.
    const std::string log = routerd.log();
    EXPECT_LT(occurrences(log, "\n"), 300u);
    EXPECT_NE(log.find("client 1 connected from 127.0.0.1:"), std::string::npos);
    EXPECT_NE(log.find("Creating Leitch Passthrough host instance\n"), std::string::npos);
}

// The level tables of a configuration file, `count` levels of `destinations`.
std::string levels(int count, int destinations) {
    std::string out;
    for (int level = 0; level < count; ++level) {
        out += "[[level]]\nnumber = " + std::to_string(level) + "\nsources = 16\ndestinations = " +
               std::to_string(destinations) + "\n";
    }
    return out;
}

TEST(RouterdCapacity, ALevelWhoseAnswersCouldOutgrowTheOutputBoundIsRefused) {
    const TempFile config("huge.toml", levels(1, 65536));
    const ExitResult result = run_routerd({"--config", config.path()});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find(config.path() +
                                 ":4: key 'level[0].destinations': at most 2150 with server.max_line_bytes = 1024 "
                                 "and server.max_output_bytes = 1048576: one client's waiting output must stay "
                                 "within 64 MiB"),
              std::string::npos)
        << result.errors;
}

TEST(RouterdCapacity, AShorterLineLimitAdmitsALargerLevel) {
    const TempFile config("large.toml", "[server]\nmax_line_bytes = 256\n" + levels(1, 4096));
    Routerd routerd({"--config", config.path()});
    Client client(routerd.port());
    client.send("@ X?0FFF\r");
    EXPECT_EQ(client.read_until(kPrompt), "\r\nS:0FFF,0" + kPrompt);
}

TEST(RouterdCapacity, TooManyDestinationsInAllAreRefused) {
    const TempFile config("many.toml", "[server]\nmax_line_bytes = 16\n" + levels(120, 10000));
    const ExitResult result = run_routerd({"--config", config.path()});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find("key 'level': at most 1032192 destinations in all levels together (these have "
                                 "1200000) with server.max_line_bytes = 16"),
              std::string::npos)
        << result.errors;
}

}  // namespace
}  // namespace simtest
