// [backend] in the configuration file and --backend on the command line: a
// real router named, and errors that name the file, the line and the key.

#include <string>

#include "tests/sim/config_file_test.h"

namespace routerd {
namespace {

using BackendConfig = ConfigFileTest;

TEST_F(BackendConfig, WithoutABackendTheRouterIsSimulated) {
    EXPECT_EQ(load("").backend.protocol, BackendSettings::Protocol::simulated);
    EXPECT_EQ(builtin_config().backend.protocol, BackendSettings::Protocol::simulated);
}

TEST_F(BackendConfig, AVideohubRouterWithoutLevelsServesItsVideoOutputsAsLevel0SizedByTheRouter) {
    const SimulatorConfig config =
        load("[backend]\nprotocol = \"videohub\"\naddress = \"10.0.0.5:9990\"\nkeepalive_ms = 3000\n"
             "answer_timeout_ms = 1500\nconnect_timeout_ms = 800\n");
    EXPECT_EQ(config.backend.protocol, BackendSettings::Protocol::videohub);
    EXPECT_EQ(config.backend.address(), "10.0.0.5:9990");
    EXPECT_EQ(config.backend.keepalive.count(), 3000);
    EXPECT_EQ(config.backend.answer_timeout.count(), 1500);
    EXPECT_EQ(config.backend.connect_timeout.count(), 800);
    ASSERT_EQ(config.levels.size(), 1u);
    EXPECT_EQ(config.levels[0].number, 0);
    EXPECT_EQ(config.levels[0].name, "video");
    EXPECT_EQ(config.levels[0].sources, 0);
    EXPECT_EQ(config.levels[0].destinations, 0);
}

TEST_F(BackendConfig, MonitoringOutputsMayBeASecondLevel) {
    const SimulatorConfig config = load(
        "[backend]\nprotocol = \"videohub\"\naddress = \"hub:9990\"\nvideo_level = 3\nmonitoring_level = 4\n"
        "[[level]]\nnumber = 3\nname = \"SDI\"\n[[level]]\nnumber = 4\nname = \"monitors\"\n"
        "[[level]]\nnumber = 5\nname = \"audio\"\nsources = 8\ndestinations = 8\n");
    EXPECT_EQ(config.backend.video_level, 3);
    EXPECT_EQ(config.backend.monitoring_level, 4);
    ASSERT_EQ(config.levels.size(), 3u);
    EXPECT_EQ(config.levels[0].destinations, 0);
    EXPECT_EQ(config.levels[2].destinations, 8);
}

TEST_F(BackendConfig, AnUnknownProtocolIsRefused) {
    EXPECT_EQ(error_of("[backend]\nprotocol = \"swp09\"\n"),
              "FILE:2: key 'backend.protocol': must be \"simulated\" or \"videohub\", not \"swp09\"");
}

TEST_F(BackendConfig, ARealRouterNeedsAnAddress) {
    EXPECT_EQ(error_of("[backend]\nprotocol = \"videohub\"\n"),
              "FILE:1: key 'backend.address': missing: the router's HOST:PORT");
    EXPECT_EQ(error_of("[backend]\nprotocol = \"videohub\"\naddress = \"hub\"\n"),
              "FILE:3: key 'backend.address': expected HOST:PORT, got \"hub\"");
    EXPECT_EQ(error_of("[backend]\nprotocol = \"videohub\"\naddress = \"hub:0\"\n"),
              "FILE:3: key 'backend.address': a router's port cannot be 0");
}

TEST_F(BackendConfig, TheRoutersLevelTakesNoSizesFromTheFile) {
    EXPECT_EQ(error_of("[backend]\nprotocol = \"videohub\"\naddress = \"hub:9990\"\n"
                       "[[level]]\nnumber = 0\nsources = 12\n"),
              "FILE:6: key 'level[0].sources': the router's own: a level the router serves takes its sizes, "
              "crosspoints and labels from it");
}

TEST_F(BackendConfig, TheRoutersLevelMustBeInTheFile) {
    EXPECT_EQ(error_of("[backend]\nprotocol = \"videohub\"\naddress = \"hub:9990\"\nvideo_level = 2\n"
                       "[[level]]\nnumber = 0\nsources = 12\ndestinations = 12\n"),
              "FILE:5: key 'level': no [[level]] numbered 2, which the router's video outputs are (backend.video_level)");
}

TEST(BackendOption, AloneItGivesOneLevelSizedByTheRouter) {
    SimulatorConfig config = builtin_config();
    apply_backend(config, "videohub:192.168.1.20:9990");
    EXPECT_EQ(config.backend.protocol, BackendSettings::Protocol::videohub);
    EXPECT_EQ(config.backend.address(), "192.168.1.20:9990");
    ASSERT_EQ(config.levels.size(), 1u);
    EXPECT_EQ(config.levels[0].destinations, 0);
    EXPECT_TRUE(config.crosspoints.empty());
}

TEST(BackendOption, AMistakeNamesTheOption) {
    SimulatorConfig config = builtin_config();
    try {
        apply_backend(config, "videohub:hub");
        FAIL() << "no error";
    } catch (const ConfigError& e) {
        EXPECT_STREQ(e.what(), "--backend: expected HOST:PORT, got \"hub\"");
    }
    try {
        apply_backend(config, "sw-p-08:hub:2000");
        FAIL() << "no error";
    } catch (const ConfigError& e) {
        EXPECT_STREQ(e.what(), "--backend: expected \"simulated\" or videohub:HOST:PORT, got \"sw-p-08:hub:2000\"");
    }
}

}  // namespace
}  // namespace routerd
