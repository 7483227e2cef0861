#pragma once

// Programs started by the tests and benchmarks: the simulator, mostly.

#include <sys/types.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace testhost {

using SteadyClock = std::chrono::steady_clock;

// Milliseconds left until `deadline`, never negative: a poll() timeout.
int remaining_ms(SteadyClock::time_point deadline);

// Whether `holds()` becomes true within `timeout`, asked every 10 ms (at least once).
template <typename Holds>
bool eventually(const Holds& holds, std::chrono::milliseconds timeout) {
    const auto deadline = SteadyClock::now() + timeout;
    for (;;) {
        if (holds()) return true;
        if (SteadyClock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

struct Child {
    pid_t pid = -1;
    int out_fd = -1;  // the read end of the child's standard output
};

// fork + exec of `binary` with `args`: standard output on a pipe of ours,
// standard error on `err_fd` (which the caller still owns and closes),
// standard input on /dev/null. An open-file limit above 0 is set in the child,
// soft and hard, so that the program cannot raise it again.
Child spawn_child(const std::string& binary, const std::vector<std::string>& args, int err_fd,
                  long open_file_limit = 0);

// The exit status, 128 + the signal if killed, -1 if still running at the deadline.
int wait_for_exit(pid_t pid, SteadyClock::time_point deadline);

// The first line of `fd` (without its line end), or what came before the
// deadline or the end.
std::string read_first_line(int fd, SteadyClock::time_point deadline);

// A TCP socket to 127.0.0.1:`port` with TCP_NODELAY: connected, or with
// `non_blocking` possibly still connecting (errno EINPROGRESS). A receive
// buffer above 0 is set before connecting, where it bounds the window. -1 and
// errno when it fails.
int connect_loopback(unsigned short port, int receive_buffer = 0, bool non_blocking = false);

}  // namespace testhost
