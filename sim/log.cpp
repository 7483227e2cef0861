#include "sim/log.h"

#include "host/c_escape.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace routerd {

namespace {

std::string time_stamp() { return local_time("%Y-%m-%d %H:%M:%S") + " "; }

// While a log captures standard error: the real one, and the read end of the
// pipe; -1 otherwise. One log captures at a time.
int real_standard_error = -1;
int captured_standard_error = -1;

// systemd names the journal's stream in JOURNAL_STREAM ("device:inode"); when
// standard error is still that stream, the journal stamps every line itself.
bool standard_error_is_the_journal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    if (!stream) return false;
    unsigned long long device = 0, inode = 0;
    if (std::sscanf(stream, "%llu:%llu", &device, &inode) != 2) return false;
    struct stat status {};
    if (::fstat(STDERR_FILENO, &status) != 0) return false;
    return static_cast<unsigned long long>(status.st_dev) == device &&
           static_cast<unsigned long long>(status.st_ino) == inode;
}

}  // namespace

Log::Log(bool verbose) : verbose_(verbose), time_stamped_(!standard_error_is_the_journal()) {}

bool Log::capture_standard_error() {
    int pipe_fds[2];
    if (::pipe2(pipe_fds, O_NONBLOCK | O_CLOEXEC) != 0) return false;
    const int real = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (real < 0 || ::dup2(pipe_fds[1], STDERR_FILENO) < 0) {
        if (real >= 0) ::close(real);
        ::close(pipe_fds[0]);
        ::close(pipe_fds[1]);
        return false;
    }
    ::close(pipe_fds[1]);
    fd_ = real;
    captured_fd_ = pipe_fds[0];
    real_standard_error = real;
    captured_standard_error = captured_fd_;
    return true;
}

Log::~Log() {
    if (captured_fd_ < 0) return;
    flush();
    // Whatever is written from now on goes to the real standard error again.
    real_standard_error = captured_standard_error = -1;
    ::dup2(fd_, STDERR_FILENO);
    ::close(captured_fd_);
    ::close(fd_);
}

void Log::info(std::string_view message) const {
    take_in_captured();
    append_line(message);
    flush();
}

void Log::append_line(std::string_view message) const {
    if (waiting_bytes() + message.size() > kMaxWaitingBytes) {
        ++dropped_lines_;
        return;
    }
    if (time_stamped_) waiting_ += time_stamp();
    waiting_.append(message.data(), message.size());
    waiting_ += '\n';
}

void Log::client_line(std::string_view message) const {
    if (client_lines_ >= kClientLinesPerSecond) {
        ++client_lines_skipped_;
        return;
    }
    ++client_lines_;
    info(message);
}

void Log::end_second() const {
    take_in_captured();
    if (client_lines_skipped_ > 0) {
        info(with_thousands(client_lines_skipped_) +
             " more lines about clients coming and going in the last second, not logged one by one");
    }
    client_lines_ = client_lines_skipped_ = 0;
    flush();
}

void Log::take_in_captured() const {
    if (captured_fd_ < 0) return;
    char chunk[4096];
    for (;;) {
        const ssize_t n = ::read(captured_fd_, chunk, sizeof chunk);
        if (n <= 0) return;  // EAGAIN: nothing more for now
        for (ssize_t i = 0; i < n; ++i) {
            if (chunk[i] != '\n') {
                if (captured_line_.size() < 4096) captured_line_ += chunk[i];
                continue;
            }
            if (client_lines_ < kClientLinesPerSecond) {
                ++client_lines_;
                append_line(captured_line_);
            } else {
                ++client_lines_skipped_;
            }
            captured_line_.clear();
        }
    }
}

void Log::flush() const {
    take_in_captured();
    while (written_ < waiting_.size()) {
        // A pipe or terminal that says it is writable takes at least PIPE_BUF
        // bytes without blocking; a file always does.
        pollfd ready{fd_, POLLOUT, 0};
        if (::poll(&ready, 1, 0) != 1 || !(ready.revents & POLLOUT)) {
            if (ready.revents & (POLLERR | POLLHUP | POLLNVAL)) forget_waiting();  // nobody will read them
            return;
        }
        const std::size_t chunk = std::min<std::size_t>(waiting_.size() - written_, PIPE_BUF);
        const ssize_t written = ::write(fd_, waiting_.data() + written_, chunk);
        if (written < 0) {
            if (errno == EINTR || errno == EAGAIN) return;
            forget_waiting();  // EPIPE, EBADF, ENOSPC...: these lines are lost
            return;
        }
        written_ += static_cast<std::size_t>(written);
        if (written_ < waiting_.size()) continue;
        forget_waiting();
        if (dropped_lines_ > 0) {
            const std::size_t dropped = dropped_lines_;
            dropped_lines_ = 0;
            info(with_thousands(dropped) + " log line(s) dropped: standard error was not being read");
        }
    }
}

void Log::forget_waiting() const {
    written_ = 0;
    if (waiting_.capacity() > 64 * 1024) {
        std::string().swap(waiting_);
    } else {
        waiting_.clear();
    }
}

void RefusalLog::end_second() {
    for (const auto& [key, count] : counts_) {
        if (count == 0) continue;
        const auto& [client, kind, reason] = key;
        log_.info(client_name(client) + ": " + with_thousands(count) + " more " + kind +
                  " refused (" + reason + ") in the last second");
    }
    counts_.clear();
}

void give_back_standard_error() {
    if (real_standard_error < 0) return;
    // What the plug-in wrote last, not read yet, came before: it goes first, as it was written.
    char chunk[4096];
    ssize_t n;
    while ((n = ::read(captured_standard_error, chunk, sizeof chunk)) > 0) {
        for (ssize_t done = 0, written; done < n; done += written) {
            written = ::write(real_standard_error, chunk + done, static_cast<std::size_t>(n - done));
            if (written <= 0) break;
        }
    }
    ::dup2(real_standard_error, STDERR_FILENO);
}

std::string client_name(int client) { return client == 0 ? "web" : "client " + std::to_string(client); }

std::string local_time(const char* format) {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    const std::size_t length = std::strftime(text, sizeof text, format, &local);
    std::snprintf(text + length, sizeof text - length, ".%03lld", static_cast<long long>(millis));
    return text;
}

std::string escape(std::string_view bytes) { return plugin_host::c_escape(bytes); }

std::string with_thousands(std::size_t number) {
    std::string digits = std::to_string(number);
    for (std::size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, 1, ',');
    return digits;
}

}  // namespace routerd
