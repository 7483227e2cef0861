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

from leitch_churn import churn  # noqa: E402
from routerd import Routerd  # noqa: E402
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
        direct = [DirectChurner(port, stop, seed=100 + n) for n in range(2)]
        try:
            churn(self, routerd, router, direct, router.routes, SECONDS, RESTART_EVERY, INPUTS, OUTPUTS)
        finally:
            routerd.close()
            router.stop()

if __name__ == "__main__":
    unittest.main()
