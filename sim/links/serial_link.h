#pragma once

#include <functional>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/serial_port.hpp>
#include <boost/asio/steady_timer.hpp>

#include "sim/links/link_settings.h"
#include "sim/links/serial_settings.h"
#include "sim/links/transport.h"
#include "sim/log.h"
#include "sim/startup_error.h"

namespace routerd {

// A serial port that cannot be opened (missing, busy, not a tty, settings
// refused); the message names the device and the reason.
class SerialError : public StartupError {
public:
    using StartupError::StartupError;
};

// Opens `port` raw with the settings, taken for this process alone; throws SerialError.
void open_serial_port(boost::asio::serial_port& port, const SerialSettings& settings);

// A client on a serial port, opened and set up (raw, the port's settings).
class SerialTransport final : public Transport {
public:
    // Throws SerialError.
    SerialTransport(boost::asio::io_context& io, const SerialSettings& settings);

    std::string peer() const override { return device_; }
    std::string kind() const override { return "serial"; }
    boost::asio::any_io_executor executor() override { return port_.get_executor(); }
    void async_read_some(boost::asio::mutable_buffer buffer, std::shared_ptr<TransportUser> user) override;
    std::size_t write_now(const std::vector<boost::asio::const_buffer>& buffers,
                          boost::system::error_code& ec) override;
    void async_wait_writable(std::shared_ptr<TransportUser> user) override;
    void close() override;

private:
    boost::asio::serial_port port_;
    std::string device_;
};

// Keeps one serial port served: a session (one converter instance) for as
// long as the port is open. A port that fails while running (a USB adapter
// pulled out) loses its session and is opened again every few seconds until
// it is back, with a new session; other links never notice.
class SerialLink {
public:
    // Starts a session on an open port; returns false when none could start.
    using Starter = std::function<bool(std::unique_ptr<Transport>, const LinkSettings&,
                                       std::function<void(const std::string&)> on_stopped)>;

    static constexpr std::chrono::seconds kReopenInterval{2};

    SerialLink(boost::asio::io_context& io, SerialSettings settings, Starter starter, const Log& log);

    // Opens the port; throws SerialError. Serving begins with run().
    void open_port();
    void run();
    // No more reopening; the session itself is stopped with the others.
    void stop();

    const SerialSettings& settings() const { return settings_; }
    // A session is being served on the port.
    bool open() const { return serving_; }
    // Why the port could not be opened the last time it was tried; empty while it is open.
    const std::string& problem() const { return problem_; }

private:
    void start_session();
    void session_stopped();
    void reopen_later();
    void try_reopen();

    boost::asio::io_context& io_;
    SerialSettings settings_;
    LinkSettings link_;
    Starter starter_;
    const Log& log_;
    std::unique_ptr<SerialTransport> opened_;  // opened, its session not started yet
    boost::asio::steady_timer reopen_timer_;
    bool serving_ = false;
    std::string problem_;     // the port is away; its absence is logged once
    bool stopping_ = false;
};

}  // namespace routerd
