"""The web view's figures, in headless Chromium against a simulator on free
ports: the time from a Leitch client's "@ X:" to the changed cell painted in
the page (at 1 take a second and at 1,000 takes a second), the time to the
first full paint of a 1152 x 1152 level, the frame rate while scrolling it,
and the simulator's CPU per take with 4 pages open against none.

    /usr/bin/python3 bench/web/web_bench.py BUILD_DIR

Prints a markdown table. A benchmark, not a test: nothing here fails."""

import os
import shutil
import statistics
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [os.path.join(HERE, "..", "..", "tests", "support"), os.path.join(HERE, "..", "..", "tests", "sim", "web")]
BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(HERE, "..", "..", "build", "default"))
os.environ.setdefault("LEITCH_ROUTERD", os.path.join(BUILD, "sim", "leitch-routerd"))

import routerd  # noqa: E402
from browser_test import start_browser, eventually  # noqa: E402

LARGE = os.path.join(HERE, "..", "loadgen", "large_router.toml")


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(fraction * len(ordered)))] if ordered else float("nan")


def paint_latencies(browser, sent):
    """ms from each take sent to the first paint of its cell showing it or a
    later take to the same destination: a page shows the latest state, so a
    take overwritten before its message left is shown by the later one."""
    log = browser.execute_script("return routerView.paintLog()")
    takes = {}  # (level, destination) -> [(sent at, source)], in the order sent
    for (level, destination, source), at in sent:
        takes.setdefault((level, destination), []).append((at, source))
    shown = {}  # (level, destination) -> how many of its takes a paint has shown
    latencies = []
    for level, destination, source, at in sorted(log, key=lambda entry: entry[3]):
        cell = takes.get((level, destination), [])
        # The latest take to this cell with this source sent before the paint.
        latest = max((i for i, (when, what) in enumerate(cell) if what == source and when <= at), default=-1)
        first = shown.get((level, destination), 0)
        for when, _ in cell[first:latest + 1]:
            latencies.append(at - when)
        shown[(level, destination)] = max(first, latest + 1)
    return latencies


def takes_to_paint(browser, client, rate, seconds):
    sent = []
    interval = 1.0 / rate
    start = time.monotonic()
    for i in range(int(rate * seconds)):
        destination, source = i % 32, (i // 32 + i) % 32
        sent.append(((0, destination, source), time.time() * 1000))
        client.send("@ X:0/%X,%X\r" % (destination, source))
        wait = start + (i + 1) * interval - time.monotonic()
        if wait > 0:
            time.sleep(wait)
    time.sleep(1.0)
    return paint_latencies(browser, sent)


def main():
    rows = []
    profile = tempfile.mkdtemp(prefix="leitch-bench-chromium-")
    browser = start_browser(profile)
    try:
        # Built-in router: take to paint.
        server = routerd.Routerd()
        browser.get(server.url)
        eventually(lambda: browser.execute_script("return routerView.connected()"), 10)
        client = routerd.LeitchClient(server.port)
        for rate, seconds in ((1, 20), (1000, 3)):
            latencies = takes_to_paint(browser, client, rate, seconds)
            rows.append(("take to cell painted, %d take(s)/s, built-in router" % rate,
                         "p50 %.1f ms, p99 %.1f ms (%d takes)" % (percentile(latencies, 0.5),
                                                                   percentile(latencies, 0.99), len(latencies))))
        server.close()

        # Large router: first paint and scrolling.
        server = routerd.Routerd("--config", LARGE)
        browser.get(server.url)
        eventually(lambda: browser.execute_script("return routerView.firstPaint()") is not None, 20)
        rows.append(("first full paint of a 1152 x 1152 level",
                     "%.0f ms after navigation start" % browser.execute_script("return routerView.firstPaint()")))
        fps = browser.execute_async_script("""
            const done = arguments[arguments.length - 1];
            const scroller = document.getElementById('scroller');
            let frames = 0; const start = performance.now();
            function step() {
              frames++;
              scroller.scrollTop = (scroller.scrollTop + 40) % (scroller.scrollHeight - scroller.clientHeight);
              scroller.scrollLeft = (scroller.scrollLeft + 25) % (scroller.scrollWidth - scroller.clientWidth);
              if (performance.now() - start < 3000) requestAnimationFrame(step);
              else done(frames * 1000 / (performance.now() - start));
            }
            requestAnimationFrame(step);""")
        rows.append(("frame rate while scrolling a 1152 x 1152 level", "%.0f frames/s" % fps))
        server.close()

        # CPU per take, no page against 4 pages.
        for pages in (0, 4):
            server = routerd.Routerd()
            handles = []
            for i in range(pages):
                if i == 0:
                    browser.get(server.url)
                else:
                    browser.switch_to.new_window("tab")
                    browser.get(server.url)
                handles.append(browser.current_window_handle)
                eventually(lambda: browser.execute_script("return routerView.connected()"), 10)
            client = routerd.LeitchClient(server.port)
            client.report_mode()
            # As the load generator does: one take at a time, each waiting for
            # its report, then 32 at a time.
            for label, window in (("one take at a time", 1), ("32 takes outstanding", 32)):
                # Enough takes for the CPU clock's 10 ms ticks to resolve a few percent.
                takes = 10000 if window == 1 else 320000
                before = server.cpu_seconds()
                for first in range(0, takes, window):
                    batch = [(i % 32, (i // 32 + i) % 32) for i in range(first, first + window)]
                    client.send("".join("@ X:0/%X,%X\r" % take for take in batch))
                    client.read_until("S:0%X,%X\r\n>" % batch[-1], 5)
                time.sleep(0.2)
                used = server.cpu_seconds() - before
                rows.append(("simulator CPU per take, %s, %d page(s) open" % (label, pages),
                             "%.2f µs" % (used * 1e6 / takes)))
            for handle in handles[1:]:
                browser.switch_to.window(handle)
                browser.close()
            if handles:
                browser.switch_to.window(handles[0])
                browser.get("about:blank")
            server.close()
    finally:
        browser.quit()
        shutil.rmtree(profile, ignore_errors=True)

    print("| measure | figure |")
    print("|---|---|")
    for name, figure in rows:
        print("| %s | %s |" % (name, figure))


if __name__ == "__main__":
    main()
