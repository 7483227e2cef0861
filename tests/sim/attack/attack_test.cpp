// leitch-routerd under attack: hostile clients do their worst while an
// observer in report mode takes a crosspoint every 10 ms and another client
// reads. No reading client may ever be disconnected, the observer's reports
// must stay prompt, memory and the log must stay bounded, and the process
// must survive what its surroundings do to it (signals, a closed or stalled
// standard error, running out of file descriptors, odd --config paths).

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "attacks.h"
#include "support/routerd.h"

#if defined(__SANITIZE_ADDRESS__)
#define LEITCH_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LEITCH_UNDER_ASAN 1
#endif
#endif

namespace {

using namespace std::chrono_literals;
using attack::AttackKind;
using attack::Clock;
using attack::Router;
using attack::RunResult;
using simtest::Routerd;

// Resident memory means nothing under AddressSanitizer (shadow memory,
// quarantined frees): the memory bounds are checked in the normal build only.
#ifdef LEITCH_UNDER_ASAN
constexpr bool kMemoryIsMeaningful = false;
#else
constexpr bool kMemoryIsMeaningful = true;
#endif

constexpr int kHostiles = 15;
// Lines just under the default line limit (1024 bytes without a line end).
constexpr std::size_t kLineBytes = 1000;
const std::string kPrompt = "\r\n>";

// The target is a p99 under 50 ms on the built-in router (the benchmark
// measures it). The test allows ten times that, as CI machines are shared, and
// what it must catch are the freezes of a second or more that one hostile line
// used to cause. The large router's frames carry up to 18,432 changes, and one
// "@ Z:" line of 1,000 levels there makes 2.3 million driver calls, which no
// slicing can split: hence twice the bound, and under the sanitizers, which
// slow those calls down about tenfold, five times more (that one event takes
// 2.1 to 3.5 s in the sanitizer build on a 2-core CI machine).
#ifdef LEITCH_UNDER_ASAN
constexpr double kSanitizerSlowdown = 5;
#else
constexpr double kSanitizerSlowdown = 1;
#endif
constexpr double kLatencyBoundMs = 500;
constexpr double kLargeLatencyBoundMs = 1000 * kSanitizerSlowdown;

struct Bounds {
    double p99_ms;
    long peak_kib;        // VmHWM while attacked
    long returns_to_kib;  // how far above its start value memory may stay once they leave
    std::size_t log_bytes;
};

// The built-in router serves 15 hostile clients in under 64 MiB.
constexpr Bounds kBuiltin{kLatencyBoundMs, 64 * 1024, 8 * 1024, 64 * 1024};
// The large router's plug-in instances alone take about 3.5 MiB each when all
// of their tables are filled, 18 clients about 64 MiB; one event's output for
// one client (a whole level status) is about 20 KiB.
constexpr Bounds kLarge{kLargeLatencyBoundMs, 256 * 1024, 32 * 1024, 64 * 1024};

// The simulator under test: this build's, or another one named in
// LEITCH_ATTACK_ROUTERD (to run the suite against a saved binary).
std::string routerd_path() {
    const char* other = std::getenv("LEITCH_ATTACK_ROUTERD");
    return other && *other ? other : simtest::built_routerd();
}

// That simulator run to its end with exactly `args`.
simtest::ExitResult run_to_end(const std::vector<std::string>& args, std::chrono::milliseconds timeout,
                               long open_file_limit = 0) {
    return simtest::run_routerd(
        simtest::RouterdOptions{args, routerd_path(), simtest::LogReader::reads, open_file_limit}, timeout);
}

// Hostile clients, the observer and the reader all come from 127.0.0.1.
std::string server_keys(const std::string& extra = "") {
    return "max_clients = 24\nmax_clients_per_address = 24\n" + extra;
}

// A simulator with a configuration file of its own.
struct Simulator {
    Simulator(const Router& router, const std::string& keys = server_keys(),
              simtest::LogReader log_reader = simtest::LogReader::reads)
        : config("routerd.toml", attack::router_config(router, keys)),
          server(simtest::RouterdOptions{{"--config", config.path()}, routerd_path(), log_reader, 0}) {}
    simtest::TempFile config;
    Routerd server;
};

RunResult attack_for(Routerd& server, const Router& router, AttackKind kind,
                     std::chrono::milliseconds duration = 2s) {
    attack::RunOptions options;
    options.attack_time = duration;
    options.settle_time = 500ms;
    return attack::run_attack(server, router, attack::plan(kind, router, kLineBytes, kHostiles), options);
}

void expect_reading_clients_served(const RunResult& result, double p99_bound_ms) {
    ASSERT_TRUE(result.started) << "the observer or the reader was not served before the attack";
    EXPECT_FALSE(result.server_died);
    EXPECT_FALSE(result.observer_dropped) << "the observer in report mode was disconnected";
    EXPECT_FALSE(result.reader_dropped) << "the reading client was disconnected";
    // Ten takes a second would be the least of a simulator that stalls for
    // a second at a time; the observer makes about a hundred.
    EXPECT_GE(result.latency.takes, 100u);
    EXPECT_EQ(result.latency.lost, 0u) << "takes never reported";
    EXPECT_LT(result.latency.p99_ms, p99_bound_ms)
        << "p50 " << result.latency.p50_ms << " ms, max " << result.latency.max_ms << " ms";
}

void expect_memory_bounded_and_returned(Routerd& server, const RunResult& result, const Bounds& bounds) {
    if (!kMemoryIsMeaningful) return;
    EXPECT_LT(result.peak_kib, bounds.peak_kib) << "peak resident memory, KiB";
    // Freed memory goes back to the system: wait for it a little.
    const long wanted = result.start.resident_kib + bounds.returns_to_kib;
    const auto deadline = Clock::now() + 3s;
    long now = server.memory().resident_kib;
    while (now > wanted && Clock::now() < deadline) {
        std::this_thread::sleep_for(50ms);
        now = server.memory().resident_kib;
    }
    EXPECT_LE(now, wanted) << "resident memory did not return near its start value of "
                           << result.start.resident_kib << " KiB";
}

void expect_withstood(Routerd& server, const RunResult& result, const Bounds& bounds) {
    expect_reading_clients_served(result, bounds.p99_ms);
    expect_memory_bounded_and_returned(server, result, bounds);
    EXPECT_LT(result.log_bytes, bounds.log_bytes) << server.log().substr(0, 4096);
}

// A take and its report, to show a client is still served.
void expect_served(unsigned short port) {
    simtest::Client client(port);
    client.send("@ ?\r");
    ASSERT_EQ(client.read_until(kPrompt, 5s), "@ ?" + kPrompt);
    client.send("@ X:0/1,2\r");
    EXPECT_EQ(client.read_until("S:01,2" + kPrompt, 5s), "@ X:0/1,2" + kPrompt + "\r\nS:01,2" + kPrompt);
}

// ------------------------------------------------------------------ attacks

TEST(RouterdUnderAttack, ZFloodInBigPacketsNeverDisconnectsAReadingClient) {
    Simulator simulator(attack::builtin_router());
    const RunResult result = attack_for(simulator.server, attack::builtin_router(), AttackKind::z_packets);
    expect_withstood(simulator.server, result, kBuiltin);
}

TEST(RouterdUnderAttack, ZFloodInSmallPacketsOnTheLargeRouterNeverDisconnectsAReadingClient) {
    Simulator simulator(attack::large_router());
    const RunResult result = attack_for(simulator.server, attack::large_router(), AttackKind::z_packets);
    expect_withstood(simulator.server, result, kLarge);
}

TEST(RouterdUnderAttack, ZLinesFullOfLevelCharactersCostOneResetPerLevelPerFrame) {
    Simulator simulator(attack::large_router());
    const RunResult result = attack_for(simulator.server, attack::large_router(), AttackKind::z_long_lines);
    expect_withstood(simulator.server, result, kLarge);
}

TEST(RouterdUnderAttack, RefusedPresetsOnManyLevelsAreLoggedAFewLinesPerClientPerSecond) {
    Simulator simulator(attack::builtin_router());
    const RunResult result = attack_for(simulator.server, attack::builtin_router(), AttackKind::refused_presets);
    expect_withstood(simulator.server, result, kBuiltin);
    const std::string log = simulator.server.log();
    EXPECT_NE(log.find(": refused preset of source 1 to destination 65535 on level 0: destination out of range\n"),
              std::string::npos)
        << log.substr(0, 4096);
    EXPECT_NE(log.find(" more presets refused (destination out of range) in the last second\n"), std::string::npos)
        << log.substr(0, 4096);
    // Each hostile line asks for 35,000 refused presets: a few lines per
    // client per second (2.5 s here) is all the log may show of them.
    EXPECT_LE(simtest::occurrences(log, "presets refused"), static_cast<std::size_t>(kHostiles) * 4);
    EXPECT_LE(simtest::occurrences(log, "refused preset of"), static_cast<std::size_t>(kHostiles) * 4);
}

TEST(RouterdUnderAttack, LongLinesOfLevelStatusQueriesNeverDisconnectAReadingClient) {
    Simulator simulator(attack::builtin_router());
    const RunResult result = attack_for(simulator.server, attack::builtin_router(), AttackKind::status_lines);
    expect_withstood(simulator.server, result, kBuiltin);
}

TEST(RouterdUnderAttack, LongLinesOfLevelStatusQueriesInReportModeNeverDisconnectAReadingClient) {
    Simulator simulator(attack::builtin_router());
    const RunResult result =
        attack_for(simulator.server, attack::builtin_router(), AttackKind::status_lines_reporting);
    expect_withstood(simulator.server, result, kBuiltin);
}

TEST(RouterdUnderAttack, TakeFloodFromFourPipeliningClientsNeverDisconnectsAReadingClient) {
    Simulator simulator(attack::builtin_router());
    const RunResult result = attack_for(simulator.server, attack::builtin_router(), AttackKind::take_flood);
    expect_withstood(simulator.server, result, kBuiltin);
}

TEST(RouterdUnderAttack, TakeFloodOnTheLargeRouterNeverDisconnectsAReadingClient) {
    Simulator simulator(attack::large_router());
    const RunResult result = attack_for(simulator.server, attack::large_router(), AttackKind::take_flood);
    expect_withstood(simulator.server, result, kLarge);
}

TEST(RouterdUnderAttack, ClientsThatNeverReadAreDisconnectedAndTheirOutputBounded) {
    Simulator simulator(attack::builtin_router(), server_keys("output_timeout_ms = 1000\n"));
    const RunResult result = attack_for(simulator.server, attack::builtin_router(), AttackKind::sleepers, 3s);
    expect_withstood(simulator.server, result, kBuiltin);
    // Thirteen sleepers, each closed when its waiting output passes the bound
    // (the takes keep adding reports) or a second after it stopped moving.
    EXPECT_GE(result.hostiles_closed_by_server, static_cast<std::size_t>(kHostiles - 2));
    const std::string log = simulator.server.log();
    const std::size_t not_reading =
        simtest::occurrences(log, ") disconnected: no output taken for 1000 ms (client does not read)\n") +
        simtest::occurrences(log, " (client reads slower than the router changes)\n");
    EXPECT_GE(not_reading, static_cast<std::size_t>(kHostiles - 2)) << log.substr(0, 4096);
}

TEST(RouterdUnderAttack, ConnectionChurnOnTheLargeRouterKeepsReportsPrompt) {
    Simulator simulator(attack::large_router());
    const RunResult result = attack_for(simulator.server, attack::large_router(), AttackKind::churn);
    expect_reading_clients_served(result, kLarge.p99_ms);
    expect_memory_bounded_and_returned(simulator.server, result, kLarge);
    EXPECT_GE(result.hostile_connections, 100u);
    // Nothing but the lines of each connection: opened, the plug-in
    // instance's own line, closed.
    EXPECT_LE(result.log_lines, 3 * result.hostile_connections + 20);
}

TEST(RouterdUnderAttack, ALineLongerThanTheLimitDisconnectsOnlyThatClient) {
    Simulator simulator(attack::builtin_router());
    const RunResult result = attack_for(simulator.server, attack::builtin_router(), AttackKind::overlong_line);
    expect_reading_clients_served(result, kBuiltin.p99_ms);
    expect_memory_bounded_and_returned(simulator.server, result, kBuiltin);
    EXPECT_GE(result.hostiles_closed_by_server, static_cast<std::size_t>(kHostiles));
    // Every closed flooder connects again: the lines of each connection
    // (opened, the plug-in instance's own line, closed), nothing more.
    EXPECT_LE(result.log_lines, 3 * result.hostile_connections + 20);
    EXPECT_TRUE(simulator.server.log_contains(") disconnected: more than 1024 bytes received without a line end\n"));
}

TEST(RouterdUnderAttack, AReadingClientIsNeverDisconnectedByItsOwnLargeAnswers) {
    // The output bound far below one answer: 16 full level statuses of 1,152
    // destinations (about 200 KB) per line.
    Simulator simulator(attack::large_router(), server_keys("max_output_bytes = 1024\n"));
    simtest::Client client(simulator.server.port());
    const std::string line = "@ S?0000000000000000\r";
    client.send(line + line + line + line);
    const std::string answer = client.read_count(kPrompt, 4, 30s);
    EXPECT_EQ(simtest::occurrences(answer, kPrompt), 4u);
    EXPECT_EQ(simtest::occurrences(answer, "\r\nS:0"), 4u * 16 * 1152);
    const std::string last_reports = "\r\nS:047E,0\r\nS:047F,0" + kPrompt;
    ASSERT_GE(answer.size(), last_reports.size());
    EXPECT_EQ(answer.substr(answer.size() - last_reports.size()), last_reports);
    expect_served(simulator.server.port());
}

// ------------------------------------------------------- standard error

TEST(RouterdStandardError, AClosedReaderNeitherKillsNorStopsTheSimulator) {
    Simulator simulator(attack::builtin_router(), server_keys(), simtest::LogReader::closes);
    // Every connection writes log lines into the closed pipe.
    for (int i = 0; i < 20; ++i) simtest::Client(simulator.server.port()).send("@ ?\r");
    expect_served(simulator.server.port());
    EXPECT_TRUE(simulator.server.running());
}

TEST(RouterdStandardError, AStalledReaderNeverBlocksTheClients) {
    Simulator simulator(attack::builtin_router(), server_keys(), simtest::LogReader::stalls);
    // About 2,000 log lines: many times what the pipe holds.
    for (int i = 0; i < 1000; ++i) {
        const int fd = attack::connect_to(simulator.server.port(), 0, 2s);
        ASSERT_GE(fd, 0) << "connection " << i << " not accepted";
        close(fd);
    }
    expect_served(simulator.server.port());
}

// ------------------------------------------------------------- signals

void expect_signal_ignored(int signal, const std::string& logged) {
    Simulator simulator(attack::builtin_router());
    simtest::Client watcher(simulator.server.port());
    watcher.send("@ ?\r");
    ASSERT_EQ(watcher.read_until(kPrompt), "@ ?" + kPrompt);
    kill(simulator.server.pid(), signal);
    EXPECT_TRUE(simulator.server.log_contains(logged + "\n")) << simulator.server.log();
    EXPECT_TRUE(simulator.server.running());
    expect_served(simulator.server.port());
    EXPECT_EQ(watcher.read_until("S:01,2" + kPrompt), "\r\nS:01,2" + kPrompt);
    EXPECT_EQ(simulator.server.stop(SIGTERM), 0);
}

TEST(RouterdSignalsIgnored, SighupIsLoggedAndTheConfigurationKept) {
    expect_signal_ignored(SIGHUP, "received SIGHUP, ignored: the configuration is read only at start-up");
}

TEST(RouterdSignalsIgnored, Sigusr1IsLoggedAndIgnored) { expect_signal_ignored(SIGUSR1, "received SIGUSR1, ignored"); }

TEST(RouterdSignalsIgnored, Sigusr2IsLoggedAndIgnored) { expect_signal_ignored(SIGUSR2, "received SIGUSR2, ignored"); }

// ------------------------------------------------------- open-file limit

TEST(RouterdOpenFileLimit, AcceptFailingForWantOfFilesIsLoggedOnceAndDoesNotSpin) {
    Simulator simulator(attack::builtin_router());
    Routerd& server = simulator.server;
    attack::Reader reader(server.port());
    ASSERT_TRUE(reader.start());
    rlimit old{};
    ASSERT_EQ(prlimit(server.pid(), RLIMIT_NOFILE, nullptr, &old), 0);
    ASSERT_TRUE(server.set_open_file_limit(server.open_files() + 2));

    std::vector<std::unique_ptr<simtest::Client>> waiting;
    for (int i = 0; i < 20; ++i) waiting.push_back(std::make_unique<simtest::Client>(server.port()));
    ASSERT_TRUE(server.log_contains("accept failed: Too many open files; accepting again in 1 s\n"))
        << server.log();
    const double cpu_before = server.cpu_seconds();
    std::this_thread::sleep_for(2s);
    const double cpu_used = server.cpu_seconds() - cpu_before;
    // Spinning on accept would take the whole two seconds of a core.
    EXPECT_LT(cpu_used, 0.3);
    EXPECT_EQ(simtest::occurrences(server.log(), "accept failed"), 1u) << server.log();

    waiting.clear();
    ASSERT_TRUE(server.set_open_file_limit(static_cast<long>(old.rlim_cur)));
    expect_served(server.port());
    EXPECT_TRUE(server.log_contains("accepting clients again")) << server.log();
    EXPECT_FALSE(reader.disconnected());
}

// ----------------------------------------------------- --config paths

void expect_not_a_regular_file(const std::string& path) {
    const simtest::ExitResult result = run_to_end({"--config", path, "--listen", "127.0.0.1:0"}, 5s);
    EXPECT_FALSE(result.timed_out) << "leitch-routerd hung on --config " << path;
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find("leitch-routerd: configuration error: " + path + ": not a regular file"),
              std::string::npos)
        << result.errors;
    EXPECT_EQ(result.output, "");
}

TEST(RouterdConfigPath, ADirectoryIsRefused) {
    const simtest::TempFile file("placeholder", "");
    const std::string directory = file.path().substr(0, file.path().rfind('/'));
    expect_not_a_regular_file(directory);
}

TEST(RouterdConfigPath, DevZeroIsRefused) { expect_not_a_regular_file("/dev/zero"); }

TEST(RouterdConfigPath, AFifoIsRefusedWithoutHanging) {
    const simtest::TempFile file("placeholder", "");
    const std::string fifo = file.path() + ".fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    expect_not_a_regular_file(fifo);
    unlink(fifo.c_str());
}

TEST(RouterdConfigPath, AnEmptyPathIsRefused) {
    const simtest::ExitResult result = run_to_end({"--config", "", "--listen", "127.0.0.1:0"}, 5s);
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find("configuration error"), std::string::npos) << result.errors;
    EXPECT_NE(result.errors.find("empty"), std::string::npos) << result.errors;
}

// ------------------------------------------------------ start-up limits

TEST(RouterdStartupLimits, ALevelTooLargeForTheLineLimitIsRefused) {
    const simtest::TempFile config("routerd.toml",
                                   "[[level]]\n"
                                   "number = 0\n"
                                   "sources = 16\n"
                                   "destinations = 65536\n");
    const simtest::ExitResult result = run_to_end({"--config", config.path(), "--listen", "127.0.0.1:0"}, 10s);
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find("key 'level[0].destinations': at most"), std::string::npos) << result.errors;
}

TEST(RouterdStartupLimits, MaxClientsAboveTheOpenFileLimitIsRefused) {
    const simtest::TempFile config("routerd.toml", "[server]\nmax_clients = 200\n");
    const simtest::ExitResult result =
        run_to_end({"--config", config.path(), "--listen", "127.0.0.1:0"}, 10s, 64);
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find("key 'server.max_clients': at most"), std::string::npos) << result.errors;
}

}  // namespace
