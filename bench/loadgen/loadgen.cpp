// leitch-loadgen: N Leitch clients over loopback against leitch-routerd (or
// the calibration responder), all in report mode. Prints one markdown table row:
//   sequential takes/s  - client 0 sends "@ X:", then waits for the "S:" report at every client
//   pipelined takes/s   - client 0 keeps 32 takes outstanding (--window)
//   fan-out latency     - from sending "@ X:" to the "S:" report at each client (sequential phase)
//   CPU per take        - the server's user + system time over both phases, from /proc/PID/stat
//   full "@ S?0"        - from starting to connect to the prompt after a whole level's status
//
//   leitch-loadgen --port P --pid PID --clients N [--destinations D] [--takes K] [--window W] [--label TEXT]

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/child_process.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    unsigned short port = 0;
    long pid = 0;
    int clients = 1;
    int destinations = 32;
    int takes = 5000;
    int window = 32;
    std::string label = "leitch-routerd";
};

int connect_to(unsigned short port) {
    const int fd = testhost::connect_loopback(port);
    if (fd < 0) throw std::runtime_error(std::string("connect: ") + std::strerror(errno));
    return fd;
}

void send_all(int fd, const std::string& text) {
    std::size_t sent = 0;
    while (sent < text.size()) {
        const ssize_t n = ::send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) throw std::runtime_error("send failed");
        sent += static_cast<std::size_t>(n);
    }
}

// Counts "S:" reports and prompts in a client's stream, across chunk boundaries.
struct Stream {
    int fd = -1;
    long reports = 0;
    long prompts = 0;
    char last = 0;
    std::vector<Clock::time_point> report_times;  // sequential phase only

    void take_in(const char* data, std::size_t n, bool keep_times) {
        for (std::size_t i = 0; i < n; ++i) {
            if (last == 'S' && data[i] == ':') {
                ++reports;
                if (keep_times) report_times.push_back(Clock::now());
            }
            if (last == '\n' && data[i] == '>') ++prompts;
            last = data[i];
        }
    }
};

// Reads whatever is ready on any client, waiting up to `timeout_ms` for the first.
void pump(std::vector<Stream>& streams, int timeout_ms, bool keep_times) {
    std::vector<pollfd> fds;
    for (const Stream& s : streams) fds.push_back({s.fd, POLLIN, 0});
    if (poll(fds.data(), fds.size(), timeout_ms) <= 0) return;
    char chunk[65536];
    for (std::size_t i = 0; i < fds.size(); ++i) {
        if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        const ssize_t n = recv(fds[i].fd, chunk, sizeof chunk, 0);
        if (n <= 0) throw std::runtime_error("server closed a client");
        streams[i].take_in(chunk, static_cast<std::size_t>(n), keep_times);
    }
}

double cpu_seconds(long pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const auto close = text.rfind(')');
    if (close == std::string::npos) return 0;
    // Fields after the command name: state is field 3; utime and stime are 14 and 15.
    std::vector<std::string> fields;
    std::size_t at = close + 2;
    while (at < text.size()) {
        const auto space = text.find(' ', at);
        fields.push_back(text.substr(at, space - at));
        if (space == std::string::npos) break;
        at = space + 1;
    }
    const double ticks = std::stod(fields.at(11)) + std::stod(fields.at(12));
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::string take_text(long k, int destinations) {
    char text[48];
    std::snprintf(text, sizeof text, "@ X:0/%lX,%lX\r", k % destinations, 1 + (k / destinations) % 2);
    return text;
}

double micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

double percentile(std::vector<double> values, double p) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(index, values.size() - 1)];
}

// Connect, ask for the whole level 0, wait for the prompt; the median of five.
double full_status_ms(unsigned short port) {
    std::vector<double> times;
    for (int i = 0; i < 5; ++i) {
        const auto start = Clock::now();
        std::vector<Stream> one(1);
        one[0].fd = connect_to(port);
        send_all(one[0].fd, "@ S?0\r");
        while (one[0].prompts < 1) pump(one, 10000, false);
        times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        close(one[0].fd);
        usleep(20000);  // let the server see the close before the next connection
    }
    return percentile(times, 0.5);
}

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        const char* value = argv[i + 1];
        if (name == "--port") o.port = static_cast<unsigned short>(std::atoi(value));
        else if (name == "--pid") o.pid = std::atol(value);
        else if (name == "--clients") o.clients = std::atoi(value);
        else if (name == "--destinations") o.destinations = std::atoi(value);
        else if (name == "--takes") o.takes = std::atoi(value);
        else if (name == "--window") o.window = std::max(1, std::atoi(value));
        else if (name == "--label") o.label = value;
        else throw std::runtime_error("unknown option " + name);
    }
    if (!o.port || !o.pid) throw std::runtime_error("--port and --pid are needed");
    return o;
}

}  // namespace

int main(int argc, char** argv) try {
    const Options o = parse(argc, argv);
    const double status_ms = full_status_ms(o.port);

    std::vector<Stream> streams(static_cast<std::size_t>(o.clients));
    for (Stream& s : streams) {
        s.fd = connect_to(o.port);
        send_all(s.fd, "@ ?\r");
    }
    for (Stream& s : streams) {
        std::vector<Stream> one{s};
        while (one[0].prompts < 1) pump(one, 10000, false);
        s = one[0];
    }
    const double cpu_before = cpu_seconds(o.pid);

    // Sequential: one take at a time, complete when every client has its report.
    Stream& sender = streams.front();
    std::vector<double> fanout;
    fanout.reserve(static_cast<std::size_t>(o.takes) * streams.size());
    const auto sequential_start = Clock::now();
    for (long k = 0; k < o.takes; ++k) {
        for (Stream& s : streams) s.report_times.clear();
        const auto sent = Clock::now();
        send_all(sender.fd, take_text(k, o.destinations));
        const long target = k + 1;
        while (std::any_of(streams.begin(), streams.end(), [&](const Stream& s) { return s.reports < target; }))
            pump(streams, 10000, true);
        for (const Stream& s : streams)
            for (const auto& t : s.report_times) fanout.push_back(micros(t - sent));
    }
    const double sequential_s = std::chrono::duration<double>(Clock::now() - sequential_start).count();

    // Pipelined: keep `window` takes outstanding from client 0.
    const long pipelined = o.takes * 4L;
    const long base = sender.reports;
    long issued = 0;
    const auto pipelined_start = Clock::now();
    while (sender.reports - base < pipelined) {
        std::string batch;
        while (issued < pipelined && issued - (sender.reports - base) < o.window) batch += take_text(issued++, o.destinations);
        if (!batch.empty()) send_all(sender.fd, batch);
        pump(streams, 10000, false);
    }
    const double pipelined_s = std::chrono::duration<double>(Clock::now() - pipelined_start).count();
    // Every client must have had every report before the CPU is read.
    const long total = base + pipelined;
    while (std::any_of(streams.begin(), streams.end(), [&](const Stream& s) { return s.reports < total; }))
        pump(streams, 10000, false);
    const double cpu = cpu_seconds(o.pid) - cpu_before;

    std::printf("| %s | %d | %.0f | %.0f | %.0f | %.0f | %.0f | %.1f | %.2f |\n", o.label.c_str(), o.clients,
                o.takes / sequential_s, pipelined / pipelined_s, percentile(fanout, 0.5), percentile(fanout, 0.99),
                percentile(fanout, 1.0), cpu * 1e6 / static_cast<double>(o.takes + pipelined), status_ms);
    for (const Stream& s : streams) close(s.fd);
    return 0;
} catch (const std::exception& e) {
    std::fprintf(stderr, "leitch-loadgen: %s\n", e.what());
    return 1;
}
