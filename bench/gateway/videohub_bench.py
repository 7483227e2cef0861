"""The Videohub gateway's figures, against the fixture router on loopback:

- added latency: a Leitch client's "@ X:" to its "S:" report through the
  gateway, against a direct client's take to its status block on the same
  fixture, with 1 and 8 clients taking at once;
- reconnect: from the router listening again to the first take served;
- the time the gateway takes to read a 288 x 288 router's whole state
  (labels, routing, locks), as it logs it;
- the gateway's memory in front of a 288 x 288 router with 64 Leitch clients.

    /usr/bin/python3 bench/gateway/videohub_bench.py [BUILD_DIR]

Prints a markdown table. A benchmark, not a test: nothing here fails."""

import os
import re
import socket
import statistics
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tests", "support"))
BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(HERE, "..", "..", "build", "default"))
os.environ.setdefault("LEITCH_ROUTERD", os.path.join(BUILD, "sim", "leitch-routerd"))

from routerd import LeitchClient, Routerd  # noqa: E402
from videohub_router import VideohubRouter  # noqa: E402

TAKES = 400  # per client


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))]


def ms(seconds):
    return "%.2f" % (seconds * 1000)


class Direct:
    """A client of the router itself: a take is its block, done at the status block that answers it."""

    def __init__(self, port):
        self.sock = socket.create_connection(("127.0.0.1", port))
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.buffer = b""
        self.read_until(b"END PRELUDE:\n\n")

    def read_until(self, wanted):
        while wanted not in self.buffer:
            self.buffer += self.sock.recv(65536)
        self.buffer = self.buffer[self.buffer.index(wanted) + len(wanted):]

    def take(self, output, input):
        started = time.perf_counter()
        self.sock.sendall(b"VIDEO OUTPUT ROUTING:\n%d %d\n\n" % (output, input))
        self.read_until(b"VIDEO OUTPUT ROUTING:\n%d %d\n\n" % (output, input))
        return time.perf_counter() - started


def leitch_take(client, output, input):
    started = time.perf_counter()
    client.send("@ X:0/%X,%X\r" % (output, input))
    if client.read_until("S:0%X,%X\r\n" % (output, input), timeout=10) is None:
        raise RuntimeError("no report for %d,%d" % (output, input))
    return time.perf_counter() - started


def run_clients(count, take_one):
    """Each of `count` clients takes its own output, to another input each time: a take to what an
    output carries already (the fixture starts with output n on input n) never reaches the router."""
    times = [[] for _ in range(count)]

    def work(n):
        for i in range(TAKES):
            times[n].append(take_one(n, n, (n + 1 + i % 2) % 16))

    threads = [threading.Thread(target=work, args=(n,)) for n in range(count)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    return [t for per_client in times for t in per_client]


def latency(rows):
    for count in (1, 8):
        router = VideohubRouter(inputs=16, outputs=16)
        port = router.start()
        directs = [Direct(port) for _ in range(count)]
        direct = run_clients(count, lambda n, out, inp: directs[n].take(out, inp))
        gateway = Routerd("--backend", "videohub:127.0.0.1:%d" % port, http="off", announced=2)
        clients = [LeitchClient(gateway.port) for _ in range(count)]
        for c in clients:
            c.report_mode()
        through = run_clients(count, lambda n, out, inp: leitch_take(clients[n], out, inp))
        for c in clients:
            c.close()
        gateway.close()
        router.stop()
        for name, values in (("direct client at the fixture", direct), ("Leitch client through the gateway", through)):
            rows.append(("take to report, %d client(s), %s" % (count, name),
                         "p50 %s ms, p99 %s ms (%d takes)" % (ms(statistics.median(values)), ms(percentile(values, 0.99)),
                                                               len(values))))
        rows.append(("added by the gateway, %d client(s)" % count,
                     "p50 %s ms, p99 %s ms" % (ms(statistics.median(through) - statistics.median(direct)),
                                               ms(percentile(through, 0.99) - percentile(direct, 0.99)))))


def labelled_288():
    router = VideohubRouter(inputs=288, outputs=288)
    for n in range(288):
        router.set_label("input", n, "Camera feed %03d" % n)
        router.set_label("output", n, "Monitor wall %03d" % n)
    for n in range(0, 288, 7):
        router.set_lock(n)
    return router


def reconnect(rows):
    router = VideohubRouter(inputs=16, outputs=16)
    port = router.start()
    gateway = Routerd("--backend", "videohub:127.0.0.1:%d" % port, http="off", announced=2)
    client = LeitchClient(gateway.port)
    client.report_mode()
    results = []
    for i in range(10):
        router.stop()
        time.sleep(0.5)  # the gateway's backoff grows meanwhile, as it would for a reboot
        router.start()
        started = time.perf_counter()
        source = 1 + (i % 2)
        while True:
            client.send("@ X:0/3,%X\r" % source)
            if client.read_until("S:03,%X\r\n" % source, timeout=0.02) is not None:
                break
        results.append(time.perf_counter() - started)
    client.close()
    gateway.close()
    router.stop()
    rows.append(("reconnect: router listening again to the first take served (10 restarts, 0.5 s away)",
                 "p50 %s ms, worst %s ms" % (ms(statistics.median(results)), ms(max(results)))))


def full_load_and_memory(rows):
    router = labelled_288()
    port = router.start()
    gateway = Routerd("--config", os.path.join(HERE, "many_clients.toml"), "--backend", "videohub:127.0.0.1:%d" % port,
                      http="off", announced=2)
    reads = []
    for _ in range(5):
        router.restart()
        before = gateway.count("is back after")
        deadline = time.monotonic() + 10
        while gateway.count("is back after") == before and time.monotonic() < deadline:
            time.sleep(0.05)
    reads = [int(m) for m in re.findall(r"its state read in (\d+) ms", gateway.log())]
    rows.append(("288 x 288 router with labels and locks: its state read (connect to dump read, %d reads)" % len(reads),
                 "median %d ms, worst %d ms" % (statistics.median(reads), max(reads))))
    idle = gateway.resident_kib()
    clients = [LeitchClient(gateway.port) for _ in range(64)]
    for c in clients:
        c.report_mode()
    router.set_route(5, 9)
    for c in clients:
        c.read_until("S:05,9")
    loaded = gateway.resident_kib()
    rows.append(("memory (RSS) in front of a 288 x 288 router", "%d KiB alone, %d KiB with 64 Leitch clients" % (idle, loaded)))
    for c in clients:
        c.close()
    gateway.close()
    router.stop()


def main():
    rows = []
    latency(rows)
    reconnect(rows)
    full_load_and_memory(rows)
    print("| figure | value |\n|---|---|")
    for name, value in rows:
        print("| %s | %s |" % (name, value))


if __name__ == "__main__":
    main()
