#pragma once

#include <cstddef>
#include <memory>
#include <set>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "sim/links/accept_loop.h"
#include "sim/links/address_shares.h"

namespace routerd::web {

class WebState;
class HttpSession;
class RefusedConnection;

// Accepts HTTP connections and gives each a session; keeps count of them, so
// that their number stays bounded, no single address holds more than half of
// them, and shutdown can close every one. A connection refused for want of
// room is answered 503 with the reason, and logged once per burst.
class Listener {
public:
    static constexpr std::size_t kMaxConnections = 64;
    static constexpr std::size_t kMaxConnectionsPerAddress = half_rounded_up(kMaxConnections);
    // Refused connections still being told why; beyond them one is closed at once.
    static constexpr std::size_t kMostRefusing = 16;

    // Binds; throws boost::system::system_error.
    Listener(boost::asio::io_context& io, const boost::asio::ip::tcp::endpoint& endpoint, WebState& state);

    boost::asio::ip::tcp::endpoint local_endpoint() const { return loop_.local_endpoint(); }
    unsigned short port() const { return port_; }

    void run() { loop_.run(); }
    void stop();

    void joined(HttpSession& session) { sessions_.insert(&session); }
    void left(HttpSession& session) { sessions_.erase(&session); }
    void joined(RefusedConnection& refused) { refused_.insert(&refused); }
    void left(RefusedConnection& refused) { refused_.erase(&refused); }

private:
    void accepted(boost::asio::ip::tcp::socket socket);
    void refuse(boost::asio::ip::tcp::socket socket, const std::string& reason);

    WebState& state_;
    AcceptLoop loop_;
    unsigned short port_;
    AddressShares places_{kMaxConnections, kMaxConnectionsPerAddress};
    std::set<HttpSession*> sessions_;
    std::set<RefusedConnection*> refused_;
};

}  // namespace routerd::web
