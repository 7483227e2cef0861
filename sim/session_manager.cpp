#include "sim/session_manager.h"

#include <boost/asio/post.hpp>

#include "sim/session.h"

namespace routerd {

void SessionManager::join(const std::shared_ptr<Session>& session) { sessions_.insert(session); }

void SessionManager::leave(const std::shared_ptr<Session>& session) {
    sessions_.erase(session);
    memory_released();
}

void SessionManager::flush_waiting() {
    std::vector<std::shared_ptr<Session>> waiting;
    waiting.swap(awaiting_flush_);
    for (const auto& session : waiting) session->flush();
    // The vector's storage is reused by the next frame.
    waiting.clear();
    if (awaiting_flush_.empty()) awaiting_flush_.swap(waiting);
}

void SessionManager::queue_costly_slice(std::shared_ptr<Session> session) {
    costly_slices_.push_back(std::move(session));
    if (!costly_slice_posted_) post_costly_slice();
}

void SessionManager::post_costly_slice() {
    costly_slice_posted_ = true;
    boost::asio::post(executor_, [this] {
        costly_slice_posted_ = false;
        const std::shared_ptr<Session> session = std::move(costly_slices_.front());
        costly_slices_.pop_front();
        // May queue the same session again, at the back.
        session->run_scheduled_slice();
        if (!costly_slices_.empty() && !costly_slice_posted_) post_costly_slice();
    });
}

void SessionManager::check_timeouts(std::chrono::steady_clock::time_point now) {
    // A session dropped here leaves the set later, in an event of its own.
    for (const auto& session : sessions_) session->check_timeouts(now);
}

void SessionManager::stop_all() {
    // stop() leaves the set, so work from a copy.
    const auto sessions = sessions_;
    for (const auto& session : sessions) session->stop("simulator shutting down");
}

}  // namespace routerd
