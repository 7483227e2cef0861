"""Leitch clients for the gateway's churn tests: each makes random takes,
presets with execute and locks on level 0, and keeps the picture of the
router its "S:" reports draw."""

import random
import re
import socket
import sys
import threading
import time

from routerd import connect

REPORT = re.compile(r"S:0([0-9A-F]+),([0-9A-F]+)$")


class Picture:
    """What one Leitch client believes: its reports applied in order."""

    def __init__(self):
        self.sources = {}
        self.pending = b""

    def take_in(self, data):
        *lines, self.pending = (self.pending + data).split(b"\r\n")
        for line in lines:
            found = REPORT.search(line.decode(errors="replace"))
            if found:
                self.sources[int(found.group(1), 16)] = int(found.group(2), 16)


class LeitchChurner(threading.Thread):
    """One Leitch client on level 0: random takes (55%), presets with execute
    (30%) and locks (15%), reading its reports between actions."""

    def __init__(self, port, number, stop, seed, inputs, outputs):
        super().__init__(daemon=True)
        self.inputs = inputs
        self.outputs = outputs
        self.sock = connect(port)
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.number = number
        self.stop = stop
        self.random = random.Random(seed)
        self.picture = Picture()
        self.actions = 0
        self.error = None

    def send(self, text):
        self.sock.sendall(text.encode())

    def drain(self, seconds):
        self.sock.settimeout(seconds)
        try:
            while True:
                data = self.sock.recv(65536)
                if not data:
                    raise ConnectionError("leitch-routerd closed client %d" % self.number)
                self.picture.take_in(data)
                self.sock.settimeout(0.001)
        except socket.timeout:
            pass

    def act(self):
        r = self.random
        choice = r.random()
        if choice < 0.55:
            self.send("@ X:0/%X,%X\r" % (r.randrange(self.outputs), r.randrange(self.inputs)))
        elif choice < 0.85:
            presets = "".join("@ P:0/%X,%X\r" % (r.randrange(self.outputs), r.randrange(self.inputs)) for _ in range(r.randint(1, 4)))
            self.send(presets + "@ B:E\r")
        else:
            self.send("@ W:0/%X,%d,%d\r" % (r.randrange(self.outputs), self.number, r.choice((0, 0, 1))))
        self.actions += 1

    def run(self):
        try:
            self.send("@ ?\r@ S?0\r")
            while not self.stop.is_set():
                self.act()
                self.drain(self.random.uniform(0.005, 0.05))
        except Exception as e:  # noqa: BLE001 - reported by the test
            self.error = e

    def unlock_all(self):
        self.send("".join("@ W:0/%X,%d,0\r" % (d, self.number) for d in range(self.outputs)))

    def status(self):
        """The crosspoints "@ S?0" lists now, by destination."""
        self.drain(0.2)
        asked = Picture()
        self.send("@ S?0\r")
        answer = b""
        deadline = time.monotonic() + 10
        while not answer.endswith(b"\r\n>") and time.monotonic() < deadline:
            self.sock.settimeout(max(0.01, deadline - time.monotonic()))
            answer += self.sock.recv(65536)
        asked.take_in(answer + b"\r\n")
        return asked.sources


def churn(test, routerd, router, direct, at_router, seconds, restart_every, sources, destinations, quiet=1.5):
    """8 Leitch clients and the `direct` controllers (threads, started here) churn
    for `seconds`, the router restarted every `restart_every`; then, once the
    gateway is up and `quiet` has passed, the router (`at_router()`), the API
    and every client's picture must agree. Stops every thread it started."""
    from routerd import request

    stop = direct[0].stop if direct else threading.Event()
    leitch = [LeitchChurner(routerd.port, n + 1, stop, seed=n, inputs=sources, outputs=destinations) for n in range(8)]
    try:
        for thread in leitch + direct:
            thread.start()
        started = time.monotonic()
        restarts = 0
        while time.monotonic() - started < seconds:
            time.sleep(min(restart_every, seconds - (time.monotonic() - started)))
            if time.monotonic() - started < seconds:
                router.restart()
                restarts += 1
        stop.set()
        for thread in leitch + direct:
            thread.join(10)
        for client in leitch:
            test.assertIsNone(client.error)
        # Quiet: the gateway is connected and every take has been decided.
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            links = request(routerd, "GET", "/api/links")[1]["links"]
            if [link for link in links if link["kind"] == "router"][0]["up"]:
                break
            time.sleep(0.1)
        time.sleep(quiet)
        crosspoints = at_router()
        status, level = request(routerd, "GET", "/api/levels/0")
        test.assertEqual(status, 200)
        test.assertEqual(level["crosspoints"], crosspoints)
        expected = dict(enumerate(crosspoints))
        for client in leitch:
            client.drain(0.3)
            test.assertEqual(client.picture.sources, expected, "client %d's reports" % client.number)
            test.assertEqual(client.status(), expected, "client %d's @ S?0" % client.number)
        print("churn: %.0f s, %d restarts, %d Leitch actions, %d direct takes, %d away lines" % (
            seconds, restarts, sum(c.actions for c in leitch), sum(d.takes for d in direct),
            routerd.count("is away")), file=sys.stderr)
        test.assertGreaterEqual(routerd.count("is back after"), restarts)
    finally:
        stop.set()
        for client in leitch:
            client.sock.close()
