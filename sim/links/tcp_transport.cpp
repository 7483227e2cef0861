#include "sim/links/tcp_transport.h"

#include "sim/links/endpoint.h"

namespace routerd {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

// The kernel's share of a client's waiting output is bounded too, so that a
// client that does not read is seen as one soon.
constexpr int kSocketSendBuffer = 256 * 1024;

}  // namespace

TcpTransport::TcpTransport(tcp::socket socket) : socket_(std::move(socket)), peer_(describe_peer(socket_)) {}

void TcpTransport::prepare() {
    boost::system::error_code ignored;
    // The reply to a command and the reports that follow it are separate
    // writes; with Nagle's algorithm the second would wait for the client's
    // delayed acknowledgement.
    socket_.set_option(tcp::no_delay(true), ignored);
    socket_.non_blocking(true, ignored);
    socket_.set_option(asio::socket_base::send_buffer_size(kSocketSendBuffer), ignored);
}

void TcpTransport::async_read_some(asio::mutable_buffer buffer, std::shared_ptr<TransportUser> user) {
    socket_.async_read_some(buffer, [user = std::move(user)](const boost::system::error_code& ec, std::size_t n) {
        user->on_read(ec, n);
    });
}

std::size_t TcpTransport::write_now(const std::vector<asio::const_buffer>& buffers, boost::system::error_code& ec) {
    const std::size_t taken = socket_.write_some(buffers, ec);
    if (ec == asio::error::would_block) ec.clear();
    return taken;
}

void TcpTransport::async_wait_writable(std::shared_ptr<TransportUser> user) {
    socket_.async_wait(tcp::socket::wait_write,
                       [user = std::move(user)](const boost::system::error_code& ec) { user->on_writable(ec); });
}

void TcpTransport::close() {
    boost::system::error_code ignored;
    socket_.shutdown(tcp::socket::shutdown_both, ignored);
    socket_.close(ignored);
}

}  // namespace routerd
