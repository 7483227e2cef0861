#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <set>
#include <vector>

#include <boost/asio/any_io_executor.hpp>

namespace routerd {

class Session;

// Owns the live sessions, so that shutdown can stop every one of them.
class SessionManager {
public:
    explicit SessionManager(boost::asio::any_io_executor executor) : executor_(std::move(executor)) {}

    void join(const std::shared_ptr<Session>& session);
    void leave(const std::shared_ptr<Session>& session);
    std::size_t size() const { return sessions_.size(); }
    const std::set<std::shared_ptr<Session>>& sessions() const { return sessions_; }
    void stop_all();

    // A session with output from a router change; written when the frame has
    // been told (flush_waiting), so that all of it leaves in one write.
    void await_flush(std::shared_ptr<Session> session) { awaiting_flush_.push_back(std::move(session)); }
    void flush_waiting();

    // Slices of clients whose last slice was costly run one per round of
    // events, in turn, whatever else is waiting.
    void queue_costly_slice(std::shared_ptr<Session> session);

    // Disconnects the sessions whose clients do not read, or stay silent too long.
    void check_timeouts(std::chrono::steady_clock::time_point now);

    // Large buffers were freed: the memory can be given back to the system.
    void memory_released() { memory_released_ = true; }
    bool take_memory_released() {
        const bool released = memory_released_;
        memory_released_ = false;
        return released;
    }

private:
    void post_costly_slice();

    boost::asio::any_io_executor executor_;
    std::set<std::shared_ptr<Session>> sessions_;
    std::deque<std::shared_ptr<Session>> costly_slices_;
    bool costly_slice_posted_ = false;
    std::vector<std::shared_ptr<Session>> awaiting_flush_;
    bool memory_released_ = false;
};

}  // namespace routerd
