// Start-up failures, signals and the command line.

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/routerd.h"

namespace simtest {
namespace {

const std::string kPrompt = "\r\n>";

TEST(RouterdCommandLine, ConfigurationErrorNamesFileLineAndKeyAndExitsWithTwo) {
    const TempFile config("bad.toml",
                          "[server]\n"
                          "listen = \"127.0.0.1:0\"\n"
                          "max_clients = \"many\"\n");
    const ExitResult result = run_routerd({"--config", config.path()});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find(config.path() + ":3: key 'server.max_clients': must be an integer"),
              std::string::npos)
        << result.errors;
    EXPECT_EQ(result.output, "");
}

TEST(RouterdCommandLine, MissingLevelKeyIsNamedWithTheLevelsLine) {
    const TempFile config("bad.toml",
                          "[[level]]\n"
                          "number = 0\n"
                          "sources = 8\n"
                          "destinations = 8\n"
                          "\n"
                          "[[level]]\n"
                          "number = 1\n"
                          "sources = 8\n");
    const ExitResult result = run_routerd({"--config", config.path()});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find(config.path() + ":6: key 'level[1].destinations': missing"), std::string::npos)
        << result.errors;
}

TEST(RouterdCommandLine, UnknownKeyIsRefused) {
    const TempFile config("bad.toml", "[server]\nmax_client = 4\n");
    const ExitResult result = run_routerd({"--config", config.path()});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find(config.path() + ":2: key 'server.max_client': unknown key"), std::string::npos)
        << result.errors;
}

TEST(RouterdCommandLine, SyntaxErrorNamesFileAndLine) {
    const TempFile config("bad.toml", "[server]\nlisten = \"127.0.0.1:0\"\nmax_clients = = 3\n");
    const ExitResult result = run_routerd({"--config", config.path()});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find(config.path() + ":3:"), std::string::npos) << result.errors;
}

TEST(RouterdCommandLine, MissingConfigurationFileExitsWithTwo) {
    const ExitResult result = run_routerd({"--config", "/nonexistent/routerd.toml"});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find("/nonexistent/routerd.toml"), std::string::npos) << result.errors;
}

TEST(RouterdCommandLine, MissingPluginIsNamedAndExitsWithTwo) {
    const ExitResult result =
        run_routerd({"--listen", "127.0.0.1:0", "--plugin", "/nonexistent/libleitch_passthrough.so"});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find("cannot load plug-in /nonexistent/libleitch_passthrough.so"), std::string::npos)
        << result.errors;
}

TEST(RouterdCommandLine, PluginWithoutEntryPointIsNamedAndExitsWithTwo) {
    const ExitResult result = run_routerd({"--listen", "127.0.0.1:0", "--plugin", LEITCH_NO_ENTRY_POINTS_PATH});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find("has no entry point 'create'"), std::string::npos) << result.errors;
}

TEST(RouterdCommandLine, PortInUseExitsWithTwo) {
    const int holder = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(holder, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(holder, 1), 0);
    socklen_t length = sizeof address;
    getsockname(holder, reinterpret_cast<sockaddr*>(&address), &length);
    const std::string listen_on = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));

    const ExitResult result = run_routerd({"--listen", listen_on});
    close(holder);
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find("cannot listen on " + listen_on + ": Address already in use"), std::string::npos)
        << result.errors;
}

TEST(RouterdCommandLine, BadListenAddressExitsWithTwo) {
    const ExitResult result = run_routerd({"--listen", "127.0.0.1"});
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.errors.find("expected HOST:PORT"), std::string::npos) << result.errors;
}

TEST(RouterdCommandLine, UnknownOptionExitsWithTwo) {
    const ExitResult result = run_routerd({"--no-such-option"});
    EXPECT_EQ(result.code, 2);
}

TEST(RouterdCommandLine, VersionAndHelpExitWithZero) {
    const ExitResult version = run_routerd({"--version"});
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.output, "leitch-routerd " LEITCH_PROJECT_VERSION "\n");
    const ExitResult help = run_routerd({"--help"});
    EXPECT_EQ(help.code, 0);
    for (const char* option : {"--config", "--listen", "--plugin", "--verbose", "--version"})
        EXPECT_NE(help.output.find(option), std::string::npos) << option;
}

TEST(RouterdSignals, SigtermClosesEveryClientAndExitsWithZero) {
    Routerd routerd;
    Client client(routerd.port());
    client.send("@ ?\r");
    ASSERT_EQ(client.read_until(kPrompt), "@ ?" + kPrompt);
    EXPECT_EQ(routerd.stop(SIGTERM), 0);
    EXPECT_TRUE(client.closed_by_server(1s));
}

TEST(RouterdSignals, SigintExitsWithZero) {
    Routerd routerd;
    EXPECT_EQ(routerd.stop(SIGINT), 0);
}

TEST(RouterdVerbose, ActivityLogShowsEveryLineAndReplyPerClient) {
    Routerd routerd({"--verbose"});
    Client client(routerd.port());
    client.send("@ ?\r");
    ASSERT_EQ(client.read_until(kPrompt), "@ ?" + kPrompt);
    EXPECT_TRUE(routerd.log_contains("client 1 << \"@ ?\""));
    EXPECT_TRUE(routerd.log_contains("client 1 >> \"@ ?\\r\\n>\""));
}

}  // namespace
}  // namespace simtest
