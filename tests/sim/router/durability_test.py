"""Whatever tells anyone that a change happened is durable: an API answer, a
page's message, a Leitch report, and the prompt that ends a line asking for a
take, an execute, a reset or a lock. Each round makes a change on a simulator
with --state, kills it with SIGKILL the moment the acknowledgement arrives,
and the next round's simulator (on the same file) must hold the change."""

import os
import shutil
import signal
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))
from routerd import LeitchClient, Routerd, WebSocket, request  # noqa: E402

ROUNDS = int(os.environ.get("LEITCH_DURABILITY_ROUNDS", "20"))
PROMPT = "\r\n>"


class Acknowledged(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.mkdtemp(prefix="routerd-durability-")
        self.state = os.path.join(self.directory, "state.db")

    def tearDown(self):
        shutil.rmtree(self.directory, ignore_errors=True)

    def start(self):
        return Routerd("--state", self.state)

    def post(self, routerd, path, body=None):
        return request(routerd, "POST", path, body, headers={"Origin": routerd.url.rstrip("/")})

    def level(self, routerd, number):
        status, level = request(routerd, "GET", "/api/levels/%d" % number)
        self.assertEqual(status, 200)
        return level

    def killed(self, routerd):
        """SIGKILL, at once: nothing the simulator still meant to do gets done."""
        routerd.process.send_signal(signal.SIGKILL)
        routerd.process.wait()
        routerd.close()

    def rounds(self, act, expect):
        """Each round checks what the round before was told (`expect(routerd,
        round)`), then makes its own change (`act(routerd, round)`, which
        returns once the acknowledgement is in) and kills the simulator."""
        for round in range(ROUNDS + 1):
            routerd = self.start()
            try:
                if round > 0:
                    expect(routerd, round - 1)
                if round < ROUNDS:
                    act(routerd, round)
            finally:
                self.killed(routerd)

    @staticmethod
    def destination(round):
        return round % 32

    @staticmethod
    def source(round):
        return (round * 7 + 1) % 31 + 1  # never 0, never the source of the round before

    def test_an_api_take_answered_is_kept(self):
        def act(routerd, round):
            status, reply = self.post(routerd, "/api/levels/0/take",
                                      {"destination": self.destination(round), "source": self.source(round)})
            self.assertEqual((status, reply), (200, {"applied": 1}))

        def expect(routerd, round):
            self.assertEqual(self.level(routerd, 0)["crosspoints"][self.destination(round)], self.source(round),
                             "round %d: an answered take was lost" % round)
        self.rounds(act, expect)

    def test_an_api_lock_answered_is_kept(self):
        def act(routerd, round):
            locked = round % 2 == 0
            status, reply = self.post(routerd, "/api/levels/1/lock", {"destination": 9, "locked": locked})
            self.assertEqual((status, reply), (200, {"destination": 9, "locked": locked}))

        def expect(routerd, round):
            self.assertEqual(self.level(routerd, 1)["locks"][9], 1 if round % 2 == 0 else 0,
                             "round %d: an answered lock was lost" % round)
        self.rounds(act, expect)

    def test_a_recalled_routing_answered_is_kept(self):
        pattern = [(d * 5 + 3) % 32 for d in range(32)]
        routerd = self.start()
        try:
            status, _ = self.post(routerd, "/api/levels/0/take",
                                  {"takes": [{"destination": d, "source": s} for d, s in enumerate(pattern)]})
            self.assertEqual(status, 200)
            status, saved = self.post(routerd, "/api/salvos", {"name": "pattern", "level": 0})
            self.assertEqual((status, saved), (200, {"crosspoints": 32, "levels": [0], "name": "pattern"}))
        finally:
            self.killed(routerd)

        def act(routerd, round):
            # Away from the routing first, then back with one recall.
            status, _ = self.post(routerd, "/api/levels/0/take",
                                  {"takes": [{"destination": d, "source": self.source(round)} for d in range(32)]})
            self.assertEqual(status, 200)
            status, reply = self.post(routerd, "/api/salvos/pattern/recall")
            self.assertEqual((status, reply), (200, {"applied": 32, "name": "pattern", "refused": []}))

        def expect(routerd, round):
            self.assertEqual(self.level(routerd, 0)["crosspoints"], pattern,
                             "round %d: an answered recall was lost" % round)
        self.rounds(act, expect)

    def test_a_saved_routing_answered_is_kept(self):
        def act(routerd, round):
            status, reply = self.post(routerd, "/api/salvos", {"name": "r%d" % round, "level": 1})
            self.assertEqual((status, reply), (200, {"crosspoints": 32, "levels": [1], "name": "r%d" % round}))

        def expect(routerd, round):
            status, listed = request(routerd, "GET", "/api/salvos")
            self.assertEqual(status, 200)
            self.assertIn("r%d" % round, [salvo["name"] for salvo in listed["salvos"]],
                          "round %d: an answered save was lost" % round)
        self.rounds(act, expect)

    def test_a_page_message_showing_a_take_is_kept(self):
        def act(routerd, round):
            page = WebSocket(routerd.web_port, origin=routerd.url.rstrip("/"))
            self.assertEqual(page.status, 101)
            page.receive()  # the greeting
            client = LeitchClient(routerd.port)
            client.send("@ X:1/%X,%X\r" % (self.destination(round), self.source(round)))
            wanted = [1, self.destination(round), self.source(round)]  # level, destination, source
            while True:
                message = page.receive()
                if wanted in message.get("crosspoints", []):
                    return

        def expect(routerd, round):
            self.assertEqual(self.level(routerd, 1)["crosspoints"][self.destination(round)], self.source(round),
                             "round %d: a take shown on a page was lost" % round)
        self.rounds(act, expect)

    def leitch_rounds(self, command, expect, report_mode=False, answer=PROMPT):
        def act(routerd, round):
            client = LeitchClient(routerd.port)
            if report_mode:
                client.report_mode()
            client.send(command(round))
            self.assertIsNotNone(client.read_until(answer(round) if callable(answer) else answer),
                                 "round %d: no acknowledgement" % round)
        self.rounds(act, expect)

    def expect_source(self, level, what):
        def expect(routerd, round):
            self.assertEqual(self.level(routerd, level)["crosspoints"][self.destination(round)], self.source(round),
                             "round %d: %s was lost" % (round, what))
        return expect

    def test_the_prompt_after_a_take_is_kept(self):
        self.leitch_rounds(lambda r: "@ X:0/%X,%X\r" % (self.destination(r), self.source(r)),
                           self.expect_source(0, "a take whose prompt came"))

    def test_a_report_of_a_take_is_kept(self):
        self.leitch_rounds(lambda r: "@ X:1/%X,%X\r" % (self.destination(r), self.source(r)),
                           self.expect_source(1, "a reported take"), report_mode=True,
                           answer=lambda r: "S:1%X,%X" % (self.destination(r), self.source(r)))

    def test_the_prompt_after_an_execute_is_kept(self):
        self.leitch_rounds(lambda r: "@ P:0/%X,%X\r@ B:E\r" % (self.destination(r), self.source(r)),
                           self.expect_source(0, "an executed preset whose prompt came"),
                           answer=PROMPT + PROMPT)

    def test_the_prompt_after_a_lock_is_kept(self):
        def expect(routerd, round):
            self.assertEqual(self.level(routerd, 0)["locks"][self.destination(round)], 1 if round % 2 == 0 else 0,
                             "round %d: a lock whose prompt came was lost" % round)
        self.leitch_rounds(lambda r: "@ W:0/%X,1,%d\r" % (self.destination(r), 1 if r % 2 == 0 else 0), expect)

    def test_a_lock_report_is_kept(self):
        def expect(routerd, round):
            self.assertEqual(self.level(routerd, 1)["locks"][3], 1 if round % 2 == 0 else 0,
                             "round %d: a reported lock was lost" % round)
        self.leitch_rounds(lambda r: "@ W:1/3,1,%d\r" % (1 if r % 2 == 0 else 0), expect, report_mode=True,
                           answer=lambda r: "W!13,1,%d" % (1 if r % 2 == 0 else 0))

    def test_the_prompt_after_a_reset_is_kept(self):
        def act(routerd, round):
            status, _ = self.post(routerd, "/api/levels/0/take",
                                  {"takes": [{"destination": d, "source": self.source(round)} for d in range(32)]})
            self.assertEqual(status, 200)
            status, _ = self.post(routerd, "/api/levels/1/lock", {"destination": self.destination(round),
                                                                   "locked": True})
            self.assertEqual(status, 200)
            client = LeitchClient(routerd.port)
            client.send("@ Z:\r")
            self.assertIsNotNone(client.read_until(PROMPT), "round %d: no prompt" % round)

        def expect(routerd, round):
            for number in (0, 1):
                level = self.level(routerd, number)
                self.assertEqual(level["crosspoints"], [0] * 32, "round %d: a reset was lost" % round)
                self.assertEqual(level["locks"], [0] * 32, "round %d: a reset was lost" % round)
        self.rounds(act, expect)


if __name__ == "__main__":
    unittest.main()
