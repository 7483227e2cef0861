#include "sim/web/web_view.h"

#include "sim/links/endpoint.h"

namespace routerd::web {

using boost::asio::ip::tcp;

WebView::WebView(boost::asio::io_context& io, const SimulatorConfig& config, Router& router, SwitchQueue& switches,
                 SessionManager& sessions, const Log& log, StateWriter* store, const LinkDirectory& links)
    : state_(io.get_executor(), config, router, switches, sessions, log, store, links) {
    if (listen_is_off(config.web.listen)) return;
    const tcp::endpoint endpoint = resolve_listen(io, config.web.listen, "serve the web view on");
    try {
        listener_ = std::make_unique<Listener>(io, endpoint, state_);
    } catch (const boost::system::system_error& e) {
        if (config.web.listen_named)
            throw ListenError("cannot serve the web view on " + config.web.listen + ": " + e.code().message());
        log.info("web view off: cannot serve it on " + config.web.listen + " (" + e.code().message() +
                 "); use --http HOST:PORT for another address");
        return;
    }
    if (!endpoint.address().is_loopback())
        log.info("warning: the web view on " + config.web.listen +
                 " is reachable from other machines; anyone who reaches it can switch the router" +
                 (config.web.readonly ? std::string(" (read-only: changes are refused)") : std::string()));
}

std::optional<tcp::endpoint> WebView::endpoint() const {
    if (!listener_) return std::nullopt;
    return listener_->local_endpoint();
}

void WebView::run() {
    if (listener_) listener_->run();
}

void WebView::stop() {
    if (listener_) listener_->stop();
    state_.stop_pages();
}

}  // namespace routerd::web
