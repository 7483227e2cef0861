// Sessions recorded by leitch-routerd --record, played back by leitch-replay.

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/routerd.h"
#include "support/child_process.h"

namespace simtest {
namespace {

namespace fs = std::filesystem;
const std::string kPrompt = "\r\n>";

// Runs a program to its end; its exit status, standard output and error.
struct ProgramRun {
    int code = -1;
    std::string output;
    std::string errors;
};

ProgramRun run_program(const std::string& binary, const std::vector<std::string>& args) {
    const std::unique_ptr<FILE, int (*)(FILE*)> errors(std::tmpfile(), &std::fclose);
    const testhost::Child child = testhost::spawn_child(binary, args, errors ? fileno(errors.get()) : -1);
    ProgramRun result;
    char chunk[4096];
    for (;;) {
        const ssize_t n = read(child.out_fd, chunk, sizeof chunk);
        if (n <= 0) break;
        result.output.append(chunk, static_cast<std::size_t>(n));
    }
    close(child.out_fd);
    result.code = testhost::wait_for_exit(child.pid, testhost::SteadyClock::now() + 30s);
    if (errors) {
        std::rewind(errors.get());
        for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, errors.get())) > 0;) result.errors.append(chunk, n);
    }
    return result;
}

std::vector<std::string> recordings(const std::string& directory) {
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(directory)) files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

class RecordingTest : public testing::Test {
protected:
    RecordingTest() : directory_(fs::temp_directory_path() / ("routerd-recordings-" + std::to_string(getpid()))) {
        fs::remove_all(directory_);
    }
    ~RecordingTest() override { fs::remove_all(directory_); }

    // Two clients: one in report mode that takes, queries and locks, one that
    // takes; both then leave and the simulator stops. Its log.
    std::string record_two_clients(const std::vector<std::string>& extra = {}) {
        std::vector<std::string> args{"--record", directory_.string()};
        args.insert(args.end(), extra.begin(), extra.end());
        Routerd routerd(args);
        {
            Client first(routerd.port()), second(routerd.port());
            first.send("@ ?\r");
            EXPECT_EQ(first.read_until(kPrompt), "@ ?" + kPrompt);
            first.send("@ X:0/5,3\r\n");
            EXPECT_EQ(first.read_until("S:05,3" + kPrompt), "@ X:0/5,3" + kPrompt + kPrompt + "\r\nS:05,3" + kPrompt);
            second.send("@ X:1/4,2\r");
            EXPECT_EQ(first.read_until("S:14,2" + kPrompt), "\r\nS:14,2" + kPrompt);
            first.send("@ P:0/2,1;@ W:0/2,1,1\r");
            EXPECT_EQ(first.read_until("W!02,1,1" + kPrompt),
                      "@ P:0/2,1\r\n@ W:0/2,1,1" + kPrompt + "\r\nW!02,1,1" + kPrompt);
            first.send("@ S?0\r");
            EXPECT_FALSE(first.read_until("S:01F,0" + kPrompt).empty());
        }
        EXPECT_TRUE(routerd.log_contains("client 2 (127.0.0.1:"));
        EXPECT_EQ(routerd.stop(SIGTERM), 0);
        return routerd.log();
    }

    fs::path directory_;
};

TEST_F(RecordingTest, EveryClientLinkIsRecordedInTheTranscriptFormat) {
    record_two_clients();
    const std::vector<std::string> files = recordings(directory_.string());
    ASSERT_EQ(files.size(), 2u);
    EXPECT_NE(files[0].find("-client1-127.0.0.1_"), std::string::npos) << files[0];
    EXPECT_NE(files[1].find("-client2-127.0.0.1_"), std::string::npos) << files[1];
    const std::string first = read_text(files[0]);
    EXPECT_NE(first.find("config device_id \"1\"\nconfig level_control_video \"on,on\"\n"
                         "config level_mapping_video \"0,1\"\nlevels 0:32x32 1:32x32\ncrosspoint 0 0 0\n"),
              std::string::npos)
        << first.substr(0, 400);
    EXPECT_NE(first.find("recv \"@ ?\\r\"\n  send \"@ ?\"\n  send \"\\r\\n>\"\n"), std::string::npos);
    EXPECT_NE(first.find("recv \"@ X:0/5,3\\r\\n\"\n  send \"@ X:0/5,3\"\n  call PresetCrosspoint 0 3 5\n"
                         "  call TakePresets\n  send \"\\r\\n>\"\n  send \"\\r\\n>\"\ncrosspoint 0 3 5\n"
                         "  send \"\\r\\nS:05,3\"\n  send \"\\r\\n>\"\n"),
              std::string::npos);
    EXPECT_NE(first.find("crosspoint 1 2 4\n  send \"\\r\\nS:14,2\"\n  send \"\\r\\n>\"\n"), std::string::npos);
}

TEST_F(RecordingTest, ARecordingEndsWithItsLastLine) {
    record_two_clients();
    for (const std::string& file : recordings(directory_.string())) {
        const std::string text = read_text(file);
        EXPECT_EQ(text.rfind("# leitch-routerd: client ", 0), 0u) << text.substr(0, 80);
        ASSERT_GT(text.size(), 17u);
        EXPECT_EQ(text.substr(text.size() - 17), "# end of session\n");
    }
}

TEST_F(RecordingTest, AReplayOfARecordingCutShortExitsWithTwoNamingWhereItStops) {
    record_two_clients();
    const std::string file = recordings(directory_.string()).at(0);
    std::string text = read_text(file);
    text.resize(text.size() - 17);  // without "# end of session\n"
    const long lines = std::count(text.begin(), text.end(), '\n');
    { std::ofstream(file, std::ios::binary | std::ios::trunc) << text; }
    ProgramRun replay = run_program(LEITCH_REPLAY_PATH, {"--plugin", LEITCH_PLUGIN_PATH, file});
    EXPECT_EQ(replay.code, 2) << replay.output;
    EXPECT_EQ(replay.errors, "leitch-replay: " + file + ":" + std::to_string(lines) +
                                 ": the recording ends here without its last line (cut short?)\n");

    text.resize(text.size() - 3);  // in the middle of the last line
    { std::ofstream(file, std::ios::binary | std::ios::trunc) << text; }
    replay = run_program(LEITCH_REPLAY_PATH, {"--plugin", LEITCH_PLUGIN_PATH, file});
    EXPECT_EQ(replay.code, 2) << replay.output;
    EXPECT_EQ(replay.errors, "leitch-replay: " + file + ":" + std::to_string(lines) +
                                 ": the file ends in the middle of this line (cut short?)\n");
}

TEST_F(RecordingTest, ARecordedSessionReplaysWithNoDifference) {
    record_two_clients();
    const std::vector<std::string> files = recordings(directory_.string());
    ASSERT_EQ(files.size(), 2u);
    const ProgramRun replay = run_program(LEITCH_REPLAY_PATH, {"--plugin", LEITCH_PLUGIN_PATH, files[0], files[1]});
    EXPECT_EQ(replay.code, 0) << replay.output;
    EXPECT_EQ(replay.output.find(files[0] + ": matched ("), 0u) << replay.output;
    EXPECT_NE(replay.output.find(files[1] + ": matched ("), std::string::npos) << replay.output;
}

TEST_F(RecordingTest, ReplayAgainstAChangedPluginNamesTheFirstDifference) {
    record_two_clients();
    const std::string file = recordings(directory_.string()).at(0);
    const ProgramRun replay = run_program(LEITCH_REPLAY_PATH, {"--plugin", LEITCH_ALTERED_PLUGIN_PATH, file});
    EXPECT_EQ(replay.code, 1) << replay.output;
    // The first report of the file is the take's, told after the frame.
    std::istringstream lines(read_text(file));
    std::string line;
    int number = 0, crosspoint_line = 0;
    while (std::getline(lines, line)) {
        ++number;
        if (line == "crosspoint 0 3 5") crosspoint_line = number;
    }
    ASSERT_GT(crosspoint_line, 0);
    EXPECT_EQ(replay.output.find(file + ":" + std::to_string(crosspoint_line) +
                                 ": after crosspoint, event 1: expected send \"\\r\\nS:05,3\", got send "
                                 "\"\\r\\ns:05,3\""),
              0u)
        << replay.output;
}

TEST_F(RecordingTest, ARecordingStopsAtItsBoundAndWhatWasWrittenStillPlays) {
    const TempFile config("bounded.toml", "[record]\nmax_bytes = 2048\n");
    const std::string log = record_two_clients({"--config", config.path()});
    const std::vector<std::string> files = recordings(directory_.string());
    ASSERT_EQ(files.size(), 2u);
    EXPECT_NE(log.find("client 1: recording stopped at "), std::string::npos) << log;
    EXPECT_NE(log.find(" bytes (the bound is 2048): " + files[0]), std::string::npos) << log;
    EXPECT_LE(fs::file_size(files[0]), 2048u);
    EXPECT_GT(fs::file_size(files[0]), 1024u);
    const ProgramRun replay = run_program(LEITCH_REPLAY_PATH, {"--plugin", LEITCH_PLUGIN_PATH, files[0]});
    EXPECT_EQ(replay.code, 0) << replay.output;
}

// The bytes of the files in `directory` whose names are the simulator's recordings'.
std::uintmax_t recordings_total(const fs::path& directory) {
    std::uintmax_t total = 0;
    for (const auto& entry : fs::directory_iterator(directory)) {
        if (entry.path().filename().string().find("-client") != std::string::npos) total += entry.file_size();
    }
    return total;
}

// The recordings this run wrote: the files that start with the recording's first line.
std::vector<std::string> written_recordings(const fs::path& directory) {
    std::vector<std::string> files;
    for (const std::string& file : recordings(directory.string()))
        if (read_text(file).rfind("# leitch-routerd: ", 0) == 0) files.push_back(file);
    return files;
}

// Every recording this run wrote has its last line: its session is over.
bool every_recording_ended(const fs::path& directory) {
    for (const std::string& file : written_recordings(directory)) {
        const std::string text = read_text(file);
        if (text.back() != '\n') return false;
        const std::string last = text.substr(text.rfind('\n', text.size() - 2) + 1);
        if (last.rfind("# end of session", 0) != 0 && last.rfind("# recording stopped", 0) != 0) return false;
    }
    return true;
}

// Short sessions, one after another: report mode on, and gone.
void short_sessions(unsigned short port, int count) {
    for (int i = 0; i < count; ++i) {
        Client client(port);
        client.send("@ ?\r");
        ASSERT_EQ(client.read_until(kPrompt), "@ ?" + kPrompt) << "session " << i;
    }
}

class RecordDirectoryTest : public RecordingTest {
protected:
    static constexpr std::uintmax_t kBound = 16384;

    void SetUp() override {
        fs::create_directories(directory_);
        // A recording of an earlier run counts; a file of the user's does not, and both stay.
        std::ofstream(directory_ / kEarlier, std::ios::binary) << std::string(3000, 'x');
        std::ofstream(directory_ / "notes.txt", std::ios::binary) << std::string(50000, 'n');
    }

    std::string stopped_line() const {
        return "recording stopped: the recordings in " + directory_.string() + " take ";
    }

    static constexpr const char* kEarlier = "20240101-120000.000-client1-127.0.0.1_40000.txt";
};

TEST_F(RecordDirectoryTest, ManyShortSessionsStayWithinTheDirectorysBoundWithOneLogLine) {
    Routerd routerd({"--record", directory_.string(), "--record-max-total-bytes", std::to_string(kBound)});
    short_sessions(routerd.port(), 40);
    ASSERT_TRUE(testhost::eventually([&] { return every_recording_ended(directory_); }, 10s));
    const std::uintmax_t total = recordings_total(directory_);
    EXPECT_LE(total, kBound);
    // The room left was used: less than two sessions' worth (about 1.6 kB each) is left over.
    EXPECT_GT(total, kBound - 4096);
    const std::size_t files = written_recordings(directory_).size();
    EXPECT_GT(files, 4u);
    EXPECT_LT(files, 20u);
    EXPECT_EQ(fs::file_size(directory_ / kEarlier), 3000u);
    EXPECT_EQ(fs::file_size(directory_ / "notes.txt"), 50000u);

    EXPECT_EQ(routerd.stop(SIGTERM), 0);
    const std::string log = routerd.log();
    EXPECT_EQ(occurrences(log, "recording stopped: "), 1u) << log;
    const auto at = log.find(stopped_line());
    ASSERT_NE(at, std::string::npos) << log;
    const std::string line = log.substr(at, log.find('\n', at) - at);
    EXPECT_NE(line.find(" bytes, their bound is 16384; sessions are recorded again once they take 12288 or less"),
              std::string::npos)
        << line;
    EXPECT_EQ(occurrences(log, ": recording to "), files);
    EXPECT_EQ(recordings_total(directory_), total);  // stopping wrote nothing more
}

TEST_F(RecordDirectoryTest, ARecordingCutByTheDirectorysBoundSaysSoInItsLastLineAndStillPlays) {
    const TempFile config("bounded.toml", "[record]\nmax_total_bytes = " + std::to_string(kBound) + "\n");
    Routerd routerd({"--config", config.path(), "--record", directory_.string()});
    // One long session that fills the directory by itself.
    Client client(routerd.port());
    client.send("@ ?\r");
    ASSERT_EQ(client.read_until(kPrompt), "@ ?" + kPrompt);
    for (int i = 0; i < 400; ++i) {
        client.send("@ X:0/5,3\r");
        ASSERT_FALSE(client.read_until("S:05,3" + kPrompt).empty()) << "take " << i;
    }
    EXPECT_TRUE(routerd.log_contains(stopped_line())) << routerd.log();
    EXPECT_EQ(routerd.stop(SIGTERM), 0);
    std::string file;
    for (const std::string& path : recordings(directory_.string()))
        if (path.find("-client1-127.0.0.1_") != std::string::npos && path.find(kEarlier) == std::string::npos)
            file = path;
    ASSERT_FALSE(file.empty());
    const std::string text = read_text(file);
    const auto last = text.rfind("\n# recording stopped at ");
    ASSERT_NE(last, std::string::npos) << text.substr(text.size() > 200 ? text.size() - 200 : 0);
    EXPECT_EQ(text.substr(last + 1), "# recording stopped at " + std::to_string(last + 1) +
                                         " bytes (the directory's recordings reached their bound)\n");
    EXPECT_LE(recordings_total(directory_), kBound);
    const ProgramRun replay = run_program(LEITCH_REPLAY_PATH, {"--plugin", LEITCH_PLUGIN_PATH, file});
    EXPECT_EQ(replay.code, 0) << replay.output;
}

TEST_F(RecordDirectoryTest, RecordingResumesOnceTheUserHasFreedRoom) {
    Routerd routerd({"--record", directory_.string(), "--record-max-total-bytes", std::to_string(kBound)});
    short_sessions(routerd.port(), 20);
    ASSERT_TRUE(routerd.log_contains(stopped_line())) << routerd.log();
    ASSERT_TRUE(testhost::eventually([&] { return every_recording_ended(directory_); }, 10s));
    const std::size_t before = written_recordings(directory_).size();
    short_sessions(routerd.port(), 1);  // still full: not recorded
    for (const std::string& path : recordings(directory_.string()))
        if (path.find("notes.txt") == std::string::npos) fs::remove(path);
    // The directory is measured again at most once a second.
    std::this_thread::sleep_for(1500ms);
    short_sessions(routerd.port(), 1);
    EXPECT_TRUE(routerd.log_contains("recording again: the recordings in " + directory_.string() +
                                     " take 0 bytes, their bound is 16384\n"))
        << routerd.log();
    EXPECT_EQ(routerd.stop(SIGTERM), 0);
    EXPECT_EQ(written_recordings(directory_).size(), 1u);
    EXPECT_GT(before, 1u);
    EXPECT_TRUE(fs::exists(directory_ / "notes.txt"));
    EXPECT_EQ(occurrences(routerd.log(), "recording stopped: "), 1u);
}

TEST(RecordingDirectory, ADirectoryThatCannotBeWrittenIsRefusedAtStartUp) {
    const TempFile file("not_a_directory", "");
    const ExitResult result = run_routerd({"--listen", "127.0.0.1:0", "--record", file.path()});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find("cannot record to " + file.path()), std::string::npos) << result.errors;
}

TEST(Replay, WhatIsNotATranscriptExitsWithTwoSayingWhy) {
    const TempFile empty("empty.txt", "");
    const TempFile comments("comments.txt", "# nothing but a comment\n\n");
    const TempFile bare_recv("bare_recv.txt", "levels 0:4x4\nrecv\n");
    const TempFile bad_call("bad_call.txt", "recv \"@ ?\\r\"\n  call Explode 1\n");
    const TempFile bad_escape("bad_escape.txt", "recv \"\\x4\"\n");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {fs::temp_directory_path().string(), fs::temp_directory_path().string() + ": not a regular file"},
        {"/dev/null", "/dev/null: not a regular file"},
        {"/dev/zero", "/dev/zero: not a regular file"},
        {empty.path(), empty.path() + ": no actions"},
        {comments.path(), comments.path() + ": no actions"},
        {bare_recv.path(), bare_recv.path() + ":2: recv needs one quoted string"},
        {bad_call.path(), bad_call.path() +
                              ":2: call names TakePresets, ClearPresets, PresetCrosspoint or LockCrosspoint"},
        {bad_escape.path(), bad_escape.path() + ":1: bad \\x escape"},
    };
    for (const auto& [file, message] : cases) {
        const ProgramRun replay = run_program(LEITCH_REPLAY_PATH, {"--plugin", LEITCH_PLUGIN_PATH, file});
        EXPECT_EQ(replay.code, 2) << file << "\n" << replay.output;
        EXPECT_EQ(replay.errors, "leitch-replay: " + message + "\n");
        EXPECT_EQ(replay.output, "");
    }
}

TEST(RecordingDirectory, ReplayOfAMissingFileExitsWithTwo) {
    const ProgramRun replay = run_program(LEITCH_REPLAY_PATH, {"--plugin", LEITCH_PLUGIN_PATH, "/nonexistent/recording.txt"});
    EXPECT_EQ(replay.code, 2);
}

}  // namespace
}  // namespace simtest
