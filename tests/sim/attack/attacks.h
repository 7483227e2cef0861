#pragma once

// The attacks on leitch-routerd, and one run of an attack: an observer in
// report mode and a reading client watch while a crowd of hostile clients
// attacks for a while; then the attackers leave and the simulator settles.

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "clients.h"
#include "support/routerd.h"

namespace attack {

// The built-in router: 2 levels of 32 by 32.
Router builtin_router();
// 16 levels of 1152 by 1152, the size of the largest broadcast routers.
Router large_router();

// A configuration file for `router`: the [server] section given as
// `server_keys` (one "key = value" a line), then the levels (none for the
// built-in router, which keeps its own).
std::string router_config(const Router& router, const std::string& server_keys);

enum class AttackKind {
    z_packets,              // many "@ Z:0" lines in each packet
    z_long_lines,           // "@ Z:000...0": one level character after another
    refused_presets,        // "@ P:" on many levels to destinations out of range
    status_lines,           // lines of "@ S?0000000000000000;" (a full level status 16 times each)
    status_lines_reporting, // the same from clients in report mode
    take_flood,             // four clients pipelining ordinary takes
    sleepers,               // report-mode clients that ask for output and never read
    churn,                  // connecting and disconnecting in a loop
    overlong_line,          // bytes without a line end, past the line limit
};

struct CrowdPlan {
    int count = 0;
    Behaviour behaviour;
};

struct AttackPlan {
    AttackKind kind;
    std::string name;
    std::vector<CrowdPlan> crowds;
};

std::vector<AttackKind> all_attacks();
std::string attack_name(AttackKind kind);

// `hostiles` clients in all (where the attack has a crowd of its own size, it
// keeps it); long lines have `line_bytes` bytes with their line end.
AttackPlan plan(AttackKind kind, const Router& router, std::size_t line_bytes, int hostiles = 15);

struct RunOptions {
    std::chrono::milliseconds attack_time = 3s;
    // After the attackers leave: how long the observer goes on taking.
    std::chrono::milliseconds settle_time = 1s;
    // Above this the simulator is killed, so that a run never takes the machine down.
    long memory_cap_kib = 4L * 1024 * 1024;
    bool with_reader = true;
};

struct RunResult {
    bool started = false;         // the observer and the reader were served before the attack
    Latency latency;
    bool observer_dropped = false;
    bool reader_dropped = false;
    simtest::Memory start;        // before the attack
    long peak_kib = -1;           // VmHWM at the end of the attack
    long final_kib = -1;          // VmRSS after the settle time
    std::size_t log_bytes = 0;    // written during the run
    std::size_t log_lines = 0;
    std::size_t hostile_connections = 0;
    std::size_t hostiles_closed_by_server = 0;
    bool killed_for_memory = false;
    bool server_died = false;     // it ended by itself during the run
    double seconds = 0;           // how long the whole run took
};

RunResult run_attack(simtest::Routerd& server, const Router& router, const AttackPlan& plan, const RunOptions& options);

}  // namespace attack
