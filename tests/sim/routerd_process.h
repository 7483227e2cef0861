#pragma once

// Starts leitch-routerd as a child process on a free port and talks to it
// over loopback sockets, as a real client would.

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace simtest {

using namespace std::chrono_literals;

// A TOML file in a fresh temporary directory, removed with the object.
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

struct ExitResult {
    int code = -1;        // exit status, or -1 if killed by a signal
    std::string output;   // standard output
    std::string errors;   // standard error
};

// Runs leitch-routerd with `args` to its end (it is killed after `timeout`).
ExitResult run_routerd(const std::vector<std::string>& args, std::chrono::milliseconds timeout = 10s);

// A running simulator; killed if still running when the object goes.
class Routerd {
public:
    // Starts with "--listen 127.0.0.1:0" and `args`; waits for "listening on".
    explicit Routerd(const std::vector<std::string>& args = {});
    ~Routerd();
    Routerd(const Routerd&) = delete;
    Routerd& operator=(const Routerd&) = delete;

    unsigned short port() const { return port_; }
    pid_t pid() const { return pid_; }

    // Sends `signal` and waits for the exit; returns the exit status (-1: killed).
    int stop(int signal, std::chrono::milliseconds timeout = 10s);
    // The log written so far.
    std::string log() const;
    // Waits until the log holds `text`.
    bool log_contains(const std::string& text, std::chrono::milliseconds timeout = 5s) const;
    // Resident memory in KiB, from /proc.
    long resident_kib() const;

private:
    pid_t pid_ = -1;
    unsigned short port_ = 0;
    std::string log_path_;
};

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

std::size_t occurrences(const std::string& text, const std::string& what);

// The text of tests/sim/configs/<name>.
std::string test_config(const std::string& name);

}  // namespace simtest
