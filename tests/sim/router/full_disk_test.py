"""The state file on a disk that fills up, with the simulator running: its
state file on a small tmpfs of its own, in a mount namespace of its own (so
nothing stays mounted whatever becomes of the test), reached from here through
/proc/PID/root. Needs root (to mount); skipped otherwise."""

import errno
import os
import shutil
import subprocess
import sys
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))
from routerd import ROUTERD, LeitchClient, Routerd, request  # noqa: E402

MOUNT = "/run/routerd-full-disk-test"
PROMPT = "\r\n>"


def can_mount():
    if os.geteuid() != 0 or not shutil.which("unshare"):
        return False
    os.makedirs(MOUNT, exist_ok=True)
    done = subprocess.run(["unshare", "--mount", "--propagation", "private", "sh", "-c",
                           "mount -t tmpfs -o size=64k tmpfs %s" % MOUNT], capture_output=True)
    return done.returncode == 0


@unittest.skipUnless(can_mount(), "mounting a small tmpfs in a mount namespace needs root and unshare")
class StateFileOnAFullDisk(unittest.TestCase):
    def start(self, size):
        """The simulator with its state file on a fresh tmpfs of `size`."""
        prefix = ["unshare", "--mount", "--propagation", "private", "sh", "-c",
                  'mount -t tmpfs -o size=%s tmpfs %s && exec "$@"' % (size, MOUNT), "sh"]
        routerd = Routerd("--state", MOUNT + "/state.db", command=prefix + [ROUTERD])
        self.addCleanup(routerd.close)
        self.disk = "/proc/%d/root%s" % (routerd.process.pid, MOUNT)
        return routerd

    def fill(self, name="filler", leave=0):
        """Writes a file until the disk is full, then gives `leave` bytes back."""
        path = os.path.join(self.disk, name)
        with open(path, "wb", buffering=0) as f:
            try:
                while True:
                    f.write(b"\0" * 4096)
            except OSError as e:
                self.assertEqual(e.errno, errno.ENOSPC)
        if leave:
            os.truncate(path, max(0, os.path.getsize(path) - leave))

    def post(self, routerd, path, body=None):
        return request(routerd, "POST", path, body, headers={"Origin": routerd.url.rstrip("/")})

    def state_link(self, routerd):
        status, reply = request(routerd, "GET", "/api/links")
        self.assertEqual(status, 200)
        return [link for link in reply["links"] if link["kind"] == "state"][0]

    def wait_for_state(self, routerd, up, timeout=5.0):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            link = self.state_link(routerd)
            if link["up"] == up:
                return link
            time.sleep(0.05)
        self.fail("the state file never showed up=%s: %r" % (up, self.state_link(routerd)))

    def test_changes_the_disk_cannot_take_are_shown_written_once_there_is_room_and_counted_at_shutdown(self):
        routerd = self.start("256k")
        self.assertEqual(self.state_link(routerd),
                         {"kind": "state", "where": MOUNT + "/state.db", "settings": "SQLite", "up": True,
                          "problem": ""})
        self.fill()
        # Served from memory: the take is made and answered.
        self.assertEqual(self.post(routerd, "/api/levels/0/take", {"destination": 4, "source": 5}),
                         (200, {"applied": 1}))
        link = self.wait_for_state(routerd, False)
        self.assertRegex(link["problem"], r"^changes not saved since \d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC "
                                          r"\(1 waiting: database or disk is full\)$")
        self.assertTrue(routerd.log_contains("cannot write the state file %s/state.db: database or disk is full; "
                                             "serving from memory and trying again every second" % MOUNT))
        client = LeitchClient(routerd.port)
        client.send("@ X?04\r")
        self.assertEqual(client.read_until(PROMPT), "\r\nS:04,5" + PROMPT)

        os.remove(os.path.join(self.disk, "filler"))
        self.assertEqual(self.wait_for_state(routerd, True)["problem"], "")
        self.assertTrue(routerd.log_contains("state file %s/state.db written again" % MOUNT))

        self.fill()
        client.send("@ X:0/6,7\r@ W:0/8,1,1\r")
        self.assertEqual(client.read_until(PROMPT + PROMPT), PROMPT + PROMPT)
        self.wait_for_state(routerd, False)
        self.assertEqual(routerd.stop(), 3)
        self.assertIn("2 change(s) of crosspoints and locks not saved to %s/state.db: they are lost" % MOUNT,
                      routerd.log())

    def test_routings_that_fill_the_disk_are_refused_and_deleting_one_makes_room_again(self):
        routerd = self.start("1m")
        self.fill(leave=400 * 1024)
        saved = 0
        while True:
            status, reply = self.post(routerd, "/api/salvos", {"name": "r%d" % saved})
            if status != 200:
                break
            saved += 1
            self.assertLess(saved, 1000, "the disk never filled")
        self.assertEqual(status, 507)
        self.assertRegex(reply["error"], r"^%s/state\.db: cannot save the routing r%d: not enough room on the disk "
                                         r"\(\d+ KiB needed with what is kept spare, \d+ KiB free\)$" % (MOUNT, saved))
        self.assertGreater(saved, 10)
        # Takes go on being kept.
        self.assertEqual(self.post(routerd, "/api/levels/1/take", {"destination": 2, "source": 3}),
                         (200, {"applied": 1}))
        time.sleep(1.5)
        self.assertEqual(self.state_link(routerd)["up"], True)
        # Deleting is possible on the full disk, and the space of deleted
        # routings is taken by the next ones: the file does not grow.
        for number in range(saved):
            self.assertEqual(request(routerd, "DELETE", "/api/salvos/r%d" % number,
                                     headers={"Origin": routerd.url.rstrip("/")}), (200, {"deleted": "r%d" % number}))
        size = os.path.getsize(os.path.join(self.disk, "state.db"))
        self.assertEqual(self.post(routerd, "/api/salvos", {"name": "again"}),
                         (200, {"crosspoints": 64, "levels": [0, 1], "name": "again"}))
        for number in range(saved // 2):
            self.assertEqual(self.post(routerd, "/api/salvos", {"name": "again%d" % number})[0], 200)
        self.assertEqual(os.path.getsize(os.path.join(self.disk, "state.db")), size)
        self.assertEqual(routerd.stop(), 0)
        self.assertNotIn("not saved", routerd.log())


if __name__ == "__main__":
    unittest.main()
