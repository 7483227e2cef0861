#pragma once

#include <memory>
#include <optional>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "sim/config.h"
#include "sim/log.h"
#include "sim/router/router.h"
#include "sim/session_manager.h"
#include "sim/router/switch_queue.h"
#include "sim/web/listener.h"
#include "sim/web/web_state.h"

namespace routerd::web {

// The web view of the simulator: the page, its WebSocket push and the HTTP
// API, on the simulator's own io_context and thread.
class WebView {
public:
    // Binds the configured address. The default address already taken only
    // leaves the web view off (with a log line: several simulators may run
    // side by side); an address named explicitly that cannot be bound throws
    // ListenError.
    // `store` is the state file (null without --state).
    WebView(boost::asio::io_context& io, const SimulatorConfig& config, Router& router, SwitchQueue& switches,
            SessionManager& sessions, const Log& log, StateWriter* store, const LinkDirectory& links);

    // The address served, if the web view is on.
    std::optional<boost::asio::ip::tcp::endpoint> endpoint() const;

    WebState& state() { return state_; }
    void run();
    void frame_done() { state_.frame_done(); }
    void tick() { state_.tick(); }
    void stop();

private:
    WebState state_;
    std::unique_ptr<Listener> listener_;
};

}  // namespace routerd::web
