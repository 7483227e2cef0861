#!/usr/bin/env python3
"""The Videohub mockup server of the npm package @bitfocusas/mockup-bmd-videohub
(1.0.6, locked in tests/third_party/videohub-mockup/), held byte for byte
over loopback sockets to what it does: what a gateway test run against it will
meet. It is a router nobody on this team wrote, so these tests record what it
does, not what it should do.

Where it differs from the Videohub protocol (Blackmagic's developer
information, protocol 2.3, and what units are seen to send) and from our
fixture router (videohub_router.py):

The dump on connect
 1. "Version: 2.3 " in the preamble, with a trailing space (the fixture:
    "Version: 2.8").
 2. VIDEOHUB DEVICE says "Model name: Blackmagic Smart Videohub" and adds
    "Friendly name: Mockup NxN videohub" (a key of newer firmware) between the
    model name and the counts; no "Unique ID". The fixture says "Videohub
    fixture" and has no friendly name.
 3. Protocol 2.3 order (labels, routing, locks) and no CONFIGURATION or END
    PRELUDE: the dump's end must be found by its counts, or by the ACK of a
    PING sent at once (answered after the dump). The fixture ends with END
    PRELUDE unless told otherwise.
 4. Square only: one count sets inputs and outputs alike.
 5. LF only; every block is a write of its own.

Reading requests
 6. A request is parsed per TCP read, not per stream. A block cut in two
    across reads is lost without a word (a header alone in a read is NAKed
    and its items then ignored), and the end of a read ends the open block
    as an empty line would: "PING:\\n" alone is ACKed, and a block is acted on
    before its empty line arrives. A gateway must write every request block
    in one send. The fixture buffers across reads and acts at the empty line.
 7. Any line ending in ":" opens a new block, even inside one: a label text
    ending in ":" becomes an unknown header (NAK) and the block it was in is
    dropped unanswered.
 8. CR LF is taken; trailing blanks are cut from every line, so a label loses
    its trailing spaces.
 9. A header alone (a request to resend that block) is NAKed, not answered
    with ACK and the whole block. Only PING, VIDEO OUTPUT ROUTING, VIDEO
    OUTPUT LOCKS and INPUT/OUTPUT LABELS are known; anything else, even in
    lower case, is NAKed (as the fixture does by default).
10. No index is checked against the counts: an output, input or label index
    past them, or a negative one, is ACKed, reported to every client and kept,
    so later dumps carry rows (e.g. "99 3", "-1 3") that VIDEOHUB DEVICE does
    not announce. The fixture NAKs such lines, as the peers seen do.
11. Numbers are read leniently: "2abc" is 2 and a third field is ignored;
    "7 two" or two spaces skip the line. A block with at least one usable
    line is ACKed and the usable lines applied (the fixture applies partly too).

Changes and updates
12. A take to the input an output already carries is ACKed and reported
    anyway; so is an unchanged label. The fixture reports nothing then.
13. An update lists outputs in ascending order (negative indices after), not
    in the order of the request as the fixture does.
14. Changing one input label sends the whole INPUT LABELS table to every
    client; an output label change sends only the changed items.
15. Locks have no owner. "O" is stored as it is and every client, the
    requester included, is sent "O" (never "L"), in updates and in the dumps
    of later connections. Anyone's "U" frees a lock; "F" is the same as "U";
    "L" is NAKed. A lock refuses nothing: any client routes a locked output.
    Locks outlive the connection that set them. The fixture keeps owners per
    connection, reports O/L by viewer, refuses takes by others and drops a
    connection's locks when it closes.
16. The state is one for the whole process, shared by every connection; only
    a restart resets it, and nothing but the protocol port can set it.
17. The ACK and its update are two writes with Nagle's algorithm on: over
    loopback a take after the first waits about 40 ms for the client's
    delayed ACK (measured, not pinned here). The fixture sets TCP_NODELAY.
18. A client that resets its connection stays on the broadcast list; the
    server carries on.
19. Its own program cannot listen on a free port (PORT=0 becomes 9990),
    announces the port asked for, and listens on every interface: our
    launcher (videohub_mockup_launcher.js) starts it on 127.0.0.1 and a free
    port instead.

To show that nothing more arrived, a test sends PING and reads exactly
"ACK\\n\\n": the server answers each connection in order.

Skipped (exit code 77) when the package or node is missing, unless
LEITCH_REQUIRE_MOCKUP is set: then that fails.
"""

import os
import socket
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from videohub_mockup import VideohubMockup, run_tests_unless_unavailable  # noqa: E402
from videohub_client import VideohubClient  # noqa: E402

TIMEOUT = 2.0
ACK = b"ACK\n\n"
NAK = b"NAK\n\n"
PING = b"PING:\n\n"
TAKE_7_2 = b"VIDEO OUTPUT ROUTING:\n7 2\n\n"

PREAMBLE = b"PROTOCOL PREAMBLE:\nVersion: 2.3 \n\n"
DUMP_3 = (PREAMBLE +
          b"VIDEOHUB DEVICE:\nDevice present: true\nModel name: Blackmagic Smart Videohub\n"
          b"Friendly name: Mockup 3x3 videohub\nVideo inputs: 3\nVideo processing units: 0\nVideo outputs: 3\n"
          b"Video monitoring outputs: 0\nSerial ports: 0\n\n"
          b"INPUT LABELS:\n0 Input 1\n1 Input 2\n2 Input 3\n\n"
          b"OUTPUT LABELS:\n0 Output 1\n1 Output 2\n2 Output 3\n\n"
          b"VIDEO OUTPUT ROUTING:\n0 0\n1 1\n2 2\n\n"
          b"VIDEO OUTPUT LOCKS:\n0 U\n1 U\n2 U\n\n")


def dump(io):
    """The dump of a fresh mockup of `io` inputs and outputs (DUMP_3 written out is the same for 3)."""
    ports = range(io)
    return (PREAMBLE +
            b"VIDEOHUB DEVICE:\nDevice present: true\nModel name: Blackmagic Smart Videohub\n"
            b"Friendly name: Mockup %dx%d videohub\nVideo inputs: %d\nVideo processing units: 0\n"
            b"Video outputs: %d\nVideo monitoring outputs: 0\nSerial ports: 0\n\n" % (io, io, io, io) +
            b"INPUT LABELS:\n" + b"".join(b"%d Input %d\n" % (n, n + 1) for n in ports) + b"\n" +
            b"OUTPUT LABELS:\n" + b"".join(b"%d Output %d\n" % (n, n + 1) for n in ports) + b"\n" +
            b"VIDEO OUTPUT ROUTING:\n" + b"".join(b"%d %d\n" % (n, n) for n in ports) + b"\n" +
            b"VIDEO OUTPUT LOCKS:\n" + b"".join(b"%d U\n" % n for n in ports) + b"\n")


def Client(port):
    return VideohubClient(port, timeout=TIMEOUT)


class MockupTest(unittest.TestCase):
    """A fresh mockup per test (its state lives in the process); clients are
    closed, and the mockup stopped, after it."""

    IO = 12

    def setUp(self):
        self.mockup = self.start_mockup(self.IO)

    def start_mockup(self, io):
        mockup = VideohubMockup(inputs=io, outputs=io)
        mockup.start()
        self.addCleanup(mockup.stop)
        return mockup

    def connect(self, read_dump=True, mockup=None):
        client = Client((mockup or self.mockup).port)
        self.addCleanup(client.close)
        if read_dump:
            self.assertEqual(client.read(len(dump(self.IO))), dump(self.IO))
        return client

    def assertNothingMore(self, *clients):
        for client in clients:
            client.send(PING)
            self.assertEqual(client.read(len(ACK)), ACK)

    def assertNewConnectionDump(self, expected):
        """A connection made now gets exactly `expected` as its dump, then nothing more."""
        client = self.connect(read_dump=False)
        self.assertEqual(client.read(len(expected)), expected)
        self.assertNothingMore(client)

    def assertAnswers(self, request, expected, client=None):
        """`request` on a fresh connection gets exactly `expected`, then nothing more."""
        client = client or self.connect()
        client.send(request)
        self.assertEqual(client.read(len(expected)), expected)
        self.assertNothingMore(client)
        return client


class DumpTest(MockupTest):

    IO = 3

    def test_the_dump_is_protocol_2_3_order_with_no_end_prelude(self):
        client = self.connect(read_dump=False)
        self.assertEqual(client.read(len(DUMP_3)), DUMP_3)
        self.assertNothingMore(client)

    def test_a_ping_sent_at_once_is_answered_after_the_whole_dump(self):
        client = Client(self.mockup.port)
        self.addCleanup(client.close)
        client.send(PING)
        self.assertEqual(client.read_until(ACK), DUMP_3 + ACK)

    def test_the_dump_of_another_size_differs_only_by_its_counts(self):
        self.assertEqual(dump(3), DUMP_3)
        mockup = self.start_mockup(40)
        client = self.connect(read_dump=False, mockup=mockup)
        self.assertEqual(client.read(len(dump(40))), dump(40))

    def test_a_size_with_unequal_inputs_and_outputs_is_refused_before_starting(self):
        with self.assertRaises(ValueError):
            VideohubMockup(inputs=12, outputs=16)


class TakeTest(MockupTest):

    def setUp(self):
        super().setUp()
        self.a = self.connect()
        self.b = self.connect()

    def test_a_take_is_acked_and_reported_to_every_connection(self):
        self.a.send(TAKE_7_2)
        self.assertEqual(self.a.read(5 + 27), ACK + TAKE_7_2)
        self.assertEqual(self.b.read(27), TAKE_7_2)
        self.assertNothingMore(self.a, self.b)
        self.assertNewConnectionDump(dump(12).replace(b"\n7 7\n", b"\n7 2\n"))

    def test_ping_is_acked(self):
        self.assertEqual(PING, bytes.fromhex("50 49 4E 47 3A 0A 0A"))
        self.assertAnswers(PING, ACK, self.a)
        self.assertNothingMore(self.b)

    def test_a_take_to_the_input_already_routed_is_still_reported(self):
        self.a.send(b"VIDEO OUTPUT ROUTING:\n7 7\n\n")
        self.assertEqual(self.a.read(5 + 27), ACK + b"VIDEO OUTPUT ROUTING:\n7 7\n\n")
        self.assertEqual(self.b.read(27), b"VIDEO OUTPUT ROUTING:\n7 7\n\n")

    def test_several_routes_in_one_block_come_back_in_one_update_in_ascending_order(self):
        self.a.send(b"VIDEO OUTPUT ROUTING:\n5 1\n2 1\n\n")
        update = b"VIDEO OUTPUT ROUTING:\n2 1\n5 1\n\n"
        self.assertEqual(self.a.read(5 + len(update)), ACK + update)
        self.assertEqual(self.b.read(len(update)), update)

    def test_a_route_given_twice_in_one_block_reports_the_last(self):
        self.a.send(b"VIDEO OUTPUT ROUTING:\n7 2\n7 3\n\n")
        self.assertEqual(self.a.read(5 + 27), ACK + b"VIDEO OUTPUT ROUTING:\n7 3\n\n")

    def test_cr_lf_is_taken_and_the_update_is_lf_only(self):
        self.a.send(b"VIDEO OUTPUT ROUTING:\r\n7 2\r\n\r\n")
        self.assertEqual(self.a.read(5 + 27), ACK + TAKE_7_2)

    def test_several_blocks_in_one_send_are_answered_in_order(self):
        self.a.send(PING + TAKE_7_2 + PING)
        self.assertEqual(self.a.read(5 + 5 + 27 + 5), ACK + ACK + TAKE_7_2 + ACK)


class MalformedTest(MockupTest):
    """What the server does with requests it should refuse."""

    def setUp(self):
        super().setUp()
        self.a = self.connect()
        self.b = self.connect()

    def assertRefused(self, request):
        self.assertAnswers(request, NAK, self.a)
        self.assertNothingMore(self.b)

    def assertAcceptedAndReported(self, request, update):
        self.assertAnswers(request, ACK + update, self.a)
        self.assertEqual(self.b.read(len(update)), update)

    def test_an_output_past_the_count_is_acked_reported_and_kept_in_later_dumps(self):
        self.assertAcceptedAndReported(b"VIDEO OUTPUT ROUTING:\n99 3\n\n", b"VIDEO OUTPUT ROUTING:\n99 3\n\n")
        self.assertNewConnectionDump(dump(12).replace(b"\n11 11\n\n", b"\n11 11\n99 3\n\n"))

    def test_an_input_past_the_count_is_acked_and_reported(self):
        self.assertAcceptedAndReported(b"VIDEO OUTPUT ROUTING:\n4 99\n\n", b"VIDEO OUTPUT ROUTING:\n4 99\n\n")

    def test_a_negative_output_is_acked_and_kept_after_the_others(self):
        self.assertAcceptedAndReported(b"VIDEO OUTPUT ROUTING:\n-1 3\n\n", b"VIDEO OUTPUT ROUTING:\n-1 3\n\n")
        self.assertAcceptedAndReported(b"VIDEO OUTPUT ROUTING:\n-1 4\n5 4\n\n",
                                       b"VIDEO OUTPUT ROUTING:\n5 4\n-1 4\n\n")
        self.assertNewConnectionDump(dump(12).replace(b"\n5 5\n", b"\n5 4\n")
                                     .replace(b"\n11 11\n\n", b"\n11 11\n-1 4\n\n"))

    def test_a_word_for_an_input_is_naked(self):
        self.assertRefused(b"VIDEO OUTPUT ROUTING:\n7 two\n\n")

    def test_two_spaces_between_the_numbers_are_naked(self):
        self.assertRefused(b"VIDEO OUTPUT ROUTING:\n7  2\n\n")

    def test_a_malformed_line_is_skipped_and_the_rest_applied(self):
        self.assertAcceptedAndReported(b"VIDEO OUTPUT ROUTING:\n7 two\n6 1\n\n", b"VIDEO OUTPUT ROUTING:\n6 1\n\n")

    def test_numbers_are_read_up_to_the_first_non_digit_and_a_third_field_is_ignored(self):
        self.assertAcceptedAndReported(b"VIDEO OUTPUT ROUTING:\n3 2abc\n\n", b"VIDEO OUTPUT ROUTING:\n3 2\n\n")
        self.assertAcceptedAndReported(b"VIDEO OUTPUT ROUTING:\n3 4 9\n\n", b"VIDEO OUTPUT ROUTING:\n3 4\n\n")

    def test_a_header_alone_is_naked_rather_than_answered_with_the_block(self):
        for header in (b"VIDEO OUTPUT ROUTING:", b"VIDEO OUTPUT LOCKS:", b"INPUT LABELS:", b"OUTPUT LABELS:"):
            with self.subTest(header=header):
                self.assertRefused(header + b"\n\n")

    def test_unknown_blocks_are_naked(self):
        for request in (b"ALARM STATUS:\nFan: ok\n\n", b"VIDEO MONITORING OUTPUT ROUTING:\n0 1\n\n",
                        b"CONFIGURATION:\nTake Mode: true\n\n", b"ping:\n\n", b"VIDEOHUB DEVICE:\n\n"):
            with self.subTest(request=request):
                self.assertRefused(request)

    def test_empty_lines_alone_get_no_answer(self):
        self.a.send(b"\n\n\n")
        self.assertNothingMore(self.a, self.b)

    def test_a_header_without_its_empty_line_is_dropped_when_the_next_header_comes(self):
        update = b"VIDEO OUTPUT LOCKS:\n1 O\n\n"
        self.assertAcceptedAndReported(b"VIDEO OUTPUT ROUTING:\n1 2\nVIDEO OUTPUT LOCKS:\n1 O\n\n", update)


class SegmentTest(MockupTest):
    """A request is parsed one TCP read at a time. Each test makes the server
    read the first part before the second is sent: the first part starts with
    a PING, and its ACK shows the part was read."""

    def setUp(self):
        super().setUp()
        self.a = self.connect()
        self.b = self.connect()

    def send_in_two_reads(self, first, second):
        self.a.send(PING + first)
        self.assertEqual(self.a.read(5), ACK)
        self.a.send(second)

    def test_a_block_cut_inside_an_item_is_lost_without_an_answer(self):
        self.send_in_two_reads(b"VIDEO OUTPUT ROUTING:\n7", b" 2\n\n")
        self.assertNothingMore(self.a, self.b)

    def test_a_block_cut_just_before_the_lf_of_its_item_is_lost_without_an_answer(self):
        self.send_in_two_reads(b"VIDEO OUTPUT ROUTING:\n7 2", b"\n\n")
        self.assertNothingMore(self.a, self.b)

    def test_a_header_alone_in_a_read_is_naked_and_its_items_then_ignored(self):
        self.a.send(b"VIDEO OUTPUT ROUTING:\n")
        self.assertEqual(self.a.read(5), NAK)
        self.a.send(b"7 2\n\n")
        self.assertNothingMore(self.a, self.b)

    def test_the_end_of_a_read_ends_the_block_before_its_empty_line(self):
        self.a.send(b"VIDEO OUTPUT ROUTING:\n7 2\n")
        self.assertEqual(self.a.read(5 + 27), ACK + TAKE_7_2)
        self.assertEqual(self.b.read(27), TAKE_7_2)
        self.a.send(b"\n")
        self.assertNothingMore(self.a, self.b)

    def test_a_ping_without_its_empty_line_is_acked(self):
        self.a.send(b"PING:\n")
        self.assertEqual(self.a.read(5), ACK)
        self.assertNothingMore(self.a)


class LockTest(MockupTest):

    def setUp(self):
        super().setUp()
        self.a = self.connect()
        self.b = self.connect()

    def lock_output_7_from_a(self):
        self.a.send(b"VIDEO OUTPUT LOCKS:\n7 O\n\n")
        self.assertEqual(self.a.read(5 + 25), ACK + b"VIDEO OUTPUT LOCKS:\n7 O\n\n")
        # Another connection is told "O" too: a lock has no owner here.
        self.assertEqual(self.b.read(25), b"VIDEO OUTPUT LOCKS:\n7 O\n\n")

    def test_a_lock_reads_O_to_every_connection_and_in_later_dumps_never_L(self):
        self.lock_output_7_from_a()
        self.assertNothingMore(self.a, self.b)
        self.assertNewConnectionDump(dump(12).replace(b"\n7 U\n", b"\n7 O\n"))

    def test_a_locked_output_is_routed_by_another_connection(self):
        self.lock_output_7_from_a()
        self.b.send(TAKE_7_2)
        self.assertEqual(self.b.read(5 + 27), ACK + TAKE_7_2)
        self.assertEqual(self.a.read(27), TAKE_7_2)

    def test_another_connection_unlocks_with_U(self):
        self.lock_output_7_from_a()
        self.b.send(b"VIDEO OUTPUT LOCKS:\n7 U\n\n")
        self.assertEqual(self.b.read(5 + 25), ACK + b"VIDEO OUTPUT LOCKS:\n7 U\n\n")
        self.assertEqual(self.a.read(25), b"VIDEO OUTPUT LOCKS:\n7 U\n\n")

    def test_a_forced_unlock_reads_U_to_every_connection(self):
        self.lock_output_7_from_a()
        self.b.send(b"VIDEO OUTPUT LOCKS:\n7 F\n\n")
        self.assertEqual(self.b.read(5 + 25), ACK + b"VIDEO OUTPUT LOCKS:\n7 U\n\n")
        self.assertEqual(self.a.read(25), b"VIDEO OUTPUT LOCKS:\n7 U\n\n")

    def test_locking_a_locked_output_again_is_acked_and_reported(self):
        self.lock_output_7_from_a()
        self.b.send(b"VIDEO OUTPUT LOCKS:\n7 O\n\n")
        self.assertEqual(self.b.read(5 + 25), ACK + b"VIDEO OUTPUT LOCKS:\n7 O\n\n")
        self.assertEqual(self.a.read(25), b"VIDEO OUTPUT LOCKS:\n7 O\n\n")

    def test_L_and_unknown_letters_are_naked(self):
        for letter in (b"L", b"X", b"o"):
            with self.subTest(letter=letter):
                self.assertAnswers(b"VIDEO OUTPUT LOCKS:\n7 " + letter + b"\n\n", NAK, self.a)
                self.assertNothingMore(self.b)

    def test_several_locks_come_back_in_ascending_order_and_out_of_range_ones_are_kept(self):
        self.a.send(b"VIDEO OUTPUT LOCKS:\n99 O\n5 O\n3 O\n\n")
        update = b"VIDEO OUTPUT LOCKS:\n3 O\n5 O\n99 O\n\n"
        self.assertEqual(self.a.read(5 + len(update)), ACK + update)
        self.assertEqual(self.b.read(len(update)), update)
        self.assertNewConnectionDump(dump(12).replace(b"\n3 U\n", b"\n3 O\n").replace(b"\n5 U\n", b"\n5 O\n")
                                     .replace(b"\n11 U\n\n", b"\n11 U\n99 O\n\n"))

    def test_a_lock_outlives_its_connection(self):
        self.lock_output_7_from_a()
        self.a.close()
        self.assertNothingMore(self.b)
        self.assertNewConnectionDump(dump(12).replace(b"\n7 U\n", b"\n7 O\n"))


class LabelTest(MockupTest):

    IO = 3

    def setUp(self):
        super().setUp()
        self.a = self.connect()
        self.b = self.connect()

    def test_an_input_label_change_sends_the_whole_input_labels_table(self):
        self.a.send(b"INPUT LABELS:\n1 Camera 2 wide\n\n")
        update = b"INPUT LABELS:\n0 Input 1\n1 Camera 2 wide\n2 Input 3\n\n"
        self.assertEqual(self.a.read(5 + len(update)), ACK + update)
        self.assertEqual(self.b.read(len(update)), update)

    def test_an_output_label_change_sends_only_the_changed_items(self):
        self.a.send(b"OUTPUT LABELS:\n2 Monitor wall\n0 \xc3\xa9t\xc3\xa9\n\n")
        update = b"OUTPUT LABELS:\n0 \xc3\xa9t\xc3\xa9\n2 Monitor wall\n\n"
        self.assertEqual(self.a.read(5 + len(update)), ACK + update)
        self.assertEqual(self.b.read(len(update)), update)

    def test_an_unchanged_label_is_reported_again(self):
        update = b"OUTPUT LABELS:\n1 Output 2\n\n"
        self.a.send(update)
        self.assertEqual(self.a.read(5 + len(update)), ACK + update)
        self.assertEqual(self.b.read(len(update)), update)

    def test_trailing_spaces_of_a_label_are_cut(self):
        self.a.send(b"OUTPUT LABELS:\n1 Wide   \n\n")
        update = b"OUTPUT LABELS:\n1 Wide\n\n"
        self.assertEqual(self.a.read(5 + len(update)), ACK + update)

    def test_a_label_ending_in_a_colon_is_taken_for_a_header_and_naked(self):
        self.assertAnswers(b"OUTPUT LABELS:\n1 Cam:\n\n", NAK, self.a)
        self.assertNothingMore(self.b)

    def test_an_empty_label_is_naked(self):
        for item in (b"1", b"1 "):
            with self.subTest(item=item):
                self.assertAnswers(b"OUTPUT LABELS:\n" + item + b"\n\n", NAK, self.a)

    def test_a_label_past_the_count_is_acked_and_kept_in_later_dumps(self):
        update = b"OUTPUT LABELS:\n40 Far\n\n"
        self.a.send(update)
        self.assertEqual(self.a.read(5 + len(update)), ACK + update)
        self.assertEqual(self.b.read(len(update)), update)
        self.assertNewConnectionDump(DUMP_3.replace(b"\n2 Output 3\n\n", b"\n2 Output 3\n40 Far\n\n"))


class LifetimeTest(MockupTest):
    """The connections and the process: what VideohubMockup promises."""

    IO = 3

    def test_it_listens_on_127_0_0_1_only(self):
        with self.assertRaises(ConnectionRefusedError):
            socket.create_connection(("127.0.0.2", self.mockup.port), timeout=TIMEOUT).close()

    def test_a_client_reset_leaves_the_server_serving_the_others(self):
        a, b = self.connect(), self.connect()
        a.reset()
        b.send(b"VIDEO OUTPUT ROUTING:\n2 0\n\n")
        self.assertEqual(b.read(5 + 27), ACK + b"VIDEO OUTPUT ROUTING:\n2 0\n\n")
        self.assertTrue(self.mockup.running())
        self.assertNewConnectionDump(DUMP_3.replace(b"\n2 2\n\n", b"\n2 0\n\n"))

    def test_state_is_shared_by_every_connection(self):
        client = self.connect()
        client.send(b"VIDEO OUTPUT ROUTING:\n2 0\n\n")
        client.read(5 + 27)
        self.assertNewConnectionDump(DUMP_3.replace(b"\n2 2\n\n", b"\n2 0\n\n"))

    def test_restart_closes_connections_and_listens_on_the_same_port_with_the_state_as_new(self):
        port = self.mockup.port
        client = self.connect()
        client.send(b"VIDEO OUTPUT ROUTING:\n2 0\n\n")
        client.read(5 + 27)
        self.mockup.restart()
        self.assertTrue(client.is_closed_by_peer())
        self.assertEqual(self.mockup.port, port)
        self.assertEqual(self.connect(read_dump=False).read(len(DUMP_3)), DUMP_3)

    def test_stop_closes_connections_and_ends_the_process(self):
        client = self.connect()
        self.mockup.stop()
        self.assertTrue(client.is_closed_by_peer())
        self.assertFalse(self.mockup.running())
        with self.assertRaises(ConnectionRefusedError):
            Client(self.mockup.port)

    def test_the_launcher_ends_when_its_standard_input_closes(self):
        process = self.mockup._process
        process.stdin.close()
        self.assertEqual(process.wait(5), 0)

    def test_the_log_has_a_line_per_connection(self):
        self.connect().close()
        deadline = time.monotonic() + TIMEOUT
        while not any(line.startswith("Client disconnected:") for line in self.mockup.log()):
            self.assertLess(time.monotonic(), deadline, self.mockup.log())
            time.sleep(0.02)
        self.assertTrue(any(line.startswith("Client connected: 127.0.0.1:") for line in self.mockup.log()))

    def test_a_context_manager_starts_and_stops_it(self):
        with VideohubMockup(inputs=3) as mockup:
            client = Client(mockup.port)
            self.assertEqual(client.read(len(DUMP_3)), DUMP_3)
        self.assertTrue(client.is_closed_by_peer())
        client.close()


if __name__ == "__main__":
    sys.exit(run_tests_unless_unavailable())
