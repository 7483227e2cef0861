#pragma once

#include <chrono>
#include <string>

namespace routerd {

// Which router carries out the changes, and how to reach it.
struct BackendSettings {
    enum class Protocol { simulated, videohub };
    Protocol protocol = Protocol::simulated;
    std::string host;  // of a real router
    std::string port;
    // A request is sent when nothing else has been for this long, to know that the router is there.
    std::chrono::milliseconds keepalive{5000};
    // A request unanswered for this long means the link is dead.
    std::chrono::milliseconds answer_timeout{2000};
    std::chrono::milliseconds connect_timeout{2000};
    // Reconnecting waits the first interval, then twice as long each time, up to the second.
    std::chrono::milliseconds reconnect_first{100};
    std::chrono::milliseconds reconnect_most{2000};
    // The router level of the Videohub's video outputs, and of its monitoring
    // outputs (-1: not served).
    int video_level = 0;
    int monitoring_level = -1;
    // A router announcing more outputs than this is refused (the link is closed).
    int most_outputs = 65536;

    std::string address() const { return host + ":" + port; }
};

// "videohub:HOST:PORT" (--backend); throws std::invalid_argument saying what is wrong.
BackendSettings parse_backend(const std::string& text);

}  // namespace routerd
