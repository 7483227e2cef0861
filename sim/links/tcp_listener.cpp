#include "sim/links/tcp_listener.h"

namespace routerd {

namespace asio = boost::asio;
using asio::ip::tcp;

TcpListener::TcpListener(asio::io_context& io, ListenerConfig config, Accepted accepted, const Log& log)
    : config_(std::move(config)),
      accepted_(std::move(accepted)),
      loop_(io, log, "", [this](tcp::socket socket) { accepted_(std::move(socket), config_.link); }) {
    const tcp::endpoint endpoint = resolve_listen(io, config_.address, "listen on");
    boost::system::error_code ec;
    loop_.bind(endpoint, ec);
    if (ec) throw ListenError("cannot listen on " + config_.address + ": " + ec.message());
    // As for the web view: a Leitch port switches the router for whoever reaches it.
    if (!endpoint.address().is_loopback()) {
        log.info("warning: the Leitch port on " + config_.address +
                 " is reachable from other machines; anyone who reaches it can switch the router" +
                 (config_.link.login == LoginMode::password ? std::string(" (after a login)") : std::string()));
    }
}

}  // namespace routerd
