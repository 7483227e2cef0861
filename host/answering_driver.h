#pragma once

// A CommandDriver for hosts that stand in for the framework: tests, fuzzing,
// tools. It hands every call to record() as it arrives and, once given an
// instance to answer, behaves like a router that reports back synchronously,
// from inside the call: a lock through CrosspointLock from inside
// LockCrosspoint, and every queued crosspoint through Crosspoint from inside
// TakePresets, in the order they were preset.

#include <vector>

#include "framework/command_driver.h"
#include "framework/protocol_converter.h"

namespace plugin_host {

class AnsweringDriver : public CommandDriver {
public:
    enum class Operation { kTakePresets, kClearPresets, kPresetCrosspoint, kLockCrosspoint };

    void TakePresets() final;
    void ClearPresets() final;
    void PresetCrosspoint(int level, int source, int destination) final;
    void LockCrosspoint(int level, int destination, int state) final;

    // The instance to answer; null: record only. A take or a clear empties the
    // queue of presets either way.
    ProtocolConverter* routerTarget = nullptr;

protected:
    // One driver call with its arguments in the order of the call (zeros where
    // it has none), before any answer it causes.
    virtual void record(Operation operation, int a, int b, int c) = 0;

private:
    struct Queued {
        int level, source, destination;
    };
    std::vector<Queued> queue_;
};

}  // namespace plugin_host
