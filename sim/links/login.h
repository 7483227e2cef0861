#pragma once

#include <cstddef>
#include <string>

#include "sim/links/link_settings.h"

namespace routerd {

// The login dialogue in front of a client's converter instance: "login: ",
// then "password: ", one line each. Panels send both lines blind, often in
// one packet with their first commands behind them, so it reads exactly up to
// the end of the password line and leaves the rest for the converter.
class Login {
public:
    // Wrong logins that close the link.
    static constexpr int kMostFailures = 3;
    static constexpr const char* kUserPrompt = "login: ";
    static constexpr const char* kPasswordPrompt = "password: ";
    static constexpr const char* kIncorrect = "login incorrect\r\n";

    enum class Outcome {
        more,     // the dialogue goes on: send `reply`, read more
        passed,   // the rest of the input belongs to the converter
        refused,  // a wrong user name or password
    };

    struct Step {
        Outcome outcome = Outcome::more;
        std::size_t consumed = 0;  // bytes of the input the dialogue used
        std::string reply;         // to send to the client
    };

    Login(LoginMode mode, std::vector<Credentials> users) : mode_(mode), users_(std::move(users)) {}

    // Reads input until a password line has been read or the input ends.
    Step read(const char* data, std::size_t length);
    // After a refusal: the dialogue starts again.
    void restart();
    int failures() const { return failures_; }
    // The input that follows a passed login begins with the LF or NUL of a
    // line end whose CR came last: drop it. Returns the bytes to skip (0 or 1).
    std::size_t rest_of_line_end(const char* data, std::size_t length);

private:
    // Lines longer than this are cut; they cannot match anyway.
    static constexpr std::size_t kMostLineBytes = 128;

    bool accepts(const std::string& user, const std::string& password) const;

    LoginMode mode_;
    std::vector<Credentials> users_;
    bool asking_password_ = false;
    bool after_cr_ = false;  // the last line ended in CR; an LF or NUL may follow
    std::string line_;
    std::string user_;
    int failures_ = 0;
};

}  // namespace routerd
