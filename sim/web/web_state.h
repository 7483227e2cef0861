#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/steady_timer.hpp>

#include "sim/config.h"
#include "sim/log.h"
#include "sim/router/router.h"
#include "sim/links/address_shares.h"
#include "sim/links/link_status.h"
#include "sim/links/refusal_bursts.h"
#include "sim/session.h"
#include "sim/session_manager.h"
#include "sim/router/state_writer.h"
#include "sim/router/switch_queue.h"
#include "sim/web/activity_log.h"
#include "sim/web/latest_changes.h"
#include "sim/web/messages.h"

namespace routerd::web {

class WebSocketSession;

// What every page and every API request shares: the router, the clients and
// the activity log, and the open pages. Changes are gathered as the router
// tells them, one entry per destination (the latest source and lock), and
// pushed to every page as one message at most once per push interval (a
// display shows no more), with every event since the last message, in order;
// a change after a quiet interval goes at once. A message that shows a change
// not kept yet waits until it is (see SwitchQueue), and so does every message
// after it, a page's greeting included. A level whose labels change is sent
// whole with the next message. With no page open nothing is gathered.
class WebState final : private RouterObserver, public SwitchWatcher, public SessionWatcher {
public:
    static constexpr std::size_t kActivityEvents = 300;

    // `store` is the state file, where saved routings live (null without
    // --state); `links` the TCP ports and serial ports served. The state
    // watches `switches` and the router while it lives.
    WebState(boost::asio::any_io_executor executor, const SimulatorConfig& config, Router& router,
             SwitchQueue& switches, SessionManager& sessions, const Log& log, StateWriter* store,
             const LinkDirectory& links);
    ~WebState();
    WebState(const WebState&) = delete;
    WebState& operator=(const WebState&) = delete;

    const WebConfig& config() const { return config_; }
    const Log& log() const { return log_; }
    Router& router() { return router_; }
    SwitchQueue& switches() { return switches_; }
    // The state file, where saved routings live; null without --state.
    StateWriter* store() { return store_; }

    // The Leitch level a router level is seen as, or -1.
    int leitch_level(int level) const;

    // The messages of sim/web/messages.h for what the state holds now.
    std::string levels_message() const;
    std::string level_message(const LevelSpec& level) const;
    std::string clients_message() const;
    std::string links_message() const;
    std::string events_message(std::uint64_t after) const;
    // Everything a page shows, for a page that has just connected.
    std::string hello() const;
    // Sends the page its hello, after the messages before it.
    void greet(const std::shared_ptr<WebSocketSession>& page);

    // A place for a page from `address` (see share_address) in `page`, or
    // why not, in plain words for the answer; refusals are logged once per
    // burst (RefusalBursts).
    std::string admit_page(const std::string& address, const std::string& peer, AddressShares::Place& page);
    // Refused connections, logged once per burst.
    RefusalBursts& refusals() { return refusals_; }

    // Pages register while open; they are told every frame.
    std::size_t pages() const { return pages_.size(); }
    void join(WebSocketSession& page) { pages_.insert(&page); }
    void leave(WebSocketSession& page) { pages_.erase(&page); }
    int next_page_id() { return next_page_++; }
    // The most a page may have waiting before it counts as one that does not
    // read; it grows with the labels, which a greeting and a frame may each
    // carry whole.
    std::size_t page_queue_bound() const;

    // The end of a frame: what it changed goes to every page, now or at the
    // end of the push interval.
    void frame_done() { push_soon(); }
    // Once a second: the clients' line counts, pages that stopped reading.
    void tick();
    void stop_pages();

    void switch_asked(int client, Kind kind, int level, int destination, int value, Refusal refusal) override;
    void client_connected(const Session& session) override;
    void client_disconnected(const Session& session, const std::string& reason) override;

private:
    void crosspoint_changed(int level, int source, int destination) override;
    void lock_changed(int level, int destination, int state) override;
    void labels_changed(int level) override;
    void levels_changed() override;

    void push_soon();
    void push();
    void forget_changes();

    // A message waiting for its frame to be kept: for every page, or for one.
    struct Held {
        std::uint64_t frame;
        std::shared_ptr<const std::string> message;
        std::weak_ptr<WebSocketSession> page;
        bool greeting;
    };
    void deliver(Held held);
    void hand_out(const Held& held);
    void release();
    std::vector<const ClientInfo*> clients() const;
    LeitchLevelOf leitch_level_of() const;

    boost::asio::any_io_executor executor_;
    WebConfig config_;
    std::map<int, int> leitch_levels_;  // router level -> the Leitch level clients see it as
    Router& router_;
    StateWriter* store_;
    const LinkDirectory& links_;
    std::vector<LinkStatus> links_seen_;  // at the last push
    SwitchQueue& switches_;
    SessionManager& sessions_;
    const Log& log_;
    ActivityLog activity_{kActivityEvents};
    std::set<WebSocketSession*> pages_;
    AddressShares page_places_;  // max_pages, shared out by address
    RefusalBursts refusals_;
    int next_page_ = 1;
    std::size_t page_queue_bound_;  // without the labels
    std::size_t ports_ = 0;         // sources and destinations of every level

    LatestChanges crosspoints_;  // told since the last push
    LatestChanges locks_;
    std::vector<int> relabelled_;  // levels whose labels changed since the last push
    boost::asio::steady_timer push_timer_;
    std::chrono::steady_clock::time_point pushed_at_{};
    std::uint64_t pushed_seq_ = 0;                 // the last event pushed
    bool clients_changed_ = false;
    std::size_t lines_seen_ = 0;                   // lines received by all clients, at the last tick
    bool push_posted_ = false;
    std::deque<Held> held_;
    bool awaiting_settle_ = false;
};

}  // namespace routerd::web
