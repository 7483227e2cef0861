#include "support/loaded_plugin.h"

namespace testhost {

const PluginLibrary& shared_library() {
    static const std::shared_ptr<PluginLibrary> library = PluginLibrary::load(LEITCH_PLUGIN_PATH);
    return *library;
}

void RecordingDriver::record(Operation operation, int a, int b, int c) {
    const auto args = [&](std::initializer_list<int> values) {
        std::string text;
        for (const int v : values) text += " " + std::to_string(v);
        return text;
    };
    switch (operation) {
        case Operation::kTakePresets: log_.push_back("call TakePresets"); break;
        case Operation::kClearPresets: log_.push_back("call ClearPresets"); break;
        case Operation::kPresetCrosspoint:
            log_.push_back("call PresetCrosspoint" + args({a, b, c}));
            break;
        case Operation::kLockCrosspoint:
            log_.push_back("call LockCrosspoint" + args({a, b, c}));
            break;
    }
}

Session::Session() : link_(log), driver_(log), instance_(shared_library().create(link_)) {
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
