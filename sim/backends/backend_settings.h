#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "sim/links/serial_settings.h"

namespace routerd {

// Where a real router is: HOST:PORT, or a serial port.
struct RouterAddress {
    std::string host;
    std::string port;
    std::optional<SerialSettings> serial;

    // "10.0.0.5:9990", "/dev/ttyUSB0": for the log, the page and the API.
    std::string describe() const { return serial ? serial->device : host + ":" + port; }
};

// The router's own name for a level: SW-P-08 matrix and level.
struct MatrixLevel {
    int matrix = 0;
    int level = 0;
};

// What only an SW-P-08 router needs.
struct Swp08Settings {
    // By the simulator's level number; a level not listed is matrix 0 and the
    // level of its own number.
    std::map<int, MatrixLevel> levels;
    // A second controller of the same router (dual controllers): the one that
    // says it is active is the one used.
    std::optional<RouterAddress> address2;
    // A frame without an ACK for this long is sent again, at most `resends` times.
    std::chrono::milliseconds ack_timeout{1000};
    int resends = 5;
    // A connect the router has not reported as made within this is refused.
    std::chrono::milliseconds confirm_timeout{1000};
    // Connects outside a group salvo leave at most one per interval on
    // average, after a burst of 20: what routers are built to take.
    std::chrono::milliseconds connect_interval{10};
    // The device number the gateway's protects are made under.
    int protect_device = 1023;
    int name_length = 8;  // 4, 8, 12, 16 or 32 characters
    // Ask the router which commands it implements (some handle the question badly).
    bool implementation_query = true;
    // Presets taken together go as one group salvo where the router has them.
    bool group_salvos = true;
    int salvo = 127;  // the salvo group used, 0 to 127
};

// Which router carries out the changes, and how to reach it.
struct BackendSettings {
    enum class Protocol { simulated, videohub, swp08 };
    Protocol protocol = Protocol::simulated;
    RouterAddress router;
    // A request is sent when nothing else has been for this long, to know that the router is there.
    std::chrono::milliseconds keepalive{5000};
    // A request unanswered for this long means the link is dead (Videohub),
    // or that no answer is coming (SW-P-08, whose link has its own ACKs).
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
    Swp08Settings swp08;

    std::string address() const { return router.describe(); }
};

const char* protocol_name(BackendSettings::Protocol protocol);

// "simulated", "videohub:HOST:PORT", "swp08:HOST:PORT" or
// "swp08:serial:DEVICE[:BAUD[,FORMAT]]" (--backend); throws
// std::invalid_argument saying what is wrong.
BackendSettings parse_backend(const std::string& text);

// What follows the protocol's name: HOST:PORT, or for SW-P-08 also
// serial:DEVICE[:BAUD[,FORMAT]], 38400 8N1 unless given. Throws std::invalid_argument.
RouterAddress parse_router_address(BackendSettings::Protocol protocol, const std::string& text);

}  // namespace routerd
