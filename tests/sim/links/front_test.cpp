// A link's front door alone: what reaches the converter, what the client is
// answered, and when the client must go.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>

#include "sim/links/front.h"

namespace routerd {
namespace {

using namespace std::chrono_literals;

constexpr char IAC = '\xff', DO = '\xfd', WONT = '\xfc', kEcho = 1;

// The session behind the door, as the door sees it.
class Panel final : public FrontUser, public std::enable_shared_from_this<Panel> {
public:
    std::shared_ptr<FrontUser> keep_alive() override { return shared_from_this(); }
    void reply(std::string_view bytes) override { replies += bytes; }
    void reply_now() override { replies += "|"; }
    void close_after_output(const std::string& reason) override { closed = reason; }

    std::string replies;  // "|" where the door asked for them to go out at once
    std::string closed;
};

class FrontTest : public ::testing::Test {
protected:
    Front door(LinkSettings settings) {
        return Front(settings, io.get_executor(), log, "client 1 (127.0.0.1:5000)");
    }
    // What the converter gets from one read.
    std::string read(Front& front, std::string bytes, Front::Outcome expected) {
        const Front::Read r = front.read(bytes.data(), bytes.size(), *panel);
        EXPECT_EQ(r.outcome, expected) << front.problem();
        return bytes.substr(r.begin, r.end - r.begin);
    }

    boost::asio::io_context io;
    Log log;
    std::shared_ptr<Panel> panel = std::make_shared<Panel>();
};

LinkSettings telnet() {
    LinkSettings settings;
    settings.telnet = true;
    return settings;
}

LinkSettings with_login(LinkSettings settings = {}) {
    settings.login = LoginMode::password;
    settings.users = {{"panel", "secret"}};
    return settings;
}

TEST_F(FrontTest, APlainLinkPassesEveryByteAndNeverAsksForALogin) {
    Front front = door({});
    front.start(*panel);
    EXPECT_FALSE(front.logging_in());
    EXPECT_EQ(read(front, std::string("@ X:0/5,3\r\xff\0", 12), Front::Outcome::data), std::string("@ X:0/5,3\r\xff\0", 12));
    EXPECT_EQ(front.encode("S:05,3\xff"), "S:05,3\xff");
    EXPECT_EQ(panel->replies, "");
}

TEST_F(FrontTest, TelnetNegotiationIsAnsweredAndNeverPassedOn) {
    Front front = door(telnet());
    EXPECT_EQ(read(front, std::string{IAC, DO, kEcho} + "@ ?\r\n", Front::Outcome::data), "@ ?\r\n");
    EXPECT_EQ(panel->replies, (std::string{IAC, WONT, kEcho}));
    EXPECT_EQ(front.encode("\xff"), "\xff\xff");
}

TEST_F(FrontTest, ATelnetProtocolErrorBreaksTheLink) {
    Front front = door(telnet());
    std::string endless = std::string{IAC, '\xfa', 24} + std::string(64 * 1024, 'x');
    const Front::Read r = front.read(endless.data(), endless.size(), *panel);
    EXPECT_EQ(r.outcome, Front::Outcome::broken);
    EXPECT_EQ(front.problem().rfind("telnet protocol error: ", 0), 0u) << front.problem();
}

TEST_F(FrontTest, TheLoginPromptComesFirstAndTheConverterGetsWhatFollowsThePassword) {
    Front front = door(with_login());
    front.start(*panel);
    EXPECT_TRUE(front.logging_in());
    EXPECT_EQ(read(front, "panel\r\n", Front::Outcome::logging_in), "");
    EXPECT_EQ(read(front, "secret\r\n@ X:0/5,3\r", Front::Outcome::logged_in), "@ X:0/5,3\r");
    EXPECT_EQ(panel->replies, "login: password: ");
    EXPECT_FALSE(front.logging_in());
    EXPECT_EQ(read(front, "@ ?\r", Front::Outcome::data), "@ ?\r");
}

TEST_F(FrontTest, AWrongLoginIsAnsweredAfterTheDelayAndWhatCameMeanwhileIsDropped) {
    Front front = door(with_login());
    read(front, "panel\r\nguess\r\n", Front::Outcome::logging_in);
    EXPECT_EQ(panel->replies, "password: ");
    // The right answer typed ahead of the next prompt counts for nothing.
    EXPECT_EQ(read(front, "panel\r\nsecret\r\n", Front::Outcome::logging_in), "");
    io.run_for(500ms);
    EXPECT_EQ(panel->replies, "password: ");
    io.run_for(1s);
    EXPECT_EQ(panel->replies, "password: login incorrect\r\nlogin: |");
    EXPECT_EQ(read(front, "panel\r\nsecret\r\n", Front::Outcome::logged_in), "");
}

TEST_F(FrontTest, TheThirdWrongLoginClosesTheLinkAfterSayingSo) {
    Front front = door(with_login());
    for (int attempt = 1; attempt <= 3; ++attempt) {
        read(front, "panel\r\nguess\r\n", Front::Outcome::logging_in);
        io.restart();
        io.run_for(1500ms);
    }
    EXPECT_EQ(panel->closed, "login failed 3 times");
    EXPECT_EQ(panel->replies.substr(panel->replies.size() - 18), "login incorrect\r\n|");
}

TEST_F(FrontTest, StoppingCancelsTheAnswerToAWrongLogin) {
    Front front = door(with_login());
    read(front, "panel\r\nguess\r\n", Front::Outcome::logging_in);
    front.stop();
    io.run_for(1500ms);
    EXPECT_EQ(panel->replies, "password: ");
}

TEST_F(FrontTest, AClientThatHasNotLoggedInInTimeMustGo) {
    LinkSettings settings = with_login();
    settings.login_timeout = 60s;
    Front front = door(settings);
    const auto now = Front::Clock::now();
    read(front, "panel\r\n", Front::Outcome::logging_in);
    EXPECT_EQ(front.overdue(now + 59s), std::nullopt);
    EXPECT_EQ(front.overdue(now + 61s), "no login within 60 s (login_timeout)");
}

TEST_F(FrontTest, ASilentClientMustGoAfterTheIdleTimeoutCountedFromWhenItWasLastHeard) {
    LinkSettings settings;
    settings.idle_timeout = 300s;
    settings.first_byte_timeout = 0s;
    Front front = door(settings);
    const auto now = Front::Clock::now();
    EXPECT_EQ(front.overdue(now + 200s), std::nullopt);
    read(front, "@ ?\r", Front::Outcome::data);
    EXPECT_EQ(front.overdue(now + 400s), std::nullopt);  // heard since the last look: the clock starts again
    EXPECT_EQ(front.overdue(now + 699s), std::nullopt);
    EXPECT_EQ(front.overdue(now + 700s), "nothing received for 300 s (idle_timeout)");
}

TEST_F(FrontTest, WithoutAnIdleTimeoutASilentClientMayStay) {
    Front front = door({});
    read(front, "@", Front::Outcome::data);
    EXPECT_EQ(front.overdue(Front::Clock::now() + 100000s), std::nullopt);
}

TEST_F(FrontTest, AClientThatSendsNothingMustGoAfterTheFirstByteTimeout) {
    Front front = door({});
    const auto now = Front::Clock::now();
    EXPECT_EQ(front.overdue(now + 29s), std::nullopt);
    EXPECT_EQ(front.overdue(now + 30s), "nothing received within 30 s of connecting (first_byte_timeout)");
}

TEST_F(FrontTest, OneByteBeforeTheFirstByteTimeoutIsEnoughForEver) {
    Front front = door({});
    const auto now = Front::Clock::now();
    EXPECT_EQ(front.overdue(now + 10s), std::nullopt);
    read(front, "@", Front::Outcome::data);
    EXPECT_EQ(front.overdue(now + 29s), std::nullopt);
    EXPECT_EQ(front.overdue(now + 100000s), std::nullopt);
}

TEST_F(FrontTest, WithoutAFirstByteTimeoutASilentClientMayStay) {
    LinkSettings settings;
    settings.first_byte_timeout = 0s;
    Front front = door(settings);
    EXPECT_EQ(front.overdue(Front::Clock::now() + 100000s), std::nullopt);
}

TEST_F(FrontTest, AWrongLoginWaitsLongerAfterEarlierFailuresFromTheSameAddress) {
    FailedLogins failures(log);
    failures.failed("127.0.0.2", Front::Clock::now());
    failures.failed("127.0.0.2", Front::Clock::now());
    Front front(with_login(), io.get_executor(), log, "client 1 (127.0.0.2:5000)", &failures, "127.0.0.2");
    read(front, "panel\r\nguess\r\n", Front::Outcome::logging_in);
    io.run_for(3500ms);  // the third failure of the address: 4 s
    EXPECT_EQ(panel->replies, "password: ");
    io.run_for(1s);
    EXPECT_EQ(panel->replies, "password: login incorrect\r\nlogin: |");
}

TEST_F(FrontTest, ALoginThatPassesForgetsTheFailuresOfItsAddress) {
    FailedLogins failures(log);
    failures.failed("127.0.0.2", Front::Clock::now());
    Front front(with_login(), io.get_executor(), log, "client 1 (127.0.0.2:5000)", &failures, "127.0.0.2");
    read(front, "panel\r\nsecret\r\n", Front::Outcome::logged_in);
    EXPECT_EQ(failures.addresses(), 0u);
}

}  // namespace
}  // namespace routerd
