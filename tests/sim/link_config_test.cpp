// [[listen]] and [[serial]] in the configuration file: what is read, and
// errors that name the file, the line and the key.

#include <string>

#include "tests/sim/config_file_test.h"

namespace routerd {
namespace {

using LinkConfig = ConfigFileTest;

TEST_F(LinkConfig, WithoutListenersThereIsOnePlainOne) {
    const SimulatorConfig config = load("");
    ASSERT_EQ(config.listeners.size(), 1u);
    EXPECT_EQ(config.listeners[0].address, "127.0.0.1:2323");
    EXPECT_EQ(config.listeners[0].link.describe(), "");
    EXPECT_TRUE(config.serials.empty());
}

TEST_F(LinkConfig, ServerListenIsOnePlainListener) {
    const SimulatorConfig config = load("[server]\nlisten = \"0.0.0.0:4000\"\n");
    ASSERT_EQ(config.listeners.size(), 1u);
    EXPECT_EQ(config.listeners[0].address, "0.0.0.0:4000");
}

TEST_F(LinkConfig, ATelnetPortWithLoginBesideARawPort) {
    const SimulatorConfig config = load(R"(
[[listen]]
address = "0.0.0.0:2323"
telnet = true
login = "password"
users = [ { user = "panel", password = "secret" }, { user = "auto", password = "x" } ]
idle_timeout = 300

[[listen]]
address = "0.0.0.0:2324"

[[listen]]
address = "127.0.0.1:2325"
login = "any"
)");
    ASSERT_EQ(config.listeners.size(), 3u);
    const LinkSettings& telnet = config.listeners[0].link;
    EXPECT_EQ(config.listeners[0].address, "0.0.0.0:2323");
    EXPECT_TRUE(telnet.telnet);
    EXPECT_EQ(telnet.login, LoginMode::password);
    ASSERT_EQ(telnet.users.size(), 2u);
    EXPECT_EQ(telnet.users[1].user, "auto");
    EXPECT_EQ(telnet.users[1].password, "x");
    EXPECT_EQ(telnet.idle_timeout.count(), 300);
    EXPECT_EQ(telnet.describe(), "telnet, login, idle timeout 300 s");
    EXPECT_EQ(config.listeners[1].link.describe(), "");
    EXPECT_EQ(config.listeners[2].link.describe(), "login, any credentials");
}

TEST_F(LinkConfig, SerialPorts) {
    const SimulatorConfig config = load(R"(
[[serial]]
device = "/dev/ttyUSB0"
baud = 9600
format = "7E2"
flow_control = "rtscts"
idle_timeout = 60

[[serial]]
device = "/dev/ttyS0"
)");
    ASSERT_EQ(config.serials.size(), 2u);
    EXPECT_EQ(config.serials[0].device, "/dev/ttyUSB0");
    EXPECT_EQ(config.serials[0].describe(), "9600 7E2 RTS/CTS");
    EXPECT_EQ(config.serials[0].idle_timeout.count(), 60);
    EXPECT_EQ(config.serials[1].describe(), "38400 8N1");
}

TEST_F(LinkConfig, PasswordLoginWithoutUsersIsRefused) {
    EXPECT_EQ(error_of("\n[[listen]]\naddress = \"127.0.0.1:0\"\nlogin = \"password\"\n"),
              "FILE:2: key 'listen[0].users': missing: login = \"password\" needs at least one user");
}

TEST_F(LinkConfig, UsersWithoutPasswordLoginAreRefused) {
    EXPECT_EQ(error_of("[[listen]]\naddress = \"127.0.0.1:0\"\nusers = [ { user = \"a\", password = \"b\" } ]\n"),
              "FILE:3: key 'listen[0].users': only used with login = \"password\"");
}

TEST_F(LinkConfig, AnUnknownLoginModeIsRefused) {
    EXPECT_EQ(error_of("[[listen]]\naddress = \"127.0.0.1:0\"\nlogin = \"yes\"\n"),
              "FILE:3: key 'listen[0].login': must be \"off\", \"password\" or \"any\", not \"yes\"");
}

TEST_F(LinkConfig, TheLoginTimeoutIsAMinuteUnlessSet) {
    const SimulatorConfig config = load(R"(
[[listen]]
address = "127.0.0.1:0"
login = "any"

[[listen]]
address = "127.0.0.1:0"
login = "any"
login_timeout = 15
)");
    EXPECT_EQ(config.listeners[0].link.login_timeout.count(), 60);
    EXPECT_EQ(config.listeners[1].link.login_timeout.count(), 15);
}

TEST_F(LinkConfig, ALoginTimeoutWithoutLoginIsRefused) {
    EXPECT_EQ(error_of("[[listen]]\naddress = \"127.0.0.1:0\"\nlogin_timeout = 5\n"),
              "FILE:3: key 'listen[0].login_timeout': only used with a login");
}

TEST_F(LinkConfig, AUserWithoutPasswordIsRefused) {
    EXPECT_EQ(error_of("[[listen]]\naddress = \"127.0.0.1:0\"\nlogin = \"password\"\nusers = [ { user = \"a\" } ]\n"),
              "FILE:4: key 'listen[0].users[0].password': missing");
}

TEST_F(LinkConfig, AListenerWithoutAddressIsRefused) {
    EXPECT_EQ(error_of("[[listen]]\ntelnet = true\n"), "FILE:1: key 'listen[0].address': missing");
}

TEST_F(LinkConfig, ABadAddressIsRefused) {
    EXPECT_EQ(error_of("[[listen]]\naddress = \"nowhere\"\n"),
              "FILE:2: key 'listen[0].address': expected HOST:PORT, got \"nowhere\"");
}

TEST_F(LinkConfig, TelnetMustBeABoolean) {
    EXPECT_EQ(error_of("[[listen]]\naddress = \"127.0.0.1:0\"\ntelnet = \"yes\"\n"),
              "FILE:3: key 'listen[0].telnet': must be true or false");
}

TEST_F(LinkConfig, ANegativeIdleTimeoutIsRefused) {
    EXPECT_EQ(error_of("[[listen]]\naddress = \"127.0.0.1:0\"\nidle_timeout = -1\n"),
              "FILE:3: key 'listen[0].idle_timeout': must be an integer from 0 to 604800");
}

TEST_F(LinkConfig, ServerListenAndListenTablesTogetherAreRefused) {
    EXPECT_EQ(error_of("[server]\nlisten = \"127.0.0.1:0\"\n[[listen]]\naddress = \"127.0.0.1:0\"\n"),
              "FILE:3: key 'listen': give either server.listen or [[listen]] tables, not both");
}

TEST_F(LinkConfig, AnUnknownSerialKeyIsRefused) {
    EXPECT_EQ(error_of("[[serial]]\ndevice = \"/dev/ttyS0\"\nspeed = 9600\n"),
              "FILE:3: key 'serial[0].speed': unknown key");
}

TEST_F(LinkConfig, ANonStandardBaudRateIsRefused) {
    EXPECT_EQ(error_of("[[serial]]\ndevice = \"/dev/ttyS0\"\nbaud = 1234\n"),
              "FILE:3: key 'serial[0].baud': must be one of 1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200, "
              "230400");
}

TEST_F(LinkConfig, ABadSerialFormatIsRefused) {
    EXPECT_EQ(error_of("[[serial]]\ndevice = \"/dev/ttyS0\"\nformat = \"9N1\"\n"),
              "FILE:3: key 'serial[0].format': format must be data bits (5 to 8), parity (N, E or O) and stop bits "
              "(1 or 2), as in 8N1; got \"9N1\"");
}

TEST_F(LinkConfig, AnUnknownFlowControlIsRefused) {
    EXPECT_EQ(error_of("[[serial]]\ndevice = \"/dev/ttyS0\"\nflow_control = \"xonxoff\"\n"),
              "FILE:3: key 'serial[0].flow_control': must be \"none\" or \"rtscts\", not \"xonxoff\"");
}

TEST_F(LinkConfig, ASerialDeviceNamedTwiceIsRefused) {
    EXPECT_EQ(error_of("[[serial]]\ndevice = \"/dev/ttyS0\"\n[[serial]]\ndevice = \"/dev/ttyS0\"\n"),
              "FILE:4: key 'serial[1].device': /dev/ttyS0 is named twice");
}

TEST_F(LinkConfig, ASerialPortWithoutDeviceIsRefused) {
    EXPECT_EQ(error_of("[[serial]]\nbaud = 9600\n"), "FILE:1: key 'serial[0].device': missing");
}

TEST_F(LinkConfig, AListenerClosesASilentConnectionAfterThirtySecondsByDefaultAndSaysNothingOfIt) {
    const SimulatorConfig config = load("[[listen]]\naddress = \"127.0.0.1:0\"\n");
    EXPECT_EQ(config.listeners[0].link.first_byte_timeout, std::chrono::seconds(30));
    EXPECT_EQ(config.listeners[0].link.describe(), "");
    EXPECT_EQ(load("").listeners[0].link.first_byte_timeout, std::chrono::seconds(30));
}

TEST_F(LinkConfig, TheServersFirstByteTimeoutHoldsForListenersWithoutTheirOwn) {
    const SimulatorConfig config = load(R"(
[server]
first_byte_timeout = 5

[[listen]]
address = "127.0.0.1:0"

[[listen]]
address = "127.0.0.1:0"
first_byte_timeout = 0

[[listen]]
address = "127.0.0.1:0"
first_byte_timeout = 30
)");
    ASSERT_EQ(config.listeners.size(), 3u);
    EXPECT_EQ(config.listeners[0].link.describe(), "first-byte timeout 5 s");
    EXPECT_EQ(config.listeners[1].link.describe(), "no first-byte timeout");
    EXPECT_EQ(config.listeners[2].link.describe(), "");
    EXPECT_EQ(load("[server]\nlisten = \"127.0.0.1:0\"\nfirst_byte_timeout = 7\n").listeners[0].link.first_byte_timeout,
              std::chrono::seconds(7));
}

TEST_F(LinkConfig, AFirstByteTimeoutOverAnHourIsRefused) {
    EXPECT_EQ(error_of("[[listen]]\naddress = \"127.0.0.1:0\"\nfirst_byte_timeout = 3601\n"),
              "FILE:3: key 'listen[0].first_byte_timeout': must be an integer from 0 to 3600");
    EXPECT_EQ(error_of("[server]\nfirst_byte_timeout = -1\n"),
              "FILE:2: key 'server.first_byte_timeout': must be an integer from 0 to 3600");
}

TEST_F(LinkConfig, OneAddressMayHoldHalfOfMaxClientsRoundedUpUnlessSet) {
    const SimulatorConfig defaults = load("");
    EXPECT_EQ(defaults.limits.max_clients, 16u);
    EXPECT_EQ(defaults.limits.max_clients_per_address, 8u);
    EXPECT_EQ(defaults.limits.max_clients_logging_in, 8u);
    EXPECT_EQ(logging_in_per_address(defaults.limits), 4u);
    const SimulatorConfig five = load("[server]\nmax_clients = 5\n");
    EXPECT_EQ(five.limits.max_clients_per_address, 3u);
    EXPECT_EQ(five.limits.max_clients_logging_in, 3u);
    EXPECT_EQ(logging_in_per_address(five.limits), 2u);
    const SimulatorConfig set =
        load("[server]\nmax_clients = 5\nmax_clients_per_address = 5\nmax_clients_logging_in = 2\n");
    EXPECT_EQ(set.limits.max_clients_per_address, 5u);
    EXPECT_EQ(set.limits.max_clients_logging_in, 2u);
    EXPECT_EQ(logging_in_per_address(set.limits), 2u);
    EXPECT_EQ(logging_in_per_address(load("[server]\nmax_clients = 1\n").limits), 1u);
}

TEST_F(LinkConfig, AShareLargerThanMaxClientsIsRefused) {
    EXPECT_EQ(error_of("[server]\nmax_clients = 4\nmax_clients_per_address = 5\n"),
              "FILE:3: key 'server.max_clients_per_address': at most server.max_clients (4)");
    EXPECT_EQ(error_of("[server]\nmax_clients_logging_in = 0\n"),
              "FILE:2: key 'server.max_clients_logging_in': must be an integer from 1 to 100000");
}

TEST_F(LinkConfig, OneAddressMayHoldHalfOfTheWebPagesUnlessSet) {
    EXPECT_EQ(load("").web.max_pages_per_address, 8u);
    EXPECT_EQ(load("[http]\nmax_pages = 3\n").web.max_pages_per_address, 2u);
    EXPECT_EQ(load("[http]\nmax_pages = 3\nmax_pages_per_address = 3\n").web.max_pages_per_address, 3u);
    EXPECT_EQ(error_of("[http]\nmax_pages = 3\nmax_pages_per_address = 4\n"),
              "FILE:3: key 'http.max_pages_per_address': must be an integer from 1 to 3");
}

}  // namespace
}  // namespace routerd
