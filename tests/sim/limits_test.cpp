// Each limit disconnects the one client that passes it, with a log line; the
// others keep working.

#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>

#include "support/routerd.h"

namespace simtest {
namespace {

const std::string kPrompt = "\r\n>";

// The whole log line that holds `text`.
std::string log_line_with(const std::string& log, const std::string& text) {
    const auto at = log.find(text);
    if (at == std::string::npos) return {};
    const auto begin = log.rfind('\n', at);
    const auto start = begin == std::string::npos ? 0 : begin + 1;
    return log.substr(start, log.find('\n', at) - start);
}

// A take and its answer, to show a client is still served.
void expect_served(Client& client) {
    client.send("@ X:0/1,2\r");
    EXPECT_EQ(client.read_until(kPrompt), kPrompt);
    // The take is applied after the event that asked for it: ask in a later one.
    client.send("@ X?01\r");
    EXPECT_EQ(client.read_until(kPrompt), "\r\nS:01,2" + kPrompt);
}

TEST(RouterdLimits, ClientOverTheLimitGetsOneLineAndIsClosedOthersKeepWorking) {
    Routerd routerd({"--config", LEITCH_SIM_TEST_DIR "/configs/two_clients.toml"});
    Client first(routerd.port()), second(routerd.port());
    first.send("@ ?\r");
    ASSERT_EQ(first.read_until(kPrompt), "@ ?" + kPrompt);
    second.send("@ ?\r");
    ASSERT_EQ(second.read_until(kPrompt), "@ ?" + kPrompt);

    Client third(routerd.port());
    EXPECT_EQ(third.read_until("\r\n"), "too many clients: the limit is 2\r\n");
    EXPECT_TRUE(third.closed_by_server());
    EXPECT_TRUE(routerd.log_contains("refused client from 127.0.0.1:"));

    first.send("@ X:0/4,6\r");
    EXPECT_EQ(second.read_until("S:04,6" + kPrompt), "\r\nS:04,6" + kPrompt);
    first.send("@ !\r");
    ASSERT_EQ(first.read_until("\r\n>\r\n>"), "@ X:0/4,6" + kPrompt + "\r\nS:04,6" + kPrompt + kPrompt);
    expect_served(first);
}

TEST(RouterdLimits, ALineWithoutLineEndPastTheLimitDisconnectsThatClientOnly) {
    Routerd routerd;
    Client flooder(routerd.port()), other(routerd.port());
    try {
        flooder.send(std::string(100 * 1024, 'A'));
    } catch (const std::runtime_error&) {
        // The simulator may close before the last bytes are out.
    }
    EXPECT_TRUE(flooder.closed_by_server());
    EXPECT_TRUE(routerd.log_contains("bytes received without a line end"));
    expect_served(other);
}

TEST(RouterdLimits, ClientThatNeverReadsIsDisconnectedAndMemoryStaysBounded) {
    // A full level status answer is about 16 KiB.
    const TempFile config("impatient.toml", "[server]\noutput_timeout_ms = 1000\n" + test_config("one_large_level.toml"));
    Routerd routerd({"--config", config.path()});
    Client first(routerd.port()), second(routerd.port());
    Client sleeper(routerd.port(), 4096);
    sleeper.send("@ ?\r");
    expect_served(first);
    const long before = routerd.resident_kib();

    // 10,000 takes from two clients, 50 lines at a time. Between them the
    // sleeper asks for the whole 1152-destination level (about 16 KiB each
    // time) 2,000 times and never reads: more than 30 MiB if nothing bounded it.
    bool sleeper_open = true;
    for (int batch = 0; batch < 200; ++batch) {
        Client& taker = batch % 2 ? second : first;
        std::string lines;
        for (int i = 0; i < 50; ++i) {
            const int n = batch * 50 + i;
            char take[32];
            std::snprintf(take, sizeof take, "@ X:0/%X,%X\r", n % 1152, (n * 7) % 1152);
            lines += take;
        }
        taker.send(lines);
        ASSERT_EQ(occurrences(taker.read_count(kPrompt, 50), kPrompt), 50u);
        if (sleeper_open) {
            try {
                sleeper.send(std::string("@ S?0\r") + "@ S?0\r" + "@ S?0\r" + "@ S?0\r" + "@ S?0\r" +
                             "@ S?0\r" + "@ S?0\r" + "@ S?0\r" + "@ S?0\r" + "@ S?0\r");
            } catch (const std::runtime_error&) {
                sleeper_open = false;
            }
        }
    }
    const std::string reason = "disconnected: no output taken for 1000 ms (client does not read)";
    ASSERT_TRUE(routerd.log_contains(reason));
    EXPECT_EQ(log_line_with(routerd.log(), reason).find("client 3 (127.0.0.1:"), 24u);
    EXPECT_EQ(occurrences(routerd.log(), "disconnected:"), 1u);
    EXPECT_TRUE(sleeper.closed_by_server());
    EXPECT_LT(routerd.resident_kib() - before, 16 * 1024);
    expect_served(first);
    expect_served(second);
}

}  // namespace
}  // namespace simtest
