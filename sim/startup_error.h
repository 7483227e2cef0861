#pragma once

#include <stdexcept>
#include <string>

namespace routerd {

// The exit code of a run that could not start.
constexpr int kCannotStart = 2;

// What stops the simulator from starting: main prints the program's name, the
// heading and the message, and exits. Each kind of failure names its own
// heading, so that the line tells a configuration mistake from a port in use.
class StartupError : public std::runtime_error {
public:
    explicit StartupError(const std::string& what, std::string heading = {})
        : std::runtime_error(what), heading_(std::move(heading)) {}

    // "configuration error: ", "state error: ", or empty when the message
    // says enough by itself.
    const std::string& heading() const { return heading_; }

private:
    std::string heading_;
};

}  // namespace routerd
