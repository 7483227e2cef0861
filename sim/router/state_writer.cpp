#include "sim/router/state_writer.h"

namespace routerd {

namespace {

// A commit that failed is tried again this long after, if no frame comes first.
constexpr std::chrono::seconds kRetryInterval{1};

}  // namespace

StateWriter::StateWriter(StateStore& store, HandBack to_loop, Settled settled, const Log& log)
    : store_(store), hand_back_(std::move(to_loop)), settled_(std::move(settled)), log_(log) {
    store_.set_notes([this](const std::string& line) { hand_back([this, line] { log_.info(line); }); });
    thread_ = std::thread([this] { work(); });
}

StateWriter::~StateWriter() { finish(); }

void StateWriter::keep(const std::vector<PublishedChange>& changes, std::uint64_t frame) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        handed_.insert(handed_.end(), changes.begin(), changes.end());
        handed_frame_ = frame;
    }
    wake_.notify_one();
}

void StateWriter::finish() {
    if (!thread_.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        finishing_ = true;
    }
    wake_.notify_one();
    thread_.join();
    // The loop may not run again: its copy is brought up to date here.
    health_.unsaved = store_.unsaved();
    if (health_.unsaved == 0) health_ = {};
}

void StateWriter::hand_back(std::function<void()> on_loop) { hand_back_(std::move(on_loop)); }

void StateWriter::work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        const bool retrying = store_.unsaved() > 0;
        const auto ready = [this] { return finishing_ || !handed_.empty() || !jobs_.empty(); };
        if (retrying) {
            if (!wake_.wait_for(lock, kRetryInterval, ready)) {
                commit(lock);  // the retry a second later
                continue;
            }
        } else {
            wake_.wait(lock, ready);
        }
        // Commits go first: a routing saved, read or deleted waits behind no more than one.
        if (!handed_.empty()) {
            commit(lock);
            continue;
        }
        if (!jobs_.empty()) {
            std::function<void()> job = std::move(jobs_.front());
            jobs_.pop_front();
            lock.unlock();
            job();
            lock.lock();
            continue;
        }
        if (finishing_) break;
    }
    lock.unlock();
    // Once more on the way out, for what failed before.
    if (store_.unsaved() > 0) store_.retry();
}

// Everything handed over so far goes in one transaction.
void StateWriter::commit(std::unique_lock<std::mutex>& lock) {
    std::vector<PublishedChange> changes;
    changes.swap(handed_);
    const std::uint64_t frame = handed_frame_;
    lock.unlock();
    if (changes.empty()) {
        store_.retry();
    } else {
        store_.keep(changes);
    }
    const std::size_t unsaved = store_.unsaved();
    hand_back([this, frame, unsaved, reason = store_.failure(), since = store_.failing_since()]() mutable {
        heard(frame, unsaved, std::move(reason), since);
    });
    lock.lock();
}

void StateWriter::heard(std::uint64_t frame, std::size_t unsaved, std::string reason,
                        std::optional<std::chrono::system_clock::time_point> since) {
    health_ = {unsaved, since, std::move(reason)};
    if (unsaved == 0) health_ = {};
    if (frame > 0) settled_(frame);
}

}  // namespace routerd
