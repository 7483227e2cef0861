"""The sanitizer build: a report written inside the simulator reaches the
Python harness (tests/support/routerd.py) and fails the test that started it.
The converter does what no converter may on request (faulty_plugin.cpp):
"heap" reads freed memory, "overflow" adds one to the largest int, "leak"
loses memory that is reported at exit."""

import os
import sys
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from routerd import LeitchClient, Routerd, run_routerd  # noqa: E402

FAULTY = os.environ["LEITCH_FAULTY_PLUGIN"]


def wait_for_end(routerd, timeout=60):
    deadline = time.monotonic() + timeout
    while routerd.process.poll() is None and time.monotonic() < deadline:
        time.sleep(0.05)
    return routerd.process.poll()


class SanitizerReports(unittest.TestCase):

    def fault(self, line):
        """The report that closing the simulator raised, after `line`."""
        routerd = Routerd("--plugin", FAULTY, http="off")
        client = LeitchClient(routerd.port)
        client.send(line + "\r")
        self.assertEqual(wait_for_end(routerd), 1)
        client.close()
        with self.assertRaises(AssertionError) as raised:
            routerd.close()
        return str(raised.exception)

    def test_a_use_after_free_fails_the_test_with_the_report(self):
        report = self.fault("heap")
        self.assertRegex(report, r"^leitch-routerd \(pid \d+\) wrote a sanitizer report:\n")
        self.assertRegex(report, r"\n==\d+==ERROR: AddressSanitizer: heap-use-after-free on address ")

    def test_undefined_behaviour_fails_the_test_with_the_report(self):
        self.assertIn("runtime error: signed integer overflow: 2147483647 + 1 cannot be represented in type 'int'",
                      self.fault("overflow"))

    def test_a_leak_found_at_exit_fails_stop_with_the_report(self):
        routerd = Routerd("--plugin", FAULTY, http="off")
        self.addCleanup(routerd.close)
        client = LeitchClient(routerd.port)
        client.send("leak\r")
        self.assertEqual(client.read_until("leaked\r\n"), "leaked\r\n")
        client.close()
        with self.assertRaises(AssertionError) as raised:
            routerd.stop(timeout=60)
        self.assertRegex(str(raised.exception), r"==\d+==ERROR: LeakSanitizer: detected memory leaks")
        self.assertEqual(routerd.process.returncode, 1)

    def test_a_run_to_its_end_has_its_report_read_too(self):
        os.environ["LEITCH_FAULT_AT_LOAD"] = "1"
        try:
            with self.assertRaises(AssertionError) as raised:
                run_routerd("--listen", "127.0.0.1:0", "--plugin", FAULTY, timeout=60)
        finally:
            del os.environ["LEITCH_FAULT_AT_LOAD"]
        self.assertRegex(str(raised.exception), r"==\d+==ERROR: AddressSanitizer: heap-use-after-free")

    def test_the_same_converter_without_a_fault_fails_nothing(self):
        with Routerd("--plugin", FAULTY, http="off") as routerd:
            client = LeitchClient(routerd.port)
            client.send("hello\r")
            self.assertEqual(client.read_until("?\r\n"), "?\r\n")
            client.close()
            self.assertEqual(routerd.stop(timeout=60), 0)


if __name__ == "__main__":
    unittest.main()
