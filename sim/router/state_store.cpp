#include "sim/router/state_store.h"

#include <sqlite3.h>

namespace routerd {

namespace {

// A statement, finalized however the scope ends.
class Statement {
public:
    Statement(sqlite3* db, const char* sql) : db_(db) {
        if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK) statement_ = nullptr;
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool ok() const { return statement_ != nullptr; }
    sqlite3_stmt* get() const { return statement_; }
    // Binds the numbers, runs the statement to its end and resets it.
    bool run(std::initializer_list<int> values) {
        int index = 1;
        for (const int value : values) sqlite3_bind_int(statement_, index++, value);
        const int result = sqlite3_step(statement_);
        sqlite3_reset(statement_);
        return result == SQLITE_DONE;
    }

private:
    sqlite3* db_;
    sqlite3_stmt* statement_ = nullptr;
};

// One transaction: begun with the object and rolled back when it goes without
// commit() having succeeded, however the scope that began it ends.
class Transaction {
public:
    explicit Transaction(sqlite3* db) : db_(db), begun_(run("BEGIN")) {}
    ~Transaction() {
        if (!committed_) run("ROLLBACK");
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    bool begun() const { return begun_; }
    bool commit() {
        committed_ = run("COMMIT");
        return committed_;
    }

private:
    bool run(const char* sql) const { return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

    sqlite3* db_;
    bool begun_;
    bool committed_ = false;
};

// Runs `write` in a transaction of its own and commits it. On failure
// `reason` is SQLite's message, read before the rollback replaces it.
template <typename Write>
bool commit_transaction(sqlite3* db, const Write& write, std::string& reason) {
    Transaction transaction(db);
    if (transaction.begun() && write() && transaction.commit()) return true;
    reason = sqlite3_errmsg(db);
    return false;
}

// The crosspoints of `only` or of every level, under `name`, in place of
// what that name held.
bool write_salvo(sqlite3* db, const std::string& name, const Router& router, const LevelSpec* only) {
    Statement forget(db, "DELETE FROM salvos WHERE name = ?");
    if (!forget.ok()) return false;
    sqlite3_bind_text(forget.get(), 1, name.c_str(), -1, SQLITE_TRANSIENT);
    if (!forget.run({})) return false;
    Statement insert(db, "INSERT INTO salvos VALUES (?, ?, ?, ?)");
    if (!insert.ok()) return false;
    for (const LevelSpec& level : router.levels()) {
        if (only && only->number != level.number) continue;
        for (int destination = 0; destination < level.destinations; ++destination) {
            sqlite3_bind_text(insert.get(), 1, name.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_int(insert.get(), 2, level.number);
            sqlite3_bind_int(insert.get(), 3, destination);
            sqlite3_bind_int(insert.get(), 4, router.source_of(level.number, destination));
            const bool inserted = sqlite3_step(insert.get()) == SQLITE_DONE;
            sqlite3_reset(insert.get());
            if (!inserted) return false;
        }
    }
    return true;
}

const char* const kSchema =
    "CREATE TABLE IF NOT EXISTS levels (number INTEGER PRIMARY KEY, sources INTEGER NOT NULL,"
    " destinations INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS crosspoints (level INTEGER NOT NULL, destination INTEGER NOT NULL,"
    " source INTEGER NOT NULL, PRIMARY KEY (level, destination)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS locks (level INTEGER NOT NULL, destination INTEGER NOT NULL,"
    " state INTEGER NOT NULL, PRIMARY KEY (level, destination)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS salvos (name TEXT NOT NULL, level INTEGER NOT NULL, destination INTEGER NOT NULL,"
    " source INTEGER NOT NULL, PRIMARY KEY (name, level, destination)) WITHOUT ROWID;";

std::string levels_text(const std::vector<LevelSpec>& levels) {
    std::string text;
    for (const LevelSpec& level : levels) {
        if (!text.empty()) text += ", ";
        text += std::to_string(level.number) + " (" + std::to_string(level.sources) + " x " +
                std::to_string(level.destinations) + ")";
    }
    return text.empty() ? "none" : text;
}

}  // namespace

StateStore::StateStore(const std::string& path, const std::vector<LevelSpec>& levels, bool fresh, const Log& log)
    : path_(path), log_(log) {
    const auto fail = [&](const std::string& what) {
        const std::string message = path + ": " + what + (db_ ? std::string(": ") + sqlite3_errmsg(db_) : "");
        sqlite3_close_v2(db_);
        db_ = nullptr;
        throw StateError(message);
    };
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK)
        fail("cannot open the state file");
    const auto run = [&](const char* sql, const char* what) {
        if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK) return;
        const int code = sqlite3_errcode(db_);
        if (code == SQLITE_BUSY || code == SQLITE_LOCKED) fail("the state file is in use by another process");
        fail(what);
    };
    // One process at a time: the lock is taken by the first write and kept
    // until the file is closed. Every commit is on the disk before the
    // clients hear of its changes.
    run("PRAGMA locking_mode = EXCLUSIVE", "cannot use the state file");
    run("PRAGMA journal_mode = WAL", "cannot use the state file");
    run("PRAGMA synchronous = FULL", "cannot use the state file");
    {
        Statement check(db_, "PRAGMA quick_check");
        if (!check.ok()) fail("cannot read the state file");
        const int step = sqlite3_step(check.get());
        if (step == SQLITE_BUSY || step == SQLITE_LOCKED) fail("the state file is in use by another process");
        if (step != SQLITE_ROW ||
            std::string(reinterpret_cast<const char*>(sqlite3_column_text(check.get(), 0))) != "ok")
            fail("the state file is damaged (quick_check)");
    }
    // Nothing is written before the levels are known to match.
    const std::string stored = describe_levels();
    const std::string configured = levels_text(levels);
    if (!fresh && stored != "none" && stored != configured) {
        const std::string message = path + " was written for the levels " + stored +
                                    "; the configuration has " + configured +
                                    " (--fresh-state starts afresh from the configuration)";
        sqlite3_close_v2(db_);
        db_ = nullptr;
        throw StateError(message);
    }
    run("BEGIN IMMEDIATE", "cannot write the state file");
    run(kSchema, "cannot write the state file");
    run("PRAGMA user_version = 1", "cannot write the state file");
    run("COMMIT", "cannot write the state file");

    if (fresh || stored == "none") {
        run("BEGIN; DELETE FROM levels; DELETE FROM crosspoints; DELETE FROM locks;", "cannot write the state file");
        {
            Statement insert(db_, "INSERT INTO levels VALUES (?, ?, ?)");
            for (const LevelSpec& level : levels) {
                if (!insert.run({level.number, level.sources, level.destinations})) fail("cannot write the state file");
            }
        }
        run("COMMIT", "cannot write the state file");
    }
}

StateStore::~StateStore() {
    retry();
    sqlite3_close_v2(db_);
}

std::string StateStore::describe_levels() const {
    std::vector<LevelSpec> levels;
    Statement select(db_, "SELECT number, sources, destinations FROM levels ORDER BY number");
    if (!select.ok()) return "none";  // a new file has no tables yet
    while (sqlite3_step(select.get()) == SQLITE_ROW) {
        levels.push_back({sqlite3_column_int(select.get(), 0), "", sqlite3_column_int(select.get(), 1),
                          sqlite3_column_int(select.get(), 2)});
    }
    return levels_text(levels);
}

bool StateStore::restore_into(Router& router) {
    std::size_t rows = 0;
    {
        Statement select(db_, "SELECT level, destination, source FROM crosspoints");
        while (select.ok() && sqlite3_step(select.get()) == SQLITE_ROW) {
            ++rows;
            router.preset_crosspoint(sqlite3_column_int(select.get(), 0), sqlite3_column_int(select.get(), 2),
                                     sqlite3_column_int(select.get(), 1));
        }
    }
    {
        Statement select(db_, "SELECT level, destination, state FROM locks");
        while (select.ok() && sqlite3_step(select.get()) == SQLITE_ROW) {
            ++rows;
            router.preset_lock(sqlite3_column_int(select.get(), 0), sqlite3_column_int(select.get(), 1),
                               sqlite3_column_int(select.get(), 2));
        }
    }
    if (rows > 0) return true;
    store_all(router);
    return false;
}

void StateStore::store_all(const Router& router) {
    for (const LevelSpec& level : router.levels()) {
        for (int destination = 0; destination < level.destinations; ++destination) {
            unsaved_[{PublishedChange::crosspoint, level.number, destination}] =
                router.source_of(level.number, destination);
            unsaved_[{PublishedChange::lock, level.number, destination}] = router.lock_of(level.number, destination);
        }
    }
    if (!commit_unsaved()) throw StateError(path_ + ": cannot write the state file: " + sqlite3_errmsg(db_));
}

void StateStore::keep(const std::vector<PublishedChange>& changes) {
    for (const PublishedChange& change : changes) unsaved_[{change.kind, change.level, change.destination}] = change.value;
    commit_unsaved();
}

void StateStore::retry() {
    if (!unsaved_.empty()) commit_unsaved();
}

bool StateStore::write_unsaved() const {
    Statement crosspoint(db_, "INSERT OR REPLACE INTO crosspoints VALUES (?, ?, ?)");
    Statement lock(db_, "INSERT OR REPLACE INTO locks VALUES (?, ?, ?)");
    if (!crosspoint.ok() || !lock.ok()) return false;
    for (const auto& [key, value] : unsaved_) {
        const auto& [kind, level, destination] = key;
        if (!(kind == PublishedChange::crosspoint ? crosspoint : lock).run({level, destination, value})) return false;
    }
    return true;
}

bool StateStore::commit_unsaved() {
    std::string reason;
    if (commit_transaction(db_, [this] { return write_unsaved(); }, reason)) {
        if (failing_) log_.info("state file " + path_ + " written again");
        failing_ = false;
        unsaved_.clear();
        return true;
    }
    if (!failing_) {
        log_.info("cannot write the state file " + path_ + ": " + reason +
                  "; serving from memory and trying again every second");
    }
    failing_ = true;
    return false;
}

void StateStore::save_salvo(const std::string& name, const Router& router, const LevelSpec* only) {
    std::string reason;
    if (commit_transaction(db_, [&] { return write_salvo(db_, name, router, only); }, reason)) return;
    throw StateError(path_ + ": cannot save the routing " + name + ": " + reason);
}

std::vector<Salvo> StateStore::salvos() const {
    std::vector<Salvo> list;
    Statement select(db_, "SELECT name, level, COUNT(*) FROM salvos GROUP BY name, level ORDER BY name, level");
    while (select.ok() && sqlite3_step(select.get()) == SQLITE_ROW) {
        const std::string name = reinterpret_cast<const char*>(sqlite3_column_text(select.get(), 0));
        if (list.empty() || list.back().name != name) list.push_back({name, {}, 0});
        list.back().levels.push_back(sqlite3_column_int(select.get(), 1));
        list.back().crosspoints += static_cast<std::size_t>(sqlite3_column_int(select.get(), 2));
    }
    return list;
}

bool StateStore::delete_salvo(const std::string& name) {
    Statement forget(db_, "DELETE FROM salvos WHERE name = ?");
    if (!forget.ok()) throw StateError(path_ + ": cannot delete the routing " + name + ": " + sqlite3_errmsg(db_));
    sqlite3_bind_text(forget.get(), 1, name.c_str(), -1, SQLITE_TRANSIENT);
    if (!forget.run({})) throw StateError(path_ + ": cannot delete the routing " + name + ": " + sqlite3_errmsg(db_));
    return sqlite3_changes(db_) > 0;
}

std::vector<SalvoCrosspoint> StateStore::salvo(const std::string& name) const {
    std::vector<SalvoCrosspoint> crosspoints;
    Statement select(db_, "SELECT level, destination, source FROM salvos WHERE name = ? ORDER BY level, destination");
    if (!select.ok()) return crosspoints;
    sqlite3_bind_text(select.get(), 1, name.c_str(), -1, SQLITE_TRANSIENT);
    while (sqlite3_step(select.get()) == SQLITE_ROW) {
        crosspoints.push_back({sqlite3_column_int(select.get(), 0), sqlite3_column_int(select.get(), 1),
                               sqlite3_column_int(select.get(), 2)});
    }
    return crosspoints;
}

}  // namespace routerd
