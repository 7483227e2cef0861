// The transcript parser, which the tests, the fuzz seeds and leitch-replay
// share, on arbitrary bytes: a file parses, or its first problem is thrown as
// std::runtime_error; nothing else may happen.

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>

#include "host/transcript.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    try {
        plugin_host::parse_transcript(in, "input");
    } catch (const std::runtime_error&) {
        // A malformed file, refused with its line: what leitch-replay reports.
    }
    return 0;
}
