#include "sim/web/websocket_session.h"

#include "sim/web/web_state.h"

namespace routerd::web {

namespace beast = boost::beast;
namespace websocket = beast::websocket;
using boost::asio::ip::tcp;

namespace {

// Pages send nothing but control frames; anything longer is not a page of ours.
constexpr std::size_t kMaxReceivedMessage = 4096;
// A page whose socket takes nothing for this long does not read.
constexpr std::chrono::seconds kStallTimeout{10};
// The kernel's share of a page's waiting output, so that a page that does
// not read is seen as one soon.
constexpr int kSocketSendBuffer = 256 * 1024;

}  // namespace

WebSocketSession::WebSocketSession(tcp::socket socket, WebState& state, std::string peer, AddressShares::Place place)
    : ws_(std::move(socket)), place_(std::move(place)), state_(state), id_(state.next_page_id()), peer_(std::move(peer)) {
    state_.join(*this);
}

WebSocketSession::~WebSocketSession() { state_.leave(*this); }

void WebSocketSession::run(beast::http::request<beast::http::string_body> request) {
    boost::system::error_code ignored;
    beast::get_lowest_layer(ws_).socket().set_option(tcp::no_delay(true), ignored);
    beast::get_lowest_layer(ws_).socket().set_option(boost::asio::socket_base::send_buffer_size(kSocketSendBuffer),
                                                     ignored);
    // The websocket stream keeps its own time-outs from here on.
    beast::get_lowest_layer(ws_).expires_never();
    // Pages send nothing of their own: pings show that one is still there.
    auto timeouts = websocket::stream_base::timeout::suggested(beast::role_type::server);
    timeouts.idle_timeout = std::chrono::seconds(60);
    timeouts.keep_alive_pings = true;
    ws_.set_option(timeouts);
    ws_.read_message_max(kMaxReceivedMessage);
    ws_.text(true);
    // A message leaves as one frame: the page parses it once it is whole anyway.
    ws_.auto_fragment(false);
    ws_.async_accept(request, [self = shared_from_this()](const boost::system::error_code& ec) { self->on_accept(ec); });
}

void WebSocketSession::on_accept(const boost::system::error_code& ec) {
    if (ec || closed_) return;
    open_ = true;
    state_.log().client_line("page " + std::to_string(id_) + " connected from " + peer_);
    do_read();
    state_.greet(shared_from_this());
}

void WebSocketSession::greet(const std::shared_ptr<const std::string>& hello) {
    greeted_ = true;
    send(hello);
}

void WebSocketSession::do_read() {
    ws_.async_read(received_, [self = shared_from_this()](const boost::system::error_code& ec, std::size_t) {
        self->on_read(ec);
    });
}

void WebSocketSession::on_read(const boost::system::error_code& ec) {
    if (ec) {
        if (open_) {
            open_ = false;
            closed_ = true;
            state_.log().client_line("page " + std::to_string(id_) + " (" + peer_ + ") disconnected: " +
                                     (ec == websocket::error::closed ? std::string("closed by page") : ec.message()));
        }
        return;
    }
    received_.consume(received_.size());
    do_read();
}

void WebSocketSession::send(const std::shared_ptr<const std::string>& message) {
    if (!open_ || !greeted_) return;
    if (queued_bytes_ + message->size() > state_.page_queue_bound() && !queue_.empty()) {
        return close("more than " + with_thousands(state_.page_queue_bound()) +
                     " bytes waiting (page does not read)");
    }
    queue_.push_back(message);
    queued_bytes_ += message->size();
    if (!writing_) do_write();
}

void WebSocketSession::do_write() {
    writing_ = true;
    write_started_ = std::chrono::steady_clock::now();
    ws_.async_write(boost::asio::buffer(*queue_.front()),
                    [self = shared_from_this()](const boost::system::error_code& ec, std::size_t n) {
                        self->on_write(ec, n);
                    });
}

void WebSocketSession::on_write(const boost::system::error_code& ec, std::size_t) {
    writing_ = false;
    if (ec || !open_) return;
    queued_bytes_ -= queue_.front()->size();
    queue_.pop_front();
    if (!queue_.empty()) do_write();
}

void WebSocketSession::check_stalled(std::chrono::steady_clock::time_point now) {
    if (open_ && writing_ && now - write_started_ >= kStallTimeout)
        close("nothing taken for " + std::to_string(kStallTimeout.count()) + " s (page does not read)");
}

// A page that does not read would not take a polite close either: the
// connection is cut, and the pending operations end with an error.
void WebSocketSession::close(const std::string& reason) {
    if (closed_) return;
    if (open_) state_.log().client_line("page " + std::to_string(id_) + " (" + peer_ + ") disconnected: " + reason);
    open_ = false;
    closed_ = true;
    queue_.clear();
    queued_bytes_ = 0;
    boost::system::error_code ignored;
    beast::get_lowest_layer(ws_).socket().shutdown(tcp::socket::shutdown_both, ignored);
    beast::get_lowest_layer(ws_).socket().close(ignored);
}

}  // namespace routerd::web
