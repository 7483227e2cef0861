#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/system/error_code.hpp>

namespace routerd {

// Told when a transport's operations complete; kept alive by them.
class TransportUser {
public:
    virtual void on_read(const boost::system::error_code& ec, std::size_t length) = 0;
    virtual void on_writable(const boost::system::error_code& ec) = 0;

protected:
    ~TransportUser() = default;
};

// What carries one client's bytes: a TCP connection or a serial port. The
// session above it does not know which.
class Transport {
public:
    virtual ~Transport() = default;

    // "127.0.0.1:40312", "/dev/ttyUSB0": where the client is, for the log.
    virtual std::string peer() const = 0;
    // "tcp", "telnet", "serial": what kind of link it is, for the web view.
    virtual std::string kind() const = 0;
    virtual boost::asio::any_io_executor executor() = 0;

    // Called once before any other operation.
    virtual void prepare() {}
    // Completes with user->on_read().
    virtual void async_read_some(boost::asio::mutable_buffer buffer, std::shared_ptr<TransportUser> user) = 0;
    // Writes what can be written without waiting; returns how much that was.
    // A full link is not an error: it takes nothing.
    virtual std::size_t write_now(const std::vector<boost::asio::const_buffer>& buffers,
                                  boost::system::error_code& ec) = 0;
    // Completes with user->on_writable() when write_now() can take something again.
    virtual void async_wait_writable(std::shared_ptr<TransportUser> user) = 0;
    // Cancels what is under way (handlers see operation_aborted) and closes.
    virtual void close() = 0;
};

}  // namespace routerd
