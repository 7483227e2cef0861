#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace routerd {

// What a TCP listener asks of the clients it accepts, before their bytes reach
// the converter.
enum class LoginMode {
    off,       // the converter sees the client's first byte
    password,  // "login: " and "password: ", checked against the listener's users
    any,       // the same prompts, any answer accepted: for panels that send fixed credentials blind
};

struct Credentials {
    std::string user;
    std::string password;
};

// A Leitch client speaks first: a TCP connection that has sent nothing this
// long after connecting is not a client, and is closed so that it holds no
// place among max_clients. Installed panels may then stay silent for hours.
constexpr std::chrono::seconds kDefaultFirstByteTimeout{30};

struct LinkSettings {
    bool telnet = false;  // the client speaks telnet: option negotiation is answered, never passed on
    LoginMode login = LoginMode::off;
    std::vector<Credentials> users;
    // A client that has not logged in this long after connecting is closed:
    // sitting at the prompt, it holds one of the places for clients logging in.
    std::chrono::seconds login_timeout{60};
    std::chrono::seconds idle_timeout{0};  // a link silent this long is closed; 0: never
    // A link that has sent nothing this long after connecting is closed; 0:
    // never (a serial port, which is configured, not arriving).
    std::chrono::seconds first_byte_timeout = kDefaultFirstByteTimeout;

    // "telnet, login, idle timeout 300 s"; empty for a plain link with the
    // default first-byte timeout.
    std::string describe() const;
    // " (telnet, login, ...)" for the log's line of a client that connects
    // to a telnet or login link; empty for others.
    std::string note() const;
};

// One TCP listener: [[listen]] in the configuration, or --listen.
struct ListenerConfig {
    std::string address;  // HOST:PORT
    LinkSettings link;
};

}  // namespace routerd
