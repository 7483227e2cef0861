#include "support/loaded_plugin.h"

namespace testhost {

void RecordingDriver::TakePresets() {
    log_.push_back("call TakePresets");
    if (!routerTarget) return;
    // A router switches the whole queue, then reports each crosspoint.
    std::vector<Queued> switched;
    switched.swap(queue_);
    for (const Queued& q : switched) routerTarget->Crosspoint(q.level, q.source, q.destination);
}

void RecordingDriver::ClearPresets() {
    log_.push_back("call ClearPresets");
    queue_.clear();
}

void RecordingDriver::PresetCrosspoint(int level, int source, int destination) {
    log_.push_back("call PresetCrosspoint " + std::to_string(level) + " " + std::to_string(source) +
                   " " + std::to_string(destination));
    queue_.push_back({level, source, destination});
}

void RecordingDriver::LockCrosspoint(int level, int destination, int state) {
    log_.push_back("call LockCrosspoint " + std::to_string(level) + " " +
                   std::to_string(destination) + " " + std::to_string(state));
    if (routerTarget) routerTarget->CrosspointLock(level, destination, state);
}

Session::Session()
    : link_(log),
      driver_(log),
      instance_(PluginLibrary::shared().create()(&link_),
                InstanceDeleter{PluginLibrary::shared().destroy()}) {
    instance_->SetCommandDriver(&driver_);
}

void Session::levels(const std::vector<LevelDesc>& levels, bool update) {
    std::list<LevelDesc> list(levels.begin(), levels.end());
    instance_->LevelList(list, update);
}

EventLog Session::take_events() {
    EventLog events;
    events.swap(log);
    return events;
}

}  // namespace testhost
