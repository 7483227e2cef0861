#pragma once

#include <cstddef>
#include <memory>
#include <set>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "sim/links/accept_loop.h"

namespace routerd::web {

class WebState;
class HttpSession;

// Accepts HTTP connections and gives each a session; keeps count of them, so
// that their number stays bounded and shutdown can close every one.
class Listener {
public:
    static constexpr std::size_t kMaxConnections = 64;

    // Binds; throws boost::system::system_error.
    Listener(boost::asio::io_context& io, const boost::asio::ip::tcp::endpoint& endpoint, WebState& state);

    boost::asio::ip::tcp::endpoint local_endpoint() const { return loop_.local_endpoint(); }
    unsigned short port() const { return port_; }

    void run() { loop_.run(); }
    void stop();

    void joined(HttpSession& session) { sessions_.insert(&session); }
    void left(HttpSession& session) { sessions_.erase(&session); }

private:
    void accepted(boost::asio::ip::tcp::socket socket);

    WebState& state_;
    AcceptLoop loop_;
    unsigned short port_;
    std::set<HttpSession*> sessions_;
};

}  // namespace routerd::web
