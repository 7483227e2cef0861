#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "host/plugin_library.h"
#include "sim/limits.h"
#include "sim/log.h"
#include "sim/recording.h"
#include "sim/router/router.h"
#include "sim/router/switch_queue.h"

namespace routerd {

class Admission;
class SessionManager;
class SessionWatcher;

// What every session shares.
struct SessionContext {
    std::shared_ptr<const plugin_host::PluginLibrary> plugin;
    std::map<std::string, std::string> converter_config;  // handed to LoadConfig
    Router& router;
    SwitchQueue& switches;
    SessionManager& manager;
    const Log& log;
    RefusalLog& refusals;
    Limits limits;
    RecordDirectory* recordings;  // --record: where links are recorded; null: nowhere
    std::size_t output_bound;  // the most one event may leave waiting for a client (see limits.h)
    std::size_t report_room;   // router reports that may wait besides a client's own answers
    SessionWatcher* watcher = nullptr;
    Admission* admission = nullptr;  // the places of TCP clients and failed logins; null in tests of a session alone
};

}  // namespace routerd
