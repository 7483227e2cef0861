#include "sim/links/tcp_listener.h"

#include "sim/config.h"

namespace routerd {

namespace asio = boost::asio;
using asio::ip::tcp;

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

TcpListener::TcpListener(asio::io_context& io, ListenerConfig config, Accepted accepted, const Log& log)
    : config_(std::move(config)),
      accepted_(std::move(accepted)),
      loop_(io, log, "", [this](tcp::socket socket) { accepted_(std::move(socket), config_.link); }) {
    const tcp::endpoint endpoint = resolve_listen(io, config_.address, "listen on");
    boost::system::error_code ec;
    loop_.bind(endpoint, ec);
    if (ec) throw ListenError("cannot listen on " + config_.address + ": " + ec.message());
}

}  // namespace routerd
