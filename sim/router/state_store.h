#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "sim/log.h"
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

// The router's crosspoints and locks on disk, in an SQLite database (WAL,
// synchronous commits), so that they outlive the simulator, a kill -9 or a
// power cut. The database records the levels it was written for. Each frame's
// changes are committed in one transaction before any client is told of them
// (so the frame is the group commit); a commit that fails is logged, its
// changes kept in memory and tried again with the next frame or a second
// later, and the simulator goes on serving.
// A saved routing: the crosspoints of one level or of all levels, under a name.
struct Salvo {
    std::string name;
    std::vector<int> levels;   // the router levels it holds
    std::size_t crosspoints = 0;
};

struct SalvoCrosspoint {
    int level, destination, source;
};

class StateStore final : public RouterJournal {
public:
    // Opens or creates the file and takes it for this process alone. `fresh`
    // forgets what it holds. Throws StateError.
    StateStore(const std::string& path, const std::vector<LevelSpec>& levels, bool fresh, const Log& log);
    ~StateStore();
    StateStore(const StateStore&) = delete;
    StateStore& operator=(const StateStore&) = delete;

    // Puts the stored crosspoints and locks into the router; false when the
    // file held none (a new or fresh file), and then it stores the router's.
    bool restore_into(Router& router);

    void keep(const std::vector<PublishedChange>& changes) override;
    // Tries again to write changes that failed to commit.
    void retry();
    std::size_t unsaved() const { return unsaved_.size(); }

    // Saved routings ("salvos"), in the same file. Saving under a name that
    // exists replaces it. Throws StateError when the file cannot be written.
    void save_salvo(const std::string& name, const Router& router, const LevelSpec* level);
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
    bool commit_unsaved();
    bool write_unsaved() const;
    void store_all(const Router& router);
    std::string describe_levels() const;

    std::string path_;
    const Log& log_;
    sqlite3* db_ = nullptr;
    std::map<Key, int> unsaved_;  // value per destination and kind, not yet committed
    bool failing_ = false;        // the last commit failed (logged once until one succeeds)
};

}  // namespace routerd
