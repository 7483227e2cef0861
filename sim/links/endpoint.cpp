#include "sim/links/endpoint.h"

#include <stdexcept>

namespace routerd {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

constexpr const char* kOff = "off";

}  // namespace

ListenAddress parse_listen(const std::string& text) {
    const auto colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size())
        throw std::invalid_argument("expected HOST:PORT, got \"" + text + "\"");
    std::string host = text.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    const std::string port = text.substr(colon + 1);
    if (port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos || std::stoul(port) > 65535)
        throw std::invalid_argument("port must be a number from 0 to 65535, got \"" + port + "\"");
    return {host, static_cast<unsigned short>(std::stoul(port))};
}

bool listen_is_off(const std::string& text) { return text == kOff; }

void check_listen_or_off(const std::string& text) {
    if (listen_is_off(text)) return;
    try {
        parse_listen(text);
    } catch (const std::invalid_argument& e) {
        throw std::invalid_argument(e.what() + std::string(" or \"") + kOff + "\"");
    }
}

tcp::endpoint resolve_listen(asio::io_context& io, const std::string& listen, const std::string& purpose) {
    ListenAddress address;
    try {
        address = parse_listen(listen);
    } catch (const std::invalid_argument& e) {
        throw ListenError("cannot " + purpose + " " + listen + ": " + e.what());
    }
    boost::system::error_code ec;
    tcp::resolver resolver(io);
    const auto results = resolver.resolve(address.host, std::to_string(address.port),
                                          tcp::resolver::passive | tcp::resolver::numeric_service, ec);
    if (ec || results.empty()) throw ListenError("cannot " + purpose + " " + listen + ": " + ec.message());
    return results.begin()->endpoint();
}

std::string format_endpoint(const tcp::endpoint& endpoint) {
    const auto address = endpoint.address();
    const std::string host = address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
    return host + ":" + std::to_string(endpoint.port());
}

std::string describe_peer(const tcp::socket& socket) {
    boost::system::error_code ec;
    const tcp::endpoint peer = socket.remote_endpoint(ec);
    if (ec) return "unknown peer";
    return format_endpoint(peer);
}

}  // namespace routerd
