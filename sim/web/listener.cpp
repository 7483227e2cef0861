#include "sim/web/listener.h"

#include <array>
#include <chrono>
#include <sstream>
#include <vector>

#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http.hpp>

#include "sim/links/endpoint.h"
#include "sim/web/http_session.h"
#include "sim/web/messages.h"
#include "sim/web/web_state.h"

namespace routerd::web {

namespace http = boost::beast::http;
using boost::asio::ip::tcp;

namespace {

// How long a refused connection's request is read and dropped after the answer.
constexpr std::chrono::seconds kLinger{1};

std::string unavailable(const std::string& reason) {
    http::response<http::string_body> response{http::status::service_unavailable, 11};
    response.set(http::field::server, "leitch-routerd");
    response.set(http::field::content_type, "application/json");
    response.set(http::field::cache_control, "no-store");
    response.set("X-Content-Type-Options", "nosniff");
    // A place is free again once a connection without a request has timed out.
    response.set(http::field::retry_after, "5");
    response.keep_alive(false);
    response.body() = error_message(reason);
    response.prepare_payload();
    std::ostringstream text;
    text << response;
    return text.str();
}

}  // namespace

// A connection refused for want of room, told why before it closes. Its
// request is read and dropped meanwhile (for kLinger at most): closing with
// unread bytes would reset the connection, and the client could lose the
// answer before reading it.
class RefusedConnection : public std::enable_shared_from_this<RefusedConnection> {
public:
    RefusedConnection(tcp::socket socket, std::string answer, Listener& listener)
        : socket_(std::move(socket)), answer_(std::move(answer)), listener_(listener), linger_(socket_.get_executor()) {
        listener_.joined(*this);
    }
    ~RefusedConnection() { listener_.left(*this); }

    void run() {
        boost::asio::async_write(socket_, boost::asio::buffer(answer_),
                                 [self = shared_from_this()](const boost::system::error_code& ec, std::size_t) {
                                     self->on_written(ec);
                                 });
        linger_.expires_after(kLinger);
        linger_.async_wait([self = shared_from_this()](const boost::system::error_code& ec) {
            if (!ec) self->close();
        });
    }

    void close() {
        boost::system::error_code ignored;
        linger_.cancel();
        socket_.close(ignored);
    }

private:
    void on_written(const boost::system::error_code& ec) {
        if (ec) return close();
        boost::system::error_code ignored;
        socket_.shutdown(tcp::socket::shutdown_send, ignored);
        drain();
    }

    void drain() {
        socket_.async_read_some(boost::asio::buffer(sink_),
                                [self = shared_from_this()](const boost::system::error_code& ec, std::size_t) {
                                    if (ec) return self->close();
                                    self->drain();
                                });
    }

    tcp::socket socket_;
    const std::string answer_;
    Listener& listener_;
    boost::asio::steady_timer linger_;
    std::array<char, 4096> sink_{};
};

Listener::Listener(boost::asio::io_context& io, const tcp::endpoint& endpoint, WebState& state)
    : state_(state), loop_(io, state.log(), "web view: ", [this](tcp::socket socket) { accepted(std::move(socket)); }) {
    boost::system::error_code ec;
    loop_.bind(endpoint, ec);
    if (ec) throw boost::system::system_error(ec);
    port_ = loop_.local_endpoint().port();
}

void Listener::accepted(tcp::socket socket) {
    const std::string address = share_address(socket);
    if (address.empty()) return;  // gone already
    AddressShares::Place place;
    const auto now = std::chrono::steady_clock::now();
    const std::string peer = describe_peer(socket);
    switch (places_.take(address, place)) {
        case AddressShares::Verdict::taken:
            std::make_shared<HttpSession>(std::move(socket), state_, *this, std::move(place))->run();
            return;
        case AddressShares::Verdict::full: {
            const std::string reason = "too many connections (" + std::to_string(places_.held()) + " of " +
                                       std::to_string(kMaxConnections) + ")";
            state_.refusals().refused("HTTP connections (" + std::to_string(kMaxConnections) + " at once)", now,
                                      [&] { return "web view: connection from " + peer + " refused: " + reason; });
            return refuse(std::move(socket), reason);
        }
        case AddressShares::Verdict::address_full:
            break;
    }
    const std::string held =
        std::to_string(places_.held_by(address)) + " of " + std::to_string(kMaxConnectionsPerAddress);
    state_.refusals().refused(
        "HTTP connections from " + address + " (" + std::to_string(kMaxConnectionsPerAddress) + " per address)", now,
        [&] {
            return "web view: connection from " + peer + " refused: too many connections from its address (" + held +
                   ")";
        });
    refuse(std::move(socket), "too many connections from your address (" + held + ")");
}

void Listener::refuse(tcp::socket socket, const std::string& reason) {
    if (refused_.size() >= kMostRefusing) {
        boost::system::error_code ignored;
        socket.close(ignored);
        return;
    }
    std::make_shared<RefusedConnection>(std::move(socket), unavailable(reason), *this)->run();
}

void Listener::stop() {
    loop_.stop();
    for (HttpSession* session : std::vector<HttpSession*>(sessions_.begin(), sessions_.end())) session->close();
    for (RefusedConnection* refused : std::vector<RefusedConnection*>(refused_.begin(), refused_.end()))
        refused->close();
}

}  // namespace routerd::web
