#include "sim/switch_queue.h"

#include <boost/asio/post.hpp>

namespace routerd {

void SwitchQueue::push(const Change& change) {
    const bool idle = waiting_.empty();
    waiting_.push_back(change);
    // The queue outlives the io_context's run, so the handler may hold `this`.
    if (idle) boost::asio::post(executor_, [this] { apply_all(); });
}

void SwitchQueue::apply_all() {
    applying_.swap(waiting_);
    for (const Change& change : applying_) apply(change);
    applying_.clear();
    if (frame_done_) frame_done_();
}

void SwitchQueue::apply(const Change& change) {
    const Refusal refusal = change.kind == Change::crosspoint
                                ? router_.take(change.level, change.value, change.destination)
                                : router_.lock(change.level, change.destination, change.value);
    if (refusal == Refusal::none) return;
    const std::string what =
        change.kind == Change::crosspoint
            ? "take of source " + std::to_string(change.value) + " to destination " +
                  std::to_string(change.destination)
            : "lock state " + std::to_string(change.value) + " of destination " +
                  std::to_string(change.destination);
    log_.info("client " + std::to_string(change.client) + ": refused " + what + " on level " +
              std::to_string(change.level) + ": " + describe(refusal));
}

}  // namespace routerd
