"""What open pages cost the simulator per take, in instructions counted by
callgrind: as bench/loadgen/callgrind.sh (one client making takes, the
difference between runs of 2,500 and 7,500 takes, each made once one by one
and four times pipelined), with no page and with 4 pages open. A page here is
a WebSocket client that reads everything it is sent, as a browser's page
would, without drawing it.

    /usr/bin/python3 bench/web/pages_callgrind.py [BUILD_DIR]

Prints a markdown table. A benchmark, not a test: nothing here fails."""

import os
import subprocess
import sys
import tempfile
import threading

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(HERE, "..", "..", "tests", "support")]
BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(HERE, "..", "..", "build", "default"))
os.environ.setdefault("LEITCH_ROUTERD", os.path.join(BUILD, "sim", "leitch-routerd"))

import routerd  # noqa: E402

ROUTER = os.path.join(HERE, "..", "loadgen", "builtin_router.toml")
LOADGEN = os.path.join(BUILD, "bench", "loadgen", "leitch-loadgen")


def drain(page):
    """Reads whatever the simulator sends the page, until it closes."""
    page.sock.settimeout(None)
    try:
        while page.sock.recv(65536):
            pass
    except OSError:
        pass


def instructions(takes, pages, work):
    """User-space instructions the simulator ran, start to end, for `takes` takes."""
    out = os.path.join(work, "callgrind.%d.%d" % (pages, takes))
    server = routerd.Routerd("--config", ROUTER,
                             command=["valgrind", "--tool=callgrind", "--callgrind-out-file=" + out, routerd.ROUTERD])
    try:
        readers = [routerd.WebSocket(server.web_port) for _ in range(pages)]
        for page in readers:
            threading.Thread(target=drain, args=(page,), daemon=True).start()
        subprocess.run([LOADGEN, "--port", str(server.port), "--pid", str(server.process.pid), "--clients", "1",
                        "--destinations", "32", "--takes", str(takes)], stdout=subprocess.DEVNULL, check=True)
        server.stop(timeout=120)
    finally:
        server.close()
    with open(out) as f:
        for line in f:
            if line.startswith(("summary:", "totals:")):
                return int(line.split()[1])
    raise RuntimeError("no totals in " + out)


def main():
    rows = []
    with tempfile.TemporaryDirectory() as work:
        for pages in (0, 4):
            # Each run makes its takes five times over: once sequential, four times pipelined.
            per_take = (instructions(7500, pages, work) - instructions(2500, pages, work)) / 25000
            rows.append((pages, per_take))
    none = rows[0][1]
    print("| pages open | instructions/take | against none |")
    print("|---:|---:|---:|")
    for pages, per_take in rows:
        print("| %d | %s | %.2fx |" % (pages, format(round(per_take), ","), per_take / none))


if __name__ == "__main__":
    main()
