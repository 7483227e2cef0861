#pragma once

#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <string>

#include <functional>

#include "framework/interface.h"
#include "sim/client_input.h"
#include "sim/converter.h"
#include "sim/client_output.h"
#include "sim/limits.h"
#include "sim/links/address_shares.h"
#include "sim/links/front.h"
#include "sim/links/link_settings.h"
#include "sim/links/transport.h"
#include "sim/log.h"
#include "sim/router/introduction.h"
#include "sim/session_context.h"
#include "sim/router/router.h"
#include "sim/router/switch_queue.h"

namespace routerd {

class Session;

// Told when a client comes and goes (the web view's activity log).
class SessionWatcher {
public:
    virtual void client_connected(const Session& session) = 0;
    virtual void client_disconnected(const Session& session, const std::string& reason) = 0;

protected:
    ~SessionWatcher() = default;
};

// What the simulator can tell of a client from outside its converter instance.
struct ClientInfo : LineNotes {
    int id = 0;
    std::string peer;
    std::string link;  // "tcp", "telnet" or "serial"
    std::chrono::system_clock::time_point connected_since;
};

// One client link: its converter instance with the instance's Interface and
// driver, and its output, whatever carries the bytes (a Transport). The
// link's front door (telnet, login, timeouts) stands between the transport
// and the instance: the session sees only the converter's bytes.
//
// Everything the instance sends during one event leaves in one write.
// The client's input is handed to the instance one slice per event, and not at
// all while the client's waiting output (what the link has not taken) is
// above the high-water mark, so that a client that asks for much slows itself
// down, not the others (see ClientOutput for when a client counts as one that
// does not read).
class Session : public std::enable_shared_from_this<Session>,
                private RouterObserver,
                private TransportUser,
                private FrontUser {
public:
    using Clock = std::chrono::steady_clock;

    // `place` is the client's place among the TCP clients (or, on a login
    // link, among the clients at a login prompt); serial links hold none.
    Session(std::unique_ptr<Transport> transport, int id, const LinkSettings& settings, const SessionContext& context,
            AddressShares::Place place = {});
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Asks for the login, if the link has one; then builds the converter
    // instance in the framework's order and joins the router; the current
    // state of the router follows in slices, then reading starts. Throws if
    // the plug-in cannot create an instance.
    void start();
    // Destroys the instance and closes the link; the reason goes to the log.
    void stop(const std::string& reason);
    // Called once the session has stopped, with the reason.
    void on_stopped(std::function<void(const std::string&)> handler) { stopped_handler_ = std::move(handler); }

    int id() const { return id_; }
    const ClientInfo& info() const { return info_; }
    // Writes what the instance has sent, as far as the link takes it now.
    void flush();
    // Disconnects a client whose output has not moved for the output timeout,
    // that has sent nothing within the first-byte timeout, that has not logged
    // in in time, or that has sent nothing for the link's idle timeout.
    void check_timeouts(Clock::time_point now);
    // Hands the slice scheduled by schedule_slice() to the instance.
    void run_scheduled_slice();

private:
    void flush_after_frame();

    enum class State {
        logging_in,   // the front door's login dialogue runs; there is no instance yet
        introducing,  // the instance is being told the router's state; nothing is read yet
        open,
        draining,     // the client closed its side, or its login failed: stop once the output is out
        dropping,     // a limit was passed: stop is under way
        stopped,
    };
    // What takes the client's input further.
    enum class Reading {
        idle,          // the input waits: for the output to drain, or for the instance
        reading,       // a read is under way
        slice_posted,  // the next slice is posted
    };
    // The call into the instance under way, after which its output is flushed.
    enum class Call { none, introduction, input };

    // The instance's link to its client.
    class Link final : public Interface {
    public:
        explicit Link(Session& session) : session_(session) {}
        void SendData(std::string data) override { session_.send(data); }

    private:
        Session& session_;
    };

    void crosspoint_changed(int level, int source, int destination) override;
    void lock_changed(int level, int destination, int state) override;
    void levels_changed() override;
    std::shared_ptr<FrontUser> keep_alive() override { return {shared_from_this(), this}; }
    void reply(std::string_view bytes) override;
    void reply_now() override { flush(); }
    void close_after_output(const std::string& reason) override;

    void start_instance();
    void introduce_some();
    void send(const std::string& data);
    void write_some();
    void await_settle();
    void on_writable(const boost::system::error_code& ec) override;
    void took_everything();

    std::shared_ptr<TransportUser> as_transport_user();
    void do_read();
    void on_read(const boost::system::error_code& ec, std::size_t length) override;
    void logged_in(std::size_t begin, std::size_t end);
    bool take_client_place();
    void accept_input(std::size_t begin, std::size_t end);
    void continue_input();
    void schedule_slice();
    void feed_slice();
    bool ending() const { return state_ == State::dropping || state_ == State::stopped; }
    void drop(const std::string& reason);
    // The one place where a failed read or write becomes the reason in the log.
    void fail(const boost::system::error_code& ec, const char* operation);
    std::string name() const { return client_name(id_) + " (" + info_.peer + ")"; }

    std::unique_ptr<Transport> transport_;
    AddressShares::Place place_;  // given back when the session goes
    const int id_;
    const std::string link_note_;  // for the log: " (telnet, login)", or nothing for a plain link
    const SessionContext& context_;
    ClientInfo info_;
    Front front_;
    std::string stop_reason_;   // while draining
    std::function<void(const std::string&)> stopped_handler_;
    Link link_;
    Converter converter_;  // declared after the link it borrows
    State state_ = State::introducing;
    Introduction introduction_;

    ClientInput input_;
    std::string slice_;  // the input handed to the instance now; its storage is reused
    Reading reading_ = Reading::idle;
    // Converter time of the recent slices, halved at each slice. A new client
    // counts as costly until its first few slices show otherwise, so that
    // many clients opening with costly commands at once cannot all go first.
    Clock::duration recent_cost_ = std::chrono::milliseconds(16);
    bool costly() const;

    ClientOutput output_;       // sent by the instance, not taken by the link yet
    bool awaiting_flush_ = false;  // listed with the manager for the end of a frame
    bool awaiting_settle_ = false; // output held until a frame is kept
    Call call_ = Call::none;
};

}  // namespace routerd
