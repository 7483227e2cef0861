#include "routerd_process.h"

#include "support/child_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace simtest {

namespace {

using Clock = std::chrono::steady_clock;
using testhost::remaining_ms;

std::string make_temp_dir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "routerd-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    return pattern;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The simulator with standard output on a pipe and standard error in a file.
testhost::Child spawn(const std::vector<std::string>& args, const std::string& stderr_path) {
    const int err = open(stderr_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (err < 0) throw std::runtime_error("cannot create " + stderr_path);
    const testhost::Child child = testhost::spawn_child(LEITCH_ROUTERD_PATH, args, err);
    close(err);
    return child;
}

// The exit status, or -1 when killed by a signal or still running after
// `timeout` (then it is killed).
int wait_exit(pid_t pid, std::chrono::milliseconds timeout) {
    const int code = testhost::wait_for_exit(pid, Clock::now() + timeout);
    if (code < 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    return code >= 128 ? -1 : code;
}

}  // namespace

std::size_t occurrences(const std::string& text, const std::string& what) {
    std::size_t count = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++count;
    return count;
}

std::string test_config(const std::string& name) { return read_file(LEITCH_SIM_TEST_DIR "/configs/" + name); }

TempFile::TempFile(const std::string& name, const std::string& text)
    : directory_(make_temp_dir()), path_(directory_ + "/" + name) {
    std::ofstream(path_) << text;
}

TempFile::~TempFile() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

ExitResult run_routerd(const std::vector<std::string>& args, std::chrono::milliseconds timeout) {
    const std::string directory = make_temp_dir();
    const std::string errors = directory + "/stderr";
    const testhost::Child child = spawn(args, errors);
    const pid_t pid = child.pid;
    const int out_fd = child.out_fd;
    ExitResult result;
    char chunk[4096];
    const auto deadline = Clock::now() + timeout;
    pollfd p{out_fd, POLLIN, 0};
    while (poll(&p, 1, remaining_ms(deadline)) > 0) {
        const ssize_t n = read(out_fd, chunk, sizeof chunk);
        if (n <= 0) break;
        result.output.append(chunk, static_cast<std::size_t>(n));
    }
    close(out_fd);
    result.code = wait_exit(pid, std::max<std::chrono::milliseconds>(
                                     std::chrono::milliseconds(remaining_ms(deadline)), 100ms));
    result.errors = read_file(errors);
    std::filesystem::remove_all(directory);
    return result;
}

Routerd::Routerd(const std::vector<std::string>& args) {
    log_path_ = make_temp_dir() + "/stderr";
    // The web view only where a test asks for it (a later --http wins): tests
    // running side by side must not compete for its default port.
    std::vector<std::string> all{"--listen", "127.0.0.1:0", "--http", "off"};
    all.insert(all.end(), args.begin(), args.end());
    const testhost::Child child = spawn(all, log_path_);
    pid_ = child.pid;
    const std::string line = testhost::read_first_line(child.out_fd, Clock::now() + 20s);
    close(child.out_fd);
    const std::string prefix = "listening on 127.0.0.1:";
    if (line.rfind(prefix, 0) != 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
        throw std::runtime_error("leitch-routerd did not start: \"" + line + "\"\n" + read_file(log_path_));
    }
    port_ = static_cast<unsigned short>(std::stoi(line.substr(prefix.size())));
}

Routerd::~Routerd() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    std::error_code ignored;
    std::filesystem::remove_all(std::filesystem::path(log_path_).parent_path(), ignored);
}

int Routerd::stop(int signal, std::chrono::milliseconds timeout) {
    kill(pid_, signal);
    const int code = wait_exit(pid_, timeout);
    pid_ = -1;
    return code;
}

std::string Routerd::log() const { return read_file(log_path_); }

bool Routerd::log_contains(const std::string& text, std::chrono::milliseconds timeout) const {
    return testhost::eventually([&] { return log().find(text) != std::string::npos; }, timeout);
}

long Routerd::resident_kib() const {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    }
    return -1;
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
