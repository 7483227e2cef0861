#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "sim/backends/backend_settings.h"
#include "sim/limits.h"
#include "sim/links/link_settings.h"
#include "sim/links/serial_settings.h"
#include "sim/recording.h"
#include "sim/router/router.h"
#include "sim/router/state_store.h"
#include "sim/startup_error.h"

namespace routerd {

// A configuration file that cannot be used; the message names the file, the
// line and the key.
class ConfigError : public StartupError {
public:
    explicit ConfigError(const std::string& what) : StartupError(what, "configuration error: ") {}
};

struct InitialCrosspoint {
    int level, destination, source;
};

struct InitialLock {
    int level, destination, state;
};

// The web view: the page and the HTTP API, on an address of their own.
struct WebConfig {
    static constexpr const char* kDefaultListen = "127.0.0.1:8080";
    std::string listen = kDefaultListen;  // "off": no web view
    // Named in the file or on the command line: failing to bind it is an
    // error. The default address, when taken, only leaves the web view off.
    bool listen_named = false;
    bool readonly = false;  // the API and the page refuse every change (403)
    std::size_t max_pages = 16;
    // Of these, the most one client address may hold (half, rounded up, unless configured).
    std::size_t max_pages_per_address = 8;
    // Each page gets at most one message per interval; a display shows at most 60 pictures a second.
    std::chrono::milliseconds push_interval{33};
};

struct SimulatorConfig {
    std::string origin = "built-in default";  // the file it came from
    // TCP listeners; the default is one plain listener.
    std::vector<ListenerConfig> listeners{{"127.0.0.1:2323", {}}};
    std::vector<SerialSettings> serials;
    // [server] first_byte_timeout: for the TCP listeners that do not set
    // their own, --listen included.
    std::chrono::seconds first_byte_timeout = kDefaultFirstByteTimeout;
    std::string plugin_path;  // empty: the plug-in the build produced, or the installed one
    Limits limits;
    RecordSettings record;
    std::string state_file;     // empty: the router's state lives in memory only
    bool fresh_state = false;   // forget what the state file holds
    SalvoLimits salvo_limits;   // what saved routings may take of the state file
    std::map<std::string, std::string> converter;  // the converter's LoadConfig map
    std::vector<LevelSpec> levels;
    std::vector<InitialCrosspoint> crosspoints;
    std::vector<InitialLock> locks;
    WebConfig web;
    BackendSettings backend;  // simulated unless a real router is named
};

// The levels of a real router named on the command line alone: its video
// outputs as level 0, sized by the router.
void use_router_levels(SimulatorConfig& config);

// --backend over the configuration: "simulated", videohub:HOST:PORT or
// swp08:HOST:PORT (swp08:serial:DEVICE...); throws ConfigError naming the option.
// An SW-P-08 router serves the configured levels (the built-in two without a
// file), each where its [[level]] says, or matrix 0 and the level of its number.
void apply_backend(SimulatorConfig& config, const std::string& option);

// Two levels, 0 "video" and 1 "audio", of 32 sources by 32 destinations, seen
// by clients as Leitch levels 0 and 1 of device 1.
SimulatorConfig builtin_config();

// Reads a TOML file; throws ConfigError.
SimulatorConfig load_config(const std::string& path);

// Makes sure recordings can be written to the directory, creating it when
// missing; throws ConfigError naming it and the reason.
void prepare_record_directory(const std::string& directory);

}  // namespace routerd
