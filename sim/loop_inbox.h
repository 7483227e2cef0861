#pragma once

#include <functional>
#include <mutex>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

namespace routerd {

// Work that other threads (the state file's writer) hand to the event loop.
// The loop's io_context runs without locks, because one thread runs it and
// nothing else may touch it: other threads queue their work here and wake the
// loop through an eventfd, which the loop waits on like any other descriptor.
class LoopInbox {
public:
    // Throws std::system_error when no eventfd can be had.
    explicit LoopInbox(boost::asio::io_context& io);
    LoopInbox(const LoopInbox&) = delete;
    LoopInbox& operator=(const LoopInbox&) = delete;

    // From any thread: `work` runs on the loop, in the order handed over.
    // Once the inbox is closed, work is dropped.
    void post(std::function<void()> work);

    // On the loop: begins taking work; closing lets the loop run out.
    void start();
    void close();

private:
    void wait();
    void take_work();

    boost::asio::posix::stream_descriptor wake_;
    const int wake_fd_;  // written by other threads, read by the loop
    std::mutex mutex_;
    std::vector<std::function<void()>> waiting_;  // under mutex_
    bool closed_ = false;                         // under mutex_
    std::vector<std::function<void()>> running_;  // the loop's own
};

}  // namespace routerd
