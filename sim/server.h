#pragma once

#include <memory>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>

#include "host/plugin_library.h"
#include "sim/backends/gateway.h"
#include "sim/config.h"
#include "sim/links/admission.h"
#include "sim/links/link_status.h"
#include "sim/links/serial_link.h"
#include "sim/links/tcp_listener.h"
#include "sim/log.h"
#include "sim/loop_inbox.h"
#include "sim/router/backend.h"
#include "sim/router/router.h"
#include "sim/session.h"
#include "sim/session_manager.h"
#include "sim/router/state_store.h"
#include "sim/router/state_writer.h"
#include "sim/router/switch_queue.h"
#include "sim/web/web_view.h"

namespace routerd {

// The exit status of a simulator that stopped with changes it could not save.
constexpr int kChangesNotSaved = 3;

// Serves the links (TCP listeners, serial ports) and gives each client a
// session; everything runs on one io_context on the calling thread, so no
// call into a converter instance ever overlaps another.
// Once a second it sums up the refusals, retries the log, disconnects clients
// that do not read and gives freed memory back to the system.
class Server final : public LinkDirectory, private RouterObserver {
public:
    // Opens the state file if there is one (throws StateError), binds the
    // listening sockets (throws ListenError) and opens the serial ports
    // (throws SerialError).
    Server(const SimulatorConfig& config, std::shared_ptr<const plugin_host::PluginLibrary> plugin, const Log& log);

    const std::vector<std::unique_ptr<TcpListener>>& listeners() const { return listeners_; }
    const std::vector<std::unique_ptr<SerialLink>>& serial_links() const { return serial_links_; }
    std::vector<LinkStatus> links() const override;
    // The web view's address, when it is on.
    std::optional<boost::asio::ip::tcp::endpoint> web_endpoint() const { return web_->endpoint(); }

    // A real router: connects to it and waits, a few seconds at most, for its
    // state. Returns what to say of it at start-up ("" for the simulated router).
    std::string connect_router();

    // Serves until SIGINT or SIGTERM. Returns the exit status: 0, or
    // kChangesNotSaved when the state file could not take every change.
    int run();

private:
    void accept(boost::asio::ip::tcp::socket socket, const LinkSettings& link);
    bool start_session(std::unique_ptr<Transport> transport, const LinkSettings& link,
                       std::function<void(const std::string&)> on_stopped = nullptr,
                       Admission::Place place = {});
    void refuse(boost::asio::ip::tcp::socket socket, const std::string& line);
    void wait_for_signals();
    void wait_for_other_signals();
    void shut_down(int signal);
    void tick();
    void open_state(const SimulatorConfig& config);
    void crosspoint_changed(int, int, int) override {}
    void lock_changed(int, int, int) override {}
    void levels_changed() override;

    // One thread runs the loop and nothing else touches it, so it takes no
    // locks; other threads hand their work over through the inbox.
    boost::asio::io_context io_{BOOST_ASIO_CONCURRENCY_HINT_UNSAFE};
    LoopInbox inbox_{io_};
    const Log& log_;
    RefusalLog refusals_;
    Router router_;
    std::unique_ptr<RouterBackend> backend_;  // what carries out the router's changes
    RouterGateway* gateway_ = nullptr;        // the backend, when it is a real router
    std::unique_ptr<StateStore> state_;  // --state
    std::unique_ptr<StateWriter> state_writer_;  // commits to state_, off the event loop
    std::unique_ptr<RecordDirectory> recordings_;  // --record; declared before the sessions that record to it
    SessionManager sessions_;
    Admission admission_;  // places of the TCP clients, failed logins
    SwitchQueue switches_;
    SessionContext context_;
    std::unique_ptr<web::WebView> web_;
    std::vector<std::unique_ptr<TcpListener>> listeners_;
    std::vector<std::unique_ptr<SerialLink>> serial_links_;
    boost::asio::signal_set signals_;        // SIGINT, SIGTERM: shut down
    boost::asio::signal_set other_signals_;  // logged and ignored
    boost::asio::steady_timer ticker_;
    bool stopping_ = false;
    int next_client_ = 1;
};

}  // namespace routerd
