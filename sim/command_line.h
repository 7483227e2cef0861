#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "sim/config.h"

namespace routerd {

// The options of one run as given; an option left out is empty or false.
struct CommandLine {
    std::optional<std::string> config_path;  // --config, even an empty one
    std::string listen;                      // one plain listener instead of the configuration's
    std::vector<std::string> serials;        // serial ports instead of the configuration's
    std::string plugin_path;
    std::string http;                        // HOST:PORT or "off"
    bool http_readonly = false;
    bool verbose = false;
    std::string state_file;
    bool fresh_state = false;
    std::string record_directory;
    std::optional<std::size_t> record_max_total_bytes;
    std::string backend;  // videohub:HOST:PORT, or "simulated"
    // Where this copy of the program finds its plug-in and its configuration
    // when neither an option nor the file names one.
    std::string default_plugin_path;
    std::string default_config_path;  // empty: the built-in router
};

// Reads the options. For --help, --version or a mistake it prints what is due
// and gives the exit code instead.
std::variant<CommandLine, int> read_command_line(int argc, char** argv);

// The configuration of this run: the file (or the built-in router) with the
// options over it, and a record directory ready to write to. Throws
// ConfigError for the file, and ListenError or SerialError naming the option
// ("--http: ...").
SimulatorConfig configuration_for(const CommandLine& options);

// The options over a configuration already read.
void apply_command_line(SimulatorConfig& config, const CommandLine& options);

}  // namespace routerd
