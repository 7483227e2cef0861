#include "sim/limits.h"

#include <algorithm>

namespace routerd {

namespace {

// One report as the converter writes it ("\r\nV:" and level, destination and
// source in hexadecimal), with room to spare.
constexpr std::size_t kReportBytes = 24;
// Echo and prompts of one byte of input, at most.
constexpr std::size_t kReplyBytesPerByte = 8;
// A report of a router change and its prompt ("\r\nW!" carries the owner too).
constexpr std::size_t kChangeBytes = 32;

std::size_t budget_for_one_event(const Limits& limits) {
    return kClientOutputBudget > limits.max_output_bytes ? kClientOutputBudget - limits.max_output_bytes : 0;
}

}  // namespace

std::size_t logging_in_per_address(const Limits& limits) {
    const std::size_t clients = std::max<std::size_t>(limits.max_clients, 1);
    const std::size_t share = (limits.max_clients_logging_in * limits.max_clients_per_address + clients - 1) / clients;
    return std::max<std::size_t>(share, 1);
}

std::size_t answer_bytes(std::size_t largest_level, std::size_t max_line_bytes) {
    return (kInputSliceBytes + max_line_bytes) * (largest_level * kReportBytes + kReplyBytesPerByte);
}

std::size_t frame_bytes(std::size_t total_destinations) { return 2 * total_destinations * kChangeBytes; }

std::size_t output_bound(const Limits& limits, const std::vector<LevelSpec>& levels) {
    std::size_t largest = 0;
    std::size_t total = 0;
    for (const LevelSpec& level : levels) {
        largest = std::max(largest, static_cast<std::size_t>(level.destinations));
        total += static_cast<std::size_t>(level.destinations);
    }
    return limits.max_output_bytes + std::max(answer_bytes(largest, limits.max_line_bytes), frame_bytes(total));
}

std::size_t report_room(const Limits& limits, const std::vector<LevelSpec>& levels) {
    std::size_t total = 0;
    for (const LevelSpec& level : levels) total += static_cast<std::size_t>(level.destinations);
    return std::max(limits.max_output_bytes, frame_bytes(total));
}

std::size_t most_destinations_per_level(const Limits& limits) {
    const std::size_t per_byte = budget_for_one_event(limits) / (kInputSliceBytes + limits.max_line_bytes);
    return per_byte > kReplyBytesPerByte ? (per_byte - kReplyBytesPerByte) / kReportBytes : 0;
}

std::size_t most_destinations_in_all(const Limits& limits) {
    return budget_for_one_event(limits) / (2 * kChangeBytes);
}

}  // namespace routerd
