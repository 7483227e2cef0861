#pragma once

// Leitch clients for attacking leitch-routerd and for watching it under
// attack, each on a thread of its own (the simulator has one thread; ours
// must never be what slows it down). Every socket is non-blocking and every
// wait is bounded, so a frozen simulator cannot hang the caller.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace attack {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// The shape of the router under attack, as Leitch clients see it.
struct Router {
    std::string name;
    int levels = 2;
    int destinations = 32;
    int sources = 32;
};

// Opens a TCP connection to 127.0.0.1:port with TCP_NODELAY; non-blocking
// once connected. `receive_buffer` > 0 sets SO_RCVBUF before connecting.
// Returns -1 if the connection cannot be made within `timeout`.
int connect_to(unsigned short port, int receive_buffer = 0, std::chrono::milliseconds timeout = 5s);

// Sends all of `bytes` within `timeout`; false if the socket fails or stays full.
bool send_all(int fd, const std::string& bytes, std::chrono::milliseconds timeout = 5s);

struct Latency {
    std::size_t takes = 0;      // takes sent
    std::size_t answered = 0;   // takes whose report arrived
    std::size_t lost = 0;       // takes still unanswered at the end
    double p50_ms = 0;
    double p99_ms = 0;
    double max_ms = 0;          // unanswered takes count from sending to the end
};

// A client in report mode that takes a crosspoint every `period` on a
// destination nobody else touches (the last destination of the last level)
// and measures the time from sending "@ X:" to receiving its own "S:" report.
// It takes distinct sources in turn, so its report is told apart from the
// reports of other clients' takes, which it reads (and skips) as well.
class Observer {
public:
    Observer(unsigned short port, const Router& router, std::chrono::milliseconds period = 10ms);
    ~Observer();
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;

    // Connects, turns report mode on and starts taking. False if the simulator
    // did not answer "@ ?" within `timeout`.
    bool start(std::chrono::milliseconds timeout = 10s);
    // Stops taking, waits up to `grace` for the reports still due, then stops.
    void stop(std::chrono::milliseconds grace = 2s);

    Latency latency() const;
    bool disconnected() const { return disconnected_.load(); }
    std::size_t bytes_received() const { return bytes_.load(); }

private:
    struct Pending {
        int source;
        Clock::time_point sent;
    };
    void run();
    void send_take();
    void match_reports(Clock::time_point now);
    void answer_through(std::size_t index, Clock::time_point now);

    unsigned short port_;
    Router router_;
    std::chrono::milliseconds period_;
    std::string report_prefix_;  // "\r\nS:" level destination ","
    int fd_ = -1;
    int next_source_ = 1;
    std::string buffer_;
    std::vector<Pending> pending_;
    mutable std::mutex mutex_;
    std::vector<double> samples_ms_;
    std::size_t takes_ = 0;
    std::size_t lost_ = 0;
    std::atomic<bool> taking_{false};
    std::atomic<bool> stop_{false};
    std::atomic<bool> disconnected_{false};
    std::atomic<std::size_t> bytes_{0};
    std::thread thread_;
};

// A client in report mode that reads everything it is sent, as fast as it can.
class Reader {
public:
    explicit Reader(unsigned short port);
    ~Reader();
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    bool start(std::chrono::milliseconds timeout = 10s);
    void stop();
    bool disconnected() const { return disconnected_.load(); }
    std::size_t bytes_received() const { return bytes_.load(); }

private:
    void run();
    unsigned short port_;
    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<bool> disconnected_{false};
    std::atomic<std::size_t> bytes_{0};
    std::thread thread_;
};

// What each hostile client of a crowd does.
struct Behaviour {
    std::string greeting;              // sent first on every connection
    std::vector<std::string> packets;  // then these, in turn, each in one send()
    bool repeat = true;                // the packets again and again; else once
    bool reads = true;                 // drains its socket; else never reads
    bool churn = false;                // closes (RST) as soon as the greeting is out
    int receive_buffer = 0;            // SO_RCVBUF, 0: the system's
};

// `count` hostile clients that behave alike, all served by one thread with
// poll(). A client the simulator closes connects again.
class Crowd {
public:
    Crowd(unsigned short port, int count, Behaviour behaviour);
    ~Crowd();
    Crowd(const Crowd&) = delete;
    Crowd& operator=(const Crowd&) = delete;

    void start();
    // Stops and closes every connection.
    void stop();

    std::size_t connections() const { return connections_.load(); }
    std::size_t closed_by_server() const { return closed_by_server_.load(); }
    std::size_t bytes_sent() const { return sent_.load(); }
    std::size_t bytes_received() const { return received_.load(); }

private:
    struct Slot {
        int fd = -1;
        bool connecting = false;
        bool greeted = false;
        bool done = false;           // every packet sent (repeat off)
        std::size_t next_packet = 0;
        std::string out;             // what is being sent
        std::size_t offset = 0;
        Clock::time_point retry_at{};
    };
    void run();
    void open(Slot& slot);
    void close_slot(Slot& slot, bool by_server);
    void on_writable(Slot& slot);
    void on_readable(Slot& slot);

    unsigned short port_;
    Behaviour behaviour_;
    std::vector<Slot> slots_;
    std::atomic<bool> stop_{false};
    std::atomic<std::size_t> connections_{0};
    std::atomic<std::size_t> closed_by_server_{0};
    std::atomic<std::size_t> sent_{0};
    std::atomic<std::size_t> received_{0};
    std::thread thread_;
};

}  // namespace attack
