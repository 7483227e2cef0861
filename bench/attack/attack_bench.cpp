// leitch-attack-bench: every attack against leitch-routerd, one fresh
// simulator per attack and router, with an observer in report mode taking a
// crosspoint every 10 ms and a client that reads. Prints the markdown table
// "under attack": the observer's report latency, the simulator's peak and
// final memory, the reading clients dropped and the log written.
//
//   leitch-attack-bench --routerd PATH [--plugin PATH] [--router builtin|large|both]
//                       [--attack NAME]... [--seconds S] [--line-bytes N] [--hostiles N]
//                       [--server-key "KEY = VALUE"]...

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "attacks.h"

namespace {

using namespace attack;

const std::map<std::string, AttackKind> kAttacks = {
    {"z-packets", AttackKind::z_packets},
    {"z-lines", AttackKind::z_long_lines},
    {"presets", AttackKind::refused_presets},
    {"status", AttackKind::status_lines},
    {"status-report", AttackKind::status_lines_reporting},
    {"takes", AttackKind::take_flood},
    {"sleepers", AttackKind::sleepers},
    {"churn", AttackKind::churn},
    {"long-line", AttackKind::overlong_line},
};

struct Options {
    std::string routerd;
    std::string plugin;
    std::vector<Router> routers{builtin_router(), large_router()};
    std::vector<AttackKind> attacks = all_attacks();
    double seconds = 5;
    std::size_t line_bytes = 1000;
    int hostiles = 15;
    // Every client comes from 127.0.0.1.
    std::string server_keys = "max_clients = 24\nmax_clients_per_address = 24\n";
};

[[noreturn]] void usage(const std::string& problem) {
    std::cerr << "leitch-attack-bench: " << problem << "\n"
              << "usage: leitch-attack-bench --routerd PATH [--plugin PATH] [--router builtin|large|both]\n"
                 "       [--attack NAME]... [--seconds S] [--line-bytes N] [--hostiles N] [--server-key \"K = V\"]...\n"
                 "attacks:";
    for (const auto& [name, kind] : kAttacks) std::cerr << " " << name;
    std::cerr << "\n";
    std::exit(2);
}

Options parse(int argc, char** argv) {
    Options options;
    bool attacks_named = false;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (i + 1 >= argc) usage("missing value for " + option);
        const std::string value = argv[++i];
        if (option == "--routerd") {
            options.routerd = value;
        } else if (option == "--plugin") {
            options.plugin = value;
        } else if (option == "--router") {
            if (value == "builtin") options.routers = {builtin_router()};
            else if (value == "large") options.routers = {large_router()};
            else if (value != "both") usage("unknown router " + value);
        } else if (option == "--attack") {
            const auto found = kAttacks.find(value);
            if (found == kAttacks.end()) usage("unknown attack " + value);
            if (!attacks_named) options.attacks.clear();
            attacks_named = true;
            options.attacks.push_back(found->second);
        } else if (option == "--seconds") {
            options.seconds = std::stod(value);
        } else if (option == "--line-bytes") {
            options.line_bytes = std::stoul(value);
        } else if (option == "--hostiles") {
            options.hostiles = std::stoi(value);
        } else if (option == "--server-key") {
            options.server_keys += value + "\n";
        } else {
            usage("unknown option " + option);
        }
    }
    if (options.routerd.empty()) usage("--routerd is required");
    return options;
}

std::string megabytes(long kib) {
    if (kib < 0) return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", static_cast<double>(kib) / 1024.0);
    return text;
}

std::string milliseconds(double ms) {
    char text[32];
    if (ms >= 1000) std::snprintf(text, sizeof text, "%.2f s", ms / 1000.0);
    else std::snprintf(text, sizeof text, ms < 10 ? "%.2f" : "%.0f", ms);
    return text;
}

std::string bytes(std::size_t count) {
    char text[32];
    if (count >= 10 * 1024 * 1024) std::snprintf(text, sizeof text, "%.0f MB", static_cast<double>(count) / 1e6);
    else if (count >= 10 * 1024) std::snprintf(text, sizeof text, "%.0f KB", static_cast<double>(count) / 1e3);
    else std::snprintf(text, sizeof text, "%zu B", count);
    return text;
}

void print_row(const std::string& attack, const Router& router, const RunResult& result) {
    std::string p50, p99;
    if (!result.started) {
        p50 = p99 = "not served";
    } else if (result.observer_dropped) {
        p50 = p99 = "dropped";
    } else {
        p50 = milliseconds(result.latency.p50_ms);
        p99 = milliseconds(result.latency.p99_ms);
        if (result.latency.lost > 0)
            p99 = "> " + milliseconds(result.latency.max_ms) + " (" + std::to_string(result.latency.lost) + " unanswered)";
    }
    std::string peak = megabytes(result.peak_kib);
    std::string final = megabytes(result.final_kib);
    if (result.killed_for_memory) {
        peak = "> " + peak + " (killed)";
        final = "-";
    } else if (result.server_died) {
        final = "died";
    }
    const int dropped = result.observer_dropped + result.reader_dropped;
    std::cout << "| " << attack << " | " << router.name << " | " << p50 << " | " << p99 << " | " << peak << " | "
              << final << " | " << dropped << " | " << bytes(result.log_bytes) << " | "
              << result.hostiles_closed_by_server << " |" << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    const std::filesystem::path directory =
        std::filesystem::temp_directory_path() / ("leitch-attack-" + std::to_string(getpid()));
    std::filesystem::create_directories(directory);

    std::cout << "| attack | router | observer p50 ms | p99 ms | peak RSS MB | final RSS MB | readers dropped | log "
                 "| hostile clients closed |\n"
                 "|---|---|---:|---:|---:|---:|---:|---:|---:|"
              << std::endl;
    int status = 0;
    for (const AttackKind kind : options.attacks) {
        for (const Router& router : options.routers) {
            const std::string config = (directory / "routerd.toml").string();
            std::ofstream(config) << router_config(router, options.server_keys);
            simtest::RouterdOptions server_options{{"--config", config}, options.routerd};
            if (!options.plugin.empty()) {
                server_options.args.push_back("--plugin");
                server_options.args.push_back(options.plugin);
            }
            try {
                simtest::Routerd server(server_options);
                RunOptions run;
                run.attack_time = std::chrono::milliseconds(static_cast<long>(options.seconds * 1000));
                const RunResult result = run_attack(server, router, plan(kind, router, options.line_bytes, options.hostiles), run);
                print_row(attack_name(kind), router, result);
            } catch (const std::exception& error) {
                std::cerr << attack_name(kind) << ", " << router.name << ": " << error.what() << "\n";
                status = 1;
            }
        }
    }
    std::filesystem::remove_all(directory);
    return status;
}
