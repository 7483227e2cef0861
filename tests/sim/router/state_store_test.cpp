// The state file on a disk that fills up: a commit that fails is logged, its
// changes are kept in memory and written by the next commit (the next frame's,
// or the retry a second later) once there is room again.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "sim/log.h"
#include "sim/router/router.h"
#include "sim/router/state_store.h"

namespace routerd {
namespace {

namespace fs = std::filesystem;

std::string error_text(const char* step) { return std::string(step) + ": " + std::strerror(errno); }

// A tmpfs of 256 KiB of the test's own, mounted in a mount namespace of this
// process alone: nothing stays mounted, whatever becomes of the test.
class SmallDisk {
public:
    SmallDisk() {
        if (unshare(CLONE_NEWNS) != 0) {
            why_not_ = error_text("unshare(CLONE_NEWNS)");
            return;
        }
        // Mounts made from here on must not reach the namespace we came from.
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            why_not_ = error_text("making / private");
            return;
        }
        std::string pattern = (fs::temp_directory_path() / "routerd-small-disk-XXXXXX").string();
        if (!mkdtemp(pattern.data())) {
            why_not_ = error_text("mkdtemp");
            return;
        }
        directory_ = pattern;
        if (mount("tmpfs", directory_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=256k,mode=0700") != 0) {
            why_not_ = error_text("mounting a tmpfs");
            return;
        }
        mounted_ = true;
    }
    ~SmallDisk() {
        if (mounted_) umount2(directory_.c_str(), MNT_DETACH);
        if (!directory_.empty()) rmdir(directory_.c_str());
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    // Empty when mounted.
    const std::string& why_not() const { return why_not_; }
    std::string path(const std::string& name) const { return directory_ + "/" + name; }

    // Writes a file until the disk is full; false if it never fills.
    bool fill() {
        const int fd = open(path("filler").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd < 0) return false;
        const std::vector<char> block(4096, 'x');
        while (write(fd, block.data(), block.size()) > 0) {
        }
        const bool full = errno == ENOSPC;
        close(fd);
        return full;
    }
    void make_room() { unlink(path("filler").c_str()); }

private:
    std::string directory_;
    std::string why_not_;
    bool mounted_ = false;
};

const std::vector<LevelSpec> kLevels{{0, "video", 16, 16}, {1, "audio", 16, 16}};

PublishedChange crosspoint(int level, int destination, int source) {
    return {PublishedChange::crosspoint, level, destination, source};
}

PublishedChange lock(int level, int destination, int state) {
    return {PublishedChange::lock, level, destination, state};
}

class StateStoreOnAFullDisk : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "mounting a small tmpfs to fill needs root";
        if (!disk_.why_not().empty()) GTEST_SKIP() << "cannot mount a small tmpfs to fill: " << disk_.why_not();
        store_ = std::make_unique<StateStore>(file(), kLevels, false,
                                              [this](const std::string& line) { log_.info(line); });
        Router router(kLevels);
        ASSERT_FALSE(store_->restore_into(router));  // a new file: it stores the router's
        ASSERT_TRUE(disk_.fill());
        testing::internal::CaptureStderr();
        capturing_ = true;
    }
    void TearDown() override {
        store_.reset();
        if (capturing_) testing::internal::GetCapturedStderr();
    }

    std::string file() const { return disk_.path("state.db"); }
    std::string logged() {
        written_ += testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        return written_;
    }
    // What a simulator started on the file would begin with.
    Router reopened() {
        store_.reset();
        Router router(kLevels);
        StateStore store(file(), kLevels, false, [this](const std::string& line) { log_.info(line); });
        EXPECT_TRUE(store.restore_into(router));
        return router;
    }

    SmallDisk disk_;
    Log log_;
    std::unique_ptr<StateStore> store_;
    std::string written_;
    bool capturing_ = false;
};

const std::string kCannotWrite = "; serving from memory and trying again every second";

TEST_F(StateStoreOnAFullDisk, AFailedCommitIsLoggedAndItsChangesKeptInMemory) {
    store_->keep({crosspoint(0, 3, 7), lock(1, 2, 1)});
    EXPECT_EQ(store_->unsaved(), 2u);
    EXPECT_NE(logged().find("cannot write the state file " + file() + ": database or disk is full" + kCannotWrite),
              std::string::npos)
        << written_;
}

TEST_F(StateStoreOnAFullDisk, ChangesPileUpInMemoryAndTheFailureIsLoggedOnce) {
    store_->keep({crosspoint(0, 3, 7)});
    store_->keep({crosspoint(0, 3, 8), crosspoint(1, 15, 15)});
    store_->retry();
    EXPECT_EQ(store_->unsaved(), 2u);  // destination 3 of level 0 once, with its newest source
    const std::string log = logged();
    EXPECT_NE(log.find(kCannotWrite), std::string::npos) << log;
    EXPECT_EQ(log.find(kCannotWrite), log.rfind(kCannotWrite)) << log;
}

TEST_F(StateStoreOnAFullDisk, TheNextFrameWritesEverythingThatWaited) {
    store_->keep({crosspoint(0, 3, 7), lock(1, 2, 1)});
    store_->keep({crosspoint(1, 15, 4)});
    ASSERT_EQ(store_->unsaved(), 3u);
    disk_.make_room();
    store_->keep({crosspoint(0, 0, 9)});
    EXPECT_EQ(store_->unsaved(), 0u);
    EXPECT_NE(logged().find("state file " + file() + " written again"), std::string::npos) << written_;

    const Router router = reopened();
    EXPECT_EQ(router.source_of(0, 3), 7);
    EXPECT_EQ(router.lock_of(1, 2), 1);
    EXPECT_EQ(router.source_of(1, 15), 4);
    EXPECT_EQ(router.source_of(0, 0), 9);
}

TEST_F(StateStoreOnAFullDisk, TheRetryASecondLaterWritesEverythingThatWaited) {
    store_->keep({crosspoint(0, 3, 7), lock(1, 2, 1)});
    disk_.make_room();
    store_->retry();
    EXPECT_EQ(store_->unsaved(), 0u);
    EXPECT_NE(logged().find("state file " + file() + " written again"), std::string::npos) << written_;

    const Router router = reopened();
    EXPECT_EQ(router.source_of(0, 3), 7);
    EXPECT_EQ(router.lock_of(1, 2), 1);
}

TEST_F(StateStoreOnAFullDisk, ClosingTheStoreWritesWhatWaitedOnceThereIsRoom) {
    store_->keep({crosspoint(0, 3, 7)});
    disk_.make_room();

    const Router router = reopened();
    EXPECT_EQ(router.source_of(0, 3), 7);
}

}  // namespace
}  // namespace routerd
