#include "host/answering_driver.h"

namespace plugin_host {

void AnsweringDriver::TakePresets() {
    record(Operation::kTakePresets, 0, 0, 0);
    // A router switches the whole queue, then reports each crosspoint. The
    // reports may preset again, so the queue is emptied first.
    std::vector<Queued> switched;
    switched.swap(queue_);
    if (!routerTarget) return;
    for (const Queued& q : switched) routerTarget->Crosspoint(q.level, q.source, q.destination);
}

void AnsweringDriver::ClearPresets() {
    record(Operation::kClearPresets, 0, 0, 0);
    queue_.clear();
}

void AnsweringDriver::PresetCrosspoint(int level, int source, int destination) {
    record(Operation::kPresetCrosspoint, level, source, destination);
    queue_.push_back({level, source, destination});
}

void AnsweringDriver::LockCrosspoint(int level, int destination, int state) {
    record(Operation::kLockCrosspoint, level, destination, state);
    if (routerTarget) routerTarget->CrosspointLock(level, destination, state);
}

}  // namespace plugin_host
