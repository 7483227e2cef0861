#include "sim/router/switch_queue.h"

#include <string>

#include <boost/asio/post.hpp>

namespace routerd {

SwitchQueue::SwitchQueue(boost::asio::any_io_executor executor, Router& router, RouterBackend& backend,
                         RefusalLog& refusals, std::function<void()> frame_done)
    : executor_(std::move(executor)),
      router_(router),
      backend_(backend),
      refusals_(refusals),
      frame_done_(std::move(frame_done)) {
    backend_.listen(*this);
}

Refusal SwitchQueue::ask(SwitchRequest request, Decided* then) {
    if (then) request.ticket = ++tickets_;
    const Refusal refusal = request.kind == SwitchRequest::take ? backend_.take(request) : backend_.lock(request);
    if (refusal == Refusal::pending) {
        if (then) waiting_for_router_.emplace(request.ticket, std::move(*then));
        end_frame_soon();
        return refusal;
    }
    tell(request, refusal);
    return refusal;
}

// The activity log and the refusal log hear of a change once it is decided.
void SwitchQueue::tell(const SwitchRequest& request, Refusal refusal) {
    const bool take = request.kind == SwitchRequest::take;
    if (watcher_)
        watcher_->switch_asked(request.client, take ? SwitchWatcher::Kind::take : SwitchWatcher::Kind::lock,
                               request.level, request.destination, request.value, refusal);
    if (refusal == Refusal::none) {
        end_frame_soon();
        return;
    }
    refusals_.refused(request.client, take ? "takes" : "locks", request.level, describe(refusal), [&] {
        const std::string destination = " to destination " + std::to_string(request.destination);
        return take ? "take of source " + std::to_string(request.value) + destination
                    : "lock state " + std::to_string(request.value) + " of destination " +
                          std::to_string(request.destination);
    });
}

void SwitchQueue::decided(const SwitchRequest& request, Refusal refusal) {
    tell(request, refusal);
    if (request.ticket == 0) return;
    const auto waiting = waiting_for_router_.find(request.ticket);
    if (waiting == waiting_for_router_.end()) return;
    const Decided then = std::move(waiting->second);
    waiting_for_router_.erase(waiting);
    then(refusal);
}

void SwitchQueue::end_frame_soon() {
    if (frame_pending_) return;
    frame_pending_ = true;
    // The queue outlives the io_context's run, so the handler may hold `this`.
    boost::asio::post(executor_, [this] { end_frame(); });
}

// The observers are told before the journal has the frame: what they write
// carries the frame's tag and waits for it. The backend hears of the end
// after them, so that a router's answer can never overtake the frame.
// Told even when the frame brought nothing new: output may wait for its end.
void SwitchQueue::end_frame() {
    frame_pending_ = false;
    if (router_.changed()) {
        ++told_;
        const std::vector<PublishedChange>& changes = router_.publish();
        if (journal_) journal_->keep(changes, told_);
    }
    backend_.frame_ended();
    if (frame_done_) frame_done_();
}

void SwitchQueue::when_settled(std::uint64_t frame, std::function<void()> then) {
    if (settled(frame)) return then();
    waiting_.emplace_back(frame, std::move(then));
}

void SwitchQueue::settle(std::uint64_t frame) {
    if (frame <= settled_) return;
    settled_ = frame;
    // What runs may wait again, for a later frame: into waiting_, not running_.
    running_.clear();
    running_.swap(waiting_);
    for (auto& [waited_for, then] : running_) {
        if (settled(waited_for)) {
            then();
        } else {
            waiting_.emplace_back(waited_for, std::move(then));
        }
    }
    running_.clear();
}

}  // namespace routerd
