#include "sim/config.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>

#include <toml++/toml.h>

namespace routerd {

namespace {

constexpr std::int64_t kMaxSize = 65536;  // sources or destinations of one level
constexpr std::size_t kMaxLevels = 256;
// Descriptors the simulator needs besides its clients': standard streams,
// listener, event loop, the plug-in, clients being refused.
constexpr std::size_t kReservedDescriptors = 32;

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
                        {"listen", "max_clients", "max_line_bytes", "max_output_bytes", "output_timeout_ms"});
        if (const toml::node* listen = server.get("listen")) {
            config.listen = string(*listen, "server.listen");
            try {
                parse_listen(config.listen);
            } catch (const std::invalid_argument& e) {
                fail(listen->source(), "server.listen", e.what());
            }
        }
        if (const toml::node* n = server.get("max_clients")) {
            const std::int64_t most = open_file_limit() - static_cast<std::int64_t>(kReservedDescriptors);
            const std::int64_t clients = integer(*n, "server.max_clients", 1, 100000);
            if (clients > most)
                fail(n->source(), "server.max_clients",
                     "at most " + std::to_string(most) + ": the open-file limit is " +
                         std::to_string(open_file_limit()));
            config.limits.max_clients = static_cast<std::size_t>(clients);
        }
        if (const toml::node* n = server.get("max_line_bytes"))
            config.limits.max_line_bytes = static_cast<std::size_t>(integer(*n, "server.max_line_bytes", 16, 65536));
        if (const toml::node* n = server.get("max_output_bytes"))
            config.limits.max_output_bytes =
                static_cast<std::size_t>(integer(*n, "server.max_output_bytes", 1024, kClientOutputBudget / 2));
        if (const toml::node* n = server.get("output_timeout_ms"))
            config.limits.output_timeout = std::chrono::milliseconds(integer(*n, "server.output_timeout_ms", 100, 3600000));
    }

    void http(const toml::table& http, SimulatorConfig& config) const {
        only_known_keys(http, "http.", {"listen", "readonly", "max_pages"});
        if (const toml::node* listen = http.get("listen")) {
            config.web.listen = string(*listen, "http.listen");
            config.web.listen_named = true;
            if (config.web.listen != "off") {
                try {
                    parse_listen(config.web.listen);
                } catch (const std::invalid_argument& e) {
                    fail(listen->source(), "http.listen", std::string(e.what()) + " or \"off\"");
                }
            }
        }
        if (const toml::node* readonly = http.get("readonly")) {
            const auto* value = readonly->as_boolean();
            if (!value) fail(readonly->source(), "http.readonly", "must be true or false");
            config.web.readonly = value->get();
        }
        if (const toml::node* n = http.get("max_pages"))
            config.web.max_pages = static_cast<std::size_t>(integer(*n, "http.max_pages", 1, 1024));
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
        only_known_keys(record, "record.", {"directory", "max_bytes"});
        if (const toml::node* n = record.get("directory")) config.record.directory = string(*n, "record.directory");
        if (const toml::node* n = record.get("max_bytes"))
            config.record.max_bytes = static_cast<std::size_t>(integer(*n, "record.max_bytes", 1024, std::int64_t{1} << 40));
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
            only_known_keys(level, prefix, {"number", "name", "sources", "destinations", "crosspoints", "locks"});
            LevelSpec levelSpec;
            levelSpec.number = static_cast<int>(required_integer(level, "number", prefix, std::numeric_limits<int>::min(),
                                                            std::numeric_limits<int>::max()));
            if (!numbers.insert(levelSpec.number).second)
                fail(level.get("number")->source(), prefix + "number", "level " + std::to_string(levelSpec.number) + " is defined twice");
            if (const toml::node* name = level.get("name")) levelSpec.name = string(*name, prefix + "name");
            levelSpec.sources = static_cast<int>(required_integer(level, "sources", prefix, 1, kMaxSize));
            levelSpec.destinations = static_cast<int>(required_integer(level, "destinations", prefix, 1, kMaxSize));
            config.levels.push_back(levelSpec);
            initial_crosspoints(level, prefix, levelSpec, config);
            initial_locks(level, prefix, levelSpec, config);
        }
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
        only_known_keys(root, "", {"server", "plugin", "level", "record", "state", "http"});
        if (const toml::table* t = table(root, "state", "")) {
            only_known_keys(*t, "state.", {"file"});
            if (const toml::node* n = t->get("file")) config.state_file = string(*n, "state.file");
        }
        if (const toml::table* s = table(root, "server", "")) server(*s, config);
        if (const toml::table* r = table(root, "record", "")) record(*r, config);
        if (const toml::table* h = table(root, "http", "")) http(*h, config);
        if (const toml::table* p = table(root, "plugin", "")) plugin(*p, config);
        if (const toml::node* l = root.get("level")) levels(*l, config);
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

ListenAddress parse_listen(const std::string& text) {
    const auto colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size())
        throw std::invalid_argument("expected HOST:PORT, got \"" + text + "\"");
    std::string host = text.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    const std::string port = text.substr(colon + 1);
    if (port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos || std::stoul(port) > 65535)
        throw std::invalid_argument("port must be a number from 0 to 65535, got \"" + port + "\"");
    return {host, static_cast<unsigned short>(std::stoul(port))};
}

}  // namespace routerd
