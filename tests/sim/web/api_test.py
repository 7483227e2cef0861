"""The web view's HTTP API and WebSocket push, without a browser."""

import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))
from routerd import LeitchClient, Routerd, WebSocket, config, request, run_routerd  # noqa: E402


class Api(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.routerd = Routerd()

    @classmethod
    def tearDownClass(cls):
        cls.routerd.close()

    def test_levels_lists_the_built_in_router(self):
        self.assertEqual(request(self.routerd, "GET", "/api/levels"), (200, {"levels": [
            {"number": 0, "name": "video", "sources": 32, "destinations": 32, "leitch_level": 0},
            {"number": 1, "name": "audio", "sources": 32, "destinations": 32, "leitch_level": 1}]}))

    def test_take_is_applied_and_reported_to_a_report_mode_client(self):
        client = LeitchClient(self.routerd.port)
        client.report_mode()
        self.assertEqual(request(self.routerd, "POST", "/api/levels/1/take", {"destination": 12, "source": 9}),
                         (200, {"applied": 1}))
        self.assertEqual(client.read_until("\r\n>"), "\r\nS:1C,9\r\n>")
        status, level = request(self.routerd, "GET", "/api/levels/1")
        self.assertEqual(status, 200)
        self.assertEqual(level["crosspoints"][12], 9)
        client.close()

    def test_several_takes_in_one_request(self):
        takes = {"takes": [{"destination": 20, "source": 1}, {"destination": 21, "source": 2}]}
        self.assertEqual(request(self.routerd, "POST", "/api/levels/0/take", takes), (200, {"applied": 2}))
        level = request(self.routerd, "GET", "/api/levels/0")[1]
        self.assertEqual(level["crosspoints"][20:22], [1, 2])

    def test_lock_and_unlock(self):
        self.assertEqual(request(self.routerd, "POST", "/api/levels/0/lock", {"destination": 30, "locked": True}),
                         (200, {"destination": 30, "locked": True}))
        self.assertEqual(request(self.routerd, "GET", "/api/levels/0")[1]["locks"][30], 1)
        self.assertEqual(request(self.routerd, "POST", "/api/levels/0/take", {"destination": 30, "source": 4}),
                         (409, {"error": "destination locked", "field": "destination", "applied": 0}))
        self.assertEqual(request(self.routerd, "POST", "/api/levels/0/lock", {"destination": 30, "locked": False}),
                         (200, {"destination": 30, "locked": False}))
        self.assertEqual(request(self.routerd, "POST", "/api/levels/0/take", {"destination": 30, "source": 4}),
                         (200, {"applied": 1}))

    def test_takes_before_a_refused_one_are_applied(self):
        request(self.routerd, "POST", "/api/levels/0/lock", {"destination": 26, "locked": True})
        takes = {"takes": [{"destination": 25, "source": 7}, {"destination": 26, "source": 7},
                           {"destination": 27, "source": 7}]}
        self.assertEqual(request(self.routerd, "POST", "/api/levels/0/take", takes),
                         (409, {"error": "destination locked", "field": "takes[1].destination", "applied": 1}))
        crosspoints = request(self.routerd, "GET", "/api/levels/0")[1]["crosspoints"]
        self.assertEqual((crosspoints[25], crosspoints[27]), (7, 0))

    def test_errors_name_the_bad_field(self):
        post = lambda body, level=0: request(self.routerd, "POST", "/api/levels/%s/take" % level, body)
        self.assertEqual(post({"destination": 32, "source": 1}),
                         (400, {"error": "destination out of range", "field": "destination", "applied": 0}))
        self.assertEqual(post({"destination": 1, "source": 32}),
                         (400, {"error": "source out of range", "field": "source", "applied": 0}))
        self.assertEqual(post({"source": 1}), (400, {"error": "missing field destination", "field": "destination"}))
        self.assertEqual(post({"destination": "5", "source": 1}),
                         (400, {"error": "destination must be an integer", "field": "destination"}))
        self.assertEqual(request(self.routerd, "POST", "/api/levels/0/take", raw_body="{not json"),
                         (400, {"error": "the body is not valid JSON", "field": "body"}))
        self.assertEqual(request(self.routerd, "POST", "/api/levels/0/lock", {"destination": 1, "locked": 1}),
                         (400, {"error": "locked must be true or false", "field": "locked"}))
        self.assertEqual(post({"destination": 1, "source": 1}, level=7), (404, {"error": "no level 7", "field": "level"}))
        self.assertEqual(request(self.routerd, "GET", "/api/levels/x"), (404, {"error": "no level x", "field": "level"}))
        self.assertEqual(request(self.routerd, "GET", "/api/nothing"), (404, {"error": "no such endpoint: /api/nothing"}))
        self.assertEqual(request(self.routerd, "GET", "/api/levels/0/take"), (405, {"error": "use POST here"}))

    def test_clients_lists_leitch_clients_with_their_last_line(self):
        client = LeitchClient(self.routerd.port)
        client.report_mode()
        client.send("@ X:0/3,2\r")
        client.read_until("S:03,2")
        deadline = time.monotonic() + 5
        mine = None
        while time.monotonic() < deadline:
            clients = request(self.routerd, "GET", "/api/clients")[1]["clients"]
            mine = [c for c in clients if c["peer"] == "127.0.0.1:%d" % client.sock.getsockname()[1]]
            if mine and mine[0]["lines_received"] == 2:
                break
        self.assertEqual(len(mine), 1)
        self.assertEqual((mine[0]["link"], mine[0]["report_mode"], mine[0]["lines_received"], mine[0]["last_line"]),
                         ("tcp", True, 2, "@ X:0/3,2"))
        client.close()

    def test_links_lists_the_tcp_port_served(self):
        self.assertEqual(request(self.routerd, "GET", "/api/links"),
                         (200, {"links": [{"kind": "tcp", "where": "127.0.0.1:%d" % self.routerd.port,
                                           "settings": "", "up": True, "problem": ""}]}))

    def test_events_lists_takes_and_refusals_after_a_sequence_number(self):
        last = request(self.routerd, "GET", "/api/events")[1]["events"][-1]["seq"]
        request(self.routerd, "POST", "/api/levels/0/take", {"destination": 2, "source": 40})
        events = request(self.routerd, "GET", "/api/events?after=%d" % last)[1]["events"]
        self.assertEqual([(e["kind"], e["client"], e["destination"], e["source"], e["reason"]) for e in events],
                         [("refused take", 0, 2, 40, "source out of range")])
        self.assertEqual(request(self.routerd, "GET", "/api/events?after=-1"),
                         (400, {"error": "after must be a sequence number", "field": "after"}))

    def test_page_files_are_served(self):
        status, page = request(self.routerd, "GET", "/")
        self.assertEqual(status, 200)
        self.assertIn('<canvas id="grid">', page)
        self.assertEqual(request(self.routerd, "GET", "/app.js")[0], 200)
        self.assertEqual(request(self.routerd, "GET", "/style.css")[0], 200)


class Labels(unittest.TestCase):
    """Labels from the configuration, in a level's reply and a page's greeting."""

    SOURCE_LABELS = ["CAM 1", "CAM 2", "CAM 3", "CAM 4", "CAM 5", "CAM 6", "CAM 7", "CAM 8",
                     "VTR 1", "VTR 2", "VTR 3", "VTR 4", "GFX 1", "GFX 2", None, "CLIP PLAYER",
                     "SAT REC 1", "SAT REC 2", "Studio B Remote Feed Camera 12 Wide", "BARS", "BLACK"]
    DESTINATION_LABELS = ["Studio A PGM", "Studio A PVW", "MON 1", "MON 2", "MON 3", "MON 4", "MON 5", "MON 6",
                          "TX 1", "TX 2", "REC 1", "REC 2", "Multiviewer 1 Quad Split Top Left Input",
                          "Caf\u00e9 \u2192 Lobby"]

    @classmethod
    def setUpClass(cls):
        cls.routerd = Routerd("--config", config("labelled_levels.toml"))

    @classmethod
    def tearDownClass(cls):
        cls.routerd.close()

    def test_a_level_lists_its_labels_with_null_for_a_port_without_one(self):
        status, level = request(self.routerd, "GET", "/api/levels/0")
        self.assertEqual(status, 200)
        self.assertEqual(level["source_labels"], self.SOURCE_LABELS)
        self.assertEqual(level["destination_labels"], self.DESTINATION_LABELS)
        self.assertEqual(level["crosspoints"], [0] * 32)

    def test_a_level_without_labels_lists_none(self):
        status, level = request(self.routerd, "GET", "/api/levels/1")
        self.assertEqual((status, level["source_labels"], level["destination_labels"]), (200, [], []))

    def test_the_list_of_levels_leaves_the_labels_out(self):
        self.assertEqual(request(self.routerd, "GET", "/api/levels"), (200, {"levels": [
            {"number": 0, "name": "video", "sources": 32, "destinations": 32, "leitch_level": 0},
            {"number": 1, "name": "audio", "sources": 32, "destinations": 32, "leitch_level": 1}]}))

    def test_a_page_is_greeted_with_the_labels(self):
        page = WebSocket(self.routerd.web_port, origin="http://" + self.routerd.host)
        hello = page.receive()
        page.close()
        self.assertEqual([(level["number"], level["source_labels"], level["destination_labels"])
                          for level in hello["levels"]],
                         [(0, self.SOURCE_LABELS, self.DESTINATION_LABELS), (1, [], [])])


class SavedRoutings(unittest.TestCase):
    """Salvos: kept in the state file, recalled as takes through the router."""

    def setUp(self):
        self.directory = tempfile.mkdtemp(prefix="routerd-salvos-")
        self.addCleanup(lambda: shutil.rmtree(self.directory, ignore_errors=True))
        self.routerd = Routerd("--state", os.path.join(self.directory, "state.db"))
        self.addCleanup(lambda: self.routerd.close())

    def take(self, level, destination, source):
        self.assertEqual(request(self.routerd, "POST", "/api/levels/%d/take" % level,
                                 {"destination": destination, "source": source}), (200, {"applied": 1}))

    def test_save_list_recall_and_delete(self):
        self.take(0, 5, 3)
        self.take(1, 2, 4)
        self.assertEqual(request(self.routerd, "POST", "/api/salvos", {"name": "morning"}),
                         (200, {"name": "morning", "levels": [0, 1], "crosspoints": 64}))
        self.assertEqual(request(self.routerd, "POST", "/api/salvos", {"name": "video-only", "level": 0}),
                         (200, {"name": "video-only", "levels": [0], "crosspoints": 32}))
        self.assertEqual(request(self.routerd, "GET", "/api/salvos"), (200, {"salvos": [
            {"name": "morning", "levels": [0, 1], "crosspoints": 64},
            {"name": "video-only", "levels": [0], "crosspoints": 32}]}))

        self.take(0, 5, 9)
        self.take(1, 2, 8)
        client = LeitchClient(self.routerd.port)
        client.report_mode()
        self.assertEqual(request(self.routerd, "POST", "/api/salvos/morning/recall"),
                         (200, {"name": "morning", "applied": 64, "refused": []}))
        # Reported like any other take: one report per destination, in the saved order.
        reports = client.read_until("S:11F,0\r\n>")
        self.assertIsNotNone(reports)
        self.assertEqual(reports.count("\r\nS:"), 64)
        self.assertIn("\r\nS:05,3\r\n>", reports)
        self.assertIn("\r\nS:12,4\r\n>", reports)
        status, level = request(self.routerd, "GET", "/api/levels/0")
        self.assertEqual(level["crosspoints"][5], 3)

        self.assertEqual(request(self.routerd, "DELETE", "/api/salvos/morning"), (200, {"deleted": "morning"}))
        self.assertEqual(request(self.routerd, "GET", "/api/salvos"), (200, {"salvos": [
            {"name": "video-only", "levels": [0], "crosspoints": 32}]}))
        client.close()

    def test_a_recall_refuses_locked_destinations_and_says_so(self):
        self.take(0, 6, 2)
        request(self.routerd, "POST", "/api/salvos", {"name": "show", "level": 0})
        self.take(0, 6, 5)
        self.assertEqual(request(self.routerd, "POST", "/api/levels/0/lock", {"destination": 6, "locked": True}),
                         (200, {"destination": 6, "locked": True}))
        self.assertEqual(request(self.routerd, "POST", "/api/salvos/show/recall"), (200, {
            "name": "show", "applied": 31,
            "refused": [{"level": 0, "destination": 6, "source": 2, "reason": "destination locked"}]}))
        status, level = request(self.routerd, "GET", "/api/levels/0")
        self.assertEqual(level["crosspoints"][6], 5)
        self.assertTrue(self.routerd.log_contains("web: refused take of source 2 to destination 6 on level 0: "
                                                  "destination locked"))

    def test_unknown_names_and_bad_requests(self):
        self.assertEqual(request(self.routerd, "POST", "/api/salvos/nothing/recall"),
                         (404, {"error": "no saved routing nothing", "field": "name"}))
        self.assertEqual(request(self.routerd, "DELETE", "/api/salvos/nothing"),
                         (404, {"error": "no saved routing nothing", "field": "name"}))
        self.assertEqual(request(self.routerd, "POST", "/api/salvos", {"name": "a b"}),
                         (400, {"error": "name must be 1 to 64 letters, digits, '-', '_' or '.'", "field": "name"}))
        self.assertEqual(request(self.routerd, "POST", "/api/salvos", {"level": 0}),
                         (400, {"error": "missing field name", "field": "name"}))
        self.assertEqual(request(self.routerd, "POST", "/api/salvos", {"name": "x", "level": 7}),
                         (404, {"error": "no level 7", "field": "level"}))

    def test_saved_routings_outlive_a_restart(self):
        self.take(0, 9, 1)
        request(self.routerd, "POST", "/api/salvos", {"name": "kept"})
        self.routerd.close()
        self.routerd = Routerd("--state", os.path.join(self.directory, "state.db"))
        self.assertEqual(request(self.routerd, "GET", "/api/salvos"), (200, {"salvos": [
            {"name": "kept", "levels": [0, 1], "crosspoints": 64}]}))

    def test_the_command_line_tool_saves_lists_recalls_and_deletes(self):
        def salvo(*args):
            done = subprocess.run([os.environ["LEITCH_SALVO"], "--http", self.routerd.host] + list(args),
                                  capture_output=True, text=True, timeout=30)
            return done.returncode, done.stdout, done.stderr

        self.take(0, 5, 3)
        self.assertEqual(salvo("save", "evening", "--level", "0"),
                         (0, "saved evening: levels 0, 32 crosspoints\n", ""))
        self.assertEqual(salvo("list"), (0, "evening\tlevels 0\t32 crosspoints\n", ""))
        self.take(0, 5, 4)
        request(self.routerd, "POST", "/api/levels/0/lock", {"destination": 6, "locked": True})
        self.assertEqual(salvo("recall", "evening"), (1, "recalled evening: 31 taken, 1 refused\n"
                                                         "  refused: level 0 destination 6 source 0: destination locked\n",
                                                      ""))
        status, level = request(self.routerd, "GET", "/api/levels/0")
        self.assertEqual(level["crosspoints"][5], 3)
        self.assertEqual(salvo("delete", "evening"), (0, "deleted evening\n", ""))
        self.assertEqual(salvo("recall", "evening"), (1, "", "leitch-salvo: no saved routing evening (HTTP 404)\n"))
        done = subprocess.run([os.environ["LEITCH_SALVO"], "--http", "127.0.0.1:1", "list"],
                              capture_output=True, text=True, timeout=30)
        self.assertEqual(done.returncode, 2)
        self.assertIn("cannot reach the simulator at 127.0.0.1:1", done.stderr)

    def test_the_command_line_tool_gives_up_on_a_server_that_never_answers(self):
        silent = socket.socket()
        silent.bind(("127.0.0.1", 0))
        silent.listen()  # connections are accepted by the system and never answered
        self.addCleanup(silent.close)
        began = time.monotonic()
        done = subprocess.run([os.environ["LEITCH_SALVO"], "--http", "127.0.0.1:%d" % silent.getsockname()[1],
                               "--timeout", "1", "list"], capture_output=True, text=True, timeout=30)
        self.assertEqual((done.returncode, done.stdout, done.stderr),
                         (2, "", "leitch-salvo: cannot reach the simulator at 127.0.0.1:%d: no answer within 1 s\n"
                          % silent.getsockname()[1]))
        self.assertLess(time.monotonic() - began, 5)

    def test_without_a_state_file_there_are_none(self):
        other = Routerd()
        self.addCleanup(lambda: other.close())
        self.assertEqual(request(other, "GET", "/api/salvos"), (409, {
            "error": "saved routings are kept in the state file: start with --state FILE"}))


class Security(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.routerd = Routerd()

    @classmethod
    def tearDownClass(cls):
        cls.routerd.close()

    def test_changes_from_another_origin_are_refused(self):
        status, body = request(self.routerd, "POST", "/api/levels/0/take", {"destination": 1, "source": 1},
                               headers={"Origin": "http://evil.example"})
        self.assertEqual((status, body["field"]), (403, "Origin"))
        own = {"Origin": "http://" + self.routerd.host}
        self.assertEqual(request(self.routerd, "POST", "/api/levels/0/take", {"destination": 1, "source": 1},
                                 headers=own), (200, {"applied": 1}))

    def test_websocket_from_another_origin_is_refused(self):
        self.assertEqual(WebSocket(self.routerd.web_port, origin="http://evil.example").status, 403)
        self.assertTrue(self.routerd.log_contains('Origin "http://evil.example" is not the page\'s own'))
        page = WebSocket(self.routerd.web_port, origin="http://" + self.routerd.host)
        self.assertEqual(page.status, 101)
        self.assertEqual(page.receive()["type"], "hello")
        page.close()

    def test_a_host_that_is_not_the_address_served_is_refused(self):
        for host in ["evil.example:%d" % self.routerd.web_port, "127.0.0.1:1", "rebind.127.0.0.1.nip.io"]:
            status, body = request(self.routerd, "GET", "/api/levels", headers={"Host": host})
            self.assertEqual((status, body["field"]), (403, "Host"), host)
        self.assertEqual(request(self.routerd, "GET", "/api/levels",
                                 headers={"Host": "localhost:%d" % self.routerd.web_port})[0], 200)
        self.assertEqual(WebSocket(self.routerd.web_port, host="evil.example:%d" % self.routerd.web_port).status, 403)

    def test_oversized_header_is_refused(self):
        status, _ = request(self.routerd, "GET", "/api/levels", headers={"X-Big": "a" * 9000})
        self.assertEqual(status, 431)

    def test_oversized_body_is_refused(self):
        status, body = request(self.routerd, "POST", "/api/levels/0/take", raw_body="[" + "1," * 40000 + "1]")
        self.assertEqual((status, body["field"]), (413, "body"))

    def test_malformed_request_is_answered_400(self):
        sock = socket.create_connection(("127.0.0.1", self.routerd.web_port), timeout=5)
        sock.sendall(b"GET / HTTP/1.1\r\nHost: x\r\nBad Header\r\n\r\n")
        self.assertTrue(sock.recv(100).startswith(b"HTTP/1.1 400"))
        sock.close()

    def test_a_second_host_or_origin_header_is_refused(self):
        port = self.routerd.web_port
        before = request(self.routerd, "GET", "/api/levels/0")[1]["crosspoints"][1]
        for name, first, second in [("Host", "127.0.0.1:%d" % port, "evil.example:%d" % port),
                                    ("Origin", "http://127.0.0.1:%d" % port, "http://evil.example")]:
            sock = socket.create_connection(("127.0.0.1", port), timeout=5)
            head = "POST /api/levels/0/take HTTP/1.1\r\n"
            if name == "Origin":
                head += "Host: 127.0.0.1:%d\r\n" % port
            head += "%s: %s\r\n%s: %s\r\n" % (name, first, name, second)
            body = '{"destination":1,"source":2}'
            sock.sendall((head + "Content-Length: %d\r\n\r\n%s" % (len(body), body)).encode())
            answer = b""
            while b"\r\n\r\n" not in answer or not answer.rstrip().endswith(b"}"):
                chunk = sock.recv(4096)
                if not chunk:
                    break
                answer += chunk
            sock.close()
            self.assertTrue(answer.startswith(b"HTTP/1.1 400"), answer)
            self.assertEqual(json.loads(answer.split(b"\r\n\r\n", 1)[1]),
                             {"error": "more than one %s header" % name, "field": name})
        self.assertEqual(request(self.routerd, "GET", "/api/levels/0")[1]["crosspoints"][1], before)
        self.assertNotEqual(before, 2)

    def test_readonly_refuses_changes(self):
        with Routerd("--http-readonly") as readonly:
            status, body = request(readonly, "POST", "/api/levels/0/take", {"destination": 1, "source": 1})
            self.assertEqual(status, 403)
            self.assertIn("read-only", body["error"])
            self.assertEqual(request(readonly, "POST", "/api/levels/0/lock", {"destination": 1, "locked": True})[0],
                             403)
            self.assertEqual(request(readonly, "GET", "/api/levels/0")[1]["crosspoints"][1], 0)

    def test_pages_over_the_limit_are_refused(self):
        with Routerd("--config", config("two_pages.toml")) as limited:
            pages = [WebSocket(limited.web_port) for _ in range(2)]
            self.assertEqual([p.status for p in pages], [101, 101])
            self.assertEqual(WebSocket(limited.web_port).status, 503)
            self.assertTrue(limited.log_contains("refused: already 2 pages (max_pages)"))


class Listening(unittest.TestCase):
    def test_default_port_taken_runs_without_the_web_view(self):
        blocker = socket.socket()
        blocker.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            blocker.bind(("127.0.0.1", 8080))
        except OSError:
            pass  # taken by someone else already: the same case
        blocker.listen()
        with Routerd(http=None) as routerd:
            self.assertTrue(routerd.log_contains("web view off: cannot serve it on 127.0.0.1:8080"))
            client = LeitchClient(routerd.port)
            client.report_mode()
            client.close()
        blocker.close()

    def test_a_named_port_that_cannot_be_bound_is_an_error(self):
        blocker = socket.socket()
        blocker.bind(("127.0.0.1", 0))
        blocker.listen()
        code, output, errors = run_routerd("--listen", "127.0.0.1:0", "--http", "127.0.0.1:%d" % blocker.getsockname()[1],
                                           timeout=10)
        self.assertEqual(code, 2)
        self.assertIn("cannot serve the web view on 127.0.0.1:%d" % blocker.getsockname()[1], errors)
        self.assertEqual(output, "")
        blocker.close()

    def test_any_address_other_than_loopback_is_warned_about(self):
        with Routerd(http="0.0.0.0:0", listen="127.0.0.1:0") as routerd:
            self.assertTrue(routerd.log_contains("warning: the web view on 0.0.0.0:0 is reachable from other machines"))
            self.assertFalse(routerd.log_contains("warning: the Leitch port", timeout=0))

    def test_a_leitch_port_other_than_loopback_is_warned_about(self):
        with Routerd(http="off", listen="0.0.0.0:0") as routerd:
            self.assertTrue(routerd.log_contains(
                "warning: the Leitch port on 0.0.0.0:0 is reachable from other machines; "
                "anyone who reaches it can switch the router\n"), routerd.log())
            self.assertEqual(routerd.announcements[0].split(":")[0], "listening on 0.0.0.0")


class Push(unittest.TestCase):
    def page_and_client(self, routerd):
        page = WebSocket(routerd.web_port, origin="http://" + routerd.host)
        page.receive()  # the greeting
        client = LeitchClient(routerd.port)
        client.report_mode()
        return page, client

    @staticmethod
    def last_sources(count, step):
        sources = [0] * 32
        for i in range(count):
            sources[i % 32] = (i * step) % 32
        return sources

    def read_takes(self, page, count):
        """The messages' arrival times, the sources they leave on level 0 and
        the sequence numbers of their take events, until `count` takes."""
        sources, events, arrivals = [0] * 32, [], []
        while len(events) < count:
            message = page.receive()
            arrivals.append(time.monotonic())
            for level, destination, source in message.get("crosspoints", []):
                self.assertEqual(level, 0)
                sources[destination] = source
            events += [e["seq"] for e in message.get("events", []) if e["kind"] == "take"]
        return arrivals, sources, events

    def test_a_page_gets_at_most_one_message_per_interval_with_every_change_in_it(self):
        with Routerd() as routerd:
            page, client = self.page_and_client(routerd)
            # About 1,000 takes a second for one second, ten at a time.
            takes = [(i % 32, (i * 7) % 32) for i in range(1000)]
            result = []
            reader = threading.Thread(target=lambda: result.append(self.read_takes(page, len(takes))))
            reader.start()
            began = time.monotonic()
            for start in range(0, len(takes), 10):
                client.send("".join("@ X:0/%X,%X\r" % take for take in takes[start:start + 10]))
                time.sleep(max(0.0, began + (start + 10) / 1000 - time.monotonic()))
            reader.join(30)
            arrivals, sources, events = result[0]
            elapsed = arrivals[-1] - began
            self.assertLessEqual(len(arrivals), elapsed / 0.033 + 2, (len(arrivals), elapsed))
            gaps = [b - a for a, b in zip(arrivals, arrivals[1:])]
            self.assertGreaterEqual(min(gaps), 0.02, gaps)
            self.assertEqual(sources, self.last_sources(1000, 7))
            self.assertEqual(events, sorted(set(events)))

    def test_a_burst_of_takes_reaches_a_page_with_every_event_in_order(self):
        with Routerd() as routerd:
            page, client = self.page_and_client(routerd)
            client.send("".join("@ X:0/%X,%X\r" % (i % 32, (i * 5) % 32) for i in range(2000)))
            arrivals, sources, events = self.read_takes(page, 2000)
            self.assertEqual(len(events), 2000)
            self.assertEqual(events, sorted(set(events)))
            self.assertEqual(sources, self.last_sources(2000, 5))

    def test_a_page_that_never_reads_is_disconnected_and_memory_stays_bounded(self):
        with Routerd("--config", config("unpaced_pages.toml")) as routerd:
            page = WebSocket(routerd.web_port, receive_buffer=4096)
            client = LeitchClient(routerd.port)
            client.report_mode()
            before = routerd.resident_kib()
            for i in range(10000):
                destination, source = i % 32, (i // 32) % 32
                client.send("@ X:0/%X,%X\r" % (destination, source))
                self.assertIsNotNone(client.read_until("S:0%X,%X\r\n" % (destination, source)))
            self.assertTrue(routerd.log_contains("bytes waiting (page does not read)"), routerd.log())
            self.assertTrue(page.closed_by_server())
            # The sanitizer's quarantine holds freed memory back for a while.
            bound_kib = 16 * 1024 * (4 if "ASAN_OPTIONS" in os.environ else 1)
            self.assertLess(routerd.resident_kib() - before, bound_kib)
            page.close()

    def test_sixteen_pages_and_sixty_four_clients_on_a_large_router_stay_in_step(self):
        with Routerd("--config", config("sixteen_large_levels.toml")) as routerd:
            pages = [WebSocket(routerd.web_port) for _ in range(16)]
            for page in pages:
                hello = page.receive(timeout=30)
                self.assertEqual((hello["type"], len(hello["levels"]), len(hello["levels"][15]["crosspoints"])),
                                 ("hello", 16, 1152))
            clients = [LeitchClient(routerd.port) for _ in range(64)]
            for client in clients:
                client.report_mode()
            expected = {}
            for n, client in enumerate(clients):
                level, destination, source = n % 16, 1000 + n, 1151 - n
                client.send("@ X:%X/%X,%X\r" % (level, destination, source))
                expected[(level, destination)] = source
            for client in clients:
                # Every report-mode client sees every take.
                for _ in range(64):
                    self.assertIsNotNone(client.read_until("\r\nS:", timeout=20))
            for page in pages:
                seen = {}
                while len(seen) < len(expected):
                    message = page.receive(timeout=20)
                    for level, destination, source in message.get("crosspoints", []):
                        seen[(level, destination)] = source
                self.assertEqual(seen, expected)
            self.assertEqual(routerd.stop(), 0)


if __name__ == "__main__":
    unittest.main(warnings="ignore")
