#!/usr/bin/env python3
"""The fixture Videohub router, tested over loopback sockets the way the
gateway will talk to it. Expected bytes are written out in full.

To show that nothing more arrived after a reply, a test sends PING: and reads
exactly "ACK\\n\\n": the fixture answers each connection in order, so anything
owed to that connection would have come first."""

import os
import signal
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from videohub_router import MAX_BLOCK, MAX_LINE, PANEL, VideohubRouter  # noqa: E402
from videohub_client import VideohubClient  # noqa: E402

FIXTURE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "videohub_router.py")
TIMEOUT = 2.0

PREAMBLE = b"PROTOCOL PREAMBLE:\nVersion: 2.8\n\n"
DEVICE_2X3 = (b"VIDEOHUB DEVICE:\nDevice present: true\nModel name: Videohub fixture\nVideo inputs: 2\n"
              b"Video processing units: 0\nVideo outputs: 3\nVideo monitoring outputs: 0\nSerial ports: 0\n\n")
LABELS_2X3 = b"INPUT LABELS:\n0 Input 1\n1 Input 2\n\nOUTPUT LABELS:\n0 Output 1\n1 Output 2\n2 Output 3\n\n"
ROUTING_2X3 = b"VIDEO OUTPUT ROUTING:\n0 0\n1 1\n2 0\n\n"
LOCKS_2X3 = b"VIDEO OUTPUT LOCKS:\n0 U\n1 U\n2 U\n\n"
ENDING = b"CONFIGURATION:\nTake Mode: false\n\nEND PRELUDE:\n\n"
DUMP_2X3 = PREAMBLE + DEVICE_2X3 + LABELS_2X3 + ROUTING_2X3 + LOCKS_2X3 + ENDING

ROUTING_12X12 = (b"VIDEO OUTPUT ROUTING:\n0 0\n1 1\n2 2\n3 3\n4 4\n5 5\n6 6\n7 7\n8 8\n9 9\n10 10\n11 11\n\n")
ACK = b"ACK\n\n"
NAK = b"NAK\n\n"
PING = b"PING:\n\n"
DEVICE_GONE = b"VIDEOHUB DEVICE:\nDevice present: false\n\n"


def Client(port):
    return VideohubClient(port, timeout=TIMEOUT)


class FixtureTest(unittest.TestCase):
    """A fresh router per test; clients are closed, and the router stopped, after it."""

    def start_router(self, **switches):
        self.router = VideohubRouter(**switches)
        self.router.start()
        self.addCleanup(self.router.stop)
        return self.router

    def connect(self, read_dump=True):
        client = Client(self.router.port)
        self.addCleanup(client.close)
        if read_dump:
            client.read_dump()
        return client

    def assertNothingMore(self, *clients):
        for client in clients:
            client.send(PING)
            self.assertEqual(client.read(len(ACK)), ACK)


class DumpTest(FixtureTest):

    def test_the_dump_has_routing_before_locks_and_ends_with_end_prelude_by_default(self):
        self.start_router(inputs=2, outputs=3)
        self.assertEqual(self.connect(read_dump=False).read(len(DUMP_2X3)), DUMP_2X3)

    def test_the_dump_can_send_locks_before_routing_as_newer_units_do(self):
        self.start_router(inputs=2, outputs=3, locks_first=True)
        expected = PREAMBLE + DEVICE_2X3 + LABELS_2X3 + LOCKS_2X3 + ROUTING_2X3 + ENDING
        self.assertEqual(self.connect(read_dump=False).read(len(expected)), expected)

    def test_without_end_prelude_the_dump_ends_after_the_locks_with_no_configuration(self):
        self.start_router(inputs=2, outputs=3, prelude_end=False, version="2.3")
        client = self.connect(read_dump=False)
        expected = (b"PROTOCOL PREAMBLE:\nVersion: 2.3\n\n" + DEVICE_2X3 + LABELS_2X3 + ROUTING_2X3 + LOCKS_2X3)
        self.assertEqual(client.read(len(expected)), expected)
        self.assertNothingMore(client)

    def test_monitoring_outputs_add_their_label_routing_and_lock_blocks(self):
        self.start_router(inputs=2, outputs=1, monitoring_outputs=1)
        expected = (PREAMBLE +
                    b"VIDEOHUB DEVICE:\nDevice present: true\nModel name: Videohub fixture\nVideo inputs: 2\n"
                    b"Video processing units: 0\nVideo outputs: 1\nVideo monitoring outputs: 1\nSerial ports: 0\n\n"
                    b"INPUT LABELS:\n0 Input 1\n1 Input 2\n\nOUTPUT LABELS:\n0 Output 1\n\n"
                    b"MONITORING OUTPUT LABELS:\n0 Monitoring output 1\n\n"
                    b"VIDEO OUTPUT ROUTING:\n0 0\n\nVIDEO MONITORING OUTPUT ROUTING:\n0 0\n\n"
                    b"VIDEO OUTPUT LOCKS:\n0 U\n\nMONITORING OUTPUT LOCKS:\n0 U\n\n" + ENDING)
        self.assertEqual(self.connect(read_dump=False).read(len(expected)), expected)

    def test_a_monitoring_output_is_routed_with_its_own_header(self):
        self.start_router(inputs=2, outputs=1, monitoring_outputs=1)
        client = self.connect()
        client.send(b"VIDEO MONITORING OUTPUT ROUTING:\n0 1\n\n")
        expected = ACK + b"VIDEO MONITORING OUTPUT ROUTING:\n0 1\n\n"
        self.assertEqual(client.read(len(expected)), expected)
        self.assertEqual(self.router.routes(monitoring=True), [1])
        self.assertEqual(self.router.routes(), [0])


class RoutingTest(FixtureTest):

    def setUp(self):
        self.start_router()
        self.a = self.connect()
        self.b = self.connect()

    def test_a_take_is_acked_then_reported_to_every_connection(self):
        take = b"VIDEO OUTPUT ROUTING:\n7 2\n\n"
        self.assertEqual(take.hex(" ").upper(), "56 49 44 45 4F 20 4F 55 54 50 55 54 20 52 4F 55 54 49 4E 47 3A "
                                                "0A 37 20 32 0A 0A")
        self.a.send(take)
        self.assertEqual(self.a.read(5 + 27), b"ACK\n\nVIDEO OUTPUT ROUTING:\n7 2\n\n")
        self.assertEqual(self.b.read(27), b"VIDEO OUTPUT ROUTING:\n7 2\n\n")
        self.assertNothingMore(self.a, self.b)

    def test_a_multi_line_take_is_acked_and_reported_in_one_block(self):
        self.a.send(b"VIDEO OUTPUT ROUTING:\n0 5\n1 5\n\n")
        expected = b"ACK\n\nVIDEO OUTPUT ROUTING:\n0 5\n1 5\n\n"
        self.assertEqual(self.a.read(len(expected)), expected)
        self.assertEqual(self.b.read(len(expected) - 5), expected[5:])

    def test_the_request_log_shows_a_multi_line_take_as_one_block(self):
        self.a.send(b"VIDEO OUTPUT ROUTING:\n0 5\n1 5\n\n")
        self.a.read(len(b"ACK\n\nVIDEO OUTPUT ROUTING:\n0 5\n1 5\n\n"))
        first, second = self.router.connections()
        self.assertEqual(self.router.requests(first), [b"VIDEO OUTPUT ROUTING:\n0 5\n1 5\n\n"])
        self.assertEqual(self.router.requests(second), [])
        self.assertEqual(self.router.requests(), [(first, b"VIDEO OUTPUT ROUTING:\n0 5\n1 5\n\n")])

    def test_a_take_applies_its_valid_lines_and_leaves_out_the_rest(self):
        self.a.send(b"VIDEO OUTPUT ROUTING:\n0 5\n99 0\n1 x\n2 12\n3\n\n")
        expected = b"ACK\n\nVIDEO OUTPUT ROUTING:\n0 5\n\n"
        self.assertEqual(self.a.read(len(expected)), expected)
        self.assertEqual(self.router.routes()[:4], [5, 1, 2, 3])

    def test_a_take_with_no_valid_line_is_naked_and_changes_nothing(self):
        self.a.send(b"VIDEO OUTPUT ROUTING:\n12 0\n0 12\n\n")
        self.assertEqual(self.a.read(5), NAK)
        self.assertNothingMore(self.a, self.b)
        self.assertEqual(self.router.routes(), list(range(12)))

    def test_a_malformed_routing_line_is_naked(self):
        self.a.send(b"VIDEO OUTPUT ROUTING:\n7 two\n\n")
        self.assertEqual(self.a.read(5), NAK)
        self.assertNothingMore(self.a)

    def test_a_no_op_take_is_acked_and_sends_no_block(self):
        self.a.send(b"VIDEO OUTPUT ROUTING:\n7 7\n\n")
        self.assertEqual(self.a.read(5), ACK)
        self.assertNothingMore(self.a, self.b)

    def test_echo_unchanged_re_reports_a_no_op_take(self):
        self.router.echo_unchanged = True
        self.a.send(b"VIDEO OUTPUT ROUTING:\n7 7\n\n")
        self.assertEqual(self.a.read(5 + 27), b"ACK\n\nVIDEO OUTPUT ROUTING:\n7 7\n\n")
        self.assertEqual(self.b.read(27), b"VIDEO OUTPUT ROUTING:\n7 7\n\n")

    def test_crlf_requests_are_answered_with_lf(self):
        self.a.send(b"VIDEO OUTPUT ROUTING:\r\n7 2\r\n\r\n")
        self.assertEqual(self.a.read(5 + 27), b"ACK\n\nVIDEO OUTPUT ROUTING:\n7 2\n\n")

    def test_a_request_split_across_segments_is_handled_at_its_empty_line(self):
        for piece in (b"VIDEO OUT", b"PUT ROUTING:\n7", b" 2\n", b"\n"):
            self.a.send(piece)
        self.assertEqual(self.a.read(5 + 27), b"ACK\n\nVIDEO OUTPUT ROUTING:\n7 2\n\n")

    def test_ping_is_acked(self):
        self.assertEqual(PING.hex(" ").upper(), "50 49 4E 47 3A 0A 0A")
        self.a.send(PING)
        self.assertEqual(self.a.read(5), ACK)

    def test_a_bare_header_resends_that_block_in_full_to_the_requester_only(self):
        self.a.send(b"VIDEO OUTPUT ROUTING:\n\n")
        self.assertEqual(self.a.read(5 + len(ROUTING_12X12)), ACK + ROUTING_12X12)
        self.assertNothingMore(self.b)

    def test_an_unknown_header_is_skipped_and_naked(self):
        self.a.send(b"ALARM STATUS:\nFan: ok\n\n")
        self.assertEqual(self.a.read(5), NAK)
        self.assertNothingMore(self.a)

    def test_a_header_in_lower_case_is_unknown(self):
        self.a.send(b"video output routing:\n7 2\n\n")
        self.assertEqual(self.a.read(5), NAK)
        self.assertEqual(self.router.routes()[7], 7)

    def test_an_unknown_header_can_go_unanswered(self):
        self.router.nak_unknown = False
        self.a.send(b"ALARM STATUS:\nFan: ok\n\n")
        self.assertNothingMore(self.a)

    def test_a_route_set_directly_is_reported_to_every_connection(self):
        self.router.set_route(7, 2)
        self.assertEqual(self.a.read(27), b"VIDEO OUTPUT ROUTING:\n7 2\n\n")
        self.assertEqual(self.b.read(27), b"VIDEO OUTPUT ROUTING:\n7 2\n\n")


class LabelTest(FixtureTest):

    def test_a_label_change_is_acked_and_reported_to_every_connection(self):
        self.start_router(inputs=2, outputs=3)
        a, b = self.connect(), self.connect()
        a.send(b"INPUT LABELS:\n1 Camera 2 wide\n\n")
        update = b"INPUT LABELS:\n1 Camera 2 wide\n\n"
        self.assertEqual(a.read(5 + len(update)), ACK + update)
        self.assertEqual(b.read(len(update)), update)
        self.assertEqual(self.router.labels("input"), ["Input 1", "Camera 2 wide"])

    def test_a_label_set_directly_is_reported_to_every_connection(self):
        self.start_router(inputs=2, outputs=3)
        a = self.connect()
        self.router.set_label("output", 2, "Monitor wall")
        update = b"OUTPUT LABELS:\n2 Monitor wall\n\n"
        self.assertEqual(a.read(len(update)), update)


class LockTest(FixtureTest):

    def setUp(self):
        self.start_router()
        self.a = self.connect()
        self.b = self.connect()

    def lock_output_7_for_a(self):
        self.a.send(b"VIDEO OUTPUT LOCKS:\n7 O\n\n")
        self.assertEqual(self.a.read(5 + 25), b"ACK\n\nVIDEO OUTPUT LOCKS:\n7 O\n\n")
        self.assertEqual(self.b.read(25), b"VIDEO OUTPUT LOCKS:\n7 L\n\n")

    def test_a_lock_reads_O_to_its_owner_and_L_to_others_and_a_forced_unlock_reads_U(self):
        self.lock_output_7_for_a()
        self.b.send(b"VIDEO OUTPUT LOCKS:\n7 F\n\n")
        self.assertEqual(self.b.read(5 + 25), b"ACK\n\nVIDEO OUTPUT LOCKS:\n7 U\n\n")
        self.assertEqual(self.a.read(25), b"VIDEO OUTPUT LOCKS:\n7 U\n\n")
        self.assertEqual(self.router.locks(), {})

    def test_a_take_on_an_output_locked_by_another_connection_is_refused(self):
        self.lock_output_7_for_a()
        self.b.send(b"VIDEO OUTPUT ROUTING:\n7 2\n\n")
        self.assertEqual(self.b.read(5), NAK)
        self.assertNothingMore(self.a, self.b)
        self.assertEqual(self.router.routes()[7], 7)

    def test_a_take_applies_around_an_output_locked_by_another_connection(self):
        self.lock_output_7_for_a()
        self.b.send(b"VIDEO OUTPUT ROUTING:\n7 2\n6 2\n\n")
        self.assertEqual(self.b.read(5 + 27), b"ACK\n\nVIDEO OUTPUT ROUTING:\n6 2\n\n")

    def test_the_lock_owner_can_route_its_locked_output(self):
        self.lock_output_7_for_a()
        self.a.send(b"VIDEO OUTPUT ROUTING:\n7 2\n\n")
        self.assertEqual(self.a.read(5 + 27), b"ACK\n\nVIDEO OUTPUT ROUTING:\n7 2\n\n")

    def test_another_connection_can_neither_take_nor_release_a_held_lock(self):
        self.lock_output_7_for_a()
        self.b.send(b"VIDEO OUTPUT LOCKS:\n7 O\n\n")
        self.assertEqual(self.b.read(5), NAK)
        self.b.send(b"VIDEO OUTPUT LOCKS:\n7 U\n\n")
        self.assertEqual(self.b.read(5), NAK)
        self.assertNothingMore(self.a, self.b)
        self.assertEqual(self.router.locks(), {7: self.router.connections()[0]})

    def test_the_owner_releases_its_lock_with_U(self):
        self.lock_output_7_for_a()
        self.a.send(b"VIDEO OUTPUT LOCKS:\n7 U\n\n")
        self.assertEqual(self.a.read(5 + 25), b"ACK\n\nVIDEO OUTPUT LOCKS:\n7 U\n\n")
        self.assertEqual(self.b.read(25), b"VIDEO OUTPUT LOCKS:\n7 U\n\n")

    def test_a_bare_lock_request_shows_the_requester_its_own_view(self):
        self.lock_output_7_for_a()
        self.b.send(b"VIDEO OUTPUT LOCKS:\n\n")
        expected = ACK + b"VIDEO OUTPUT LOCKS:\n" + b"".join(
            b"%d %s\n" % (output, b"L" if output == 7 else b"U") for output in range(12)) + b"\n"
        self.assertEqual(self.b.read(len(expected)), expected)

    def test_locks_are_dropped_and_reported_unlocked_when_the_owner_disconnects(self):
        self.lock_output_7_for_a()
        self.a.close()
        self.assertEqual(self.b.read(25), b"VIDEO OUTPUT LOCKS:\n7 U\n\n")
        self.assertEqual(self.router.locks(), {})

    def test_locks_can_outlive_their_connection(self):
        self.router.drop_locks_on_disconnect = False
        self.lock_output_7_for_a()
        owner = self.router.connections()[0]
        self.a.close()
        self.assertTrue(self.router.wait_for(lambda: owner not in self.router.connections()))
        self.assertNothingMore(self.b)
        self.assertEqual(self.router.locks(), {7: owner})
        self.assertIn(b"\n7 L\n", self.connect(read_dump=False).read_dump())

    def test_a_lock_set_directly_reads_L_to_every_connection(self):
        self.router.set_lock(7, PANEL)
        self.assertEqual(self.a.read(25), b"VIDEO OUTPUT LOCKS:\n7 L\n\n")
        self.assertEqual(self.b.read(25), b"VIDEO OUTPUT LOCKS:\n7 L\n\n")
        self.a.send(b"VIDEO OUTPUT ROUTING:\n7 2\n\n")
        self.assertEqual(self.a.read(5), NAK)


class MisbehaviourTest(FixtureTest):

    def setUp(self):
        self.start_router()
        self.a = self.connect()

    def test_stall_acks_still_applies_and_reports_without_answering(self):
        self.router.stall_acks = True
        self.a.send(b"VIDEO OUTPUT ROUTING:\n7 2\n\n")
        self.a.send(PING)
        self.assertEqual(self.a.read(27), b"VIDEO OUTPUT ROUTING:\n7 2\n\n")
        self.assertTrue(self.router.wait_for(lambda: len(self.router.requests()) == 2))
        self.router.stall_acks = False
        self.assertNothingMore(self.a)

    def test_stall_acks_with_stall_changes_leaves_requests_unanswered_and_unapplied(self):
        self.router.stall_acks = self.router.stall_changes = True
        self.a.send(b"VIDEO OUTPUT ROUTING:\n7 2\n\n")
        self.assertTrue(self.router.wait_for(lambda: len(self.router.requests()) == 1))
        self.router.stall_acks = self.router.stall_changes = False
        self.assertNothingMore(self.a)
        self.assertEqual(self.router.routes()[7], 7)

    def test_stall_changes_acks_requests_but_applies_none(self):
        self.router.stall_changes = True
        self.a.send(b"VIDEO OUTPUT ROUTING:\n7 2\n\n")
        self.assertEqual(self.a.read(5), ACK)
        self.assertNothingMore(self.a)
        self.assertEqual(self.router.routes()[7], 7)

    def test_drop_connections_closes_every_client(self):
        b = self.connect()
        self.router.drop_connections()
        self.assertTrue(self.a.is_closed_by_peer())
        self.assertTrue(b.is_closed_by_peer())
        self.assertTrue(self.router.wait_for(lambda: self.router.connections() == []))

    def test_send_garbage_sends_the_bytes_as_they_are(self):
        self.router.send_garbage(b"\x00\xff\r\nnot a block")
        self.assertEqual(self.a.read(15), b"\x00\xff\r\nnot a block")

    def test_send_block_sends_any_block(self):
        self.router.send_block("ALARM STATUS:", ["Fan: ok"])
        self.assertEqual(self.a.read(23), b"ALARM STATUS:\nFan: ok\n\n")

    def test_the_endless_line_runs_without_lf_until_stopped(self):
        self.router.endless_line()
        self.assertEqual(self.a.read(3 << 20), b"x" * (3 << 20))
        self.router.stop_endless_line()
        self.a.send(PING)
        self.assertEqual(self.a.read_until(ACK).strip(b"x"), ACK)

    def test_the_endless_line_ends_when_the_peer_closes(self):
        self.router.endless_line()
        self.a.read(1 << 20)
        self.a.close()
        self.assertTrue(self.router.wait_for(lambda: self.router.connections() == []))

    def test_a_device_gone_sends_only_its_device_block_and_naks_requests(self):
        self.router.device_present(False)
        self.assertEqual(self.a.read(len(DEVICE_GONE)), DEVICE_GONE)
        b = self.connect(read_dump=False)
        self.assertEqual(b.read(len(PREAMBLE + DEVICE_GONE)), PREAMBLE + DEVICE_GONE)
        self.assertNothingMore(b)
        b.send(b"VIDEO OUTPUT ROUTING:\n7 2\n\n")
        self.assertEqual(b.read(5), NAK)

    def test_a_device_needing_an_update_says_so(self):
        self.router.device_present("needs_update")
        expected = b"VIDEOHUB DEVICE:\nDevice present: needs_update\n\n"
        self.assertEqual(self.a.read(len(expected)), expected)

    def test_a_device_back_resends_every_block_but_the_preamble(self):
        self.router.stop()
        self.start_router(inputs=2, outputs=3)
        a = self.connect()
        self.router.device_present(False)
        self.assertEqual(a.read(len(DEVICE_GONE)), DEVICE_GONE)
        self.router.device_present(True)
        expected = DUMP_2X3[len(PREAMBLE):]
        self.assertEqual(a.read(len(expected)), expected)

    def test_changed_counts_resend_every_block_but_the_preamble(self):
        self.router.stop()
        self.start_router(inputs=2, outputs=3)
        a = self.connect()
        self.router.set_route(1, 0)
        a.read(len(b"VIDEO OUTPUT ROUTING:\n1 0\n\n"))
        self.router.change_counts(3, 2)
        expected = (b"VIDEOHUB DEVICE:\nDevice present: true\nModel name: Videohub fixture\nVideo inputs: 3\n"
                    b"Video processing units: 0\nVideo outputs: 2\nVideo monitoring outputs: 0\nSerial ports: 0\n\n"
                    b"INPUT LABELS:\n0 Input 1\n1 Input 2\n2 Input 3\n\nOUTPUT LABELS:\n0 Output 1\n1 Output 2\n\n"
                    b"VIDEO OUTPUT ROUTING:\n0 0\n1 0\n\nVIDEO OUTPUT LOCKS:\n0 U\n1 U\n\n" + ENDING)
        self.assertEqual(a.read(len(expected)), expected)

    def test_absurd_counts_are_announced_without_changing_the_state(self):
        self.router.absurd_counts()
        expected = (b"VIDEOHUB DEVICE:\nDevice present: true\nModel name: Videohub fixture\n"
                    b"Video inputs: 4000000000\nVideo processing units: 0\nVideo outputs: 4000000000\n"
                    b"Video monitoring outputs: 0\nSerial ports: 0\n\n")
        self.assertEqual(self.a.read(len(expected)), expected)
        self.assertEqual(self.router.counts(), {"input": 12, "output": 12, "monitoring": 0})


class BoundsTest(FixtureTest):

    def test_connections_past_the_limit_are_closed_without_a_dump(self):
        self.start_router(max_connections=2)
        self.connect(), self.connect()
        third = self.connect(read_dump=False)
        self.assertTrue(third.is_closed_by_peer())
        self.assertEqual(third.pending, b"")

    def test_a_request_line_over_64_kib_closes_the_connection(self):
        self.start_router()
        client = self.connect()
        try:
            client.send(b"INPUT LABELS:\n0 " + b"x" * MAX_LINE)
        except ConnectionError:
            pass   # closed while the line was still going out: just as good
        self.assertTrue(client.is_closed_by_peer())

    def test_a_request_block_over_1_mib_closes_the_connection(self):
        self.start_router()
        client = self.connect()
        try:
            client.send(b"INPUT LABELS:\n" + b"0 x\n" * (MAX_BLOCK // 4 + 1))
        except ConnectionError:
            pass   # closed while the block was still going out: just as good
        self.assertTrue(client.is_closed_by_peer())

    def test_a_request_line_of_64_kib_is_accepted(self):
        self.start_router()
        client = self.connect()
        text = b"y" * (MAX_LINE - 2)
        client.send(b"INPUT LABELS:\n0 " + text + b"\n\n")
        self.assertEqual(client.read(5), ACK)
        self.assertEqual(self.router.labels("input")[0], text.decode())


class RestartTest(FixtureTest):

    def test_restart_closes_connections_and_listens_on_the_same_port_with_the_state_kept(self):
        self.start_router(inputs=2, outputs=3)
        port = self.router.port
        client = self.connect()
        self.router.set_route(2, 1)
        self.router.restart()
        self.assertTrue(client.is_closed_by_peer())
        self.assertEqual(self.router.port, port)
        dump = self.connect(read_dump=False).read(len(DUMP_2X3))
        self.assertEqual(dump, DUMP_2X3.replace(b"\n2 0\n", b"\n2 1\n"))

    def test_restart_can_reset_the_state(self):
        self.start_router(inputs=2, outputs=3)
        self.router.set_route(2, 1)
        self.router.set_label("input", 0, "Camera")
        self.router.restart(reset=True)
        self.assertEqual(self.connect(read_dump=False).read(len(DUMP_2X3)), DUMP_2X3)


class ProgramTest(unittest.TestCase):

    def test_the_program_announces_its_port_serves_the_dump_and_ends_on_sigterm(self):
        fixture = subprocess.Popen([sys.executable, FIXTURE, "--port", "0", "--inputs", "2", "--outputs", "3",
                                    "--locks-first"], stdout=subprocess.PIPE)
        try:
            line = fixture.stdout.readline().decode()
            self.assertRegex(line, r"^videohub fixture listening on 127\.0\.0\.1:\d+\n$")
            client = Client(int(line.rsplit(":", 1)[1]))
            expected = PREAMBLE + DEVICE_2X3 + LABELS_2X3 + LOCKS_2X3 + ROUTING_2X3 + ENDING
            self.assertEqual(client.read(len(expected)), expected)
            client.close()
            fixture.send_signal(signal.SIGTERM)
            self.assertEqual(fixture.wait(TIMEOUT), 0)
        finally:
            fixture.kill()
            fixture.wait()
            fixture.stdout.close()


if __name__ == "__main__":
    unittest.main()
