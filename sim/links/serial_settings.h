#pragma once

#include <chrono>
#include <string>

namespace routerd {

// One serial port: [[serial]] in the configuration, or --serial.
struct SerialSettings {
    std::string device;
    unsigned baud = 38400;
    unsigned data_bits = 8;  // 5 to 8
    char parity = 'N';       // N, E or O
    unsigned stop_bits = 1;  // 1 or 2
    bool rts_cts = false;    // hardware flow control; otherwise none
    std::chrono::seconds idle_timeout{0};  // 0: never

    // "38400 8N1", "9600 7E2 RTS/CTS".
    std::string describe() const;
};

// The baud rates a port can be set to.
bool is_serial_baud(unsigned baud);
// "1200, 2400, ...": for messages.
std::string serial_baud_list();

// "DEVICE[:BAUD[,FORMAT[,rtscts]]]", FORMAT as in "8N1"; throws
// std::invalid_argument saying what is wrong. A device name may itself hold
// colons (/dev/serial/by-path/...): only a last part that reads as settings is
// taken as settings.
SerialSettings parse_serial(const std::string& text);

// Checks a format such as "8N1" (or "8n1") and sets it; throws std::invalid_argument.
void set_serial_format(SerialSettings& settings, std::string format);

}  // namespace routerd
