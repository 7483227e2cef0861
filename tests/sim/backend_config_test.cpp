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
              "FILE:2: key 'backend.protocol': must be \"simulated\", \"videohub\" or \"swp08\", not \"swp09\"");
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
        EXPECT_STREQ(e.what(),
                     "--backend: expected \"simulated\", videohub:HOST:PORT, swp08:HOST:PORT or "
                     "swp08:serial:DEVICE[:BAUD[,FORMAT]], got \"sw-p-08:hub:2000\"");
    }
    try {
        apply_backend(config, "videohub:serial:/dev/ttyS0");
        FAIL() << "no error";
    } catch (const ConfigError& e) {
        EXPECT_STREQ(e.what(), "--backend: a Videohub router is reached over TCP only, not \"serial:/dev/ttyS0\"");
    }
}

// ---------------------------------------------------------------------------
// SW-P-08

TEST(BackendOption, AnSwp08RouterAloneServesTheBuiltInLevelsAsMatrix0Levels0And1) {
    SimulatorConfig config = builtin_config();
    apply_backend(config, "swp08:127.0.0.1:8910");
    EXPECT_EQ(config.backend.protocol, BackendSettings::Protocol::swp08);
    EXPECT_EQ(config.backend.address(), "127.0.0.1:8910");
    ASSERT_EQ(config.levels.size(), 2u);
    EXPECT_EQ(config.levels[0].sources, 32);
    EXPECT_EQ(config.levels[1].destinations, 32);
    EXPECT_TRUE(config.crosspoints.empty());
    ASSERT_EQ(config.backend.swp08.levels.size(), 2u);
    EXPECT_EQ(config.backend.swp08.levels.at(0).matrix, 0);
    EXPECT_EQ(config.backend.swp08.levels.at(0).level, 0);
    EXPECT_EQ(config.backend.swp08.levels.at(1).level, 1);
}

TEST(BackendOption, AnSwp08RouterOnASerialPortIs38400_8N1UnlessTold) {
    SimulatorConfig config = builtin_config();
    apply_backend(config, "swp08:serial:/dev/ttyUSB0");
    ASSERT_TRUE(config.backend.router.serial);
    EXPECT_EQ(config.backend.address(), "/dev/ttyUSB0");
    EXPECT_EQ(config.backend.router.serial->describe(), "38400 8N1");
    apply_backend(config, "swp08:serial:/dev/ttyUSB0:9600,8E1");
    EXPECT_EQ(config.backend.router.serial->describe(), "9600 8E1");
}

TEST_F(BackendConfig, EachLevelNamesItsMatrixAndLevelOnAnSwp08Router) {
    const SimulatorConfig config = load(
        "[backend]\nprotocol = \"swp08\"\naddress = \"10.0.0.9:2008\"\naddress2 = \"10.0.0.10:2008\"\n"
        "ack_timeout_ms = 500\nresends = 3\nconfirm_timeout_ms = 700\nconnect_interval_ms = 5\nprotect_device = 77\n"
        "name_length = 16\nimplementation_query = false\ngroup_salvos = false\nsalvo = 9\n"
        "[[level]]\nnumber = 0\nsources = 64\ndestinations = 32\nmatrix = 1\nlevel = 3\n"
        "[[level]]\nnumber = 4\nsources = 8\ndestinations = 8\n");
    const Swp08Settings& swp08 = config.backend.swp08;
    ASSERT_TRUE(swp08.address2);
    EXPECT_EQ(swp08.address2->describe(), "10.0.0.10:2008");
    EXPECT_EQ(swp08.ack_timeout.count(), 500);
    EXPECT_EQ(swp08.resends, 3);
    EXPECT_EQ(swp08.confirm_timeout.count(), 700);
    EXPECT_EQ(swp08.connect_interval.count(), 5);
    EXPECT_EQ(swp08.protect_device, 77);
    EXPECT_EQ(swp08.name_length, 16);
    EXPECT_FALSE(swp08.implementation_query);
    EXPECT_FALSE(swp08.group_salvos);
    EXPECT_EQ(swp08.salvo, 9);
    EXPECT_EQ(swp08.levels.at(0).matrix, 1);
    EXPECT_EQ(swp08.levels.at(0).level, 3);
    EXPECT_EQ(swp08.levels.at(4).matrix, 0);
    EXPECT_EQ(swp08.levels.at(4).level, 4);
    EXPECT_EQ(config.levels[0].sources, 64);
}

TEST_F(BackendConfig, TwoLevelsCannotBeTheSamePlaceOnTheRouter) {
    EXPECT_EQ(error_of("[backend]\nprotocol = \"swp08\"\naddress = \"r:2008\"\n"
                       "[[level]]\nnumber = 0\nsources = 8\ndestinations = 8\nlevel = 1\n"
                       "[[level]]\nnumber = 1\nsources = 8\ndestinations = 8\n"),
              "FILE:4: key 'level': levels 0 and 1 are both matrix 0 level 1 of the router");
}

TEST_F(BackendConfig, ALevelNumberedPast255NeedsItsSwp08Level) {
    EXPECT_EQ(error_of("[backend]\nprotocol = \"swp08\"\naddress = \"r:2008\"\n"
                       "[[level]]\nnumber = 300\nsources = 8\ndestinations = 8\n"),
              "FILE:4: key 'level': level 300 needs its SW-P-08 level (0 to 255) named: level = L in its [[level]]");
}

TEST_F(BackendConfig, AnSwp08RoutersCrosspointsAreItsOwn) {
    EXPECT_EQ(error_of("[backend]\nprotocol = \"swp08\"\naddress = \"r:2008\"\n"
                       "[[level]]\nnumber = 0\nsources = 8\ndestinations = 8\ncrosspoints = [{destination = 1, source = 2}]\n"),
              "FILE:8: key 'level[0].crosspoints': the router's own: an SW-P-08 router's crosspoints and protects are "
              "read from it");
}

TEST_F(BackendConfig, Swp08KeysAreRefusedForOtherRoutersAndTheOtherWayRound) {
    EXPECT_EQ(error_of("[backend]\nprotocol = \"videohub\"\naddress = \"hub:9990\"\nsalvo = 3\n"),
              "FILE:4: key 'backend.salvo': only for an SW-P-08 router");
    EXPECT_EQ(error_of("[backend]\nprotocol = \"swp08\"\naddress = \"r:2008\"\nvideo_level = 1\n"),
              "FILE:4: key 'backend.video_level': an SW-P-08 router's levels are named in [[level]] (matrix, level)");
    EXPECT_EQ(error_of("[backend]\nprotocol = \"swp08\"\naddress = \"r:2008\"\nname_length = 10\n"),
              "FILE:4: key 'backend.name_length': must be 4, 8, 12, 16 or 32 characters");
    EXPECT_EQ(error_of("[backend]\nprotocol = \"swp08\"\n"),
              "FILE:1: key 'backend.address': missing: the router's HOST:PORT or serial:DEVICE");
}

}  // namespace
}  // namespace routerd
