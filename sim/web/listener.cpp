#include "sim/web/listener.h"

#include <vector>

#include "sim/web/http_session.h"
#include "sim/web/web_state.h"

namespace routerd::web {

using boost::asio::ip::tcp;

Listener::Listener(boost::asio::io_context& io, const tcp::endpoint& endpoint, WebState& state)
    : state_(state), loop_(io, state.log(), "web view: ", [this](tcp::socket socket) { accepted(std::move(socket)); }) {
    boost::system::error_code ec;
    loop_.bind(endpoint, ec);
    if (ec) throw boost::system::system_error(ec);
    port_ = loop_.local_endpoint().port();
}

void Listener::accepted(tcp::socket socket) {
    if (sessions_.size() >= kMaxConnections) {
        boost::system::error_code ignored;
        socket.close(ignored);
        state_.log().client_line("web view: connection refused: already " + std::to_string(kMaxConnections) +
                                 " HTTP connections");
        return;
    }
    std::make_shared<HttpSession>(std::move(socket), state_, *this)->run();
}

void Listener::stop() {
    loop_.stop();
    for (HttpSession* session : std::vector<HttpSession*>(sessions_.begin(), sessions_.end())) session->close();
}

}  // namespace routerd::web
