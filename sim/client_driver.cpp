#include "sim/client_driver.h"

#include <string>

namespace routerd {

using Operation = plugin_host::AnsweringDriver::Operation;

void ClientDriver::TakePresets() {
    if (recording_) recording_->called(Operation::kTakePresets);
    if (log_.verbose())
        log_.activity(client_name(client_) + ": take " + std::to_string(presets_.size()) +
                      " preset(s)");
    for (const Preset& p : presets_) switches_.take(client_, p.level, p.source, p.destination);
    presets_.clear();
    preset_index_.clear();
}

void ClientDriver::ClearPresets() {
    if (recording_) recording_->called(Operation::kClearPresets);
    presets_.clear();
    preset_index_.clear();
}

void ClientDriver::PresetCrosspoint(int level, int source, int destination) {
    if (recording_) recording_->called(Operation::kPresetCrosspoint, level, source, destination);
    const Refusal refusal = router_.check_crosspoint(level, source, destination);
    if (refusal != Refusal::none) {
        refusals_.refused(client_, "presets", level, describe(refusal), [&] {
            return "preset of source " + std::to_string(source) + " to destination " + std::to_string(destination);
        });
        return;
    }
    const auto [slot, added] = preset_index_.try_emplace(key(level, destination), presets_.size());
    if (added) {
        presets_.push_back({level, source, destination});
    } else {
        presets_[slot->second].source = source;
    }
}

void ClientDriver::LockCrosspoint(int level, int destination, int state) {
    if (recording_) recording_->called(Operation::kLockCrosspoint, level, destination, state);
    switches_.lock(client_, level, destination, state);
}

}  // namespace routerd
