#include "sim/web/api.h"

#include <charconv>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include <nlohmann/json.hpp>

#include "sim/web/web_state.h"

namespace routerd::web {

namespace http = boost::beast::http;
using nlohmann::json;

namespace {

std::string dump(const json& value) { return value.dump(-1, ' ', false, json::error_handler_t::replace); }

ApiReply ok(const json& value) { return {http::status::ok, dump(value)}; }

ApiReply error(http::status status, const std::string& message, const std::string& field = {}) {
    json body = {{"error", message}};
    if (!field.empty()) body["field"] = field;
    return {status, dump(body)};
}

// A request that cannot be served, thrown from deep in a handler.
struct Rejection {
    ApiReply reply;
};

[[noreturn]] void reject(http::status status, const std::string& message, const std::string& field = {}) {
    throw Rejection{error(status, message, field)};
}

std::vector<std::string_view> split_path(std::string_view path) {
    std::vector<std::string_view> parts;
    while (!path.empty()) {
        const std::size_t slash = path.find('/');
        const std::string_view part = path.substr(0, slash);
        if (!part.empty()) parts.push_back(part);
        if (slash == std::string_view::npos) break;
        path.remove_prefix(slash + 1);
    }
    return parts;
}

std::optional<long long> parse_number(std::string_view text) {
    long long value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<std::string_view> query_value(std::string_view query, std::string_view name) {
    while (!query.empty()) {
        const std::size_t amp = query.find('&');
        const std::string_view pair = query.substr(0, amp);
        const std::size_t eq = pair.find('=');
        if (pair.substr(0, eq) == name) return eq == std::string_view::npos ? std::string_view() : pair.substr(eq + 1);
        if (amp == std::string_view::npos) break;
        query.remove_prefix(amp + 1);
    }
    return std::nullopt;
}

json parse_body(const std::string& body) {
    json value = json::parse(body, nullptr, false);
    if (value.is_discarded()) reject(http::status::bad_request, "the body is not valid JSON", "body");
    if (!value.is_object()) reject(http::status::bad_request, "the body must be a JSON object", "body");
    return value;
}

int integer_field(const json& object, const std::string& name, const std::string& field) {
    const auto found = object.find(name);
    if (found == object.end()) reject(http::status::bad_request, "missing field " + field, field);
    if (!found->is_number_integer() || *found < std::numeric_limits<int>::min() ||
        *found > std::numeric_limits<int>::max())
        reject(http::status::bad_request, field + " must be an integer", field);
    return found->get<int>();
}

// The refusal of one change as an HTTP reply naming the field at fault.
ApiReply refused(Refusal refusal, const std::string& prefix, int applied) {
    ApiReply reply;
    switch (refusal) {
        case Refusal::destination_out_of_range:
            reply = error(http::status::bad_request, describe(refusal), prefix + "destination");
            break;
        case Refusal::source_out_of_range:
            reply = error(http::status::bad_request, describe(refusal), prefix + "source");
            break;
        case Refusal::destination_locked:
            reply = error(http::status::conflict, describe(refusal), prefix + "destination");
            break;
        default: reply = error(http::status::not_found, describe(refusal), "level"); break;
    }
    if (applied >= 0) {
        json body = json::parse(reply.body);
        body["applied"] = applied;
        reply.body = dump(body);
    }
    return reply;
}

void refuse_when_readonly(const WebState& state) {
    if (state.config().readonly)
        reject(http::status::forbidden, "the web view is read-only (--http-readonly): changes are refused");
}

// Each take goes through the switch queue like a client's, in order: those
// before a refused one are applied, the rest are not tried.
ApiReply take(WebState& state, const LevelSpec& level, const std::string& body) {
    refuse_when_readonly(state);
    const json request = parse_body(body);
    std::vector<std::pair<int, int>> takes;  // destination, source
    bool many = false;
    if (const auto list = request.find("takes"); list != request.end()) {
        if (!list->is_array() || list->empty())
            reject(http::status::bad_request, "takes must be a non-empty array", "takes");
        if (list->size() > static_cast<std::size_t>(level.destinations))
            reject(http::status::bad_request, "takes lists more takes than the level has destinations", "takes");
        for (std::size_t i = 0; i < list->size(); ++i) {
            const std::string at = "takes[" + std::to_string(i) + "].";
            const json& one = (*list)[i];
            const std::string item = "takes[" + std::to_string(i) + "]";
            if (!one.is_object()) reject(http::status::bad_request, item + " must be an object", item);
            takes.emplace_back(integer_field(one, "destination", at + "destination"),
                               integer_field(one, "source", at + "source"));
        }
        many = true;
    } else {
        takes.emplace_back(integer_field(request, "destination", "destination"),
                           integer_field(request, "source", "source"));
    }
    int applied = 0;
    for (const auto& [destination, source] : takes) {
        const Refusal refusal = state.switches().take(kWebClient, level.number, source, destination);
        if (refusal != Refusal::none) {
            const std::string at = !many ? "" : "takes[" + std::to_string(applied) + "].";
            return refused(refusal, at, applied);
        }
        ++applied;
    }
    return ok({{"applied", applied}});
}

ApiReply lock(WebState& state, const LevelSpec& level, const std::string& body) {
    refuse_when_readonly(state);
    const json request = parse_body(body);
    const int destination = integer_field(request, "destination", "destination");
    const auto locked = request.find("locked");
    if (locked == request.end()) reject(http::status::bad_request, "missing field locked", "locked");
    if (!locked->is_boolean()) reject(http::status::bad_request, "locked must be true or false", "locked");
    const int lock_state = locked->get<bool>() ? 1 : 0;
    const Refusal refusal = state.switches().lock(kWebClient, level.number, destination, lock_state);
    if (refusal != Refusal::none) return refused(refusal, "", -1);
    return ok({{"destination", destination}, {"locked", lock_state == 1}});
}

// Saved routings live in the state file.
StateStore& salvo_store(WebState& state) {
    if (!state.store())
        reject(http::status::conflict, "saved routings are kept in the state file: start with --state FILE");
    return *state.store();
}

// Names go in URLs: letters, digits, '-', '_' and '.', up to 64 of them.
std::string salvo_name(std::string_view name, const std::string& field) {
    const bool fits = !name.empty() && name.size() <= 64 &&
                      name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.") ==
                          std::string_view::npos;
    if (!fits)
        reject(http::status::bad_request, field + " must be 1 to 64 letters, digits, '-', '_' or '.'", field);
    return std::string(name);
}

json salvo_json(const Salvo& salvo) {
    return {{"name", salvo.name}, {"levels", salvo.levels}, {"crosspoints", salvo.crosspoints}};
}

ApiReply list_salvos(WebState& state) {
    json list = json::array();
    for (const Salvo& salvo : salvo_store(state).salvos()) list.push_back(salvo_json(salvo));
    return ok({{"salvos", list}});
}

const LevelSpec& find_level(const WebState& state, std::string_view text);

ApiReply save_salvo(WebState& state, const std::string& body) {
    refuse_when_readonly(state);
    StateStore& store = salvo_store(state);
    const json request = parse_body(body);
    const auto name = request.find("name");
    if (name == request.end()) reject(http::status::bad_request, "missing field name", "name");
    if (!name->is_string()) reject(http::status::bad_request, "name must be a string", "name");
    const LevelSpec* level = nullptr;
    if (request.contains("level")) {
        const int number = integer_field(request, "level", "level");
        level = state.router().find_level(number);
        if (!level) reject(http::status::not_found, "no level " + std::to_string(number), "level");
    }
    const std::string saved = salvo_name(name->get<std::string>(), "name");
    try {
        store.save_salvo(saved, state.router(), level);
    } catch (const StateError& e) {
        reject(http::status::internal_server_error, e.what());
    }
    for (const Salvo& salvo : store.salvos()) {
        if (salvo.name == saved) return ok(salvo_json(salvo));
    }
    return ok({{"name", saved}});
}

ApiReply delete_salvo(WebState& state, std::string_view name) {
    refuse_when_readonly(state);
    const std::string deleted = salvo_name(name, "name");
    try {
        if (!salvo_store(state).delete_salvo(deleted)) reject(http::status::not_found, "no saved routing " + deleted, "name");
    } catch (const StateError& e) {
        reject(http::status::internal_server_error, e.what());
    }
    return ok({{"deleted", deleted}});
}

// A recall is every crosspoint of the routing taken through the switch queue,
// in this one event, like a client's takes: locked destinations are refused
// (and listed), the rest are told to every client on the next frame.
ApiReply recall_salvo(WebState& state, std::string_view name) {
    refuse_when_readonly(state);
    const std::string recalled = salvo_name(name, "name");
    const std::vector<SalvoCrosspoint> crosspoints = salvo_store(state).salvo(recalled);
    if (crosspoints.empty()) reject(http::status::not_found, "no saved routing " + recalled, "name");
    int applied = 0;
    json refused_list = json::array();
    for (const SalvoCrosspoint& c : crosspoints) {
        const Refusal refusal = state.switches().take(kWebClient, c.level, c.source, c.destination);
        if (refusal == Refusal::none) {
            ++applied;
        } else {
            refused_list.push_back({{"level", c.level},
                                    {"destination", c.destination},
                                    {"source", c.source},
                                    {"reason", describe(refusal)}});
        }
    }
    return ok({{"name", recalled}, {"applied", applied}, {"refused", refused_list}});
}

const LevelSpec& find_level(const WebState& state, std::string_view text) {
    const std::optional<long long> number = parse_number(text);
    const LevelSpec* level = nullptr;
    if (number && *number >= std::numeric_limits<int>::min() && *number <= std::numeric_limits<int>::max())
        level = const_cast<WebState&>(state).router().find_level(static_cast<int>(*number));
    if (!level) reject(http::status::not_found, "no level " + std::string(text), "level");
    return *level;
}

void expect_method(http::verb method, http::verb expected) {
    if (method != expected)
        reject(http::status::method_not_allowed, "use " + std::string(http::to_string(expected)) + " here");
}

ApiReply route(WebState& state, http::verb method, std::string_view path, std::string_view query,
               const std::string& body) {
    const std::vector<std::string_view> parts = split_path(path);  // "api", ...
    if (parts.size() == 2 && parts[1] == "levels") {
        expect_method(method, http::verb::get);
        return ok({{"levels", state.levels_json()}});
    }
    if (parts.size() == 3 && parts[1] == "levels") {
        expect_method(method, http::verb::get);
        return ok(state.level_json(find_level(state, parts[2])));
    }
    if (parts.size() == 4 && parts[1] == "levels" && (parts[3] == "take" || parts[3] == "lock")) {
        expect_method(method, http::verb::post);
        const LevelSpec& level = find_level(state, parts[2]);
        return parts[3] == "take" ? take(state, level, body) : lock(state, level, body);
    }
    if (parts.size() == 2 && parts[1] == "salvos") {
        if (method == http::verb::post) return save_salvo(state, body);
        expect_method(method, http::verb::get);
        return list_salvos(state);
    }
    if (parts.size() == 3 && parts[1] == "salvos") {
        expect_method(method, http::verb::delete_);
        return delete_salvo(state, parts[2]);
    }
    if (parts.size() == 4 && parts[1] == "salvos" && parts[3] == "recall") {
        expect_method(method, http::verb::post);
        return recall_salvo(state, parts[2]);
    }
    if (parts.size() == 2 && parts[1] == "clients") {
        expect_method(method, http::verb::get);
        return ok({{"clients", state.clients_json()}});
    }
    if (parts.size() == 2 && parts[1] == "links") {
        expect_method(method, http::verb::get);
        return ok({{"links", state.links_json()}});
    }
    if (parts.size() == 2 && parts[1] == "events") {
        expect_method(method, http::verb::get);
        std::uint64_t after = 0;
        if (const auto value = query_value(query, "after")) {
            const std::optional<long long> number = parse_number(*value);
            if (!number || *number < 0) reject(http::status::bad_request, "after must be a sequence number", "after");
            after = static_cast<std::uint64_t>(*number);
        }
        return ok({{"events", state.events_json(after)}});
    }
    reject(http::status::not_found, "no such endpoint: " + std::string(path));
}

}  // namespace

ApiReply handle_api(WebState& state, http::verb method, std::string_view target, const std::string& body) {
    const std::size_t question = target.find('?');
    const std::string_view path = target.substr(0, question);
    const std::string_view query = question == std::string_view::npos ? std::string_view() : target.substr(question + 1);
    try {
        return route(state, method, path, query, body);
    } catch (const Rejection& rejection) {
        return rejection.reply;
    }
}

}  // namespace routerd::web
