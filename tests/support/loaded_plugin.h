#pragma once

// A test host: loads the built plug-in with the shared loader, exactly as the
// framework does, and drives instances only through the framework's base classes.

#include <string>

#include "host/plugin_library.h"
#include "host/transcript.h"
#include "host/transcript_player.h"

namespace testhost {

using plugin_host::EventLog;
using plugin_host::PluginLibrary;
using plugin_host::RecordingDriver;
using plugin_host::RecordingInterface;
using plugin_host::escape;

// The library every test uses, loaded once per test program.
const PluginLibrary& shared_library();

// An instance of that library with its recording link and driver.
class Session : public plugin_host::RecordingSession {
public:
    Session() : RecordingSession(shared_library()) {}
};

}  // namespace testhost
