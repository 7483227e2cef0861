#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

#include "sim/router/router.h"

namespace routerd {

// What one client may cost the simulator. Passing a bound disconnects that
// client only, with a log line.
struct Limits {
    // Clients on TCP ports at once (raw, and telnet or login clients once
    // they have logged in); serial ports do not count.
    std::size_t max_clients = 16;
    // Of these, the most one client address may hold (half, rounded up, unless
    // configured), so that no single address can lock the others out.
    std::size_t max_clients_per_address = 8;
    // Clients at a login prompt, which do not count against max_clients until
    // they have logged in (half of max_clients, rounded up, unless configured).
    std::size_t max_clients_logging_in = 8;
    // Received without a CR or LF. Real routers cut lines at a few hundred characters.
    std::size_t max_line_bytes = 1024;
    // High-water mark of a client's waiting output (what the socket has not
    // taken yet): above it, the client's own input waits until it drains.
    std::size_t max_output_bytes = 1024 * 1024;
    // A client whose waiting output has not moved for this long does not read.
    std::chrono::milliseconds output_timeout{10000};
};

// The most clients at a login prompt one address may hold: the same share of
// max_clients_logging_in as max_clients_per_address is of max_clients (at least one).
std::size_t logging_in_per_address(const Limits& limits);

// A client's input is handed to its converter instance in slices of about
// this many bytes (plus the end of a line), one slice per event, so that a
// burst from one client does not hold up the others.
constexpr std::size_t kInputSliceBytes = 256;

// The most one client's waiting output may hold, whatever the configuration.
constexpr std::size_t kClientOutputBudget = 64 * 1024 * 1024;

// The most output one event can give one client that does not bloat its own
// tables: the answers to one slice of input (every byte naming at most one
// whole level, as "@ V?" does), or the reports of one frame of router changes
// (at most a crosspoint and a lock per destination).
std::size_t answer_bytes(std::size_t largest_level, std::size_t max_line_bytes);
std::size_t frame_bytes(std::size_t total_destinations);

// Output a client may have waiting before it is disconnected as one that reads
// slower than the router changes: the high-water mark plus one event.
std::size_t output_bound(const Limits& limits, const std::vector<LevelSpec>& levels);

// Router reports that may wait for a client besides its own answers before it
// counts as reading slower than the router changes: the mark, or one frame.
std::size_t report_room(const Limits& limits, const std::vector<LevelSpec>& levels);

// The router sizes whose output bound stays within kClientOutputBudget.
std::size_t most_destinations_per_level(const Limits& limits);
std::size_t most_destinations_in_all(const Limits& limits);

}  // namespace routerd
