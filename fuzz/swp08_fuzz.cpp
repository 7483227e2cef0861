// The SW-P-08 codec on whatever a router might send: the link's receiver and
// every message it passes on read, never crashing, hanging or holding more
// than one frame; and cutting the bytes anywhere must change nothing (a
// router's frames arrive in any TCP segments or serial reads).

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <variant>
#include <vector>

#include "sim/backends/swp08_codec.h"

namespace {

using routerd::swp08::Link;
using routerd::swp08::LinkOutput;

// What the link read and answered, and how each message decoded, as one string.
std::string read(const uint8_t* data, std::size_t size, std::size_t cut) {
    Link link;
    LinkOutput out;
    const auto now = Link::Clock::time_point{};
    link.receive(data, cut, now, out);
    link.receive(data + cut, size - cut, now, out);
    std::string outcome = out.write;
    for (const auto& message : out.messages) {
        outcome += routerd::swp08::hex(message);
        outcome += static_cast<char>(routerd::swp08::decode(message).index());
    }
    for (const std::string& bad : out.bad) outcome += bad;
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (read(data, size, size) != read(data, size, size / 2)) std::abort();
    return 0;
}
