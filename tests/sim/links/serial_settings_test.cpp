// --serial's DEVICE[:BAUD[,FORMAT[,rtscts]]].

#include <gtest/gtest.h>

#include <stdexcept>

#include "sim/links/serial_settings.h"

namespace routerd {
namespace {

TEST(SerialSettings, ADeviceAloneIs38400EightNoneOne) {
    const SerialSettings s = parse_serial("/dev/ttyUSB0");
    EXPECT_EQ(s.device, "/dev/ttyUSB0");
    EXPECT_EQ(s.describe(), "38400 8N1");
}

TEST(SerialSettings, BaudFormatAndFlowControl) {
    const SerialSettings s = parse_serial("/dev/ttyS1:9600,7E2,rtscts");
    EXPECT_EQ(s.device, "/dev/ttyS1");
    EXPECT_EQ(s.baud, 9600u);
    EXPECT_EQ(s.data_bits, 7u);
    EXPECT_EQ(s.parity, 'E');
    EXPECT_EQ(s.stop_bits, 2u);
    EXPECT_TRUE(s.rts_cts);
    EXPECT_EQ(s.describe(), "9600 7E2 RTS/CTS");
}

TEST(SerialSettings, BaudAlone) {
    const SerialSettings s = parse_serial("/dev/ttyUSB0:115200");
    EXPECT_EQ(s.baud, 115200u);
    EXPECT_EQ(s.describe(), "115200 8N1");
}

TEST(SerialSettings, ColonsInTheDeviceNameStayInIt) {
    const std::string device = "/dev/serial/by-path/pci-0000:00:14.0-usb-0:1:1.0-port0";
    EXPECT_EQ(parse_serial(device).device, device);
    const SerialSettings s = parse_serial(device + ":230400,8O1");
    EXPECT_EQ(s.device, device);
    EXPECT_EQ(s.describe(), "230400 8O1");
}

TEST(SerialSettings, OnlyStandardBaudRatesFrom1200To230400) {
    EXPECT_EQ(parse_serial("/dev/x:1200").baud, 1200u);
    for (const char* bad : {"/dev/x:1234", "/dev/x:300", "/dev/x:460800", "/dev/x:0", "/dev/x:99999999"})
        EXPECT_THROW(parse_serial(bad), std::invalid_argument) << bad;
}

TEST(SerialSettings, BadFormatsAreRefused) {
    for (const char* bad : {"/dev/x:9600,9N1", "/dev/x:9600,4N1", "/dev/x:9600,8X1", "/dev/x:9600,8N3",
                            "/dev/x:9600,", "/dev/x:9600,8N1,xonxoff", "/dev/x:9600,8N1,rtscts,"})
        EXPECT_THROW(parse_serial(bad), std::invalid_argument) << bad;
}

TEST(SerialSettings, ParityMayBeLowerCase) {
    EXPECT_EQ(parse_serial("/dev/x:9600,8e1").describe(), "9600 8E1");
}

TEST(SerialSettings, AnEmptyDeviceIsRefused) {
    EXPECT_THROW(parse_serial(""), std::invalid_argument);
    EXPECT_THROW(parse_serial(":9600"), std::invalid_argument);
}

TEST(SerialSettings, TheMessageSaysWhatIsWrong) {
    try {
        parse_serial("/dev/x:1234");
        FAIL();
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(),
                     "baud rate must be one of 1200, 2400, 4800, 9600, 19200, 38400, 57600, 115200, 230400; got 1234");
    }
}

}  // namespace
}  // namespace routerd
