"""leitch-routerd in front of a Videohub server nobody on this team wrote: the
npm package @bitfocusas/mockup-bmd-videohub (tests/support/videohub_mockup.py).

It is looser than the protocol, and the gateway copes with each way:
- its dump has no END PRELUDE: the gateway counts the state as read once the
  routing and the locks of the video outputs have come;
- its preamble says "Version: 2.3 " (a trailing space);
- it reads a request per TCP read: the gateway writes each block in one write;
- its locks have no owners (every client reads O, never L), so a lock taken
  through the gateway does not stop another client, and a lock taken by
  another client reads O to the gateway too: these tests do not rely on locks
  blocking anyone;
- it reports a take even when nothing changed, and an index past its counts
  is accepted and broadcast: the gateway ignores items outside the counts.
Skipped (exit code 77) when the package or node is missing, unless
LEITCH_REQUIRE_MOCKUP is set: then that fails."""

import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from routerd import LeitchClient, Routerd, request  # noqa: E402
from videohub_gateway_test import DirectClient  # noqa: E402
from videohub_mockup import VideohubMockup, run_tests_unless_unavailable  # noqa: E402


class AgainstTheMockup(unittest.TestCase):
    def setUp(self):
        self.mockup = VideohubMockup(inputs=16, outputs=16)
        self.port = self.mockup.start()
        self.routerd = Routerd("--backend", "videohub:127.0.0.1:%d" % self.port, announced=3)
        self.closing = []

    def tearDown(self):
        for thing in self.closing:
            thing.close()
        self.routerd.close()
        self.mockup.stop()

    def leitch(self):
        client = LeitchClient(self.routerd.port)
        self.closing.append(client)
        client.report_mode()
        return client

    def test_it_answers_and_sizes_the_level(self):
        self.assertRegex(self.routerd.announcements[2],
                         r"^backend videohub 127\.0\.0\.1:%d: answered, .*16 inputs, 16 outputs$" % self.port)
        status, level = request(self.routerd, "GET", "/api/levels/0")
        self.assertEqual((status, level["sources"], level["destinations"]), (200, 16, 16))

    def test_a_leitch_take_is_carried_out_and_reported(self):
        client = self.leitch()
        client.send("@ X:0/5,3\r")
        self.assertEqual(client.read_until("S:05,3\r\n>"), "@ X:0/5,3\r\n>\r\nS:05,3\r\n>")
        direct = DirectClient(self.port)
        self.closing.append(direct)
        dump = direct.read_until(b"VIDEO OUTPUT LOCKS:")
        self.assertIn(b"\n5 3\n", dump)

    def test_a_take_by_another_client_reaches_the_leitch_clients_and_the_api(self):
        client = self.leitch()
        direct = DirectClient(self.port)
        self.closing.append(direct)
        self.assertIsNotNone(direct.read_until(b"VIDEO OUTPUT LOCKS:"))
        direct.send(b"VIDEO OUTPUT ROUTING:\n9 14\n\n")
        self.assertEqual(client.read_until("\r\n>"), "\r\nS:09,E\r\n>")
        status, level = request(self.routerd, "GET", "/api/levels/0")
        self.assertEqual(level["crosspoints"][9], 14)

    def test_presets_and_execute_are_one_block_and_the_api_waits_for_the_router(self):
        client = self.leitch()
        client.send("@ P:0/1,2\r@ P:0/2,3\r@ B:E\r")
        self.assertIsNotNone(client.read_until("S:02,3"))
        status, body = request(self.routerd, "POST", "/api/levels/0/take",
                               {"takes": [{"destination": 6, "source": 7}, {"destination": 8, "source": 9}]})
        self.assertEqual((status, body), (200, {"applied": 2}))
        status, level = request(self.routerd, "GET", "/api/levels/0")
        self.assertEqual([level["crosspoints"][d] for d in (1, 2, 6, 8)], [2, 3, 7, 9])


if __name__ == "__main__":
    sys.exit(run_tests_unless_unavailable())
