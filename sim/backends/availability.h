#pragma once

#include <algorithm>
#include <chrono>
#include <string>

#include "sim/backends/gateway.h"
#include "sim/log.h"

namespace routerd {

// "4.2 s": a duration for the log, to a tenth of a second.
inline std::string seconds(std::chrono::milliseconds duration) {
    const auto tenths = (duration.count() + 50) / 100;
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
}

// Whether a real router is there, as the links and the log tell it: one log
// line per outage and one when the router is back, whatever the attempts in
// between; and the pause before the next attempt, doubling up to a most.
class Availability {
public:
    using Clock = std::chrono::steady_clock;

    Availability(const Log& log, std::chrono::milliseconds first_pause, std::chrono::milliseconds most_pause)
        : log_(log), first_pause_(first_pause), most_pause_(most_pause), pause_(first_pause) {}

    const BackendStatus& status() const { return status_; }

    void starting() { down_since_ = Clock::now(); }
    // Connected, not serving yet: said on the links, not logged.
    void reading() { status_ = {false, "connected, reading the router's state"}; }

    void away(const std::string& address, const std::string& reason) {
        const bool was_up = status_.up;
        status_ = {false, reason};
        if (!was_up) return;
        down_since_ = Clock::now();
        log_.info("router " + address + " is away: " + reason);
    }

    // The router's state is read: "router ADDRESS answered: WHAT; its state read in 3 ms",
    // or "is back after 4.2 s" in place of "answered" after an outage.
    void back(const std::string& address, const std::string& what, Clock::time_point connected_at) {
        status_ = {true, ""};
        pause_ = first_pause_;
        const auto now = Clock::now();
        const auto away_for = std::chrono::duration_cast<std::chrono::milliseconds>(now - down_since_);
        const auto reading = std::chrono::duration_cast<std::chrono::milliseconds>(now - connected_at);
        log_.info("router " + address + (was_up_ ? " is back after " + seconds(away_for) : " answered") + ": " + what +
                  "; its state read in " + std::to_string(reading.count()) + " ms");
        was_up_ = true;
    }

    // How long to wait before the next attempt; each call doubles the next.
    std::chrono::milliseconds next_pause() {
        const auto pause = pause_;
        pause_ = std::min(pause_ * 2, most_pause_);
        return pause;
    }

private:
    const Log& log_;
    std::chrono::milliseconds first_pause_;
    std::chrono::milliseconds most_pause_;
    std::chrono::milliseconds pause_;
    BackendStatus status_{false, "not connected yet"};
    Clock::time_point down_since_{};
    bool was_up_ = false;  // the router has answered once: later reads are returns
};

}  // namespace routerd
