#include "sim/links/serial_link.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>

#include <boost/asio/post.hpp>

namespace routerd {

namespace asio = boost::asio;

namespace {

asio::serial_port_base::parity parity_of(char parity) {
    using P = asio::serial_port_base::parity;
    if (parity == 'E') return P(P::even);
    if (parity == 'O') return P(P::odd);
    return P(P::none);
}

}  // namespace

void open_serial_port(asio::serial_port& port, const SerialSettings& settings) {
    using Port = asio::serial_port_base;
    boost::system::error_code ec;
    // Opened raw: no echo, no line editing, no translation of CR and LF.
    port.open(settings.device, ec);
    if (ec) throw SerialError("cannot open serial port " + settings.device + ": " + ec.message());
    port.set_option(Port::baud_rate(settings.baud), ec);
    if (!ec) port.set_option(Port::character_size(settings.data_bits), ec);
    if (!ec) port.set_option(parity_of(settings.parity), ec);
    if (!ec)
        port.set_option(Port::stop_bits(settings.stop_bits == 2 ? Port::stop_bits::two : Port::stop_bits::one), ec);
    if (!ec)
        port.set_option(Port::flow_control(settings.rts_cts ? Port::flow_control::hardware : Port::flow_control::none),
                        ec);
    if (ec) {
        boost::system::error_code ignored;
        port.close(ignored);
        throw SerialError("cannot set serial port " + settings.device + " to " + settings.describe() + ": " +
                          ec.message());
    }
    // Another program opening the port too would take bytes meant for us: it
    // now fails with "Device or resource busy".
    ::ioctl(port.native_handle(), TIOCEXCL);
}

SerialTransport::SerialTransport(asio::io_context& io, const SerialSettings& settings)
    : port_(io), device_(settings.device) {
    open_serial_port(port_, settings);
    // Writes take what the port can hold now; the rest waits for writability.
    const int flags = ::fcntl(port_.native_handle(), F_GETFL);
    if (flags < 0 || ::fcntl(port_.native_handle(), F_SETFL, flags | O_NONBLOCK) < 0)
        throw SerialError("cannot set serial port " + device_ + " non-blocking: " + std::strerror(errno));
}

void SerialTransport::async_read_some(asio::mutable_buffer buffer, std::shared_ptr<TransportUser> user) {
    port_.async_read_some(buffer, [user = std::move(user)](boost::system::error_code ec, std::size_t n) {
        // A serial line has no orderly close: a port that reads nothing more is gone.
        if (ec == asio::error::eof) ec = make_error_code(boost::system::errc::io_error);
        user->on_read(ec, n);
    });
}

std::size_t SerialTransport::write_now(const std::vector<asio::const_buffer>& buffers,
                                       boost::system::error_code& ec) {
    std::vector<iovec> pieces;
    pieces.reserve(buffers.size());
    for (const asio::const_buffer& b : buffers) pieces.push_back({const_cast<void*>(b.data()), b.size()});
    const ssize_t written = ::writev(port_.native_handle(), pieces.data(), static_cast<int>(pieces.size()));
    if (written >= 0) return static_cast<std::size_t>(written);
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
        ec.assign(errno, boost::system::system_category());
    return 0;
}

void SerialTransport::async_wait_writable(std::shared_ptr<TransportUser> user) {
    // A write of no bytes completes when the port can take some.
    port_.async_write_some(asio::null_buffers(),
                           [user = std::move(user)](const boost::system::error_code& ec, std::size_t) {
                               user->on_writable(ec);
                           });
}

void SerialTransport::close() {
    boost::system::error_code ignored;
    port_.close(ignored);
}

SerialLink::SerialLink(asio::io_context& io, SerialSettings settings, Starter starter, const Log& log)
    : io_(io), settings_(std::move(settings)), starter_(std::move(starter)), log_(log), reopen_timer_(io) {
    link_.idle_timeout = settings_.idle_timeout;
    // A panel on a serial line may stay silent for hours, and the port holds
    // no place that another client could want.
    link_.first_byte_timeout = std::chrono::seconds(0);
}

void SerialLink::open_port() { opened_ = std::make_unique<SerialTransport>(io_, settings_); }

void SerialLink::run() { start_session(); }

void SerialLink::stop() {
    stopping_ = true;
    reopen_timer_.cancel();
    opened_.reset();
}

void SerialLink::start_session() {
    if (stopping_) return;
    serving_ = starter_(std::move(opened_), link_, [this](const std::string&) { session_stopped(); });
    if (!serving_) reopen_later();
}

// The session is gone with its instance; a new one starts on the port when it
// can be opened again, whatever ended the old one.
void SerialLink::session_stopped() {
    serving_ = false;
    if (stopping_) return;
    asio::post(io_, [this] { reopen_later(); });
}

void SerialLink::reopen_later() {
    if (stopping_) return;
    reopen_timer_.expires_after(kReopenInterval);
    reopen_timer_.async_wait([this](const boost::system::error_code& ec) {
        if (!ec) try_reopen();
    });
}

void SerialLink::try_reopen() {
    if (stopping_) return;
    try {
        open_port();
    } catch (const SerialError& e) {
        if (problem_.empty())
            log_.info(std::string(e.what()) + "; trying again every " + std::to_string(kReopenInterval.count()) +
                      " s");
        problem_ = e.what();
        return reopen_later();
    }
    log_.info("serial port " + settings_.device + " open (" + settings_.describe() + ")");
    problem_.clear();
    start_session();
}

}  // namespace routerd
