// leitch-routerd: a simulated router that Leitch clients drive over TCP,
// through the converter plug-in loaded exactly as the framework loads it.

#include <signal.h>
#include <sys/resource.h>

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "sim/config.h"
#include "sim/log.h"
#include "host/plugin_library.h"
#include "sim/server.h"

namespace {

// Exit code for anything that stops the simulator from starting.
constexpr int kCannotStart = 2;

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

std::string format_endpoint(const boost::asio::ip::tcp::endpoint& endpoint) {
    const auto address = endpoint.address();
    const std::string host = address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
    return host + ":" + std::to_string(endpoint.port());
}

// A reader of standard error that goes away must not end the simulator: the
// log only loses its lines. Nor must a log file that reaches its size limit.
void ignore_signals_about_the_log() {
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN);
}

// Every client needs a descriptor: take all the system allows this process.
void raise_open_file_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"leitch-routerd: a router simulator that Leitch clients (panels, automation, telnet)\n"
                 "drive over TCP, telnet and serial ports through the Leitch pass-through converter plug-in."};
    std::string config_path;
    std::string listen;
    std::vector<std::string> serials;
    std::string plugin_path;
    std::string record_directory;
    std::string state_file;
    bool fresh_state = false;
    bool verbose = false;
    std::string http;
    bool http_readonly = false;
    const std::string installed_config = default_config_path();
    app.add_option("-c,--config", config_path,
                   "TOML configuration file (default: " +
                       (installed_config.empty() ? std::string("built-in router") : installed_config) + ")");
    app.add_option("-l,--listen", listen, "address of one plain TCP listener, HOST:PORT, instead of the "
                                          "configuration's; port 0 picks a free port (default 127.0.0.1:2323)");
    app.add_option("--serial", serials,
                   "serve a client on this serial port, DEVICE[:BAUD[,FORMAT[,rtscts]]], for example "
                   "/dev/ttyUSB0:38400,8N1; repeatable, instead of the configuration's ports "
                   "(default 38400,8N1, no flow control)")
        ->take_all();
    app.add_option("-p,--plugin", plugin_path, "converter library to load (default: " + default_plugin_path() + ")");
    app.add_option("--http", http, "web view and HTTP API address, HOST:PORT, or \"off\"; port 0 picks a free port "
                                   "(default 127.0.0.1:8080)")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.add_flag("--http-readonly", http_readonly, "the web view and the HTTP API refuse every change");
    app.add_flag("-v,--verbose", verbose, "log every line received and every reply, per client");
    app.add_option("-s,--state", state_file,
                   "keep the crosspoints and locks in this SQLite file across restarts");
    app.add_flag("--fresh-state", fresh_state,
                 "forget what the state file holds and start from the configuration");
    app.add_option("-r,--record", record_directory,
                   "write every client link's session to a transcript file in this directory "
                   "(play it back with leitch-replay)");
    app.set_version_flag("--version", std::string("leitch-routerd ") + LEITCH_ROUTERD_VERSION);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? 0 : kCannotStart;
    }

    ignore_signals_about_the_log();
    raise_open_file_limit();
    routerd::Log log(verbose);
    try {
        // A --config that names nothing is an error, not the built-in router.
        if (app.count("--config") == 0) config_path = installed_config;
        routerd::SimulatorConfig config = app.count("--config") == 0 && config_path.empty()
                                              ? routerd::builtin_config()
                                              : routerd::load_config(config_path);
        if (!listen.empty()) {
            try {
                routerd::parse_listen(listen);
            } catch (const std::invalid_argument& e) {
                throw routerd::ListenError("--listen: " + std::string(e.what()));
            }
            config.listeners = {{listen, {}}};
        }
        if (!serials.empty()) {
            config.serials.clear();
            for (const std::string& serial : serials) {
                try {
                    config.serials.push_back(routerd::parse_serial(serial));
                } catch (const std::invalid_argument& e) {
                    throw routerd::SerialError("--serial " + serial + ": " + e.what());
                }
            }
        }
        if (!plugin_path.empty()) config.plugin_path = plugin_path;
        if (!http.empty()) {
            if (http != "off") {
                try {
                    routerd::parse_listen(http);
                } catch (const std::invalid_argument& e) {
                    throw routerd::ListenError("--http: " + std::string(e.what()) + " or \"off\"");
                }
            }
            config.web.listen = http;
            config.web.listen_named = true;
        }
        if (http_readonly) config.web.readonly = true;
        if (config.plugin_path.empty()) config.plugin_path = default_plugin_path();
        if (!record_directory.empty()) config.record.directory = record_directory;
        if (!state_file.empty()) config.state_file = state_file;
        config.fresh_state = fresh_state;
        if (!config.record.directory.empty()) routerd::prepare_record_directory(config.record.directory);

        auto plugin = plugin_host::PluginLibrary::load(config.plugin_path);
        routerd::Server server(config, plugin, log);
        plugin.reset();  // the sessions' context holds the library from here on

        log.info("router from " + config.origin + ": " + std::to_string(config.levels.size()) +
                 " level(s); plug-in " + config.plugin_path);
        log.capture_standard_error();
        // Scripts and tests wait for these lines; the first listener's stays
        // the first on standard output.
        for (const auto& listener : server.listeners()) {
            const std::string settings = listener->config().link.describe();
            std::printf("listening on %s%s\n", format_endpoint(listener->local_endpoint()).c_str(),
                        settings.empty() ? "" : (" (" + settings + ")").c_str());
        }
        for (const auto& serial : server.serial_links())
            std::printf("serial port %s (%s)\n", serial->settings().device.c_str(),
                        serial->settings().describe().c_str());
        if (const auto web = server.web_endpoint())
            std::printf("web view on http://%s/\n", format_endpoint(*web).c_str());
        std::fflush(stdout);
        server.run();
        log.info("stopped");
        log.flush();
        return 0;
    } catch (const routerd::StateError& e) {
        std::cerr << "leitch-routerd: state error: " << e.what() << '\n';
    } catch (const routerd::ConfigError& e) {
        std::cerr << "leitch-routerd: configuration error: " << e.what() << '\n';
    } catch (const plugin_host::PluginError& e) {
        std::cerr << "leitch-routerd: " << e.what() << '\n';
    } catch (const routerd::ListenError& e) {
        std::cerr << "leitch-routerd: " << e.what() << '\n';
    } catch (const routerd::SerialError& e) {
        std::cerr << "leitch-routerd: " << e.what() << '\n';
    }
    return kCannotStart;
}
