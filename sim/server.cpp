#include "sim/server.h"

#include <malloc.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include <boost/asio/write.hpp>

#include "sim/backends/simulated_backend.h"
#include "sim/backends/swp08_backend.h"
#include "sim/backends/videohub_backend.h"
#include "sim/links/endpoint.h"
#include "sim/links/tcp_transport.h"

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

std::string utc_time(std::chrono::system_clock::time_point when) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &utc);
    return text;
}

// The state file among the links: whether what the router holds is on disk.
LinkStatus state_status(const std::string& path, const StateHealth& health) {
    LinkStatus status{"state", path, "SQLite", health.unsaved == 0, ""};
    if (health.unsaved_since) {
        status.problem = "changes not saved since " + utc_time(*health.unsaved_since) + " (" +
                         std::to_string(health.unsaved) + " waiting: " + health.reason + ")";
    }
    return status;
}

std::unique_ptr<RouterBackend> make_backend(const SimulatorConfig& config, asio::io_context& io, Router& router,
                                            const Log& log) {
    if (config.backend.protocol == BackendSettings::Protocol::simulated) return std::make_unique<SimulatedBackend>(router);
    BackendSettings settings = config.backend;
    if (settings.protocol == BackendSettings::Protocol::swp08)
        return std::make_unique<Swp08Backend>(io, router, std::move(settings), log);
    settings.most_outputs = static_cast<int>(std::min<std::size_t>(
        {most_destinations_per_level(config.limits), most_destinations_in_all(config.limits) / 2, 65536}));
    return std::make_unique<VideohubBackend>(io, router, std::move(settings), log);
}

Admission::Budgets budgets(const Limits& limits) {
    return {limits.max_clients, limits.max_clients_per_address, limits.max_clients_logging_in,
            logging_in_per_address(limits)};
}

}  // namespace

Server::Server(const SimulatorConfig& config, std::shared_ptr<const plugin_host::PluginLibrary> plugin, const Log& log)
    : log_(log),
      refusals_(log),
      router_(build_router(config)),
      backend_(make_backend(config, io_, router_, log_)),
      recordings_(config.record.directory.empty() ? nullptr : std::make_unique<RecordDirectory>(config.record, log)),
      sessions_(io_.get_executor()),
      admission_(budgets(config.limits), log_),
      switches_(io_.get_executor(), router_, *backend_, refusals_, [this] {
          sessions_.flush_waiting();
          web_->frame_done();
      }),
      context_{std::move(plugin), config.converter, router_, switches_, sessions_, log_, refusals_,
               config.limits, recordings_.get(), output_bound(config.limits, config.levels),
               report_room(config.limits, config.levels)},
      signals_(io_, SIGINT, SIGTERM),
      other_signals_(io_),
      ticker_(io_) {
    gateway_ = dynamic_cast<RouterGateway*>(backend_.get());
    if (!config.state_file.empty()) {
        open_state(config);
        state_writer_ = std::make_unique<StateWriter>(
            *state_, [this](std::function<void()> work) { inbox_.post(std::move(work)); },
            [this](std::uint64_t frame) { switches_.settle(frame); }, log_);
        switches_.set_journal(state_writer_.get());
    }
    // Signals whose default action would end the simulator without a word.
    for (const int signal : {SIGHUP, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF, SIGIO, SIGPWR})
        other_signals_.add(signal);
    for (const ListenerConfig& listener : config.listeners) {
        listeners_.push_back(std::make_unique<TcpListener>(
            io_, listener, [this](tcp::socket socket, const LinkSettings& link) { accept(std::move(socket), link); },
            log_));
    }
    for (const SerialSettings& serial : config.serials) {
        auto link = std::make_unique<SerialLink>(
            io_, serial,
            [this](std::unique_ptr<Transport> transport, const LinkSettings& settings,
                   std::function<void(const std::string&)> on_stopped) {
                return start_session(std::move(transport), settings, std::move(on_stopped));
            },
            log_);
        link->open_port();
        serial_links_.push_back(std::move(link));
    }
    web_ = std::make_unique<web::WebView>(io_, config, router_, switches_, sessions_, log_, state_writer_.get(), *this);
    context_.watcher = &web_->state();
    router_.subscribe(*this);
    context_.admission = &admission_;
}

// A real router's levels are kept in the file at the most the gateway serves,
// so that the file fits whatever counts the router announces. Their
// crosspoints are the router's; only their Leitch locks come back, once the
// router is read.
void Server::open_state(const SimulatorConfig& config) {
    std::vector<LevelSpec> kept = config.levels;
    if (gateway_ && gateway_->sized_by_router()) {
        for (LevelSpec& level : kept) {
            if (!gateway_->serves(level.number)) continue;
            level.sources = level.destinations = gateway_->settings().most_outputs;
        }
    }
    state_ = std::make_unique<StateStore>(
        config.state_file, kept, config.fresh_state, [this](const std::string& line) { log_.info(line); },
        config.salvo_limits);
    if (!gateway_) {
        const bool restored = state_->restore_into(router_);
        log_.info(std::string(restored ? "crosspoints and locks restored from " : "crosspoints and locks kept in ") +
                  config.state_file);
        return;
    }
    Router stored(kept);
    const bool restored = state_->restore_into(stored);
    for (const LevelSpec& level : router_.levels()) {
        std::vector<int> locks;
        for (int d = 0; d < stored.find_level(level.number)->destinations; ++d) locks.push_back(stored.lock_of(level.number, d));
        if (gateway_->serves(level.number)) {
            gateway_->restore_locks(level.number, std::move(locks));
            continue;
        }
        for (int d = 0; d < level.destinations; ++d) {
            router_.preset_crosspoint(level.number, stored.source_of(level.number, d), d);
            router_.preset_lock(level.number, d, locks[static_cast<std::size_t>(d)]);
        }
    }
    log_.info(std::string(restored ? "Leitch locks restored from " : "Leitch locks kept in ") + config.state_file +
              " (the crosspoints are the router's)");
}

std::vector<LinkStatus> Server::links() const {
    std::vector<LinkStatus> links;
    for (const auto& listener : listeners_) {
        const LinkSettings& link = listener->config().link;
        boost::system::error_code ec;
        const tcp::endpoint endpoint = listener->local_endpoint(ec);
        links.push_back({link.telnet ? "telnet" : "tcp",
                         ec ? listener->config().address : format_endpoint(endpoint),
                         link.describe(), !ec, ""});
    }
    for (const auto& serial : serial_links_) {
        SerialSettings settings = serial->settings();
        std::string described = settings.describe();
        if (settings.idle_timeout.count() > 0)
            described += ", idle timeout " + std::to_string(settings.idle_timeout.count()) + " s";
        links.push_back({"serial", settings.device, described, serial->open(), serial->problem()});
    }
    if (state_writer_) links.push_back(state_status(state_->path(), state_writer_->health()));
    if (gateway_) {
        const BackendStatus& status = gateway_->status();
        links.push_back({"router", gateway_->address(), gateway_->description(), status.up, status.problem});
    }
    return links;
}

std::string Server::connect_router() {
    if (!gateway_) return {};
    gateway_->start();
    const BackendSettings& settings = gateway_->settings();
    const auto deadline = std::chrono::steady_clock::now() + settings.connect_timeout + settings.answer_timeout;
    while (!gateway_->status().up && gateway_->failures() == 0 && std::chrono::steady_clock::now() < deadline)
        io_.run_one_until(deadline);
    io_.restart();
    const std::string where = std::string("backend ") + protocol_name(settings.protocol) + " " + gateway_->address();
    if (gateway_->status().up) return where + ": answered, " + gateway_->device();
    return where + ": not answering (" + gateway_->status().problem + "), trying again";
}

// A real router's sizes changed: what one event may leave for a client follows them.
void Server::levels_changed() {
    context_.output_bound = output_bound(context_.limits, router_.levels());
    context_.report_room = report_room(context_.limits, router_.levels());
}

int Server::run() {
    wait_for_signals();
    wait_for_other_signals();
    tick();
    for (const auto& listener : listeners_) listener->run();
    for (const auto& serial : serial_links_) serial->run();
    web_->run();
    if (state_writer_) inbox_.start();
    io_.run();
    if (!state_writer_) return 0;
    state_writer_->finish();
    const std::size_t unsaved = state_writer_->health().unsaved;
    if (unsaved == 0) return 0;
    log_.info(std::to_string(unsaved) + " change(s) of crosspoints and locks not saved to " + state_->path() +
              ": they are lost");
    return kChangesNotSaved;
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
    const auto now = std::chrono::steady_clock::now();
    sessions_.check_timeouts(now);
    admission_.end_second(now);
    web_->tick();
    if (sessions_.take_memory_released()) malloc_trim(0);
    if (stopping_) return;
    ticker_.expires_after(std::chrono::seconds(1));
    ticker_.async_wait([this](const boost::system::error_code& ec) {
        if (!ec) tick();
    });
}

void Server::accept(tcp::socket socket, const LinkSettings& link) {
    Admission::Verdict verdict = admission_.admit(share_address(socket), describe_peer(socket),
                                                  link.login != LoginMode::off, std::chrono::steady_clock::now());
    if (!verdict.place) return refuse(std::move(socket), verdict.line);
    start_session(std::make_unique<TcpTransport>(std::move(socket)), link, nullptr, std::move(verdict.place));
}

bool Server::start_session(std::unique_ptr<Transport> transport, const LinkSettings& link,
                           std::function<void(const std::string&)> on_stopped, Admission::Place place) {
    const int id = next_client_++;
    auto session = std::make_shared<Session>(std::move(transport), id, link, context_, std::move(place));
    session->on_stopped(std::move(on_stopped));
    try {
        sessions_.join(session);
        session->start();
    } catch (const std::exception& e) {
        log_.info(client_name(id) + ": cannot start a session: " + e.what());
        session->stop("session failed to start");
        return false;
    }
    return true;
}

// One line saying why (logged by the admission), then the connection is closed.
void Server::refuse(tcp::socket socket, const std::string& line_for_client) {
    boost::system::error_code ignored;
    if (line_for_client.empty()) {
        socket.close(ignored);
        return;
    }
    socket.set_option(tcp::no_delay(true), ignored);
    auto refused = std::make_shared<tcp::socket>(std::move(socket));
    auto line = std::make_shared<const std::string>(line_for_client);
    asio::async_write(*refused, asio::buffer(*line), [refused, line](const boost::system::error_code&, std::size_t) {
        boost::system::error_code ignored;
        refused->shutdown(tcp::socket::shutdown_both, ignored);
        refused->close(ignored);
    });
}

void Server::shut_down(int signal) {
    log_.info(std::string("received ") + (signal == SIGINT ? "SIGINT" : "SIGTERM") + ", shutting down");
    for (const auto& listener : listeners_) listener->stop();
    for (const auto& serial : serial_links_) serial->stop();
    ticker_.cancel();
    other_signals_.cancel();
    stopping_ = true;
    sessions_.stop_all();
    web_->stop();
    inbox_.close();
    if (gateway_) gateway_->stop();
    refusals_.end_second();
}

}  // namespace routerd
