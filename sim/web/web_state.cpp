#include "sim/web/web_state.h"

#include <algorithm>

#include <boost/asio/post.hpp>

#include "sim/leitch_levels.h"
#include "sim/web/websocket_session.h"

namespace routerd::web {

namespace {

// A page may fall behind by a burst of frames before it counts as one that
// does not read: this much, plus two frames that change every destination.
constexpr std::size_t kPageQueueBase = 512 * 1024;
// The most one destination's crosspoint and lock take in a frame message.
constexpr std::size_t kFrameBytesPerDestination = 48;

std::size_t frame_queue_bound(const Router& router) {
    return kPageQueueBase + 2 * kFrameBytesPerDestination * router.total_destinations();
}

std::size_t count_ports(const Router& router) {
    std::size_t ports = 0;
    for (const LevelSpec& level : router.levels())
        ports += static_cast<std::size_t>(level.sources) + static_cast<std::size_t>(level.destinations);
    return ports;
}
// Besides its own bytes, written twice at most (a quote or a backslash takes
// two), the most one port's label takes in a message: quotes and a comma, or "null,".
constexpr std::size_t kLabelBytesPerPort = 5;


}  // namespace

WebState::WebState(boost::asio::any_io_executor executor, const SimulatorConfig& config, Router& router,
                   SwitchQueue& switches, SessionManager& sessions, const Log& log, StateWriter* store,
                   const LinkDirectory& links)
    : executor_(std::move(executor)),
      config_(config.web),
      leitch_levels_(leitch_levels(config.converter)),
      router_(router),
      store_(store),
      links_(links),
      switches_(switches),
      sessions_(sessions),
      log_(log),
      page_places_(config.web.max_pages, config.web.max_pages_per_address),
      refusals_(log, ""),
      page_queue_bound_(frame_queue_bound(router)),
      ports_(count_ports(router)),
      crosspoints_(router),
      locks_(router),
      push_timer_(executor_) {
    router_.subscribe(*this);
    switches_.watch(this);
}

WebState::~WebState() {
    switches_.watch(nullptr);
    router_.unsubscribe(*this);
}

int WebState::leitch_level(int level) const {
    const auto found = leitch_levels_.find(level);
    return found == leitch_levels_.end() ? -1 : found->second;
}

LeitchLevelOf WebState::leitch_level_of() const {
    return [this](int level) { return leitch_level(level); };
}

std::vector<const ClientInfo*> WebState::clients() const {
    std::vector<const ClientInfo*> infos;
    for (const auto& session : sessions_.sessions()) infos.push_back(&session->info());
    return infos;
}

std::string WebState::levels_message() const { return web::levels_message(router_, leitch_level_of()); }

std::string WebState::level_message(const LevelSpec& level) const {
    return web::level_message(router_, level, leitch_level(level.number));
}

std::string WebState::clients_message() const { return web::clients_message(clients()); }

std::string WebState::links_message() const { return web::links_message(links_.links()); }

std::string WebState::events_message(std::uint64_t after) const {
    return web::events_message(activity_.events(), after);
}

std::string WebState::hello() const {
    return hello_message({config_.readonly, router_, leitch_level_of(), clients(), links_.links(), activity_.events()});
}

void WebState::crosspoint_changed(int level, int source, int destination) {
    if (!pages_.empty()) crosspoints_.note(level, destination, source);
}

void WebState::lock_changed(int level, int destination, int state) {
    if (!pages_.empty()) locks_.note(level, destination, state);
}

// A real router announced other counts: every page starts again from a
// greeting of the router as it is now; what changes next is pushed as usual.
void WebState::levels_changed() {
    crosspoints_ = LatestChanges(router_);
    locks_ = LatestChanges(router_);
    relabelled_.clear();
    ports_ = count_ports(router_);
    page_queue_bound_ = frame_queue_bound(router_);
    for (WebSocketSession* page : std::vector<WebSocketSession*>(pages_.begin(), pages_.end()))
        greet(page->shared_from_this());
}

void WebState::labels_changed(int level) {
    if (pages_.empty()) return;  // a page that opens later is greeted with them
    if (std::find(relabelled_.begin(), relabelled_.end(), level) == relabelled_.end()) relabelled_.push_back(level);
    push_soon();
}

std::size_t WebState::page_queue_bound() const {
    return page_queue_bound_ + 2 * (2 * router_.label_bytes() + kLabelBytesPerPort * ports_);
}

void WebState::switch_asked(int client, Kind kind, int level, int destination, int value, Refusal refusal) {
    using K = ActivityEvent::Kind;
    const bool refused = refusal != Refusal::none;
    const K event_kind = kind == Kind::take ? (refused ? K::refused_take : K::take)
                                            : (refused ? K::refused_lock : K::lock);
    ActivityEvent& event = activity_.add(event_kind, client);
    event.level = level;
    event.destination = destination;
    event.value = value;
    if (refused) {
        event.text = describe(refusal);
        // An applied change is pushed with its frame; a refusal makes no frame.
        push_soon();
    }
    // The activity log keeps the last kActivityEvents: a burst that would
    // pass them before the interval ends goes at once, so none is lost.
    if (activity_.last_seq() - pushed_seq_ >= kActivityEvents / 2 && !pages_.empty()) push();
}

void WebState::client_connected(const Session& session) {
    activity_.add(ActivityEvent::Kind::connect, session.id()).text = session.info().peer;
    clients_changed_ = true;
    push_soon();
}

void WebState::client_disconnected(const Session& session, const std::string& reason) {
    activity_.add(ActivityEvent::Kind::disconnect, session.id()).text = reason;
    clients_changed_ = true;
    push_soon();
}

void WebState::tick() {
    std::size_t lines = 0;
    for (const auto& session : sessions_.sessions()) lines += session->info().lines_received;
    if (lines != lines_seen_) clients_changed_ = true;
    lines_seen_ = lines;
    // A serial port that went away or came back changes no client by itself.
    std::vector<LinkStatus> links = links_.links();
    if (links != links_seen_) clients_changed_ = true;
    links_seen_ = std::move(links);
    if (clients_changed_) push_soon();
    const auto now = std::chrono::steady_clock::now();
    for (WebSocketSession* page : std::vector<WebSocketSession*>(pages_.begin(), pages_.end()))
        page->check_stalled(now);
    refusals_.end_quiet(now);
}

std::string WebState::admit_page(const std::string& address, const std::string& peer, AddressShares::Place& page) {
    const auto now = std::chrono::steady_clock::now();
    switch (page_places_.take(address, page)) {
        case AddressShares::Verdict::taken:
            return {};
        case AddressShares::Verdict::full:
            refusals_.refused("pages (max_pages)", now, [&] {
                return "page from " + peer + " refused: already " + std::to_string(page_places_.held()) +
                       " pages (max_pages)";
            });
            return "too many pages: the limit is " + std::to_string(page_places_.total());
        case AddressShares::Verdict::address_full:
            break;
    }
    const std::string held = std::to_string(page_places_.held_by(address)) + " of " +
                             std::to_string(page_places_.per_address());
    refusals_.refused("pages from " + address + " (max_pages_per_address)", now, [&] {
        return "page from " + peer + " refused: " + address + " has " + held + " pages open (max_pages_per_address)";
    });
    return "too many pages from your address (" + held + ")";
}

// In an event of its own, so that what the current event changes goes too;
// no sooner than one push interval after the last message.
void WebState::push_soon() {
    if (pages_.empty()) return push();  // nothing to send: only the bookkeeping, at once
    if (push_posted_) return;
    push_posted_ = true;
    const auto due = pushed_at_ + config_.push_interval;
    // The state outlives the io_context's run, so the handlers may hold `this`.
    if (std::chrono::steady_clock::now() >= due) {
        boost::asio::post(executor_, [this] {
            push_posted_ = false;
            push();
        });
        return;
    }
    push_timer_.expires_at(due);
    push_timer_.async_wait([this](const boost::system::error_code& ec) {
        push_posted_ = false;
        if (!ec) push();
    });
}

void WebState::forget_changes() {
    crosspoints_.clear();
    locks_.clear();
    relabelled_.clear();
}

void WebState::push() {
    const bool new_events = activity_.last_seq() != pushed_seq_;
    if (pages_.empty()) {
        if (!crosspoints_.empty() || !locks_.empty() || !relabelled_.empty()) forget_changes();
        pushed_seq_ = activity_.last_seq();
        clients_changed_ = false;
        return;
    }
    if (crosspoints_.empty() && locks_.empty() && relabelled_.empty() && !new_events && !clients_changed_) return;
    FrameMessage frame(crosspoints_.changes(), locks_.changes());
    if (new_events) frame.add_events(activity_.events(), pushed_seq_);
    if (clients_changed_) frame.add_clients_and_links(clients(), links_.links());
    if (!relabelled_.empty()) frame.add_labels(router_, relabelled_);
    const auto message = std::make_shared<const std::string>(frame.finish());
    pushed_at_ = std::chrono::steady_clock::now();
    forget_changes();
    pushed_seq_ = activity_.last_seq();
    clients_changed_ = false;
    deliver({switches_.tag(), message, {}, false});
}

void WebState::greet(const std::shared_ptr<WebSocketSession>& page) {
    deliver({switches_.tag(), std::make_shared<const std::string>(hello()), page, true});
}

void WebState::deliver(Held held) {
    if (held_.empty() && switches_.settled(held.frame)) return hand_out(held);
    held_.push_back(std::move(held));
    release();
}

void WebState::hand_out(const Held& held) {
    if (held.greeting) {
        if (const auto page = held.page.lock()) page->greet(held.message);
        return;
    }
    for (WebSocketSession* page : std::vector<WebSocketSession*>(pages_.begin(), pages_.end())) page->send(held.message);
}

// In order: a page hears every message after its greeting, none before.
void WebState::release() {
    while (!held_.empty() && switches_.settled(held_.front().frame)) {
        const Held held = std::move(held_.front());
        held_.pop_front();
        hand_out(held);
    }
    if (held_.empty() || awaiting_settle_) return;
    awaiting_settle_ = true;
    // The state outlives the io_context's run, so the handler may hold `this`.
    switches_.when_settled(held_.front().frame, [this] {
        awaiting_settle_ = false;
        release();
    });
}

void WebState::stop_pages() {
    push_timer_.cancel();
    for (WebSocketSession* page : std::vector<WebSocketSession*>(pages_.begin(), pages_.end()))
        page->close("simulator shutting down");
}

}  // namespace routerd::web
