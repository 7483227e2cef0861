#pragma once

#include <algorithm>
#include <chrono>
#include <new>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include <boost/system/error_code.hpp>

#include "sim/limits.h"
#include "sim/links/transport.h"
#include "sim/output_queue.h"

namespace routerd {

// Thrown out of SendData to stop an instance in the middle of an answer that
// no reading client could need (its own tables bloated by look-ups far beyond
// the router). To the converter it is an allocation failure of its link, the
// one exception it lets through.
struct OutputOverflow : std::bad_alloc {
    const char* what() const noexcept override { return "output of one event over the bound"; }
};

// A client's waiting output and the rules for a client that does not keep up
// with it. A client's own answers may wait in any amount one event can
// produce (its input waits meanwhile); on top of them the router's reports
// may pile up by the high-water mark, or one frame, before the client counts
// as one that reads slower than the router changes. A client whose output
// does not move, or stays above the mark, for the output timeout does not read.
//
// Output may be held for a frame (see SwitchQueue: what shows a change leaves
// once the change is kept): bytes appended for a frame not settled yet wait,
// and so does everything after them.
class ClientOutput {
public:
    using Clock = std::chrono::steady_clock;
    // Output that grew beyond this during a burst leaves freed memory to give back.
    static constexpr std::size_t kBurstBytes = 64 * 1024;

    enum class Written {
        all_taken,
        waiting,            // the link is full: wait until it is writable
        held,               // what waits, waits for held_for() to settle
        behind_the_router,  // the client must go (see behind_reason)
        failed,
    };

    ClientOutput(const Limits& limits, std::size_t report_room) : limits_(limits), report_room_(report_room) {}

    // `frame` is the frame the bytes may show, 0 for none; `settled` the last
    // frame settled.
    void append(std::string_view bytes, std::uint64_t frame = 0, std::uint64_t settled = 0) {
        if (frame > settled) hold_for(frame);
        // The wait is timed from the first write that finds output waiting.
        if (queue_.empty()) progress_at_ = kNotWritten;
        queue_.append(bytes);
        appended_ += bytes.size();
    }
    // The frame the first held byte waits for (while write() says held).
    std::uint64_t held_for() const { return holds_.front().frame; }
    std::size_t waiting() const { return queue_.size(); }
    // Bytes given to the link and not all taken yet: a wait for writability is under way.
    bool writing() const { return queue_.handed() > 0; }
    // Above the high-water mark the client's input waits.
    bool above_mark() const { return waiting() > limits_.max_output_bytes; }
    bool behind_the_router() const { return waiting() > own_answers_ + report_room_; }
    std::string behind_reason() const;

    // Hands everything waiting and not held to the link, which takes what it
    // can now.
    Written write(Transport& transport, boost::system::error_code& ec, std::uint64_t settled = 0);
    // The client's own event is over: what waits now counts as its answers.
    void answers_done() { own_answers_ = std::max(own_answers_, waiting()); }
    // After everything was taken: whether a burst since the last time left
    // freed memory to give back.
    bool end_burst() {
        const bool burst = most_waiting_ > kBurstBytes;
        most_waiting_ = 0;
        return burst;
    }
    // Why the client must go by `now` for not reading its output, or nothing.
    std::optional<std::string> overdue(Clock::time_point now) const;
    void clear() {
        queue_.clear();
        holds_.clear();
    }

private:
    // From byte `at` of all that was ever appended on, output waits for `frame`.
    struct Hold {
        std::uint64_t at;
        std::uint64_t frame;
    };
    // What is appended from now on waits for `frame`.
    void hold_for(std::uint64_t frame) {
        if (holds_.empty() || holds_.back().frame < frame) holds_.push_back({appended_, frame});
    }
    // What may leave now, after dropping the holds whose frame is settled.
    std::size_t releasable(std::uint64_t settled);

    const Limits& limits_;
    const std::size_t report_room_;
    OutputQueue queue_;             // what the link has not taken yet
    std::deque<Hold> holds_;        // in the order appended: frames rise
    std::uint64_t appended_ = 0;    // bytes ever appended
    std::size_t most_waiting_ = 0;  // since the output was last all taken
    std::size_t own_answers_ = 0;   // waiting after the client's own last event, while over the mark
    static constexpr Clock::time_point kNotWritten = Clock::time_point::max();
    Clock::time_point progress_at_;  // last time the link took output, or a write found it waiting
    Clock::time_point above_since_;  // when waiting output went above the high-water mark
    bool above_mark_ = false;
};

// Inline: every write of every client passes here. Measured after the link
// has taken what it could.
inline std::size_t ClientOutput::releasable(std::uint64_t settled) {
    while (!holds_.empty() && holds_.front().frame <= settled) holds_.pop_front();
    if (holds_.empty()) return waiting();
    const std::uint64_t taken = appended_ - waiting();
    return static_cast<std::size_t>(holds_.front().at - taken);
}

inline ClientOutput::Written ClientOutput::write(Transport& transport, boost::system::error_code& ec,
                                                 std::uint64_t settled) {
    if (holds_.empty()) {
        queue_.hand_over();
    } else {
        const std::size_t free = releasable(settled);
        if (free == 0) return Written::held;
        queue_.hand_over(free);
    }
    most_waiting_ = std::max(most_waiting_, waiting());
    const std::size_t taken = transport.write_now(queue_.front_buffers(), ec);
    if (ec) return Written::failed;
    const Clock::time_point now = Clock::now();
    if (taken > 0) queue_.consume(taken);
    if (taken > 0 || progress_at_ == kNotWritten) progress_at_ = now;
    // Everything that could go went: the rest is held.
    if (queue_.handed() == 0 && waiting() > 0) return Written::held;
    if (waiting() == 0) {
        above_mark_ = false;
        own_answers_ = 0;
        return Written::all_taken;
    }
    const bool above = above_mark();
    if (above && !above_mark_) above_since_ = now;
    above_mark_ = above;
    if (!above) {
        own_answers_ = 0;
    } else if (behind_the_router()) {
        return Written::behind_the_router;
    }
    return Written::waiting;
}

}  // namespace routerd
