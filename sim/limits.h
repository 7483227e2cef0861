#pragma once

#include <cstddef>

namespace routerd {

// What one client may cost the simulator. Passing a bound disconnects that
// client only, with a log line.
struct Limits {
    std::size_t max_clients = 16;
    std::size_t max_line_bytes = 64 * 1024;       // received without a CR or LF
    std::size_t max_output_bytes = 1024 * 1024;   // waiting for a client that does not read
};

}  // namespace routerd
