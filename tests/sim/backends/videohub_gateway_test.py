"""leitch-routerd in front of a Videohub router (the fixture router of
tests/support), end to end over real sockets: Leitch clients, the HTTP API and
a direct client of the router all see one router."""

import os
import shutil
import socket
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))

from routerd import LeitchClient, Routerd, receive_until, request, wait_until  # noqa: E402
from videohub_router import PANEL, VideohubRouter  # noqa: E402


class DirectClient:
    """Another controller of the router, talking the Videohub protocol itself."""

    def __init__(self, port):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=5)
        self.received = b""

    def send(self, data):
        self.sock.sendall(data)

    def read_until(self, wanted, timeout=5.0):
        found, self.received = receive_until(self.sock, self.received, wanted, timeout)
        return found

    def close(self):
        self.sock.close()


class Gateway(unittest.TestCase):
    """One fixture router and one leitch-routerd in front of it, per test."""

    inputs = 12
    outputs = 12
    router_options = {}
    routerd_args = ()

    def setUp(self):
        self.router = VideohubRouter(inputs=self.inputs, outputs=self.outputs, **self.router_options)
        self.port = self.router.start()
        self.routerd = Routerd("--backend", "videohub:127.0.0.1:%d" % self.port,
                               "--verbose", *self.routerd_args, announced=3)
        self.clients = []

    def tearDown(self):
        for client in self.clients:
            client.close()
        self.routerd.close()
        self.router.stop()

    def leitch(self, report_mode=True):
        client = LeitchClient(self.routerd.port)
        self.clients.append(client)
        if report_mode:
            client.report_mode()
        return client

    def direct(self):
        client = DirectClient(self.port)
        self.clients.append(client)
        # The dump's last block: END PRELUDE, or else the later of routing and locks.
        if self.router.prelude_end:
            self.assertIsNotNone(client.read_until(b"END PRELUDE:\n\n"))
            return client
        last = b"VIDEO OUTPUT ROUTING:\n" if self.router.locks_first else b"VIDEO OUTPUT LOCKS:\n"
        self.assertIsNotNone(client.read_until(last))
        self.assertIsNotNone(client.read_until(b"\n\n"))
        return client

    def routing_requests(self):
        return [raw for _, raw in self.router.requests() if raw.startswith(b"VIDEO OUTPUT ROUTING:")]

    def crosspoints(self):
        status, level = request(self.routerd, "GET", "/api/levels/0")
        self.assertEqual(status, 200)
        return level["crosspoints"]


class StartUp(Gateway):
    def test_the_start_up_line_says_the_router_answered_and_what_it_is(self):
        self.assertEqual(self.routerd.announcements[2],
                         "backend videohub 127.0.0.1:%d: answered, Videohub fixture, 12 inputs, 12 outputs" % self.port)

    def test_the_level_takes_the_routers_size_and_routing(self):
        status, level = request(self.routerd, "GET", "/api/levels/0")
        self.assertEqual(status, 200)
        self.assertEqual((level["sources"], level["destinations"]), (12, 12))
        # The fixture starts with output n on input n.
        self.assertEqual(level["crosspoints"], list(range(12)))

    def test_the_links_show_the_router_up(self):
        status, links = request(self.routerd, "GET", "/api/links")
        self.assertEqual(status, 200)
        router = [link for link in links["links"] if link["kind"] == "router"]
        self.assertEqual(router, [{"kind": "router", "where": "127.0.0.1:%d" % self.port,
                                   "settings": "Videohub, Videohub fixture, 12 inputs, 12 outputs",
                                   "up": True, "problem": ""}])


class Takes(Gateway):
    def test_a_leitch_take_reaches_the_router_and_its_report_comes_back(self):
        client = self.leitch()
        client.send("@ X:0/5,3\r")
        self.assertEqual(client.read_until("S:05,3\r\n>"), "@ X:0/5,3\r\n>\r\nS:05,3\r\n>")
        self.assertEqual(self.router.routes()[5], 3)
        self.assertEqual(self.routing_requests(), [b"VIDEO OUTPUT ROUTING:\n5 3\n\n"])

    def test_a_take_made_at_the_router_reaches_every_report_mode_client_and_the_api(self):
        first, second = self.leitch(), self.leitch()
        quiet = self.leitch(report_mode=False)
        self.router.set_route(7, 2)
        self.assertEqual(first.read_until("\r\n>"), "\r\nS:07,2\r\n>")
        self.assertEqual(second.read_until("\r\n>"), "\r\nS:07,2\r\n>")
        self.assertIsNone(quiet.read_until("S:", timeout=0.3))
        self.assertEqual(self.crosspoints()[7], 2)
        # Leitch queries answer from what the router reported.
        quiet.send("@ X?07\r")
        self.assertIsNotNone(quiet.read_until("S:07,2"))

    def test_a_take_from_another_controller_reaches_the_leitch_clients(self):
        client = self.leitch()
        direct = self.direct()
        direct.send(b"VIDEO OUTPUT ROUTING:\n3 9\n\n")
        self.assertEqual(client.read_until("\r\n>"), "\r\nS:03,9\r\n>")

    def test_presets_and_execute_arrive_as_one_routing_block(self):
        client = self.leitch()
        client.send("@ P:0/1,2\r@ P:0/2,3\r@ P:0/A,4\r@ B:E\r")
        self.assertIsNotNone(client.read_until("S:0A,4"))
        self.assertEqual(self.routing_requests(), [b"VIDEO OUTPUT ROUTING:\n1 2\n2 3\n10 4\n\n"])
        self.assertEqual(self.router.routes()[1:3], [2, 3])

    def test_an_api_take_is_answered_once_the_router_has_switched(self):
        status, body = request(self.routerd, "POST", "/api/levels/0/take", {"destination": 4, "source": 11})
        self.assertEqual((status, body), (200, {"applied": 1}))
        self.assertEqual(self.router.routes()[4], 11)
        self.assertEqual(self.crosspoints()[4], 11)

    def test_a_take_the_router_does_not_carry_out_is_refused_with_409(self):
        self.router.stall_changes = True
        client = self.leitch()
        status, body = request(self.routerd, "POST", "/api/levels/0/take", {"destination": 4, "source": 11})
        self.assertEqual(status, 409)
        self.assertEqual(body["error"], "refused by the router")
        self.assertEqual(self.crosspoints()[4], 4)
        self.assertIsNone(client.read_until("S:", timeout=0.3))
        self.assertTrue(self.routerd.log_contains("refused by the router"))

    def test_a_take_the_router_answers_with_the_unchanged_route_is_refused(self):
        self.router.stall_changes = True
        self.router.echo_unchanged = True
        status, body = request(self.routerd, "POST", "/api/levels/0/take", {"destination": 6, "source": 1})
        self.assertEqual((status, body["error"]), (409, "refused by the router"))

    def test_a_take_to_what_the_router_carries_is_applied_without_asking_it(self):
        client = self.leitch()
        client.send("@ X:0/5,5\r")
        self.assertIsNotNone(client.read_until("S:05,5"))
        self.assertEqual(self.routing_requests(), [])


class TakesWithAnOlderRouter(Takes):
    """A dump without END PRELUDE (firmware before 2.7), its locks before its routing."""

    router_options = {"prelude_end": False, "locks_first": True}


class Locks(Gateway):
    def test_a_leitch_lock_is_owned_at_the_router_and_blocks_another_controller(self):
        client = self.leitch()
        direct = self.direct()
        client.send("@ W:0/5,1,1\r")
        self.assertIsNotNone(direct.read_until(b"VIDEO OUTPUT LOCKS:\n5 L\n\n"))
        direct.send(b"VIDEO OUTPUT ROUTING:\n5 9\n\n")
        self.assertIsNotNone(direct.read_until(b"NAK\n\n"))
        self.assertEqual(self.router.routes()[5], 5)
        client.send("@ W:0/5,1,0\r")
        self.assertIsNotNone(direct.read_until(b"VIDEO OUTPUT LOCKS:\n5 U\n\n"))

    def test_a_lock_held_at_the_router_by_another_controller_blocks_leitch_takes(self):
        client = self.leitch()
        self.router.set_lock(4, PANEL)
        self.assertTrue(wait_until(lambda: request(self.routerd, "GET", "/api/levels/0")[1]["locks"][4] == 1))
        client.send("@ X:0/4,1\r")
        self.assertIsNone(client.read_until("S:04", timeout=0.3))
        status, body = request(self.routerd, "POST", "/api/levels/0/take", {"destination": 4, "source": 1})
        self.assertEqual((status, body["error"]), (409, "locked at the router by another controller"))
        self.assertEqual(self.routing_requests(), [])
        self.router.set_lock(4, None)
        self.assertTrue(wait_until(lambda: request(self.routerd, "GET", "/api/levels/0")[1]["locks"][4] == 0))

    def test_the_api_cannot_lock_what_another_controller_holds(self):
        self.router.set_lock(2, PANEL)
        self.assertTrue(wait_until(lambda: request(self.routerd, "GET", "/api/levels/0")[1]["locks"][2] == 1))
        status, body = request(self.routerd, "POST", "/api/levels/0/lock", {"destination": 2, "locked": False})
        self.assertEqual((status, body["error"]), (409, "locked at the router by another controller"))
        self.assertEqual(self.router.locks(), {2: PANEL})

    def test_our_locks_are_taken_again_after_the_router_restarts(self):
        client = self.leitch()
        client.send("@ W:0/6,1,1\r")
        self.assertTrue(wait_until(lambda: list(self.router.locks()) == [6]))
        self.router.restart()  # it forgets the locks of the connections it closed
        self.assertTrue(self.routerd.log_contains("is back after"))
        self.assertTrue(wait_until(lambda: list(self.router.locks()) == [6]))
        direct = self.direct()
        direct.send(b"VIDEO OUTPUT ROUTING:\n6 1\n\n")
        self.assertIsNotNone(direct.read_until(b"NAK\n\n"))


class Outages(Gateway):
    def test_a_restarted_router_is_read_again_and_only_what_changed_is_reported(self):
        client = self.leitch()
        self.router.stop()
        self.assertTrue(self.routerd.log_contains("is away: the router closed the connection"))
        status, body = request(self.routerd, "POST", "/api/levels/0/take", {"destination": 1, "source": 2})
        self.assertEqual((status, body["error"]), (503, "the router is not connected"))
        client.send("@ X:0/1,2\r")
        self.assertEqual(client.read_until("\r\n>"), "@ X:0/1,2\r\n>")
        self.assertIsNone(client.read_until("S:", timeout=0.3))
        status, links = request(self.routerd, "GET", "/api/links")
        router = [link for link in links["links"] if link["kind"] == "router"][0]
        self.assertFalse(router["up"])
        # The reason of the last attempt: the loss itself, then each reconnect refused.
        self.assertIn(router["problem"], ("the router closed the connection", "cannot connect: Connection refused"))
        # Changed while leitch-routerd could not see it.
        self.router.set_route(8, 0)
        self.router.set_route(9, 1)
        self.router.start()
        self.assertTrue(self.routerd.log_contains("is back after"))
        reports = client.read_until("\r\n>") + client.read_until("\r\n>")
        # The dump lists the outputs in order: told in the order they changed in it.
        self.assertEqual(reports, "\r\nS:08,0\r\n>\r\nS:09,1\r\n>")
        self.assertIsNone(client.read_until("S:", timeout=0.5))
        self.assertEqual(self.routerd.count("is away"), 1)
        client.send("@ X:0/1,2\r")
        self.assertIsNotNone(client.read_until("S:01,2"))

    def test_a_router_that_stops_answering_is_dropped_and_reconnected(self):
        self.router.stall_acks = True
        client = self.leitch()
        client.send("@ X:0/2,7\r")
        self.assertTrue(self.routerd.log_contains("is away: no answer to a request within 0.5 s"))
        self.router.stall_acks = False
        self.assertTrue(self.routerd.log_contains("is back after"))
        client.send("@ X:0/2,7\r")
        self.assertIsNotNone(client.read_until("S:02,7"))

    routerd_args = ("--config", os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "configs",
                                              "videohub_quick.toml"))

    def test_an_idle_link_is_kept_alive_with_ping(self):
        time.sleep(1.6)
        self.assertEqual([raw for _, raw in self.router.requests()], [b"PING:\n\n"])

    def test_a_device_not_present_is_the_router_away(self):
        client = self.leitch()
        self.router.device_present(False)
        self.assertTrue(self.routerd.log_contains("is away: the router reports no device present"))
        status, body = request(self.routerd, "POST", "/api/levels/0/take", {"destination": 1, "source": 2})
        self.assertEqual(status, 503)
        self.router.device_present(True)
        self.assertTrue(self.routerd.log_contains("is back after"))
        client.send("@ X:0/1,2\r")
        self.assertIsNotNone(client.read_until("S:01,2"))

    def test_a_device_that_needs_an_update_is_the_router_away(self):
        self.router.device_present("needs_update")
        self.assertTrue(self.routerd.log_contains("is away: the router's device needs a software update"))
        status, body = request(self.routerd, "POST", "/api/levels/0/take", {"destination": 1, "source": 2})
        self.assertEqual((status, body["error"]), (503, "the router is not connected"))


class Misbehaviour(Gateway):
    """Each closes the link with a log line; the Leitch sessions survive and
    the link comes back."""

    def expect_dropped_and_back(self, reason):
        self.assertTrue(self.routerd.log_contains("is away: " + reason), self.routerd.log())
        self.assertTrue(self.routerd.log_contains("is back after"), self.routerd.log())

    def test_garbage(self):
        client = self.leitch()
        self.router.send_garbage(b"ACK\n\nACK\n\n")
        self.expect_dropped_and_back("the router answered ACK to no request")
        client.send("@ X:0/1,2\r")
        self.assertIsNotNone(client.read_until("S:01,2"))

    def test_an_endless_line(self):
        client = self.leitch()
        self.router.endless_line()
        self.assertTrue(self.routerd.log_contains("is away: the router broke the protocol"), self.routerd.log())
        self.router.stop_endless_line()
        self.assertTrue(self.routerd.log_contains("is back after"), self.routerd.log())
        client.send("@ X:0/1,2\r")
        self.assertIsNotNone(client.read_until("S:01,2"))

    def test_absurd_counts(self):
        client = self.leitch()
        self.router.absurd_counts()
        self.assertTrue(self.routerd.log_contains("is away: the router broke the protocol"), self.routerd.log())
        client.send("@ X?01\r")
        self.assertIsNotNone(client.read_until("S:01,1"))

    def test_counts_past_what_the_protocol_reader_takes(self):
        self.router.absurd_counts(70000)
        self.assertTrue(self.routerd.log_contains("is away: the router broke the protocol"), self.routerd.log())

    def test_counts_past_what_the_gateway_serves_with_its_limits(self):
        client = self.leitch()
        self.router.absurd_counts(5000)
        self.assertTrue(self.routerd.log_contains(
            "is away: the router announces 5000 inputs and 5000 outputs, more than the 2150 this gateway serves "
            "with its limits"), self.routerd.log())
        client.send("@ X?01\r")
        self.assertIsNotNone(client.read_until("S:01,1"))


class MonitoringOutputs(Gateway):
    router_options = {"monitoring_outputs": 4}
    routerd_args = ("--config", os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "configs",
                                              "videohub_monitoring.toml"))

    def test_the_monitoring_outputs_are_a_second_level(self):
        status, level = request(self.routerd, "GET", "/api/levels/1")
        self.assertEqual((status, level["sources"], level["destinations"]), (200, 12, 4))
        client = self.leitch()
        client.send("@ X:1/2,7\r")
        self.assertIsNotNone(client.read_until("S:12,7"))
        self.assertEqual(self.router.routes(monitoring=True)[2], 7)
        self.assertIn(b"VIDEO MONITORING OUTPUT ROUTING:\n2 7\n\n", [raw for _, raw in self.router.requests()])
        self.assertEqual(self.router.routes()[2], 2)

    def test_a_level_the_router_does_not_serve_stays_simulated(self):
        status, body = request(self.routerd, "POST", "/api/levels/2/take", {"destination": 3, "source": 6})
        self.assertEqual((status, body), (200, {"applied": 1}))
        self.router.stop()
        self.assertTrue(self.routerd.log_contains("is away"))
        status, body = request(self.routerd, "POST", "/api/levels/2/take", {"destination": 4, "source": 7})
        self.assertEqual((status, body), (200, {"applied": 1}))
        self.assertEqual(request(self.routerd, "GET", "/api/levels/2")[1]["crosspoints"][3:5], [6, 7])
        self.assertEqual([raw for _, raw in self.router.requests() if b"ROUTING" in raw], [])


class StateFile(Gateway):
    """With --state: the saved routings and the Leitch locks are kept; the
    crosspoints are the router's."""

    def setUp(self):
        self.directory = tempfile.mkdtemp(prefix="routerd-gateway-state-")
        self.routerd_args = ("--state", os.path.join(self.directory, "state.db"))
        super().setUp()

    def tearDown(self):
        super().tearDown()
        shutil.rmtree(self.directory)

    def restart_gateway(self):
        self.routerd.close()
        self.routerd = Routerd("--backend", "videohub:127.0.0.1:%d" % self.port, "--verbose", *self.routerd_args,
                               announced=3)

    def test_a_leitch_lock_comes_back_and_is_taken_at_the_router_again(self):
        client = self.leitch()
        client.send("@ W:0/9,1,1\r")
        self.assertTrue(wait_until(lambda: list(self.router.locks()) == [9]))
        client.close()
        self.clients.remove(client)
        self.restart_gateway()  # the router forgets the lock with the connection
        self.assertTrue(self.routerd.log_contains("Leitch locks restored from"))
        self.assertTrue(wait_until(lambda: list(self.router.locks()) == [9]))
        self.assertEqual(request(self.routerd, "GET", "/api/levels/0")[1]["locks"][9], 1)

    def test_the_crosspoints_after_a_restart_are_the_routers(self):
        self.leitch().send("@ X:0/3,8\r")
        self.assertTrue(wait_until(lambda: self.router.routes()[3] == 8))
        self.routerd.close()
        self.router.set_route(3, 1)
        self.restart_gateway()
        self.assertEqual(self.crosspoints()[3], 1)

    def test_a_saved_routing_recalled_is_one_routing_block(self):
        self.assertEqual(request(self.routerd, "POST", "/api/salvos", {"name": "morning"})[0], 200)
        for output in range(12):
            self.router.set_route(output, 11 - output)
        self.assertTrue(wait_until(lambda: self.crosspoints() == list(range(11, -1, -1))))
        status, body = request(self.routerd, "POST", "/api/salvos/morning/recall")
        self.assertEqual((status, body), (200, {"name": "morning", "applied": 12, "refused": []}))
        self.assertEqual(self.router.routes(), list(range(12)))
        self.assertEqual(self.routing_requests(),
                         [b"VIDEO OUTPUT ROUTING:\n" + b"".join(b"%d %d\n" % (n, n) for n in range(12)) + b"\n"])


class Labels(Gateway):
    inputs = 3
    outputs = 2

    def level(self):
        status, level = request(self.routerd, "GET", "/api/levels/0")
        self.assertEqual(status, 200)
        return level

    def test_the_routers_labels_name_the_sources_and_destinations(self):
        level = self.level()
        self.assertEqual(level["source_labels"], ["Input 1", "Input 2", "Input 3"])
        self.assertEqual(level["destination_labels"], ["Output 1", "Output 2"])

    def test_a_label_changed_at_the_router_is_the_levels(self):
        self.router.set_label("input", 1, "CAM 2")
        self.router.set_label("output", 0, "Studio A PGM")
        self.assertTrue(wait_until(lambda: self.level()["destination_labels"][0] == "Studio A PGM"))
        self.assertEqual(self.level()["source_labels"], ["Input 1", "CAM 2", "Input 3"])


class Resize(Gateway):
    def test_changed_counts_resize_the_level(self):
        client = self.leitch()
        self.router.change_counts(16, 20)
        self.assertTrue(self.routerd.log_contains("level 0 is now 16 sources by 20 destinations (was 12 by 12)"))
        self.assertTrue(wait_until(lambda: request(self.routerd, "GET", "/api/levels/0")[1]["destinations"] == 20))
        client.send("@ X:0/13,F\r")
        self.assertIsNotNone(client.read_until("S:013,F"))
        self.assertEqual(self.router.routes()[19], 15)


if __name__ == "__main__":
    unittest.main()
