#pragma once

#include <algorithm>
#include <chrono>
#include <new>
#include <cstddef>
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
class ClientOutput {
public:
    using Clock = std::chrono::steady_clock;
    // Output that grew beyond this during a burst leaves freed memory to give back.
    static constexpr std::size_t kBurstBytes = 64 * 1024;

    enum class Written {
        all_taken,
        waiting,            // the link is full: wait until it is writable
        behind_the_router,  // the client must go (see behind_reason)
        failed,
    };

    ClientOutput(const Limits& limits, std::size_t report_room) : limits_(limits), report_room_(report_room) {}

    void append(std::string_view bytes) {
        if (waiting() == 0) progress_at_ = Clock::now();
        queue_.append(bytes);
    }
    std::size_t waiting() const { return queue_.size(); }
    // Bytes given to the link and not all taken yet: a wait for writability is under way.
    bool writing() const { return queue_.handed() > 0; }
    // Above the high-water mark the client's input waits.
    bool above_mark() const { return waiting() > limits_.max_output_bytes; }
    bool behind_the_router() const { return waiting() > own_answers_ + report_room_; }
    std::string behind_reason() const;

    // Hands everything waiting to the link, which takes what it can now.
    Written write(Transport& transport, boost::system::error_code& ec);
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
    void clear() { queue_.clear(); }

private:
    const Limits& limits_;
    const std::size_t report_room_;
    OutputQueue queue_;             // what the link has not taken yet
    std::size_t most_waiting_ = 0;  // since the output was last all taken
    std::size_t own_answers_ = 0;   // waiting after the client's own last event, while over the mark
    Clock::time_point progress_at_;  // last time the link took output, or output began to wait
    Clock::time_point above_since_;  // when waiting output went above the high-water mark
    bool above_mark_ = false;
};

// Inline: every write of every client passes here. Measured after the link
// has taken what it could.
inline ClientOutput::Written ClientOutput::write(Transport& transport, boost::system::error_code& ec) {
    queue_.hand_over();
    most_waiting_ = std::max(most_waiting_, waiting());
    const std::size_t taken = transport.write_now(queue_.front_buffers(), ec);
    if (ec) return Written::failed;
    const Clock::time_point now = Clock::now();
    if (taken > 0) {
        queue_.consume(taken);
        progress_at_ = now;
    }
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
