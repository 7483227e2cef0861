#pragma once

#include <array>
#include <map>
#include <memory>
#include <string>

#include <boost/asio/ip/tcp.hpp>

#include "framework/interface.h"
#include "sim/client_driver.h"
#include "sim/limits.h"
#include "sim/log.h"
#include "sim/plugin_library.h"
#include "sim/router.h"
#include "sim/switch_queue.h"

namespace routerd {

class SessionManager;

// What every session shares.
struct SessionContext {
    std::shared_ptr<const PluginLibrary> plugin;
    std::map<std::string, std::string> converter_config;  // handed to LoadConfig
    Router& router;
    SwitchQueue& switches;
    SessionManager& manager;
    const Log& log;
    Limits limits;
};

// One client connection: its socket, its converter instance with the instance's
// link and driver, and its output. Everything the instance sends during one
// event leaves in one socket write; a write starts only when none is in flight.
class Session : public std::enable_shared_from_this<Session>, private RouterObserver {
public:
    Session(boost::asio::ip::tcp::socket socket, int id, const SessionContext& context);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Builds the converter instance in the framework's order, joins the router
    // and starts reading. Throws if the plug-in cannot create an instance.
    void start();
    // Destroys the instance and closes the connection; the reason goes to the log.
    void stop(const std::string& reason);

    int id() const { return id_; }
    // Writes what the instance has sent, unless a write is in flight.
    void flush();

private:
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

    void introduce_router();
    void send(const std::string& data);
    void do_read();
    void on_read(const boost::system::error_code& ec, std::size_t length);
    void on_write(const boost::system::error_code& ec);
    bool line_too_long(const char* data, std::size_t length);
    void log_received(const char* data, std::size_t length);
    void drop(const std::string& reason);

    boost::asio::ip::tcp::socket socket_;
    const int id_;
    std::string peer_;
    const SessionContext& context_;
    Link link_;
    ClientDriver driver_;
    PluginLibrary::Instance instance_;  // declared after the link and driver it borrows

    std::array<char, 16 * 1024> received_;
    std::size_t bytes_since_line_end_ = 0;
    std::string activity_line_;  // the verbose log's unfinished received line

    std::string outbox_;    // sent by the instance, not yet written
    std::string in_flight_; // being written
    bool writing_ = false;
    bool awaiting_flush_ = false;  // listed with the manager for the end of a router change
    bool in_event_ = false;  // inside ReceiveData: the read handler flushes afterwards
    bool dropping_ = false;  // a limit was passed: stop is under way
    bool client_done_ = false;  // the client closed its side: stop once the output is out
    bool stopped_ = false;
};

}  // namespace routerd
