#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/serial_port.hpp>
#include <boost/asio/steady_timer.hpp>

#include "sim/backends/availability.h"
#include "sim/backends/backend_settings.h"
#include "sim/backends/gateway.h"
#include "sim/backends/swp08_codec.h"
#include "sim/log.h"
#include "sim/router/router.h"

namespace routerd {

// An SW-P-08 router (or one of its two controllers) driven over TCP or a
// serial port, as one of its clients.
//
// Every level of the model is a matrix and level of the router, sized by the
// configuration: the protocol cannot ask a router its sizes. Once connected,
// the backend reads the state: which controller is active (with two), which
// commands the router implements, the names, each level's tally dump (or, if
// no dump comes, every destination asked in turn) and the protects. After
// that it follows what the router reports to all its clients.
//
// The model holds only what the router reported: a take is a connect, and is
// decided by the router's report that the destination carries the source (a
// "connected", a tally, a dump), never by the link's ACK. Takes of one frame
// (presets executed, a saved routing recalled) go as one group salvo where the
// router has them, else as connects paced as routers are built to take them.
// A take the router does not report within the confirmation time is refused.
//
// Locks are protects under the gateway's own device number: a Leitch lock
// protects the destination at the router, an unlock removes the protect, and
// a destination another device protects is locked for every Leitch client.
//
// While the router is away every change is refused and the model keeps the
// last state read; after a reconnect the whole state is read again and only
// what differs is told.
class Swp08Backend final : public RouterGateway {
public:
    Swp08Backend(boost::asio::io_context& io, Router& router, BackendSettings settings, const Log& log);

    void listen(BackendListener& listener) override { listener_ = &listener; }
    Refusal take(const SwitchRequest& request) override;
    Refusal lock(const SwitchRequest& request) override;
    void frame_ended() override;

    void start() override;
    void stop() override;

    bool serves(int level) const override { return index_of_level_.count(level) != 0; }
    bool sized_by_router() const override { return false; }
    void restore_locks(int level, std::vector<int> locks) override;

    const BackendStatus& status() const override { return availability_.status(); }
    const BackendSettings& settings() const override { return settings_; }
    std::string address() const override { return current_address().describe(); }
    std::string device() const override { return device_; }
    std::uint64_t failures() const override { return failures_; }

private:
    using Clock = std::chrono::steady_clock;
    using Key = std::pair<std::size_t, int>;  // level index, destination

    static constexpr int kUnprotected = -1;

    // One level of the model, where the router has it.
    struct Level {
        int number = 0;
        int matrix = 0;
        int level = 0;
        int sources = 0;
        int destinations = 0;
        std::vector<int> leitch_locks;  // the lock state Leitch clients set, per destination
        std::vector<int> protected_by;  // the device protecting each destination at the router, or kUnprotected
        std::vector<bool> reported;     // destinations reported since the read began
        int reported_count = 0;
    };

    // A take on its way: decided once the router reports the destination carrying its source.
    struct Ask {
        int source = 0;
        std::vector<SwitchRequest> waiting;
        Clock::time_point deadline = Clock::time_point::max();  // from when its message leaves
        bool sent = false;
    };

    // A message waiting for its turn on the link.
    struct Outgoing {
        swp08::Bytes message;
        bool connect = false;      // paced
        std::vector<Key> starts;   // takes whose confirmation time begins when it leaves
    };

    // One frame's takes as a group salvo: its entries, and those the router acknowledged.
    struct Salvo {
        struct Entry {
            Key key;
            int source = 0;
            bool acknowledged = false;
        };
        std::vector<Entry> entries;
        Clock::time_point deadline = Clock::time_point::max();
    };

    // A step of reading the router's state; the read is done when none is left.
    struct Step {
        enum Kind { dual_status, implementation, salvo_clear, source_names, destination_names, tallies, interrogates, protects } kind;
        std::size_t index = 0;  // the level's (the matrix's, for destination names)
        int next = 0;           // protects: the first destination asked for next
    };

    const RouterAddress& current_address() const;
    Level* level_of(int number);
    Level* level_at(int matrix, int level);
    std::size_t index_of(const Level& level) const { return static_cast<std::size_t>(&level - levels_.data()); }
    std::string where(const Level& level) const;

    // The link
    void connect();
    void on_connected();
    void read();
    void on_read(const boost::system::error_code& ec, std::size_t length);
    void apply(const swp08::LinkOutput& out);
    void write(const std::string& bytes);
    void write_more();
    void pump();
    void send(swp08::Bytes message, bool connect = false, std::vector<Key> starts = {});
    void arm_timer();
    void on_timer();
    void drop(const std::string& reason);
    void reconnect_later();
    void close_stream();

    // What the router says
    void handle(const swp08::Message& message);
    void crosspoints(const swp08::Crosspoints& message);
    void reported(Level& level, int destination, int source);
    void protects(const swp08::Protects& message);
    void names(const swp08::Names& message);
    void dual_status(const swp08::DualStatus& status);
    void implementation(const swp08::Implementation& list);
    void salvo_entry(const swp08::SalvoEntry& entry);
    void salvo_done(const swp08::SalvoDone& done);
    void show_lock(Level& level, int destination);

    // Reading the state
    void plan_read();
    void plan_names();
    void begin_step();
    void step_answered(std::chrono::milliseconds pause);
    void next_step();
    void next_step_after_silence();
    bool step_complete() const;
    void state_read();

    // Takes and locks
    void confirmed(Level& level, int destination, int source);
    void decide(Ask& ask, Refusal refusal);
    void refuse_all(Refusal refusal);
    void expire(Clock::time_point now);
    void send_gathered();
    void protect(Level& level, int destination, bool on);
    std::size_t most_paced_waiting() const;

    boost::asio::io_context& io_;
    Router& router_;
    BackendSettings settings_;
    const Log& log_;
    BackendListener* listener_ = nullptr;
    std::vector<Level> levels_;
    std::map<int, std::size_t> index_of_level_;     // by the model's level number
    std::map<int, std::size_t> index_of_router_;    // by matrix * 256 + level

    boost::asio::ip::tcp::socket socket_;
    boost::asio::serial_port serial_;
    boost::asio::steady_timer timer_;      // connect, ACK, answer, confirmation, pacing and keepalive deadlines
    boost::asio::steady_timer reconnect_;
    std::uint64_t generation_ = 0;         // bumped at each drop: older handlers find it changed
    bool running_ = false;
    bool connected_ = false;
    bool up_ = false;                      // connected and the state read: changes are taken
    std::size_t controller_ = 0;           // which address is in use: 0, or 1 for address2
    std::uint64_t failures_ = 0;
    Clock::time_point connected_at_{};

    swp08::Link link_;
    std::array<std::uint8_t, 16384> buffer_{};
    std::string writing_;                  // on its way to the router
    std::string unwritten_;                // waiting for that write to end
    std::deque<Outgoing> outbox_;
    std::size_t paced_waiting_ = 0;        // connects in the outbox, waiting for the pace
    double connect_tokens_ = 0;
    Clock::time_point tokens_at_{};
    Clock::time_point last_sent_{};
    int bad_frames_in_a_row_ = 0;
    swp08::Bytes last_message_;            // the router's last frame, to know a repeat of it

    std::deque<Step> steps_;
    std::size_t names_steps_ = 0;          // how many steps the last plan of names added
    Clock::time_point step_deadline_ = Clock::time_point::max();
    int step_answers_ = 0;                 // messages that answered the step under way
    int names_read_ = 0;                   // names the step under way has read, from the first
    bool implemented_salvos_ = false;

    std::map<Key, std::vector<Ask>> asks_;  // takes on their way, by destination
    std::vector<Key> gathered_;             // asked in this frame, not sent yet
    std::deque<Salvo> salvos_;              // sent, their go not answered yet
    Availability availability_;
    std::string device_;
};

}  // namespace routerd
