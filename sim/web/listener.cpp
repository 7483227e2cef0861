#include "sim/web/listener.h"

#include <vector>

#include "sim/web/http_session.h"
#include "sim/web/web_state.h"

namespace routerd::web {

using boost::asio::ip::tcp;

Listener::Listener(boost::asio::io_context& io, const tcp::endpoint& endpoint, WebState& state)
    : acceptor_(io), state_(state), pause_(io) {
    acceptor_.open(endpoint.protocol());
    acceptor_.set_option(tcp::acceptor::reuse_address(true));
    acceptor_.bind(endpoint);
    acceptor_.listen(boost::asio::socket_base::max_listen_connections);
    port_ = acceptor_.local_endpoint().port();
}

void Listener::do_accept() {
    acceptor_.async_accept([this](const boost::system::error_code& ec, tcp::socket socket) {
        on_accept(ec, std::move(socket));
    });
}

void Listener::on_accept(const boost::system::error_code& ec, tcp::socket socket) {
    if (ec == boost::asio::error::operation_aborted || !acceptor_.is_open()) return;
    if (ec) {
        // Out of descriptors and the like: try again in a while, not in a loop.
        state_.log().client_line("web view: accept failed: " + ec.message());
        pause_.expires_after(std::chrono::seconds(1));
        pause_.async_wait([this](const boost::system::error_code& wait) {
            if (!wait && acceptor_.is_open()) do_accept();
        });
        return;
    }
    if (sessions_.size() >= kMaxConnections) {
        boost::system::error_code ignored;
        socket.close(ignored);
        state_.log().client_line("web view: connection refused: already " + std::to_string(kMaxConnections) +
                                 " HTTP connections");
        return do_accept();
    }
    std::make_shared<HttpSession>(std::move(socket), state_, *this)->run();
    do_accept();
}

void Listener::stop() {
    boost::system::error_code ignored;
    acceptor_.close(ignored);
    pause_.cancel();
    for (HttpSession* session : std::vector<HttpSession*>(sessions_.begin(), sessions_.end())) session->close();
}

}  // namespace routerd::web
