#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include "sim/links/address_shares.h"

namespace routerd::web {

class WebState;

// One open page: the router's state when it connects, then one message per
// frame. What the page has not read waits in a bounded queue; a page that
// lets it pass the bound, or takes nothing for a while, is disconnected with
// a log line, so that memory stays bounded and the router never waits.
class WebSocketSession : public std::enable_shared_from_this<WebSocketSession> {
public:
    // `place` is the page's place among max_pages, held while it lives.
    WebSocketSession(boost::asio::ip::tcp::socket socket, WebState& state, std::string peer,
                     AddressShares::Place place);
    ~WebSocketSession();

    void run(boost::beast::http::request<boost::beast::http::string_body> request);
    // The page's first message; what is sent before it is not for this page.
    void greet(const std::shared_ptr<const std::string>& hello);
    void send(const std::shared_ptr<const std::string>& message);
    void close(const std::string& reason);
    void check_stalled(std::chrono::steady_clock::time_point now);

private:
    void on_accept(const boost::system::error_code& ec);
    void do_read();
    void on_read(const boost::system::error_code& ec);
    void do_write();
    void on_write(const boost::system::error_code& ec, std::size_t length);

    boost::beast::websocket::stream<boost::beast::tcp_stream> ws_;
    AddressShares::Place place_;
    WebState& state_;
    const int id_;
    const std::string peer_;
    boost::beast::flat_buffer received_;
    std::deque<std::shared_ptr<const std::string>> queue_;
    std::size_t queued_bytes_ = 0;
    bool open_ = false;  // accepted, not closed
    bool greeted_ = false;
    bool closed_ = false;
    bool writing_ = false;
    std::chrono::steady_clock::time_point write_started_;
};

}  // namespace routerd::web
