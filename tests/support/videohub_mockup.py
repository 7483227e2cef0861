#!/usr/bin/env python3
"""The Videohub mockup server of the npm package @bitfocusas/mockup-bmd-videohub,
run as a child process on loopback: a Videohub server nobody on this team
wrote, for the gateway tests that must not only pass against our own fixture
(videohub_router.py).

scripts/install-videohub-mockup.sh installs the package, pinned by
tests/third_party/videohub-mockup/package-lock.json, under
build/third-party/videohub-mockup; ctest passes that directory in
LEITCH_VIDEOHUB_MOCKUP. In a test:

    from videohub_mockup import VideohubMockup, unavailable
    if unavailable(): ...              # the reason it cannot run, or None
    with VideohubMockup(inputs=12, outputs=12) as mockup:
        port = mockup.port             # 127.0.0.1, a free port
        mockup.restart()               # same port, state as new, connections dropped

The mockup only knows square routers (one IO count), keeps its state in the
Node process (so a restart always starts over), and has no way to be told
anything but through its protocol port. videohub_mockup_test.py pins what it
does on the wire and how that differs from the fixture.
"""

import collections
import os
import shutil
import subprocess
import threading

HERE = os.path.dirname(os.path.abspath(__file__))
LAUNCHER = os.path.join(HERE, "videohub_mockup_launcher.js")
DEFAULT_PREFIX = os.path.normpath(os.path.join(HERE, "..", "..", "build", "third-party", "videohub-mockup"))
PACKAGE = os.path.join("node_modules", "@bitfocusas", "mockup-bmd-videohub")
ANNOUNCEMENT = "videohub mockup listening on "
START_TIMEOUT = 15.0
STOP_TIMEOUT = 5.0
LOG_LINES = 1000


def install_prefix():
    """Where the package was installed: LEITCH_VIDEOHUB_MOCKUP, else the build tree's default."""
    return os.environ.get("LEITCH_VIDEOHUB_MOCKUP") or DEFAULT_PREFIX


def package_dir(prefix=None):
    return os.path.join(prefix or install_prefix(), PACKAGE)


def unavailable(prefix=None, node=None):
    """Why the mockup cannot run here, or None when it can."""
    if not (node or shutil.which("node")):
        return "node is not on PATH (scripts/install-deps.sh installs it)"
    if not os.path.isfile(os.path.join(package_dir(prefix), "package.json")):
        return "@bitfocusas/mockup-bmd-videohub is not installed in %s (scripts/install-videohub-mockup.sh)" % (
            prefix or install_prefix())
    return None


class VideohubMockup:
    """The mockup on 127.0.0.1. `inputs` and `outputs` must be equal: the
    package sizes both from one number."""

    def __init__(self, inputs=12, outputs=None, port=0, prefix=None, node=None):
        outputs = inputs if outputs is None else outputs
        if inputs != outputs or inputs < 1:
            raise ValueError("the mockup is square: inputs and outputs must be one positive count, not %d and %d"
                             % (inputs, outputs))
        self.io = inputs
        self.port = port
        self.package = package_dir(prefix)
        self.node = node or shutil.which("node") or "node"
        self._process = None
        self._reader = None
        self._log = collections.deque(maxlen=LOG_LINES)
        self._listening = threading.Event()

    def start(self, port=None):
        """Start the server (port 0: a free one) and return once it accepts
        connections. Returns the port, also kept in self.port."""
        if self._process is not None:
            raise RuntimeError("the mockup is running already")
        requested = self.port if port is None else port
        self._listening.clear()
        # Standard input stays open as a lifeline: the launcher ends when it closes.
        self._process = subprocess.Popen(
            [self.node, LAUNCHER, "--package", self.package, "--io", str(self.io), "--port", str(requested)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        # Node writes to a pipe synchronously: an undrained log would stall the server.
        self._reader = threading.Thread(target=self._read_log, args=(self._process.stdout,), daemon=True)
        self._reader.start()
        if not self._listening.wait(START_TIMEOUT):
            self.stop()
            raise RuntimeError("the mockup did not start:\n" + "\n".join(self._log))
        return self.port

    def stop(self):
        """End the server (every connection is closed with it) and wait for it."""
        process, self._process = self._process, None
        if process is None:
            return
        process.terminate()
        try:
            process.wait(STOP_TIMEOUT)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
        process.stdin.close()
        self._reader.join(STOP_TIMEOUT)
        process.stdout.close()

    def restart(self):
        """Stop, then listen again on the same port: a router that rebooted.
        Its state is as new (routes N to N, labels, locks U), since it lives
        only in the process."""
        self.stop()
        self.start(self.port)

    def running(self):
        return self._process is not None and self._process.poll() is None

    def log(self):
        """What the server printed (one line per connection and disconnection), last lines only."""
        return list(self._log)

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.stop()

    def _read_log(self, stream):
        for raw in stream:
            line = raw.decode("utf-8", "replace").rstrip("\n")
            self._log.append(line)
            if line.startswith(ANNOUNCEMENT):
                self.port = int(line.rsplit(":", 1)[1])
                self._listening.set()


def run_tests_unless_unavailable():
    """The exit status of a test file's unittest run: 77 (skipped) when the
    mockup cannot run here, unless LEITCH_REQUIRE_MOCKUP is set: then 1."""
    import sys
    import unittest
    reason = unavailable()
    if reason:
        if os.environ.get("LEITCH_REQUIRE_MOCKUP", "") not in ("", "0"):
            print("LEITCH_REQUIRE_MOCKUP is set, but " + reason, file=sys.stderr)
            return 1
        print("skipped: " + reason)
        return 77
    return 0 if unittest.main(module="__main__", exit=False).result.wasSuccessful() else 1
