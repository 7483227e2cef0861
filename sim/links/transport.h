#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/system/error_code.hpp>

namespace routerd {

// What carries one client's bytes: a TCP connection or a serial port. The
// session above it does not know which.
class Transport {
public:
    using Handler = std::function<void(const boost::system::error_code&, std::size_t)>;
    using WaitHandler = std::function<void(const boost::system::error_code&)>;

    virtual ~Transport() = default;

    // "127.0.0.1:40312", "/dev/ttyUSB0": where the client is, for the log.
    virtual std::string peer() const = 0;
    // "tcp", "telnet", "serial": what kind of link it is, for the web view.
    virtual std::string kind() const = 0;
    virtual boost::asio::any_io_executor executor() = 0;

    // Called once before any other operation.
    virtual void prepare() {}
    virtual void async_read_some(boost::asio::mutable_buffer buffer, Handler handler) = 0;
    // Writes what can be written without waiting; returns how much that was.
    // A full link is not an error: it takes nothing.
    virtual std::size_t write_now(const std::vector<boost::asio::const_buffer>& buffers,
                                  boost::system::error_code& ec) = 0;
    // Completes when write_now() can take something again.
    virtual void async_wait_writable(WaitHandler handler) = 0;
    // Cancels what is under way (handlers see operation_aborted) and closes.
    virtual void close() = 0;
};

}  // namespace routerd
