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
    if (Preset* preset = queued(level, destination)) {
        preset->source = source;
        return;
    }
    if (!preset_index_.empty()) preset_index_.emplace(key(level, destination), presets_.size());
    presets_.push_back({level, source, destination});
}

ClientDriver::Preset* ClientDriver::queued(int level, int destination) {
    if (presets_.size() <= kScannedPresets) {
        for (Preset& p : presets_) {
            if (p.level == level && p.destination == destination) return &p;
        }
        return nullptr;
    }
    if (preset_index_.empty()) {
        for (std::size_t i = 0; i < presets_.size(); ++i)
            preset_index_.emplace(key(presets_[i].level, presets_[i].destination), i);
    }
    const auto slot = preset_index_.find(key(level, destination));
    return slot == preset_index_.end() ? nullptr : &presets_[slot->second];
}

void ClientDriver::LockCrosspoint(int level, int destination, int state) {
    if (recording_) recording_->called(Operation::kLockCrosspoint, level, destination, state);
    switches_.lock(client_, level, destination, state);
}

}  // namespace routerd
