#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include "sim/links/address_shares.h"

namespace routerd::web {

class WebState;
class Listener;

// One HTTP connection: the page's files, the API, and the upgrade to a
// WebSocket that a page opens. Requests are read with bounded header and body
// sizes and a short time limit, so that a connection that sends no request
// soon gives its place back; Beast parses what has arrived in each event, so a
// slow or malformed client costs the others no more than one short event.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
public:
    // `place` is the connection's place among the listener's, held while it lives.
    HttpSession(boost::asio::ip::tcp::socket socket, WebState& state, Listener& listener, AddressShares::Place place);
    ~HttpSession();

    void run() { do_read(); }
    void close();

private:
    using Request = boost::beast::http::request<boost::beast::http::string_body>;
    using Response = boost::beast::http::response<boost::beast::http::string_body>;

    void do_read();
    void on_read(const boost::system::error_code& ec);
    // Calls `respond` with the answer, now or later.
    void answer(const Request& request, std::function<void(Response)> respond);
    void upgrade(Request request);
    // Writes once what the response may show is kept (see SwitchQueue).
    void write(Response response, bool close_after);
    void write_now(Response response, bool close_after);
    void on_write(const boost::system::error_code& ec, bool close_after);

    boost::beast::tcp_stream stream_;
    AddressShares::Place place_;
    WebState& state_;
    Listener& listener_;
    std::string peer_;
    boost::beast::flat_buffer buffer_;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
    std::shared_ptr<Response> response_;
};

}  // namespace routerd::web
