#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/asio/io_context.hpp>

#include "sim/backends/simulated_backend.h"
#include "sim/log.h"
#include "sim/router/router.h"
#include "sim/router/switch_queue.h"

namespace routerd {
namespace {

// A router that decides later: every take is held until the test decides it,
// as a real router's status or refusal would.
class LaterBackend final : public RouterBackend {
public:
    explicit LaterBackend(Router& router) : router_(router) {}
    void listen(BackendListener& listener) override { listener_ = &listener; }
    Refusal take(const SwitchRequest& request) override {
        held.push_back(request);
        return Refusal::pending;
    }
    Refusal lock(const SwitchRequest& request) override {
        return router_.lock(request.level, request.destination, request.value);
    }
    void frame_ended() override { ++frames_ended; }

    // The router switched (or refused) the held take `i`.
    void decide(std::size_t i, Refusal refusal) {
        const SwitchRequest request = held[i];
        if (refusal == Refusal::none) router_.set_crosspoint(request.level, request.value, request.destination);
        listener_->decided(request, refusal);
        listener_->model_changed();
    }

    std::vector<SwitchRequest> held;
    int frames_ended = 0;

private:
    Router& router_;
    BackendListener* listener_ = nullptr;
};

struct Asked {
    int client;
    SwitchWatcher::Kind kind;
    int level, destination, value;
    Refusal refusal;
    bool operator==(const Asked& o) const {
        return client == o.client && kind == o.kind && level == o.level && destination == o.destination &&
               value == o.value && refusal == o.refusal;
    }
};

class Watched : public SwitchWatcher, public RouterObserver {
public:
    void switch_asked(int client, Kind kind, int level, int destination, int value, Refusal refusal) override {
        asked.push_back({client, kind, level, destination, value, refusal});
    }
    void crosspoint_changed(int level, int source, int destination) override {
        told.push_back(std::to_string(level) + "/" + std::to_string(destination) + "," + std::to_string(source));
    }
    void lock_changed(int, int, int) override {}

    std::vector<Asked> asked;
    std::vector<std::string> told;
};

class SwitchQueueWithALaterRouter : public ::testing::Test {
protected:
    SwitchQueueWithALaterRouter() {
        switches_.watch(&watched_);
        router_.subscribe(watched_);
    }

    boost::asio::io_context io_;
    Log log_;
    RefusalLog refusals_{log_};
    Router router_{{{0, "video", 16, 8}}};
    LaterBackend backend_{router_};
    SwitchQueue switches_{io_.get_executor(), router_, backend_, refusals_, [] {}};
    Watched watched_;
};

TEST_F(SwitchQueueWithALaterRouter, APendingTakeIsNeitherWatchedNorToldUntilTheRouterDecides) {
    EXPECT_EQ(switches_.take(3, 0, 5, 2), Refusal::pending);
    io_.poll();
    EXPECT_TRUE(watched_.asked.empty());
    EXPECT_TRUE(watched_.told.empty());
    EXPECT_EQ(backend_.frames_ended, 1);  // the frame that asked ended: the take may leave
    backend_.decide(0, Refusal::none);
    EXPECT_EQ(watched_.asked, (std::vector<Asked>{{3, SwitchWatcher::Kind::take, 0, 2, 5, Refusal::none}}));
    io_.restart();
    io_.poll();
    EXPECT_EQ(watched_.told, (std::vector<std::string>{"0/2,5"}));
}

TEST_F(SwitchQueueWithALaterRouter, WhoeverWaitsHearsTheDecisionOnce) {
    std::vector<Refusal> heard;
    EXPECT_EQ(switches_.take(0, 0, 5, 2, [&](Refusal r) { heard.push_back(r); }), Refusal::pending);
    EXPECT_EQ(switches_.take(0, 0, 6, 3, [&](Refusal r) { heard.push_back(r); }), Refusal::pending);
    backend_.decide(1, Refusal::router_refused);
    backend_.decide(0, Refusal::none);
    EXPECT_EQ(heard, (std::vector<Refusal>{Refusal::router_refused, Refusal::none}));
    EXPECT_EQ(watched_.asked.front(), (Asked{0, SwitchWatcher::Kind::take, 0, 3, 6, Refusal::router_refused}));
    io_.poll();
    EXPECT_EQ(watched_.told, (std::vector<std::string>{"0/2,5"}));
}

TEST_F(SwitchQueueWithALaterRouter, AnAnswerGivenAtOnceIsWatchedAtOnce) {
    EXPECT_EQ(switches_.lock(4, 0, 7, 1), Refusal::none);
    EXPECT_EQ(watched_.asked, (std::vector<Asked>{{4, SwitchWatcher::Kind::lock, 0, 7, 1, Refusal::none}}));
    EXPECT_EQ(switches_.lock(4, 0, 70, 1), Refusal::destination_out_of_range);
    EXPECT_EQ(watched_.asked.back(), (Asked{4, SwitchWatcher::Kind::lock, 0, 70, 1, Refusal::destination_out_of_range}));
}

TEST(SwitchQueueWithTheSimulatedRouter, ATakeIsAppliedAtOnceAndToldAtTheEndOfTheFrame) {
    boost::asio::io_context io;
    Log log;
    RefusalLog refusals{log};
    Router router{{{0, "video", 16, 8}}};
    SimulatedBackend backend{router};
    int frames = 0;
    SwitchQueue switches{io.get_executor(), router, backend, refusals, [&] { ++frames; }};
    Watched watched;
    router.subscribe(watched);
    EXPECT_EQ(switches.take(1, 0, 5, 2), Refusal::none);
    EXPECT_EQ(router.source_of(0, 2), 5);
    EXPECT_TRUE(watched.told.empty());
    io.poll();
    EXPECT_EQ(watched.told, (std::vector<std::string>{"0/2,5"}));
    EXPECT_EQ(frames, 1);
}

}  // namespace
}  // namespace routerd
