#include "sim/router/switch_queue.h"

#include <string>

#include <boost/asio/post.hpp>

namespace routerd {

Refusal SwitchQueue::take(int client, int level, int source, int destination) {
    const Refusal refusal = router_.take(level, source, destination);
    if (watcher_) watcher_->switch_asked(client, SwitchWatcher::Kind::take, level, destination, source, refusal);
    if (refusal == Refusal::none) {
        end_frame_soon();
        return refusal;
    }
    refusals_.refused(client, "takes", level, describe(refusal), [&] {
        return "take of source " + std::to_string(source) + " to destination " + std::to_string(destination);
    });
    return refusal;
}

Refusal SwitchQueue::lock(int client, int level, int destination, int state) {
    const Refusal refusal = router_.lock(level, destination, state);
    if (watcher_) watcher_->switch_asked(client, SwitchWatcher::Kind::lock, level, destination, state, refusal);
    if (refusal == Refusal::none) {
        end_frame_soon();
        return refusal;
    }
    refusals_.refused(client, "locks", level, describe(refusal), [&] {
        return "lock state " + std::to_string(state) + " of destination " + std::to_string(destination);
    });
    return refusal;
}

void SwitchQueue::end_frame_soon() {
    if (frame_pending_) return;
    frame_pending_ = true;
    // The queue outlives the io_context's run, so the handler may hold `this`.
    boost::asio::post(executor_, [this] { end_frame(); });
}

// The observers are told before the journal has the frame: what they write
// carries the frame's tag and waits for it.
// Told even when the frame brought nothing new: output may wait for its end.
void SwitchQueue::end_frame() {
    frame_pending_ = false;
    if (router_.changed()) {
        ++told_;
        const std::vector<PublishedChange>& changes = router_.publish();
        if (journal_) journal_->keep(changes, told_);
    }
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
