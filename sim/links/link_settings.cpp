#include "sim/links/link_settings.h"

namespace routerd {

std::string LinkSettings::describe() const {
    std::string text;
    const auto add = [&text](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
    if (telnet) add("telnet");
    if (login == LoginMode::password) add("login");
    if (login == LoginMode::any) add("login, any credentials");
    if (idle_timeout.count() > 0) add("idle timeout " + std::to_string(idle_timeout.count()) + " s");
    if (first_byte_timeout.count() == 0) add("no first-byte timeout");
    if (first_byte_timeout.count() > 0 && first_byte_timeout != kDefaultFirstByteTimeout)
        add("first-byte timeout " + std::to_string(first_byte_timeout.count()) + " s");
    return text;
}

std::string LinkSettings::note() const {
    return telnet || login != LoginMode::off ? " (" + describe() + ")" : std::string();
}

}  // namespace routerd
