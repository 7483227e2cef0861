#pragma once

// leitch-routerd as a child process on a free port, watched from outside as
// its users see it: its port, its log (standard error), its memory and CPU
// time from /proc, its open-file limit; and a blocking client that talks to it
// over loopback as a real client would. The C++ tests and the attack
// benchmark start the simulator through this (Python's twin: routerd.py).

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace simtest {

using namespace std::chrono_literals;

// A file in a fresh temporary directory, removed with the object.
class TempFile {
public:
    TempFile(const std::string& name, const std::string& text);
    ~TempFile();
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string directory_;
    std::string path_;
};

std::size_t occurrences(const std::string& text, const std::string& what);

// The text of tests/sim/configs/<name>.
std::string test_config(const std::string& name);
// The whole of a file; empty when it cannot be read.
std::string read_text(const std::string& path);

// This build's leitch-routerd (empty when the build has no simulator).
std::string built_routerd();

// The sanitizer report in what a program wrote on its standard error, from
// its first line to the end; empty when there is none. A report starts with a
// line "==PID==ERROR: " (AddressSanitizer, LeakSanitizer) or "FILE:LINE:COLUMN:
// runtime error: " (UndefinedBehaviorSanitizer). The sanitize build's
// simulator writes its reports on its real standard error (sim/sanitizer_hooks.cpp).
// Python's twin is sanitizer_report() in routerd.py.
std::string sanitizer_report(const std::string& errors);

// What becomes of a report the simulator wrote: every simulator this harness
// starts is looked at when it has ended. By default the report is printed and
// the program aborted; the test programs make it a failure of the test that
// was running (gtest_reports.cpp).
using SanitizerReportHandler = void (*)(const std::string& report);
void on_sanitizer_report(SanitizerReportHandler handler);

// What happens to the simulator's standard error.
enum class LogReader {
    reads,   // a thread of ours reads it all the time (the normal case)
    stalls,  // nobody reads it: the pipe fills and stays full
    closes,  // the reading end is closed right after start-up
};

struct RouterdOptions {
    std::vector<std::string> args;  // Routerd: after "--listen 127.0.0.1:0 --http off"
    std::string binary = built_routerd();
    LogReader log_reader = LogReader::reads;
    long open_file_limit = 0;  // RLIMIT_NOFILE of the child; 0: inherited
};

struct Memory {
    long resident_kib = -1;  // VmRSS
    long peak_kib = -1;      // VmHWM
};

// VmRSS / VmHWM of any process, in KiB (-1 when unknown).
Memory memory_of(pid_t pid);

// A running simulator, started with "--listen 127.0.0.1:0 --http off" and
// then its arguments (a later --http wins: tests running side by side must
// not compete for the web view's default port). Killed if still running
// when the object goes.
class Routerd {
public:
    // This build's simulator with `args`.
    explicit Routerd(const std::vector<std::string>& args = {});
    // Waits for "listening on 127.0.0.1:PORT"; throws with the log if it does
    // not come within 30 s. Once the process has ended (running() false,
    // stop(), or the object gone), a sanitizer report in its log goes to the
    // handler (on_sanitizer_report), once.
    explicit Routerd(const RouterdOptions& options);
    ~Routerd();
    Routerd(const Routerd&) = delete;
    Routerd& operator=(const Routerd&) = delete;

    unsigned short port() const { return port_; }
    pid_t pid() const { return pid_; }

    // True while the process exists (not exited, not killed).
    bool running();
    // Sends `signal` and waits for the exit; the exit status, or -1 if it was
    // killed by a signal or did not exit in time (then it is killed).
    int stop(int signal, std::chrono::milliseconds timeout = 10s);
    // How the process ended, once running() has returned false or stop() has
    // run: the exit status, or 128 + the signal that killed it.
    int end_status() const { return end_status_; }

    // The log written so far (its first 8 MiB), everything the simulator had
    // written when this was called included.
    std::string log() const;
    std::size_t log_bytes() const { return log_bytes_.load(); }
    std::size_t log_lines() const { return log_lines_.load(); }
    // Waits until the log holds `text`.
    bool log_contains(const std::string& text, std::chrono::milliseconds timeout = 5s) const;

    Memory memory() const;
    long resident_kib() const { return memory().resident_kib; }
    // User + system CPU time in seconds, from /proc/PID/stat.
    double cpu_seconds() const;
    // Number of open file descriptors, from /proc/PID/fd.
    int open_files() const;
    // Sets the soft RLIMIT_NOFILE of the running process with prlimit(2).
    bool set_open_file_limit(long limit);

private:
    void read_log();
    // Appends what the pipe holds now; false at its end.
    bool take_log() const;
    // Kills, reaps and collects the log; for a start that failed.
    std::string abandon();
    // Waits for the exit, taking in the log meanwhile (a report must not wait
    // on a full pipe); at the deadline the process is killed. The exit status,
    // or 128 + the signal; -1 if it had to be killed.
    int wait_for_end(std::chrono::steady_clock::time_point deadline);
    // The process has ended: the rest of its log, and its report if any.
    void ended(pid_t pid);

    pid_t pid_ = -1;
    int end_status_ = -1;
    bool reported_ = false;  // the report, if any, went to the handler
    unsigned short port_ = 0;
    LogReader log_reader_ = LogReader::reads;
    int log_fd_ = -1;
    mutable std::mutex log_mutex_;
    mutable std::string log_;
    mutable std::string log_tail_;  // the last bytes written, where a report is when log_ is full
    mutable bool log_ended_ = false;
    mutable std::atomic<std::size_t> log_bytes_{0};
    mutable std::atomic<std::size_t> log_lines_{0};
    std::atomic<bool> stopping_{false};
    std::thread log_thread_;
};

struct ExitResult {
    int code = -1;  // exit status; -1 if killed by a signal or by the timeout
    bool timed_out = false;
    std::string output;  // standard output
    std::string errors;  // standard error
};

// Runs the simulator with exactly `args` to its end; killed after `timeout`.
ExitResult run_routerd(const std::vector<std::string>& args, std::chrono::milliseconds timeout = 10s);
ExitResult run_routerd(const RouterdOptions& options, std::chrono::milliseconds timeout = 10s);

// A blocking client with timeouts; everything received is kept in order.
class Client {
public:
    explicit Client(unsigned short port, int receive_buffer = 0);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void send(const std::string& bytes);
    // Everything up to and including the first `text` received from now on
    // (after earlier reads); empty string on timeout or close.
    std::string read_until(const std::string& text, std::chrono::milliseconds timeout = 5s);
    // Reads until `count` occurrences of `text` have arrived; returns them all.
    std::string read_count(const std::string& text, std::size_t count, std::chrono::milliseconds timeout = 10s);
    // Whatever arrives within `quiet` of silence.
    std::string read_for(std::chrono::milliseconds quiet);
    // The bytes of one recv() call (waits for it).
    std::string read_once(std::chrono::milliseconds timeout = 5s);
    // True if the server closes the connection within `timeout` (data before
    // the close is discarded).
    bool closed_by_server(std::chrono::milliseconds timeout = 5s);

private:
    bool fill(std::chrono::steady_clock::time_point deadline);
    int fd_ = -1;
    std::string buffer_;
    bool eof_ = false;
};

}  // namespace simtest
