#include "sim/links/serial_settings.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <vector>

namespace routerd {

namespace {

constexpr unsigned kBauds[] = {1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200, 230400};

std::string baud_list() {
    std::string list;
    for (const unsigned baud : kBauds) list += (list.empty() ? "" : ", ") + std::to_string(baud);
    return list;
}

bool all_digits(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// Splits "38400,8N1,rtscts" at the commas.
std::vector<std::string> fields(const std::string& text) {
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (std::size_t comma; (comma = text.find(',', begin)) != std::string::npos; begin = comma + 1)
        parts.push_back(text.substr(begin, comma - begin));
    parts.push_back(text.substr(begin));
    return parts;
}

}  // namespace

bool is_serial_baud(unsigned baud) { return std::find(std::begin(kBauds), std::end(kBauds), baud) != std::end(kBauds); }

std::string SerialSettings::describe() const {
    return std::to_string(baud) + " " + std::to_string(data_bits) + parity + std::to_string(stop_bits) +
           (rts_cts ? " RTS/CTS" : "");
}

void set_serial_format(SerialSettings& settings, std::string format) {
    if (format.size() == 3) format[1] = static_cast<char>(std::toupper(static_cast<unsigned char>(format[1])));
    if (format.size() != 3 || format[0] < '5' || format[0] > '8' || std::string("NEO").find(format[1]) == std::string::npos ||
        (format[2] != '1' && format[2] != '2'))
        throw std::invalid_argument("format must be data bits (5 to 8), parity (N, E or O) and stop bits (1 or 2), "
                                    "as in 8N1; got \"" + format + "\"");
    settings.data_bits = static_cast<unsigned>(format[0] - '0');
    settings.parity = format[1];
    settings.stop_bits = static_cast<unsigned>(format[2] - '0');
}

SerialSettings parse_serial(const std::string& text) {
    SerialSettings settings;
    settings.device = text;
    const auto colon = text.rfind(':');
    if (colon != std::string::npos) {
        const std::vector<std::string> parts = fields(text.substr(colon + 1));
        // Settings begin with the baud rate; anything else is part of the device's name.
        if (all_digits(parts[0])) {
            settings.device = text.substr(0, colon);
            const unsigned long baud = parts[0].size() <= 7 ? std::stoul(parts[0]) : 0;
            if (!is_serial_baud(static_cast<unsigned>(baud)))
                throw std::invalid_argument("baud rate must be one of " + baud_list() + "; got " + parts[0]);
            settings.baud = static_cast<unsigned>(baud);
            if (parts.size() > 3) throw std::invalid_argument("expected DEVICE[:BAUD[,FORMAT[,rtscts]]], got \"" + text + "\"");
            if (parts.size() > 1) set_serial_format(settings, parts[1]);
            if (parts.size() > 2) {
                if (parts[2] != "rtscts")
                    throw std::invalid_argument("flow control must be \"rtscts\" or left out; got \"" + parts[2] + "\"");
                settings.rts_cts = true;
            }
        }
    }
    if (settings.device.empty()) throw std::invalid_argument("the device name is empty");
    return settings;
}

std::string serial_baud_list() { return baud_list(); }

}  // namespace routerd
