#include "sim/web/web_state.h"

#include <algorithm>
#include <ctime>
#include <iterator>

#include <boost/asio/post.hpp>

#include "sim/leitch_levels.h"
#include "sim/web/websocket_session.h"

namespace routerd::web {

using nlohmann::json;

namespace {

// A page may fall behind by a burst of frames before it counts as one that
// does not read: this much, plus two frames that change every destination.
constexpr std::size_t kPageQueueBase = 512 * 1024;
// The most one destination's crosspoint and lock take in a frame message.
constexpr std::size_t kFrameBytesPerDestination = 48;

std::int64_t epoch_ms(std::chrono::system_clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

// Frames go to every page at every frame end, so their text is written here
// directly rather than built as JSON objects first (the same fields as the
// API's events).
void append_number(std::string& out, std::int64_t number) { out += std::to_string(number); }

void append_triples(std::string& out, const std::vector<std::array<int, 3>>& triples) {
    out += '[';
    for (std::size_t i = 0; i < triples.size(); ++i) {
        if (i > 0) out += ',';
        out += '[';
        append_number(out, triples[i][0]);
        out += ',';
        append_number(out, triples[i][1]);
        out += ',';
        append_number(out, triples[i][2]);
        out += ']';
    }
    out += ']';
}

void append_field(std::string& out, const char* name, std::int64_t number) {
    out += ",\"";
    out += name;
    out += "\":";
    append_number(out, number);
}

void append_field(std::string& out, const char* name, const std::string& text) {
    out += ",\"";
    out += name;
    out += "\":";
    out += json(text).dump(-1, ' ', false, json::error_handler_t::replace);
}

void append_event(std::string& out, const ActivityEvent& event) {
    out += "{\"seq\":";
    append_number(out, static_cast<std::int64_t>(event.seq));
    append_field(out, "time", epoch_ms(event.time));
    out += ",\"kind\":\"";
    out += kind_name(event.kind);
    out += '"';
    append_field(out, "client", event.client);
    switch (event.kind) {
        case ActivityEvent::Kind::take:
        case ActivityEvent::Kind::refused_take:
            append_field(out, "level", event.level);
            append_field(out, "destination", event.destination);
            append_field(out, "source", event.value);
            break;
        case ActivityEvent::Kind::lock:
        case ActivityEvent::Kind::refused_lock:
            append_field(out, "level", event.level);
            append_field(out, "destination", event.destination);
            append_field(out, "state", event.value);
            break;
        case ActivityEvent::Kind::connect: append_field(out, "peer", event.text); break;
        case ActivityEvent::Kind::disconnect: append_field(out, "reason", event.text); break;
    }
    if (event.kind == ActivityEvent::Kind::refused_take || event.kind == ActivityEvent::Kind::refused_lock)
        append_field(out, "reason", event.text);
    out += '}';
}

}  // namespace

WebState::WebState(boost::asio::any_io_executor executor, const SimulatorConfig& config, Router& router,
                   SwitchQueue& switches, SessionManager& sessions, const Log& log)
    : executor_(std::move(executor)),
      config_(config.web),
      leitch_levels_(leitch_levels(config.converter)),
      router_(router),
      switches_(switches),
      sessions_(sessions),
      log_(log),
      page_queue_bound_(kPageQueueBase + 2 * kFrameBytesPerDestination * router.total_destinations()) {
    router_.subscribe(*this);
}

WebState::~WebState() { router_.unsubscribe(*this); }

int WebState::leitch_level(int level) const {
    const auto found = leitch_levels_.find(level);
    return found == leitch_levels_.end() ? -1 : found->second;
}

json WebState::levels_json() const {
    json levels = json::array();
    for (const LevelSpec& level : router_.levels()) {
        const int leitch = leitch_level(level.number);
        levels.push_back({{"number", level.number},
                          {"name", level.name},
                          {"sources", level.sources},
                          {"destinations", level.destinations},
                          {"leitch_level", leitch < 0 ? json(nullptr) : json(leitch)}});
    }
    return levels;
}

json WebState::level_json(const LevelSpec& level) const {
    std::vector<int> crosspoints(static_cast<std::size_t>(level.destinations));
    std::vector<int> locks(static_cast<std::size_t>(level.destinations));
    for (int d = 0; d < level.destinations; ++d) {
        crosspoints[static_cast<std::size_t>(d)] = router_.source_of(level.number, d);
        locks[static_cast<std::size_t>(d)] = router_.lock_of(level.number, d);
    }
    const int leitch = leitch_level(level.number);
    return {{"number", level.number},
            {"name", level.name},
            {"sources", level.sources},
            {"destinations", level.destinations},
            {"leitch_level", leitch < 0 ? json(nullptr) : json(leitch)},
            {"crosspoints", crosspoints},
            {"locks", locks}};
}

json WebState::clients_json() const {
    std::vector<const ClientInfo*> infos;
    for (const auto& session : sessions_.sessions()) infos.push_back(&session->info());
    std::sort(infos.begin(), infos.end(), [](const ClientInfo* a, const ClientInfo* b) { return a->id < b->id; });
    json clients = json::array();
    for (const ClientInfo* info : infos) {
        clients.push_back({{"id", info->id},
                           {"peer", info->peer},
                           {"link", info->link},
                           {"connected_since", epoch_ms(info->connected_since)},
                           {"report_mode", info->report_mode},
                           {"lines_received", info->lines_received},
                           // Whatever bytes a client sent: never let them break the JSON.
                           {"last_line", escape(info->last_line)}});
    }
    return clients;
}

json WebState::links_json() const {
    json links = json::array();
    if (!links_) return links;
    for (const LinkStatus& link : links_->links()) {
        links.push_back({{"kind", link.kind},
                         {"where", link.where},
                         {"settings", link.settings},
                         {"up", link.up},
                         {"problem", link.problem}});
    }
    return links;
}

void WebState::append_events(std::string& out, std::uint64_t after) const {
    // The newest events are at the back: find the first one after `after`.
    const auto& events = activity_.events();
    auto first = events.end();
    while (first != events.begin() && std::prev(first)->seq > after) --first;
    out += '[';
    for (auto it = first; it != events.end(); ++it) {
        if (it != first) out += ',';
        append_event(out, *it);
    }
    out += ']';
}

json WebState::events_json(std::uint64_t after) const {
    std::string text;
    append_events(text, after);
    return json::parse(text);
}

std::string WebState::hello() const {
    json levels = json::array();
    for (const LevelSpec& level : router_.levels()) levels.push_back(level_json(level));
    return json{{"type", "hello"},
                {"readonly", config_.readonly},
                {"levels", std::move(levels)},
                {"clients", clients_json()},
                {"links", links_json()},
                {"events", events_json(0)}}
        .dump(-1, ' ', false, json::error_handler_t::replace);
}

void WebState::crosspoint_changed(int level, int source, int destination) {
    if (!pages_.empty()) crosspoints_.push_back({level, destination, source});
}

void WebState::lock_changed(int level, int destination, int state) {
    if (!pages_.empty()) locks_.push_back({level, destination, state});
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
    if (links_) {
        std::vector<LinkStatus> links = links_->links();
        if (links != links_seen_) clients_changed_ = true;
        links_seen_ = std::move(links);
    }
    if (clients_changed_) push();
    const auto now = std::chrono::steady_clock::now();
    for (WebSocketSession* page : std::vector<WebSocketSession*>(pages_.begin(), pages_.end()))
        page->check_stalled(now);
}

void WebState::push_soon() {
    if (push_posted_) return;
    push_posted_ = true;
    // The state outlives the io_context's run, so the handler may hold `this`.
    boost::asio::post(executor_, [this] {
        push_posted_ = false;
        push();
    });
}

void WebState::push() {
    const bool new_events = activity_.last_seq() != pushed_seq_;
    if (pages_.empty()) {
        crosspoints_.clear();
        locks_.clear();
        pushed_seq_ = activity_.last_seq();
        clients_changed_ = false;
        return;
    }
    if (crosspoints_.empty() && locks_.empty() && !new_events && !clients_changed_) return;
    std::string frame = "{\"type\":\"frame\",\"crosspoints\":";
    append_triples(frame, crosspoints_);
    frame += ",\"locks\":";
    append_triples(frame, locks_);
    if (new_events) {
        frame += ",\"events\":";
        append_events(frame, pushed_seq_);
    }
    if (clients_changed_) {
        frame += ",\"clients\":";
        frame += clients_json().dump(-1, ' ', false, json::error_handler_t::replace);
        frame += ",\"links\":";
        frame += links_json().dump(-1, ' ', false, json::error_handler_t::replace);
    }
    frame += '}';
    const auto message = std::make_shared<const std::string>(std::move(frame));
    crosspoints_.clear();
    locks_.clear();
    pushed_seq_ = activity_.last_seq();
    clients_changed_ = false;
    for (WebSocketSession* page : std::vector<WebSocketSession*>(pages_.begin(), pages_.end())) page->send(message);
}

void WebState::stop_pages() {
    for (WebSocketSession* page : std::vector<WebSocketSession*>(pages_.begin(), pages_.end()))
        page->close("simulator shutting down");
}

}  // namespace routerd::web
