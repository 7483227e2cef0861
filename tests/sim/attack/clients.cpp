#include "clients.h"

#include "support/child_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace attack {

namespace {

// Fewer takes outstanding than sources in the observer's cycle, so that a
// report's source names exactly one outstanding take.
constexpr std::size_t kMaxOutstanding = 24;
constexpr int kSourceCycle = 31;

int remaining_ms(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

double ms_between(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

std::string hex(int value) {
    char text[16];
    std::snprintf(text, sizeof text, "%X", value);
    return text;
}

// Reads what is there; false when the connection is closed or failed.
bool drain(int fd, std::string* keep, std::atomic<std::size_t>& counter) {
    char chunk[65536];
    for (;;) {
        const ssize_t n = recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
        if (n > 0) {
            counter += static_cast<std::size_t>(n);
            if (keep) keep->append(chunk, static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
        if (n < 0 && errno == EINTR) continue;
        return false;
    }
}

// Waits for `text` on `fd`, keeping what follows it in `rest`.
bool wait_for_text(int fd, const std::string& text, std::chrono::milliseconds timeout, std::string& rest) {
    const auto deadline = Clock::now() + timeout;
    std::string received;
    std::atomic<std::size_t> ignored{0};
    for (;;) {
        const auto at = received.find(text);
        if (at != std::string::npos) {
            rest = received.substr(at + text.size());
            return true;
        }
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, remaining_ms(deadline)) <= 0) return false;
        if (!drain(fd, &received, ignored)) return false;
    }
}

void set_abortive_close(int fd) {
    const linger abort_on_close{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort_on_close, sizeof abort_on_close);
}

int start_connect(unsigned short port, int receive_buffer, bool& in_progress) {
    errno = 0;
    const int fd = testhost::connect_loopback(port, receive_buffer, true);
    in_progress = fd >= 0 && errno == EINPROGRESS;
    return fd;
}

}  // namespace

int connect_to(unsigned short port, int receive_buffer, std::chrono::milliseconds timeout) {
    bool in_progress = false;
    const int fd = start_connect(port, receive_buffer, in_progress);
    if (fd < 0 || !in_progress) return fd;
    pollfd p{fd, POLLOUT, 0};
    int error = 0;
    socklen_t length = sizeof error;
    if (poll(&p, 1, static_cast<int>(timeout.count())) != 1 ||
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool send_all(int fd, const std::string& bytes, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            sent += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return false;
        pollfd p{fd, POLLOUT, 0};
        if (poll(&p, 1, remaining_ms(deadline)) <= 0) return false;
    }
    return true;
}

// ---------------------------------------------------------------- Observer

Observer::Observer(unsigned short port, const Router& router, std::chrono::milliseconds period)
    : port_(port), router_(router), period_(period) {
    const int level = router_.levels - 1;
    const int destination = router_.destinations - 1;
    report_prefix_ = "\r\nS:" + hex(level) + hex(destination) + ",";
}

Observer::~Observer() {
    stop(0ms);
    if (fd_ >= 0) close(fd_);
}

bool Observer::start(std::chrono::milliseconds timeout) {
    fd_ = connect_to(port_, 0, timeout);
    if (fd_ < 0) return false;
    if (!send_all(fd_, "@ ?\r", timeout)) return false;
    if (!wait_for_text(fd_, "@ ?\r\n>", timeout, buffer_)) return false;
    taking_ = true;
    thread_ = std::thread([this] { run(); });
    return true;
}

void Observer::stop(std::chrono::milliseconds grace) {
    if (!thread_.joinable()) return;
    taking_ = false;
    const auto deadline = Clock::now() + grace;
    while (Clock::now() < deadline && !disconnected_) {
        {
            std::lock_guard<std::mutex> hold(mutex_);
            if (pending_.empty()) break;
        }
        std::this_thread::sleep_for(5ms);
    }
    stop_ = true;
    thread_.join();
    // Whatever is still unanswered counts from its sending to now.
    const auto now = Clock::now();
    std::lock_guard<std::mutex> hold(mutex_);
    for (const Pending& take : pending_) samples_ms_.push_back(ms_between(take.sent, now));
    lost_ += pending_.size();
    pending_.clear();
}

void Observer::send_take() {
    if (pending_.size() >= kMaxOutstanding) return;
    const int cycle = std::min(kSourceCycle, router_.sources - 1);
    const int source = next_source_;
    next_source_ = next_source_ % cycle + 1;
    const std::string take =
        "@ X:" + hex(router_.levels - 1) + "/" + hex(router_.destinations - 1) + "," + hex(source) + "\r";
    const auto now = Clock::now();
    const ssize_t n = send(fd_, take.data(), take.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;  // the simulator is not reading: skip a turn
    if (n != static_cast<ssize_t>(take.size())) {
        disconnected_ = true;
        return;
    }
    pending_.push_back(Pending{source, now});
    ++takes_;
}

// Takes are answered in order; a report of a later take answers the earlier
// ones too (their change was superseded within a frame).
void Observer::answer_through(std::size_t index, Clock::time_point now) {
    for (std::size_t i = 0; i <= index; ++i) samples_ms_.push_back(ms_between(pending_[i].sent, now));
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(index) + 1);
}

void Observer::match_reports(Clock::time_point now) {
    std::size_t consumed = 0;
    for (;;) {
        const auto at = buffer_.find(report_prefix_, consumed);
        if (at == std::string::npos) break;
        std::size_t end = at + report_prefix_.size();
        while (end < buffer_.size() && std::isxdigit(static_cast<unsigned char>(buffer_[end]))) ++end;
        if (end == buffer_.size()) {
            consumed = at;  // the source is not complete yet
            break;
        }
        consumed = end;
        const std::size_t digits = end - at - report_prefix_.size();
        if (digits == 0 || digits > 4) continue;
        const int source = std::stoi(buffer_.substr(at + report_prefix_.size(), digits), nullptr, 16);
        std::lock_guard<std::mutex> hold(mutex_);
        for (std::size_t i = 0; i < pending_.size(); ++i) {
            if (pending_[i].source == source) {
                answer_through(i, now);
                break;
            }
        }
    }
    // Keep only what may be the start of a report still arriving.
    const std::size_t tail = report_prefix_.size() + 8;
    if (consumed < buffer_.size() && buffer_.size() - consumed > tail &&
        buffer_.find(report_prefix_, consumed) == std::string::npos)
        consumed = buffer_.size() - tail;
    buffer_.erase(0, consumed);
}

void Observer::run() {
    auto next_take = Clock::now();
    while (!stop_) {
        const auto now = Clock::now();
        if (taking_ && now >= next_take) {
            {
                std::lock_guard<std::mutex> hold(mutex_);
                send_take();
            }
            next_take += period_;
            if (next_take < now) next_take = now + period_;
        }
        if (disconnected_) return;
        pollfd p{fd_, POLLIN, 0};
        const int wait = taking_ ? std::max(0, remaining_ms(next_take)) : 5;
        if (poll(&p, 1, std::min(wait, 50)) <= 0) continue;
        if (!drain(fd_, &buffer_, bytes_)) {
            disconnected_ = true;
            match_reports(Clock::now());
            return;
        }
        match_reports(Clock::now());
    }
}

Latency Observer::latency() const {
    std::lock_guard<std::mutex> hold(mutex_);
    Latency result;
    result.takes = takes_;
    result.lost = lost_ + pending_.size();
    result.answered = takes_ - result.lost;
    std::vector<double> sorted = samples_ms_;
    if (sorted.empty()) return result;
    std::sort(sorted.begin(), sorted.end());
    const auto rank = [&](double fraction) {
        const auto index = static_cast<std::size_t>(fraction * static_cast<double>(sorted.size()));
        return sorted[std::min(index, sorted.size() - 1)];
    };
    result.p50_ms = rank(0.50);
    result.p99_ms = rank(0.99);
    result.max_ms = sorted.back();
    return result;
}

// ---------------------------------------------------------------- Reader

Reader::Reader(unsigned short port) : port_(port) {}

Reader::~Reader() {
    stop();
    if (fd_ >= 0) close(fd_);
}

bool Reader::start(std::chrono::milliseconds timeout) {
    fd_ = connect_to(port_, 0, timeout);
    if (fd_ < 0) return false;
    std::string rest;
    if (!send_all(fd_, "@ ?\r", timeout) || !wait_for_text(fd_, "@ ?\r\n>", timeout, rest)) return false;
    thread_ = std::thread([this] { run(); });
    return true;
}

void Reader::stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

void Reader::run() {
    while (!stop_) {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0) continue;
        if (!drain(fd_, nullptr, bytes_)) {
            disconnected_ = true;
            return;
        }
    }
}

// ---------------------------------------------------------------- Crowd

Crowd::Crowd(unsigned short port, int count, Behaviour behaviour)
    : port_(port), behaviour_(std::move(behaviour)), slots_(static_cast<std::size_t>(count)) {}

Crowd::~Crowd() { stop(); }

void Crowd::start() { thread_ = std::thread([this] { run(); }); }

void Crowd::stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    for (Slot& slot : slots_) {
        if (slot.fd >= 0) close_slot(slot, false);
    }
}

void Crowd::open(Slot& slot) {
    bool in_progress = false;
    slot = Slot{};
    slot.fd = start_connect(port_, behaviour_.receive_buffer, in_progress);
    if (slot.fd < 0) {
        slot.retry_at = Clock::now() + 10ms;
        return;
    }
    slot.connecting = in_progress;
    ++connections_;
}

void Crowd::close_slot(Slot& slot, bool by_server) {
    // Churning clients reset rather than close: no TIME_WAIT left behind.
    if (behaviour_.churn || by_server) set_abortive_close(slot.fd);
    close(slot.fd);
    slot.fd = -1;
    if (by_server) {
        ++closed_by_server_;
        slot.retry_at = Clock::now() + 20ms;
    }
}

void Crowd::on_writable(Slot& slot) {
    if (slot.connecting) {
        int error = 0;
        socklen_t length = sizeof error;
        getsockopt(slot.fd, SOL_SOCKET, SO_ERROR, &error, &length);
        if (error != 0) return close_slot(slot, true);
        slot.connecting = false;
    }
    for (;;) {
        if (slot.offset == slot.out.size()) {
            slot.out.clear();
            slot.offset = 0;
            if (!slot.greeted) {
                slot.greeted = true;
                slot.out = behaviour_.greeting;
            } else if (behaviour_.churn) {
                return close_slot(slot, false);
            } else if (!behaviour_.packets.empty() && !slot.done) {
                slot.out = behaviour_.packets[slot.next_packet];
                slot.next_packet = (slot.next_packet + 1) % behaviour_.packets.size();
                if (slot.next_packet == 0 && !behaviour_.repeat) slot.done = true;
            }
            if (slot.out.empty()) {
                if (behaviour_.churn) return close_slot(slot, false);
                return;
            }
        }
        const ssize_t n =
            send(slot.fd, slot.out.data() + slot.offset, slot.out.size() - slot.offset, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            slot.offset += static_cast<std::size_t>(n);
            sent_ += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        if (n < 0 && errno == EINTR) continue;
        return close_slot(slot, true);
    }
}

void Crowd::on_readable(Slot& slot) {
    if (!drain(slot.fd, nullptr, received_)) close_slot(slot, true);
}

void Crowd::run() {
    std::vector<pollfd> fds(slots_.size());
    while (!stop_) {
        const auto now = Clock::now();
        for (std::size_t i = 0; i < slots_.size(); ++i) {
            Slot& slot = slots_[i];
            if (slot.fd < 0 && now >= slot.retry_at) open(slot);
            short events = POLLRDHUP;
            if (slot.connecting || !slot.greeted || slot.offset < slot.out.size() ||
                (!slot.done && !behaviour_.packets.empty()) || behaviour_.churn)
                events |= POLLOUT;
            if (behaviour_.reads) events |= POLLIN;
            fds[i] = pollfd{slot.fd, events, 0};
        }
        if (poll(fds.data(), fds.size(), 10) <= 0) continue;
        for (std::size_t i = 0; i < slots_.size(); ++i) {
            Slot& slot = slots_[i];
            const short got = fds[i].revents;
            if (slot.fd < 0 || got == 0) continue;
            if (got & POLLIN) on_readable(slot);
            if (slot.fd >= 0 && (got & POLLOUT)) on_writable(slot);
            // A client that does not read only learns of the close this way.
            if (slot.fd >= 0 && (got & (POLLERR | POLLHUP | POLLRDHUP)) && !(got & POLLIN)) close_slot(slot, true);
        }
    }
}

}  // namespace attack
