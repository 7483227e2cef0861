"""scripts/run.sh, the main job, keeps the router's state in a file of the
build tree unless told otherwise, so that crosspoints and saved routings
outlive a restart. The script itself runs, from a copy of the source tree's
scripts/run.sh in a tree of its own: installing and building are stood in for
(scripts/install-deps.sh and cmake do nothing there), and the simulator it
starts is this build's."""

import os
import shutil
import stat
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from routerd import ROUTERD, Routerd, config, request  # noqa: E402

SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
DEFAULT_STATE = "build/default/leitch-routerd-state.db"


def write_program(path, text):
    with open(path, "w") as f:
        f.write(text)
    os.chmod(path, os.stat(path).st_mode | stat.S_IXUSR)


class RunScript(unittest.TestCase):

    def setUp(self):
        self.tree = tempfile.mkdtemp(prefix="routerd-run-")
        self.addCleanup(shutil.rmtree, self.tree, True)
        os.makedirs(os.path.join(self.tree, "scripts"))
        shutil.copy(os.path.join(SOURCE, "scripts", "run.sh"), os.path.join(self.tree, "scripts", "run.sh"))
        write_program(os.path.join(self.tree, "scripts", "install-deps.sh"), "#!/bin/sh\nexit 0\n")
        tools = os.path.join(self.tree, "tools")
        os.makedirs(tools)
        write_program(os.path.join(tools, "cmake"), "#!/bin/sh\nexit 0\n")
        os.makedirs(os.path.join(self.tree, "build", "default", "sim"))
        os.symlink(ROUTERD, os.path.join(self.tree, "build", "default", "sim", "leitch-routerd"))
        path = os.environ["PATH"]
        os.environ["PATH"] = tools + os.pathsep + path
        self.addCleanup(os.environ.__setitem__, "PATH", path)

    def run_script(self, *args):
        routerd = Routerd(*args, command=["bash", os.path.join(self.tree, "scripts", "run.sh")])
        self.addCleanup(routerd.close)
        return routerd

    def in_tree(self, path):
        return os.path.join(self.tree, path)

    def take(self, routerd, destination, source):
        self.assertEqual(request(routerd, "POST", "/api/levels/0/take", {"destination": destination, "source": source}),
                         (200, {"applied": 1}))

    def test_the_state_is_kept_in_the_build_tree_by_default(self):
        routerd = self.run_script()
        self.assertTrue(routerd.log_contains("crosspoints and locks kept in " + DEFAULT_STATE + "\n"), routerd.log())
        self.assertTrue(os.path.isfile(self.in_tree(DEFAULT_STATE)))
        self.assertEqual(routerd.stop(), 0)

    def test_a_saved_routing_and_the_crosspoints_outlive_a_restart(self):
        routerd = self.run_script()
        self.take(routerd, 5, 3)
        self.assertEqual(request(routerd, "POST", "/api/salvos", {"name": "evening"}),
                         (200, {"name": "evening", "levels": [0, 1], "crosspoints": 64}))
        self.assertEqual(routerd.stop(), 0)

        routerd = self.run_script()
        self.assertTrue(routerd.log_contains("crosspoints and locks restored from " + DEFAULT_STATE + "\n"),
                        routerd.log())
        self.assertEqual(request(routerd, "GET", "/api/salvos"),
                         (200, {"salvos": [{"name": "evening", "levels": [0, 1], "crosspoints": 64}]}))
        self.assertEqual(request(routerd, "GET", "/api/levels/0")[1]["crosspoints"][5], 3)
        self.take(routerd, 5, 9)
        self.assertEqual(request(routerd, "POST", "/api/salvos/evening/recall"),
                         (200, {"name": "evening", "applied": 64, "refused": []}))
        self.assertEqual(request(routerd, "GET", "/api/levels/0")[1]["crosspoints"][5], 3)
        self.assertEqual(routerd.stop(), 0)

    def test_state_names_another_file(self):
        elsewhere = self.in_tree("elsewhere.db")
        routerd = self.run_script("--state", elsewhere)
        self.assertTrue(routerd.log_contains("crosspoints and locks kept in " + elsewhere + "\n"), routerd.log())
        self.assertEqual(routerd.stop(), 0)
        self.assertTrue(os.path.isfile(elsewhere))
        self.assertFalse(os.path.exists(self.in_tree(DEFAULT_STATE)))

    def test_no_state_keeps_nothing(self):
        routerd = self.run_script("--no-state")
        self.assertEqual(request(routerd, "POST", "/api/salvos", {"name": "evening"}),
                         (409, {"error": "saved routings are kept in the state file: start with --state FILE"}))
        self.assertEqual(routerd.stop(), 0)
        self.assertNotIn("crosspoints and locks", routerd.log())
        self.assertFalse(os.path.exists(self.in_tree(DEFAULT_STATE)))

    def test_a_configuration_file_decides_for_itself(self):
        routerd = self.run_script("--config", config("initial_state.toml"))
        self.assertEqual(routerd.stop(), 0)
        self.assertNotIn("crosspoints and locks", routerd.log())
        self.assertFalse(os.path.exists(self.in_tree(DEFAULT_STATE)))


if __name__ == "__main__":
    unittest.main()
