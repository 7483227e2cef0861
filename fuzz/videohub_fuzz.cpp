// The Videohub codec's reader on whatever a router might send: it must never
// crash, hang or grow past its bounds, and cutting the bytes anywhere must
// change nothing (a router's blocks arrive in any TCP segments).

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "sim/backends/videohub_codec.h"

namespace {

struct Outcome {
    std::size_t events = 0;
    std::string error;
};

Outcome read(std::string_view bytes, std::size_t cut) {
    routerd::videohub::Reader reader;
    Outcome outcome;
    for (const std::string_view piece : {bytes.substr(0, cut), bytes.substr(cut)}) {
        const auto received = reader.feed(piece);
        outcome.events += received.events.size();
        if (!received.error.empty()) outcome.error = received.error;
        // A line waiting for its end is held up to the line bound, not beyond.
        if (reader.buffered_bytes() > routerd::videohub::Reader::kMostLineBytes + 1) std::abort();
    }
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const Outcome whole = read(bytes, size);
    const Outcome cut = read(bytes, size / 2);
    if (whole.events != cut.events || whole.error != cut.error) std::abort();
    return 0;
}
