#include "sim/server.h"

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

tcp::endpoint resolve(asio::io_context& io, const std::string& listen) {
    ListenAddress address;
    try {
        address = parse_listen(listen);
    } catch (const std::invalid_argument& e) {
        throw ListenError("cannot listen on " + listen + ": " + e.what());
    }
    boost::system::error_code ec;
    tcp::resolver resolver(io);
    const auto results = resolver.resolve(address.host, std::to_string(address.port),
                                          tcp::resolver::passive | tcp::resolver::numeric_service, ec);
    if (ec || results.empty()) throw ListenError("cannot listen on " + listen + ": " + ec.message());
    return results.begin()->endpoint();
}

}  // namespace

Server::Server(const SimulatorConfig& config, std::shared_ptr<const PluginLibrary> plugin, const Log& log)
    : log_(log),
      router_(build_router(config)),
      switches_(io_.get_executor(), router_, log_, [this] { sessions_.flush_waiting(); }),
      context_{std::move(plugin), config.converter, router_, switches_, sessions_, log_, config.limits},
      acceptor_(io_),
      signals_(io_, SIGINT, SIGTERM) {
    const tcp::endpoint endpoint = resolve(io_, config.listen);
    boost::system::error_code ec;
    acceptor_.open(endpoint.protocol(), ec);
    if (!ec) acceptor_.set_option(tcp::acceptor::reuse_address(true), ec);
    if (!ec) acceptor_.bind(endpoint, ec);
    if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) throw ListenError("cannot listen on " + config.listen + ": " + ec.message());
}

void Server::run() {
    signals_.async_wait([this](const boost::system::error_code& ec, int signal) {
        if (!ec) shut_down(signal);
    });
    do_accept();
    io_.run();
}

void Server::do_accept() {
    acceptor_.async_accept([this](const boost::system::error_code& ec, tcp::socket socket) {
        on_accept(ec, std::move(socket));
    });
}

void Server::on_accept(const boost::system::error_code& ec, tcp::socket socket) {
    if (ec == asio::error::operation_aborted || !acceptor_.is_open()) return;
    if (ec) {
        // Out of descriptors and the like: the listener itself is fine.
        log_.info("accept failed: " + ec.message());
        return do_accept();
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

// One line saying why, then the connection is closed.
void Server::refuse(tcp::socket socket) {
    boost::system::error_code ignored;
    const tcp::endpoint peer = socket.remote_endpoint(ignored);
    log_.info("refused client from " + peer.address().to_string() + ":" + std::to_string(peer.port()) +
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
    sessions_.stop_all();
}

}  // namespace routerd
