#include "server_process.h"

#include "support/child_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace attack {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kLogKept = 8 * 1024 * 1024;

using testhost::remaining_ms;

struct Child {
    pid_t pid = -1;
    int out_fd = -1;
    int err_fd = -1;
};

// Standard output and standard error on pipes of ours.
Child spawn(const std::string& binary, const std::vector<std::string>& args, long open_file_limit) {
    int err[2];
    if (pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    const testhost::Child child = testhost::spawn_child(binary, args, err[1], open_file_limit);
    close(err[1]);
    return Child{child.pid, child.out_fd, err[0]};
}

int wait_for(pid_t pid, Clock::time_point deadline) { return testhost::wait_for_exit(pid, deadline); }

std::string read_all(int fd, Clock::time_point deadline) {
    std::string text;
    char chunk[4096];
    pollfd p{fd, POLLIN, 0};
    while (poll(&p, 1, remaining_ms(deadline)) > 0) {
        const ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0) break;
        text.append(chunk, static_cast<std::size_t>(n));
    }
    return text;
}

long status_field(pid_t pid, const char* name) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    const std::size_t length = std::strlen(name);
    while (std::getline(status, line)) {
        if (line.compare(0, length, name) == 0) return std::atol(line.c_str() + length);
    }
    return -1;
}

}  // namespace

Memory memory_of(pid_t pid) {
    return Memory{status_field(pid, "VmRSS:"), status_field(pid, "VmHWM:")};
}

Server::Server(ServerOptions options) {
    // The web view only where a test asks for it (a later --http wins): tests
    // running side by side must not compete for its default port.
    std::vector<std::string> args{"--listen", "127.0.0.1:0", "--http", "off"};
    args.insert(args.end(), options.args.begin(), options.args.end());
    const Child child = spawn(options.binary, args, options.open_file_limit);
    pid_ = child.pid;
    log_fd_ = child.err_fd;
    if (options.log_reader == LogReader::reads) log_thread_ = std::thread([this] { read_log(); });

    const std::string line = testhost::read_first_line(child.out_fd, Clock::now() + 30s);
    close(child.out_fd);
    const std::string prefix = "listening on 127.0.0.1:";
    if (line.rfind(prefix, 0) != 0) {
        kill(pid_, SIGKILL);
        wait_for(pid_, Clock::now() + 10s);
        pid_ = -1;
        stopping_ = true;
        std::string errors;
        if (log_thread_.joinable()) {
            log_thread_.join();
            errors = log();
        } else {
            errors = read_all(log_fd_, Clock::now() + 1s);
        }
        close(log_fd_);
        throw std::runtime_error("leitch-routerd did not start: \"" + line + "\"\n" + errors);
    }
    port_ = static_cast<unsigned short>(std::stoi(line.substr(prefix.size())));
    if (options.log_reader == LogReader::closes) {
        close(log_fd_);
        log_fd_ = -1;
    }
}

Server::~Server() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        wait_for(pid_, Clock::now() + 10s);
    }
    stopping_ = true;
    if (log_thread_.joinable()) log_thread_.join();
    if (log_fd_ >= 0) close(log_fd_);
}

void Server::read_log() {
    char chunk[65536];
    pollfd p{log_fd_, POLLIN, 0};
    while (!stopping_) {
        if (poll(&p, 1, 100) <= 0) continue;
        const ssize_t n = read(log_fd_, chunk, sizeof chunk);
        if (n <= 0) return;
        const auto size = static_cast<std::size_t>(n);
        std::size_t lines = 0;
        for (std::size_t i = 0; i < size; ++i) lines += chunk[i] == '\n';
        log_lines_ += lines;
        log_bytes_ += size;
        std::lock_guard<std::mutex> hold(log_mutex_);
        if (log_.size() < kLogKept) log_.append(chunk, std::min(size, kLogKept - log_.size()));
    }
}

bool Server::running() {
    if (pid_ <= 0) return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) != pid_) return true;
    end_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    pid_ = -1;
    return false;
}

int Server::stop(int signal, std::chrono::milliseconds timeout) {
    if (pid_ <= 0) return -1;
    kill(pid_, signal);
    int code = wait_for(pid_, Clock::now() + timeout);
    if (code < 0) {
        kill(pid_, SIGKILL);
        wait_for(pid_, Clock::now() + 10s);
    }
    end_status_ = code;
    pid_ = -1;
    return code >= 128 ? -1 : code;
}

std::string Server::log() const {
    std::lock_guard<std::mutex> hold(log_mutex_);
    return log_;
}

bool Server::log_contains(const std::string& text, std::chrono::milliseconds timeout) const {
    return testhost::eventually([&] { return log().find(text) != std::string::npos; }, timeout);
}

Memory Server::memory() const { return pid_ > 0 ? memory_of(pid_) : Memory{}; }

double Server::cpu_seconds() const {
    std::ifstream stat("/proc/" + std::to_string(pid_) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    // The command name in parentheses may hold blanks: count fields after it.
    const auto close = text.rfind(')');
    if (close == std::string::npos) return -1;
    const char* at = text.c_str() + close + 2;
    unsigned long long utime = 0, stime = 0;
    // Fields 3 to 13 come first; utime and stime are fields 14 and 15.
    if (std::sscanf(at, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &utime, &stime) != 2) return -1;
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

int Server::open_files() const {
    DIR* directory = opendir(("/proc/" + std::to_string(pid_) + "/fd").c_str());
    if (!directory) return -1;
    int count = 0;
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] != '.') ++count;
    }
    closedir(directory);
    return count;
}

bool Server::set_open_file_limit(long limit) {
    rlimit old{};
    if (prlimit(pid_, RLIMIT_NOFILE, nullptr, &old) != 0) return false;
    // Only the soft limit moves, so that it can be raised again afterwards.
    const rlimit wanted{static_cast<rlim_t>(limit), old.rlim_max};
    return prlimit(pid_, RLIMIT_NOFILE, &wanted, nullptr) == 0;
}

ExitResult run_to_end(const std::string& binary, const std::vector<std::string>& args,
                      std::chrono::milliseconds timeout, long open_file_limit) {
    const Child child = spawn(binary, args, open_file_limit);
    const auto deadline = Clock::now() + timeout;
    ExitResult result;
    // Both pipes are read together so that neither can fill and block the child.
    char chunk[4096];
    pollfd fds[2] = {{child.out_fd, POLLIN, 0}, {child.err_fd, POLLIN, 0}};
    int open_pipes = 2;
    while (open_pipes > 0 && poll(fds, 2, remaining_ms(deadline)) > 0) {
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            const ssize_t n = read(fds[i].fd, chunk, sizeof chunk);
            if (n <= 0) {
                fds[i].fd = -1;
                --open_pipes;
                continue;
            }
            (i == 0 ? result.output : result.errors).append(chunk, static_cast<std::size_t>(n));
        }
    }
    close(child.out_fd);
    close(child.err_fd);
    const int status = wait_for(child.pid, std::max(deadline, Clock::now() + 100ms));
    if (status < 0) {
        result.timed_out = true;
        kill(child.pid, SIGKILL);
        wait_for(child.pid, Clock::now() + 10s);
    }
    result.code = status >= 0 && status < 128 ? status : -1;
    return result;
}

}  // namespace attack
