#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "sim/log.h"
#include "sim/router/router.h"
#include "sim/router/state_store.h"

namespace routerd {

// How the state file stands, as the event loop last heard.
struct StateHealth {
    std::size_t unsaved = 0;  // changes that wait in memory for the file to take them
    std::optional<std::chrono::system_clock::time_point> unsaved_since;  // the first commit that failed
    std::string reason;  // why, in SQLite's words
};

// The state file's own thread: it commits the frames the event loop hands
// over, and runs the saved routings' reads and writes, so that no disk wait
// ever holds up the event loop. The hand-over is the one place the two
// threads meet: the changes of every frame told while a commit runs wait
// there and go together in the next commit (group commit). When a commit is
// done, its last frame is settled on the event loop (SwitchQueue::settle),
// and whatever waited for it leaves.
//
// A commit that fails keeps its changes in memory (the store tries them again
// with the next commit, or a second later), and its frames are settled all
// the same: the router goes on serving from memory, and health() says since
// when changes are not saved.
class StateWriter final : public RouterJournal {
public:
    using Settled = std::function<void(std::uint64_t frame)>;
    // Runs work on the event loop; called from the writer's thread.
    using HandBack = std::function<void(std::function<void()> work)>;

    // Takes the store over: from here on only the writer's thread touches it.
    StateWriter(StateStore& store, HandBack to_loop, Settled settled, const Log& log);
    ~StateWriter();
    StateWriter(const StateWriter&) = delete;
    StateWriter& operator=(const StateWriter&) = delete;

    void keep(const std::vector<PublishedChange>& changes, std::uint64_t frame) override;

    // Runs `job` on the writer's thread, after the commits handed over
    // before it, then `done` with its result on the event loop.
    template <typename Result>
    void run(std::function<Result(StateStore&)> job, std::function<void(Result)> done);

    StateHealth health() const { return health_; }

    // Commits what waits, once more if it failed, and stops the thread; the
    // changes that could not be written are counted in health().
    void finish();

private:
    void work();
    void commit(std::unique_lock<std::mutex>& lock);
    void hand_back(std::function<void()> on_loop);
    void heard(std::uint64_t frame, std::size_t unsaved, std::string reason,
               std::optional<std::chrono::system_clock::time_point> since);

    StateStore& store_;
    HandBack hand_back_;
    Settled settled_;
    const Log& log_;
    StateHealth health_;  // the event loop's copy

    // Shared by the two threads, under mutex_.
    std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<PublishedChange> handed_;  // changes of the frames not committed yet
    std::uint64_t handed_frame_ = 0;       // the last frame among them
    std::deque<std::function<void()>> jobs_;
    bool finishing_ = false;

    std::thread thread_;  // last: started once everything above is ready
};

template <typename Result>
void StateWriter::run(std::function<Result(StateStore&)> job, std::function<void(Result)> done) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        jobs_.push_back([this, job = std::move(job), done = std::move(done)]() mutable {
            auto result = std::make_shared<Result>(job(store_));
            hand_back([done = std::move(done), result] { done(std::move(*result)); });
        });
    }
    wake_.notify_one();
}

}  // namespace routerd
