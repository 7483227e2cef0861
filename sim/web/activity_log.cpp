#include "sim/web/activity_log.h"

namespace routerd::web {

const char* kind_name(ActivityEvent::Kind kind) {
    switch (kind) {
        case ActivityEvent::Kind::take: return "take";
        case ActivityEvent::Kind::lock: return "lock";
        case ActivityEvent::Kind::refused_take: return "refused take";
        case ActivityEvent::Kind::refused_lock: return "refused lock";
        case ActivityEvent::Kind::connect: return "connect";
        case ActivityEvent::Kind::disconnect: return "disconnect";
    }
    return "event";
}

ActivityEvent& ActivityLog::add(ActivityEvent::Kind kind, int client) {
    // In place: a full log reuses the oldest event's storage.
    if (events_.full()) {
        events_.rotate(events_.begin() + 1);
    } else {
        events_.push_back({});
    }
    ActivityEvent& event = events_.back();
    event.text.clear();
    event.seq = next_seq_++;
    event.time = std::chrono::system_clock::now();
    event.kind = kind;
    event.client = client;
    event.level = 0;
    event.destination = 0;
    event.value = 0;
    return event;
}

}  // namespace routerd::web
