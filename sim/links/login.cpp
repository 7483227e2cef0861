#include "sim/links/login.h"

namespace routerd {

namespace {

// Compares the whole of both strings whatever their contents, so that the
// time taken tells nothing of how much of a password was right.
bool same_secret(const std::string& a, const std::string& b) {
    unsigned difference = a.size() == b.size() ? 0 : 1;
    for (std::size_t i = 0; i < a.size(); ++i)
        difference |= static_cast<unsigned char>(a[i]) ^ static_cast<unsigned char>(i < b.size() ? b[i] : 0);
    return difference == 0;
}

}  // namespace

Login::Step Login::read(const char* data, std::size_t length) {
    Step step;
    std::size_t i = 0;
    while (i < length) {
        const char c = data[i++];
        // A line ends in CR, LF, CR LF or CR NUL (what telnet clients send for Return).
        if (after_cr_) {
            after_cr_ = false;
            if (c == '\n' || c == '\0') continue;
        }
        if (c != '\r' && c != '\n') {
            if (line_.size() < kMostLineBytes) line_ += c;
            continue;
        }
        after_cr_ = c == '\r';
        std::string line;
        line.swap(line_);
        if (!asking_password_) {
            // An empty line asks for the prompt again, as login(1) does.
            step.reply += line.empty() ? kUserPrompt : kPasswordPrompt;
            user_ = std::move(line);
            asking_password_ = !user_.empty();
            continue;
        }
        step.consumed = i;
        step.outcome = accepts(user_, line) ? Outcome::passed : Outcome::refused;
        if (step.outcome == Outcome::refused) ++failures_;
        user_.assign(user_.size(), '\0');
        user_.clear();
        line.assign(line.size(), '\0');
        return step;
    }
    step.consumed = length;
    return step;
}

void Login::restart() {
    asking_password_ = false;
    after_cr_ = false;
    line_.clear();
    user_.clear();
}

std::size_t Login::rest_of_line_end(const char* data, std::size_t length) {
    if (!after_cr_ || length == 0) return 0;
    after_cr_ = false;
    return data[0] == '\n' || data[0] == '\0' ? 1 : 0;
}

bool Login::accepts(const std::string& user, const std::string& password) const {
    if (mode_ == LoginMode::any) return true;
    bool found = false;
    for (const Credentials& c : users_) found |= same_secret(c.user, user) & same_secret(c.password, password);
    return found;
}

}  // namespace routerd
