#include "sim/router/state_store.h"

#include <sqlite3.h>
#include <sys/statvfs.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <set>

namespace routerd {

namespace {

// Our files say so in their header (SQLite's application_id, "LRDS"), with
// the version of their tables in user_version.
constexpr std::uint32_t kApplicationId = 0x4C524453;
constexpr std::uint32_t kSchemaVersion = 1;
const std::set<std::string> kTables = {"crosspoints", "levels", "locks", "salvos"};

// What a file's database header says, read from the file itself: looking
// through SQLite could already write (a journal rolled back, a mode set).
struct Header {
    bool database = false;  // SQLite's header is there
    std::uint32_t application_id = 0;
    std::uint32_t user_version = 0;
};

std::uint32_t big_endian(const unsigned char* bytes) {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 | std::uint32_t{bytes[2]} << 8 | bytes[3];
}

Header read_header(const std::string& path) {
    Header header;
    unsigned char bytes[100];
    std::ifstream in(path, std::ios::binary);
    if (!in.read(reinterpret_cast<char*>(bytes), sizeof bytes)) return header;
    header.database = std::string(reinterpret_cast<const char*>(bytes), 16) == std::string("SQLite format 3", 16);
    header.user_version = big_endian(bytes + 60);
    header.application_id = big_endian(bytes + 68);
    return header;
}

// What a saved routing takes on disk, at most: its crosspoints' rows with the
// name, in pages not quite full (about 15 bytes a row in practice), and the
// pages above them. And the room kept spare on the disk when routings are saved.
constexpr std::uint64_t kBytesPerSavedCrosspoint = 32;
constexpr std::uint64_t kBytesPerSavedRouting = 8 * 1024;
constexpr std::uint64_t kSpareBytes = 128 * 1024;

std::string hex(std::uint32_t number) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(number));
    return text;
}

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
    Transaction(Statement& begin, Statement& commit, Statement& rollback)
        : commit_(commit), rollback_(rollback), begun_(begin.run({})) {}
    ~Transaction() {
        if (!committed_) rollback_.run({});
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    bool begun() const { return begun_; }
    bool commit() {
        committed_ = commit_.run({});
        return committed_;
    }

private:
    Statement& commit_;
    Statement& rollback_;
    bool begun_;
    bool committed_ = false;
};

// `crosspoints` under `name`, in place of what that name held.
bool write_salvo(sqlite3* db, const std::string& name, const std::vector<SalvoCrosspoint>& crosspoints) {
    Statement forget(db, "DELETE FROM salvos WHERE name = ?");
    if (!forget.ok()) return false;
    sqlite3_bind_text(forget.get(), 1, name.c_str(), -1, SQLITE_TRANSIENT);
    if (!forget.run({})) return false;
    Statement insert(db, "INSERT INTO salvos VALUES (?, ?, ?, ?)");
    if (!insert.ok()) return false;
    for (const SalvoCrosspoint& c : crosspoints) {
        sqlite3_bind_text(insert.get(), 1, name.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_int(insert.get(), 2, c.level);
        sqlite3_bind_int(insert.get(), 3, c.destination);
        sqlite3_bind_int(insert.get(), 4, c.source);
        const bool inserted = sqlite3_step(insert.get()) == SQLITE_DONE;
        sqlite3_reset(insert.get());
        if (!inserted) return false;
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

// The statements of every commit, prepared once: parsing them again for each
// commit cost more than all of its writes.
struct StateStore::Prepared {
    explicit Prepared(sqlite3* db)
        : begin(db, "BEGIN"),
          commit(db, "COMMIT"),
          rollback(db, "ROLLBACK"),
          crosspoint(db, "INSERT OR REPLACE INTO crosspoints VALUES (?, ?, ?)"),
          lock(db, "INSERT OR REPLACE INTO locks VALUES (?, ?, ?)") {}
    bool ok() const { return begin.ok() && commit.ok() && rollback.ok() && crosspoint.ok() && lock.ok(); }

    Statement begin, commit, rollback, crosspoint, lock;
};

std::vector<SalvoCrosspoint> routing_of(const Router& router, const LevelSpec* only) {
    std::vector<SalvoCrosspoint> crosspoints;
    for (const LevelSpec& level : router.levels()) {
        if (only && only->number != level.number) continue;
        for (int destination = 0; destination < level.destinations; ++destination)
            crosspoints.push_back({level.number, destination, router.source_of(level.number, destination)});
    }
    return crosspoints;
}

StateStore::StateStore(const std::string& path, const std::vector<LevelSpec>& levels, bool fresh, Notes notes,
                       SalvoLimits limits)
    : path_(path), notes_(std::move(notes)), limits_(limits) {
    const auto fail = [&](const std::string& what) {
        const std::string message = path + ": " + what + (db_ ? std::string(": ") + sqlite3_errmsg(db_) : "");
        sqlite3_close_v2(db_);
        db_ = nullptr;
        throw StateError(message);
    };
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK)
        fail("cannot open the state file");
    // Another process holds the file's lock.
    const auto fail_if_in_use = [&](int code) {
        if (code == SQLITE_BUSY || code == SQLITE_LOCKED) fail("the state file is in use by another process");
    };
    const auto run = [&](const char* sql, const char* what) {
        if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK) return;
        fail_if_in_use(sqlite3_errcode(db_));
        fail(what);
    };
    const Header header = read_header(path);
    if (header.database && header.application_id != kApplicationId && header.application_id != 0)
        fail_foreign("its application_id is " + hex(header.application_id));
    if (header.application_id == kApplicationId && header.user_version != kSchemaVersion)
        fail_foreign("it was written by another version of leitch-routerd (user_version " +
                     std::to_string(header.user_version) + ")");
    // One process at a time: the lock is taken by the first write and kept
    // until the file is closed.
    run("PRAGMA locking_mode = EXCLUSIVE", "cannot use the state file");
    {
        Statement check(db_, "PRAGMA quick_check");
        if (!check.ok()) {
            fail_if_in_use(sqlite3_errcode(db_));
            fail("cannot read the state file");
        }
        const int step = sqlite3_step(check.get());
        fail_if_in_use(step);
        if (step != SQLITE_ROW ||
            std::string(reinterpret_cast<const char*>(sqlite3_column_text(check.get(), 0))) != "ok")
            fail("the state file is damaged (quick_check)");
    }
    // Nothing is written before the file is known to be ours, its levels to
    // match and its contents to fit them.
    if (header.application_id == 0) check_tables();
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
    if (!fresh && stored != "none") check_contents();
    // Every commit is on the disk before the clients hear of its changes.
    run("PRAGMA journal_mode = WAL", "cannot use the state file");
    run("PRAGMA synchronous = FULL", "cannot use the state file");
    run("BEGIN IMMEDIATE", "cannot write the state file");
    run(kSchema, "cannot write the state file");
    const std::string mark = "PRAGMA application_id = " + std::to_string(kApplicationId) +
                             "; PRAGMA user_version = " + std::to_string(kSchemaVersion);
    run(mark.c_str(), "cannot write the state file");
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

void StateStore::fail_foreign(const std::string& why) {
    sqlite3_close_v2(db_);
    db_ = nullptr;
    throw StateError(path_ + ": not a leitch-routerd state file: " + why +
                     "; give leitch-routerd a file of its own (a new name is created)");
}

// A file without our mark is one of ours from before it, or new (no tables),
// when every table in it is one of ours.
void StateStore::check_tables() {
    std::string others;
    Statement select(db_, "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name");
    while (select.ok() && sqlite3_step(select.get()) == SQLITE_ROW) {
        const std::string name = reinterpret_cast<const char*>(sqlite3_column_text(select.get(), 0));
        if (kTables.count(name) == 0) others += (others.empty() ? "" : ", ") + name;
    }
    if (!others.empty()) fail_foreign("it holds tables of another program (" + others + ")");
}

// What was written by hand, or by something else, is refused rather than
// served: a crosspoint or lock outside the router, or a lock state no client
// can set (0 free, 1 and 2 locked).
void StateStore::check_contents() {
    const auto refuse_first = [this](const char* sql, const char* what) {
        Statement select(db_, sql);
        if (!select.ok() || sqlite3_step(select.get()) != SQLITE_ROW) return;
        const std::string row = "level " + std::to_string(sqlite3_column_int64(select.get(), 0)) + " destination " +
                                std::to_string(sqlite3_column_int64(select.get(), 1)) + " " + what + " " +
                                std::to_string(sqlite3_column_int64(select.get(), 2));
        sqlite3_close_v2(db_);
        db_ = nullptr;
        throw StateError(path_ + ": the file holds " + row +
                         ", which this router cannot have (--fresh-state starts afresh from the configuration)");
    };
    refuse_first(
        "SELECT c.level, c.destination, c.source FROM crosspoints c LEFT JOIN levels l ON l.number = c.level"
        " WHERE l.number IS NULL OR typeof(c.source) != 'integer' OR typeof(c.destination) != 'integer'"
        " OR c.destination < 0 OR c.destination >= l.destinations OR c.source < 0 OR c.source >= l.sources LIMIT 1",
        "source");
    refuse_first(
        "SELECT k.level, k.destination, k.state FROM locks k LEFT JOIN levels l ON l.number = k.level"
        " WHERE l.number IS NULL OR typeof(k.state) != 'integer' OR typeof(k.destination) != 'integer'"
        " OR k.destination < 0 OR k.destination >= l.destinations OR k.state < 0 OR k.state > 2 LIMIT 1",
        "lock state");
}

StateStore::~StateStore() {
    retry();
    prepared_.reset();
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
    if (!commit_unsaved()) throw StateError(path_ + ": cannot write the state file: " + failure_);
}

void StateStore::keep(const std::vector<PublishedChange>& changes) {
    for (const PublishedChange& change : changes) unsaved_[{change.kind, change.level, change.destination}] = change.value;
    commit_unsaved();
}

void StateStore::retry() {
    if (!unsaved_.empty()) commit_unsaved();
}

StateStore::Prepared* StateStore::prepared() {
    if (!prepared_) {
        prepared_ = std::make_unique<Prepared>(db_);
        if (!prepared_->ok()) prepared_.reset();  // tried again with the next commit
    }
    return prepared_.get();
}

// Runs `write` in a transaction of its own and commits it. On failure
// `reason` is SQLite's message, read before the rollback replaces it.
bool StateStore::commit_transaction(const std::function<bool()>& write, std::string& reason) {
    Prepared* statements = prepared();
    if (!statements) {
        reason = sqlite3_errmsg(db_);
        return false;
    }
    Transaction transaction(statements->begin, statements->commit, statements->rollback);
    if (transaction.begun() && write() && transaction.commit()) return true;
    reason = sqlite3_errmsg(db_);
    return false;
}

bool StateStore::write_unsaved() {
    Prepared& statements = *prepared_;
    for (const auto& [key, value] : unsaved_) {
        const auto& [kind, level, destination] = key;
        Statement& save = kind == PublishedChange::crosspoint ? statements.crosspoint : statements.lock;
        if (!save.run({level, destination, value})) return false;
    }
    return true;
}

bool StateStore::commit_unsaved() {
    std::string reason;
    if (commit_transaction([this] { return write_unsaved(); }, reason)) {
        if (!failure_.empty() && notes_) notes_("state file " + path_ + " written again");
        failure_.clear();
        failing_since_.reset();
        unsaved_.clear();
        return true;
    }
    fail_commit(reason);
    return false;
}

void StateStore::fail_commit(const std::string& reason) {
    if (failure_.empty()) {
        failing_since_ = std::chrono::system_clock::now();
        if (notes_)
            notes_("cannot write the state file " + path_ + ": " + reason +
                   "; serving from memory and trying again every second");
    }
    failure_ = reason.empty() ? "unknown error" : reason;
}

std::map<std::string, std::size_t>& StateStore::salvo_sizes() {
    if (salvo_sizes_) return *salvo_sizes_;
    salvo_sizes_.emplace();
    Statement select(db_, "SELECT name, COUNT(*) FROM salvos GROUP BY name");
    while (select.ok() && sqlite3_step(select.get()) == SQLITE_ROW) {
        (*salvo_sizes_)[reinterpret_cast<const char*>(sqlite3_column_text(select.get(), 0))] =
            static_cast<std::size_t>(sqlite3_column_int64(select.get(), 1));
    }
    return *salvo_sizes_;
}

// Bytes the disk has free, and bytes of free pages inside the file.
StateStore::Room StateStore::room() const {
    Room room;
    struct statvfs disk {};
    if (statvfs(path_.c_str(), &disk) == 0) room.disk = std::uint64_t{disk.f_bavail} * disk.f_frsize;
    Statement free_pages(db_, "PRAGMA freelist_count");
    Statement page_size(db_, "PRAGMA page_size");
    if (free_pages.ok() && page_size.ok() && sqlite3_step(free_pages.get()) == SQLITE_ROW &&
        sqlite3_step(page_size.get()) == SQLITE_ROW)
        room.in_file = std::uint64_t(sqlite3_column_int64(free_pages.get(), 0)) *
                       std::uint64_t(sqlite3_column_int64(page_size.get(), 0));
    return room;
}

void StateStore::save_salvo(const std::string& name, const std::vector<SalvoCrosspoint>& crosspoints) {
    // A routing that commits but cannot be moved from the log into the
    // database, for want of room to grow it, would stop every commit after
    // it. So a routing that makes the file grow is saved only with room on
    // the disk for it twice (the log, then the database) and some to spare,
    // which keeps the crosspoints' commits going whatever routings are
    // saved. One that fits in pages freed by deleted routings needs no more.
    const Room free = room();
    const std::uint64_t size = crosspoints.size() * kBytesPerSavedCrosspoint + kBytesPerSavedRouting;
    const std::uint64_t growth = size > free.in_file ? size - free.in_file : 0;
    if (growth > 0 && free.disk < 2 * growth + kSpareBytes)
        throw StateFull(path_ + ": cannot save the routing " + name + ": not enough room on the disk (" +
                        std::to_string((2 * growth + kSpareBytes) / 1024) + " KiB needed with what is kept spare, " +
                        std::to_string(free.disk / 1024) + " KiB free)");
    std::map<std::string, std::size_t>& sizes = salvo_sizes();
    const auto existing = sizes.find(name);
    if (existing == sizes.end() && sizes.size() >= limits_.max_salvos) {
        throw SalvoRefused("already " + std::to_string(sizes.size()) + " saved routings, the most the state file keeps"
                           " (max_salvos): delete one, or save under the name of one",
                           true);
    }
    std::size_t held = 0;
    for (const auto& [other, size] : sizes) held += other == name ? 0 : size;
    if (held + crosspoints.size() > limits_.max_crosspoints) {
        throw SalvoRefused("the saved routings would hold " + std::to_string(held + crosspoints.size()) +
                               " crosspoints, more than the state file keeps (" +
                               std::to_string(limits_.max_crosspoints) + ", max_salvo_crosspoints): delete one",
                           false);
    }
    std::string reason;
    if (!commit_transaction([&] { return write_salvo(db_, name, crosspoints); }, reason)) {
        checkpoint();
        const std::string message = path_ + ": cannot save the routing " + name + ": " + reason;
        if (reason.find("full") != std::string::npos) throw StateFull(message);
        throw StateError(message);
    }
    sizes[name] = crosspoints.size();
    checkpoint();
}

// Routings are the only writes that make the file grow. Moving them from the
// log into the database at once keeps the log small, and a log that has been
// moved whole is written again from its start: on a disk that a routing has
// filled, the crosspoints are still committed, and a routing can still be
// deleted, in the log's own space. Pages a deleted routing freed are taken by
// the next one saved.
void StateStore::checkpoint() {
    sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
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
    const bool deleted = sqlite3_changes(db_) > 0;
    salvo_sizes().erase(name);
    checkpoint();
    return deleted;
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
