#include "sim/server.h"

#include <malloc.h>
#include <signal.h>

#include <cerrno>

#include <boost/asio/write.hpp>

namespace routerd {

namespace asio = boost::asio;
using asio::ip::tcp;

namespace {

Router build_router(const SimulatorConfig& config) {
    Router router(config.levels);
    for (const InitialCrosspoint& c : config.crosspoints) router.preset_crosspoint(c.level, c.source, c.destination);
    for (const InitialLock& l : config.locks) router.preset_lock(l.level, l.destination, l.state);
    return router;
}

std::string signal_name(int signal) {
    switch (signal) {
        case SIGUSR1: return "SIGUSR1";
        case SIGUSR2: return "SIGUSR2";
        case SIGALRM: return "SIGALRM";
        case SIGVTALRM: return "SIGVTALRM";
        case SIGPROF: return "SIGPROF";
        case SIGIO: return "SIGIO";
        case SIGPWR: return "SIGPWR";
    }
    return "signal " + std::to_string(signal);
}

}  // namespace

tcp::endpoint resolve_listen(asio::io_context& io, const std::string& listen, const std::string& purpose) {
    ListenAddress address;
    try {
        address = parse_listen(listen);
    } catch (const std::invalid_argument& e) {
        throw ListenError("cannot " + purpose + " " + listen + ": " + e.what());
    }
    boost::system::error_code ec;
    tcp::resolver resolver(io);
    const auto results = resolver.resolve(address.host, std::to_string(address.port),
                                          tcp::resolver::passive | tcp::resolver::numeric_service, ec);
    if (ec || results.empty()) throw ListenError("cannot " + purpose + " " + listen + ": " + ec.message());
    return results.begin()->endpoint();
}

// While accepting fails for want of descriptors (or memory), the listener is
// left alone for this long instead of failing again at once, in a loop.
constexpr std::chrono::seconds kAcceptPause{1};

Server::Server(const SimulatorConfig& config, std::shared_ptr<const plugin_host::PluginLibrary> plugin, const Log& log)
    : log_(log),
      refusals_(log),
      router_(build_router(config)),
      sessions_(io_.get_executor()),
      switches_(io_.get_executor(), router_, refusals_, [this] {
          sessions_.flush_waiting();
          web_->frame_done();
      }),
      context_{std::move(plugin), config.converter, router_, switches_, sessions_, log_, refusals_,
               config.limits, config.record, output_bound(config.limits, config.levels),
               report_room(config.limits, config.levels)},
      acceptor_(io_),
      signals_(io_, SIGINT, SIGTERM),
      other_signals_(io_),
      accept_pause_(io_),
      ticker_(io_) {
    if (!config.state_file.empty()) {
        state_ = std::make_unique<StateStore>(config.state_file, config.levels, config.fresh_state, log_);
        const bool restored = state_->restore_into(router_);
        log_.info(std::string(restored ? "crosspoints and locks restored from " : "crosspoints and locks kept in ") +
                  config.state_file);
        router_.set_journal(state_.get());
    }
    // Signals whose default action would end the simulator without a word.
    for (const int signal : {SIGHUP, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF, SIGIO, SIGPWR})
        other_signals_.add(signal);
    const tcp::endpoint endpoint = resolve_listen(io_, config.listen, "listen on");
    boost::system::error_code ec;
    acceptor_.open(endpoint.protocol(), ec);
    if (!ec) acceptor_.set_option(tcp::acceptor::reuse_address(true), ec);
    if (!ec) acceptor_.bind(endpoint, ec);
    if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) throw ListenError("cannot listen on " + config.listen + ": " + ec.message());
    web_ = std::make_unique<web::WebView>(io_, config, router_, switches_, sessions_, log_);
    web_->state().set_store(state_.get());
    context_.watcher = &web_->state();
    switches_.watch(&web_->state());
}

void Server::run() {
    wait_for_signals();
    wait_for_other_signals();
    tick();
    do_accept();
    web_->run();
    io_.run();
}

void Server::wait_for_signals() {
    signals_.async_wait([this](const boost::system::error_code& ec, int signal) {
        if (!ec) shut_down(signal);
    });
}

// Signals that would end the simulator without a word.
void Server::wait_for_other_signals() {
    other_signals_.async_wait([this](const boost::system::error_code& ec, int signal) {
        if (ec) return;
        if (signal == SIGHUP) {
            log_.info("received SIGHUP, ignored: the configuration is read only at start-up");
        } else {
            log_.info("received " + signal_name(signal) + ", ignored");
        }
        wait_for_other_signals();
    });
}

void Server::tick() {
    refusals_.end_second();
    log_.end_second();
    sessions_.check_outputs(std::chrono::steady_clock::now());
    if (state_) state_->retry();
    web_->tick();
    if (sessions_.take_memory_released()) malloc_trim(0);
    if (stopping_) return;
    ticker_.expires_after(std::chrono::seconds(1));
    ticker_.async_wait([this](const boost::system::error_code& ec) {
        if (!ec) tick();
    });
}

void Server::do_accept() {
    acceptor_.async_accept([this](const boost::system::error_code& ec, tcp::socket socket) {
        on_accept(ec, std::move(socket));
    });
}

void Server::on_accept(const boost::system::error_code& ec, tcp::socket socket) {
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
    if (sessions_.size() >= context_.limits.max_clients) {
        refuse(std::move(socket));
        return do_accept();
    }
    const int id = next_client_++;
    auto session = std::make_shared<Session>(std::move(socket), id, context_);
    try {
        sessions_.join(session);
        session->start();
    } catch (const std::exception& e) {
        log_.info("client " + std::to_string(id) + ": cannot start a session: " + e.what());
        session->stop("session failed to start");
    }
    do_accept();
}

// The pending connection stays in the listener's queue; one line per run of failures.
void Server::pause_accepting(const boost::system::error_code& ec) {
    if (failed_accepts_++ == 0)
        log_.info("accept failed: " + ec.message() + "; accepting again in " +
                  std::to_string(kAcceptPause.count()) + " s");
    accept_pause_.expires_after(kAcceptPause);
    accept_pause_.async_wait([this](const boost::system::error_code& wait) {
        if (!wait && acceptor_.is_open()) do_accept();
    });
}

// One line saying why, then the connection is closed.
void Server::refuse(tcp::socket socket) {
    boost::system::error_code ignored;
    const tcp::endpoint peer = socket.remote_endpoint(ignored);
    log_.client_line("refused client from " + peer.address().to_string() + ":" + std::to_string(peer.port()) +
              ": already " + std::to_string(sessions_.size()) + " clients (max_clients)");
    socket.set_option(tcp::no_delay(true), ignored);
    auto refused = std::make_shared<tcp::socket>(std::move(socket));
    auto line = std::make_shared<const std::string>("too many clients: the limit is " +
                                                    std::to_string(context_.limits.max_clients) + "\r\n");
    asio::async_write(*refused, asio::buffer(*line), [refused, line](const boost::system::error_code&, std::size_t) {
        boost::system::error_code ignored;
        refused->shutdown(tcp::socket::shutdown_both, ignored);
        refused->close(ignored);
    });
}

void Server::shut_down(int signal) {
    log_.info(std::string("received ") + (signal == SIGINT ? "SIGINT" : "SIGTERM") + ", shutting down");
    boost::system::error_code ignored;
    acceptor_.close(ignored);
    accept_pause_.cancel();
    ticker_.cancel();
    other_signals_.cancel();
    stopping_ = true;
    sessions_.stop_all();
    web_->stop();
    refusals_.end_second();
}

}  // namespace routerd
