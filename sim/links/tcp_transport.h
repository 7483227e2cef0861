#pragma once

#include <boost/asio/ip/tcp.hpp>

#include "sim/links/transport.h"

namespace routerd {

// A client connected over TCP.
class TcpTransport final : public Transport {
public:
    explicit TcpTransport(boost::asio::ip::tcp::socket socket);

    std::string peer() const override { return peer_; }
    std::string kind() const override { return "tcp"; }
    boost::asio::any_io_executor executor() override { return socket_.get_executor(); }
    void prepare() override;
    void async_read_some(boost::asio::mutable_buffer buffer, std::shared_ptr<TransportUser> user) override;
    std::size_t write_now(const std::vector<boost::asio::const_buffer>& buffers,
                          boost::system::error_code& ec) override;
    void async_wait_writable(std::shared_ptr<TransportUser> user) override;
    void close() override;

private:
    boost::asio::ip::tcp::socket socket_;
    std::string peer_;
};

}  // namespace routerd
