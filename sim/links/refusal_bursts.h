#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <string>

#include "sim/log.h"

namespace routerd {

// Refused connections logged so that a flood cannot fill the log: a burst of
// refusals of one kind (what was refused, and for which address) is logged
// when it starts, with the first refusal in full; the refusals that follow are
// only counted, and once none has come for kQuiet the burst ends with one line
// saying how many there were ("refused 1,234 more clients from 127.0.0.2
// (max_clients_per_address) over 42 s"), when there were any.
class RefusalBursts {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kQuiet{5};
    // Bursts followed at once; a refusal of a kind beyond them is logged as a
    // line about clients coming and going (at most a few dozen a second).
    static constexpr std::size_t kMostBursts = 1024;

    // `prefix` starts each of its lines ("web view: ", or nothing).
    RefusalBursts(const Log& log, std::string prefix) : log_(log), prefix_(std::move(prefix)) {}

    // A refusal of `kind` ("clients from 127.0.0.2 (max_clients_per_address)",
    // which the closing line names). `first_line()`, called only when the
    // refusal starts a burst, is the line logged for it.
    template <typename Line>
    void refused(const std::string& kind, Clock::time_point now, const Line& first_line) {
        const auto entry = bursts_.find(kind);
        if (entry != bursts_.end()) {
            ++entry->second.more;
            entry->second.last = now;
            return;
        }
        if (bursts_.size() >= kMostBursts) return log_.client_line(prefix_ + first_line());
        bursts_.emplace(kind, Burst{now, now, 0});
        log_.info(prefix_ + first_line());
    }

    // Once a second: the bursts without a refusal for kQuiet end.
    void end_quiet(Clock::time_point now);
    // Bursts under way.
    std::size_t bursts() const { return bursts_.size(); }

private:
    struct Burst {
        Clock::time_point began;
        Clock::time_point last;
        std::size_t more = 0;  // refusals after the first
    };

    const Log& log_;
    const std::string prefix_;
    std::map<std::string, Burst> bursts_;
};

}  // namespace routerd
