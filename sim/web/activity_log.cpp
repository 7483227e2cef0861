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
    if (events_.size() == capacity_) events_.pop_front();
    ActivityEvent& event = events_.emplace_back();
    event.seq = next_seq_++;
    event.time = std::chrono::system_clock::now();
    event.kind = kind;
    event.client = client;
    return event;
}

}  // namespace routerd::web
