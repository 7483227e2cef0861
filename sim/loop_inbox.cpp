#include "sim/loop_inbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace routerd {

namespace {

int new_eventfd() {
    const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "cannot create an eventfd");
    return fd;
}

}  // namespace

LoopInbox::LoopInbox(boost::asio::io_context& io) : wake_(io, new_eventfd()), wake_fd_(wake_.native_handle()) {}

void LoopInbox::post(std::function<void()> work) {
    bool first = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (closed_) return;
        first = waiting_.empty();
        waiting_.push_back(std::move(work));
    }
    // Only the first of a batch wakes the loop: the rest are taken with it.
    if (!first) return;
    const std::uint64_t one = 1;
    // Cannot fail short of the counter's 2^64 - 2; a lost wake-up would be the next one's.
    [[maybe_unused]] const ssize_t written = ::write(wake_fd_, &one, sizeof one);
}

void LoopInbox::start() { wait(); }

void LoopInbox::close() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
        waiting_.clear();
    }
    boost::system::error_code ignored;
    wake_.cancel(ignored);
}

void LoopInbox::wait() {
    wake_.async_wait(boost::asio::posix::stream_descriptor::wait_read, [this](const boost::system::error_code& ec) {
        if (ec) return;
        take_work();
    });
}

void LoopInbox::take_work() {
    // Read before taking the batch: work handed over after the read wakes the loop again.
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t read = ::read(wake_fd_, &count, sizeof count);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (closed_) return;
        running_.swap(waiting_);
    }
    for (auto& work : running_) work();
    running_.clear();
    std::lock_guard<std::mutex> lock(mutex_);
    if (!closed_) wait();  // the work may have closed the inbox
}

}  // namespace routerd
