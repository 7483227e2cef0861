#include "sim/web/request_guard.h"

#include <charconv>
#include <string>

#include <boost/asio/ip/address.hpp>

namespace routerd::web {

bool host_allowed(std::string_view host, unsigned short port) {
    std::string_view name = host;
    std::string_view port_text;
    if (!name.empty() && name.front() == '[') {
        const std::size_t close = name.find(']');
        if (close == std::string_view::npos) return false;
        port_text = name.substr(close + 1);
        name = name.substr(1, close - 1);
        if (!port_text.empty() && port_text.front() != ':') return false;
        if (!port_text.empty()) port_text.remove_prefix(1);
    } else {
        const std::size_t colon = name.rfind(':');
        if (colon != std::string_view::npos) {
            port_text = name.substr(colon + 1);
            name = name.substr(0, colon);
        }
    }
    unsigned long number = 80;  // no port: the scheme's
    if (!port_text.empty() || host.find(':') != std::string_view::npos) {
        const auto [end, ec] = std::from_chars(port_text.data(), port_text.data() + port_text.size(), number);
        if (ec != std::errc() || end != port_text.data() + port_text.size()) return false;
    }
    if (number != port) return false;
    if (name == "localhost") return true;
    boost::system::error_code ec;
    boost::asio::ip::make_address(std::string(name), ec);
    return !ec;
}

bool origin_allowed(std::string_view origin, bool has_origin, std::string_view host) {
    if (!has_origin) return true;
    return origin.size() == host.size() + 7 && origin.substr(0, 7) == "http://" && origin.substr(7) == host;
}

}  // namespace routerd::web
