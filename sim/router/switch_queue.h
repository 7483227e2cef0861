#pragma once

#include <cstdint>
#include <functional>
#include <unordered_map>
#include <utility>
#include <vector>

#include <boost/asio/any_io_executor.hpp>

#include "sim/log.h"
#include "sim/router/backend.h"
#include "sim/router/router.h"

namespace routerd {

// Told of every change asked for, applied or refused, in the order asked:
// what the web view's activity log shows.
class SwitchWatcher {
public:
    enum class Kind { take, lock };
    // `value` is the source of a take, the state of a lock.
    virtual void switch_asked(int client, Kind kind, int level, int destination, int value, Refusal refusal) = 0;

protected:
    ~SwitchWatcher() = default;
};

// The client number of changes made from the web view.
constexpr int kWebClient = 0;

// What became of a change that waited for a real router.
using Decided = std::function<void(Refusal)>;

// The clients' way to the router. A real router switches on the frame after
// the command: a change asked for while handling one event goes to the backend
// at once, in the order asked (every client's changes go through here, so the
// order holds across clients), and is told to the observers in an event of its
// own, after the current one, together with every other change of that frame.
// The simulated backend applies a change at once, so what take() and lock()
// return is final. A real router's backend may answer Refusal::pending: the
// change is told once the router has confirmed it, and whoever asked learns
// the outcome through a Decided.
//
// With a journal (the state file), frames are numbered and nothing that shows
// a change may reach anyone before the change is kept: whatever is written for
// a client, a page or an API caller is tagged with the frame it may show
// (tag()), and leaves once that frame is settled. The journal keeps frames off
// the event loop and settles them in order; a frame it cannot write is settled
// too (served from memory, which the journal reports), so that a full disk
// does not stop the router. Without a journal every tag is settled.
class SwitchQueue final : private BackendListener {
public:
    // `frame_done` runs at the end of each frame, after it is told, in the same event.
    SwitchQueue(boost::asio::any_io_executor executor, Router& router, RouterBackend& backend, RefusalLog& refusals,
                std::function<void()> frame_done);

    // Refusal::pending: the router decides later, and `then` (if given) is
    // called with its decision.
    Refusal take(int client, int level, int source, int destination) {
        return ask({SwitchRequest::take, client, level, destination, source, 0}, nullptr);
    }
    Refusal take(int client, int level, int source, int destination, Decided then) {
        return ask({SwitchRequest::take, client, level, destination, source, 0}, &then);
    }
    Refusal lock(int client, int level, int destination, int state) {
        return ask({SwitchRequest::lock, client, level, destination, state, 0}, nullptr);
    }
    Refusal lock(int client, int level, int destination, int state, Decided then) {
        return ask({SwitchRequest::lock, client, level, destination, state, 0}, &then);
    }

    void watch(SwitchWatcher* watcher) { watcher_ = watcher; }

    void set_journal(RouterJournal* journal) { journal_ = journal; }
    // The frame whose changes output written now may show: the one gathering
    // changes, or else the last one told. 0 without a journal.
    std::uint64_t tag() const {
        if (!journal_) return 0;
        return router_.changed() ? told_ + 1 : told_;
    }
    // A change waits for the end of the frame, which is posted.
    bool frame_pending() const { return frame_pending_; }
    bool settled(std::uint64_t frame) const { return frame <= settled_; }
    std::uint64_t settled_frame() const { return settled_; }
    // Runs `then` once `frame` is settled: now, if it is.
    void when_settled(std::uint64_t frame, std::function<void()> then);
    // From the journal: every frame up to `frame` is kept (or given up on).
    void settle(std::uint64_t frame);

private:
    Refusal ask(SwitchRequest request, Decided* then);
    void tell(const SwitchRequest& request, Refusal refusal);
    void decided(const SwitchRequest& request, Refusal refusal) override;
    void model_changed() override { end_frame_soon(); }
    void end_frame_soon();
    void end_frame();

    boost::asio::any_io_executor executor_;
    Router& router_;
    RouterBackend& backend_;
    std::uint64_t tickets_ = 0;
    std::unordered_map<std::uint64_t, Decided> waiting_for_router_;
    RefusalLog& refusals_;
    std::function<void()> frame_done_;
    bool frame_pending_ = false;
    SwitchWatcher* watcher_ = nullptr;
    RouterJournal* journal_ = nullptr;
    std::uint64_t told_ = 0;     // frames told so far
    std::uint64_t settled_ = 0;  // frames kept by the journal so far
    std::vector<std::pair<std::uint64_t, std::function<void()>>> waiting_;  // for their frame to settle
    std::vector<std::pair<std::uint64_t, std::function<void()>>> running_;
};

}  // namespace routerd
