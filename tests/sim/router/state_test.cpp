// leitch-routerd --state: the crosspoints and locks outlive the simulator, a
// kill -9 never loses a change a client was told of, and a state file that
// cannot be used stops the start with a message.

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include <sqlite3.h>

#include "support/routerd.h"

namespace simtest {
namespace {

namespace fs = std::filesystem;
const std::string kPrompt = "\r\n>";

std::string bytes_of(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The sources of destinations 0..count-1 of Leitch level 0, from "@ S?0".
std::vector<int> level_zero(Client& client, int count) {
    client.send("@ S?0\r");
    const std::string answer = client.read_until(kPrompt);
    std::vector<int> sources(static_cast<std::size_t>(count), -1);
    std::istringstream in(answer);
    std::string report;
    for (std::size_t at = answer.find("S:0"); at != std::string::npos; at = answer.find("S:0", at + 3)) {
        unsigned destination = 0, source = 0;
        if (std::sscanf(answer.c_str() + at, "S:0%x,%x", &destination, &source) == 2 &&
            destination < static_cast<unsigned>(count))
            sources[destination] = static_cast<int>(source);
    }
    return sources;
}

class StateTest : public testing::Test {
protected:
    StateTest() : directory_(fs::temp_directory_path() / ("routerd-state-" + std::to_string(getpid()))) {
        fs::remove_all(directory_);
        fs::create_directories(directory_);
    }
    ~StateTest() override {
        fs::permissions(directory_, fs::perms::owner_all);
        fs::remove_all(directory_);
    }
    std::string file(const std::string& name = "state.db") const { return (directory_ / name).string(); }

    fs::path directory_;
};

TEST_F(StateTest, CrosspointsAndLocksOutliveARestart) {
    {
        Routerd routerd({"--state", file()});
        Client client(routerd.port());
        client.send("@ X:0/5,3\r@ X:1/1F,1E\r@ W:0/7,1,1\r");
        ASSERT_EQ(client.read_until("W!07,1,1" + kPrompt), kPrompt + kPrompt + kPrompt + "\r\nW!07,1,1" + kPrompt);
        client.send("@ X?05\r");
        ASSERT_EQ(client.read_until(kPrompt), "\r\nS:05,3" + kPrompt);
        EXPECT_EQ(routerd.stop(SIGTERM), 0);
    }
    Routerd routerd({"--state", file()});
    EXPECT_TRUE(routerd.log_contains("crosspoints and locks restored from " + file()));
    Client client(routerd.port());
    client.send("@ X?05\r@ X?11F\r");
    EXPECT_EQ(client.read_count(kPrompt, 2), "\r\nS:05,3" + kPrompt + "\r\nS:11F,1E" + kPrompt);
    // Destination 7 is still locked: a take there is refused.
    client.send("@ X:0/7,2\r");
    EXPECT_EQ(client.read_until(kPrompt), kPrompt);
    EXPECT_TRUE(routerd.log_contains("refused take of source 2 to destination 7 on level 0: destination locked"));
}

TEST_F(StateTest, WithoutAStateFileNothingIsKept) {
    {
        Routerd routerd;
        Client client(routerd.port());
        client.send("@ X:0/5,3\r");
        ASSERT_EQ(client.read_until(kPrompt), kPrompt);
    }
    Routerd routerd;
    Client client(routerd.port());
    client.send("@ X?05\r");
    EXPECT_EQ(client.read_until(kPrompt), "\r\nS:05,0" + kPrompt);
}

// Each round takes destinations 0 to 255 of one level in order, to a source
// of its own, and is killed at a random moment. What comes back must be the
// state after some prefix of the takes, holding at least every take whose
// report reached the client.
TEST_F(StateTest, AKillNineNeverLosesAReportedTake) {
    const TempFile config("level.toml",
                          "[plugin.config]\ndevice_id = \"1\"\nlevel_mapping_video = \"0\"\n"
                          "[[level]]\nnumber = 0\nsources = 64\ndestinations = 256\n");
    std::mt19937 random(12345);
    std::vector<int> before(256, 0);
    std::string takes;
    const auto began = std::chrono::steady_clock::now();
    int round = 0;
    int rounds_with_reports = 0, rounds_cut_short = 0;  // the kills must land in all sorts of places
    for (; round < 50 && std::chrono::steady_clock::now() - began < 40s; ++round) {
        const int source = round % 63 + 1;
        int reported = 0;  // destinations 0..reported-1 were reported
        {
            Routerd routerd({"--config", config.path(), "--state", file()});
            Client client(routerd.port());
            client.send("@ ?\r");
            ASSERT_EQ(client.read_until(kPrompt), "@ ?" + kPrompt);
            ASSERT_EQ(level_zero(client, 256), before) << "round " << round;
            takes.clear();
            for (int destination = 0; destination < 256; ++destination) {
                char take[32];
                std::snprintf(take, sizeof take, "@ X:0/%X,%X\r", destination, source);
                takes += take;
            }
            client.send(takes);
            const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(random() % 15);
            std::string seen;
            while (std::chrono::steady_clock::now() < until) seen += client.read_once(1ms);
            routerd.stop(SIGKILL);
            char report[32];
            while (reported < 256) {
                std::snprintf(report, sizeof report, "\r\nS:0%X,%X\r\n>", reported, source);
                if (seen.find(report) == std::string::npos) break;
                ++reported;
            }
        }
        Routerd routerd({"--config", config.path(), "--state", file()});
        Client client(routerd.port());
        const std::vector<int> after = level_zero(client, 256);
        int prefix = 0;
        while (prefix < 256 && after[static_cast<std::size_t>(prefix)] == source) ++prefix;
        for (int destination = prefix; destination < 256; ++destination)
            ASSERT_EQ(after[static_cast<std::size_t>(destination)], before[static_cast<std::size_t>(destination)])
                << "round " << round << ", destination " << destination << ": not the state after a prefix";
        ASSERT_GE(prefix, reported) << "round " << round << ": a reported take was lost";
        rounds_with_reports += reported > 0;
        rounds_cut_short += prefix < 256;
        before = after;
    }
    EXPECT_GE(round, 20);
    EXPECT_GT(rounds_with_reports, 0);
    EXPECT_GT(rounds_cut_short, 0);
    std::printf("%d rounds, %d with reports before the kill, %d killed before the last take was kept\n", round,
                rounds_with_reports, rounds_cut_short);
}

TEST_F(StateTest, AFileThatIsNotADatabaseIsRefusedAndLeftAlone) {
    { std::ofstream(file()) << std::string(8192, 'x'); }
    const ExitResult result = run_routerd({"--listen", "127.0.0.1:0", "--state", file()});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find("leitch-routerd: state error: " + file() + ": "), std::string::npos) << result.errors;
    EXPECT_NE(result.errors.find("not a database"), std::string::npos) << result.errors;
    EXPECT_EQ(bytes_of(file()), std::string(8192, 'x'));
}

TEST_F(StateTest, AnotherProgramsDatabaseIsRefusedWithExitTwoAndLeftAlone) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file().c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE contacts (name TEXT); INSERT INTO contacts VALUES ('engineer');", nullptr,
                           nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    const std::string before = bytes_of(file());
    const ExitResult result = run_routerd({"--listen", "127.0.0.1:0", "--state", file()});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find("leitch-routerd: state error: " + file() +
                                 ": not a leitch-routerd state file: it holds tables of another program (contacts)"),
              std::string::npos)
        << result.errors;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(bytes_of(file()), before);
}

TEST_F(StateTest, ADamagedDatabaseIsRefusedAndLeftAlone) {
    {
        Routerd routerd({"--state", file()});
        EXPECT_EQ(routerd.stop(SIGTERM), 0);
    }
    // Scribble over every page but the first (the header).
    std::string damaged = bytes_of(file());
    ASSERT_GT(damaged.size(), 4096u);
    for (std::size_t i = 4096; i < damaged.size(); ++i) damaged[i] = static_cast<char>(i * 7);
    { std::ofstream(file(), std::ios::binary | std::ios::trunc) << damaged; }
    const ExitResult result = run_routerd({"--listen", "127.0.0.1:0", "--state", file()});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find("leitch-routerd: state error: " + file() + ": "), std::string::npos) << result.errors;
    EXPECT_EQ(bytes_of(file()), damaged);
}

TEST_F(StateTest, AFileInUseByAnotherSimulatorIsRefused) {
    Routerd first({"--state", file()});
    const ExitResult second = run_routerd({"--listen", "127.0.0.1:0", "--state", file()});
    EXPECT_EQ(second.code, 2);
    EXPECT_NE(second.errors.find(file() + ": the state file is in use by another process"), std::string::npos)
        << second.errors;
    Client client(first.port());
    client.send("@ X:0/5,3\r");
    EXPECT_EQ(client.read_until(kPrompt), kPrompt);
}

TEST_F(StateTest, APlaceWhereNoFileCanBeWrittenIsRefused) {
    std::string path = "/proc/leitch-routerd-state.db";  // not even root can create files there
    if (geteuid() != 0) {
        fs::permissions(directory_, fs::perms::owner_read | fs::perms::owner_exec);
        path = file();
    }
    const ExitResult result = run_routerd({"--listen", "127.0.0.1:0", "--state", path});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find("leitch-routerd: state error: " + path + ": "), std::string::npos) << result.errors;
}

TEST_F(StateTest, LevelsThatNoLongerMatchAreNamedAndFreshStateStartsAfresh) {
    {
        Routerd routerd({"--state", file()});
        Client client(routerd.port());
        client.send("@ X:0/5,3\r");
        ASSERT_EQ(client.read_until(kPrompt), kPrompt);
        EXPECT_EQ(routerd.stop(SIGTERM), 0);
    }
    const TempFile config("other.toml", "[[level]]\nnumber = 0\nsources = 64\ndestinations = 64\n");
    const std::string before = bytes_of(file());
    const ExitResult result = run_routerd({"--listen", "127.0.0.1:0", "--config", config.path(), "--state", file()});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find(file() + " was written for the levels 0 (32 x 32), 1 (32 x 32); the configuration "
                                          "has 0 (64 x 64) (--fresh-state starts afresh from the configuration)"),
              std::string::npos)
        << result.errors;
    EXPECT_EQ(bytes_of(file()), before);

    Routerd routerd({"--config", config.path(), "--state", file(), "--fresh-state"});
    Client client(routerd.port());
    client.send("@ X?05\r");
    EXPECT_EQ(client.read_until(kPrompt), "\r\nS:05,0" + kPrompt);
}

}  // namespace
}  // namespace simtest
