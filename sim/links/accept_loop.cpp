#include "sim/links/accept_loop.h"

#include <cerrno>

namespace routerd {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

bool is_shortage(const boost::system::error_code& ec) {
    return ec == asio::error::no_descriptors || ec.value() == ENFILE || ec == asio::error::no_buffer_space ||
           ec == asio::error::no_memory;
}

}  // namespace

AcceptLoop::AcceptLoop(asio::io_context& io, const Log& log, std::string prefix, Accepted accepted)
    : log_(log), prefix_(std::move(prefix)), accepted_(std::move(accepted)), acceptor_(io), pause_(io) {}

void AcceptLoop::bind(const tcp::endpoint& endpoint, boost::system::error_code& ec) {
    acceptor_.open(endpoint.protocol(), ec);
    if (!ec) acceptor_.set_option(tcp::acceptor::reuse_address(true), ec);
    if (!ec) acceptor_.bind(endpoint, ec);
    if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
}

void AcceptLoop::stop() {
    boost::system::error_code ignored;
    acceptor_.close(ignored);
    pause_.cancel();
}

void AcceptLoop::do_accept() {
    acceptor_.async_accept([this](const boost::system::error_code& ec, tcp::socket socket) {
        on_accept(ec, std::move(socket));
    });
}

void AcceptLoop::on_accept(const boost::system::error_code& ec, tcp::socket socket) {
    if (ec == asio::error::operation_aborted || !acceptor_.is_open()) return;
    if (is_shortage(ec)) return pause(ec);
    if (ec) {
        log_.client_line(prefix_ + "accept failed: " + ec.message());
        return do_accept();
    }
    if (failures_ > 0) {
        log_.info(prefix_ + "accepting clients again (" + with_thousands(failures_) + " attempt(s) failed)");
        failures_ = 0;
    }
    accepted_(std::move(socket));
    do_accept();
}

void AcceptLoop::pause(const boost::system::error_code& ec) {
    if (failures_++ == 0)
        log_.info(prefix_ + "accept failed: " + ec.message() + "; accepting again in " +
                  std::to_string(kPause.count()) + " s");
    pause_.expires_after(kPause);
    pause_.async_wait([this](const boost::system::error_code& wait) {
        if (!wait && acceptor_.is_open()) do_accept();
    });
}

}  // namespace routerd
