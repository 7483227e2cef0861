#pragma once

#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <string>

#include <functional>
#include <optional>

#include <boost/asio/steady_timer.hpp>

#include "framework/interface.h"
#include "host/plugin_library.h"
#include "sim/client_driver.h"
#include "sim/limits.h"
#include "sim/links/link_settings.h"
#include "sim/links/login.h"
#include "sim/links/telnet.h"
#include "sim/links/transport.h"
#include "sim/log.h"
#include "sim/output_queue.h"
#include "sim/recording.h"
#include "sim/router/router.h"
#include "sim/router/switch_queue.h"

namespace routerd {

class SessionManager;
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
struct ClientInfo {
    int id = 0;
    std::string peer;
    std::string link;  // "tcp", "telnet" or "serial"
    std::chrono::system_clock::time_point connected_since;
    std::size_t lines_received = 0;
    std::string last_line;  // the first 256 bytes of it
    // From the last "@ ?" (on) or "@ !" (off) line received.
    bool report_mode = false;
};

// What every session shares.
struct SessionContext {
    std::shared_ptr<const plugin_host::PluginLibrary> plugin;
    std::map<std::string, std::string> converter_config;  // handed to LoadConfig
    Router& router;
    SwitchQueue& switches;
    SessionManager& manager;
    const Log& log;
    RefusalLog& refusals;
    Limits limits;
    RecordSettings record;
    std::size_t output_bound;  // the most one event may leave waiting for a client (see limits.h)
    std::size_t report_room;   // router reports that may wait besides a client's own answers
    SessionWatcher* watcher = nullptr;
};

// One client link: its converter instance with the instance's Interface and
// driver, and its output, whatever carries the bytes (a Transport). A telnet
// codec and a login dialogue may stand between the transport and the instance.
//
// Everything the instance sends during one event leaves in one write.
// The client's input is handed to the instance one slice per event, and not at
// all while the client's waiting output (what the link has not taken) is
// above the high-water mark, so that a client that asks for much slows itself
// down, not the others. A client is disconnected for its output only when it
// does not read it: nothing taken for a while, or more waiting than the
// router can produce for a reader that keeps up.
class Session : public std::enable_shared_from_this<Session>, private RouterObserver, private TransportUser {
public:
    using Clock = std::chrono::steady_clock;

    Session(std::unique_ptr<Transport> transport, int id, const LinkSettings& settings, const SessionContext& context);
    ~Session();
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
    // or that has sent nothing for the link's idle timeout.
    void check_timeouts(Clock::time_point now);
    // Hands the slice scheduled by schedule_slice() to the instance.
    void run_scheduled_slice();

private:
    enum class State {
        logging_in,   // the login dialogue runs; there is no instance yet
        introducing,  // the instance is being told the router's state; nothing is read yet
        open,
        draining,     // the client closed its side, or its login failed: stop once the output is out
        dropping,     // a limit was passed: stop is under way
        stopped,
    };

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

    void start_instance();
    void introduce_some();
    void tell_crosspoint(int level, int source, int destination);
    void tell_lock(int level, int destination, int state);
    void send(const std::string& data);
    void send_to_client(const std::string& bytes);
    std::size_t waiting() const { return output_.size(); }
    // Bytes given to the link and not all taken yet: a wait for writability is under way.
    bool writing() const { return output_.handed() > 0; }
    void write_some();
    void on_writable(const boost::system::error_code& ec) override;
    void took_everything();

    std::shared_ptr<TransportUser> as_transport_user();
    void do_read();
    void on_read(const boost::system::error_code& ec, std::size_t length) override;
    bool decode_telnet(std::size_t& length);
    void read_login(std::size_t length);
    void refuse_login();
    bool login_delayed() const;
    void accept_input(std::size_t begin, std::size_t end);
    void continue_input();
    void schedule_slice();
    void feed_slice();
    std::size_t slice_end() const;
    bool line_too_long(const char* data, std::size_t length);
    void log_received(const char* data, std::size_t length);
    void note_lines(const char* data, std::size_t length);
    void log_sent();
    void drop(const std::string& reason);
    void close_after_output(const std::string& reason);
    // The one place where a failed read or write becomes the reason in the log.
    void fail(const boost::system::error_code& ec, const char* operation);
    std::string name() const;
    bool behind_the_router() const;
    void drop_slow_reader();

    std::unique_ptr<Transport> transport_;
    const int id_;
    const Clock::time_point connected_at_;
    std::string peer_;
    const LinkSettings settings_;
    const SessionContext& context_;
    std::optional<TelnetCodec> telnet_;
    std::optional<Login> login_;
    std::optional<boost::asio::steady_timer> login_delay_;  // after a wrong login
    std::string decoded_;       // telnet: the data of the last read
    std::string to_client_;     // telnet: bytes for the client
    std::string stop_reason_;   // while draining
    std::function<void(const std::string&)> stopped_handler_;
    Clock::time_point input_at_;  // when the client was last heard, to the second
    bool heard_ = false;          // the client sent something since the last check
    Link link_;
    ClientDriver driver_;
    std::unique_ptr<LinkRecording> recording_;  // --record: this link's transcript
    plugin_host::PluginLibrary::Instance instance_;  // declared after the link, driver and recording it borrows
    State state_ = State::introducing;

    // Where the introduction has got to: level index, then crosspoints or
    // locks, then destination.
    std::size_t introduced_level_ = 0;
    bool introducing_locks_ = false;
    int introduced_destination_ = 0;

    std::array<char, 16 * 1024> received_;
    std::size_t input_begin_ = 0;  // received_[input_begin_, input_end_) waits for the instance
    std::size_t input_end_ = 0;
    bool reading_ = false;          // a read is in flight
    bool slice_scheduled_ = false;  // the next slice is posted
    // Converter time of the recent slices, halved at each slice. A new client
    // counts as costly until its first few slices show otherwise, so that
    // many clients opening with costly commands at once cannot all go first.
    Clock::duration recent_cost_ = std::chrono::milliseconds(16);
    bool costly() const;
    std::size_t bytes_since_line_end_ = 0;
    std::string activity_line_;  // the verbose log's unfinished received line
    ClientInfo info_;
    std::string current_line_;   // received since the last line end, cut at 256 bytes

    OutputQueue output_;       // sent by the instance, not taken by the link yet
    std::size_t most_waiting_ = 0;  // since the output was last all taken
    std::size_t own_answers_ = 0;   // waiting after the client's own last event, while over the mark
    std::string activity_sent_;  // the verbose log's output of this event
    bool awaiting_flush_ = false;  // listed with the manager for the end of a frame
    bool in_event_ = false;        // the instance is handling input or the introduction: flush afterwards
    bool in_input_ = false;        // inside ReceiveData
    Clock::time_point progress_at_;  // last time the link took output, or output began to wait
    Clock::time_point above_since_;  // when waiting output went above the high-water mark
    bool above_mark_ = false;
};

}  // namespace routerd
