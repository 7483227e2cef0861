#include "sim/config.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>

#include <toml++/toml.h>

#include "sim/backends/swp08_codec.h"
#include "sim/links/address_shares.h"
#include "sim/links/endpoint.h"

namespace routerd {

namespace {

constexpr std::int64_t kMaxSize = 65536;  // sources or destinations of one level
constexpr std::size_t kMaxLevels = 256;
// Descriptors the simulator needs besides its clients': standard streams,
// listener, event loop, the plug-in, clients being refused.
constexpr std::size_t kReservedDescriptors = 32;

bool has_level(const SimulatorConfig& config, int number) {
    return std::any_of(config.levels.begin(), config.levels.end(),
                       [&](const LevelSpec& level) { return level.number == number; });
}

// Every level is somewhere on an SW-P-08 router, and no two at the same place.
void check_swp08_levels(SimulatorConfig& config) {
    std::map<std::pair<int, int>, int> taken;
    for (const LevelSpec& level : config.levels) {
        const auto found = config.backend.swp08.levels.find(level.number);
        const MatrixLevel where = found != config.backend.swp08.levels.end() ? found->second : MatrixLevel{0, level.number};
        if (where.level < 0 || where.level > 255)
            throw ConfigError("level " + std::to_string(level.number) +
                              " needs its SW-P-08 level (0 to 255) named: level = L in its [[level]]");
        const auto [other, added] = taken.emplace(std::make_pair(where.matrix, where.level), level.number);
        if (!added)
            throw ConfigError("levels " + std::to_string(other->second) + " and " + std::to_string(level.number) +
                              " are both matrix " + std::to_string(where.matrix) + " level " +
                              std::to_string(where.level) + " of the router");
        config.backend.swp08.levels[level.number] = where;
    }
}

SimulatorConfig builtin() {
    SimulatorConfig config;
    config.converter = {
        {"device_id", "1"},
        {"level_mapping_video", "0,1"},
        {"level_control_video", "on,on"},
    };
    config.levels = {{0, "video", 32, 32}, {1, "audio", 32, 32}};
    return config;
}

// Reads one file; every complaint names the file, the line and the key.
class Reader {
public:
    explicit Reader(std::string path) : path_(std::move(path)) {}

    [[noreturn]] void fail(const toml::source_region& where, const std::string& key,
                           const std::string& what) const {
        throw ConfigError(path_ + ":" + std::to_string(where.begin.line) + ": key '" + key + "': " + what);
    }

    void only_known_keys(const toml::table& table, const std::string& prefix,
                         const std::set<std::string>& known) const {
        for (const auto& [key, node] : table) {
            if (known.count(std::string(key.str())) == 0)
                fail(node.source(), prefix + std::string(key.str()), "unknown key");
        }
    }

    const toml::table* table(const toml::table& parent, const std::string& name,
                             const std::string& prefix) const {
        const toml::node* node = parent.get(name);
        if (!node) return nullptr;
        if (!node->is_table()) fail(node->source(), prefix + name, "must be a table");
        return node->as_table();
    }

    std::int64_t integer(const toml::node& node, const std::string& key, std::int64_t low,
                         std::int64_t high) const {
        const auto* value = node.as_integer();
        if (!value || value->get() < low || value->get() > high)
            fail(node.source(), key, "must be an integer from " + std::to_string(low) + " to " + std::to_string(high));
        return value->get();
    }

    std::int64_t required_integer(const toml::table& table, const std::string& name, const std::string& prefix,
                                  std::int64_t low, std::int64_t high) const {
        const toml::node* node = table.get(name);
        if (!node) fail(table.source(), prefix + name, "missing");
        return integer(*node, prefix + name, low, high);
    }

    std::string string(const toml::node& node, const std::string& key) const {
        const auto* value = node.as_string();
        if (!value) fail(node.source(), key, "must be a string");
        return value->get();
    }

    void server(const toml::table& server, SimulatorConfig& config) const {
        only_known_keys(server, "server.",
                        {"listen", "max_clients", "max_clients_per_address", "max_clients_logging_in",
                         "first_byte_timeout", "max_line_bytes", "max_output_bytes", "output_timeout_ms"});
        if (const toml::node* listen = server.get("listen")) {
            // The short form of one plain [[listen]].
            config.listeners = {{address(*listen, "server.listen"), {}}};
        }
        const std::int64_t most = open_file_limit() - static_cast<std::int64_t>(kReservedDescriptors);
        if (const toml::node* n = server.get("max_clients")) {
            const std::int64_t clients = integer(*n, "server.max_clients", 1, 100000);
            if (clients > most)
                fail(n->source(), "server.max_clients",
                     "at most " + std::to_string(most) + ": the open-file limit is " +
                         std::to_string(open_file_limit()));
            config.limits.max_clients = static_cast<std::size_t>(clients);
        }
        const auto clients = static_cast<std::int64_t>(config.limits.max_clients);
        config.limits.max_clients_per_address = half_rounded_up(config.limits.max_clients);
        if (const toml::node* n = server.get("max_clients_per_address")) {
            const std::int64_t share = integer(*n, "server.max_clients_per_address", 1, 100000);
            if (share > clients)
                fail(n->source(), "server.max_clients_per_address",
                     "at most server.max_clients (" + std::to_string(clients) + ")");
            config.limits.max_clients_per_address = static_cast<std::size_t>(share);
        }
        // Clients at a login prompt need descriptors besides max_clients.
        const std::int64_t room = std::max<std::int64_t>(most - clients, 1);
        const auto half = static_cast<std::int64_t>(half_rounded_up(config.limits.max_clients));
        config.limits.max_clients_logging_in = static_cast<std::size_t>(std::min(half, room));
        if (const toml::node* n = server.get("max_clients_logging_in")) {
            const std::int64_t logging_in = integer(*n, "server.max_clients_logging_in", 1, 100000);
            if (logging_in > room)
                fail(n->source(), "server.max_clients_logging_in",
                     "at most " + std::to_string(room) + " with server.max_clients = " + std::to_string(clients) +
                         ": the open-file limit is " + std::to_string(open_file_limit()));
            config.limits.max_clients_logging_in = static_cast<std::size_t>(logging_in);
        }
        if (const toml::node* n = server.get("first_byte_timeout"))
            config.first_byte_timeout = first_byte_timeout(*n, "server.first_byte_timeout");
        for (ListenerConfig& listener : config.listeners) listener.link.first_byte_timeout = config.first_byte_timeout;
        if (const toml::node* n = server.get("max_line_bytes"))
            config.limits.max_line_bytes = static_cast<std::size_t>(integer(*n, "server.max_line_bytes", 16, 65536));
        if (const toml::node* n = server.get("max_output_bytes"))
            config.limits.max_output_bytes =
                static_cast<std::size_t>(integer(*n, "server.max_output_bytes", 1024, kClientOutputBudget / 2));
        if (const toml::node* n = server.get("output_timeout_ms"))
            config.limits.output_timeout = std::chrono::milliseconds(integer(*n, "server.output_timeout_ms", 100, 3600000));
    }

    std::chrono::seconds first_byte_timeout(const toml::node& node, const std::string& key) const {
        return std::chrono::seconds(integer(node, key, 0, 3600));
    }

    std::string address(const toml::node& node, const std::string& key) const {
        std::string text = string(node, key);
        try {
            parse_listen(text);
        } catch (const std::invalid_argument& e) {
            fail(node.source(), key, e.what());
        }
        return text;
    }

    bool boolean(const toml::node& node, const std::string& key) const {
        const auto* value = node.as_boolean();
        if (!value) fail(node.source(), key, "must be true or false");
        return value->get();
    }

    const toml::array& tables(const toml::node& node, const std::string& key) const {
        const toml::array* list = node.as_array();
        if (!list || !list->is_array_of_tables()) fail(node.source(), key, "must be an array of tables ([[" + key + "]])");
        return *list;
    }

    std::chrono::seconds idle_timeout(const toml::table& table, const std::string& prefix) const {
        const toml::node* n = table.get("idle_timeout");
        if (!n) return std::chrono::seconds(0);
        return std::chrono::seconds(integer(*n, prefix + "idle_timeout", 0, 7 * 24 * 3600));
    }

    void listeners(const toml::node& node, const toml::table& root, SimulatorConfig& config) const {
        if (const toml::table* server = root["server"].as_table(); server && server->get("listen"))
            fail(node.source(), "listen", "give either server.listen or [[listen]] tables, not both");
        const toml::array& list = tables(node, "listen");
        if (list.empty()) fail(node.source(), "listen", "at least one listener is needed");
        config.listeners.clear();
        for (std::size_t i = 0; i < list.size(); ++i) {
            const toml::table& entry = *list.get(i)->as_table();
            const std::string prefix = "listen[" + std::to_string(i) + "].";
            only_known_keys(entry, prefix,
                            {"address", "telnet", "login", "users", "login_timeout", "idle_timeout",
                             "first_byte_timeout"});
            ListenerConfig listener;
            const toml::node* where = entry.get("address");
            if (!where) fail(entry.source(), prefix + "address", "missing");
            listener.address = address(*where, prefix + "address");
            if (const toml::node* n = entry.get("telnet")) listener.link.telnet = boolean(*n, prefix + "telnet");
            listener.link.login = login_mode(entry, prefix);
            listener.link.users = users(entry, prefix, listener.link.login);
            if (const toml::node* n = entry.get("login_timeout")) {
                if (listener.link.login == LoginMode::off)
                    fail(n->source(), prefix + "login_timeout", "only used with a login");
                listener.link.login_timeout = std::chrono::seconds(integer(*n, prefix + "login_timeout", 1, 3600));
            }
            listener.link.idle_timeout = idle_timeout(entry, prefix);
            listener.link.first_byte_timeout = config.first_byte_timeout;
            if (const toml::node* n = entry.get("first_byte_timeout"))
                listener.link.first_byte_timeout = first_byte_timeout(*n, prefix + "first_byte_timeout");
            config.listeners.push_back(std::move(listener));
        }
    }

    LoginMode login_mode(const toml::table& entry, const std::string& prefix) const {
        const toml::node* n = entry.get("login");
        if (!n) return LoginMode::off;
        const std::string mode = string(*n, prefix + "login");
        if (mode == "off") return LoginMode::off;
        if (mode == "password") return LoginMode::password;
        if (mode == "any") return LoginMode::any;
        fail(n->source(), prefix + "login", "must be \"off\", \"password\" or \"any\", not \"" + mode + "\"");
    }

    std::vector<Credentials> users(const toml::table& entry, const std::string& prefix, LoginMode mode) const {
        std::vector<Credentials> result;
        const toml::node* n = entry.get("users");
        if (!n) {
            if (mode == LoginMode::password)
                fail(entry.source(), prefix + "users", "missing: login = \"password\" needs at least one user");
            return result;
        }
        if (mode != LoginMode::password)
            fail(n->source(), prefix + "users", "only used with login = \"password\"");
        const toml::array* list = n->as_array();
        if (!list || list->empty()) fail(n->source(), prefix + "users", "must be a non-empty array of tables");
        for (std::size_t i = 0; i < list->size(); ++i) {
            const std::string key = prefix + "users[" + std::to_string(i) + "]";
            const toml::table* user = list->get(i)->as_table();
            if (!user) fail(list->get(i)->source(), key, "must be a table { user = \"...\", password = \"...\" }");
            only_known_keys(*user, key + ".", {"user", "password"});
            Credentials credentials;
            for (const char* field : {"user", "password"}) {
                const toml::node* value = user->get(field);
                if (!value) fail(user->source(), key + "." + field, "missing");
                (std::string(field) == "user" ? credentials.user : credentials.password) =
                    string(*value, key + "." + field);
            }
            if (credentials.user.empty()) fail(user->get("user")->source(), key + ".user", "must not be empty");
            result.push_back(std::move(credentials));
        }
        return result;
    }

    void serials(const toml::node& node, SimulatorConfig& config) const {
        const toml::array& list = tables(node, "serial");
        config.serials.clear();
        std::set<std::string> devices;
        for (std::size_t i = 0; i < list.size(); ++i) {
            const toml::table& entry = *list.get(i)->as_table();
            const std::string prefix = "serial[" + std::to_string(i) + "].";
            only_known_keys(entry, prefix, {"device", "baud", "format", "flow_control", "idle_timeout"});
            SerialSettings serial;
            const toml::node* device = entry.get("device");
            if (!device) fail(entry.source(), prefix + "device", "missing");
            serial.device = string(*device, prefix + "device");
            if (serial.device.empty()) fail(device->source(), prefix + "device", "must not be empty");
            if (!devices.insert(serial.device).second)
                fail(device->source(), prefix + "device", serial.device + " is named twice");
            if (const toml::node* n = entry.get("baud")) {
                const auto baud = integer(*n, prefix + "baud", 1200, 230400);
                if (!is_serial_baud(static_cast<unsigned>(baud)))
                    fail(n->source(), prefix + "baud", "must be one of " + serial_baud_list());
                serial.baud = static_cast<unsigned>(baud);
            }
            if (const toml::node* n = entry.get("format")) {
                try {
                    set_serial_format(serial, string(*n, prefix + "format"));
                } catch (const std::invalid_argument& e) {
                    fail(n->source(), prefix + "format", e.what());
                }
            }
            if (const toml::node* n = entry.get("flow_control")) {
                const std::string flow = string(*n, prefix + "flow_control");
                if (flow != "none" && flow != "rtscts")
                    fail(n->source(), prefix + "flow_control", "must be \"none\" or \"rtscts\", not \"" + flow + "\"");
                serial.rts_cts = flow == "rtscts";
            }
            serial.idle_timeout = idle_timeout(entry, prefix);
            config.serials.push_back(std::move(serial));
        }
    }

    void http(const toml::table& http, SimulatorConfig& config) const {
        only_known_keys(http, "http.", {"listen", "readonly", "max_pages", "max_pages_per_address", "push_interval_ms"});
        if (const toml::node* listen = http.get("listen")) {
            config.web.listen = string(*listen, "http.listen");
            config.web.listen_named = true;
            try {
                check_listen_or_off(config.web.listen);
            } catch (const std::invalid_argument& e) {
                fail(listen->source(), "http.listen", e.what());
            }
        }
        if (const toml::node* readonly = http.get("readonly")) config.web.readonly = boolean(*readonly, "http.readonly");
        if (const toml::node* n = http.get("max_pages"))
            config.web.max_pages = static_cast<std::size_t>(integer(*n, "http.max_pages", 1, 1024));
        config.web.max_pages_per_address = half_rounded_up(config.web.max_pages);
        if (const toml::node* n = http.get("max_pages_per_address"))
            config.web.max_pages_per_address = static_cast<std::size_t>(
                integer(*n, "http.max_pages_per_address", 1, static_cast<std::int64_t>(config.web.max_pages)));
        if (const toml::node* n = http.get("push_interval_ms"))
            config.web.push_interval = std::chrono::milliseconds(integer(*n, "http.push_interval_ms", 0, 1000));
    }

    static std::int64_t open_file_limit() {
        rlimit limit{};
        if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return 1 << 20;
        return static_cast<std::int64_t>(limit.rlim_cur);
    }

    // One client's waiting output is bounded by the high-water mark plus the
    // most that one event can give it; refuse routers for which that passes
    // the budget.
    void check_capacity(const toml::table& root, const SimulatorConfig& config) const {
        const toml::node* node = root.get("level");
        if (!node) return;  // the built-in levels always fit
        const toml::array& list = *node->as_array();
        const std::string limits = " with server.max_line_bytes = " + std::to_string(config.limits.max_line_bytes) +
                                   " and server.max_output_bytes = " + std::to_string(config.limits.max_output_bytes) +
                                   ": one client's waiting output must stay within " +
                                   std::to_string(kClientOutputBudget / (1024 * 1024)) + " MiB";
        std::size_t total = 0;
        for (std::size_t i = 0; i < config.levels.size(); ++i) {
            const auto destinations = static_cast<std::size_t>(config.levels[i].destinations);
            total += destinations;
            const std::size_t most = most_destinations_per_level(config.limits);
            if (destinations > most)
                fail(list.get(i)->as_table()->get("destinations")->source(),
                     "level[" + std::to_string(i) + "].destinations", "at most " + std::to_string(most) + limits);
        }
        const std::size_t most = most_destinations_in_all(config.limits);
        if (total > most)
            fail(node->source(), "level",
                 "at most " + std::to_string(most) + " destinations in all levels together (these have " +
                     std::to_string(total) + ")" + limits);
    }

    void record(const toml::table& record, SimulatorConfig& config) const {
        only_known_keys(record, "record.", {"directory", "max_bytes", "max_total_bytes"});
        if (const toml::node* n = record.get("directory")) config.record.directory = string(*n, "record.directory");
        if (const toml::node* n = record.get("max_bytes"))
            config.record.max_bytes = static_cast<std::size_t>(integer(*n, "record.max_bytes", 1024, std::int64_t{1} << 40));
        if (const toml::node* n = record.get("max_total_bytes"))
            config.record.max_total_bytes =
                static_cast<std::size_t>(integer(*n, "record.max_total_bytes", 1024, std::int64_t{1} << 40));
    }

    void plugin(const toml::table& plugin, SimulatorConfig& config) const {
        only_known_keys(plugin, "plugin.", {"path", "config"});
        if (const toml::node* path = plugin.get("path")) config.plugin_path = string(*path, "plugin.path");
        const toml::table* converter = table(plugin, "config", "plugin.");
        if (!converter) return;
        // The converter reads its settings as strings; integers are accepted for convenience.
        config.converter.clear();
        for (const auto& [key, node] : *converter) {
            const std::string name = "plugin.config." + std::string(key.str());
            if (const auto* text = node.as_string()) {
                config.converter[std::string(key.str())] = text->get();
            } else if (const auto* number = node.as_integer()) {
                config.converter[std::string(key.str())] = std::to_string(number->get());
            } else {
                fail(node.source(), name, "must be a string or an integer");
            }
        }
    }

    // A real router's counts are its own: a level it serves may leave its sizes out.
    void backend(const toml::table& table, SimulatorConfig& config) const {
        only_known_keys(table, "backend.",
                        {"protocol", "address", "address2", "keepalive_ms", "answer_timeout_ms", "connect_timeout_ms",
                         "video_level", "monitoring_level", "ack_timeout_ms", "resends", "confirm_timeout_ms",
                         "connect_interval_ms", "protect_device", "name_length", "implementation_query",
                         "group_salvos", "salvo"});
        BackendSettings& backend = config.backend;
        using Protocol = BackendSettings::Protocol;
        if (const toml::node* n = table.get("protocol")) {
            const std::string protocol = string(*n, "backend.protocol");
            if (protocol == "videohub") {
                backend.protocol = Protocol::videohub;
            } else if (protocol == "swp08") {
                backend.protocol = Protocol::swp08;
            } else if (protocol != "simulated") {
                fail(n->source(), "backend.protocol",
                     "must be \"simulated\", \"videohub\" or \"swp08\", not \"" + protocol + "\"");
            }
        }
        const toml::node* address = table.get("address");
        if (backend.protocol == Protocol::simulated) {
            if (address) fail(address->source(), "backend.address", "a simulated router has no address");
            return;
        }
        const bool swp08 = backend.protocol == Protocol::swp08;
        if (!address)
            fail(table.source(), "backend.address",
                 swp08 ? "missing: the router's HOST:PORT or serial:DEVICE" : "missing: the router's HOST:PORT");
        backend.router = router_address(*address, "backend.address", backend.protocol);
        const auto milliseconds = [&](const char* key, std::chrono::milliseconds& value, std::int64_t low) {
            if (const toml::node* n = table.get(key))
                value = std::chrono::milliseconds(integer(*n, std::string("backend.") + key, low, 3600000));
        };
        milliseconds("keepalive_ms", backend.keepalive, 100);
        milliseconds("answer_timeout_ms", backend.answer_timeout, 10);
        milliseconds("connect_timeout_ms", backend.connect_timeout, 10);
        for (const char* key : {"video_level", "monitoring_level"}) {
            if (swp08 && table.get(key))
                fail(table.get(key)->source(), std::string("backend.") + key,
                     "an SW-P-08 router's levels are named in [[level]] (matrix, level)");
        }
        for (const char* key : {"address2", "ack_timeout_ms", "resends", "confirm_timeout_ms", "connect_interval_ms",
                                "protect_device", "name_length", "implementation_query", "group_salvos", "salvo"}) {
            if (!swp08 && table.get(key))
                fail(table.get(key)->source(), std::string("backend.") + key, "only for an SW-P-08 router");
        }
        if (swp08) return swp08_backend(table, config);
        if (const toml::node* n = table.get("video_level"))
            backend.video_level = static_cast<int>(integer(*n, "backend.video_level", 0, std::numeric_limits<int>::max()));
        if (const toml::node* n = table.get("monitoring_level")) {
            backend.monitoring_level =
                static_cast<int>(integer(*n, "backend.monitoring_level", 0, std::numeric_limits<int>::max()));
            if (backend.monitoring_level == backend.video_level)
                fail(n->source(), "backend.monitoring_level", "must differ from backend.video_level");
        }
    }

    RouterAddress router_address(const toml::node& node, const std::string& key, BackendSettings::Protocol protocol) const {
        try {
            return parse_router_address(protocol, string(node, key));
        } catch (const std::invalid_argument& e) {
            fail(node.source(), key, e.what());
        }
    }

    void swp08_backend(const toml::table& table, SimulatorConfig& config) const {
        Swp08Settings& swp08 = config.backend.swp08;
        if (const toml::node* n = table.get("address2"))
            swp08.address2 = router_address(*n, "backend.address2", BackendSettings::Protocol::swp08);
        if (const toml::node* n = table.get("ack_timeout_ms"))
            swp08.ack_timeout = std::chrono::milliseconds(integer(*n, "backend.ack_timeout_ms", 10, 60000));
        if (const toml::node* n = table.get("resends")) swp08.resends = static_cast<int>(integer(*n, "backend.resends", 0, 100));
        if (const toml::node* n = table.get("confirm_timeout_ms"))
            swp08.confirm_timeout = std::chrono::milliseconds(integer(*n, "backend.confirm_timeout_ms", 10, 60000));
        if (const toml::node* n = table.get("connect_interval_ms"))
            swp08.connect_interval = std::chrono::milliseconds(integer(*n, "backend.connect_interval_ms", 0, 10000));
        if (const toml::node* n = table.get("protect_device"))
            swp08.protect_device = static_cast<int>(integer(*n, "backend.protect_device", 0, 1023));
        if (const toml::node* n = table.get("name_length")) {
            swp08.name_length = static_cast<int>(integer(*n, "backend.name_length", 4, 32));
            if (!swp08::is_name_length(swp08.name_length))
                fail(n->source(), "backend.name_length", "must be 4, 8, 12, 16 or 32 characters");
        }
        if (const toml::node* n = table.get("implementation_query"))
            swp08.implementation_query = boolean(*n, "backend.implementation_query");
        if (const toml::node* n = table.get("group_salvos")) swp08.group_salvos = boolean(*n, "backend.group_salvos");
        if (const toml::node* n = table.get("salvo")) swp08.salvo = static_cast<int>(integer(*n, "backend.salvo", 0, 127));
    }

    // Each level a real router serves must be in the file.
    void check_router_levels(const toml::node& node, const SimulatorConfig& config) const {
        for (const int level : {config.backend.video_level, config.backend.monitoring_level}) {
            if (level < 0) continue;
            if (!has_level(config, level))
                fail(node.source(), "level", "no [[level]] numbered " + std::to_string(level) +
                                                 ", which the router's " + (level == config.backend.video_level ? "video" : "monitoring") +
                                                 " outputs are (backend." +
                                                 (level == config.backend.video_level ? "video_level" : "monitoring_level") + ")");
        }
    }

    void levels(const toml::node& node, SimulatorConfig& config) const {
        const toml::array* list = node.as_array();
        if (!list || !list->is_array_of_tables()) fail(node.source(), "level", "must be an array of tables ([[level]])");
        if (list->empty()) fail(node.source(), "level", "at least one level is needed");
        if (list->size() > kMaxLevels) fail(node.source(), "level", "at most " + std::to_string(kMaxLevels) + " levels");
        config.levels.clear();
        config.crosspoints.clear();
        config.locks.clear();
        std::set<int> numbers;
        for (std::size_t i = 0; i < list->size(); ++i) {
            const toml::table& level = *list->get(i)->as_table();
            const std::string prefix = "level[" + std::to_string(i) + "].";
            only_known_keys(level, prefix,
                            {"number", "name", "sources", "destinations", "crosspoints", "locks", "source_labels",
                             "destination_labels", "matrix", "level"});
            LevelSpec levelSpec;
            levelSpec.number = static_cast<int>(required_integer(level, "number", prefix, std::numeric_limits<int>::min(),
                                                            std::numeric_limits<int>::max()));
            if (!numbers.insert(levelSpec.number).second)
                fail(level.get("number")->source(), prefix + "number", "level " + std::to_string(levelSpec.number) + " is defined twice");
            if (const toml::node* name = level.get("name")) levelSpec.name = string(*name, prefix + "name");
            matrix_level(level, prefix, levelSpec.number, config);
            const bool sized_by_router = config.backend.protocol == BackendSettings::Protocol::videohub &&
                                         (levelSpec.number == config.backend.video_level ||
                                          levelSpec.number == config.backend.monitoring_level);
            if (sized_by_router) {
                for (const char* key : {"sources", "destinations", "crosspoints", "locks", "source_labels", "destination_labels"}) {
                    if (const toml::node* n = level.get(key))
                        fail(n->source(), prefix + key, "the router's own: a level the router serves takes its sizes, crosspoints and labels from it");
                }
            } else {
                levelSpec.sources = static_cast<int>(required_integer(level, "sources", prefix, 1, kMaxSize));
                levelSpec.destinations = static_cast<int>(required_integer(level, "destinations", prefix, 1, kMaxSize));
                levelSpec.source_labels = labels(level, "source_labels", prefix, levelSpec.sources, "source");
                levelSpec.destination_labels =
                    labels(level, "destination_labels", prefix, levelSpec.destinations, "destination");
            }
            config.levels.push_back(std::move(levelSpec));
            const LevelSpec& added = config.levels.back();
            if (config.backend.protocol == BackendSettings::Protocol::swp08) {
                for (const char* key : {"crosspoints", "locks"}) {
                    if (const toml::node* n = level.get(key))
                        fail(n->source(), prefix + key, "the router's own: an SW-P-08 router's crosspoints and protects are read from it");
                }
            }
            initial_crosspoints(level, prefix, added, config);
            initial_locks(level, prefix, added, config);
        }
    }

    // The labels of a level's sources or destinations, from the first on;
    // "" leaves one without a label, as do those after the list's end.
    std::vector<std::string> labels(const toml::table& level, const std::string& name, const std::string& prefix,
                                    int ports, const std::string& what) const {
        std::vector<std::string> result;
        const toml::node* node = level.get(name);
        if (!node) return result;
        const toml::array* list = node->as_array();
        if (!list) fail(node->source(), prefix + name, "must be an array of strings");
        if (list->size() > static_cast<std::size_t>(ports))
            fail(node->source(), prefix + name,
                 "lists " + std::to_string(list->size()) + " labels, but the level has " + std::to_string(ports) + " " +
                     what + (ports == 1 ? "" : "s"));
        for (std::size_t i = 0; i < list->size(); ++i) {
            const toml::node& entry = *list->get(i);
            const std::string key = prefix + name + "[" + std::to_string(i) + "]";
            std::string text = string(entry, key);
            if (const std::string problem = label_problem(text); !problem.empty()) fail(entry.source(), key, problem);
            result.push_back(std::move(text));
        }
        return result;
    }

    // Entries of an inline array of tables, e.g. crosspoints = [ { destination = 5, source = 3 } ].
    template <typename Each>
    void entries(const toml::table& level, const std::string& name, const std::string& prefix,
                 const Each& each) const {
        const toml::node* node = level.get(name);
        if (!node) return;
        const toml::array* list = node->as_array();
        if (!list) fail(node->source(), prefix + name, "must be an array of tables");
        for (std::size_t i = 0; i < list->size(); ++i) {
            const toml::node& entry = *list->get(i);
            const std::string key = prefix + name + "[" + std::to_string(i) + "].";
            if (!entry.is_table()) fail(entry.source(), prefix + name + "[" + std::to_string(i) + "]", "must be a table");
            each(*entry.as_table(), key);
        }
    }

    // Where an SW-P-08 router has the level: its matrix and level, by default
    // matrix 0 and the level of the same number.
    void matrix_level(const toml::table& level, const std::string& prefix, int number, SimulatorConfig& config) const {
        const toml::node* matrix = level.get("matrix");
        const toml::node* router_level = level.get("level");
        if (!matrix && !router_level) return;
        MatrixLevel& where = config.backend.swp08.levels[number];
        where = {0, number};
        if (matrix) where.matrix = static_cast<int>(integer(*matrix, prefix + "matrix", 0, 255));
        if (router_level) where.level = static_cast<int>(integer(*router_level, prefix + "level", 0, 255));
    }

    void initial_crosspoints(const toml::table& level, const std::string& prefix, const LevelSpec& levelSpec,
                             SimulatorConfig& config) const {
        entries(level, "crosspoints", prefix, [&](const toml::table& entry, const std::string& key) {
            only_known_keys(entry, key, {"destination", "source"});
            const auto destination = required_integer(entry, "destination", key, 0, levelSpec.destinations - 1);
            const auto source = required_integer(entry, "source", key, 0, levelSpec.sources - 1);
            config.crosspoints.push_back({levelSpec.number, static_cast<int>(destination), static_cast<int>(source)});
        });
    }

    void initial_locks(const toml::table& level, const std::string& prefix, const LevelSpec& levelSpec,
                       SimulatorConfig& config) const {
        entries(level, "locks", prefix, [&](const toml::table& entry, const std::string& key) {
            only_known_keys(entry, key, {"destination", "state"});
            const auto destination = required_integer(entry, "destination", key, 0, levelSpec.destinations - 1);
            const auto state = required_integer(entry, "state", key, 0, 2);
            config.locks.push_back({levelSpec.number, static_cast<int>(destination), static_cast<int>(state)});
        });
    }

    SimulatorConfig read() const {
        toml::table root;
        try {
            root = toml::parse(read_whole_file(), path_);
        } catch (const toml::parse_error& e) {
            const auto& where = e.source();
            if (where.begin.line == 0) throw ConfigError(path_ + ": " + std::string(e.description()));
            throw ConfigError(path_ + ":" + std::to_string(where.begin.line) + ": " + std::string(e.description()));
        }
        // Whatever the file leaves out keeps its built-in value.
        SimulatorConfig config = builtin();
        config.origin = path_;
        only_known_keys(root, "", {"server", "listen", "serial", "plugin", "level", "record", "state", "http", "backend"});
        if (const toml::table* b = table(root, "backend", "")) backend(*b, config);
        if (const toml::table* t = table(root, "state", "")) {
            only_known_keys(*t, "state.", {"file", "max_salvos", "max_salvo_crosspoints"});
            if (const toml::node* n = t->get("file")) config.state_file = string(*n, "state.file");
            if (const toml::node* n = t->get("max_salvos"))
                config.salvo_limits.max_salvos = static_cast<std::size_t>(integer(*n, "state.max_salvos", 0, 1000000));
            if (const toml::node* n = t->get("max_salvo_crosspoints"))
                config.salvo_limits.max_crosspoints =
                    static_cast<std::size_t>(integer(*n, "state.max_salvo_crosspoints", 0, 1000000000));
        }
        if (const toml::table* s = table(root, "server", "")) server(*s, config);
        if (const toml::node* l = root.get("listen")) listeners(*l, root, config);
        if (const toml::node* s = root.get("serial")) serials(*s, config);
        if (const toml::table* r = table(root, "record", "")) record(*r, config);
        if (const toml::table* h = table(root, "http", "")) http(*h, config);
        if (const toml::table* p = table(root, "plugin", "")) plugin(*p, config);
        const BackendSettings::Protocol protocol = config.backend.protocol;
        if (const toml::node* l = root.get("level")) {
            levels(*l, config);
            if (protocol == BackendSettings::Protocol::videohub) check_router_levels(*l, config);
        } else if (protocol == BackendSettings::Protocol::videohub) {
            use_router_levels(config);
        }
        if (protocol == BackendSettings::Protocol::swp08) {
            try {
                check_swp08_levels(config);
            } catch (const ConfigError& e) {
                const toml::node* l = root.get("level");
                if (!l) throw ConfigError(path_ + ": " + e.what());
                fail(l->source(), "level", e.what());
            }
        }
        check_capacity(root, config);
        return config;
    }

private:
    // Only a readable regular file: a directory or a device would read as an
    // empty configuration, and a FIFO would hang start-up.
    std::string read_whole_file() const {
        if (path_.empty()) throw ConfigError("the configuration file name is empty");
        struct stat status {};
        if (::stat(path_.c_str(), &status) != 0)
            throw ConfigError(path_ + ": cannot read: " + std::strerror(errno));
        if (!S_ISREG(status.st_mode)) throw ConfigError(path_ + ": not a regular file");
        std::ifstream in(path_, std::ios::binary);
        if (!in) throw ConfigError(path_ + ": cannot read: " + std::strerror(errno));
        std::ostringstream text;
        text << in.rdbuf();
        if (in.bad()) throw ConfigError(path_ + ": cannot read: " + std::strerror(errno));
        return text.str();
    }

    std::string path_;
};

}  // namespace

SimulatorConfig builtin_config() { return builtin(); }

void apply_backend(SimulatorConfig& config, const std::string& option) {
    BackendSettings named;
    try {
        named = parse_backend(option);
    } catch (const std::invalid_argument& e) {
        throw ConfigError(std::string("--backend: ") + e.what());
    }
    config.backend.protocol = named.protocol;
    config.backend.router = named.router;
    if (named.protocol == BackendSettings::Protocol::simulated) return;
    if (named.protocol == BackendSettings::Protocol::swp08) {
        // The crosspoints and protects are the router's; the levels stay as configured.
        config.crosspoints.clear();
        config.locks.clear();
        try {
            check_swp08_levels(config);
        } catch (const ConfigError& e) {
            throw ConfigError("--backend: " + config.origin + ": " + e.what());
        }
        return;
    }
    if (config.origin == builtin_config().origin) return use_router_levels(config);
    for (const int level : {config.backend.video_level, config.backend.monitoring_level}) {
        if (level < 0) continue;
        if (!has_level(config, level))
            throw ConfigError("--backend: " + config.origin + " has no level " + std::to_string(level) +
                              " for the router's outputs");
        // Its crosspoints are the router's.
        config.crosspoints.erase(std::remove_if(config.crosspoints.begin(), config.crosspoints.end(),
                                                [&](const InitialCrosspoint& c) { return c.level == level; }),
                                 config.crosspoints.end());
    }
}

void use_router_levels(SimulatorConfig& config) {
    config.levels = {{config.backend.video_level, "video", 0, 0}};
    if (config.backend.monitoring_level >= 0)
        config.levels.push_back({config.backend.monitoring_level, "monitoring", 0, 0});
    config.crosspoints.clear();
    config.locks.clear();
}

SimulatorConfig load_config(const std::string& path) { return Reader(path).read(); }

void prepare_record_directory(const std::string& directory) {
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) throw ConfigError("cannot record to " + directory + ": " + error.message());
    if (!std::filesystem::is_directory(directory, error))
        throw ConfigError("cannot record to " + directory + ": not a directory");
    if (::access(directory.c_str(), W_OK | X_OK) != 0)
        throw ConfigError("cannot record to " + directory + ": " + std::strerror(errno));
}

}  // namespace routerd
