// Part of every test program that starts leitch-routerd through the harness:
// a sanitizer report the simulator wrote fails the test that was running, and
// the failure holds the report.

#include <gtest/gtest.h>

#include <string>

#include "support/routerd.h"

namespace {

void fail_the_test(const std::string& report) { ADD_FAILURE() << report; }

struct FailTestsOnReports {
    FailTestsOnReports() { simtest::on_sanitizer_report(fail_the_test); }
} fail_tests_on_reports;

}  // namespace
