// The state file's writer thread: frames are committed in order and settled
// on the event loop after their commit, the frames handed over while a commit
// (or a routing's job) runs go together in the next commit, and jobs run after
// the commits handed over before them.

#include <gtest/gtest.h>

#include <boost/asio/post.hpp>

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>

#include "sim/log.h"
#include "sim/router/router.h"
#include "sim/router/state_store.h"
#include "sim/router/state_writer.h"

namespace routerd {
namespace {

namespace fs = std::filesystem;

const std::vector<LevelSpec> kLevels = {{0, "video", 8, 4}};

PublishedChange crosspoint(int destination, int source) {
    return {PublishedChange::crosspoint, 0, destination, source};
}

class StateWriterTest : public testing::Test {
protected:
    StateWriterTest()
        : path_((fs::temp_directory_path() / ("routerd-writer-" + std::to_string(getpid()) + ".db")).string()) {
        remove_files();
        store_ = std::make_unique<StateStore>(path_, kLevels, true, [](const std::string&) {});
        Router router(kLevels);
        store_->restore_into(router);
        writer_ = std::make_unique<StateWriter>(
            *store_, [this](std::function<void()> work) { boost::asio::post(io_, std::move(work)); }, [this](std::uint64_t frame) { settled_.push_back(frame); }, log_);
    }
    ~StateWriterTest() override {
        writer_.reset();
        store_.reset();
        remove_files();
    }
    void remove_files() {
        for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(path_ + suffix);
    }

    // Runs the event loop until `frame` is settled.
    void run_until_settled(std::uint64_t frame) {
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while ((settled_.empty() || settled_.back() < frame) && std::chrono::steady_clock::now() < give_up) {
            io_.restart();
            io_.run_one_for(std::chrono::milliseconds(100));
        }
        ASSERT_FALSE(settled_.empty());
        ASSERT_EQ(settled_.back(), frame);
    }

    // The sources the file holds for destinations 0..3, as a new simulator would read them.
    std::vector<int> on_disk() {
        writer_.reset();
        store_.reset();
        StateStore store(path_, kLevels, false, [](const std::string&) {});
        Router router(kLevels);
        store.restore_into(router);
        std::vector<int> sources;
        for (int destination = 0; destination < 4; ++destination) sources.push_back(router.source_of(0, destination));
        return sources;
    }

    boost::asio::io_context io_;
    Log log_;
    std::string path_;
    std::unique_ptr<StateStore> store_;
    std::unique_ptr<StateWriter> writer_;
    std::vector<std::uint64_t> settled_;
};

TEST_F(StateWriterTest, AFrameIsSettledOnTheEventLoopOnceCommitted) {
    writer_->keep({crosspoint(1, 5)}, 1);
    EXPECT_TRUE(settled_.empty());  // not before the event loop runs
    run_until_settled(1);
    EXPECT_EQ(writer_->health().unsaved, 0u);
    EXPECT_EQ(on_disk(), (std::vector<int>{0, 5, 0, 0}));
}

TEST_F(StateWriterTest, FramesHandedOverWhileTheThreadIsBusyGoInOneCommit) {
    std::promise<void> started, release;
    std::shared_future<void> released = release.get_future().share();
    bool job_done = false;
    writer_->run<int>([&started, released](StateStore&) {
        started.set_value();
        released.wait();
        return 0;
    }, [&](int) { job_done = true; });
    started.get_future().wait();
    for (std::uint64_t frame = 1; frame <= 50; ++frame)
        writer_->keep({crosspoint(static_cast<int>(frame % 4), static_cast<int>(frame % 8))}, frame);
    release.set_value();
    run_until_settled(50);
    EXPECT_EQ(settled_, (std::vector<std::uint64_t>{50}));  // one commit for all fifty frames
    EXPECT_TRUE(job_done);
    // The last value of each destination.
    EXPECT_EQ(on_disk(), (std::vector<int>{48 % 8, 49 % 8, 50 % 8, 47 % 8}));
}

TEST_F(StateWriterTest, AJobRunsAfterTheCommitsHandedOverBeforeIt) {
    writer_->keep({crosspoint(2, 7)}, 1);
    int seen = -1;
    writer_->run<int>([](StateStore& store) {
        Router router(kLevels);
        store.restore_into(router);
        return router.source_of(0, 2);
    }, [&](int source) { seen = source; });
    run_until_settled(1);
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (seen < 0 && std::chrono::steady_clock::now() < give_up) {
        io_.restart();
        io_.run_one_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(seen, 7);
}

TEST_F(StateWriterTest, FinishingCommitsWhatWasHandedOver) {
    writer_->keep({crosspoint(3, 6)}, 1);
    writer_->finish();
    EXPECT_EQ(writer_->health().unsaved, 0u);
    EXPECT_EQ(on_disk(), (std::vector<int>{0, 0, 0, 6}));
}

}  // namespace
}  // namespace routerd
