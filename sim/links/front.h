#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/steady_timer.hpp>

#include "sim/links/failed_logins.h"
#include "sim/links/link_settings.h"
#include "sim/links/login.h"
#include "sim/links/telnet.h"
#include "sim/log.h"

namespace routerd {

// What the front door asks of the session behind it.
class FrontUser {
public:
    // Held by the front door's timer while it waits.
    virtual std::shared_ptr<FrontUser> keep_alive() = 0;
    // Bytes for the client, exactly as they go on the wire.
    virtual void reply(std::string_view bytes) = 0;
    // Sends what is waiting now rather than with the next event's output.
    virtual void reply_now() = 0;
    // The client is told why (what is waiting), then the link closes.
    virtual void close_after_output(const std::string& reason) = 0;

protected:
    ~FrontUser() = default;
};

// The front door of one client link: the telnet protocol, the login
// dialogue with its delay after a wrong login (longer after each failure from
// the same address: FailedLogins), and the link's timeouts. Raw bytes from
// the link come in; what reaches the converter, and what the client is
// answered, comes out. A plain link's door is open from the start and passes
// every byte as it is.
class Front {
public:
    using Clock = std::chrono::steady_clock;

    enum class Outcome {
        data,          // [begin, end) is for the converter; it may be empty
        logged_in,     // the login passed just now: [begin, end) is the converter's first input
        logging_in,    // the dialogue goes on: nothing for the converter
        broken,        // the client broke the telnet protocol: problem() says how
    };

    struct Read {
        Outcome outcome = Outcome::data;
        std::size_t begin = 0;
        std::size_t end = 0;
    };

    // `name` is how the client is called in the log. Failed logins are
    // counted in `failed_logins` under `address` (share_address); without
    // it, every wrong login waits the first delay.
    Front(const LinkSettings& settings, boost::asio::any_io_executor executor, const Log& log, std::string name,
          FailedLogins* failed_logins = nullptr, std::string address = {});

    // The login prompt, when the link asks for a login.
    void start(FrontUser& user);
    // True until the login has passed (never for a link without one).
    bool logging_in() const { return login_.has_value(); }

    // Decodes one read in place: the converter's bytes are left inside
    // `bytes` (see Read), and the answers go to `user` as they arise. Inline
    // for a plain link, where every byte passes as it is.
    Read read(char* bytes, std::size_t length, FrontUser& user) {
        heard_ = true;
        if (!telnet_ && !login_) return {Outcome::data, 0, length};
        return read_guarded(bytes, length, user);
    }
    // How the client broke the protocol, after Outcome::broken.
    const std::string& problem() const { return problem_; }
    // The converter's output as it goes on the wire.
    std::string_view encode(const std::string& data) { return telnet_ ? encode_telnet(data) : data; }

    // Why the client must go by `now`, or nothing: nothing sent within the
    // first-byte timeout, no login within the time allowed, or silence past
    // the link's idle timeout. Called once a second:
    // the clock is read then, not at every read.
    std::optional<std::string> overdue(Clock::time_point now);
    // Cancels the wait after a wrong login.
    void stop();

private:
    std::string_view encode_telnet(const std::string& data);
    Read read_guarded(char* bytes, std::size_t length, FrontUser& user);
    bool decode_telnet(char* bytes, std::size_t& length, FrontUser& user);
    Read read_login(char* bytes, std::size_t length, FrontUser& user);
    void refuse(FrontUser& user);
    bool delayed() const;

    const std::chrono::seconds login_timeout_;
    const std::chrono::seconds idle_timeout_;        // 0: none
    const std::chrono::seconds first_byte_timeout_;  // 0: none
    const Log& log_;
    const std::string name_;
    FailedLogins* const failed_logins_;  // null: not counted
    const std::string address_;
    const Clock::time_point opened_at_;
    Clock::time_point heard_at_;  // when the client was last heard, to the second
    bool heard_ = false;          // the client sent something since the last look at the clock
    bool spoke_ = false;          // the client has sent something, as of the last look at the clock
    std::optional<TelnetCodec> telnet_;
    std::optional<Login> login_;  // until the login has passed
    boost::asio::steady_timer delay_;  // after a wrong login, until the next prompt
    std::string decoded_;     // telnet: the data of the last read
    std::string to_client_;   // telnet: bytes for the client
    std::string problem_;
};

}  // namespace routerd
