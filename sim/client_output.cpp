#include "sim/client_output.h"

#include <algorithm>

#include "sim/log.h"

namespace routerd {

std::string ClientOutput::behind_reason() const {
    return "more than " + with_thousands(report_room_) +
           " bytes of router reports waiting besides its own answers (client reads slower than the router changes)";
}

std::optional<std::string> ClientOutput::overdue(Clock::time_point now) const {
    if (waiting() == 0 || progress_at_ == kNotWritten) return std::nullopt;
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
