"""The SW-P-08 gateway's figures, against the fixture router on loopback:

- added latency: a Leitch client's "@ X:" to its "S:" report through the
  gateway, against a direct SW-P-08 client's connect to its "connected" on the
  same fixture, over TCP, takes 20 ms apart (back to back, the gateway keeps
  to the pace routers are built for: 20 at once, then one per 10 ms);
- start-up: a 16-level 1,024 x 1,024 router's names, tally dumps and protects
  read over TCP, and one 128 x 128 level read over a socat pty pair at 38400
  baud, with the time its bytes would need at that rate;
- a 1,024-crosspoint saved routing recalled as one group salvo: from the
  recall to the last "S:" at each of 64 report-mode Leitch clients.

    /usr/bin/python3 bench/gateway/swp08_bench.py [BUILD_DIR]

Prints a markdown table. A benchmark, not a test: nothing here fails."""

import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tests", "support"))
BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(HERE, "..", "..", "build", "default"))
os.environ.setdefault("LEITCH_ROUTERD", os.path.join(BUILD, "sim", "leitch-routerd"))

from routerd import LeitchClient, Routerd, request  # noqa: E402
from swp08_client import Swp08Client, connect  # noqa: E402
from swp08_router import Swp08Router  # noqa: E402

TAKES = 400
# Takes 20 ms apart: a router is built for a connect every 10 ms on average,
# and the gateway keeps to that pace; back to back, the pace is what is measured.
SPACING = 0.02


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))]


def ms(seconds):
    return "%.2f" % (seconds * 1000)


def config(directory, address, levels, extra=""):
    """A configuration of `levels` (matrix 0, level n: sources x destinations each)."""
    path = os.path.join(directory, "routerd.toml")
    with open(path, "w") as f:
        f.write('[server]\nmax_clients = 80\nmax_clients_per_address = 80\n\n')
        f.write('[backend]\nprotocol = "swp08"\naddress = "%s"\n%s\n' % (address, extra))
        for n, (sources, destinations) in enumerate(levels):
            f.write("[[level]]\nnumber = %d\nname = \"level %d\"\nsources = %d\ndestinations = %d\n\n"
                    % (n, n, sources, destinations))
    return path


def latency(rows, directory):
    router = Swp08Router(levels={(0, 0): (16, 16)})
    port = router.start()
    direct = Swp08Client(port)
    through_direct = []
    for i in range(TAKES):
        source = 1 + i % 2
        started = time.perf_counter()
        direct.send(connect(0, 0, 3, source))
        while True:
            frame = direct.read_frame(timeout=5)
            if frame[0] == 0x04 and frame[3] == 3 and frame[4] == source:
                break
        through_direct.append(time.perf_counter() - started)
        time.sleep(SPACING)
    direct.close()
    gateway = Routerd("--config", config(directory, "127.0.0.1:%d" % port, [(16, 16)]), http="off", announced=2)
    client = LeitchClient(gateway.port)
    client.report_mode()
    through_gateway = []
    for i in range(TAKES):
        source = 1 + i % 2
        started = time.perf_counter()
        client.send("@ X:0/4,%X\r" % source)
        if client.read_until("S:04,%X\r\n" % source, timeout=10) is None:
            raise RuntimeError("no report")
        through_gateway.append(time.perf_counter() - started)
        time.sleep(SPACING)
    client.close()
    gateway.close()
    router.stop()
    for name, values in (("direct SW-P-08 client at the fixture", through_direct),
                         ("Leitch client through the gateway", through_gateway)):
        rows.append(("take to report, %s" % name, "p50 %s ms, p99 %s ms (%d takes)" % (
            ms(statistics.median(values)), ms(percentile(values, 0.99)), len(values))))
    rows.append(("added by the gateway", "p50 %s ms, p99 %s ms" % (
        ms(statistics.median(through_gateway) - statistics.median(through_direct)),
        ms(percentile(through_gateway, 0.99) - percentile(through_direct, 0.99)))))


def read_time(gateway):
    found = re.search(r"its state read in (\d+) ms", gateway.log())
    return int(found.group(1))


def large_start_up(rows, directory):
    levels = [(1024, 1024)] * 16
    router = Swp08Router(levels={(0, n): size for n, size in enumerate(levels)})
    port = router.start()
    started = time.perf_counter()
    gateway = Routerd("--config", config(directory, "127.0.0.1:%d" % port, levels), http="off", announced=2)
    whole = time.perf_counter() - started
    rows.append(("start-up, 16 levels of 1,024 x 1,024 over TCP (names, tally dumps, protects)",
                 "state read in %d ms; process start to the router answered %s ms; RSS %d KiB" % (
                     read_time(gateway), ms(whole), gateway.resident_kib())))
    gateway.close()
    router.stop()


def serial_start_up(rows, directory):
    router_end = os.path.join(directory, "router")
    gateway_end = os.path.join(directory, "gateway")
    socat = subprocess.Popen(["socat", "pty,raw,echo=0,link=" + router_end, "pty,raw,echo=0,link=" + gateway_end],
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    while not (os.path.exists(router_end) and os.path.exists(gateway_end)):
        time.sleep(0.01)
    router = Swp08Router(levels={(0, 0): (128, 128)})
    router.serve_serial(router_end)
    gateway = Routerd("--config", config(directory, "serial:%s:38400,8N1" % gateway_end, [(128, 128)]),
                      http="off", announced=2)
    counters = router.counters()
    read = read_time(gateway)
    router.stop()
    gateway.close()
    socat.terminate()
    socat.wait()
    # What the read sends each way, at 10 bits a byte on an 8N1 line: the
    # names (8 characters, 16 a message) of the sources and destinations, the
    # tally dump (64 a message) and the protect dump, with their requests and ACKs.
    names = 2 * 8 * (6 + 7 + 16 * 8)
    dumps = 2 * 2 * (6 + 5 + 2 * 64)
    requests = counters["frames_received"] * 9 + counters["frames_sent"] * 2
    wire = names + dumps + requests
    rows.append(("start-up, one 128 x 128 level over a pty pair set to 38400 8N1",
                 "state read in %d ms; its %d bytes would need %d ms on a real 38400-baud line "
                 "(a pty pair does not keep to the rate)" % (read, wire, wire * 10 * 1000 // 38400)))


def salvo_recall(rows, directory):
    router = Swp08Router(levels={(0, 0): (1024, 1024)})
    port = router.start()
    gateway = Routerd("--config", config(directory, "127.0.0.1:%d" % port, [(1024, 1024)]),
                      "--state", os.path.join(directory, "state.db"), announced=3)
    assert request(gateway, "POST", "/api/salvos", {"name": "reversed"})[0] == 200
    clients = [LeitchClient(gateway.port) for _ in range(64)]
    for c in clients:
        c.report_mode()
    # The router moves every destination away from the saved routing.
    for d in range(1024):
        router.set_crosspoint(0, 0, d, (d + 1) % 1024)
    last = "S:03FF,0\r\n"
    for c in clients:
        c.read_until(last, timeout=30)
    done = [None] * len(clients)

    def wait(n):
        clients[n].read_until("S:03FF,3FF\r\n", timeout=60)
        done[n] = time.perf_counter()

    threads = [threading.Thread(target=wait, args=(n,)) for n in range(len(clients))]
    for t in threads:
        t.start()
    started = time.perf_counter()
    status, body = request(gateway, "POST", "/api/salvos/reversed/recall")
    answered = time.perf_counter()
    for t in threads:
        t.join()
    rows.append(("1,024-crosspoint saved routing recalled as one group salvo, 64 report-mode clients",
                 "API answered in %s ms (%d applied); last S: at the last client %s ms after the recall" % (
                     ms(answered - started), body.get("applied", -1), ms(max(done) - started))))
    for c in clients:
        c.close()
    gateway.close()
    router.stop()


def main():
    rows = []
    for step in (latency, large_start_up, serial_start_up, salvo_recall):
        directory = tempfile.mkdtemp(prefix="swp08-bench-")
        try:
            step(rows, directory)
        finally:
            shutil.rmtree(directory)
    print("| figure | value |\n|---|---|")
    for name, value in rows:
        print("| %s | %s |" % (name, value))


if __name__ == "__main__":
    main()
