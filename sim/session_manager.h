#pragma once

#include <cstddef>
#include <memory>
#include <set>
#include <vector>

namespace routerd {

class Session;

// Owns the live sessions, so that shutdown can stop every one of them.
class SessionManager {
public:
    void join(const std::shared_ptr<Session>& session) { sessions_.insert(session); }
    void leave(const std::shared_ptr<Session>& session) { sessions_.erase(session); }
    std::size_t size() const { return sessions_.size(); }
    void stop_all();

    // A session with output from a router change; written when the change's
    // event ends (flush_waiting), so that all of it leaves in one write.
    void await_flush(std::shared_ptr<Session> session) { awaiting_flush_.push_back(std::move(session)); }
    void flush_waiting();

private:
    std::set<std::shared_ptr<Session>> sessions_;
    std::vector<std::shared_ptr<Session>> awaiting_flush_;
};

}  // namespace routerd
