#include "sim/links/tcp_listener.h"

#include <cerrno>

namespace routerd {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

// While accepting fails for want of descriptors (or memory), the listener is
// left alone for this long instead of failing again at once, in a loop.
constexpr std::chrono::seconds kAcceptPause{1};

}  // namespace

TcpListener::TcpListener(asio::io_context& io, ListenerConfig config, Accepted accepted, const Log& log)
    : config_(std::move(config)), accepted_(std::move(accepted)), log_(log), acceptor_(io), accept_pause_(io) {
    const tcp::endpoint endpoint = resolve_listen(io, config_.address, "listen on");
    boost::system::error_code ec;
    acceptor_.open(endpoint.protocol(), ec);
    if (!ec) acceptor_.set_option(tcp::acceptor::reuse_address(true), ec);
    if (!ec) acceptor_.bind(endpoint, ec);
    if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) throw ListenError("cannot listen on " + config_.address + ": " + ec.message());
}

void TcpListener::stop() {
    boost::system::error_code ignored;
    acceptor_.close(ignored);
    accept_pause_.cancel();
}

void TcpListener::do_accept() {
    acceptor_.async_accept([this](const boost::system::error_code& ec, tcp::socket socket) {
        on_accept(ec, std::move(socket));
    });
}

void TcpListener::on_accept(const boost::system::error_code& ec, tcp::socket socket) {
    if (ec == asio::error::operation_aborted || !acceptor_.is_open()) return;
    if (ec == asio::error::no_descriptors || ec.value() == ENFILE || ec == asio::error::no_buffer_space ||
        ec == asio::error::no_memory) {
        return pause_accepting(ec);
    }
    if (ec) {
        // The connection went away before it was accepted, and the like.
        log_.info("accept failed: " + ec.message());
        return do_accept();
    }
    if (failed_accepts_ > 0) {
        log_.info("accepting clients again (" + with_thousands(failed_accepts_) + " attempt(s) failed)");
        failed_accepts_ = 0;
    }
    accepted_(std::move(socket), config_.link);
    do_accept();
}

// The pending connection stays in the listener's queue; one line per run of failures.
void TcpListener::pause_accepting(const boost::system::error_code& ec) {
    if (failed_accepts_++ == 0)
        log_.info("accept failed: " + ec.message() + "; accepting again in " + std::to_string(kAcceptPause.count()) +
                  " s");
    accept_pause_.expires_after(kAcceptPause);
    accept_pause_.async_wait([this](const boost::system::error_code& wait) {
        if (!wait && acceptor_.is_open()) do_accept();
    });
}

}  // namespace routerd
