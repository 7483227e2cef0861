#include "sim/client_output.h"

#include <algorithm>

#include "sim/log.h"

namespace routerd {

namespace {

// Output that grew beyond this during a burst leaves freed memory to give back.
constexpr std::size_t kBurstBytes = 64 * 1024;

}  // namespace

void ClientOutput::append(std::string_view bytes) {
    if (waiting() == 0) progress_at_ = Clock::now();
    queue_.append(bytes);
}

std::string ClientOutput::behind_reason() const {
    return "more than " + with_thousands(report_room_) +
           " bytes of router reports waiting besides its own answers (client reads slower than the router changes)";
}

// Measured after the link has taken what it could.
ClientOutput::Written ClientOutput::write(Transport& transport, boost::system::error_code& ec) {
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

bool ClientOutput::end_burst() {
    const bool burst = most_waiting_ > kBurstBytes;
    most_waiting_ = 0;
    return burst;
}

std::optional<std::string> ClientOutput::overdue(Clock::time_point now) const {
    if (waiting() == 0) return std::nullopt;
    const auto timeout = limits_.output_timeout;
    if (now - progress_at_ >= timeout)
        return "no output taken for " + std::to_string(timeout.count()) + " ms (client does not read)";
    if (above_mark_ && now - above_since_ >= timeout) {
        return "more than " + with_thousands(limits_.max_output_bytes) + " bytes of output waiting for " +
               std::to_string(timeout.count()) + " ms (client reads too slowly)";
    }
    return std::nullopt;
}

}  // namespace routerd
