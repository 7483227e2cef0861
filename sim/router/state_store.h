#pragma once

#include <chrono>
#include <cstdint>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "sim/router/router.h"
#include "sim/startup_error.h"

struct sqlite3;

namespace routerd {

// A state file that cannot be used: corrupt, not a database, in use by
// another process, unwritable, or written for other levels. At start-up it
// stops the simulator; later (saving a routing) it is answered where it happens.
class StateError : public StartupError {
public:
    explicit StateError(const std::string& what) : StartupError(what, "state error: ") {}
};

// The disk holding the state file is full.
class StateFull : public StateError {
public:
    using StateError::StateError;
};

// A saved routing: the crosspoints of one level or of all levels, under a name.
struct Salvo {
    std::string name;
    std::vector<int> levels;   // the router levels it holds
    std::size_t crosspoints = 0;
};

struct SalvoCrosspoint {
    int level, destination, source;
};

// What saved routings may take of the state file.
struct SalvoLimits {
    std::size_t max_salvos = 1000;
    std::size_t max_crosspoints = 4'000'000;  // held by all of them together
};

// A routing that cannot be saved for a limit: `too_many` names are saved
// already, or else it would pass the crosspoint bound.
class SalvoRefused : public std::runtime_error {
public:
    SalvoRefused(const std::string& what, bool too_many) : std::runtime_error(what), too_many(too_many) {}
    const bool too_many;
};

// The router's crosspoints and locks on disk, in an SQLite database (WAL,
// synchronous commits), so that they outlive the simulator, a kill -9 or a
// power cut, with the saved routings. The database records the levels it
// was written for. A commit that fails is noted once, its changes are kept in
// memory and go with the next commit or retry(), until one succeeds.
// Used by one thread at a time (see StateWriter).
class StateStore {
public:
    using Notes = std::function<void(const std::string& line)>;

    // Opens or creates the file and takes it for this process alone. `fresh`
    // forgets what it holds. Throws StateError. Log lines go to `notes`.
    StateStore(const std::string& path, const std::vector<LevelSpec>& levels, bool fresh, Notes notes,
               SalvoLimits limits = {});
    ~StateStore();
    StateStore(const StateStore&) = delete;
    StateStore& operator=(const StateStore&) = delete;

    // Puts the stored crosspoints and locks into the router; false when the
    // file held none (a new or fresh file), and then it stores the router's.
    bool restore_into(Router& router);

    const std::string& path() const { return path_; }
    void set_notes(Notes notes) { notes_ = std::move(notes); }

    // Commits the changes, with those of commits that failed.
    void keep(const std::vector<PublishedChange>& changes);
    // Tries again to write changes that failed to commit.
    void retry();
    std::size_t unsaved() const { return unsaved_.size(); }
    // Why the last commit failed, and since when commits fail; empty while they succeed.
    const std::string& failure() const { return failure_; }
    std::optional<std::chrono::system_clock::time_point> failing_since() const { return failing_since_; }

    // Saved routings ("salvos"), in the same file. Saving under a name that
    // exists replaces it. Throws SalvoRefused past a limit, StateError when
    // the file cannot be written.
    void save_salvo(const std::string& name, const std::vector<SalvoCrosspoint>& crosspoints);
    std::vector<Salvo> salvos() const;
    // False when there is no salvo of that name.
    bool delete_salvo(const std::string& name);
    // Empty when there is no salvo of that name.
    std::vector<SalvoCrosspoint> salvo(const std::string& name) const;

private:
    using Key = std::tuple<int, int, int>;  // kind, level, destination

    void execute(const char* sql) const;
    [[noreturn]] void fail_foreign(const std::string& why);
    void check_tables();
    void check_contents();
    struct Prepared;
    Prepared* prepared();
    bool commit_transaction(const std::function<bool()>& write, std::string& reason);
    bool commit_unsaved();
    bool write_unsaved();
    void store_all(const Router& router);
    std::string describe_levels() const;
    std::map<std::string, std::size_t>& salvo_sizes();
    void fail_commit(const std::string& reason);
    void checkpoint();
    struct Room {
        std::uint64_t disk = 0;
        std::uint64_t in_file = 0;
    };
    Room room() const;

    std::string path_;
    Notes notes_;
    SalvoLimits limits_;
    sqlite3* db_ = nullptr;
    std::unique_ptr<Prepared> prepared_;  // null until the first commit, or after one that could not prepare
    std::map<Key, int> unsaved_;  // value per destination and kind, not yet committed
    std::string failure_;         // the last commit failed (noted once until one succeeds)
    std::optional<std::chrono::system_clock::time_point> failing_since_;
    std::optional<std::map<std::string, std::size_t>> salvo_sizes_;  // crosspoints per name, read once
};

// The crosspoints of `level`, or of every level, as a routing to save.
std::vector<SalvoCrosspoint> routing_of(const Router& router, const LevelSpec* level);

}  // namespace routerd
