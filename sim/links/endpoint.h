#pragma once

#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "sim/startup_error.h"

namespace routerd {

// The address cannot be listened on (in use, not local, not resolvable).
class ListenError : public StartupError {
public:
    using StartupError::StartupError;
};

// "HOST:PORT" or "[v6-address]:PORT", as written in the configuration and on
// the command line.
struct ListenAddress {
    std::string host;
    unsigned short port;
};

// Throws std::invalid_argument saying what is wrong.
ListenAddress parse_listen(const std::string& text);

// A listener that may be switched off (the web view's): "off", or HOST:PORT.
bool listen_is_off(const std::string& text);
// Throws std::invalid_argument ending in `or "off"`.
void check_listen_or_off(const std::string& text);

// The address of "HOST:PORT" for a listening socket; throws ListenError,
// "cannot <purpose> HOST:PORT: why".
boost::asio::ip::tcp::endpoint resolve_listen(boost::asio::io_context& io, const std::string& listen,
                                              const std::string& purpose);

// "127.0.0.1:2323", "[::1]:2323": an IPv6 address in brackets, so that the
// port stays apart from the address's own colons.
std::string format_endpoint(const boost::asio::ip::tcp::endpoint& endpoint);

// The connected peer's address, or "unknown peer" once it has gone.
std::string describe_peer(const boost::asio::ip::tcp::socket& socket);

}  // namespace routerd
