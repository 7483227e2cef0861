#include "sim/log.h"

#include <chrono>
#include <cstdio>
#include <ctime>

namespace routerd {

void Log::info(std::string_view message) const {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::fprintf(stderr, "%s.%03lld %.*s\n", stamp, static_cast<long long>(millis),
                 static_cast<int>(message.size()), message.data());
}

std::string escape(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (const unsigned char c : bytes) {
        switch (c) {
            case '\r': out += "\\r"; break;
            case '\n': out += "\\n"; break;
            case '\t': out += "\\t"; break;
            case '\\': out += "\\\\"; break;
            default:
                if (c < 0x20 || c >= 0x7f) {
                    char hex[5];
                    std::snprintf(hex, sizeof hex, "\\x%02X", c);
                    out += hex;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out;
}

}  // namespace routerd
