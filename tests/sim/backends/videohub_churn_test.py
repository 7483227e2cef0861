"""Churn through the Videohub gateway: 8 Leitch clients making random takes,
presets with execute and locks, 2 controllers taking directly at the router,
and the router restarted every 20 s. Once everything is quiet, the router, the
model (the HTTP API) and every Leitch client's picture (rebuilt from its "S:"
reports, then asked for with "@ S?0") agree on every crosspoint.

LEITCH_CHURN_SECONDS sets the length (60 in the suite; a benchmark run is 600)."""

import os
import random
import socket
import sys
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))

from leitch_churn import LeitchChurner  # noqa: E402
from routerd import Routerd, request  # noqa: E402
from videohub_router import VideohubRouter  # noqa: E402

SECONDS = float(os.environ.get("LEITCH_CHURN_SECONDS", "60"))
RESTART_EVERY = 20.0
INPUTS = OUTPUTS = 16
QUICK = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "configs", "videohub_quick.toml")


class DirectChurner(threading.Thread):
    """Another controller of the router; connects again after each restart."""

    def __init__(self, port, stop, seed):
        super().__init__(daemon=True)
        self.port = port
        self.stop = stop
        self.random = random.Random(seed)
        self.takes = 0

    def run(self):
        sock = None
        while not self.stop.is_set():
            try:
                if sock is None:
                    sock = socket.create_connection(("127.0.0.1", self.port), timeout=1)
                routes = "".join("%d %d\n" % (self.random.randrange(OUTPUTS), self.random.randrange(INPUTS))
                                 for _ in range(self.random.randint(1, 3)))
                sock.sendall(("VIDEO OUTPUT ROUTING:\n" + routes + "\n").encode())
                self.takes += 1
                # The router's updates never stop: read them for a while, then take again.
                until = time.monotonic() + self.random.uniform(0.02, 0.2)
                while time.monotonic() < until:
                    sock.settimeout(max(0.001, until - time.monotonic()))
                    try:
                        if not sock.recv(65536):
                            raise ConnectionError("the router closed")
                    except socket.timeout:
                        break
            except OSError:
                if sock:
                    sock.close()
                sock = None
                time.sleep(0.1)
        if sock:
            sock.close()


class Churn(unittest.TestCase):
    def test_everyone_agrees_after_the_churn(self):
        router = VideohubRouter(inputs=INPUTS, outputs=OUTPUTS)
        port = router.start()
        routerd = Routerd("--config", QUICK, "--backend", "videohub:127.0.0.1:%d" % port, announced=3)
        stop = threading.Event()
        leitch = [LeitchChurner(routerd.port, n + 1, stop, seed=n, inputs=INPUTS, outputs=OUTPUTS) for n in range(8)]
        direct = [DirectChurner(port, stop, seed=100 + n) for n in range(2)]
        try:
            for thread in leitch + direct:
                thread.start()
            started = time.monotonic()
            restarts = 0
            while time.monotonic() - started < SECONDS:
                time.sleep(min(RESTART_EVERY, SECONDS - (time.monotonic() - started)))
                if time.monotonic() - started < SECONDS:
                    router.restart()
                    restarts += 1
            stop.set()
            for thread in leitch + direct:
                thread.join(10)
            for client in leitch:
                self.assertIsNone(client.error)
            # Quiet: the gateway is connected and has nothing on its way.
            self.assertTrue(routerd.log_contains("answered") or routerd.log_contains("is back"))
            deadline = time.monotonic() + 10
            while time.monotonic() < deadline:
                links = request(routerd, "GET", "/api/links")[1]["links"]
                if [link for link in links if link["kind"] == "router"][0]["up"]:
                    break
                time.sleep(0.1)
            time.sleep(1.5)
            at_router = router.routes()
            status, level = request(routerd, "GET", "/api/levels/0")
            self.assertEqual(status, 200)
            self.assertEqual(level["crosspoints"], at_router)
            for client in leitch:
                client.drain(0.3)
                expected = dict(enumerate(at_router))
                self.assertEqual(client.picture.sources, expected, "client %d's reports" % client.number)
                self.assertEqual(client.status(), expected, "client %d's @ S?0" % client.number)
            print("churn: %.0f s, %d restarts, %d Leitch actions, %d direct takes, %d away lines" % (
                SECONDS, restarts, sum(c.actions for c in leitch), sum(d.takes for d in direct),
                routerd.count("is away")), file=sys.stderr)
            self.assertGreaterEqual(routerd.count("is back after"), restarts)
        finally:
            stop.set()
            for client in leitch:
                client.sock.close()
            routerd.close()
            router.stop()


if __name__ == "__main__":
    unittest.main()
