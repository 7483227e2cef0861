// The simulator driven by command-line clients from Debian's packages.

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>

#include "support/routerd.h"

namespace simtest {
namespace {

// Runs a shell pipeline and returns its standard output.
std::string shell_output(const std::string& command) {
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe) return {};
    std::string out;
    std::array<char, 4096> chunk;
    while (const std::size_t n = std::fread(chunk.data(), 1, chunk.size(), pipe.get())) out.append(chunk.data(), n);
    return out;
}

const std::string kExpected = "@ ?\r\n>@ X:0/5,3\r\n>\r\nS:05,3\r\n>";

TEST(RouterdThirdPartyClient, NetcatSeesEchoPromptAndReport) {
    if (std::string(LEITCH_NC).empty()) GTEST_SKIP() << "nc not installed";
    Routerd routerd;
    // -q 1: after the input ends, keep listening one second for the report.
    const std::string reply = shell_output("printf '@ ?\\r@ X:0/5,3\\r' | " LEITCH_NC " -q 1 127.0.0.1 " +
                                           std::to_string(routerd.port()));
    EXPECT_EQ(reply, kExpected);
}

TEST(RouterdThirdPartyClient, SocatSeesEchoPromptAndReport) {
    if (std::string(LEITCH_SOCAT).empty()) GTEST_SKIP() << "socat not installed";
    Routerd routerd;
    const std::string reply = shell_output("printf '@ ?\\r@ X:0/5,3\\r' | " LEITCH_SOCAT " -t 1 - TCP:127.0.0.1:" +
                                           std::to_string(routerd.port()));
    EXPECT_EQ(reply, kExpected);
}

}  // namespace
}  // namespace simtest
