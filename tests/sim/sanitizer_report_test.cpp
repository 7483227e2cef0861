// The sanitizer build: a report written inside the simulator reaches the
// harness and fails the test that started it, whatever the runtime that
// wrote it. The converter here does what no converter may on request
// (faulty_plugin.cpp); the simulator's log captures standard error, and
// without sim/sanitizer_hooks.cpp every one of these reports was lost.

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <signal.h>

#include <cstdlib>
#include <string>

#include "support/child_process.h"
#include "support/routerd.h"

namespace simtest {
namespace {

const std::vector<std::string> kFaultyConverter{"--plugin", LEITCH_FAULTY_PLUGIN_PATH};

// A client asks the converter for a fault that ends the simulator at once.
void end_with_fault(const std::string& line) {
    Routerd routerd(kFaultyConverter);
    Client client(routerd.port());
    client.send(line + "\r");
    ASSERT_TRUE(testhost::eventually([&] { return !routerd.running(); }, 60s));
    EXPECT_EQ(routerd.end_status(), 1);
    EXPECT_NE(routerd.log().find("faulty converter: " + line + "\n"), std::string::npos) << routerd.log();
}

void use_after_free() { end_with_fault("heap"); }
void signed_overflow() { end_with_fault("overflow"); }

// A leak is found when the simulator exits, after its log has let standard error go.
void leak_then_stop() {
    Routerd routerd(kFaultyConverter);
    Client client(routerd.port());
    client.send("leak\r");
    ASSERT_EQ(client.read_until("leaked\r\n"), "leaked\r\n");
    EXPECT_EQ(routerd.stop(SIGTERM, 60s), 1);
}

// The converter reads freed memory as it is loaded, before the simulator listens.
void fault_at_load() {
    setenv("LEITCH_FAULT_AT_LOAD", "1", 1);
    const ExitResult result = run_routerd({"--listen", "127.0.0.1:0", "--http", "off", "--plugin",
                                           LEITCH_FAULTY_PLUGIN_PATH}, 60s);
    unsetenv("LEITCH_FAULT_AT_LOAD");
    EXPECT_EQ(result.code, 1);
}

TEST(SanitizerReports, AUseAfterFreeInTheConverterFailsTheTestWithTheReport) {
    EXPECT_NONFATAL_FAILURE(use_after_free(), "==ERROR: AddressSanitizer: heap-use-after-free on address ");
}

TEST(SanitizerReports, TheReportNamesWhereTheFaultWas) {
    EXPECT_NONFATAL_FAILURE(use_after_free(), "in read_freed_memory");
}

TEST(SanitizerReports, UndefinedBehaviourInTheConverterFailsTheTestWithTheReport) {
    EXPECT_NONFATAL_FAILURE(signed_overflow(),
                            "runtime error: signed integer overflow: 2147483647 + 1 cannot be represented in "
                            "type 'int'");
}

TEST(SanitizerReports, ALeakFoundAtExitFailsTheTestWithTheReport) {
    EXPECT_NONFATAL_FAILURE(leak_then_stop(), "==ERROR: LeakSanitizer: detected memory leaks");
}

TEST(SanitizerReports, ASimulatorRunToItsEndHasItsReportReadToo) {
    EXPECT_NONFATAL_FAILURE(fault_at_load(), "==ERROR: AddressSanitizer: heap-use-after-free on address ");
}

TEST(SanitizerReports, TheSameConverterWithoutAFaultFailsNothing) {
    Routerd routerd(kFaultyConverter);
    Client client(routerd.port());
    client.send("hello\r");
    EXPECT_EQ(client.read_until("?\r\n"), "?\r\n");
    EXPECT_EQ(routerd.stop(SIGTERM, 60s), 0);
    EXPECT_EQ(sanitizer_report(routerd.log()), "");
}

}  // namespace
}  // namespace simtest
