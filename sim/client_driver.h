#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "framework/command_driver.h"
#include "sim/log.h"
#include "sim/recording.h"
#include "sim/router/router.h"
#include "sim/router/switch_queue.h"

namespace routerd {

// The CommandDriver of one client's converter instance: its own preset queue
// in front of the shared router. Takes and locks go to the router on the next
// frame, through the switch queue.
class ClientDriver final : public CommandDriver {
public:
    ClientDriver(int client, const Router& router, SwitchQueue& switches, const Log& log, RefusalLog& refusals)
        : client_(client), router_(router), switches_(switches), log_(log), refusals_(refusals) {}

    void TakePresets() override;
    void ClearPresets() override;
    void PresetCrosspoint(int level, int source, int destination) override;
    void LockCrosspoint(int level, int destination, int state) override;

    std::size_t presets_waiting() const { return presets_.size(); }

    // Every call from now on is written to `recording` too (null: no more).
    void record_to(LinkRecording* recording) { recording_ = recording; }

private:
    struct Preset {
        int level, source, destination;
    };
    // The queue is searched in place while it is this short; past it, through an index.
    static constexpr std::size_t kScannedPresets = 8;
    Preset* queued(int level, int destination);
    static std::uint64_t key(int level, int destination) {
        return (static_cast<std::uint64_t>(static_cast<std::uint32_t>(level)) << 32) |
               static_cast<std::uint32_t>(destination);
    }

    int client_;
    const Router& router_;
    SwitchQueue& switches_;
    const Log& log_;
    RefusalLog& refusals_;
    LinkRecording* recording_ = nullptr;
    // One preset per destination, as on a router's preset bus: presetting a
    // destination again replaces its source. So the queue never outgrows the router.
    std::vector<Preset> presets_;
    std::unordered_map<std::uint64_t, std::size_t> preset_index_;  // empty while the queue is short
};

}  // namespace routerd
