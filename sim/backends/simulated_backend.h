#pragma once

#include "sim/router/backend.h"
#include "sim/router/router.h"

namespace routerd {

// The simulated router: every change is applied to the model at once, in the
// order asked, and is final.
class SimulatedBackend final : public RouterBackend {
public:
    explicit SimulatedBackend(Router& router) : router_(router) {}

    void listen(BackendListener&) override {}
    Refusal take(const SwitchRequest& request) override {
        return router_.take(request.level, request.value, request.destination);
    }
    Refusal lock(const SwitchRequest& request) override {
        return router_.lock(request.level, request.destination, request.value);
    }
    void frame_ended() override {}

private:
    Router& router_;
};

}  // namespace routerd
