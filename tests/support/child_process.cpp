#include "support/child_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <thread>

namespace testhost {

int remaining_ms(SteadyClock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

Child spawn_child(const std::string& binary, const std::vector<std::string>& args, int err_fd,
                  long open_file_limit) {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    std::vector<std::string> argv_text{binary};
    argv_text.insert(argv_text.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : argv_text) argv.push_back(a.data());
    argv.push_back(nullptr);

    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        if (err_fd >= 0) dup2(err_fd, STDERR_FILENO);
        const int null = open("/dev/null", O_RDONLY);
        if (null >= 0) dup2(null, STDIN_FILENO);
        if (open_file_limit > 0) {
            const rlimit limit{static_cast<rlim_t>(open_file_limit), static_cast<rlim_t>(open_file_limit)};
            setrlimit(RLIMIT_NOFILE, &limit);
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    return Child{pid, out[0]};
}

int wait_for_exit(pid_t pid, SteadyClock::time_point deadline) {
    int status = 0;
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (done < 0 || SteadyClock::now() >= deadline) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

std::string read_first_line(int fd, SteadyClock::time_point deadline) {
    std::string text;
    pollfd p{fd, POLLIN, 0};
    while (text.find('\n') == std::string::npos && poll(&p, 1, remaining_ms(deadline)) > 0) {
        char chunk[256];
        const ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0) break;
        text.append(chunk, static_cast<std::size_t>(n));
    }
    return text.substr(0, text.find('\n'));
}

int connect_loopback(unsigned short port, int receive_buffer, bool non_blocking) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | (non_blocking ? SOCK_NONBLOCK : 0), 0);
    if (fd < 0) return -1;
    if (receive_buffer > 0) setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
    if (non_blocking && errno == EINPROGRESS) return fd;
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

}  // namespace testhost
