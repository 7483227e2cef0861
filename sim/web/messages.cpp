#include "sim/web/messages.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstring>
#include <iterator>
#include <string_view>

#include <nlohmann/json.hpp>

#include "sim/log.h"

namespace routerd::web {

using nlohmann::json;

namespace {

std::string dump(const json& value) { return value.dump(-1, ' ', false, json::error_handler_t::replace); }

std::int64_t epoch_ms(std::chrono::system_clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

json leitch_level_value(int leitch_level) { return leitch_level < 0 ? json(nullptr) : json(leitch_level); }

json level_object(const LevelSpec& level, int leitch_level) {
    return {{"number", level.number},
            {"name", level.name},
            {"sources", level.sources},
            {"destinations", level.destinations},
            {"leitch_level", leitch_level_value(leitch_level)}};
}

// From the first port to the last one labelled; null for a port without a label.
json labels_array(const std::vector<std::string>& labels) {
    json list = json::array();
    for (const std::string& label : labels) list.push_back(label.empty() ? json(nullptr) : json(label));
    return list;
}

json level_state_object(const Router& router, const LevelSpec& level, int leitch_level) {
    std::vector<int> crosspoints(static_cast<std::size_t>(level.destinations));
    std::vector<int> locks(static_cast<std::size_t>(level.destinations));
    for (int d = 0; d < level.destinations; ++d) {
        crosspoints[static_cast<std::size_t>(d)] = router.source_of(level.number, d);
        locks[static_cast<std::size_t>(d)] = router.lock_of(level.number, d);
    }
    json object = level_object(level, leitch_level);
    object["crosspoints"] = std::move(crosspoints);
    object["locks"] = std::move(locks);
    object["source_labels"] = labels_array(level.source_labels);
    object["destination_labels"] = labels_array(level.destination_labels);
    return object;
}

std::string clients_array(std::vector<const ClientInfo*> clients) {
    std::sort(clients.begin(), clients.end(), [](const ClientInfo* a, const ClientInfo* b) { return a->id < b->id; });
    json list = json::array();
    for (const ClientInfo* info : clients) {
        list.push_back({{"id", info->id},
                        {"peer", info->peer},
                        {"link", info->link},
                        {"connected_since", epoch_ms(info->connected_since)},
                        {"report_mode", info->report_mode},
                        {"lines_received", info->lines_received},
                        // Whatever bytes a client sent: never let them break the JSON.
                        {"last_line", escape(info->last_line)}});
    }
    return dump(list);
}

json salvo_object(const Salvo& salvo) {
    return {{"name", salvo.name}, {"levels", salvo.levels}, {"crosspoints", salvo.crosspoints}};
}

std::string links_array(const std::vector<LinkStatus>& links) {
    json list = json::array();
    for (const LinkStatus& link : links) {
        list.push_back({{"kind", link.kind},
                        {"where", link.where},
                        {"settings", link.settings},
                        {"up", link.up},
                        {"problem", link.problem}});
    }
    return dump(list);
}

// Events, crosspoints and locks go out in frames too: written straight to text.
void append_number(std::string& out, std::int64_t number) {
    char digits[24];
    const char* const end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    out.append(digits, static_cast<std::size_t>(end - digits));
}

void append_field(std::string& out, const char* name, const std::string& text) {
    out += ",\"";
    out += name;
    out += "\":";
    out += dump(json(text));
}

// A few numbered fields written in place and added to a message in one go:
// a page hears of every take, so its event is written once per take.
class Fields {
public:
    void add(std::string_view text) {
        std::memcpy(end_, text.data(), text.size());
        end_ += text.size();
    }
    void add(std::int64_t number) {
        if (number >= 0 && number < 10) {
            *end_++ = static_cast<char>('0' + number);
            return;
        }
        end_ = std::to_chars(end_, std::end(text_), number).ptr;
    }
    void add(std::string_view name, std::int64_t number) {
        add(name);
        add(number);
    }
    // Into `out`, leaving the fields empty for more.
    void move_to(std::string& out) {
        out.append(text_, static_cast<std::size_t>(end_ - text_));
        end_ = text_;
    }

private:
    char text_[256];  // enough for every numbered field of an event
    char* end_ = text_;
};

bool is_refusal(ActivityEvent::Kind kind) {
    return kind == ActivityEvent::Kind::refused_take || kind == ActivityEvent::Kind::refused_lock;
}

bool is_take(ActivityEvent::Kind kind) {
    return kind == ActivityEvent::Kind::take || kind == ActivityEvent::Kind::refused_take;
}

// Events come many to a millisecond: the time's digits are written once for all of them.
class EventTime {
public:
    std::string_view text(std::chrono::system_clock::time_point time) {
        const std::int64_t ms = epoch_ms(time);
        if (ms != ms_ || size_ == 0) {
            ms_ = ms;
            size_ = static_cast<std::size_t>(std::to_chars(digits_, std::end(digits_), ms).ptr - digits_);
        }
        return {digits_, size_};
    }

private:
    std::int64_t ms_ = 0;
    char digits_[24];
    std::size_t size_ = 0;
};

// Keys in alphabetical order, like every other object the web view writes.
void append_event(std::string& out, const ActivityEvent& event, EventTime& time) {
    Fields fields;
    fields.add("{\"client\":", event.client);
    const bool change = event.kind != ActivityEvent::Kind::connect && event.kind != ActivityEvent::Kind::disconnect;
    if (change) fields.add(",\"destination\":", event.destination);
    fields.add(",\"kind\":\"");
    fields.add(kind_name(event.kind));
    fields.add("\"");
    if (change) fields.add(",\"level\":", event.level);
    if (event.kind == ActivityEvent::Kind::connect || event.kind == ActivityEvent::Kind::disconnect ||
        is_refusal(event.kind)) {
        fields.move_to(out);
        append_field(out, event.kind == ActivityEvent::Kind::connect ? "peer" : "reason", event.text);
    }
    fields.add(",\"seq\":", static_cast<std::int64_t>(event.seq));
    if (change) fields.add(is_take(event.kind) ? ",\"source\":" : ",\"state\":", event.value);
    fields.add(",\"time\":");
    fields.add(time.text(event.time));
    fields.add("}");
    fields.move_to(out);
}

void append_events(std::string& out, const ActivityEvents& events, std::uint64_t after) {
    // The newest events are at the back: find the first one after `after`.
    auto first = events.end();
    while (first != events.begin() && std::prev(first)->seq > after) --first;
    out += '[';
    EventTime time;
    for (auto it = first; it != events.end(); ++it) {
        if (it != first) out += ',';
        append_event(out, *it, time);
    }
    out += ']';
}

void append_changes(std::string& out, const std::vector<DestinationChange>& changes) {
    out += '[';
    for (std::size_t i = 0; i < changes.size(); ++i) {
        if (i > 0) out += ',';
        out += '[';
        append_number(out, changes[i][0]);
        out += ',';
        append_number(out, changes[i][1]);
        out += ',';
        append_number(out, changes[i][2]);
        out += ']';
    }
    out += ']';
}

std::string levels_state_array(const Router& router, const LeitchLevelOf& leitch_level) {
    json levels = json::array();
    for (const LevelSpec& level : router.levels())
        levels.push_back(level_state_object(router, level, leitch_level(level.number)));
    return dump(levels);
}

}  // namespace

std::string error_message(const std::string& error, const std::string& field) {
    json body = {{"error", error}};
    if (!field.empty()) body["field"] = field;
    return dump(body);
}

std::string refusal_message(const std::string& error, const std::string& field, int applied) {
    return dump({{"error", error}, {"field", field}, {"applied", applied}});
}

std::string levels_message(const Router& router, const LeitchLevelOf& leitch_level) {
    json levels = json::array();
    for (const LevelSpec& level : router.levels()) levels.push_back(level_object(level, leitch_level(level.number)));
    return dump({{"levels", std::move(levels)}});
}

std::string level_message(const Router& router, const LevelSpec& level, int leitch_level) {
    return dump(level_state_object(router, level, leitch_level));
}

std::string clients_message(std::vector<const ClientInfo*> clients) {
    return "{\"clients\":" + clients_array(std::move(clients)) + '}';
}

std::string links_message(const std::vector<LinkStatus>& links) { return "{\"links\":" + links_array(links) + '}'; }

std::string events_message(const ActivityEvents& events, std::uint64_t after) {
    std::string text = "{\"events\":";
    append_events(text, events, after);
    text += '}';
    return text;
}

std::string applied_message(int applied) { return dump({{"applied", applied}}); }

std::string lock_message(int destination, bool locked) {
    return dump({{"destination", destination}, {"locked", locked}});
}

std::string salvo_message(const Salvo& salvo) { return dump(salvo_object(salvo)); }

std::string salvos_message(const std::vector<Salvo>& salvos) {
    json list = json::array();
    for (const Salvo& salvo : salvos) list.push_back(salvo_object(salvo));
    return dump({{"salvos", std::move(list)}});
}

std::string saved_name_message(const std::string& name) { return dump({{"name", name}}); }

std::string deleted_message(const std::string& name) { return dump({{"deleted", name}}); }

std::string recall_message(const std::string& name, int applied, const std::vector<RefusedCrosspoint>& refused) {
    json list = json::array();
    for (const auto& [c, refusal] : refused) {
        list.push_back({{"level", c.level},
                        {"destination", c.destination},
                        {"source", c.source},
                        {"reason", describe(refusal)}});
    }
    return dump({{"name", name}, {"applied", applied}, {"refused", std::move(list)}});
}

std::string hello_message(const PageView& view) {
    std::string text = "{\"clients\":";
    text += clients_array(view.clients);
    text += ",\"events\":";
    append_events(text, view.events, 0);
    text += ",\"levels\":";
    text += levels_state_array(view.router, view.leitch_level);
    text += ",\"links\":";
    text += links_array(view.links);
    text += ",\"readonly\":";
    text += view.readonly ? "true" : "false";
    text += ",\"type\":\"hello\"}";
    return text;
}

FrameMessage::FrameMessage(const std::vector<DestinationChange>& crosspoints,
                           const std::vector<DestinationChange>& locks)
    : text_("{\"type\":\"frame\",\"crosspoints\":") {
    append_changes(text_, crosspoints);
    text_ += ",\"locks\":";
    append_changes(text_, locks);
}

void FrameMessage::add_events(const ActivityEvents& events, std::uint64_t after) {
    if (!events.empty()) {
        // An event takes about 100 bytes: one allocation, not a doubling every few events.
        const std::uint64_t fresh = std::min<std::uint64_t>(events.back().seq - after, events.size());
        text_.reserve(text_.size() + 128 * static_cast<std::size_t>(fresh));
    }
    text_ += ",\"events\":";
    append_events(text_, events, after);
}

void FrameMessage::add_clients_and_links(std::vector<const ClientInfo*> clients, const std::vector<LinkStatus>& links) {
    text_ += ",\"clients\":";
    text_ += clients_array(std::move(clients));
    text_ += ",\"links\":";
    text_ += links_array(links);
}

void FrameMessage::add_labels(const Router& router, const std::vector<int>& levels) {
    text_ += ",\"labels\":[";
    bool first = true;
    for (const int number : levels) {
        const LevelSpec* level = router.find_level(number);
        if (!level) continue;
        if (!first) text_ += ',';
        first = false;
        text_ += dump({{"number", level->number},
                       {"source_labels", labels_array(level->source_labels)},
                       {"destination_labels", labels_array(level->destination_labels)}});
    }
    text_ += ']';
}

std::string FrameMessage::finish() {
    text_ += '}';
    return std::move(text_);
}

}  // namespace routerd::web
