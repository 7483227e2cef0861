#pragma once

#include <functional>
#include <vector>

#include <boost/asio/any_io_executor.hpp>

#include "sim/log.h"
#include "sim/router.h"

namespace routerd {

// Router changes waiting for the next frame. A real router switches on the
// frame after the command, so a change requested while handling one event is
// applied in an event of its own, after it, in the order requested. Every
// client's changes go through the one queue, so the order holds across clients.
class SwitchQueue {
public:
    // `frame_done` runs after each batch of changes, in the same event.
    SwitchQueue(boost::asio::any_io_executor executor, Router& router, const Log& log,
                std::function<void()> frame_done)
        : executor_(std::move(executor)), router_(router), log_(log), frame_done_(std::move(frame_done)) {}

    void take(int client, int level, int source, int destination) {
        push({Change::crosspoint, client, level, destination, source});
    }
    void lock(int client, int level, int destination, int state) {
        push({Change::lock, client, level, destination, state});
    }

private:
    struct Change {
        enum Kind { crosspoint, lock } kind;
        int client;
        int level;
        int destination;
        int value;  // the source of a crosspoint, the state of a lock
    };

    void push(const Change& change);
    void apply_all();
    void apply(const Change& change);

    boost::asio::any_io_executor executor_;
    Router& router_;
    const Log& log_;
    std::function<void()> frame_done_;
    std::vector<Change> waiting_;
    std::vector<Change> applying_;
};

}  // namespace routerd
