// Which files the state store takes for its own: its own (marked in the
// header), its own from before the mark, or a new one. Anything else, and a
// file of its own whose contents no router could have, is refused before a
// byte of it is written.

#include <gtest/gtest.h>

#include <sqlite3.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "sim/log.h"
#include "sim/router/router.h"
#include "sim/router/state_store.h"

namespace routerd {
namespace {

namespace fs = std::filesystem;

const std::vector<LevelSpec> kLevels = {{0, "video", 8, 4}, {1, "audio", 8, 4}};

std::string bytes_of(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

// Runs SQL on a file the way another program would.
void write_with_sqlite(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    char* error = nullptr;
    const int result = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error);
    const std::string message = error ? error : "";
    sqlite3_free(error);
    sqlite3_close(db);
    ASSERT_EQ(result, SQLITE_OK) << message;
}

std::uint32_t header_field(const std::string& path, std::size_t offset) {
    const std::string bytes = bytes_of(path);
    if (bytes.size() < offset + 4) return 0;
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data() + offset);
    return std::uint32_t{b[0]} << 24 | std::uint32_t{b[1]} << 16 | std::uint32_t{b[2]} << 8 | b[3];
}
std::uint32_t application_id(const std::string& path) { return header_field(path, 68); }
std::uint32_t user_version(const std::string& path) { return header_field(path, 60); }

class StateFile : public testing::Test {
protected:
    StateFile() : directory_(fs::temp_directory_path() / ("routerd-state-file-" + std::to_string(getpid()))) {
        fs::remove_all(directory_);
        fs::create_directories(directory_);
    }
    ~StateFile() override { fs::remove_all(directory_); }

    std::string path() const { return (directory_ / "state.db").string(); }
    // The message the store refuses the file with, after checking that the
    // file is as it was.
    std::string refusal() {
        const std::string before = bytes_of(path());
        std::string message;
        try {
            StateStore store(path(), kLevels, false, notes());
            ADD_FAILURE() << "the file was accepted";
        } catch (const StateError& e) {
            message = e.what();
        }
        EXPECT_EQ(bytes_of(path()), before) << "the refused file was written";
        return message;
    }
    // A store that has kept one take and one lock, closed again.
    void make_ours() {
        StateStore store(path(), kLevels, false, notes());
        Router router(kLevels);
        store.restore_into(router);
        store.keep({{PublishedChange::crosspoint, 0, 2, 5}, {PublishedChange::lock, 1, 3, 1}});
    }

    StateStore::Notes notes() {
        return [this](const std::string& line) { log_.info(line); };
    }

    fs::path directory_;
    Log log_;
};

TEST_F(StateFile, ANewFileIsMarkedAsOurs) {
    make_ours();
    EXPECT_EQ(application_id(path()), 0x4C524453u);  // "LRDS"
    EXPECT_EQ(user_version(path()), 1u);
}

TEST_F(StateFile, OurOwnFileIsTakenAgainWithWhatItHolds) {
    make_ours();
    StateStore store(path(), kLevels, false, notes());
    Router router(kLevels);
    EXPECT_TRUE(store.restore_into(router));
    EXPECT_EQ(router.source_of(0, 2), 5);
    EXPECT_EQ(router.lock_of(1, 3), 1);
}

TEST_F(StateFile, AnotherProgramsDatabaseIsRefusedUntouched) {
    write_with_sqlite(path(), "CREATE TABLE notes (text TEXT); INSERT INTO notes VALUES ('keep me');"
                              "CREATE TABLE levels (number INTEGER);");
    EXPECT_EQ(refusal(), path() + ": not a leitch-routerd state file: it holds tables of another program (notes); "
                                  "give leitch-routerd a file of its own (a new name is created)");
}

TEST_F(StateFile, AnotherProgramsDatabaseInWalModeIsRefusedUntouched) {
    write_with_sqlite(path(), "PRAGMA journal_mode = WAL; CREATE TABLE t (x); INSERT INTO t VALUES (1);");
    EXPECT_EQ(refusal(), path() + ": not a leitch-routerd state file: it holds tables of another program (t); "
                                  "give leitch-routerd a file of its own (a new name is created)");
}

TEST_F(StateFile, ADatabaseMarkedByAnotherApplicationIsRefusedUntouched) {
    write_with_sqlite(path(), "PRAGMA application_id = 1234; CREATE TABLE levels (number INTEGER);");
    EXPECT_EQ(refusal(), path() + ": not a leitch-routerd state file: its application_id is 0x000004d2; "
                                  "give leitch-routerd a file of its own (a new name is created)");
}

TEST_F(StateFile, AFileOfALaterVersionIsRefusedUntouched) {
    make_ours();
    write_with_sqlite(path(), "PRAGMA user_version = 2");
    EXPECT_EQ(refusal(), path() + ": not a leitch-routerd state file: it was written by another version of "
                                  "leitch-routerd (user_version 2); give leitch-routerd a file of its own (a new "
                                  "name is created)");
}

TEST_F(StateFile, OurFileFromBeforeTheMarkIsTakenAndMarked) {
    write_with_sqlite(path(),
                      "PRAGMA journal_mode = WAL; PRAGMA user_version = 1;"
                      "CREATE TABLE levels (number INTEGER PRIMARY KEY, sources INTEGER NOT NULL,"
                      " destinations INTEGER NOT NULL);"
                      "CREATE TABLE crosspoints (level INTEGER NOT NULL, destination INTEGER NOT NULL,"
                      " source INTEGER NOT NULL, PRIMARY KEY (level, destination)) WITHOUT ROWID;"
                      "CREATE TABLE locks (level INTEGER NOT NULL, destination INTEGER NOT NULL,"
                      " state INTEGER NOT NULL, PRIMARY KEY (level, destination)) WITHOUT ROWID;"
                      "INSERT INTO levels VALUES (0, 8, 4), (1, 8, 4); INSERT INTO crosspoints VALUES (0, 1, 7);");
    {
        StateStore store(path(), kLevels, false, notes());
        Router router(kLevels);
        EXPECT_TRUE(store.restore_into(router));
        EXPECT_EQ(router.source_of(0, 1), 7);
    }
    EXPECT_EQ(application_id(path()), 0x4C524453u);
}

TEST_F(StateFile, ALockStateNoClientCanSetIsRefusedUntouched) {
    for (const int state : {99, -5}) {
        make_ours();
        write_with_sqlite(path(),
                          "UPDATE locks SET state = " + std::to_string(state) + " WHERE level = 1 AND destination = 3");
        EXPECT_EQ(refusal(), path() + ": the file holds level 1 destination 3 lock state " + std::to_string(state) +
                                 ", which this router cannot have (--fresh-state starts afresh from the "
                                 "configuration)");
        fs::remove(path());
    }
}

TEST_F(StateFile, ACrosspointOutsideTheRouterIsRefusedUntouched) {
    make_ours();
    write_with_sqlite(path(), "UPDATE crosspoints SET source = 8 WHERE level = 0 AND destination = 2");
    EXPECT_EQ(refusal(), path() + ": the file holds level 0 destination 2 source 8, which this router cannot have "
                                  "(--fresh-state starts afresh from the configuration)");
}

TEST_F(StateFile, FreshStateTakesATamperedFileOfOursAfresh) {
    make_ours();
    write_with_sqlite(path(), "UPDATE locks SET state = 99");
    StateStore store(path(), kLevels, true, notes());
    Router router(kLevels);
    EXPECT_FALSE(store.restore_into(router));
    EXPECT_EQ(router.lock_of(1, 3), 0);
}

}  // namespace
}  // namespace routerd

namespace routerd {
namespace {

std::vector<SalvoCrosspoint> routing(std::size_t crosspoints) {
    std::vector<SalvoCrosspoint> list;
    for (std::size_t i = 0; i < crosspoints; ++i) list.push_back({static_cast<int>(i / 4), static_cast<int>(i % 4), 1});
    return list;
}

std::string refusal_of(StateStore& store, const std::string& name, std::size_t crosspoints, bool& too_many) {
    try {
        store.save_salvo(name, routing(crosspoints));
    } catch (const SalvoRefused& e) {
        too_many = e.too_many;
        return e.what();
    }
    return "saved";
}

TEST_F(StateFile, RoutingsPastTheirNumberAreRefusedAndOneSavedAgainIsReplaced) {
    StateStore store(path(), kLevels, false, notes(), {2, 100});
    store.save_salvo("a", routing(4));
    store.save_salvo("b", routing(4));
    bool too_many = false;
    EXPECT_EQ(refusal_of(store, "c", 4, too_many),
              "already 2 saved routings, the most the state file keeps (max_salvos): delete one, or save under "
              "the name of one");
    EXPECT_TRUE(too_many);
    EXPECT_EQ(refusal_of(store, "b", 8, too_many), "saved");
    EXPECT_TRUE(store.delete_salvo("a"));
    EXPECT_EQ(refusal_of(store, "c", 4, too_many), "saved");
    EXPECT_EQ(store.salvo("b").size(), 8u);
}

TEST_F(StateFile, RoutingsPastTheirCrosspointBoundAreRefused) {
    StateStore store(path(), kLevels, false, notes(), {1000, 10});
    store.save_salvo("a", routing(6));
    bool too_many = true;
    EXPECT_EQ(refusal_of(store, "b", 5, too_many),
              "the saved routings would hold 11 crosspoints, more than the state file keeps (10, "
              "max_salvo_crosspoints): delete one");
    EXPECT_FALSE(too_many);
    EXPECT_EQ(refusal_of(store, "b", 4, too_many), "saved");
    // Replacing one counts its new size, not both.
    EXPECT_EQ(refusal_of(store, "a", 6, too_many), "saved");
    EXPECT_EQ(store.salvos().size(), 2u);
}

TEST_F(StateFile, TheBoundsCountTheRoutingsAlreadyInTheFile) {
    {
        StateStore store(path(), kLevels, false, notes(), {2, 100});
        store.save_salvo("a", routing(4));
        store.save_salvo("b", routing(4));
    }
    StateStore store(path(), kLevels, false, notes(), {2, 100});
    bool too_many = false;
    EXPECT_NE(refusal_of(store, "c", 4, too_many), "saved");
    EXPECT_TRUE(too_many);
}

}  // namespace
}  // namespace routerd
