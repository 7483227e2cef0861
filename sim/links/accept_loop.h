#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "sim/log.h"

namespace routerd {

// Accepts connections on one listening socket until stopped and hands each
// on. Every listener of the simulator fails the same way: while accepting
// fails for want of descriptors or memory, the pending connection stays in
// the listener's queue and accepting pauses for a second instead of failing
// again at once, in a loop, with one log line per run of failures and one
// when it works again; a connection that went away before it was accepted
// (and the like) is logged and accepting goes on.
class AcceptLoop {
public:
    using Accepted = std::function<void(boost::asio::ip::tcp::socket)>;
    static constexpr std::chrono::seconds kPause{1};

    // `prefix` starts each of its log lines ("web view: ", or nothing).
    AcceptLoop(boost::asio::io_context& io, const Log& log, std::string prefix, Accepted accepted);

    // Opens, binds and listens.
    void bind(const boost::asio::ip::tcp::endpoint& endpoint, boost::system::error_code& ec);
    boost::asio::ip::tcp::endpoint local_endpoint() const { return acceptor_.local_endpoint(); }
    boost::asio::ip::tcp::endpoint local_endpoint(boost::system::error_code& ec) const {
        return acceptor_.local_endpoint(ec);
    }

    void run() { do_accept(); }
    void stop();

private:
    void do_accept();
    void on_accept(const boost::system::error_code& ec, boost::asio::ip::tcp::socket socket);
    void pause(const boost::system::error_code& ec);

    const Log& log_;
    const std::string prefix_;
    Accepted accepted_;
    boost::asio::ip::tcp::acceptor acceptor_;
    boost::asio::steady_timer pause_;
    std::size_t failures_ = 0;  // in a row
};

}  // namespace routerd
