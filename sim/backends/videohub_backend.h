#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "sim/backends/availability.h"
#include "sim/backends/backend_settings.h"
#include "sim/backends/gateway.h"
#include "sim/backends/videohub_codec.h"
#include "sim/log.h"
#include "sim/router/backend.h"
#include "sim/router/router.h"

namespace routerd {

// A Videohub router driven over its Ethernet protocol, as one client of it.
//
// The model holds only what the router reported: a take goes to the router in
// the routing block of its frame (one request outstanding at a time, takes
// that come meanwhile wait for the next block) and is decided by the router's
// status blocks, never by its ACK, which only says the block was understood.
// An ACK whose block left a destination as it was, or a NAK, is a refusal.
// Changes made at the router by anyone else reach the model as they come.
//
// Locks: Leitch clients' lock states are kept here as the simulated router
// keeps them, and besides, a locked destination is taken at the router (O),
// so that its other controllers cannot switch it; one that another controller
// holds there (L) is locked for every Leitch client.
//
// While the router is away (not connected, its state not read yet, or no
// device present) every change is refused, nothing is queued for later, and
// the model keeps the last state read. After a reconnect the new state dump is
// compared with the model: only what differs is told.
class VideohubBackend final : public RouterGateway {
public:
    // The router's levels must exist in `router`; their sizes follow the router's.
    VideohubBackend(boost::asio::io_context& io, Router& router, BackendSettings settings, const Log& log);

    void listen(BackendListener& listener) override { listener_ = &listener; }
    Refusal take(const SwitchRequest& request) override;
    Refusal lock(const SwitchRequest& request) override;
    void frame_ended() override { send_next(); }

    void start() override;
    void stop() override;

    bool serves(int level) const override {
        return level >= 0 && (level == banks_[0].level || level == banks_[1].level);
    }
    bool sized_by_router() const override { return true; }
    void restore_locks(int level, std::vector<int> locks) override;

    const BackendStatus& status() const override { return availability_.status(); }
    const BackendSettings& settings() const override { return settings_; }
    std::string address() const override { return settings_.address(); }
    std::string device() const override { return device_; }
    std::uint64_t failures() const override { return failures_; }

private:
    using OutputKind = videohub::OutputKind;
    using LockState = videohub::LockState;
    static constexpr std::size_t kKinds = 2;  // video outputs, monitoring outputs

    // A take on its way: the source asked for, and who waits for the decision.
    struct Ask {
        int input = 0;
        std::vector<SwitchRequest> waiting;
    };
    using Asks = std::map<int, Ask>;  // by output

    // One kind of output, served as a router level.
    struct Bank {
        int level = -1;  // -1: not served
        int outputs = 0;
        std::vector<int> leitch_locks;          // the state Leitch clients set, per output
        std::vector<LockState> router_locks;    // as the router reports them to this link
        Asks gathering;                          // takes of frames not sent yet
        std::map<int, LockState> lock_changes;   // outputs to own (O) or release (U) at the router
        bool routing_read = false;
        bool locks_read = false;
    };

    // The request on the wire: at most one.
    struct InFlight {
        enum Kind { routing, locks, ping } kind = ping;
        std::size_t bank = 0;
        Asks asks;              // a routing block's takes not confirmed yet
        bool acknowledged = false;
        std::array<Asks, kKinds> settles;  // takes acknowledged before it left: decided by its answer
    };

    Bank* bank_of_level(int level);
    std::size_t bank_index(OutputKind kind) const { return kind == OutputKind::video_output ? 0 : 1; }
    int inputs() const { return inputs_; }

    void resolve_and_connect();
    void on_connected(const boost::system::error_code& ec);
    void read();
    void on_read(const boost::system::error_code& ec, std::size_t length);
    void handle(const videohub::Event& event);
    void answered(bool acknowledged);
    void device(const videohub::Device& device);
    void routing(const videohub::Routing& routing);
    void locks(const videohub::Locks& locks);
    void labels(const videohub::Labels& labels);
    void check_read_complete();
    void state_read();
    void send_next();
    void send(InFlight request, std::string bytes);
    void arm_timer();
    void on_timer();
    void drop(const std::string& reason);
    void reconnect_later();
    void decide(Ask& ask, Refusal refusal);
    void decide_all(Asks& asks, Refusal refusal);
    void refuse_everything_waiting(Refusal refusal);
    void show_lock(Bank& bank, int output);
    void resize(Bank& bank, int outputs);

    boost::asio::io_context& io_;
    Router& router_;
    BackendSettings settings_;
    const Log& log_;
    BackendListener* listener_ = nullptr;

    boost::asio::ip::tcp::socket socket_;
    boost::asio::steady_timer timer_;      // connect, answer and keepalive deadlines
    boost::asio::steady_timer reconnect_;  // the pause before the next attempt
    std::uint64_t generation_ = 0;         // bumped at each drop: older handlers find it changed
    bool running_ = false;
    bool connected_ = false;
    bool read_ = false;             // the state dump is read (and a device is present)
    bool device_present_ = false;
    std::uint64_t failures_ = 0;
    std::chrono::steady_clock::time_point connected_at_{};
    std::array<char, 65536> buffer_{};
    videohub::Reader reader_;
    std::string out_;

    std::array<Bank, kKinds> banks_;
    int inputs_ = 0;
    std::string device_;
    std::optional<InFlight> in_flight_;
    std::chrono::steady_clock::time_point sent_at_{};
    std::chrono::steady_clock::time_point last_sent_{};
    std::array<Asks, kKinds> unconfirmed_;  // acknowledged, no status seen: refused at the next answer
    Availability availability_;
};

}  // namespace routerd
