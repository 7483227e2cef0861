#pragma once

#include <cstdint>

#include "sim/router/router.h"

namespace routerd {

// One change asked of the router: a take (value: the source) or a lock
// (value: the lock state).
struct SwitchRequest {
    enum Kind : std::uint8_t { take, lock } kind;
    int client;
    int level;
    int destination;
    int value;
    std::uint64_t ticket;  // who waits for the decision; 0: nobody
};

// Where a backend tells what it could not say at once.
class BackendListener {
public:
    // A change the backend answered Refusal::pending for is decided:
    // Refusal::none when the router confirmed it.
    virtual void decided(const SwitchRequest& request, Refusal refusal) = 0;
    // The backend changed the model (the router confirmed a change, or changed
    // by itself): the changes are to be published.
    virtual void model_changed() = 0;

protected:
    ~BackendListener() = default;
};

// What carries out the router's changes. The switch queue hands it every take
// and lock as they are asked for. It answers with the refusal, Refusal::none
// when the change is in the model now, or Refusal::pending when it has gone on
// to a real router, which decides later; the model then holds only what the
// router confirmed.
class RouterBackend {
public:
    virtual ~RouterBackend() = default;

    virtual void listen(BackendListener& listener) = 0;
    virtual Refusal take(const SwitchRequest& request) = 0;
    virtual Refusal lock(const SwitchRequest& request) = 0;
    // The frame that asked for these changes ends: what it asked for may leave now, together.
    virtual void frame_ended() = 0;
};

}  // namespace routerd
