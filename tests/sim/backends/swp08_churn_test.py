"""Churn through the SW-P-08 gateway: 8 Leitch clients making random takes,
presets with execute (group salvos) and locks (protects), 2 controllers
connecting directly at the router, and the router restarted every 20 s. Once
everything is quiet, the router, the model (the HTTP API) and every Leitch
client's picture (rebuilt from its "S:" reports, then asked for with
"@ S?0") agree on every crosspoint.

LEITCH_CHURN_SECONDS sets the length (60 in the suite)."""

import os
import random
import shutil
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))

from leitch_churn import churn  # noqa: E402
from routerd import Routerd  # noqa: E402
from swp08_client import Swp08Client, connect  # noqa: E402
from swp08_router import Swp08Router  # noqa: E402

SECONDS = float(os.environ.get("LEITCH_CHURN_SECONDS", "60"))
RESTART_EVERY = 20.0
SOURCES = DESTINATIONS = 16

CONFIG = """
[backend]
protocol = "swp08"
address = "127.0.0.1:{port}"
keepalive_ms = 500
answer_timeout_ms = 300
ack_timeout_ms = 300
resends = 3
confirm_timeout_ms = 1000

[[listen]]
address = "127.0.0.1:0"

[[level]]
number = 0
name = "video"
sources = 16
destinations = 16
"""


class DirectChurner(threading.Thread):
    """Another controller of the router; connects again after each restart."""

    def __init__(self, port, stop, seed):
        super().__init__(daemon=True)
        self.port = port
        self.stop = stop
        self.random = random.Random(seed)
        self.takes = 0

    def run(self):
        client = None
        while not self.stop.is_set():
            try:
                if client is None:
                    client = Swp08Client(self.port, timeout=1.0)
                client.send(connect(0, 0, self.random.randrange(DESTINATIONS), self.random.randrange(SOURCES)))
                self.takes += 1
                time.sleep(self.random.uniform(0.02, 0.2))
            except (OSError, EOFError, TimeoutError):
                if client:
                    client.close()
                client = None
                time.sleep(0.1)
        if client:
            client.close()


class Churn(unittest.TestCase):
    def test_everyone_agrees_after_the_churn(self):
        directory = tempfile.mkdtemp(prefix="routerd-swp08-churn-")
        router = Swp08Router(levels={(0, 0): (SOURCES, DESTINATIONS)}, resend_timeout=0.3)
        port = router.start()
        path = os.path.join(directory, "routerd.toml")
        with open(path, "w") as f:
            f.write(CONFIG.format(port=port))
        routerd = Routerd("--config", path, announced=3)
        stop = threading.Event()
        direct = [DirectChurner(port, stop, seed=100 + n) for n in range(2)]
        try:
            churn(self, routerd, router, direct, lambda: router.tallies(0, 0), SECONDS, RESTART_EVERY, SOURCES,
                  DESTINATIONS, quiet=2.0)
        finally:
            routerd.close()
            router.stop()
            shutil.rmtree(directory)

if __name__ == "__main__":
    unittest.main()
