#include "sim/command_line.h"

#include <filesystem>
#include <stdexcept>

#include <CLI/CLI.hpp>

#include "sim/links/endpoint.h"
#include "sim/links/serial_link.h"
#include "sim/links/serial_settings.h"
#include "sim/startup_error.h"

namespace routerd {

namespace {

// The program the build produced uses the plug-in built beside it and, without
// --config, the built-in router; an installed one (any other copy) uses the
// installed plug-in and the installed configuration file, if there is one.
bool running_from_build_tree() {
    std::error_code ignored;
    const auto self = std::filesystem::canonical("/proc/self/exe", ignored);
    return !self.empty() && std::filesystem::equivalent(self, LEITCH_ROUTERD_BUILT_EXECUTABLE, ignored);
}

std::string default_plugin_path() {
    return running_from_build_tree() ? LEITCH_ROUTERD_BUILT_PLUGIN : LEITCH_ROUTERD_INSTALLED_PLUGIN;
}

// Empty: the built-in router.
std::string default_config_path() {
    if (running_from_build_tree()) return {};
    std::error_code ignored;
    return std::filesystem::exists(LEITCH_ROUTERD_INSTALLED_CONFIG, ignored) ? LEITCH_ROUTERD_INSTALLED_CONFIG
                                                                             : std::string();
}

void declare_options(CLI::App& app, CommandLine& options, std::string& config_path) {
    app.add_option("-c,--config", config_path,
                   "TOML configuration file (default: " +
                       (options.default_config_path.empty() ? std::string("built-in router")
                                                            : options.default_config_path) +
                       ")");
    app.add_option("-l,--listen", options.listen,
                   "address of one plain TCP listener, HOST:PORT, instead of the "
                   "configuration's; port 0 picks a free port (default 127.0.0.1:2323)");
    app.add_option("--serial", options.serials,
                   "serve a client on this serial port, DEVICE[:BAUD[,FORMAT[,rtscts]]], for example "
                   "/dev/ttyUSB0:38400,8N1; repeatable, instead of the configuration's ports "
                   "(default 38400,8N1, no flow control)")
        ->take_all();
    app.add_option("-p,--plugin", options.plugin_path,
                   "converter library to load (default: " + options.default_plugin_path + ")");
    app.add_option("--http", options.http,
                   "web view and HTTP API address, HOST:PORT, or \"off\"; port 0 picks a free port "
                   "(default 127.0.0.1:8080)")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.add_flag("--http-readonly", options.http_readonly, "the web view and the HTTP API refuse every change");
    app.add_flag("-v,--verbose", options.verbose, "log every line received and every reply, per client");
    app.add_option("-s,--state", options.state_file,
                   "keep the crosspoints and locks in this SQLite file across restarts");
    app.add_flag("--fresh-state", options.fresh_state,
                 "forget what the state file holds and start from the configuration");
    app.add_option("-r,--record", options.record_directory,
                   "write every client link's session to a transcript file in this directory "
                   "(play it back with leitch-replay)");
    app.add_option("--record-max-total-bytes", options.record_max_total_bytes,
                   "bound on the bytes of all the recordings in the record directory, those already there "
                   "included; when it is reached, sessions are not recorded until the recordings take three "
                   "quarters of it or less (default 268435456)")
        ->check(CLI::Range(std::size_t{1024}, std::size_t{1} << 40));
    app.add_option("--backend", options.backend,
                   "the router that carries out the changes: \"simulated\" (the default), or a real one, "
                   "videohub:HOST:PORT (a Videohub router, usually on port 9990), swp08:HOST:PORT or "
                   "swp08:serial:DEVICE[:BAUD[,FORMAT]] (an SW-P-08 router); instead of the configuration's "
                   "[backend]. Without --config, a Videohub router's video outputs are level 0, sized by the router, "
                   "and an SW-P-08 router's matrix 0 levels 0 and 1 are the built-in two levels");
    app.set_version_flag("--version", std::string("leitch-routerd ") + LEITCH_ROUTERD_VERSION);
}

// An option whose value does not parse is named with what is wrong, as a
// configuration file's key is.
template <typename Error, typename Check>
void check_option(const std::string& option, const Check& check) {
    try {
        check();
    } catch (const std::invalid_argument& e) {
        throw Error(option + ": " + e.what());
    }
}

}  // namespace

std::variant<CommandLine, int> read_command_line(int argc, char** argv) {
    CLI::App app{"leitch-routerd: a router simulator that Leitch clients (panels, automation, telnet)\n"
                 "drive over TCP, telnet and serial ports through the Leitch pass-through converter plug-in."};
    CommandLine options;
    options.default_plugin_path = default_plugin_path();
    options.default_config_path = default_config_path();
    std::string config_path;
    declare_options(app, options, config_path);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? 0 : kCannotStart;
    }
    if (app.count("--config") > 0) options.config_path = config_path;
    return options;
}

SimulatorConfig configuration_for(const CommandLine& options) {
    // A --config that names nothing is an error, not the built-in router.
    const std::string path = options.config_path.value_or(options.default_config_path);
    SimulatorConfig config = !options.config_path && path.empty() ? builtin_config() : load_config(path);
    apply_command_line(config, options);
    if (!config.record.directory.empty()) prepare_record_directory(config.record.directory);
    return config;
}

void apply_command_line(SimulatorConfig& config, const CommandLine& options) {
    if (!options.listen.empty()) {
        check_option<ListenError>("--listen", [&] { parse_listen(options.listen); });
        config.listeners = {{options.listen, {}}};
        config.listeners.front().link.first_byte_timeout = config.first_byte_timeout;
    }
    if (!options.serials.empty()) {
        config.serials.clear();
        for (const std::string& serial : options.serials)
            check_option<SerialError>("--serial " + serial, [&] { config.serials.push_back(parse_serial(serial)); });
    }
    if (!options.plugin_path.empty()) config.plugin_path = options.plugin_path;
    if (!options.http.empty()) {
        check_option<ListenError>("--http", [&] { check_listen_or_off(options.http); });
        config.web.listen = options.http;
        config.web.listen_named = true;
    }
    if (options.http_readonly) config.web.readonly = true;
    if (config.plugin_path.empty()) config.plugin_path = options.default_plugin_path;
    if (!options.record_directory.empty()) config.record.directory = options.record_directory;
    if (options.record_max_total_bytes) config.record.max_total_bytes = *options.record_max_total_bytes;
    if (!options.state_file.empty()) config.state_file = options.state_file;
    config.fresh_state = options.fresh_state;
    if (!options.backend.empty()) apply_backend(config, options.backend);
}


}  // namespace routerd
