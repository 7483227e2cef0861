#include "sim/links/front.h"

#include <algorithm>

namespace routerd {

Front::Front(const LinkSettings& settings, boost::asio::any_io_executor executor, const Log& log, std::string name,
             FailedLogins* failed_logins, std::string address)
    : login_timeout_(settings.login_timeout),
      idle_timeout_(settings.idle_timeout),
      first_byte_timeout_(settings.first_byte_timeout),
      log_(log),
      name_(std::move(name)),
      failed_logins_(failed_logins),
      address_(std::move(address)),
      opened_at_(Clock::now()),
      heard_at_(opened_at_),
      delay_(std::move(executor)) {
    if (settings.telnet) telnet_.emplace();
    if (settings.login != LoginMode::off) login_.emplace(settings.login, settings.users);
}

// No byte reaches a converter before the login has passed: there is no
// instance to reach yet.
void Front::start(FrontUser& user) {
    if (login_) user.reply(Login::kUserPrompt);
}

Front::Read Front::read_guarded(char* bytes, std::size_t length, FrontUser& user) {
    if (telnet_ && !decode_telnet(bytes, length, user)) return {Outcome::broken, 0, 0};
    if (login_ && length > 0) return read_login(bytes, length, user);
    return {login_ ? Outcome::logging_in : Outcome::data, 0, length};
}

// Leaves the converter's bytes at the front of `bytes` and answers the
// client's negotiation.
bool Front::decode_telnet(char* bytes, std::size_t& length, FrontUser& user) {
    decoded_.clear();
    to_client_.clear();
    if (!telnet_->decode(bytes, length, decoded_, to_client_)) {
        problem_ = "telnet protocol error: " + telnet_->error();
        return false;
    }
    // Decoding only ever removes bytes; the buffer could not hold more.
    if (decoded_.size() > length) {
        problem_ = "telnet protocol error: more data decoded than received";
        return false;
    }
    if (!to_client_.empty()) user.reply(to_client_);
    std::copy(decoded_.begin(), decoded_.end(), bytes);
    length = decoded_.size();
    return true;
}

Front::Read Front::read_login(char* bytes, std::size_t length, FrontUser& user) {
    Read read;
    read.outcome = Outcome::logging_in;
    // What was typed ahead of the next prompt is dropped, as login(1) does.
    if (delayed()) return read;
    const Login::Step step = login_->read(bytes, length);
    if (!step.reply.empty()) user.reply(step.reply);
    if (step.outcome == Login::Outcome::refused) refuse(user);
    if (step.outcome != Login::Outcome::passed) return read;
    log_.client_line(name_ + " logged in");
    if (failed_logins_) failed_logins_->passed(address_);
    // What followed the password is the converter's first input.
    read.outcome = Outcome::logged_in;
    read.begin = step.consumed + login_->rest_of_line_end(bytes + step.consumed, length - step.consumed);
    read.end = length;
    login_.reset();
    return read;
}

// The rest of the input, and whatever comes before the next prompt, is
// dropped. The wait grows with every failure from the same address, so that
// guessing is slow however many connections it is spread over.
void Front::refuse(FrontUser& user) {
    const int failures = login_->failures();
    log_.client_line(name_ + ": login incorrect (" + std::to_string(failures) + " of " +
                     std::to_string(Login::kMostFailures) + ")");
    login_->restart();
    delay_.expires_after(failed_logins_ ? failed_logins_->failed(address_, Clock::now()) : FailedLogins::kFirstDelay);
    delay_.async_wait([this, user = user.keep_alive(), failures](const boost::system::error_code& ec) {
        if (ec || !login_) return;
        user->reply(Login::kIncorrect);
        if (failures >= Login::kMostFailures) {
            user->reply_now();
            return user->close_after_output("login failed " + std::to_string(failures) + " times");
        }
        user->reply(Login::kUserPrompt);
        user->reply_now();
    });
}

bool Front::delayed() const { return delay_.expiry() > Clock::now(); }

std::string_view Front::encode_telnet(const std::string& data) {
    to_client_.clear();
    telnet_->encode(data, to_client_);
    return to_client_;
}

std::optional<std::string> Front::overdue(Clock::time_point now) {
    if (heard_) {
        heard_at_ = now;
        spoke_ = true;
    }
    heard_ = false;
    if (!spoke_ && first_byte_timeout_.count() > 0 && now - opened_at_ >= first_byte_timeout_)
        return "nothing received within " + std::to_string(first_byte_timeout_.count()) +
               " s of connecting (first_byte_timeout)";
    if (login_ && now - opened_at_ >= login_timeout_)
        return "no login within " + std::to_string(login_timeout_.count()) + " s (login_timeout)";
    if (idle_timeout_.count() > 0 && now - heard_at_ >= idle_timeout_)
        return "nothing received for " + std::to_string(idle_timeout_.count()) + " s (idle_timeout)";
    return std::nullopt;
}

void Front::stop() { delay_.cancel(); }

}  // namespace routerd
