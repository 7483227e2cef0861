#include "sim/backends/backend_settings.h"

#include <stdexcept>

#include "sim/links/endpoint.h"

namespace routerd {

BackendSettings parse_backend(const std::string& text) {
    const std::string videohub = "videohub:";
    if (text == "simulated") return {};
    if (text.compare(0, videohub.size(), videohub) != 0)
        throw std::invalid_argument("expected \"simulated\" or videohub:HOST:PORT, got \"" + text + "\"");
    const ListenAddress address = parse_listen(text.substr(videohub.size()));
    if (address.port == 0) throw std::invalid_argument("a router's port cannot be 0");
    BackendSettings settings;
    settings.protocol = BackendSettings::Protocol::videohub;
    settings.host = address.host;
    settings.port = std::to_string(address.port);
    return settings;
}

}  // namespace routerd
