// Labels set while pages are open reach them: the web view served on a
// loopback port in this process, and a page of our own over a WebSocket, on
// one io_context, as in the simulator.

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>

#include "sim/backends/simulated_backend.h"
#include "sim/web/web_view.h"

namespace routerd::web {
namespace {

namespace beast = boost::beast;
namespace websocket = beast::websocket;
using boost::asio::ip::tcp;
using namespace std::chrono_literals;

class NoLinks final : public LinkDirectory {
public:
    std::vector<LinkStatus> links() const override { return {}; }
};

SimulatorConfig labelled_router() {
    SimulatorConfig config;
    LevelSpec video{0, "video", 3, 2};
    video.source_labels = {"CAM 1"};
    config.levels = {video, {1, "audio", 2, 2}};
    config.web.listen = "127.0.0.1:0";
    config.web.listen_named = true;
    return config;
}

class LabelPush : public ::testing::Test {
protected:
    LabelPush() {
        view_.run();
        page_.next_layer().connect(*view_.endpoint());
        bool open = false;
        page_.async_handshake("127.0.0.1:" + std::to_string(view_.endpoint()->port()), "/ws",
                              [&](const boost::system::error_code& ec) { open = !ec; });
        run_until([&] { return open; });
        EXPECT_TRUE(open) << "the page was not let in";
    }

    ~LabelPush() override {
        boost::system::error_code ignored;
        page_.next_layer().close(ignored);
        view_.stop();
        // Every session ends before the state they point to goes.
        io_.restart();
        io_.run_for(2s);
    }

    template <typename Done>
    void run_until(const Done& done, std::chrono::milliseconds most = 5000ms) {
        const auto give_up = std::chrono::steady_clock::now() + most;
        while (!done() && std::chrono::steady_clock::now() < give_up) {
            io_.restart();
            io_.run_one_for(10ms);
        }
    }

    // The next message the page gets, if one comes within `most`.
    std::optional<std::string> receive(std::chrono::milliseconds most = 5000ms) {
        if (!reading_) {
            reading_ = true;
            received_.reset();
            page_.async_read(buffer_, [this](const boost::system::error_code& ec, std::size_t) {
                reading_ = false;
                received_ = ec ? "error: " + ec.message() : beast::buffers_to_string(buffer_.data());
                buffer_.consume(buffer_.size());
            });
        }
        run_until([&] { return received_.has_value(); }, most);
        return received_;
    }

    boost::asio::io_context io_;
    Log log_;
    RefusalLog refusals_{log_};
    NoLinks links_;
    SimulatorConfig config_ = labelled_router();
    Router router_{config_.levels};
    SessionManager sessions_{io_.get_executor()};
    SimulatedBackend backend_{router_};
    SwitchQueue switches_{io_.get_executor(), router_, backend_, refusals_, [] {}};
    WebView view_{io_, config_, router_, switches_, sessions_, log_, nullptr, links_};
    websocket::stream<tcp::socket> page_{io_};
    beast::flat_buffer buffer_;
    bool reading_ = false;
    std::optional<std::string> received_;
};

TEST_F(LabelPush, APageIsGreetedWithTheLabelsAndHearsOfEveryChangeToThem) {
    const std::optional<std::string> hello = receive();
    ASSERT_TRUE(hello);
    EXPECT_EQ(*hello,
              R"({"clients":[],"events":[],"levels":[)"
              R"({"crosspoints":[0,0],"destination_labels":[],"destinations":2,"leitch_level":null,"locks":[0,0],)"
              R"("name":"video","number":0,"source_labels":["CAM 1"],"sources":3},)"
              R"({"crosspoints":[0,0],"destination_labels":[],"destinations":2,"leitch_level":null,"locks":[0,0],)"
              R"("name":"audio","number":1,"source_labels":[],"sources":2}],)"
              R"("links":[],"readonly":false,"type":"hello"})");

    // Set in one event: one message, with the level's labels as they stand.
    EXPECT_EQ(router_.set_label(0, LabelSide::source, 2, "VTR 3"), Refusal::none);
    EXPECT_EQ(router_.set_label(0, LabelSide::destination, 1, "MON 2"), Refusal::none);
    EXPECT_EQ(router_.set_label(0, LabelSide::source, 0, ""), Refusal::none);
    EXPECT_EQ(receive(),
              R"({"type":"frame","crosspoints":[],"locks":[],"labels":[)"
              R"({"destination_labels":[null,"MON 2"],"number":0,"source_labels":[null,null,"VTR 3"]}]})");

    EXPECT_EQ(router_.set_label(1, LabelSide::destination, 0, "OUT L"), Refusal::none);
    EXPECT_EQ(receive(),
              R"({"type":"frame","crosspoints":[],"locks":[],"labels":[)"
              R"({"destination_labels":["OUT L"],"number":1,"source_labels":[]}]})");
}

TEST_F(LabelPush, ALabelSetToWhatItWasSendsNothing) {
    ASSERT_TRUE(receive());  // the greeting
    EXPECT_EQ(router_.set_label(0, LabelSide::source, 0, "CAM 1"), Refusal::none);
    EXPECT_EQ(receive(300ms), std::nullopt);
    EXPECT_EQ(router_.set_label(0, LabelSide::source, 1, "CAM 2"), Refusal::none);
    EXPECT_EQ(receive(),
              R"({"type":"frame","crosspoints":[],"locks":[],"labels":[)"
              R"({"destination_labels":[],"number":0,"source_labels":["CAM 1","CAM 2"]}]})");
}

}  // namespace
}  // namespace routerd::web
