// Work handed to the event loop from other threads, with the loop's
// io_context running without locks as the simulator runs it.

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include "sim/loop_inbox.h"

namespace routerd {
namespace {

class LoopInboxTest : public ::testing::Test {
protected:
    // Runs the loop until `done` says so (checked after every piece of work), at most 10 s.
    template <typename Done>
    void run_until(Done done) {
        boost::asio::steady_timer deadline(io_, std::chrono::seconds(10));
        deadline.async_wait([this](const boost::system::error_code& ec) {
            if (!ec) inbox_.close();
        });
        stop_when_ = [this, done, &deadline] {
            if (!done()) return;
            deadline.cancel();
            inbox_.close();
        };
        inbox_.start();
        io_.run();
    }

    boost::asio::io_context io_{BOOST_ASIO_CONCURRENCY_HINT_UNSAFE};
    LoopInbox inbox_{io_};
    std::function<void()> stop_when_;
};

TEST_F(LoopInboxTest, WorkFromOtherThreadsRunsOnTheLoopInTheOrderEachHandedItOver) {
    constexpr int kEach = 20000;
    std::vector<int> seen[2];
    const std::thread::id loop = std::this_thread::get_id();
    bool all_on_loop = true;
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                inbox_.post([&, t, i] {
                    all_on_loop = all_on_loop && std::this_thread::get_id() == loop;
                    seen[t].push_back(i);
                    stop_when_();
                });
            }
        });
    }
    run_until([&] { return seen[0].size() + seen[1].size() == 2 * kEach; });
    for (auto& thread : threads) thread.join();
    EXPECT_TRUE(all_on_loop);
    for (int t = 0; t < 2; ++t) {
        ASSERT_EQ(seen[t].size(), static_cast<std::size_t>(kEach)) << "thread " << t;
        for (int i = 0; i < kEach; ++i) ASSERT_EQ(seen[t][static_cast<std::size_t>(i)], i);
    }
}

TEST_F(LoopInboxTest, WorkHandedOverWhileTheLoopRunsOtherWorkIsNotLost) {
    int ran = 0;
    // The second piece arrives while the first runs: after the wake-up was read.
    inbox_.post([&] {
        ++ran;
        std::thread([&] { inbox_.post([&] { ++ran; stop_when_(); }); }).join();
        stop_when_();
    });
    run_until([&] { return ran == 2; });
    EXPECT_EQ(ran, 2);
}

TEST_F(LoopInboxTest, ClosingLetsTheLoopRunOutAndDropsLaterWork) {
    int ran = 0;
    inbox_.start();
    boost::asio::post(io_, [&] { inbox_.close(); });
    io_.run();  // returns: the closed inbox holds the loop no more
    inbox_.post([&] { ++ran; });
    io_.restart();
    io_.poll();
    EXPECT_EQ(ran, 0);
}

}  // namespace
}  // namespace routerd
