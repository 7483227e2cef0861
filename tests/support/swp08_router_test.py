#!/usr/bin/env python3
"""The fixture SW-P-08 router, tested over loopback sockets (and one serial
line through a socat pty pair) the way the gateway will talk to it.
Expected bytes are written out in full, as hex.

To show that nothing more arrived after a reply, a test sends 08 and reads
the next frame: it must be the 09 answering it. The fixture sends each
connection's frames in order, so anything owed to that connection would
have come first."""

import os
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from swp08_router import MAX_PENDING_FRAMES, FrameParser, Swp08Router, encode_frame  # noqa: E402
from swp08_client import (Receiver, Swp08Client, connect, crosspoint, extended_connect,  # noqa: E402
                          extended_interrogate, frame, interrogate)

FIXTURE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "swp08_router.py")
TIMEOUT = 2.0
H = bytes.fromhex
STATUS_REQUEST = H("08")


def words(*numbers):
    return b"".join(struct.pack(">H", number) for number in numbers)


def pad(text, width):
    return text.encode().ljust(width)


class FixtureTest(unittest.TestCase):
    """A fresh router per test; clients are closed, and the router stopped, after it."""

    def start_router(self, **switches):
        self.router = Swp08Router(**switches)
        self.router.start()
        self.addCleanup(self.router.stop)
        return self.router

    def client(self, port=None, auto_ack=True):
        """A client the router has admitted, so that a broadcast reaches it."""
        before = set(self.router.connections())
        client = Swp08Client(self.router.port if port is None else port, timeout=TIMEOUT, auto_ack=auto_ack)
        self.addCleanup(client.close)
        self.assertTrue(self.router.wait_for(lambda: len(set(self.router.connections()) - before) == 1))
        client.number = (set(self.router.connections()) - before).pop()
        return client

    def assertNothingMore(self, *clients):
        for client in clients:
            self.assertEqual(client.send(STATUS_REQUEST), "ack")
            self.assertEqual(client.read_frame()[0], 0x09)
            self.assertEqual(client.pending(), [])

    def assertFrames(self, client, *expected):
        for data in expected:
            self.assertEqual(client.read_frame().hex(" "), H(data).hex(" ") if isinstance(data, str)
                             else data.hex(" "))

    def assertRequest(self, client, request, *replies):
        """Send a request, expect its ACK, then exactly these replies."""
        self.assertEqual(client.send(H(request)), "ack")
        self.assertFrames(client, *replies)


class FramingTest(unittest.TestCase):
    """Frames built and read without a socket: the client's builder and
    receiver against the worked frames, and the fixture's encoder and parser
    against the same bytes."""

    WORKED = [
        ("02 00 00 07 02", "10 02 02 00 00 07 02 05 F0 10 03"),                # E1 connect
        ("04 00 00 07 02", "10 02 04 00 00 07 02 05 EE 10 03"),                # E1 connected
        ("02 01 02 10 2C", "10 02 02 01 02 10 10 2C 05 BA 10 03"),             # E2 connect
        ("04 01 02 10 2C", "10 02 04 01 02 10 10 2C 05 B8 10 03"),             # E2 connected
        ("02 00 00 10 03", "10 02 02 00 00 10 10 03 05 E6 10 03"),             # E2b
        ("01 0F 60 7C", "10 02 01 0F 60 7C 04 10 10 10 03"),                   # E3 interrogate, CHK 0x10
        ("03 0F 67 7C 68", "10 02 03 0F 67 7C 68 05 9E 10 03"),                # E3 tally
        ("82 00 14 04 10 07 D0", "10 02 82 00 14 04 10 10 07 D0 07 78 10 03"),  # E4 connect
        ("84 00 14 04 10 07 D0 00", "10 02 84 00 14 04 10 10 07 D0 00 08 75 10 03"),  # E4 connected
        ("15 00", "10 02 15 00 02 E9 10 03"),                                  # dump request M0 L0
        ("79 00 05", "10 02 79 00 05 03 7F 10 03"),                            # go salvo 5
        ("61", "10 02 61 01 9E 10 03"),                                        # Appendix 1
        ("02 11 00 02 00", "10 02 02 11 00 02 00 05 E6 10 03"),
        ("04 11 00 02 00", "10 02 04 11 00 02 00 05 E4 10 03"),
        ("01 11 00 01", "10 02 01 11 00 01 04 E9 10 03"),
        ("03 11 01 01 19", "10 02 03 11 01 01 19 05 CC 10 03"),
    ]

    def test_the_client_builds_every_worked_frame_byte_for_byte(self):
        for data, wire in self.WORKED:
            with self.subTest(data=data):
                self.assertEqual(frame(H(data)).hex(" "), H(wire).hex(" "))

    def test_the_fixture_encodes_every_worked_frame_byte_for_byte(self):
        for data, wire in self.WORKED:
            with self.subTest(data=data):
                self.assertEqual(encode_frame(H(data)).hex(" "), H(wire).hex(" "))

    def test_both_receivers_read_every_worked_frame_back(self):
        for data, wire in self.WORKED:
            with self.subTest(data=data):
                (event,) = Receiver().feed(H(wire))
                self.assertEqual((event.kind, event.data, event.raw), ("frame", H(data), H(wire)))
                self.assertEqual(FrameParser().feed(H(wire)), [("frame", H(data))])

    def test_a_byte_count_of_16_is_doubled(self):
        self.assertEqual(frame(H("20") + bytes(15)),
                         H("10 02 20" + " 00" * 15 + " 10 10 D0 10 03"))

    def test_the_first_dle_etx_in_e2b_is_data_not_the_end(self):
        (event,) = Receiver().feed(H("10 02 02 00 00 10 10 03 05 E6 10 03"))
        self.assertEqual(event.data, H("02 00 00 10 03"))

    def test_an_ack_inside_a_frame_is_read_and_the_frame_still_completes(self):
        wire = H("10 02 02 00 00 10 06 07 02 05 F0 10 03")
        self.assertEqual([(event.kind, event.data) for event in Receiver().feed(wire)],
                         [("ack", None), ("frame", H("02 00 00 07 02"))])
        self.assertEqual(FrameParser().feed(wire), [("ack", None), ("frame", H("02 00 00 07 02"))])

    def test_a_frame_split_anywhere_reads_the_same(self):
        wire = H("10 02 01 0F 60 7C 04 10 10 10 03")
        for cut in range(1, len(wire)):
            with self.subTest(cut=cut):
                receiver, parser = Receiver(), FrameParser()
                events = receiver.feed(wire[:cut]) + receiver.feed(wire[cut:])
                self.assertEqual([(event.kind, event.data) for event in events], [("frame", H("01 0F 60 7C"))])
                self.assertEqual(parser.feed(wire[:cut]) + parser.feed(wire[cut:]), [("frame", H("01 0F 60 7C"))])

    def test_the_client_builders_lay_out_the_worked_requests(self):
        self.assertEqual(connect(0, 1, 16, 300), H("02 01 02 10 2C"))
        self.assertEqual(interrogate(0, 15, 892), H("01 0F 60 7C"))
        self.assertEqual(extended_connect(0, 20, 1040, 2000), H("82 00 14 04 10 07 D0"))
        self.assertEqual(extended_interrogate(0, 20, 1040), H("81 00 14 04 10"))

    def test_the_client_reads_a_tally_in_any_of_its_four_forms(self):
        self.assertEqual(crosspoint(H("03 0F 67 7C 68")), (0, 15, 892, 1000))
        self.assertEqual(crosspoint(H("04 11 09 01 19")), (1, 1, 1, 153))   # bit 3 of MU left out
        self.assertEqual(crosspoint(H("84 00 14 04 10 07 D0 00")), (0, 20, 1040, 2000))
        self.assertEqual(crosspoint(H("83 00 14 04 10 07 D0")), (0, 20, 1040, 2000))

    def test_more_than_255_data_bytes_cannot_be_framed(self):
        with self.assertRaises(ValueError):
            frame(bytes(256))
        with self.assertRaises(ValueError):
            encode_frame(bytes(256))


class WorkedExampleTest(FixtureTest):
    """The worked frames, exchanged with the fixture."""

    def setUp(self):
        self.start_router(levels={(0, 0): (32, 32), (0, 1): (512, 512), (0, 15): (1024, 1024),
                                  (0, 20): (2048, 2048), (1, 1): (256, 256)})
        self.a, self.b = self.client(), self.client()

    def test_e1_connect_is_acked_then_broadcast_to_every_connection(self):
        self.a.send_raw(H("10 02 02 00 00 07 02 05 F0 10 03"))
        self.assertEqual(self.a.next_event().raw, H("10 06"))
        for client in (self.a, self.b):
            self.assertEqual(client.next_frame().raw, H("10 02 04 00 00 07 02 05 EE 10 03"))
        self.assertEqual(self.router.tally(0, 0, 7), 2)
        self.assertTrue(self.router.wait_for(lambda: self.router.counters()["acks_received"] == 2))
        self.assertNothingMore(self.a, self.b)

    def test_e2_source_300_to_destination_16_doubles_the_dle(self):
        self.a.send_raw(H("10 02 02 01 02 10 10 2C 05 BA 10 03"))
        self.assertEqual(self.a.wait_link(), "ack")
        for client in (self.a, self.b):
            self.assertEqual(client.next_frame().raw, H("10 02 04 01 02 10 10 2C 05 B8 10 03"))
        self.assertEqual(self.router.tally(0, 1, 16), 300)

    def test_e2b_the_first_dle_etx_pair_is_data(self):
        self.a.send_raw(H("10 02 02 00 00 10 10 03 05 E6 10 03"))
        self.assertEqual(self.a.wait_link(), "ack")
        self.assertEqual(self.a.next_frame().raw, H("10 02 04 00 00 10 10 03 05 E4 10 03"))
        self.assertEqual(self.router.tally(0, 0, 16), 3)

    def test_e3_interrogate_with_a_doubled_checksum_gets_its_tally_on_the_asking_port_only(self):
        self.router.set_crosspoint(0, 15, 892, 1000)
        self.assertFrames(self.a, "04 0F 67 7C 68")
        self.assertFrames(self.b, "04 0F 67 7C 68")
        self.a.send_raw(H("10 02 01 0F 60 7C 04 10 10 10 03"))
        self.assertEqual(self.a.wait_link(), "ack")
        self.assertEqual(self.a.next_frame().raw, H("10 02 03 0F 67 7C 68 05 9E 10 03"))
        self.assertNothingMore(self.a, self.b)

    def test_e4_extended_connect_gets_the_7_byte_connected_reply(self):
        self.a.send_raw(H("10 02 82 00 14 04 10 10 07 D0 07 78 10 03"))
        self.assertEqual(self.a.wait_link(), "ack")
        for client in (self.a, self.b):
            self.assertEqual(client.next_frame().raw, H("10 02 84 00 14 04 10 10 07 D0 00 08 75 10 03"))
        self.assertEqual(self.router.tally(0, 20, 1040), 2000)

    def test_the_dump_request_for_matrix_0_level_0_gets_a_word_dump(self):
        self.a.send_raw(H("10 02 15 00 02 E9 10 03"))
        self.assertEqual(self.a.wait_link(), "ack")
        self.assertFrames(self.a, H("17 00 20 00 00") + words(*range(32)))
        self.assertNothingMore(self.a, self.b)

    def test_go_salvo_5_sets_what_was_stored_in_it(self):
        self.assertRequest(self.a, "78 00 00 07 02 05", "7A 00 00 07 02 05")
        self.a.send_raw(H("10 02 79 00 05 03 7F 10 03"))
        self.assertEqual(self.a.wait_link(), "ack")
        self.assertFrames(self.a, "7B 00 05")
        self.assertEqual(self.router.tally(0, 0, 7), 2)

    def test_appendix_implementation_request_is_answered(self):
        self.a.send_raw(H("10 02 61 01 9E 10 03"))
        self.assertEqual(self.a.wait_link(), "ack")
        self.assertEqual(self.a.read_frame()[0], 0x62)

    def test_appendix_connect_matrix_1_level_1_is_broadcast_with_checksum_e4(self):
        self.a.send_raw(H("10 02 02 11 00 02 00 05 E6 10 03"))
        self.assertEqual(self.a.wait_link(), "ack")
        for client in (self.a, self.b):
            self.assertEqual(client.next_frame().raw, H("10 02 04 11 00 02 00 05 E4 10 03"))

    def test_appendix_interrogate_gets_source_153_with_checksum_cc(self):
        self.router.set_crosspoint(1, 1, 1, 153)
        self.assertFrames(self.a, "04 11 01 01 19")
        self.a.send_raw(H("10 02 01 11 00 01 04 E9 10 03"))
        self.assertEqual(self.a.wait_link(), "ack")
        self.assertEqual(self.a.next_frame().raw, H("10 02 03 11 01 01 19 05 CC 10 03"))


class LinkTest(FixtureTest):

    def setUp(self):
        self.start_router()
        self.a = self.client()

    def test_a_bad_checksum_is_naked_and_not_acted_on(self):
        self.a.send_raw(H("10 02 02 00 00 07 02 05 F1 10 03"))
        self.assertEqual(self.a.wait_link(), "nak")
        self.assertEqual(self.router.tally(0, 0, 7), 7)
        self.assertEqual(self.router.requests(), [])
        self.assertNothingMore(self.a)

    def test_a_bad_byte_count_is_naked_and_not_acted_on(self):
        # BTC 6 for 5 data bytes, with a checksum that holds for it.
        self.a.send_raw(H("10 02 02 00 00 07 02 06 EF 10 03"))
        self.assertEqual(self.a.wait_link(), "nak")
        self.assertEqual(self.router.tally(0, 0, 7), 7)
        self.assertNothingMore(self.a)

    def test_a_frame_without_a_command_byte_is_naked(self):
        self.a.send_raw(H("10 02 00 00 10 03"))
        self.assertEqual(self.a.wait_link(), "nak")

    def test_a_dle_followed_by_an_unknown_byte_inside_a_frame_is_naked(self):
        self.a.send_raw(H("10 02 02 00 10 41 10 03"))
        self.assertEqual(self.a.wait_link(), "nak")

    def test_a_frame_with_256_data_bytes_is_naked(self):
        data = b"\x20" * 256
        self.a.send_raw(H("10 02") + data + bytes([0, -sum(data) & 0xFF]) + H("10 03"))
        self.assertEqual(self.a.wait_link(), "nak")
        self.assertEqual(self.router.counters()["bad_frames"], 1)
        self.assertNothingMore(self.a)

    def test_a_frame_with_255_data_bytes_is_acked(self):
        self.assertEqual(self.a.send(H("20") + bytes(254)), "ack")
        self.assertEqual(self.router.requests(), [(self.a.number, 0x20, bytes(254))])

    def test_a_byte_count_of_16_is_read_unstuffed(self):
        self.a.send_raw(H("10 02 20" + " 00" * 15 + " 10 10 D0 10 03"))
        self.assertEqual(self.a.wait_link(), "ack")
        self.assertEqual(self.router.requests(), [(self.a.number, 0x20, bytes(15))])

    def test_a_runaway_frame_is_dropped_at_the_next_start(self):
        self.a.send_raw(H("10 02") + b"\x55" * (1 << 20))
        self.assertRequest(self.a, "01 00 00 05", "03 00 00 05 05")
        self.assertEqual(self.router.counters()["dropped_frames"], 1)
        self.assertEqual(self.router.counters()["naks_sent"], 0)

    def test_a_partial_frame_is_dropped_when_a_new_one_starts(self):
        self.a.send_raw(H("10 02 02 00 00"))
        self.assertRequest(self.a, "01 00 00 05", "03 00 00 05 05")
        self.assertEqual(self.router.tally(0, 0, 0), 0)
        self.assertEqual(self.router.counters()["dropped_frames"], 1)

    def test_bytes_between_frames_are_ignored(self):
        self.a.send_raw(H("00 FF 03 10 03 55"))
        self.assertRequest(self.a, "01 00 00 05", "03 00 00 05 05")
        self.assertEqual(self.router.counters()["naks_sent"], 0)

    def test_an_ack_inside_a_request_acknowledges_the_frame_waiting_for_it(self):
        self.a.auto_ack = False
        self.router.set_crosspoint(0, 0, 1, 9)
        self.assertFrames(self.a, "04 00 00 01 09")
        self.a.send_raw(H("10 02 01 00 00 10 06 05 04 F6 10 03"))
        self.assertEqual(self.a.wait_link(), "ack")
        self.assertFrames(self.a, "03 00 00 05 05")
        self.assertEqual(self.router.counters()["acks_received"], 1)
        self.a.ack()
        time.sleep(0.3)
        self.assertEqual(self.router.counters()["resends"], 0)

    def test_an_unknown_command_is_acked_and_not_answered(self):
        self.assertEqual(self.a.send(H("5A 01 02")), "ack")
        self.assertNothingMore(self.a)
        self.assertEqual(self.router.requests(self.a.number)[0], (0x5A, H("01 02")))

    def test_a_request_of_the_wrong_length_is_acked_and_ignored(self):
        self.assertEqual(self.a.send(H("01 00 00")), "ack")
        self.assertEqual(self.a.send(H("02 00 00 07 02 00")), "ack")
        self.assertNothingMore(self.a)
        self.assertEqual(self.router.tally(0, 0, 7), 7)

    def test_an_invalid_message_report_is_never_answered(self):
        self.assertEqual(self.a.send(H("63 5A")), "ack")
        self.assertNothingMore(self.a)

    def test_a_frame_not_acked_is_sent_again_after_the_timeout(self):
        self.router.resend_timeout = 0.2
        self.a.auto_ack = False
        self.router.set_crosspoint(0, 0, 7, 2)
        first = self.a.next_frame()
        started = time.monotonic()
        again = self.a.next_frame()
        self.assertGreaterEqual(time.monotonic() - started, 0.15)
        self.assertEqual(again.raw, first.raw)
        self.a.ack()
        self.assertTrue(self.router.wait_for(lambda: self.router.counters()["acks_received"] == 1))
        self.assertEqual(self.router.counters()["resends"], 1)
        self.a.auto_ack = True
        self.assertNothingMore(self.a)

    def test_a_frame_is_given_up_after_five_resends_and_the_next_one_goes(self):
        self.router.resend_timeout = 0.05
        self.a.auto_ack = False
        self.router.set_crosspoint(0, 0, 7, 2)
        self.router.set_crosspoint(0, 0, 8, 3)
        copies = [self.a.next_frame().raw for _ in range(6)]
        self.assertEqual(copies, [H("10 02 04 00 00 07 02 05 EE 10 03")] * 6)
        self.assertEqual(self.a.read_frame(), H("04 00 00 08 03"))
        self.assertEqual(self.router.counters()["given_up"], 1)
        self.assertEqual(self.router.counters()["resends"], 5)
        self.a.ack()

    def test_a_nak_brings_the_frame_again_at_once(self):
        self.router.resend_timeout = 5.0
        self.a.auto_ack = False
        self.router.set_crosspoint(0, 0, 7, 2)
        first = self.a.next_frame()
        self.a.nak()
        self.assertEqual(self.a.next_frame(timeout=1.0).raw, first.raw)
        self.a.ack()
        self.assertTrue(self.router.wait_for(lambda: self.router.counters()["acks_received"] == 1))
        self.assertEqual(self.router.counters()["naks_received"], 1)
        self.assertEqual(self.router.counters()["resends"], 1)

    def test_the_next_frame_waits_for_the_ack_of_the_one_before(self):
        self.router.resend_timeout = 5.0
        self.a.auto_ack = False
        self.router.set_crosspoint(0, 0, 7, 2)
        self.router.set_crosspoint(0, 0, 8, 3)
        self.assertEqual(self.a.read_frame(), H("04 00 00 07 02"))
        with self.assertRaises(TimeoutError):
            self.a.next_frame(timeout=0.3)
        self.a.ack()
        self.assertEqual(self.a.read_frame(), H("04 00 00 08 03"))
        self.a.ack()

    def test_without_waiting_for_acks_the_frames_stream_and_are_not_resent(self):
        self.router.wait_for_ack = False
        self.a.auto_ack = False
        for dest in range(3):
            self.router.set_crosspoint(0, 0, dest, 9)
        self.assertFrames(self.a, "04 00 00 00 09", "04 00 00 01 09", "04 00 00 02 09")
        time.sleep(0.3)
        self.assertEqual(self.a.pending(), [])
        self.assertEqual(self.router.counters()["resends"], 0)

    def test_a_repeated_request_is_acked_and_confirmed_again(self):
        for _ in range(2):
            self.assertRequest(self.a, "02 00 00 07 02", "04 00 00 07 02")
        self.assertEqual(self.router.tally(0, 0, 7), 2)
        self.assertNothingMore(self.a)

    def test_the_reply_can_come_before_the_ack(self):
        self.router.reply_before_ack = True
        self.a.send_frame(H("01 00 00 05"))
        self.assertEqual([self.a.next_event().kind, self.a.next_event().kind], ["frame", "ack"])

    def test_by_default_the_ack_comes_before_the_reply(self):
        self.a.send_frame(H("01 00 00 05"))
        self.assertEqual([self.a.next_event().kind, self.a.next_event().kind], ["ack", "frame"])

    def test_the_request_log_holds_each_well_formed_frame_decoded(self):
        b = self.client()
        self.a.send(H("01 00 00 05"))
        b.send(H("02 00 00 07 02"))
        self.assertEqual(self.router.requests(), [(self.a.number, 0x01, H("00 00 05")),
                                                  (b.number, 0x02, H("00 00 07 02"))])
        self.assertEqual(self.router.requests(b.number), [(0x02, H("00 00 07 02"))])


class CrosspointTest(FixtureTest):

    def setUp(self):
        self.start_router(levels={(0, 0): (32, 32), (0, 1): (2048, 300)})
        self.a, self.b = self.client(), self.client()

    def test_interrogate_is_answered_with_03_on_the_asking_port_only(self):
        self.assertRequest(self.a, "01 00 00 05", "03 00 00 05 05")
        self.assertNothingMore(self.a, self.b)

    def test_interrogate_can_be_answered_with_04_on_the_asking_port_only(self):
        self.router.interrogate_reply = "04"
        self.assertRequest(self.a, "01 00 00 05", "04 00 00 05 05")
        self.assertRequest(self.a, "81 00 00 00 05", "84 00 00 00 05 00 05 00")
        self.assertNothingMore(self.a, self.b)

    def test_interrogate_above_127_splits_dest_and_source_at_128(self):
        self.router.set_crosspoint(0, 1, 200, 1500)
        self.assertFrames(self.a, "84 00 01 00 C8 05 DC 00")   # source 1500 is past the standard ceiling
        self.router.set_crosspoint(0, 1, 200, 300)
        self.assertFrames(self.a, "04 01 12 48 2C")
        self.assertRequest(self.a, "01 01 10 48", "03 01 12 48 2C")

    def test_extended_interrogate_gets_the_7_byte_tally(self):
        self.assertRequest(self.a, "81 00 00 00 05", "83 00 00 00 05 00 05 00")

    def test_the_extended_tally_can_be_sent_without_its_status_byte(self):
        self.router.short_extended = True
        self.assertRequest(self.a, "81 00 00 00 05", "83 00 00 00 05 00 05")
        self.assertRequest(self.a, "82 00 00 00 05 00 01", "84 00 00 00 05 00 01")

    def test_interrogate_out_of_range_is_acked_and_not_answered(self):
        for request in ("01 00 00 20", "01 02 00 00", "81 00 00 00 20", "81 05 00 00 00"):
            self.assertEqual(self.a.send(H(request)), "ack")
        self.assertNothingMore(self.a)

    def test_connect_is_acked_then_broadcast_to_every_connection(self):
        self.assertRequest(self.a, "02 00 00 07 02", "04 00 00 07 02")
        self.assertFrames(self.b, "04 00 00 07 02")
        self.assertEqual(self.router.tally(0, 0, 7), 2)
        self.assertNothingMore(self.a, self.b)

    def test_extended_connect_is_broadcast_as_84(self):
        self.assertRequest(self.a, "82 00 01 01 00 07 D0", "84 00 01 01 00 07 D0 00")
        self.assertFrames(self.b, "84 00 01 01 00 07 D0 00")
        self.assertEqual(self.router.tally(0, 1, 256), 2000)

    def test_bit_3_of_the_multiplier_is_not_part_of_the_source(self):
        self.assertRequest(self.a, "02 00 08 07 02", "04 00 00 07 02")
        self.assertEqual(self.router.tally(0, 0, 7), 2)

    def test_connect_out_of_range_is_acked_and_silently_ignored(self):
        for request in ("02 00 00 20 00", "02 00 00 00 20", "02 03 00 00 00", "82 00 00 00 00 00 20"):
            self.assertEqual(self.a.send(H(request)), "ack")
        self.assertNothingMore(self.a, self.b)
        self.assertEqual(self.router.tallies(0, 0), list(range(32)))

    def test_connect_to_a_protected_destination_is_acked_and_ignored(self):
        self.router.set_protect(0, 0, 7, 3)
        self.assertFrames(self.a, "0D 00 01 00 07 03")
        self.assertFrames(self.b, "0D 00 01 00 07 03")
        self.assertEqual(self.a.send(H("02 00 00 07 02")), "ack")
        self.assertNothingMore(self.a, self.b)
        self.assertEqual(self.router.tally(0, 0, 7), 7)

    def test_connect_to_a_protected_destination_can_be_let_through(self):
        self.router.protect_blocks_connects = False
        self.router.set_protect(0, 0, 7, 3)
        self.assertFrames(self.a, "0D 00 01 00 07 03")
        self.assertRequest(self.a, "02 00 00 07 02", "04 00 00 07 02")
        self.assertEqual(self.router.protect_of(0, 0, 7), (3, 1))

    def test_a_panel_route_is_broadcast_to_every_connection(self):
        self.router.set_crosspoint(0, 0, 3, 4)
        self.assertFrames(self.a, "04 00 00 03 04")
        self.assertFrames(self.b, "04 00 00 03 04")


class DumpTest(FixtureTest):

    def test_a_word_dump_holds_at_most_64_destinations_a_message(self):
        self.start_router(levels={(0, 2): (100, 100)})
        a = self.client()
        self.assertRequest(a, "15 02",
                           H("17 02 40 00 00") + words(*range(64)),
                           H("17 02 24 00 40") + words(*range(64, 100)))
        self.assertNothingMore(a)

    def test_an_extended_dump_request_gets_97(self):
        self.start_router(levels={(0, 2): (100, 100)})
        a = self.client()
        self.assertRequest(a, "95 00 02",
                           H("97 00 02 40 00 00") + words(*range(64)),
                           H("97 00 02 24 00 40") + words(*range(64, 100)))

    def test_a_byte_dump_has_a_byte_per_source(self):
        self.start_router(levels={(1, 0): (8, 8)}, dumps="byte")
        a = self.client()
        self.router.set_crosspoint(1, 0, 2, 7)
        self.assertFrames(a, "04 10 00 02 07")
        self.assertRequest(a, "15 10", "16 10 08 00 00 01 07 03 04 05 06 07")

    def test_a_byte_dump_falls_back_to_words_for_a_source_over_191(self):
        self.start_router(levels={(0, 0): (200, 4)}, dumps="byte")
        a = self.client()
        self.router.set_crosspoint(0, 0, 1, 192)
        self.assertFrames(a, "04 00 01 01 40")  # 192 = 128 + 64: MU 0x01, 0x40
        self.assertRequest(a, "15 00", H("17 00 04 00 00") + words(0, 192, 2, 3))

    def test_a_byte_dump_falls_back_to_words_past_destination_191(self):
        self.start_router(levels={(0, 0): (4, 193)}, dumps="byte")
        a = self.client()
        self.assertEqual(a.send(H("15 00")), "ack")
        self.assertEqual([a.read_frame()[:5] for _ in range(4)],
                         [H("17 00 40 00 00"), H("17 00 40 00 40"), H("17 00 40 00 80"), H("17 00 01 00 C0")])

    def test_an_extended_dump_request_gets_words_in_byte_mode(self):
        self.start_router(levels={(0, 0): (4, 4)}, dumps="byte")
        a = self.client()
        self.assertRequest(a, "95 00 00", H("97 00 00 04 00 00") + words(0, 1, 2, 3))

    def test_a_dump_can_be_a_stream_of_tallies(self):
        self.start_router(levels={(0, 0): (4, 3)}, dumps="tallies")
        a = self.client()
        self.assertRequest(a, "15 00", "03 00 00 00 00", "03 00 00 01 01", "03 00 00 02 02")
        self.assertRequest(a, "95 00 00", "83 00 00 00 00 00 00 00", "83 00 00 00 01 00 01 00",
                           "83 00 00 00 02 00 02 00")
        self.assertNothingMore(a)

    def test_a_dump_request_can_go_unanswered(self):
        self.start_router(dumps="none")
        a = self.client()
        self.assertEqual(a.send(H("15 00")), "ack")
        self.assertEqual(a.send(H("95 00 00")), "ack")
        self.assertNothingMore(a)

    def test_a_dump_of_a_level_that_is_not_there_is_not_answered(self):
        self.start_router()
        a = self.client()
        self.assertEqual(a.send(H("15 05")), "ack")
        self.assertNothingMore(a)


class ProtectTest(FixtureTest):

    def setUp(self):
        self.start_router(levels={(0, 0): (32, 32), (0, 1): (256, 256)})
        self.a, self.b = self.client(), self.client()

    def protect_5_for_device_3(self):
        self.assertRequest(self.a, "0C 00 00 05 03", "0D 00 01 00 05 03")
        self.assertFrames(self.b, "0D 00 01 00 05 03")

    def test_an_unprotected_destination_reads_p_0_device_0(self):
        self.assertRequest(self.a, "0A 00 00 05", "0B 00 00 00 05 00")
        self.assertRequest(self.a, "8A 00 00 00 05", "8B 00 00 00 00 05 00 00")

    def test_protect_connect_is_broadcast_and_read_back(self):
        self.protect_5_for_device_3()
        self.assertEqual(self.router.protect_of(0, 0, 5), (3, 1))
        self.assertRequest(self.b, "0A 00 00 05", "0B 00 01 00 05 03")
        self.assertNothingMore(self.a, self.b)

    def test_protect_fields_split_dest_and_device_at_128(self):
        # dest 200: MU 0x10 (doubled on the wire), 0x48; device 300: MU low bits 2, 0x2C.
        self.assertRequest(self.a, "0C 01 12 48 2C", "0D 01 01 12 48 2C")
        self.assertEqual(self.router.protect_of(0, 1, 200), (300, 1))

    def test_a_protect_held_by_another_device_is_refused_showing_the_owner_to_the_requester_only(self):
        self.protect_5_for_device_3()
        self.assertRequest(self.b, "0C 00 00 05 04", "0D 00 01 00 05 03")
        self.assertNothingMore(self.a, self.b)
        self.assertEqual(self.router.protect_of(0, 0, 5), (3, 1))

    def test_the_owner_can_protect_again(self):
        self.protect_5_for_device_3()
        self.assertRequest(self.b, "0C 00 00 05 03", "0D 00 01 00 05 03")
        self.assertFrames(self.a, "0D 00 01 00 05 03")

    def test_the_owner_removes_its_protect_and_everyone_is_told(self):
        self.protect_5_for_device_3()
        self.assertRequest(self.a, "0E 00 00 05 03", "0F 00 00 00 05 03")
        self.assertFrames(self.b, "0F 00 00 00 05 03")
        self.assertIsNone(self.router.protect_of(0, 0, 5))

    def test_another_device_cannot_remove_a_protect_and_is_shown_it_still_there(self):
        self.protect_5_for_device_3()
        self.assertRequest(self.b, "0E 00 00 05 04", "0F 00 01 00 05 03")
        self.assertNothingMore(self.a, self.b)
        self.assertEqual(self.router.protect_of(0, 0, 5), (3, 1))

    def test_master_protect_takes_over_any_protect(self):
        self.protect_5_for_device_3()
        self.assertRequest(self.b, "1D 00 00 00 05 00 04", "0D 00 01 00 05 04")
        self.assertFrames(self.a, "0D 00 01 00 05 04")
        self.assertEqual(self.router.protect_of(0, 0, 5), (4, 1))

    def test_protect_dump_has_p_in_bits_14_to_12_and_the_device_in_bits_9_to_0(self):
        self.router.set_protect(0, 0, 3, 300)
        self.assertFrames(self.a, "0D 00 01 02 03 2C")
        self.assertRequest(self.a, "13 00 00 00", H("14 00 20 00 00") + words(0, 0, 0, 0x112C) + words(*[0] * 28))
        self.assertRequest(self.a, "13 00 00 1E", "14 00 02 00 1E 00 00 00 00")
        self.assertRequest(self.a, "93 00 00 00 02", H("94 00 00 1E 00 02 00 00 11 2C") + words(*[0] * 28))

    def test_a_protect_dump_holds_at_most_64_destinations_a_message(self):
        self.assertEqual(self.a.send(H("13 01 00 00")), "ack")
        self.assertEqual([self.a.read_frame()[:5] for _ in range(4)],
                         [H("14 01 40 00 00"), H("14 01 40 00 40"), H("14 01 40 00 80"), H("14 01 40 00 C0")])
        self.assertNothingMore(self.a)

    def test_extended_protect_connect_and_disconnect(self):
        self.assertRequest(self.a, "8C 00 00 00 05 01 2C", "8D 00 00 01 00 05 01 2C")
        self.assertFrames(self.b, "8D 00 00 01 00 05 01 2C")
        self.assertRequest(self.a, "8A 00 00 00 05", "8B 00 00 01 00 05 01 2C")
        self.assertRequest(self.b, "8C 00 00 00 05 00 07", "8D 00 00 01 00 05 01 2C")
        self.assertRequest(self.b, "8E 00 00 00 05 00 07", "8F 00 00 01 00 05 01 2C")
        self.assertRequest(self.a, "8E 00 00 00 05 01 2C", "8F 00 00 00 00 05 01 2C")
        self.assertFrames(self.b, "8F 00 00 00 00 05 01 2C")

    def test_a_panel_protect_and_release_are_broadcast(self):
        self.router.set_protect(0, 0, 9, 12)
        self.assertFrames(self.a, "0D 00 01 00 09 0C")
        self.router.clear_protect(0, 0, 9)
        self.assertFrames(self.a, "0F 00 00 00 09 0C")
        self.assertFrames(self.b, "0D 00 01 00 09 0C", "0F 00 00 00 09 0C")

    def test_a_protect_device_name_request_gets_eight_characters(self):
        self.assertRequest(self.a, "11 00 03", H("12 00 03") + b"DEV 3   ")
        self.assertRequest(self.a, "11 02 2C", H("12 02 2C") + b"DEV 300 ")


class NameTest(FixtureTest):

    def setUp(self):
        self.start_router(levels={(0, 0): (3, 2), (0, 1): (40, 40), (1, 0): (2, 5)})
        self.a, self.b = self.client(), self.client()

    def test_all_source_names_in_each_length(self):
        for code, width in ((0, 4), (1, 8), (2, 12), (3, 16), (4, 32)):
            with self.subTest(width=width):
                names = b"".join(pad("SRC %d" % n, width)[:width] for n in (1, 2, 3))
                self.assertRequest(self.a, "64 00 %02X" % code, H("6A 00 %02X 00 00 03" % code) + names)

    def test_a_names_message_holds_32_16_10_8_or_7_names(self):
        for code, counts in ((0, [32, 8]), (1, [16, 16, 8]), (2, [10] * 4), (3, [8] * 5), (4, [7] * 5 + [5])):
            with self.subTest(code=code):
                self.assertEqual(self.a.send(H("64 01 %02X" % code)), "ack")
                replies = self.a.read_frames(len(counts))
                self.assertEqual([(reply[3] << 8 | reply[4], reply[5]) for reply in replies],
                                 [(sum(counts[:i]), count) for i, count in enumerate(counts)])
                self.assertEqual([len(reply) for reply in replies],
                                 [6 + count * (4, 8, 12, 16, 32)[code] for count in counts])
        self.assertNothingMore(self.a)

    def test_a_single_source_name(self):
        self.assertRequest(self.a, "65 00 01 00 02", H("6A 00 01 00 02 01") + b"SRC 3   ")

    def test_all_destination_association_names_of_a_matrix(self):
        names = b"".join(pad("DST %d" % n, 8) for n in range(1, 6))
        self.assertRequest(self.a, "66 10 01", H("6B 10 01 00 00 05") + names)

    def test_the_low_nibble_of_a_destination_names_request_is_unused(self):
        self.assertRequest(self.a, "66 1F 01", H("6B 10 01 00 00 05") + b"".join(pad("DST %d" % n, 8)
                                                                                 for n in range(1, 6)))

    def test_a_single_destination_association_name(self):
        self.assertRequest(self.a, "67 10 01 00 04", H("6B 10 01 00 04 01") + b"DST 5   ")

    def test_extended_name_requests(self):
        self.assertRequest(self.a, "E4 01 00 01", H("EA 01 00 01 00 00 02") + b"SRC 1   SRC 2   ")
        self.assertRequest(self.a, "E5 01 00 01 00 01", H("EA 01 00 01 00 01 01") + b"SRC 2   ")
        self.assertRequest(self.a, "E6 01 01", H("EB 01 01 00 00 05") + b"".join(pad("DST %d" % n, 8)
                                                                                 for n in range(1, 6)))
        self.assertRequest(self.a, "E7 01 01 00 02", H("EB 01 01 00 02 01") + b"DST 3   ")

    def test_names_requests_out_of_range_or_with_an_unknown_length_are_not_answered(self):
        for request in ("64 00 05", "65 00 01 00 03", "66 20 01", "67 10 01 00 05", "E4 02 00 01"):
            self.assertEqual(self.a.send(H(request)), "ack")
        self.assertNothingMore(self.a)

    def test_a_name_longer_than_the_width_is_cut(self):
        self.router.set_source_name(0, 0, 0, "CAMERA ONE WIDE")
        self.assertFrames(self.a, "1E 00 00 00 01 00 00 00 01")
        self.assertRequest(self.a, "65 00 01 00 00", H("6A 00 01 00 00 01") + b"CAMERA O")
        self.assertEqual(self.router.source_names(0, 0)[0], "CAMERA ONE WIDE")

    def test_a_source_name_change_sends_names_updated_to_every_connection(self):
        self.router.set_source_name(1, 0, 1, "VTR")
        self.assertFrames(self.a, "1E 00 00 00 02 00 00 00 01")
        self.assertFrames(self.b, "1E 00 00 00 02 00 00 00 01")

    def test_a_destination_name_change_flags_destination_names(self):
        self.router.set_destination_name(0, 1, "MON")
        self.assertFrames(self.a, "1E 00 00 00 01 00 00 00 02")
        self.assertRequest(self.a, "67 00 00 00 01", H("6B 00 00 00 01 01") + b"MON ")
        self.assertEqual(self.router.destination_names(0)[:2], ["DST 1", "MON"])

    def test_names_updated_can_wait_for_the_last_change(self):
        self.router.names_updated_delay = 0.5
        started = time.monotonic()
        self.router.set_source_name(0, 0, 0, "A")
        self.router.set_destination_name(1, 0, "B")
        self.assertFrames(self.a, "1E 00 00 00 03 00 00 00 03")
        self.assertGreaterEqual(time.monotonic() - started, 0.45)
        self.assertNothingMore(self.a)


class SalvoTest(FixtureTest):

    def setUp(self):
        self.start_router()
        self.a, self.b = self.client(), self.client()

    def store(self):
        self.assertRequest(self.a, "78 00 00 07 02 05", "7A 00 00 07 02 05")
        self.assertRequest(self.a, "78 00 00 08 03 05", "7A 00 00 08 03 05")

    def test_connect_on_go_is_acked_with_7a_on_the_asking_port_and_changes_nothing_yet(self):
        self.store()
        self.assertEqual(self.router.salvo(5), [(0, 0, 7, 2), (0, 0, 8, 3)])
        self.assertEqual(self.router.tally(0, 0, 7), 7)
        self.assertNothingMore(self.a, self.b)

    def test_the_ack_of_connect_on_go_has_bit_3_clear(self):
        self.assertRequest(self.a, "78 00 08 07 02 05", "7A 00 00 07 02 05")

    def test_go_sets_the_group_clears_it_and_sends_no_connected(self):
        self.store()
        self.assertRequest(self.a, "79 00 05", "7B 00 05")
        self.assertEqual(self.router.tallies(0, 0)[7:9], [2, 3])
        self.assertEqual(self.router.salvo(5), [])
        self.assertNothingMore(self.a, self.b)

    def test_go_can_also_send_connected_for_each_crosspoint(self):
        self.router.connected_after_go = True
        self.store()
        self.assertRequest(self.a, "79 00 05", "7B 00 05", "04 00 00 07 02", "04 00 00 08 03")
        self.assertFrames(self.b, "04 00 00 07 02", "04 00 00 08 03")

    def test_clear_drops_the_group_without_setting_it(self):
        self.store()
        self.assertRequest(self.a, "79 01 05", "7B 01 05")
        self.assertEqual(self.router.tally(0, 0, 7), 7)
        self.assertEqual(self.router.salvo(5), [])

    def test_an_empty_group_has_nothing_to_set_or_clear(self):
        self.assertRequest(self.a, "79 00 06", "7B 02 06")
        self.assertRequest(self.a, "79 01 06", "7B 02 06")

    def test_extended_connect_on_go(self):
        self.router.connected_after_go = True
        self.assertRequest(self.a, "F8 00 01 00 07 00 02 05", "FA 00 01 00 07 00 02 05")
        self.assertRequest(self.a, "79 00 05", "7B 00 05", "84 00 01 00 07 00 02 00")
        self.assertEqual(self.router.tally(0, 1, 7), 2)

    def test_a_group_is_read_back_entry_by_entry(self):
        self.store()
        self.assertRequest(self.a, "7C 05 00", "7D 00 00 07 02 05 00 00")
        self.assertRequest(self.a, "7C 05 01", "7D 00 00 08 03 05 01 01")
        self.assertRequest(self.a, "7C 05 02", "7D 00 00 00 00 05 02 02")
        self.assertRequest(self.a, "FC 05 00 01", "FD 00 00 00 08 00 03 05 00 01 01")

    def test_a_protected_destination_is_left_out_of_a_go(self):
        self.store()
        self.router.set_protect(0, 0, 7, 1)
        self.assertFrames(self.a, "0D 00 01 00 07 01")
        self.assertRequest(self.a, "79 00 05", "7B 00 05")
        self.assertEqual(self.router.tallies(0, 0)[7:9], [7, 3])

    def test_without_group_salvos_the_commands_are_acked_and_ignored(self):
        self.router.group_salvos = False
        for request in ("78 00 00 07 02 05", "79 00 05", "7C 05 00", "F8 00 00 00 07 00 02 05"):
            self.assertEqual(self.a.send(H(request)), "ack")
        self.assertNothingMore(self.a)
        self.assertEqual(self.router.salvo(5), [])


class ImplementationTest(FixtureTest):

    ALL_SENT = "03 04 09 0B 0D 0F 12 14 17 1E 62 6A 6B 7A 7B 7D 83 84 8B 8D 8F 94 97 EA EB FA FD"
    ALL_ACCEPTED = ("01 02 08 0A 0C 0E 11 13 15 1D 61 64 65 66 67 78 79 7C "
                    "81 82 8A 8C 8E 93 95 E4 E5 E6 E7 F8 FC")

    def implementation(self, sent, accepted):
        sent, accepted = H(sent), H(accepted)
        return bytes([0x62, len(sent), len(accepted)]) + sent + accepted

    def test_the_implementation_lists_what_is_sent_and_what_is_accepted(self):
        self.start_router()
        self.assertRequest(self.client(), "61", self.implementation(self.ALL_SENT, self.ALL_ACCEPTED))

    def test_without_group_salvos_their_codes_are_not_listed(self):
        self.start_router(group_salvos=False)
        self.assertRequest(self.client(), "61", self.implementation(
            "03 04 09 0B 0D 0F 12 14 17 1E 62 6A 6B 83 84 8B 8D 8F 94 97 EA EB",
            "01 02 08 0A 0C 0E 11 13 15 1D 61 64 65 66 67 81 82 8A 8C 8E 93 95 E4 E5 E6 E7"))

    def test_without_extended_commands_their_codes_are_not_listed(self):
        self.start_router(extended=False)
        self.assertRequest(self.client(), "61", self.implementation(
            "03 04 09 0B 0D 0F 12 14 17 1E 62 6A 6B 7A 7B 7D",
            "01 02 08 0A 0C 0E 11 13 15 1D 61 64 65 66 67 78 79 7C"))

    def test_the_dump_mode_shows_in_the_list(self):
        self.start_router(dumps="byte")
        a = self.client()
        self.assertRequest(a, "61", self.implementation(self.ALL_SENT.replace("14 17", "14 16 17"),
                                                        self.ALL_ACCEPTED))
        self.router.dumps = "none"
        self.assertRequest(a, "61", self.implementation(self.ALL_SENT.replace(" 17", "").replace(" 97", ""),
                                                        self.ALL_ACCEPTED.replace(" 15", "").replace(" 95", "")))

    def test_the_implementation_request_can_go_unanswered(self):
        self.start_router(implementation=False)
        a = self.client()
        self.assertEqual(a.send(H("61")), "ack")
        self.assertNothingMore(a)

    def test_without_extended_commands_an_extended_connect_is_acked_and_ignored(self):
        self.start_router(extended=False)
        a = self.client()
        self.assertEqual(a.send(H("82 00 00 00 07 00 02")), "ack")
        self.assertNothingMore(a)
        self.assertEqual(self.router.tally(0, 0, 7), 7)


class DualControllerTest(FixtureTest):

    def setUp(self):
        self.start_router(dual=True)
        self.a = self.client()                       # controller A, active at start
        self.b = self.client(self.router.port2)      # controller B, idle

    def test_each_controller_says_whether_it_is_the_active_one(self):
        self.assertRequest(self.a, "08", "09 02 00")
        self.assertRequest(self.b, "08", "09 00 00")

    def test_a_single_controller_reports_its_idle_controller_missing(self):
        self.router.stop()
        self.start_router()
        self.assertRequest(self.client(), "08", "09 02 01")

    def test_the_idle_controller_acks_a_connect_and_ignores_it(self):
        self.assertEqual(self.b.send(H("02 00 00 07 02")), "ack")
        self.assertEqual(self.b.send(H("01 00 00 07")), "ack")
        self.assertNothingMore(self.a, self.b)
        self.assertEqual(self.router.tally(0, 0, 7), 7)

    def test_broadcasts_go_to_the_active_controllers_connections_only(self):
        self.assertRequest(self.a, "02 00 00 07 02", "04 00 00 07 02")
        self.router.set_crosspoint(0, 0, 8, 3)
        self.assertFrames(self.a, "04 00 00 08 03")
        self.assertNothingMore(self.b)

    def test_a_changeover_with_notice_sends_09_from_both(self):
        self.router.changeover()
        self.assertFrames(self.a, "09 01 00")
        self.assertFrames(self.b, "09 03 00")
        self.assertRequest(self.b, "02 00 00 07 02", "04 00 00 07 02")
        self.assertNothingMore(self.a)
        self.router.changeover()
        self.assertFrames(self.a, "09 02 00")
        self.assertFrames(self.b, "09 00 00")

    def test_a_silent_changeover_resets_the_connections_of_the_one_going_idle(self):
        self.router.changeover(notify=False)
        self.assertTrue(self.a.is_closed_by_peer())
        self.assertNothingMore(self.b)
        self.assertRequest(self.b, "08", "09 03 00")
        a = self.client()
        self.assertRequest(a, "08", "09 01 00")
        self.router.changeover(notify=False)
        self.assertTrue(self.b.is_closed_by_peer())
        self.assertRequest(a, "08", "09 02 00")

    def test_the_state_is_shared_across_a_changeover(self):
        self.assertRequest(self.a, "02 00 00 07 02", "04 00 00 07 02")
        self.router.changeover(notify=False)
        self.assertRequest(self.b, "01 00 00 07", "03 00 00 07 02")


class MisbehaviourTest(FixtureTest):

    def setUp(self):
        self.start_router()
        self.a = self.client()

    def test_withheld_acks_leave_requests_acted_on_but_unanswered_on_the_link(self):
        self.router.withhold_acks = True
        self.a.send_frame(H("02 00 00 07 02"))
        self.assertFrames(self.a, "04 00 00 07 02")
        self.a.send_raw(H("10 02 02 00 00 07 02 05 FF 10 03"))    # bad checksum: no NAK either
        time.sleep(0.2)
        self.assertEqual(self.a.pending(), [])
        self.assertEqual(self.router.counters()["acks_sent"] + self.router.counters()["naks_sent"], 0)
        self.router.withhold_acks = False
        self.assertNothingMore(self.a)

    def test_nak_everything_answers_well_formed_frames_with_nak_and_acts_on_none(self):
        self.router.nak_everything = True
        self.assertEqual(self.a.send(H("02 00 00 07 02")), "nak")
        self.assertEqual(self.router.tally(0, 0, 7), 7)
        self.router.nak_everything = False
        self.assertNothingMore(self.a)

    def test_never_confirm_acks_a_connect_and_changes_nothing(self):
        self.router.never_confirm = True
        self.assertEqual(self.a.send(H("02 00 00 07 02")), "ack")
        self.assertEqual(self.a.send(H("82 00 00 00 07 00 02")), "ack")
        self.assertNothingMore(self.a)
        self.assertEqual(self.router.tally(0, 0, 7), 7)

    def test_garbage_is_sent_as_it_is(self):
        self.router.send_garbage(H("00 FF 55 03"))
        self.assertEqual(self.a.read_noise(4), H("00 FF 55 03"))

    def test_raw_bytes_are_sent_as_they_are(self):
        self.router.send_raw(H("10 02 04 00 00 07 02 05 00 10 03"))   # a bad checksum
        event = self.a.next_event()
        self.assertEqual((event.kind, event.raw), ("bad", H("10 02 04 00 00 07 02 05 00 10 03")))

    def test_any_frame_can_be_sent_and_waits_for_its_ack(self):
        self.router.resend_timeout = 0.2
        self.a.auto_ack = False
        self.router.send_frame(H("63 01"))
        self.assertEqual(self.a.next_frame().raw, H("10 02 63 01 02 9A 10 03"))
        self.assertEqual(self.a.next_frame().raw, H("10 02 63 01 02 9A 10 03"))
        self.a.ack()

    def test_an_endless_frame_runs_until_stopped_with_acks_inside_it(self):
        self.router.endless_frame()
        self.assertEqual(self.a.next_event().kind, "runaway")
        deadline = time.monotonic() + TIMEOUT
        while self.a.receiver.skipped < 256 * 1024 and time.monotonic() < deadline:
            time.sleep(0.01)
        self.assertGreaterEqual(self.a.receiver.skipped, 256 * 1024)
        self.assertEqual(self.a.send(H("01 00 00 05")), "ack")
        self.router.stop_endless_frame()
        self.assertFrames(self.a, "03 00 00 05 05")

    def test_an_endless_frame_ends_when_the_peer_closes(self):
        self.router.endless_frame()
        self.assertEqual(self.a.next_event().kind, "runaway")
        self.a.close()
        self.assertTrue(self.router.wait_for(lambda: self.router.connections() == []))

    def test_a_flood_is_valid_frames_sent_without_waiting_for_acks(self):
        self.router.flood(frames=300)
        replies = self.a.read_frames(300)
        self.assertEqual(replies[:2], [H("04 00 00 00 00"), H("04 00 00 01 01")])
        self.assertEqual(replies[33], H("04 00 00 01 01"))
        self.assertTrue(self.router.wait_for(lambda: self.router.counters()["acks_received"] == 300))
        self.assertEqual(self.router.counters()["resends"], 0)

    def test_drop_connections_closes_every_client(self):
        b = self.client()
        self.router.drop_connections()
        self.assertTrue(self.a.is_closed_by_peer())
        self.assertTrue(b.is_closed_by_peer())
        self.assertTrue(self.router.wait_for(lambda: self.router.connections() == []))


class BoundsTest(FixtureTest):

    def test_a_client_that_never_acks_is_closed_once_its_replies_pile_up(self):
        self.start_router(resend_timeout=5.0)
        a = self.client(auto_ack=False)
        try:
            a.send_raw(frame(H("01 00 00 05")) * (MAX_PENDING_FRAMES + 10))
        except ConnectionError:
            pass   # closed while the requests were still going out: just as good
        self.assertTrue(a.is_closed_by_peer())

    def test_a_runaway_frame_keeps_at_most_257_bytes(self):
        self.start_router()
        a = self.client()
        a.send_raw(H("10 02") + b"\x20" * 100000)
        self.assertTrue(self.router.wait_for(lambda: self.router._connections[a.number].parser._runaway))
        self.assertEqual(len(self.router._connections[a.number].parser._body), 257)
        self.assertRequest(a, "01 00 00 05", "03 00 00 05 05")

    def test_connections_past_the_limit_are_closed(self):
        self.start_router(max_connections=2)
        self.client(), self.client()
        third = Swp08Client(self.router.port, timeout=TIMEOUT)
        self.addCleanup(third.close)
        self.assertTrue(third.is_closed_by_peer())


class RestartTest(FixtureTest):

    def test_restart_closes_connections_and_listens_on_the_same_port_with_the_state_kept(self):
        self.start_router()
        port = self.router.port
        a = self.client()
        self.router.set_crosspoint(0, 0, 2, 9)
        self.router.restart()
        self.assertTrue(a.is_closed_by_peer())
        self.assertEqual(self.router.port, port)
        self.assertRequest(self.client(), "01 00 00 02", "03 00 00 02 09")

    def test_restart_can_reset_the_state(self):
        self.start_router(dual=True)
        self.router.set_crosspoint(0, 0, 2, 9)
        self.router.set_protect(0, 0, 2, 1)
        self.router.changeover()
        self.router.restart(reset=True)
        a = self.client()
        self.assertRequest(a, "01 00 00 02", "03 00 00 02 02")
        self.assertRequest(a, "0A 00 00 02", "0B 00 00 00 02 00")
        self.assertRequest(a, "08", "09 02 00")


@unittest.skipUnless(shutil.which("socat"), "needs socat for a pty pair")
class SerialTest(FixtureTest):
    """The router on one end of a socat pty pair, the client on the other."""

    def setUp(self):
        directory = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, directory, True)
        self.router_end, self.client_end = os.path.join(directory, "a"), os.path.join(directory, "b")
        self.socat = subprocess.Popen(["socat", "pty,raw,echo=0,link=" + self.router_end,
                                       "pty,raw,echo=0,link=" + self.client_end],
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(self.socat.wait)
        self.addCleanup(self.socat.terminate)
        deadline = time.monotonic() + 5
        while not (os.path.exists(self.router_end) and os.path.exists(self.client_end)):
            self.assertLess(time.monotonic(), deadline, "socat made no pty pair")
            time.sleep(0.02)
        self.start_router()

    def serial_client(self):
        client = Swp08Client.serial(self.client_end, timeout=TIMEOUT)
        self.addCleanup(client.close)
        return client

    def test_a_serial_line_is_served_like_a_tcp_client(self):
        self.router.serve_serial(self.router_end)
        client, tcp = self.serial_client(), self.client()
        self.assertRequest(client, "02 00 00 07 02", "04 00 00 07 02")
        self.assertFrames(tcp, "04 00 00 07 02")
        self.router.set_crosspoint(0, 0, 1, 0x10)
        self.assertEqual(client.next_frame().raw, H("10 02 04 00 00 01 10 10 05 E6 10 03"))

    def test_the_serial_line_can_be_closed_and_served_again(self):
        first = self.router.serve_serial(self.router_end)
        client = self.serial_client()
        self.router.close_serial()
        self.assertTrue(self.router.wait_for(lambda: first not in self.router.connections()))
        client.send_frame(H("01 00 00 05"))
        with self.assertRaises(TimeoutError):
            client.wait_link(timeout=0.3)
        self.router.serve_serial(self.router_end)
        self.assertRequest(client, "01 00 00 05", "03 00 00 05 05")


class ProgramTest(unittest.TestCase):

    def run_fixture(self, *args):
        fixture = subprocess.Popen([sys.executable, FIXTURE, *args], stdout=subprocess.PIPE)

        def finish():
            fixture.kill()
            fixture.wait()
            fixture.stdout.close()
        self.addCleanup(finish)
        return fixture

    def test_the_program_announces_its_port_serves_and_ends_on_sigterm(self):
        fixture = self.run_fixture("--port", "0", "--matrix-levels", "2", "--sources", "32", "--destinations", "32")
        line = fixture.stdout.readline().decode()
        self.assertRegex(line, r"^swp08 fixture listening on 127\.0\.0\.1:\d+\n$")
        client = Swp08Client(int(line.rsplit(":", 1)[1]), timeout=TIMEOUT)
        self.assertEqual(client.send(H("01 01 00 05")), "ack")
        self.assertEqual(client.read_frame(), H("03 01 00 05 05"))
        client.close()
        fixture.send_signal(signal.SIGTERM)
        self.assertEqual(fixture.wait(TIMEOUT), 0)

    @unittest.skipUnless(shutil.which("socat"), "needs socat for a pty pair")
    def test_the_program_announces_its_second_controller_and_its_serial_line(self):
        directory = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, directory, True)
        path = os.path.join(directory, "a")
        socat = subprocess.Popen(["socat", "pty,raw,echo=0,link=" + path, "pty,raw,echo=0,link=" +
                                  os.path.join(directory, "b")], stderr=subprocess.DEVNULL)
        self.addCleanup(socat.wait)
        self.addCleanup(socat.terminate)
        deadline = time.monotonic() + 5
        while not os.path.exists(path):
            self.assertLess(time.monotonic(), deadline, "socat made no pty pair")
            time.sleep(0.02)
        fixture = self.run_fixture("--port", "0", "--dual", "--serial", path, "--dumps", "none", "--no-salvos")
        lines = [fixture.stdout.readline().decode() for _ in range(3)]
        self.assertRegex(lines[0], r"^swp08 fixture listening on 127\.0\.0\.1:\d+\n$")
        self.assertRegex(lines[1], r"^swp08 fixture second controller on 127\.0\.0\.1:\d+\n$")
        self.assertEqual(lines[2], "swp08 fixture serving serial %s\n" % path)
        client = Swp08Client(int(lines[1].rsplit(":", 1)[1]), timeout=TIMEOUT)
        self.addCleanup(client.close)
        self.assertEqual(client.send(STATUS_REQUEST), "ack")
        self.assertEqual(client.read_frame(), H("09 00 00"))
        fixture.send_signal(signal.SIGINT)
        self.assertEqual(fixture.wait(TIMEOUT), 0)

    def test_help_lists_the_switches(self):
        output = subprocess.run([sys.executable, FIXTURE, "--help"], capture_output=True, check=True).stdout
        for switch in (b"--port2", b"--dual", b"--serial", b"--dumps", b"--no-salvos", b"--matrix-levels"):
            self.assertIn(switch, output)


if __name__ == "__main__":
    unittest.main()
