// Construction, lifecycle, configuration and the exported entry points.

#include <cstdlib>
#include <iostream>

#include "leitch/leitch_host.h"

const std::string LeitchHost::_Version = "0.02";

LeitchHost::LeitchHost(Interface* link)
    : commandDriver(nullptr),
      hostInterface(link),
      reportingEnabled(false),
      deviceId(1) {
    std::cerr << "Creating Leitch Passthrough host instance" << std::endl;
}

LeitchHost::~LeitchHost() = default;

const std::string& LeitchHost::GetVersion() { return _Version; }

void LeitchHost::SetCommandDriver(CommandDriver* driver) { commandDriver = driver; }

void LeitchHost::LevelList(std::list<LevelDesc>& levels, bool update) {
    if (!update) {
        seenLeitchLevel = -1;
        // A full list describes the whole router: what was known before is void.
        levelSize.clear();
        xpointStatus.clear();
        xpointPreset.clear();
        xpointLock.clear();
        presetLock.clear();
    }
    for (const LevelDesc& desc : levels) {
        const auto mapped = levelMapping.find(desc.level);
        if (mapped == levelMapping.end()) continue;  // not a level Leitch clients see
        levelSize[mapped->second] = {desc.sources, desc.destinations};
    }
}

namespace {

// Cut the next comma-separated token off the front of `list`.
std::string next_token(std::string& list) {
    const auto comma = list.find(',');
    std::string token = list.substr(0, comma);
    if (comma == std::string::npos) {
        list.clear();
    } else {
        list.erase(0, comma + 1);
    }
    return token;
}

}  // namespace

void LeitchHost::LoadConfig(const std::map<std::string, std::string>& config) {
    // Missing keys read as empty strings; the look-ups insert into a private copy.
    std::map<std::string, std::string> settings = config;
    seenLeitchLevel = -1;
    deviceId = std::atoi(settings["device_id"].c_str());
    std::string mapping = settings["level_mapping_video"];
    std::string control = settings["level_control_video"];

    // The n-th host level of the list is Leitch level n; there are 16 Leitch levels.
    for (int level = 0; !mapping.empty() && level <= 15; ++level) {
        const int host = std::atoi(next_token(mapping).c_str());
        levelMapping[host] = level;
        levelControl[level] = host;
    }
    // A level whose flag is anything but "on" is switched off for both directions.
    for (int level = 0; !control.empty(); ++level) {
        if (next_token(control) == "on") continue;
        const auto controlled = levelControl.find(level);
        if (controlled == levelControl.end()) continue;
        levelMapping.erase(controlled->second);
        levelControl.erase(controlled);
    }
}

extern "C" {

__attribute__((visibility("default"))) ProtocolConverter* create(Interface* link) {
    return new LeitchHost(link);
}

__attribute__((visibility("default"))) void destroy(LeitchHost* object) { delete object; }

}
