// In the sanitizer build only (LEITCH_SANITIZE): the runtimes' reports reach
// the real standard error. The log captures descriptor 2 into a pipe that only
// the event loop reads (log.h), and a report is followed by the end of the
// process: written into that pipe it would be lost, and the simulator would
// just exit with status 1. The runtimes call these hooks before they write.

#include <cstdlib>

#include "sim/log.h"

extern "C" {

// AddressSanitizer, before an error report (use after free, overflow, a
// deadly signal...).
void __asan_on_error() { routerd::give_back_standard_error(); }

// UndefinedBehaviorSanitizer, before each report. GCC's libubsan has no
// report path or descriptor of its own to set: its __sanitizer_set_report_*
// and the log_path of UBSAN_OPTIONS reach libasan's copy, and its reports
// always go to descriptor 2.
void __ubsan_on_report() { routerd::give_back_standard_error(); }

}  // extern "C"

namespace {

// LeakSanitizer reports at exit, after the exit handlers registered once its
// runtime had started, this one included: a leak report too reaches the real
// standard error, even when exit() is called while the log still captures it.
struct GiveBackAtExit {
    GiveBackAtExit() { std::atexit(routerd::give_back_standard_error); }
} give_back_at_exit;

}  // namespace
