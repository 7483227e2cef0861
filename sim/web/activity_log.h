#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include <boost/circular_buffer.hpp>

#include "sim/router/router.h"

namespace routerd::web {

// One thing that happened to the router or its clients, as the page lists it.
struct ActivityEvent {
    enum class Kind { take, lock, refused_take, refused_lock, connect, disconnect };
    std::uint64_t seq = 0;  // 1, 2, 3...: a page asks for what follows the last it has
    std::chrono::system_clock::time_point time;
    Kind kind = Kind::take;
    int client = 0;  // 0: the web view
    int level = 0;
    int destination = 0;
    int value = 0;     // the source of a take, the state of a lock
    std::string text;  // a refusal's reason, a client's address, why it left
};

// Oldest first. Full, each new event takes the place of the oldest.
using ActivityEvents = boost::circular_buffer<ActivityEvent>;

const char* kind_name(ActivityEvent::Kind kind);

// The last `capacity` events; older ones are forgotten.
class ActivityLog {
public:
    explicit ActivityLog(std::size_t capacity) : events_(capacity) {}

    ActivityEvent& add(ActivityEvent::Kind kind, int client);
    std::uint64_t last_seq() const { return next_seq_ - 1; }
    const ActivityEvents& events() const { return events_; }

private:
    ActivityEvents events_;
    std::uint64_t next_seq_ = 1;
};

}  // namespace routerd::web
