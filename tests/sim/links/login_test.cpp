// The login dialogue in front of a converter instance, without sockets.

#include <gtest/gtest.h>

#include <string>

#include "sim/links/login.h"

namespace routerd {
namespace {

Login panel_login() { return Login(LoginMode::password, {{"panel", "secret"}}); }

Login::Step read(Login& login, const std::string& input) { return login.read(input.data(), input.size()); }

TEST(Login, AUserNameLineAsksForThePassword) {
    Login login = panel_login();
    const Login::Step step = read(login, "panel\r");
    EXPECT_EQ(step.outcome, Login::Outcome::more);
    EXPECT_EQ(step.reply, "password: ");
    EXPECT_EQ(step.consumed, 6u);
}

TEST(Login, TheRightPasswordPassesAndLeavesTheRestForTheConverter) {
    Login login = panel_login();
    read(login, "panel\r\n");
    const std::string input = "secret\r\n@ X:0/5,3\r";
    const Login::Step step = read(login, input);
    EXPECT_EQ(step.outcome, Login::Outcome::passed);
    EXPECT_EQ(step.reply, "");
    EXPECT_EQ(step.consumed, 7u);  // up to and including the CR
    const std::size_t skipped = login.rest_of_line_end(input.data() + 7, input.size() - 7);
    EXPECT_EQ(input.substr(7 + skipped), "@ X:0/5,3\r");
}

TEST(Login, BothLinesInOnePacketPass) {
    Login login = panel_login();
    const std::string input = "panel\r\nsecret\r\n@ ?\r";
    const Login::Step step = read(login, input);
    EXPECT_EQ(step.outcome, Login::Outcome::passed);
    EXPECT_EQ(step.reply, "password: ");
    EXPECT_EQ(input.substr(step.consumed + login.rest_of_line_end(input.data() + step.consumed,
                                                                  input.size() - step.consumed)),
              "@ ?\r");
}

TEST(Login, ALineFeedAfterACrInTheNextReadIsPartOfTheLineEnd) {
    Login login = panel_login();
    EXPECT_EQ(read(login, "panel\r").reply, "password: ");
    const Login::Step step = read(login, "\nsecret\r");
    EXPECT_EQ(step.outcome, Login::Outcome::passed);
    EXPECT_EQ(step.reply, "");
}

TEST(Login, ALineFeedAfterThePasswordInTheNextReadIsDroppedOnce) {
    Login login = panel_login();
    read(login, "panel\r");
    ASSERT_EQ(read(login, "secret\r").outcome, Login::Outcome::passed);
    EXPECT_EQ(login.rest_of_line_end("\n\n", 2), 1u);
    EXPECT_EQ(login.rest_of_line_end("\n", 1), 0u);
}

TEST(Login, CrNulEndsALineAsTelnetClientsSendIt) {
    Login login = panel_login();
    const std::string input("panel\r\0secret\r\0", 15);
    const Login::Step step = read(login, input);
    EXPECT_EQ(step.outcome, Login::Outcome::passed);
    EXPECT_EQ(login.rest_of_line_end(input.data() + step.consumed, input.size() - step.consumed), 1u);
}

TEST(Login, LinesSplitAcrossReadsAreJoined) {
    Login login = panel_login();
    EXPECT_EQ(read(login, "pa").reply, "");
    EXPECT_EQ(read(login, "nel\rsec").reply, "password: ");
    EXPECT_EQ(read(login, "ret\n").outcome, Login::Outcome::passed);
}

TEST(Login, AWrongPasswordIsRefusedAndCounted) {
    Login login = panel_login();
    const Login::Step step = read(login, "panel\rsecreT\r");
    EXPECT_EQ(step.outcome, Login::Outcome::refused);
    EXPECT_EQ(login.failures(), 1);
}

TEST(Login, AnUnknownUserIsRefused) {
    Login login = panel_login();
    EXPECT_EQ(read(login, "panels\rsecret\r").outcome, Login::Outcome::refused);
}

TEST(Login, APasswordThatOnlyBeginsRightIsRefused) {
    Login login = panel_login();
    EXPECT_EQ(read(login, "panel\rsecret2\r").outcome, Login::Outcome::refused);
    login.restart();
    EXPECT_EQ(read(login, "panel\rsecre\r").outcome, Login::Outcome::refused);
    EXPECT_EQ(login.failures(), 2);
}

TEST(Login, TheDialogueStartsAgainAfterARefusal) {
    Login login = panel_login();
    read(login, "panel\rwrong\r");
    login.restart();
    EXPECT_EQ(read(login, "panel\r").reply, "password: ");
    EXPECT_EQ(read(login, "secret\r").outcome, Login::Outcome::passed);
    EXPECT_EQ(login.failures(), 1);
}

TEST(Login, AnEmptyUserLineAsksAgain) {
    Login login = panel_login();
    const Login::Step step = read(login, "\r\n\r\n");
    EXPECT_EQ(step.outcome, Login::Outcome::more);
    EXPECT_EQ(step.reply, "login: login: ");
}

TEST(Login, AnOverlongLineIsCutAndCannotMatch) {
    Login login(LoginMode::password, {{"panel", std::string(128, 's')}});
    EXPECT_EQ(read(login, "panel\r" + std::string(128, 's') + "\r").outcome, Login::Outcome::passed);
    login.restart();
    EXPECT_EQ(read(login, "panel\r" + std::string(100000, 's') + "\r").outcome, Login::Outcome::passed);
    Login strict(LoginMode::password, {{"panel", std::string(129, 's')}});
    EXPECT_EQ(read(strict, "panel\r" + std::string(129, 's') + "\r").outcome, Login::Outcome::refused);
}

TEST(Login, AnyCredentialsPassInAcceptAnyMode) {
    Login login(LoginMode::any, {});
    EXPECT_EQ(read(login, "whoever\rwhatever\r").outcome, Login::Outcome::passed);
}

TEST(Login, AnyOfSeveralUsersPasses) {
    Login login(LoginMode::password, {{"panel", "secret"}, {"automation", "other"}});
    EXPECT_EQ(read(login, "automation\rother\r").outcome, Login::Outcome::passed);
    Login crossed(LoginMode::password, {{"panel", "secret"}, {"automation", "other"}});
    EXPECT_EQ(read(crossed, "automation\rsecret\r").outcome, Login::Outcome::refused);
}

}  // namespace
}  // namespace routerd
