#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>

#include "sim/log.h"

namespace routerd {

// Failed logins remembered by client address (see share_address), so that
// guessing passwords stays slow however many connections it is spread over:
//
// - the answer to a failed login waits 1 s after an address's first failure,
//   and twice as long after each further one, up to 16 s;
// - after 10 failures in a row the address's new connections to login ports
//   are refused for 5 minutes (each further failure starts them again),
//   logged once when it starts and once when it ends;
// - a login that passes, or 15 minutes without a failure, forgets the address;
// - at most 4,096 addresses are remembered: beyond them the address whose
//   last failure is the oldest is forgotten first, among those not refused.
//
// Times are given by the caller, so that the rules can be tested without waiting.
class FailedLogins {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kFirstDelay{1};
    static constexpr std::chrono::seconds kLongestDelay{16};
    static constexpr int kFailuresBeforeRefusal = 10;
    static constexpr std::chrono::seconds kRefusal{300};
    static constexpr std::chrono::seconds kForgetAfter{900};
    static constexpr std::size_t kMostAddresses = 4096;

    explicit FailedLogins(const Log& log) : log_(log) {}

    // A login from `address` failed: how long its answer waits.
    std::chrono::seconds failed(const std::string& address, Clock::time_point now);
    // A login from `address` passed.
    void passed(const std::string& address);
    // Whether a new connection from `address` to a login port is refused, and
    // for how many seconds more (rounded up); a refusal is counted.
    std::optional<std::chrono::seconds> refused(const std::string& address, Clock::time_point now);
    // Once a second: refusals that have run their time end (logged), quiet
    // addresses are forgotten.
    void end_second(Clock::time_point now);

    std::size_t addresses() const { return records_.size(); }
    // The delay after the `failures`-th failure in a row.
    static std::chrono::seconds delay_after(int failures);

private:
    struct Record {
        int failures = 0;  // in a row
        Clock::time_point last_failure;
        bool refusing = false;
        Clock::time_point refused_until;
        std::size_t refusals = 0;  // connections refused since the refusal started
    };

    Record& record_of(const std::string& address);
    void end_refusal(const std::string& address, Record& record, const char* why);

    const Log& log_;
    std::map<std::string, Record> records_;
};

}  // namespace routerd
