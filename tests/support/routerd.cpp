#include "support/routerd.h"

#include "support/child_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace simtest {

namespace {

using Clock = std::chrono::steady_clock;
using testhost::remaining_ms;

constexpr std::size_t kLogKept = 8 * 1024 * 1024;
// A report comes last: the tail kept holds one whole.
constexpr std::size_t kLogTailKept = 256 * 1024;

void print_and_abort(const std::string& report) {
    std::fputs(report.c_str(), stderr);
    std::abort();
}

SanitizerReportHandler report_handler = print_and_abort;

bool all_digits(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool starts_report(std::string_view line) {
    // "==1234==ERROR: AddressSanitizer: heap-use-after-free on address ..."
    if (line.rfind("==", 0) == 0) {
        const auto end = line.find("==", 2);
        if (end != std::string_view::npos && all_digits(line.substr(2, end - 2)) &&
            line.substr(end + 2).rfind("ERROR: ", 0) == 0)
            return true;
    }
    // "sim/session.cpp:120:7: runtime error: signed integer overflow: ..."
    const auto at = line.find(": runtime error: ");
    return at != std::string_view::npos && at > 0 && line.substr(0, at).find(' ') == std::string_view::npos;
}

void hand_over(pid_t pid, const std::string& errors) {
    const std::string report = sanitizer_report(errors);
    if (report.empty()) return;
    report_handler("leitch-routerd (pid " + std::to_string(pid) + ") wrote a sanitizer report:\n" + report);
}

std::string make_temp_dir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "routerd-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    return pattern;
}

struct Started {
    pid_t pid = -1;
    int out_fd = -1;
    int err_fd = -1;
};

// The simulator with standard output and standard error on pipes of ours.
Started spawn(const RouterdOptions& options, const std::vector<std::string>& args) {
    if (options.binary.empty()) throw std::runtime_error("no leitch-routerd to start: this build has no simulator");
    int err[2];
    if (pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    const testhost::Child child = testhost::spawn_child(options.binary, args, err[1], options.open_file_limit);
    close(err[1]);
    return Started{child.pid, child.out_fd, err[0]};
}

// The exit status, or 128 + the signal; a process still running at the
// deadline is killed and -1 returned.
int reap(pid_t pid, Clock::time_point deadline) {
    const int status = testhost::wait_for_exit(pid, deadline);
    if (status < 0) {
        kill(pid, SIGKILL);
        testhost::wait_for_exit(pid, Clock::now() + 10s);
    }
    return status;
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

std::size_t occurrences(const std::string& text, const std::string& what) {
    std::size_t count = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++count;
    return count;
}

std::string read_text(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string sanitizer_report(const std::string& errors) {
    for (std::size_t start = 0; start < errors.size();) {
        const std::size_t end = std::min(errors.find('\n', start), errors.size());
        if (starts_report(std::string_view(errors).substr(start, end - start))) return errors.substr(start);
        start = end + 1;
    }
    return {};
}

void on_sanitizer_report(SanitizerReportHandler handler) { report_handler = handler; }

std::string test_config(const std::string& name) { return read_text(LEITCH_TEST_CONFIG_DIR "/" + name); }

std::string built_routerd() {
#ifdef LEITCH_ROUTERD_PATH
    return LEITCH_ROUTERD_PATH;
#else
    return {};
#endif
}

TempFile::TempFile(const std::string& name, const std::string& text)
    : directory_(make_temp_dir()), path_(directory_ + "/" + name) {
    std::ofstream(path_) << text;
}

TempFile::~TempFile() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

Memory memory_of(pid_t pid) { return Memory{status_field(pid, "VmRSS:"), status_field(pid, "VmHWM:")}; }

Routerd::Routerd(const std::vector<std::string>& args) : Routerd(RouterdOptions{args}) {}

Routerd::Routerd(const RouterdOptions& options) : log_reader_(options.log_reader) {
    std::vector<std::string> args{"--listen", "127.0.0.1:0", "--http", "off"};
    args.insert(args.end(), options.args.begin(), options.args.end());
    const Started child = spawn(options, args);
    pid_ = child.pid;
    log_fd_ = child.err_fd;
    // log() takes what the pipe holds without waiting for the thread.
    fcntl(log_fd_, F_SETFL, fcntl(log_fd_, F_GETFL) | O_NONBLOCK);
    if (log_reader_ == LogReader::reads) log_thread_ = std::thread([this] { read_log(); });

    const std::string line = testhost::read_first_line(child.out_fd, Clock::now() + 30s);
    close(child.out_fd);
    const std::string prefix = "listening on 127.0.0.1:";
    if (line.rfind(prefix, 0) != 0) {
        throw std::runtime_error("leitch-routerd did not start: \"" + line + "\"\n" + abandon());
    }
    port_ = static_cast<unsigned short>(std::stoi(line.substr(prefix.size())));
    if (log_reader_ == LogReader::closes) {
        close(log_fd_);
        log_fd_ = -1;
    }
}

Routerd::~Routerd() {
    if (pid_ > 0) wait_for_end(Clock::now());
    stopping_ = true;
    if (log_thread_.joinable()) log_thread_.join();
    if (log_fd_ >= 0) close(log_fd_);
}

std::string Routerd::abandon() {
    wait_for_end(Clock::now());
    stopping_ = true;
    if (log_thread_.joinable()) log_thread_.join();
    close(log_fd_);
    log_fd_ = -1;
    return log_;
}

bool Routerd::take_log() const {
    std::lock_guard<std::mutex> hold(log_mutex_);
    if (log_ended_ || log_fd_ < 0) return false;
    char chunk[65536];
    for (;;) {
        const ssize_t n = read(log_fd_, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) return true;
        if (n <= 0) {
            log_ended_ = true;
            return false;
        }
        const auto size = static_cast<std::size_t>(n);
        log_lines_ += static_cast<std::size_t>(std::count(chunk, chunk + size, '\n'));
        log_bytes_ += size;
        if (log_.size() < kLogKept) log_.append(chunk, std::min(size, kLogKept - log_.size()));
        log_tail_.append(chunk, size);
        if (log_tail_.size() > 2 * kLogTailKept) log_tail_.erase(0, log_tail_.size() - kLogTailKept);
        // A short read has emptied the pipe: the caller is not held while
        // the simulator goes on writing.
        if (size < sizeof chunk) return true;
    }
}

void Routerd::read_log() {
    pollfd p{log_fd_, POLLIN, 0};
    while (!stopping_) {
        if (poll(&p, 1, 100) > 0 && !take_log()) return;
    }
}

bool Routerd::running() {
    if (pid_ <= 0) return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) != pid_) return true;
    end_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    const pid_t pid = pid_;
    pid_ = -1;
    ended(pid);
    return false;
}

int Routerd::stop(int signal, std::chrono::milliseconds timeout) {
    if (pid_ <= 0) return -1;
    kill(pid_, signal);
    const int code = wait_for_end(Clock::now() + timeout);
    end_status_ = code;
    return code >= 128 ? -1 : code;
}

int Routerd::wait_for_end(Clock::time_point deadline) {
    const pid_t pid = pid_;
    int code = -1;
    for (;;) {
        int status = 0;
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            break;
        }
        if (done < 0 || Clock::now() >= deadline) {
            kill(pid, SIGKILL);
            testhost::wait_for_exit(pid, Clock::now() + 10s);
            break;
        }
        take_log();
        std::this_thread::sleep_for(5ms);
    }
    pid_ = -1;
    ended(pid);
    return code;
}

void Routerd::ended(pid_t pid) {
    if (reported_) return;
    reported_ = true;
    // The log ends with the process (nothing else holds the pipe): a report is its last lines.
    const auto deadline = Clock::now() + 2s;
    pollfd p{log_fd_, POLLIN, 0};
    while (take_log() && Clock::now() < deadline) poll(&p, 1, remaining_ms(deadline));
    std::string text;
    {
        std::lock_guard<std::mutex> hold(log_mutex_);
        text = log_bytes_ > log_.size() ? log_tail_ : log_;
    }
    hand_over(pid, text);
}

std::string Routerd::log() const {
    if (log_reader_ == LogReader::reads) take_log();
    std::lock_guard<std::mutex> hold(log_mutex_);
    return log_;
}

bool Routerd::log_contains(const std::string& text, std::chrono::milliseconds timeout) const {
    return testhost::eventually([&] { return log().find(text) != std::string::npos; }, timeout);
}

Memory Routerd::memory() const { return pid_ > 0 ? memory_of(pid_) : Memory{}; }

double Routerd::cpu_seconds() const {
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

int Routerd::open_files() const {
    DIR* directory = opendir(("/proc/" + std::to_string(pid_) + "/fd").c_str());
    if (!directory) return -1;
    int count = 0;
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] != '.') ++count;
    }
    closedir(directory);
    return count;
}

bool Routerd::set_open_file_limit(long limit) {
    rlimit old{};
    if (prlimit(pid_, RLIMIT_NOFILE, nullptr, &old) != 0) return false;
    // Only the soft limit moves, so that it can be raised again afterwards.
    const rlimit wanted{static_cast<rlim_t>(limit), old.rlim_max};
    return prlimit(pid_, RLIMIT_NOFILE, &wanted, nullptr) == 0;
}

ExitResult run_routerd(const std::vector<std::string>& args, std::chrono::milliseconds timeout) {
    return run_routerd(RouterdOptions{args}, timeout);
}

ExitResult run_routerd(const RouterdOptions& options, std::chrono::milliseconds timeout) {
    const Started child = spawn(options, options.args);
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
    const int status = reap(child.pid, std::max(deadline, Clock::now() + 100ms));
    result.timed_out = status < 0;
    result.code = status >= 0 && status < 128 ? status : -1;
    hand_over(child.pid, result.errors);
    return result;
}

Client::Client(unsigned short port, int receive_buffer) {
    // A small receive buffer bounds the window the server can fill while this
    // client does not read.
    fd_ = testhost::connect_loopback(port, receive_buffer);
    if (fd_ < 0) throw std::runtime_error(std::string("connect failed: ") + std::strerror(errno));
}

Client::~Client() {
    if (fd_ >= 0) close(fd_);
}

void Client::send(const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) throw std::runtime_error(std::string("send failed: ") + std::strerror(errno));
        sent += static_cast<std::size_t>(n);
    }
}

bool Client::fill(Clock::time_point deadline) {
    if (eof_) return false;
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, remaining_ms(deadline)) <= 0) return false;
    char chunk[65536];
    const ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
    if (n <= 0) {
        eof_ = true;
        return false;
    }
    buffer_.append(chunk, static_cast<std::size_t>(n));
    return true;
}

std::string Client::read_until(const std::string& text, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        const auto at = buffer_.find(text);
        if (at != std::string::npos) {
            std::string out = buffer_.substr(0, at + text.size());
            buffer_.erase(0, at + text.size());
            return out;
        }
        if (!fill(deadline)) return {};
    }
}

std::string Client::read_count(const std::string& text, std::size_t count, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    std::string out;
    for (std::size_t i = 0; i < count; ++i) {
        // Each piece is searched from where the previous one ended.
        for (;;) {
            const auto at = buffer_.find(text);
            if (at != std::string::npos) {
                out += buffer_.substr(0, at + text.size());
                buffer_.erase(0, at + text.size());
                break;
            }
            if (!fill(deadline)) return out;
        }
    }
    return out;
}

std::string Client::read_for(std::chrono::milliseconds quiet) {
    while (fill(Clock::now() + quiet)) {
    }
    std::string out;
    out.swap(buffer_);
    return out;
}

std::string Client::read_once(std::chrono::milliseconds timeout) {
    if (buffer_.empty()) fill(Clock::now() + timeout);
    std::string out;
    out.swap(buffer_);
    return out;
}

bool Client::closed_by_server(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (fill(deadline)) buffer_.clear();
    return eof_;
}

}  // namespace simtest
