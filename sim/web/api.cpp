#include "sim/web/api.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include <nlohmann/json.hpp>

#include "sim/web/messages.h"
#include "sim/web/web_state.h"

namespace routerd::web {

namespace http = boost::beast::http;
using nlohmann::json;

namespace {

ApiReply ok(std::string body) { return {http::status::ok, std::move(body)}; }

// A request that cannot be served, thrown from deep in a handler.
struct Rejection {
    ApiReply reply;
};

[[noreturn]] void reject(http::status status, const std::string& message, const std::string& field = {}) {
    throw Rejection{{status, error_message(message, field)}};
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

// The refusal of one change as an HTTP reply naming the field at fault; with
// `applied` (not negative) when it ends a run of takes.
ApiReply refused_reply(Refusal refusal, const std::string& prefix, int applied) {
    http::status status = http::status::not_found;
    std::string field = "level";
    switch (refusal) {
        case Refusal::destination_out_of_range:
            status = http::status::bad_request;
            field = prefix + "destination";
            break;
        case Refusal::source_out_of_range:
            status = http::status::bad_request;
            field = prefix + "source";
            break;
        case Refusal::destination_locked:
        case Refusal::locked_at_router:
        case Refusal::router_refused:
            status = http::status::conflict;
            field = prefix + "destination";
            break;
        case Refusal::router_away:
        case Refusal::router_busy:
            status = http::status::service_unavailable;
            field.clear();
            break;
        default: break;
    }
    if (applied < 0) return {status, error_message(describe(refusal), field)};
    return {status, refusal_message(describe(refusal), field, applied)};
}

void refuse_when_readonly(const WebState& state) {
    if (state.config().readonly)
        reject(http::status::forbidden, "the web view is read-only (--http-readonly): changes are refused");
}

const LevelSpec& find_level(WebState& state, std::string_view text) {
    const std::optional<long long> number = parse_number(text);
    const LevelSpec* level = nullptr;
    if (number && *number >= std::numeric_limits<int>::min() && *number <= std::numeric_limits<int>::max())
        level = state.router().find_level(static_cast<int>(*number));
    if (!level) reject(http::status::not_found, "no level " + std::string(text), "level");
    return *level;
}

ApiReply list_levels(WebState& state, const ApiRequest&) { return ok(state.levels_message()); }

ApiReply show_level(WebState& state, const ApiRequest& request) {
    return ok(state.level_message(find_level(state, request.parameters.front())));
}

// A reply made later, on the event loop, which may reject as the handlers do.
template <typename Make>
void answer(const ApiRespond& respond, const Make& make) {
    ApiReply reply;
    try {
        reply = make();
    } catch (const Rejection& rejection) {
        reply = rejection.reply;
    }
    respond(std::move(reply));
}

// The decisions of a run of changes, some of which may wait for a real router:
// the reply is made once the last one is decided.
class Decisions : public std::enable_shared_from_this<Decisions> {
public:
    using Reply = std::function<ApiReply(const std::vector<Refusal>&)>;
    Decisions(ApiRespond respond, Reply reply) : respond_(std::move(respond)), reply_(std::move(reply)) {}

    // Hands the next change to `ask`, which returns its refusal (perhaps
    // Refusal::pending) and passes on the Decided it is given.
    template <typename Ask>
    Refusal ask(const Ask& ask) {
        const std::size_t at = outcomes_.size();
        outcomes_.push_back(Refusal::pending);
        const Refusal refusal = ask([self = shared_from_this(), at](Refusal decided) { self->decide(at, decided); });
        outcomes_[at] = refusal;
        if (refusal == Refusal::pending) ++waiting_;
        return refusal;
    }

    // No more changes: replies now, or when the last is decided.
    void close() {
        closed_ = true;
        if (waiting_ == 0) finish();
    }

private:
    void decide(std::size_t at, Refusal refusal) {
        outcomes_[at] = refusal;
        if (--waiting_ == 0 && closed_) finish();
    }
    void finish() { answer(respond_, [&] { return reply_(outcomes_); }); }

    ApiRespond respond_;
    Reply reply_;
    std::vector<Refusal> outcomes_;
    std::size_t waiting_ = 0;
    bool closed_ = false;
};

// The reply to a run of takes: every one applied, or the first refused, with
// how many were applied.
ApiReply takes_reply(const std::vector<Refusal>& outcomes, bool many) {
    const auto applied = static_cast<int>(std::count(outcomes.begin(), outcomes.end(), Refusal::none));
    const auto refused = std::find_if(outcomes.begin(), outcomes.end(), [](Refusal r) { return r != Refusal::none; });
    if (refused == outcomes.end()) return ok(applied_message(applied));
    const std::string at = !many ? "" : "takes[" + std::to_string(refused - outcomes.begin()) + "].";
    return refused_reply(*refused, at, applied);
}

// Each take goes through the switch queue like a client's, in order: those
// before a refused one are asked for, the rest are not tried. A real router
// may still refuse any of those asked for: the reply waits for its decisions.
void take(WebState& state, const ApiRequest& http_request, const ApiRespond& respond) {
    const LevelSpec& level = find_level(state, http_request.parameters.front());
    refuse_when_readonly(state);
    const json request = parse_body(http_request.body);
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
    const auto run = std::make_shared<Decisions>(
        respond, [many](const std::vector<Refusal>& outcomes) { return takes_reply(outcomes, many); });
    for (const auto& [destination, source] : takes) {
        const Refusal refusal = run->ask([&](Decided then) {
            return state.switches().take(kWebClient, level.number, source, destination, std::move(then));
        });
        if (refusal != Refusal::none && refusal != Refusal::pending) break;
    }
    run->close();
}

void lock(WebState& state, const ApiRequest& http_request, const ApiRespond& respond) {
    const LevelSpec& level = find_level(state, http_request.parameters.front());
    refuse_when_readonly(state);
    const json request = parse_body(http_request.body);
    const int destination = integer_field(request, "destination", "destination");
    const auto locked = request.find("locked");
    if (locked == request.end()) reject(http::status::bad_request, "missing field locked", "locked");
    if (!locked->is_boolean()) reject(http::status::bad_request, "locked must be true or false", "locked");
    const int lock_state = locked->get<bool>() ? 1 : 0;
    const auto run = std::make_shared<Decisions>(respond, [destination, lock_state](const std::vector<Refusal>& outcomes) {
        if (outcomes.front() != Refusal::none) return refused_reply(outcomes.front(), "", -1);
        return ok(lock_message(destination, lock_state == 1));
    });
    run->ask([&](Decided then) {
        return state.switches().lock(kWebClient, level.number, destination, lock_state, std::move(then));
    });
    run->close();
}

// Saved routings live in the state file, whose own thread reads and writes them.
StateWriter& salvo_store(WebState& state) {
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

// What a job on the state file's thread found: its answer, or why there is none.
template <typename Value>
struct StoreResult {
    Value value{};
    http::status failed = http::status::ok;
    std::string error;
};

// Runs `job` on the state file's thread; its StateError is a 500 (507 for a
// full disk), a limit a 409 (too many) or 413 (too large).
template <typename Value, typename Job>
std::function<StoreResult<Value>(StateStore&)> store_job(Job job) {
    return [job = std::move(job)](StateStore& store) {
        StoreResult<Value> result;
        try {
            result.value = job(store);
        } catch (const SalvoRefused& e) {
            result.failed = e.too_many ? http::status::conflict : http::status::payload_too_large;
            result.error = e.what();
        } catch (const StateFull& e) {
            result.failed = http::status::insufficient_storage;
            result.error = e.what();
        } catch (const StateError& e) {
            result.failed = http::status::internal_server_error;
            result.error = e.what();
        }
        return result;
    };
}

template <typename Value>
void check(const StoreResult<Value>& result) {
    if (result.failed != http::status::ok) reject(result.failed, result.error);
}

void list_salvos(WebState& state, const ApiRequest&, const ApiRespond& respond) {
    salvo_store(state).run<StoreResult<std::vector<Salvo>>>(
        store_job<std::vector<Salvo>>([](StateStore& store) { return store.salvos(); }),
        [respond](StoreResult<std::vector<Salvo>> result) {
            answer(respond, [&] {
                check(result);
                return ok(salvos_message(result.value));
            });
        });
}

// The routing as it stands now is what is saved, whenever the file takes it.
void save_salvo(WebState& state, const ApiRequest& http_request, const ApiRespond& respond) {
    refuse_when_readonly(state);
    StateWriter& store = salvo_store(state);
    const json request = parse_body(http_request.body);
    const auto name = request.find("name");
    if (name == request.end()) reject(http::status::bad_request, "missing field name", "name");
    if (!name->is_string()) reject(http::status::bad_request, "name must be a string", "name");
    const LevelSpec* level = nullptr;
    if (request.contains("level")) {
        const int number = integer_field(request, "level", "level");
        level = state.router().find_level(number);
        if (!level) reject(http::status::not_found, "no level " + std::to_string(number), "level");
    }
    std::string saved = salvo_name(name->get<std::string>(), "name");
    store.run<StoreResult<std::vector<Salvo>>>(
        store_job<std::vector<Salvo>>(
            [saved, routing = routing_of(state.router(), level)](StateStore& file) {
                file.save_salvo(saved, routing);
                return file.salvos();
            }),
        [respond, saved](StoreResult<std::vector<Salvo>> result) {
            answer(respond, [&] {
                check(result);
                for (const Salvo& salvo : result.value) {
                    if (salvo.name == saved) return ok(salvo_message(salvo));
                }
                return ok(saved_name_message(saved));
            });
        });
}

void delete_salvo(WebState& state, const ApiRequest& request, const ApiRespond& respond) {
    refuse_when_readonly(state);
    std::string deleted = salvo_name(request.parameters.front(), "name");
    salvo_store(state).run<StoreResult<bool>>(
        store_job<bool>([deleted](StateStore& store) { return store.delete_salvo(deleted); }),
        [respond, deleted](StoreResult<bool> result) {
            answer(respond, [&] {
                check(result);
                if (!result.value) reject(http::status::not_found, "no saved routing " + deleted, "name");
                return ok(deleted_message(deleted));
            });
        });
}

// A recall is every crosspoint of the routing taken through the switch queue,
// in one event, like a client's takes: locked destinations are refused (and
// listed), the rest are told to every client on the next frame (or when a real
// router has decided on them: the reply waits for that).
void recall_salvo(WebState& state, const ApiRequest& request, const ApiRespond& respond) {
    refuse_when_readonly(state);
    std::string recalled = salvo_name(request.parameters.front(), "name");
    salvo_store(state).run<StoreResult<std::vector<SalvoCrosspoint>>>(
        store_job<std::vector<SalvoCrosspoint>>([recalled](StateStore& store) { return store.salvo(recalled); }),
        [&state, respond, recalled](StoreResult<std::vector<SalvoCrosspoint>> result) {
            try {
                check(result);
                if (result.value.empty()) reject(http::status::not_found, "no saved routing " + recalled, "name");
            } catch (const Rejection& rejection) {
                return respond(rejection.reply);
            }
            auto crosspoints = std::make_shared<const std::vector<SalvoCrosspoint>>(std::move(result.value));
            const auto run = std::make_shared<Decisions>(
                respond, [recalled, crosspoints](const std::vector<Refusal>& outcomes) {
                    int applied = 0;
                    std::vector<RefusedCrosspoint> refused_list;
                    for (std::size_t i = 0; i < outcomes.size(); ++i) {
                        if (outcomes[i] == Refusal::none) {
                            ++applied;
                        } else {
                            refused_list.push_back({(*crosspoints)[i], outcomes[i]});
                        }
                    }
                    return ok(recall_message(recalled, applied, refused_list));
                });
            for (const SalvoCrosspoint& c : *crosspoints) {
                run->ask([&](Decided then) {
                    return state.switches().take(kWebClient, c.level, c.source, c.destination, std::move(then));
                });
            }
            run->close();
        });
}

ApiReply list_clients(WebState& state, const ApiRequest&) { return ok(state.clients_message()); }

ApiReply list_links(WebState& state, const ApiRequest&) { return ok(state.links_message()); }

ApiReply list_events(WebState& state, const ApiRequest& request) {
    std::uint64_t after = 0;
    if (const auto value = query_value(request.query, "after")) {
        const std::optional<long long> number = parse_number(*value);
        if (!number || *number < 0) reject(http::status::bad_request, "after must be a sequence number", "after");
        after = static_cast<std::uint64_t>(*number);
    }
    return ok(state.events_message(after));
}

// A handler whose reply is ready when it returns.
template <ApiReply (*handler)(WebState&, const ApiRequest&)>
void now(WebState& state, const ApiRequest& request, const ApiRespond& respond) {
    respond(handler(state, request));
}

bool is_parameter(std::string_view part) { return part.size() >= 2 && part.front() == '{' && part.back() == '}'; }

// The parts of `path` that the route's {...} stand for, when the path is the route's.
std::optional<std::vector<std::string_view>> match_path(const ApiRoute& route,
                                                        const std::vector<std::string_view>& parts) {
    const std::vector<std::string_view> pattern = split_path(route.path);
    if (pattern.size() != parts.size()) return std::nullopt;
    std::vector<std::string_view> parameters;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (is_parameter(pattern[i])) {
            parameters.push_back(parts[i]);
        } else if (pattern[i] != parts[i]) {
            return std::nullopt;
        }
    }
    return parameters;
}

}  // namespace

const std::vector<ApiRoute>& api_routes() {
    using http::verb;
    static const std::vector<ApiRoute> routes = {
        {verb::get, "/api/levels", now<list_levels>, "the levels"},
        {verb::get, "/api/levels/{level}", now<show_level>, "crosspoints and locks of a level"},
        {verb::post, "/api/levels/{level}/take", take,
         R"(take {"destination":5,"source":3}, or several: {"takes":[{...},...]})"},
        {verb::post, "/api/levels/{level}/lock", lock, R"(lock or unlock {"destination":5,"locked":true})"},
        {verb::get, "/api/clients", now<list_clients>, "the connected Leitch clients"},
        {verb::get, "/api/links", now<list_links>, "the links served, and how they stand"},
        {verb::get, "/api/events", now<list_events>, "the recent events, or those after ?after=SEQ"},
        {verb::get, "/api/salvos", list_salvos, "the saved routings"},
        {verb::post, "/api/salvos", save_salvo, R"(save the routing {"name":"morning"}, or of one level: "level":0)"},
        {verb::delete_, "/api/salvos/{name}", delete_salvo, "delete a saved routing"},
        {verb::post, "/api/salvos/{name}/recall", recall_salvo, "take every crosspoint of a saved routing"},
    };
    return routes;
}

RouteMatch find_route(http::verb method, std::string_view path) {
    const std::vector<std::string_view> parts = split_path(path);
    RouteMatch match;
    for (const ApiRoute& route : api_routes()) {
        std::optional<std::vector<std::string_view>> parameters = match_path(route, parts);
        if (!parameters) continue;
        if (route.method == method) {
            match.route = &route;
            match.parameters = std::move(*parameters);
            match.path_route = nullptr;
            return match;
        }
        if (!match.path_route) match.path_route = &route;
    }
    return match;
}

std::string describe_routes() {
    std::size_t method_width = 0;
    std::size_t path_width = 0;
    for (const ApiRoute& route : api_routes()) {
        method_width = std::max(method_width, http::to_string(route.method).size());
        path_width = std::max(path_width, route.path.size());
    }
    std::string text;
    for (const ApiRoute& route : api_routes()) {
        const std::string_view method(http::to_string(route.method).data(), http::to_string(route.method).size());
        text.append(method).append(method_width + 1 - method.size(), ' ');
        text.append(route.path).append(path_width + 2 - route.path.size(), ' ');
        text.append(route.summary).append("\n");
    }
    return text;
}

void handle_api(WebState& state, http::verb method, std::string_view target, const std::string& body,
                ApiRespond respond) {
    const std::size_t question = target.find('?');
    const std::string_view path = target.substr(0, question);
    const std::string_view query = question == std::string_view::npos ? std::string_view() : target.substr(question + 1);
    try {
        RouteMatch match = find_route(method, path);
        if (match.route) return match.route->handler(state, {std::move(match.parameters), query, body}, respond);
        if (match.path_route)
            reject(http::status::method_not_allowed,
                   "use " + std::string(http::to_string(match.path_route->method)) + " here");
        reject(http::status::not_found, "no such endpoint: " + std::string(path));
    } catch (const Rejection& rejection) {
        respond(rejection.reply);
    }
}

}  // namespace routerd::web
