#include "sim/client_driver.h"

#include <string>

namespace routerd {

void ClientDriver::TakePresets() {
    if (log_.verbose())
        log_.activity("client " + std::to_string(client_) + ": take " + std::to_string(presets_.size()) +
                      " preset(s)");
    for (const Preset& p : presets_) switches_.take(client_, p.level, p.source, p.destination);
    presets_.clear();
    preset_index_.clear();
}

void ClientDriver::ClearPresets() {
    presets_.clear();
    preset_index_.clear();
}

void ClientDriver::PresetCrosspoint(int level, int source, int destination) {
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
    switches_.lock(client_, level, destination, state);
}

}  // namespace routerd
