#include "sim/links/failed_logins.h"

#include <algorithm>

namespace routerd {

namespace {

// Enough to reach the longest delay and the refusal; counting on would only risk overflow.
constexpr int kMostCounted = 1000;

}  // namespace

std::chrono::seconds FailedLogins::delay_after(int failures) {
    std::chrono::seconds delay = kFirstDelay;
    for (int n = 1; n < failures && delay < kLongestDelay; ++n) delay *= 2;
    return std::min(delay, kLongestDelay);
}

std::chrono::seconds FailedLogins::failed(const std::string& address, Clock::time_point now) {
    Record& record = record_of(address);
    record.failures = std::min(record.failures + 1, kMostCounted);
    record.last_failure = now;
    if (record.failures >= kFailuresBeforeRefusal) {
        if (!record.refusing) {
            record.refusing = true;
            record.refusals = 0;
            log_.info("login: " + std::to_string(record.failures) + " failed logins in a row from " + address +
                      ": its connections to login ports are refused for " + std::to_string(kRefusal.count()) +
                      " s");
        }
        record.refused_until = now + kRefusal;
    }
    return delay_after(record.failures);
}

void FailedLogins::passed(const std::string& address) {
    const auto entry = records_.find(address);
    if (entry == records_.end()) return;
    if (entry->second.refusing) end_refusal(address, entry->second, "a login from it passed");
    records_.erase(entry);
}

std::optional<std::chrono::seconds> FailedLogins::refused(const std::string& address, Clock::time_point now) {
    const auto entry = records_.find(address);
    if (entry == records_.end() || !entry->second.refusing || now >= entry->second.refused_until)
        return std::nullopt;
    ++entry->second.refusals;
    const auto left = std::chrono::ceil<std::chrono::seconds>(entry->second.refused_until - now);
    return std::max(left, std::chrono::seconds(1));
}

void FailedLogins::end_second(Clock::time_point now) {
    for (auto entry = records_.begin(); entry != records_.end();) {
        Record& record = entry->second;
        if (record.refusing && now >= record.refused_until) end_refusal(entry->first, record, "its time is up");
        if (!record.refusing && now - record.last_failure >= kForgetAfter) {
            entry = records_.erase(entry);
        } else {
            ++entry;
        }
    }
}

FailedLogins::Record& FailedLogins::record_of(const std::string& address) {
    const auto found = records_.find(address);
    if (found != records_.end()) return found->second;
    if (records_.size() >= kMostAddresses) {
        // Those refused now are the ones guessing: they are kept longest.
        const auto oldest = std::min_element(records_.begin(), records_.end(), [](const auto& a, const auto& b) {
            if (a.second.refusing != b.second.refusing) return !a.second.refusing;
            return a.second.last_failure < b.second.last_failure;
        });
        records_.erase(oldest);
    }
    return records_[address];
}

void FailedLogins::end_refusal(const std::string& address, Record& record, const char* why) {
    record.refusing = false;
    log_.info("login: connections from " + address + " to login ports are accepted again (" + why + "; " +
              with_thousands(record.refusals) + " refused meanwhile)");
}

}  // namespace routerd
