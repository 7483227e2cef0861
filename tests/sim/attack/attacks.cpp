#include "attacks.h"

#include <signal.h>

#include <cstdio>
#include <memory>

namespace attack {

namespace {

std::string hex(int value) {
    char text[16];
    std::snprintf(text, sizeof text, "%X", value);
    return text;
}

std::string repeated(const std::string& piece, std::size_t times) {
    std::string text;
    text.reserve(piece.size() * times);
    for (std::size_t i = 0; i < times; ++i) text += piece;
    return text;
}

// Ordinary takes on level 0 (never the observer's level), 256 to a packet.
// Consecutive takes of one destination name different sources, so every take
// is a change.
std::vector<std::string> take_packets(const Router& router) {
    std::vector<std::string> packets;
    for (int packet = 0; packet < 8; ++packet) {
        std::string text;
        for (int line = 0; line < 256; ++line) {
            const int take = packet * 256 + line;
            const int destination = take % router.destinations;
            const int source = (take / router.destinations + take * 7 + packet) % router.sources;
            text += "@ X:0/" + hex(destination) + "," + hex(source) + "\r";
        }
        packets.push_back(text);
    }
    return packets;
}

Behaviour sender(std::vector<std::string> packets, std::string greeting = "") {
    Behaviour behaviour;
    behaviour.greeting = std::move(greeting);
    behaviour.packets = std::move(packets);
    return behaviour;
}

}  // namespace

Router builtin_router() { return Router{"built-in 2 x 32 x 32", 2, 32, 32}; }

Router large_router() { return Router{"large 16 x 1152 x 1152", 16, 1152, 1152}; }

std::string router_config(const Router& router, const std::string& server_keys) {
    std::string text = "[server]\n" + server_keys;
    if (router.name == builtin_router().name) return text;
    text += "\n[plugin.config]\ndevice_id = \"1\"\nlevel_mapping_video = \"";
    for (int level = 0; level < router.levels; ++level) text += (level ? "," : "") + std::to_string(level);
    text += "\"\n";
    for (int level = 0; level < router.levels; ++level) {
        text += "\n[[level]]\nnumber = " + std::to_string(level) + "\nsources = " + std::to_string(router.sources) +
                "\ndestinations = " + std::to_string(router.destinations) + "\n";
    }
    return text;
}

std::vector<AttackKind> all_attacks() {
    return {AttackKind::z_packets,    AttackKind::z_long_lines, AttackKind::refused_presets,
            AttackKind::status_lines, AttackKind::status_lines_reporting, AttackKind::take_flood,
            AttackKind::sleepers,     AttackKind::churn,        AttackKind::overlong_line};
}

std::string attack_name(AttackKind kind) {
    switch (kind) {
        case AttackKind::z_packets: return "\"@ Z:0\" lines, many to a packet";
        case AttackKind::z_long_lines: return "\"@ Z:000…\" lines of level characters";
        case AttackKind::refused_presets: return "\"@ P:000…/FFFF,1/FFFF,1…\" refused presets";
        case AttackKind::status_lines: return "lines of \"@ S?0000000000000000;\"";
        case AttackKind::status_lines_reporting: return "lines of \"@ S?0000000000000000;\", report mode";
        case AttackKind::take_flood: return "take flood, 4 pipelining clients";
        case AttackKind::sleepers: return "report-mode clients that never read";
        case AttackKind::churn: return "connection churn";
        case AttackKind::overlong_line: return "lines past the line limit";
    }
    return "?";
}

AttackPlan plan(AttackKind kind, const Router& router, std::size_t line_bytes, int hostiles) {
    AttackPlan result{kind, attack_name(kind), {}};
    const std::size_t room = line_bytes - 1;  // bytes before the line end
    switch (kind) {
        case AttackKind::z_packets: {
            // A 48-byte packet on a large router resets 9,216 destinations;
            // on a small one it takes a 7.5 KB packet to do as much harm.
            const std::size_t lines = router.destinations > 256 ? 8 : 1250;
            result.crowds.push_back({hostiles, sender({repeated("@ Z:0\r", lines)})});
            break;
        }
        case AttackKind::z_long_lines:
            result.crowds.push_back({hostiles, sender({"@ Z:" + std::string(room - 4, '0') + "\r"})});
            break;
        case AttackKind::refused_presets: {
            // Every level character meets every group: levels x groups presets.
            const std::size_t levels = (room - 4) / 2;
            const std::size_t groups = (room - 4 - levels) / 7;
            result.crowds.push_back(
                {hostiles, sender({"@ P:" + std::string(levels, '0') + repeated("/FFFF,1", groups) + "\r"})});
            break;
        }
        case AttackKind::status_lines:
        case AttackKind::status_lines_reporting: {
            const std::string status = "@ S?0000000000000000";
            const std::size_t commands = (room + 1) / (status.size() + 1);
            std::string line = repeated(status + ";", commands);
            line.back() = '\r';
            result.crowds.push_back(
                {hostiles, sender({line}, kind == AttackKind::status_lines_reporting ? "@ ?\r" : "")});
            break;
        }
        case AttackKind::take_flood:
            result.crowds.push_back({4, sender(take_packets(router))});
            break;
        case AttackKind::sleepers: {
            // Each asks for far more than the output bound (16 full level
            // statuses a line) and never reads; two more clients keep the
            // router changing.
            Behaviour sleeper = sender({repeated("@ S?0000000000000000\r", 2000)}, "@ ?\r");
            sleeper.repeat = false;
            sleeper.reads = false;
            sleeper.receive_buffer = 4096;
            result.crowds.push_back({hostiles - 2, sleeper});
            result.crowds.push_back({2, sender(take_packets(router))});
            break;
        }
        case AttackKind::churn: {
            Behaviour churner = sender({}, "@ ?\r");
            churner.churn = true;
            result.crowds.push_back({hostiles, churner});
            break;
        }
        case AttackKind::overlong_line: {
            // Past any line limit the simulator has had (64 KiB).
            Behaviour flooder = sender({std::string(70 * 1024, 'A')});
            flooder.repeat = false;
            result.crowds.push_back({hostiles, flooder});
            break;
        }
    }
    return result;
}

RunResult run_attack(simtest::Routerd& server, const Router& router, const AttackPlan& attack, const RunOptions& options) {
    const auto began = Clock::now();
    RunResult result;
    Observer observer(server.port(), router);
    Reader reader(server.port());
    if (!observer.start() || (options.with_reader && !reader.start())) return result;
    result.started = true;
    std::this_thread::sleep_for(300ms);
    result.start = server.memory();
    const std::size_t log_bytes_before = server.log_bytes();
    const std::size_t log_lines_before = server.log_lines();

    std::vector<std::unique_ptr<Crowd>> crowds;
    for (const CrowdPlan& crowd : attack.crowds) {
        crowds.push_back(std::make_unique<Crowd>(server.port(), crowd.count, crowd.behaviour));
        crowds.back()->start();
    }
    const auto watch = [&](Clock::time_point until) {
        while (Clock::now() < until) {
            if (!server.running()) {
                result.server_died = true;
                return;
            }
            const simtest::Memory now = server.memory();
            if (now.resident_kib > options.memory_cap_kib) {
                result.peak_kib = now.peak_kib;
                result.killed_for_memory = true;
                kill(server.pid(), SIGKILL);
                return;
            }
            std::this_thread::sleep_for(20ms);
        }
    };
    watch(Clock::now() + options.attack_time);
    for (auto& crowd : crowds) {
        crowd->stop();
        result.hostile_connections += crowd->connections();
        result.hostiles_closed_by_server += crowd->closed_by_server();
    }
    if (!result.killed_for_memory && !result.server_died) watch(Clock::now() + options.settle_time);
    observer.stop();
    reader.stop();

    result.latency = observer.latency();
    result.observer_dropped = observer.disconnected();
    result.reader_dropped = options.with_reader && reader.disconnected();
    if (!result.killed_for_memory && server.running()) {
        const simtest::Memory end = server.memory();
        result.peak_kib = end.peak_kib;
        result.final_kib = end.resident_kib;
    }
    result.log_bytes = server.log_bytes() - log_bytes_before;
    result.log_lines = server.log_lines() - log_lines_before;
    result.seconds = std::chrono::duration<double>(Clock::now() - began).count();
    return result;
}

}  // namespace attack
