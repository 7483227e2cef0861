#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/backends/backend_settings.h"
#include "sim/router/backend.h"

namespace routerd {

// How the link to a real router stands.
struct BackendStatus {
    bool up = false;      // connected and its state read: changes are taken
    std::string problem;  // why not
};

// A backend in front of a real router: what the server starts, stops, and
// shows among the links.
class RouterGateway : public RouterBackend {
public:
    // Connects, and connects again whenever the link is lost, until stop().
    virtual void start() = 0;
    virtual void stop() = 0;

    virtual bool serves(int level) const = 0;
    // The router announces the sizes of the levels it serves (else they are configured).
    virtual bool sized_by_router() const = 0;
    // Leitch clients' lock states from before a restart, by destination: asserted once the router is read.
    virtual void restore_locks(int level, std::vector<int> locks) = 0;

    virtual const BackendStatus& status() const = 0;
    virtual const BackendSettings& settings() const = 0;
    // Where the router is now reached: "10.0.0.5:9990", "/dev/ttyUSB0".
    virtual std::string address() const = 0;
    // The router as read, once it is: "Smart Videohub 12G 40x40, 40 inputs, 40 outputs".
    virtual std::string device() const = 0;
    // The protocol and the device: "Videohub, Smart Videohub 12G 40x40, 40 inputs, 40 outputs".
    std::string description() const {
        const std::string read = device();
        return std::string(settings().protocol == BackendSettings::Protocol::swp08 ? "SW-P-08" : "Videohub") +
               (read.empty() ? "" : ", " + read);
    }
    // Links lost or never made.
    virtual std::uint64_t failures() const = 0;
};

}  // namespace routerd
