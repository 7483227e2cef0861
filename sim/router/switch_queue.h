#pragma once

#include <functional>

#include <boost/asio/any_io_executor.hpp>

#include "sim/log.h"
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

// The clients' way to the router. A real router switches on the frame after
// the command: a change asked for while handling one event takes effect in the
// router at once, in the order asked (every client's changes go through here,
// so the order holds across clients), and is told to the observers in an event
// of its own, after the current one, together with every other change of that
// frame.
class SwitchQueue {
public:
    // `frame_done` runs after each frame is told, in the same event.
    SwitchQueue(boost::asio::any_io_executor executor, Router& router, RefusalLog& refusals,
                std::function<void()> frame_done)
        : executor_(std::move(executor)), router_(router), refusals_(refusals), frame_done_(std::move(frame_done)) {}

    // Applied at once: what is returned is final.
    Refusal take(int client, int level, int source, int destination);
    Refusal lock(int client, int level, int destination, int state);

    void watch(SwitchWatcher* watcher) { watcher_ = watcher; }

private:
    void end_frame_soon();
    void end_frame();

    boost::asio::any_io_executor executor_;
    Router& router_;
    RefusalLog& refusals_;
    std::function<void()> frame_done_;
    bool frame_pending_ = false;
    SwitchWatcher* watcher_ = nullptr;
};

}  // namespace routerd
