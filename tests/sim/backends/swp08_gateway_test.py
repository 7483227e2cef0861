"""leitch-routerd in front of an SW-P-08 router (the fixture router of
tests/support), end to end over real sockets and a serial pty pair: Leitch
clients, the HTTP API and a direct SW-P-08 controller all see one router."""

import os
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))

from routerd import LeitchClient, Routerd, request, wait_until  # noqa: E402
from swp08_client import Swp08Client, connect  # noqa: E402
from swp08_router import Swp08Router  # noqa: E402

OUR_DEVICE = 1023

# Short timeouts, so that outages and refusals show within a test.
QUICK = """
[backend]
protocol = "swp08"
address = "{address}"
{extra}
keepalive_ms = 500
answer_timeout_ms = 300
ack_timeout_ms = 200
resends = 2
confirm_timeout_ms = 400
connect_timeout_ms = 500

[[listen]]
address = "127.0.0.1:0"
"""


def commands(router, wanted):
    """The frames of these command bytes the router received, command byte first."""
    return [bytes([command]) + bytes(message) for _, command, message in router.requests() if command in wanted]


class Gateway(unittest.TestCase):
    """One fixture router and one leitch-routerd in front of it, per test."""

    router_options = {}
    extra_backend = ""     # more [backend] lines
    levels_toml = ""       # [[level]] tables; none: the built-in two levels
    quick = True

    def setUp(self):
        self.directory = tempfile.mkdtemp(prefix="routerd-swp08-")
        self.router = Swp08Router(resend_timeout=0.2, **self.router_options)
        self.port = self.router.start()
        self.routerd = self.start_routerd()
        self.clients = []

    def start_routerd(self, *more):
        if not self.quick:
            return Routerd("--backend", "swp08:127.0.0.1:%d" % self.port, *more, announced=3)
        path = os.path.join(self.directory, "routerd.toml")
        with open(path, "w") as f:
            f.write(QUICK.format(address="127.0.0.1:%d" % self.port,
                                 extra=self.extra_backend.format(port2=self.router.port2 or 0)))
            f.write(self.levels_toml)
        return Routerd("--config", path, *more, announced=3)

    def tearDown(self):
        for client in self.clients:
            client.close()
        self.routerd.close()
        self.router.stop()
        shutil.rmtree(self.directory)

    def leitch(self, report_mode=True):
        client = LeitchClient(self.routerd.port)
        self.clients.append(client)
        if report_mode:
            client.report_mode()
        return client

    def direct(self):
        client = Swp08Client(self.port)
        self.clients.append(client)
        return client

    def level(self, number=0):
        status, level = request(self.routerd, "GET", "/api/levels/%d" % number)
        self.assertEqual(status, 200)
        return level

    def router_link(self):
        status, links = request(self.routerd, "GET", "/api/links")
        self.assertEqual(status, 200)
        return [link for link in links["links"] if link["kind"] == "router"][0]


class StartUp(Gateway):
    quick = False

    def test_the_start_up_line_says_the_router_answered(self):
        self.assertEqual(self.routerd.announcements[2],
                         "backend swp08 127.0.0.1:%d: answered, 2 levels, group salvos" % self.port)

    def test_the_built_in_levels_are_matrix_0_levels_0_and_1_read_from_the_router(self):
        self.assertEqual(commands(self.router, {0x15}), [b"\x15\x00", b"\x15\x01"])
        level = self.level(0)
        self.assertEqual((level["sources"], level["destinations"]), (32, 32))
        # The fixture starts with destination d on source d.
        self.assertEqual(level["crosspoints"], list(range(32)))

    def test_the_routers_names_label_the_sources_and_destinations(self):
        level = self.level(1)
        self.assertEqual(level["source_labels"][:2], ["SRC 1", "SRC 2"])
        self.assertEqual(level["destination_labels"][:2], ["DST 1", "DST 2"])
        # Eight-character names, from every level's sources and the matrix's destination associations.
        self.assertEqual(commands(self.router, {0x64, 0x66}), [b"\x64\x00\x01", b"\x64\x01\x01", b"\x66\x00\x01"])

    def test_the_links_show_the_router_up(self):
        self.assertEqual(self.router_link(), {"kind": "router", "where": "127.0.0.1:%d" % self.port,
                                              "settings": "SW-P-08, 2 levels, group salvos",
                                              "up": True, "problem": ""})

    def test_a_router_that_sends_dumps_is_not_asked_destination_by_destination(self):
        self.assertEqual(commands(self.router, {0x01}), [])


class ReadWithoutDumps(Gateway):
    router_options = {"dumps": "none"}

    def test_every_destination_is_interrogated_when_no_dump_comes(self):
        self.router.set_crosspoint(0, 1, 31, 4)
        self.assertEqual(self.level(0)["crosspoints"], list(range(32)))
        interrogates = commands(self.router, {0x01})
        self.assertEqual(len(interrogates), 64)
        self.assertEqual(interrogates[:2], [b"\x01\x00\x00\x00", b"\x01\x00\x00\x01"])
        self.assertTrue(self.routerd.log_contains("sent no tally dump for matrix 0 level 0: each destination is asked for"))


class ReadFromATallyStream(Gateway):
    router_options = {"dumps": "tallies"}

    def test_a_dump_sent_as_tallies_is_read(self):
        self.assertEqual(self.level(1)["crosspoints"], list(range(32)))
        self.assertEqual(commands(self.router, {0x01}), [])


class ReadFromByteDumps(Gateway):
    router_options = {"dumps": "byte"}

    def test_a_byte_dump_is_read(self):
        self.assertEqual(self.level(0)["crosspoints"], list(range(32)))


class Takes(Gateway):
    def test_a_leitch_take_is_a_connect_and_its_connected_report_comes_back(self):
        client = self.leitch()
        client.send("@ X:0/5,3\r")
        self.assertEqual(client.read_until("S:05,3\r\n>"), "@ X:0/5,3\r\n>\r\nS:05,3\r\n>")
        self.assertEqual(self.router.tally(0, 0, 5), 3)
        self.assertEqual(commands(self.router, {0x02}), [bytes.fromhex("02 00 00 05 03")])

    def test_a_take_on_level_1_is_matrix_0_level_1(self):
        client = self.leitch()
        client.send("@ X:1/10,1F\r")
        self.assertIsNotNone(client.read_until("S:110,1F"))
        self.assertEqual(self.router.tally(0, 1, 16), 31)
        # Destination 16: its remainder 0x10 goes doubled on the wire.
        self.assertEqual(commands(self.router, {0x02}), [bytes.fromhex("02 01 00 10 1F")])

    def test_a_take_made_at_the_router_reaches_every_report_mode_client_and_the_api(self):
        first, second = self.leitch(), self.leitch()
        self.router.set_crosspoint(0, 0, 7, 2)
        self.assertEqual(first.read_until("\r\n>"), "\r\nS:07,2\r\n>")
        self.assertEqual(second.read_until("\r\n>"), "\r\nS:07,2\r\n>")
        self.assertEqual(self.level(0)["crosspoints"][7], 2)

    def test_a_take_from_a_direct_controller_reaches_the_leitch_clients(self):
        client = self.leitch()
        direct = self.direct()
        self.assertEqual(direct.send(connect(0, 0, 3, 9)), "ack")
        self.assertEqual(client.read_until("\r\n>"), "\r\nS:03,9\r\n>")

    def test_an_api_take_is_answered_once_the_router_reports_it(self):
        status, body = request(self.routerd, "POST", "/api/levels/0/take", {"destination": 4, "source": 11})
        self.assertEqual((status, body), (200, {"applied": 1}))
        self.assertEqual(self.router.tally(0, 0, 4), 11)

    def test_a_connect_the_router_never_confirms_is_refused_with_409(self):
        self.router.never_confirm = True
        client = self.leitch()
        status, body = request(self.routerd, "POST", "/api/levels/0/take", {"destination": 4, "source": 11})
        self.assertEqual((status, body["error"]), (409, "refused by the router"))
        self.assertEqual(self.level(0)["crosspoints"][4], 4)
        self.assertIsNone(client.read_until("S:", timeout=0.3))
        self.assertTrue(self.routerd.log_contains(
            "did not report a take as made within 400 ms (matrix 0 level 0 destination 4 from source 11)"))

    def test_a_take_to_what_the_router_carries_is_applied_without_asking_it(self):
        client = self.leitch()
        client.send("@ X:0/5,5\r")
        self.assertIsNotNone(client.read_until("S:05,5"))
        self.assertEqual(commands(self.router, {0x02}), [])


class Salvos(Gateway):
    def test_presets_and_execute_are_one_group_salvo(self):
        client = self.leitch()
        client.send("@ P:0/1,2\r@ P:0/2,3\r@ P:1/A,4\r@ B:E\r")
        self.assertIsNotNone(client.read_until("S:1A,4"))
        self.assertEqual(self.router.tally(0, 0, 1), 2)
        self.assertEqual(self.router.tally(0, 1, 10), 4)
        self.assertEqual(commands(self.router, {0x78, 0x79, 0x02}), [
            bytes.fromhex("79 01 7F"),  # the group cleared once, at start-up
            bytes.fromhex("78 00 00 01 02 7F"), bytes.fromhex("78 00 00 02 03 7F"),
            bytes.fromhex("78 01 00 0A 04 7F"), bytes.fromhex("79 00 7F")])

    def test_presets_cleared_never_reach_the_router(self):
        client = self.leitch()
        client.send("@ P:0/1,2\r@ P:0/2,3\r@ B:C\r@ B:E\r")
        self.assertIsNone(client.read_until("S:", timeout=0.5))
        self.assertEqual(commands(self.router, {0x78, 0x02}), [])



class SavedRoutings(Gateway):
    def start_routerd(self, *more):
        return super().start_routerd("--state", os.path.join(self.directory, "state.db"), *more)

    def test_a_saved_routing_recalled_is_one_group_salvo(self):
        self.assertEqual(request(self.routerd, "POST", "/api/salvos", {"name": "morning"})[0], 200)
        for destination in range(32):
            self.router.set_crosspoint(0, 0, destination, 31 - destination)
        self.assertTrue(wait_until(lambda: self.level(0)["crosspoints"] == list(range(31, -1, -1))))
        status, body = request(self.routerd, "POST", "/api/salvos/morning/recall")
        self.assertEqual((status, body["applied"], body["refused"]), (200, 64, []))
        self.assertEqual(self.router.tallies(0, 0), list(range(32)))
        # Level 1 carries what was saved: only level 0 goes to the router.
        self.assertEqual(len(commands(self.router, {0x78})), 32)
        self.assertEqual(commands(self.router, {0x02}), [])


class PacedConnectsWithoutSalvos(Gateway):
    router_options = {"group_salvos": False}

    def test_presets_and_execute_are_connects_when_the_router_has_no_salvos(self):
        self.assertEqual(self.routerd.announcements[2],
                         "backend swp08 127.0.0.1:%d: answered, 2 levels, connects paced" % self.port)
        client = self.leitch()
        client.send("@ P:0/1,2\r@ P:0/2,3\r@ B:E\r")
        self.assertIsNotNone(client.read_until("S:02,3"))
        self.assertEqual(commands(self.router, {0x02}), [bytes.fromhex("02 00 00 01 02"), bytes.fromhex("02 00 00 02 03")])
        self.assertEqual(commands(self.router, {0x78, 0x79}), [])


class PacedBacklog(Gateway):
    router_options = {"group_salvos": False}
    extra_backend = "connect_interval_ms = 50"

    def test_takes_past_what_the_pace_lets_leave_in_time_are_refused_as_busy(self):
        client = self.leitch()
        # One frame of 64 takes (presets executed) is accepted whole; 20 leave at once, the rest at the pace.
        client.send("".join("@ P:%d/%X,%X\r" % (level, d, (d + 1) % 32) for level in (0, 1) for d in range(32)) +
                    "@ B:E\r")
        self.assertIsNotNone(client.read_until("S:00,1"))
        status, body = request(self.routerd, "POST", "/api/levels/0/take", {"destination": 0, "source": 9})
        self.assertEqual((status, body["error"]), (503, "the router is busy: too many takes waiting"))
        self.assertTrue(wait_until(lambda: self.router.tallies(0, 1) == [(d + 1) % 32 for d in range(32)], timeout=10),
                        "%s\n%s" % (len(commands(self.router, {0x02})), self.routerd.log()))
        self.assertEqual(self.router.tallies(0, 0), [(d + 1) % 32 for d in range(32)])
        self.assertEqual(len(commands(self.router, {0x02})), 64)


class ExtendedLevels(Gateway):
    levels_toml = """
[[level]]
number = 0
name = "video"
sources = 2048
destinations = 1100
matrix = 0
level = 20
"""
    router_options = {"levels": {(0, 20): (2048, 1100)}}

    def test_a_take_past_the_standard_numbers_is_an_extended_connect(self):
        client = self.leitch()
        client.send("@ X:0/410,7D0\r")
        self.assertIsNotNone(client.read_until("S:0410,7D0"))
        self.assertEqual(self.router.tally(0, 20, 1040), 2000)
        self.assertEqual(commands(self.router, {0x82}), [bytes.fromhex("82 00 14 04 10 07 D0")])
        self.assertEqual(commands(self.router, {0x95}), [bytes.fromhex("95 00 14")])


class Locks(Gateway):
    def test_a_leitch_lock_is_a_protect_that_blocks_a_direct_controller(self):
        client = self.leitch()
        client.send("@ W:0/5,1,1\r")
        self.assertTrue(wait_until(lambda: self.router.protect_of(0, 0, 5) == (OUR_DEVICE, 1)))
        self.assertEqual(commands(self.router, {0x0C}), [bytes.fromhex("0C 00 07 05 7F")])
        direct = self.direct()
        self.assertEqual(direct.send(connect(0, 0, 5, 9)), "ack")
        time.sleep(0.2)
        self.assertEqual(self.router.tally(0, 0, 5), 5)
        client.send("@ W:0/5,1,0\r")
        self.assertTrue(wait_until(lambda: self.router.protect_of(0, 0, 5) is None))
        self.assertEqual(commands(self.router, {0x0E}), [bytes.fromhex("0E 00 07 05 7F")])

    def test_a_protect_by_another_device_locks_the_destination_for_leitch_clients(self):
        client = self.leitch()
        self.router.set_protect(0, 0, 4, 12)
        self.assertTrue(wait_until(lambda: self.level(0)["locks"][4] == 1))
        status, body = request(self.routerd, "POST", "/api/levels/0/take", {"destination": 4, "source": 1})
        self.assertEqual((status, body["error"]), (409, "locked at the router by another controller"))
        status, body = request(self.routerd, "POST", "/api/levels/0/lock", {"destination": 4, "locked": False})
        self.assertEqual((status, body["error"]), (409, "locked at the router by another controller"))
        self.assertEqual(commands(self.router, {0x02, 0x0E}), [])
        self.router.clear_protect(0, 0, 4)
        self.assertTrue(wait_until(lambda: self.level(0)["locks"][4] == 0))
        client.send("@ X:0/4,1\r")
        self.assertIsNotNone(client.read_until("S:04,1"))


class ProtectsReadAtStartUp(Gateway):
    def test_a_protect_made_before_the_gateway_started_is_read(self):
        self.routerd.close()
        self.router.set_protect(0, 1, 30, 5)
        self.routerd = self.start_routerd()
        self.assertEqual(self.level(1)["locks"][30], 1)
        self.assertIn(bytes.fromhex("13 01 00 00"), commands(self.router, {0x13}))


class Outages(Gateway):
    def test_a_restarted_router_is_read_again_and_only_what_changed_is_reported(self):
        client = self.leitch()
        self.router.stop()
        self.assertTrue(self.routerd.log_contains("is away: the router closed the connection"))
        status, body = request(self.routerd, "POST", "/api/levels/0/take", {"destination": 1, "source": 2})
        self.assertEqual((status, body["error"]), (503, "the router is not connected"))
        client.send("@ X:0/1,2\r")
        self.assertEqual(client.read_until("\r\n>"), "@ X:0/1,2\r\n>")
        self.assertFalse(self.router_link()["up"])
        # Changed while leitch-routerd could not see it.
        self.router.set_crosspoint(0, 0, 8, 0)
        self.router.set_crosspoint(0, 0, 9, 1)
        self.router.start(self.port)
        self.assertTrue(self.routerd.log_contains("is back after"))
        reports = client.read_until("\r\n>") + client.read_until("\r\n>")
        self.assertEqual(reports, "\r\nS:08,0\r\n>\r\nS:09,1\r\n>")
        self.assertIsNone(client.read_until("S:", timeout=0.5))
        self.assertEqual(self.routerd.count("is away"), 1)
        client.send("@ X:0/1,2\r")
        self.assertIsNotNone(client.read_until("S:01,2"))

    def test_a_router_that_stops_acknowledging_is_dropped_and_reconnected(self):
        client = self.leitch()
        self.router.withhold_acks = True
        client.send("@ X:0/2,7\r")
        self.assertTrue(self.routerd.log_contains("is away: the router does not acknowledge: no ACK after 2 re-sends of "
                                                  "10 02 02 00 00 02 07 05 F0 10 03"), self.routerd.log())
        self.router.withhold_acks = False
        self.assertTrue(self.routerd.log_contains("is back after"))
        client.send("@ X:0/2,7\r")
        self.assertIsNotNone(client.read_until("S:02,7"))

    def test_an_idle_link_is_kept_alive_with_an_interrogate(self):
        start = len(self.router.requests())
        time.sleep(1.2)
        self.assertEqual([bytes([command]) + bytes(message) for _, command, message in self.router.requests()[start:]][:1],
                         [b"\x01\x00\x00\x00"])


class Misbehaviour(Gateway):
    """Each closes the link with a log line; the Leitch sessions survive and
    the link comes back."""

    def survives(self):
        client = self.leitch()
        client.send("@ X?01\r")
        self.assertIsNotNone(client.read_until("S:01,1"))
        self.assertTrue(self.routerd.log_contains("is back after"), self.routerd.log())
        client.send("@ X:0/1,2\r")
        self.assertIsNotNone(client.read_until("S:01,2"))

    def test_noise_without_frames(self):
        self.router.send_garbage(b"\x55" * 70000)
        self.assertTrue(self.routerd.log_contains("is away: the router sent more than 65536 bytes without a well-formed frame"),
                        self.routerd.log())
        self.survives()

    def test_an_endless_frame(self):
        self.router.endless_frame()
        self.assertTrue(self.routerd.log_contains("bytes without a well-formed frame"), self.routerd.log())
        self.router.stop_endless_frame()
        self.survives()

    def test_every_frame_nakked(self):
        self.router.nak_everything = True
        self.leitch().send("@ X:0/3,4\r")
        self.assertTrue(self.routerd.log_contains("is away: the router does not acknowledge: NAK after 2 re-sends"),
                        self.routerd.log())
        self.router.nak_everything = False
        self.survives()

    def test_a_flood_of_reports_is_read_and_changes_nothing(self):
        client = self.leitch()
        self.router.flood(frames=5000)
        client.send("@ X:0/6,9\r")
        self.assertIsNotNone(client.read_until("S:06,9", timeout=10))
        self.assertEqual(self.routerd.count("is away"), 0)
        self.assertEqual(self.level(0)["crosspoints"][:6], list(range(6)))

    def test_bad_frames_in_a_row(self):
        bad = bytes.fromhex("10 02 04 00 00 07 02 05 EF 10 03")
        self.router.send_raw(bad * 40)
        self.assertTrue(self.routerd.log_contains("is away: the router sent 32 bad frames in a row (the last: bad checksum)"),
                        self.routerd.log())
        self.survives()


class Names(Gateway):
    def test_a_name_changed_at_the_router_is_read_again(self):
        self.router.set_source_name(0, 0, 2, "CAM 3")
        self.assertTrue(wait_until(lambda: self.level(0)["source_labels"][2] == "CAM 3"))
        self.router.set_destination_name(0, 1, "PGM")
        self.assertTrue(wait_until(lambda: self.level(1)["destination_labels"][1] == "PGM"))


class DualControllers(Gateway):
    router_options = {"dual": True}
    extra_backend = 'address2 = "127.0.0.1:{port2}"'

    def test_the_active_controller_is_followed_across_a_changeover(self):
        client = self.leitch()
        self.assertEqual(self.router_link()["where"], "127.0.0.1:%d" % self.port)
        self.router.changeover(notify=True)
        self.assertTrue(self.routerd.log_contains("went idle (changeover)"), self.routerd.log())
        self.assertTrue(wait_until(lambda: self.router_link()["where"] == "127.0.0.1:%d" % self.router.port2
                                   and self.router_link()["up"]), self.routerd.log())
        client.send("@ X:0/3,8\r")
        self.assertIsNotNone(client.read_until("S:03,8"))
        self.assertEqual(self.router.tally(0, 0, 3), 8)

    def test_a_controller_that_resets_without_a_word_hands_over(self):
        client = self.leitch()
        self.router.changeover(notify=False)
        self.assertTrue(wait_until(lambda: self.router_link()["where"] == "127.0.0.1:%d" % self.router.port2
                                   and self.router_link()["up"]), self.routerd.log())
        self.router.set_crosspoint(0, 0, 2, 9)
        self.assertIsNotNone(client.read_until("S:02,9"))


class SerialLink(unittest.TestCase):
    """The router on one end of a socat pty pair, leitch-routerd on the other, at 38400 8N1."""

    def setUp(self):
        self.directory = tempfile.mkdtemp(prefix="routerd-swp08-serial-")
        self.router_end = os.path.join(self.directory, "router")
        self.gateway_end = os.path.join(self.directory, "gateway")
        self.socat = subprocess.Popen(["socat", "pty,raw,echo=0,link=" + self.router_end,
                                       "pty,raw,echo=0,link=" + self.gateway_end],
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.assertTrue(wait_until(lambda: os.path.exists(self.router_end) and os.path.exists(self.gateway_end)))
        self.router = Swp08Router(resend_timeout=0.2)
        self.router.serve_serial(self.router_end)
        path = os.path.join(self.directory, "routerd.toml")
        with open(path, "w") as f:
            f.write(QUICK.format(address="serial:%s:38400,8N1" % self.gateway_end, extra=""))
        self.routerd = Routerd("--config", path, announced=3)

    def tearDown(self):
        self.routerd.close()
        self.router.stop()
        self.socat.terminate()
        self.socat.wait()
        shutil.rmtree(self.directory)

    def test_a_take_over_the_serial_line(self):
        self.assertEqual(self.routerd.announcements[2],
                         "backend swp08 %s: answered, 2 levels, group salvos" % self.gateway_end)
        client = LeitchClient(self.routerd.port)
        try:
            client.report_mode()
            client.send("@ X:0/5,3\r")
            self.assertIsNotNone(client.read_until("S:05,3"))
            self.assertEqual(self.router.tally(0, 0, 5), 3)
            self.router.set_crosspoint(0, 1, 2, 7)
            self.assertIsNotNone(client.read_until("S:12,7"))
        finally:
            client.close()

    def test_the_routers_end_closed_and_reopened(self):
        self.router.close_serial()
        self.router.set_crosspoint(0, 0, 9, 1)
        # The keepalive goes unanswered: the router is away until its end is open again.
        self.assertTrue(self.routerd.log_contains("is away: the router does not acknowledge"), self.routerd.log())
        self.router.serve_serial(self.router_end)
        self.assertTrue(self.routerd.log_contains("is back after"), self.routerd.log())
        client = LeitchClient(self.routerd.port)
        try:
            client.send("@ X:0/4,6\r")
            self.assertTrue(wait_until(lambda: self.router.tally(0, 0, 4) == 6, timeout=15), self.routerd.log())
            self.assertEqual(request(self.routerd, "GET", "/api/levels/0")[1]["crosspoints"][9], 1)
        finally:
            client.close()


if __name__ == "__main__":
    unittest.main()
