#include "sim/leitch_levels.h"

#include <cstdlib>

namespace routerd {

namespace {

// A client names a level with one hex digit.
constexpr int kLeitchLevels = 16;

std::string setting(const std::map<std::string, std::string>& converter, const std::string& key) {
    const auto found = converter.find(key);
    return found == converter.end() ? std::string() : found->second;
}

// Cuts the next comma-separated token off the front of `list`. A trailing
// comma leaves no empty token behind it.
std::string next_token(std::string& list) {
    const auto comma = list.find(',');
    std::string token = list.substr(0, comma);
    list.erase(0, comma == std::string::npos ? list.size() : comma + 1);
    return token;
}

}  // namespace

std::map<int, int> leitch_levels(const std::map<std::string, std::string>& converter) {
    std::string mapping = setting(converter, "level_mapping_video");
    std::string control = setting(converter, "level_control_video");
    std::map<int, int> leitch_of;  // host level -> Leitch level
    std::map<int, int> host_of;    // Leitch level -> host level
    // The n-th token is Leitch level n. A token is read as atoi reads it
    // (leading blanks skipped, digits up to the first other character, none:
    // 0), and a host level listed twice is seen as the later Leitch level.
    for (int level = 0; !mapping.empty() && level < kLeitchLevels; ++level) {
        const int host = std::atoi(next_token(mapping).c_str());
        leitch_of[host] = level;
        host_of[level] = host;
    }
    // A Leitch level whose flag is anything but exactly "on" is switched off,
    // and with it whatever Leitch level its host level was seen as.
    for (int level = 0; !control.empty(); ++level) {
        if (next_token(control) == "on") continue;
        const auto controlled = host_of.find(level);
        if (controlled == host_of.end()) continue;
        leitch_of.erase(controlled->second);
        host_of.erase(controlled);
    }
    return leitch_of;
}

}  // namespace routerd
