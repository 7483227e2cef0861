#pragma once

#include <functional>
#include <stdexcept>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include "sim/links/accept_loop.h"
#include "sim/links/link_settings.h"
#include "sim/log.h"

namespace routerd {

// The address cannot be listened on (in use, not local, not resolvable).
class ListenError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The address of "HOST:PORT" for a listening socket; throws ListenError,
// "cannot <purpose> HOST:PORT: why".
boost::asio::ip::tcp::endpoint resolve_listen(boost::asio::io_context& io, const std::string& listen,
                                              const std::string& purpose);

// One TCP listener ([[listen]]): accepts clients and hands each, with the
// listener's link settings, to whoever starts sessions.
class TcpListener {
public:
    using Accepted = std::function<void(boost::asio::ip::tcp::socket, const LinkSettings&)>;

    // Binds the socket; throws ListenError.
    TcpListener(boost::asio::io_context& io, ListenerConfig config, Accepted accepted, const Log& log);

    // The address actually bound (the real port when 0 was asked for).
    boost::asio::ip::tcp::endpoint local_endpoint() const { return loop_.local_endpoint(); }
    // The same, without throwing once the listener is closed.
    boost::asio::ip::tcp::endpoint local_endpoint(boost::system::error_code& ec) const {
        return loop_.local_endpoint(ec);
    }
    const ListenerConfig& config() const { return config_; }

    void run() { loop_.run(); }
    void stop() { loop_.stop(); }

private:
    ListenerConfig config_;
    Accepted accepted_;
    AcceptLoop loop_;
};

}  // namespace routerd
