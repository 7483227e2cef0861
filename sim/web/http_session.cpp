#include "sim/web/http_session.h"

#include <boost/beast/websocket.hpp>

#include "sim/links/endpoint.h"
#include "sim/web/api.h"
#include "sim/web/listener.h"
#include "sim/web/messages.h"
#include "sim/web/page_files.h"
#include "sim/web/request_guard.h"
#include "sim/web/web_state.h"
#include "sim/web/websocket_session.h"

namespace routerd::web {

namespace beast = boost::beast;
namespace http = beast::http;
using boost::asio::ip::tcp;

namespace {

constexpr std::uint32_t kMaxHeaderBytes = 8 * 1024;
constexpr std::uint64_t kMaxBodyBytes = 64 * 1024;
// A request must arrive whole within this time of the connection or of the
// previous answer: a connection that sends none holds a place others may want.
// A browser sends its request at once, and opens a new connection when it
// finds an idle one closed.
constexpr std::chrono::seconds kRequestTimeout{5};
// A response must leave within this time.
constexpr std::chrono::seconds kResponseTimeout{15};

http::response<http::string_body> make_response(http::status status, unsigned version, std::string_view type,
                                                std::string body) {
    http::response<http::string_body> response{status, version};
    response.set(http::field::server, "leitch-routerd");
    response.set(http::field::content_type, beast::string_view(type.data(), type.size()));
    response.set(http::field::cache_control, "no-store");
    response.set("X-Content-Type-Options", "nosniff");
    // Clicks switch the router: no other site may frame the page.
    response.set("X-Frame-Options", "DENY");
    response.set("Content-Security-Policy",
                 "default-src 'self'; connect-src 'self'; img-src 'self' data:; frame-ancestors 'none'");
    response.body() = std::move(body);
    response.prepare_payload();
    return response;
}

}  // namespace

HttpSession::HttpSession(tcp::socket socket, WebState& state, Listener& listener, AddressShares::Place place)
    : stream_(std::move(socket)),
      place_(std::move(place)),
      state_(state),
      listener_(listener),
      buffer_(kMaxHeaderBytes + kMaxBodyBytes) {
    peer_ = describe_peer(stream_.socket());
    listener_.joined(*this);
}

HttpSession::~HttpSession() { listener_.left(*this); }

void HttpSession::close() {
    boost::system::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
    stream_.socket().close(ignored);
}

void HttpSession::do_read() {
    parser_.emplace();
    parser_->header_limit(kMaxHeaderBytes);
    parser_->body_limit(kMaxBodyBytes);
    stream_.expires_after(kRequestTimeout);
    http::async_read(stream_, buffer_, *parser_,
                     [self = shared_from_this()](const boost::system::error_code& ec, std::size_t) { self->on_read(ec); });
}

void HttpSession::on_read(const boost::system::error_code& ec) {
    if (ec == http::error::end_of_stream || ec == beast::error::timeout || ec == boost::asio::error::operation_aborted)
        return close();
    if (ec == http::error::header_limit || ec == http::error::buffer_overflow)
        return write(make_response(http::status::request_header_fields_too_large, 11, "application/json",
                                   error_message("request header larger than " + std::to_string(kMaxHeaderBytes) +
                                                 " bytes")),
                     true);
    if (ec == http::error::body_limit)
        return write(make_response(http::status::payload_too_large, 11, "application/json",
                                   error_message("request body larger than " + std::to_string(kMaxBodyBytes) + " bytes",
                                                 "body")),
                     true);
    if (ec) {
        if (ec.category() == http::make_error_code(http::error::bad_target).category())
            return write(make_response(http::status::bad_request, 11, "application/json",
                                       error_message("malformed request: " + ec.message())),
                         true);
        return close();
    }
    Request request = parser_->release();
    // With two, one check could read one and the answer rely on the other.
    for (const http::field field : {http::field::host, http::field::origin}) {
        if (request.count(field) > 1)
            return write(make_response(http::status::bad_request, request.version(), "application/json",
                                       error_message("more than one " + std::string(http::to_string(field)) +
                                                         " header",
                                                     std::string(http::to_string(field)))),
                         true);
    }
    const std::string host(request[http::field::host]);
    if (!host_allowed(host, listener_.port()))
        return write(make_response(http::status::forbidden, request.version(), "application/json",
                                   error_message("Host \"" + host + "\" is not the address served", "Host")),
                     true);
    if (beast::websocket::is_upgrade(request)) return upgrade(std::move(request));
    const bool close_after = !request.keep_alive();
    answer(request, [self = shared_from_this(), close_after](Response response) {
        self->write(std::move(response), close_after);
    });
}

void HttpSession::answer(const Request& request, std::function<void(Response)> respond) {
    const std::string_view target(request.target().data(), request.target().size());
    const bool changes = request.method() != http::verb::get && request.method() != http::verb::head;
    const auto origin = request.find(http::field::origin);
    const bool has_origin = origin != request.end();
    if (changes && !origin_allowed(has_origin ? std::string_view(origin->value().data(), origin->value().size()) : "",
                                   has_origin, std::string_view(request[http::field::host].data(),
                                                                request[http::field::host].size())))
        return respond(make_response(
            http::status::forbidden, request.version(), "application/json",
            error_message("requests that change the router are accepted only from the page itself", "Origin")));
    if (target.rfind("/api/", 0) == 0) {
        return handle_api(state_, request.method(), target, request.body(),
                          [respond = std::move(respond), version = request.version()](ApiReply reply) {
                              respond(make_response(reply.status, version, "application/json", reply.body));
                          });
    }
    const PageFile* file = find_page_file(target.substr(0, target.find('?')));
    if (!file)
        return respond(make_response(http::status::not_found, request.version(), "application/json",
                                     error_message("not found: " + std::string(target))));
    if (request.method() != http::verb::get && request.method() != http::verb::head)
        return respond(make_response(http::status::method_not_allowed, request.version(), "application/json",
                                     error_message("use GET here")));
    respond(make_response(http::status::ok, request.version(), file->content_type, std::string(file->body)));
}

void HttpSession::upgrade(Request request) {
    const auto origin = request.find(http::field::origin);
    const bool has_origin = origin != request.end();
    const std::string host(request[http::field::host]);
    if (!origin_allowed(has_origin ? std::string_view(origin->value().data(), origin->value().size()) : "",
                        has_origin, host)) {
        state_.log().client_line("page from " + peer_ + " refused: Origin \"" +
                                 std::string(has_origin ? origin->value() : "") + "\" is not the page's own");
        return write(make_response(http::status::forbidden, request.version(), "application/json",
                                   error_message("WebSocket accepted only from the page itself", "Origin")),
                     true);
    }
    AddressShares::Place page;
    const std::string refusal = state_.admit_page(place_.address(), peer_, page);
    if (!refusal.empty())
        return write(make_response(http::status::service_unavailable, request.version(), "application/json",
                                   error_message(refusal)),
                     true);
    stream_.expires_never();
    std::make_shared<WebSocketSession>(stream_.release_socket(), state_, peer_, std::move(page))
        ->run(std::move(request));
}

void HttpSession::write(Response response, bool close_after) {
    SwitchQueue& switches = state_.switches();
    const std::uint64_t frame = switches.tag();
    if (switches.settled(frame)) return write_now(std::move(response), close_after);
    auto held = std::make_shared<Response>(std::move(response));
    switches.when_settled(frame, [self = shared_from_this(), held, close_after] {
        self->write_now(std::move(*held), close_after);
    });
}

void HttpSession::write_now(Response response, bool close_after) {
    if (close_after) response.keep_alive(false);
    response_ = std::make_shared<Response>(std::move(response));
    stream_.expires_after(kResponseTimeout);
    http::async_write(stream_, *response_,
                      [self = shared_from_this(), close_after](const boost::system::error_code& ec, std::size_t) {
                          self->on_write(ec, close_after);
                      });
}

void HttpSession::on_write(const boost::system::error_code& ec, bool close_after) {
    response_.reset();
    if (ec || close_after) return close();
    do_read();
}

}  // namespace routerd::web
