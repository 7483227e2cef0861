#pragma once

#include <memory>
#include <stdexcept>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include "sim/config.h"
#include "sim/log.h"
#include "host/plugin_library.h"
#include "sim/router.h"
#include "sim/session.h"
#include "sim/session_manager.h"
#include "sim/state_store.h"
#include "sim/switch_queue.h"
#include "sim/web/web_view.h"

namespace routerd {

// The address cannot be listened on (in use, not local, not resolvable).
class ListenError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The address of "HOST:PORT" for a listening socket; throws ListenError,
// "cannot <purpose> HOST:PORT: why".
boost::asio::ip::tcp::endpoint resolve_listen(boost::asio::io_context& io, const std::string& listen,
                                              const std::string& purpose);

// Accepts clients and gives each a session; everything runs on one io_context
// on the calling thread, so no call into a converter instance ever overlaps another.
// Once a second it sums up the refusals, retries the log, disconnects clients
// that do not read and gives freed memory back to the system.
class Server {
public:
    // Opens the state file if there is one (throws StateError) and binds the
    // listening socket (throws ListenError).
    Server(const SimulatorConfig& config, std::shared_ptr<const plugin_host::PluginLibrary> plugin, const Log& log);

    // The address actually bound (the real port when 0 was asked for).
    boost::asio::ip::tcp::endpoint local_endpoint() const { return acceptor_.local_endpoint(); }
    // The web view's address, when it is on.
    std::optional<boost::asio::ip::tcp::endpoint> web_endpoint() const { return web_->endpoint(); }

    // Serves until SIGINT or SIGTERM.
    void run();

private:
    void do_accept();
    void on_accept(const boost::system::error_code& ec, boost::asio::ip::tcp::socket socket);
    void pause_accepting(const boost::system::error_code& ec);
    void refuse(boost::asio::ip::tcp::socket socket);
    void wait_for_signals();
    void wait_for_other_signals();
    void shut_down(int signal);
    void tick();

    boost::asio::io_context io_;
    const Log& log_;
    RefusalLog refusals_;
    Router router_;
    std::unique_ptr<StateStore> state_;  // --state: kept before clients are told
    SessionManager sessions_;
    SwitchQueue switches_;
    SessionContext context_;
    std::unique_ptr<web::WebView> web_;
    boost::asio::ip::tcp::acceptor acceptor_;
    boost::asio::signal_set signals_;        // SIGINT, SIGTERM: shut down
    boost::asio::signal_set other_signals_;  // logged and ignored
    boost::asio::steady_timer accept_pause_;
    std::size_t failed_accepts_ = 0;         // in a row
    boost::asio::steady_timer ticker_;
    bool stopping_ = false;
    int next_client_ = 1;
};

}  // namespace routerd
