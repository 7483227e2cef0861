"""No single client address locks the others out of the web view: a
connection that sends no request is closed after five seconds, one address
holds at most half of the 64 HTTP connections and its share of the pages, and
a connection or page refused is told why in its 503 and logged once per burst.
Clients come from different loopback addresses (127.0.0.2, 127.0.0.3, ...),
which the simulator, listening on 127.0.0.1, sees as different machines."""

import http.client
import json
import os
import re
import select
import shutil
import socket
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))
import routerd as harness  # noqa: E402
from routerd import Routerd, WebSocket, connect, request  # noqa: E402


def closed_after(sock, timeout):
    """(seconds until the server closed `sock`, what it sent first), or
    (None, what it sent) if it did not close it within `timeout`."""
    started = time.monotonic()
    received = b""
    while time.monotonic() - started < timeout:
        sock.settimeout(max(0.01, timeout - (time.monotonic() - started)))
        try:
            chunk = sock.recv(65536)
        except socket.timeout:
            break
        except ConnectionResetError:
            chunk = b""
        if not chunk:
            return time.monotonic() - started, received
        received += chunk
    return None, received


def get(routerd, path, source):
    """(status, headers, body) of a GET from `source`."""
    connection = http.client.HTTPConnection("127.0.0.1", routerd.web_port, timeout=10, source_address=(source, 0))
    try:
        connection.request("GET", path)
        response = connection.getresponse()
        return response.status, dict(response.getheaders()), response.read()
    finally:
        connection.close()


def open_silent(routerd, source, count):
    return [connect(routerd.web_port, source) for _ in range(count)]


class RequestDeadline(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.routerd = Routerd()

    @classmethod
    def tearDownClass(cls):
        cls.routerd.close()

    def assertClosedAfterFiveSeconds(self, sock):
        seconds, received = closed_after(sock, 10)
        self.assertIsNotNone(seconds, "still open after 10 s")
        self.assertGreaterEqual(seconds, 4.9)
        return received

    def test_a_connection_that_sends_no_request_is_closed_after_five_seconds(self):
        with connect(self.routerd.web_port) as sock:
            self.assertEqual(self.assertClosedAfterFiveSeconds(sock), b"")

    def test_a_request_not_finished_within_five_seconds_is_closed_without_an_answer(self):
        with connect(self.routerd.web_port) as sock:
            sock.sendall(b"GET /api/levels HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n" % self.routerd.web_port)
            self.assertEqual(self.assertClosedAfterFiveSeconds(sock), b"")

    def test_an_idle_connection_after_an_answer_is_closed_after_five_seconds(self):
        with connect(self.routerd.web_port) as sock:
            sock.sendall(b"GET /api/levels HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n\r\n" % self.routerd.web_port)
            answer = b""
            while b"}]}" not in answer:
                answer += sock.recv(65536)
            self.assertTrue(answer.startswith(b"HTTP/1.1 200 OK\r\n"), answer)
            self.assertClosedAfterFiveSeconds(sock)


class ConnectionShare(unittest.TestCase):
    def setUp(self):
        self.routerd = Routerd()
        self.addCleanup(self.routerd.close)

    def hold(self, source, count):
        """`count` connections from `source` that send nothing. The
        simulator accepts connections in the order they were made: the next
        one comes after these."""
        sockets = open_silent(self.routerd, source, count)
        for sock in sockets:
            self.addCleanup(sock.close)
        return sockets

    def test_one_address_holds_at_most_half_of_the_connections_and_is_told_why_past_them(self):
        self.hold("127.0.0.2", 32)
        for _ in range(10):
            status, headers, body = get(self.routerd, "/", "127.0.0.2")
            self.assertEqual((status, json.loads(body)),
                             (503, {"error": "too many connections from your address (32 of 32)"}))
            self.assertEqual((headers["Retry-After"], headers["Connection"]), ("5", "close"))
        self.assertEqual(get(self.routerd, "/", "127.0.0.1")[0], 200)
        self.assertTrue(self.routerd.log_contains("refused: too many connections from its address (32 of 32)\n"))
        self.assertEqual(len(re.findall(
            r"web view: connection from 127\.0\.0\.2:\d+ refused: too many connections from its address "
            r"\(32 of 32\)\n", self.routerd.log())), 1, self.routerd.log())

    def test_past_all_sixty_four_connections_one_more_is_told_so(self):
        self.hold("127.0.0.2", 32)
        self.hold("127.0.0.3", 32)
        status, _, body = get(self.routerd, "/", "127.0.0.4")
        self.assertEqual((status, json.loads(body)), (503, {"error": "too many connections (64 of 64)"}))
        self.assertTrue(self.routerd.log_contains("refused: too many connections (64 of 64)\n"), self.routerd.log())

    def test_connections_reopened_from_one_address_do_not_stop_the_page_loads_of_others(self):
        stop = threading.Event()
        attacker = threading.Thread(target=reopen_connections, args=(self.routerd.web_port, "127.0.0.2", 64, stop),
                                    daemon=True)
        attacker.start()
        self.addCleanup(attacker.join, 10)
        self.addCleanup(stop.set)
        time.sleep(1)  # the attacker holds its share
        statuses = []
        started = time.monotonic()
        while time.monotonic() - started < 8:
            for source in ("127.0.0.1", "127.0.0.3"):
                try:
                    statuses.append(get(self.routerd, "/", source)[0])
                except (OSError, http.client.HTTPException) as e:
                    statuses.append(type(e).__name__)
            time.sleep(0.2)
        stop.set()
        self.assertEqual(statuses, [200] * len(statuses))
        self.assertGreaterEqual(len(statuses), 20)


def reopen_connections(port, source, count, stop):
    """Keeps `count` connections from `source` open, sending nothing, and opens
    another as soon as one is closed: a browser tab gone wrong, or worse."""
    sockets = []
    while not stop.is_set():
        while len(sockets) < count and not stop.is_set():
            try:
                sockets.append(connect(port, source, timeout=1))
            except OSError:
                break
        readable = select.select(sockets, [], [], 0.05)[0] if sockets else []
        for sock in readable:
            try:
                chunk = sock.recv(65536)
            except OSError:
                chunk = b""
            if not chunk:
                sockets.remove(sock)
                sock.close()
    for sock in sockets:
        sock.close()


PAGES_CONFIG = "[http]\nmax_pages = 4\n%s"


class PageShare(unittest.TestCase):
    def start(self, extra=""):
        directory = tempfile.mkdtemp(prefix="routerd-web-lockout-")
        self.addCleanup(shutil.rmtree, directory, True)
        path = os.path.join(directory, "routerd.toml")
        with open(path, "w") as f:
            f.write(PAGES_CONFIG % extra)
        self.routerd = Routerd("--config", path)
        self.addCleanup(self.routerd.close)

    def page(self, source):
        page = WebSocket(self.routerd.web_port, source=source)
        self.addCleanup(page.close)
        return page

    def test_one_address_holds_at_most_half_of_the_pages_and_is_told_why_past_them(self):
        self.start()
        self.assertEqual([self.page("127.0.0.2").status for _ in range(2)], [101, 101])
        for _ in range(5):
            refused = self.page("127.0.0.2")
            self.assertEqual((refused.status, json.loads(refused.body)),
                             (503, {"error": "too many pages from your address (2 of 2)"}))
        self.assertEqual([self.page("127.0.0.3").status for _ in range(2)], [101, 101])
        refused = self.page("127.0.0.4")
        self.assertEqual((refused.status, json.loads(refused.body)), (503, {"error": "too many pages: the limit is 4"}))
        self.assertTrue(self.routerd.log_contains("refused: already 4 pages (max_pages)\n"), self.routerd.log())
        self.assertEqual(len(re.findall(
            r"page from 127\.0\.0\.2:\d+ refused: 127\.0\.0\.2 has 2 of 2 pages open \(max_pages_per_address\)\n",
            self.routerd.log())), 1, self.routerd.log())

    def test_the_share_is_set_with_max_pages_per_address(self):
        self.start("max_pages_per_address = 1\n")
        self.assertEqual(self.page("127.0.0.2").status, 101)
        refused = self.page("127.0.0.2")
        self.assertEqual((refused.status, json.loads(refused.body)),
                         (503, {"error": "too many pages from your address (1 of 1)"}))
        self.assertEqual(self.page("127.0.0.3").status, 101)


if __name__ == "__main__":
    unittest.main(warnings="ignore")
