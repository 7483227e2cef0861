// leitch-routerd: a simulated router that Leitch clients drive over TCP,
// through the converter plug-in loaded exactly as the framework loads it.

#include <signal.h>
#include <sys/resource.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <variant>

#include "host/plugin_library.h"
#include "sim/command_line.h"
#include "sim/links/endpoint.h"
#include "sim/log.h"
#include "sim/server.h"
#include "sim/startup_error.h"

namespace {

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

// The loader is every host's; only here does its failure stop a start-up.
std::shared_ptr<plugin_host::PluginLibrary> load_plugin(const std::string& path) {
    try {
        return plugin_host::PluginLibrary::load(path);
    } catch (const plugin_host::PluginError& e) {
        throw routerd::StartupError(e.what());
    }
}

// Scripts and tests wait for these lines; the first listener's stays the
// first on standard output.
void print_addresses(const routerd::Server& server) {
    for (const auto& listener : server.listeners()) {
        const std::string settings = listener->config().link.describe();
        std::printf("listening on %s%s\n", routerd::format_endpoint(listener->local_endpoint()).c_str(),
                    settings.empty() ? "" : (" (" + settings + ")").c_str());
    }
    for (const auto& serial : server.serial_links())
        std::printf("serial port %s (%s)\n", serial->settings().device.c_str(), serial->settings().describe().c_str());
    if (const auto web = server.web_endpoint())
        std::printf("web view on http://%s/\n", routerd::format_endpoint(*web).c_str());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    const auto command_line = routerd::read_command_line(argc, argv);
    if (const int* exit_code = std::get_if<int>(&command_line)) return *exit_code;
    const auto& options = std::get<routerd::CommandLine>(command_line);

    ignore_signals_about_the_log();
    raise_open_file_limit();
    routerd::Log log(options.verbose);
    try {
        const routerd::SimulatorConfig config = routerd::configuration_for(options);
        auto plugin = load_plugin(config.plugin_path);
        routerd::Server server(config, plugin, log);
        plugin.reset();  // the sessions' context holds the library from here on

        log.info("router from " + config.origin + ": " + std::to_string(config.levels.size()) +
                 " level(s); plug-in " + config.plugin_path);
        log.capture_standard_error();
        print_addresses(server);
        if (const std::string router = server.connect_router(); !router.empty()) {
            std::printf("%s\n", router.c_str());
            std::fflush(stdout);
        }
        const int status = server.run();
        log.info("stopped");
        log.flush();
        return status;
    } catch (const routerd::StartupError& e) {
        std::cerr << "leitch-routerd: " << e.heading() << e.what() << '\n';
    }
    return routerd::kCannotStart;
}
