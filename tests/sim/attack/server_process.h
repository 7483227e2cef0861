#pragma once

// leitch-routerd as a child process, watched from outside: its port, its log
// (standard error, read through a pipe by a thread of ours), its memory and
// CPU time from /proc, and its open-file limit. Used by the adversarial tests
// and by the attack benchmark, so it takes the binary's path as an argument.

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace attack {

using namespace std::chrono_literals;

// What happens to the simulator's standard error.
enum class LogReader {
    reads,    // a thread reads it all the time (the normal case)
    stalls,   // nobody reads it: the pipe fills and stays full
    closes,   // the reading end is closed right after start-up
};

struct ServerOptions {
    std::string binary;                  // leitch-routerd
    std::vector<std::string> args;       // after "--listen 127.0.0.1:0"
    LogReader log_reader = LogReader::reads;
    long open_file_limit = 0;            // RLIMIT_NOFILE of the child; 0: inherited
};

struct Memory {
    long resident_kib = -1;  // VmRSS
    long peak_kib = -1;      // VmHWM
};

class Server {
public:
    // Starts the simulator and waits for "listening on 127.0.0.1:PORT".
    // Throws with the log if it does not come within 30 s.
    explicit Server(ServerOptions options);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    unsigned short port() const { return port_; }
    pid_t pid() const { return pid_; }

    // True while the process exists (not exited, not killed).
    bool running();
    // Sends `signal` and waits for the exit; the exit status, or -1 if it was
    // killed by a signal or did not exit in time (then it is killed).
    int stop(int signal, std::chrono::milliseconds timeout = 10s);
    // How the process ended, once running() has returned false: the exit
    // status, or 128 + the signal that killed it.
    int end_status() const { return end_status_; }

    // The log kept so far (the first 8 MiB) and its full size in bytes.
    std::string log() const;
    std::size_t log_bytes() const { return log_bytes_.load(); }
    std::size_t log_lines() const { return log_lines_.load(); }
    bool log_contains(const std::string& text, std::chrono::milliseconds timeout = 5s) const;

    Memory memory() const;
    // User + system CPU time in seconds, from /proc/PID/stat.
    double cpu_seconds() const;
    // Number of open file descriptors, from /proc/PID/fd.
    int open_files() const;
    // Sets RLIMIT_NOFILE of the running process (soft and hard) with prlimit(2).
    bool set_open_file_limit(long limit);

private:
    void read_log();

    pid_t pid_ = -1;
    int end_status_ = -1;
    unsigned short port_ = 0;
    int log_fd_ = -1;
    mutable std::mutex log_mutex_;
    std::string log_;
    std::atomic<std::size_t> log_bytes_{0};
    std::atomic<std::size_t> log_lines_{0};
    std::atomic<bool> stopping_{false};
    std::thread log_thread_;
};

struct ExitResult {
    int code = -1;       // exit status; -1 if killed by a signal or by the timeout
    bool timed_out = false;
    std::string output;  // standard output
    std::string errors;  // standard error
};

// Runs the simulator with `args` to its end; killed after `timeout`.
ExitResult run_to_end(const std::string& binary, const std::vector<std::string>& args,
                      std::chrono::milliseconds timeout = 10s, long open_file_limit = 0);

// VmRSS / VmHWM of any process, in KiB (-1 when unknown).
Memory memory_of(pid_t pid);

}  // namespace attack
