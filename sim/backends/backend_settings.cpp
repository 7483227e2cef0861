#include "sim/backends/backend_settings.h"

#include <stdexcept>

#include "sim/links/endpoint.h"

namespace routerd {

const char* protocol_name(BackendSettings::Protocol protocol) {
    switch (protocol) {
        case BackendSettings::Protocol::simulated: return "simulated";
        case BackendSettings::Protocol::videohub: return "videohub";
        case BackendSettings::Protocol::swp08: return "swp08";
    }
    return "?";
}

RouterAddress parse_router_address(BackendSettings::Protocol protocol, const std::string& text) {
    const std::string serial = "serial:";
    RouterAddress address;
    if (text.compare(0, serial.size(), serial) == 0) {
        if (protocol != BackendSettings::Protocol::swp08)
            throw std::invalid_argument("a Videohub router is reached over TCP only, not \"" + text + "\"");
        address.serial = parse_serial(text.substr(serial.size()));
        return address;
    }
    const ListenAddress endpoint = parse_listen(text);
    if (endpoint.port == 0) throw std::invalid_argument("a router's port cannot be 0");
    address.host = endpoint.host;
    address.port = std::to_string(endpoint.port);
    return address;
}

BackendSettings parse_backend(const std::string& text) {
    if (text == "simulated") return {};
    BackendSettings settings;
    for (const auto protocol : {BackendSettings::Protocol::videohub, BackendSettings::Protocol::swp08}) {
        const std::string prefix = std::string(protocol_name(protocol)) + ":";
        if (text.compare(0, prefix.size(), prefix) != 0) continue;
        settings.protocol = protocol;
        settings.router = parse_router_address(protocol, text.substr(prefix.size()));
        return settings;
    }
    throw std::invalid_argument("expected \"simulated\", videohub:HOST:PORT, swp08:HOST:PORT or "
                                "swp08:serial:DEVICE[:BAUD[,FORMAT]], got \"" + text + "\"");
}

}  // namespace routerd
