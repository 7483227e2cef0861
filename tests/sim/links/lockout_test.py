"""No single client address locks out the others on the Leitch ports: a
connection that sends nothing is closed after the first-byte timeout, one
address holds at most its share of max_clients, clients at a login prompt
have places of their own, and failed logins from an address slow it down and
then shut the login ports to it for a while. Clients come from different
loopback addresses (127.0.0.2, 127.0.0.3, ...), which the simulator, listening
on 127.0.0.1, sees as different machines."""

import os
import re
import shutil
import socket
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))
import routerd as harness  # noqa: E402
from routerd import run_routerd  # noqa: E402

PROMPT = b"\r\n>"
USER, PASSWORD = "op", "s3cret"


class Link(harness.TcpLink):
    """A raw TCP client from the loopback address `source`, closed when the test ends."""

    def __init__(self, test, port, source="127.0.0.1"):
        super().__init__(port, source)
        test.addCleanup(self.sock.close)

    def served(self):
        """The converter answers: the link holds a place."""
        self.send(b"@ ?\r")
        return self.read_until(PROMPT) == b"@ ?\r\n>"


class Routerd(harness.Routerd):
    """leitch-routerd with a configuration of the test's own, without the web
    view; killed when the test ends."""

    def __init__(self, test, config, announced=1):
        directory = tempfile.mkdtemp(prefix="routerd-lockout-")
        test.addCleanup(shutil.rmtree, directory, True)
        path = os.path.join(directory, "routerd.toml")
        with open(path, "w") as f:
            f.write(config)
        super().__init__("-c", path, http="off", listen=None, announced=announced)
        test.addCleanup(self.close)


def refused_with(test, link, line):
    """The link is told `line`, then closed."""
    test.assertEqual(link.read_until(b"\r\n"), line)
    test.assertTrue(link.closed_within(3))
    test.assertEqual(link.pending, b"")


# ---------------------------------------------------------------------------

FIRST_BYTE_CONFIG = """
[server]
first_byte_timeout = 2

[[listen]]
address = "127.0.0.1:0"

[[listen]]
address = "127.0.0.1:0"
first_byte_timeout = 0

[[listen]]
address = "127.0.0.1:0"
telnet = true
login = "any"
"""


class FirstByteTimeout(unittest.TestCase):
    def setUp(self):
        self.routerd = Routerd(self, FIRST_BYTE_CONFIG, announced=3)
        self.timed, self.untimed, self.login = self.routerd.ports

    def test_each_listener_is_announced_with_a_first_byte_timeout_other_than_thirty_seconds(self):
        self.assertEqual(self.routerd.announcements, [
            "listening on 127.0.0.1:%d (first-byte timeout 2 s)" % self.timed,
            "listening on 127.0.0.1:%d (no first-byte timeout)" % self.untimed,
            "listening on 127.0.0.1:%d (telnet, login, any credentials, first-byte timeout 2 s)" % self.login])

    def test_a_connection_that_sends_nothing_is_closed_after_the_timeout(self):
        link = Link(self, self.timed)
        started = time.monotonic()
        self.assertTrue(link.closed_within(6))
        # Checked once a second: between the timeout and a second more.
        self.assertGreaterEqual(time.monotonic() - started, 1.9)
        self.assertEqual(link.pending, b"")
        self.assertTrue(self.routerd.log_contains(
            "client 1 (%s) disconnected: nothing received within 2 s of connecting (first_byte_timeout)\n" %
            link.peer), self.routerd.log())

    def test_one_byte_in_time_lets_a_client_stay_silent_afterwards(self):
        link = Link(self, self.timed)
        link.send(b"@")
        self.assertFalse(link.closed_within(4))
        link.send(b" ?\r")
        self.assertEqual(link.read_until(PROMPT), b"@ ?\r\n>")

    def test_a_listener_without_the_timeout_keeps_a_silent_connection(self):
        link = Link(self, self.untimed)
        self.assertFalse(link.closed_within(4))
        self.assertTrue(link.served())

    def test_a_client_at_a_login_prompt_that_sends_nothing_is_closed_too(self):
        link = Link(self, self.login)
        self.assertEqual(link.read_until(b"login: "), b"login: ")
        self.assertTrue(link.closed_within(6))
        self.assertTrue(self.routerd.log_contains(
            "client 1 (%s) disconnected: nothing received within 2 s of connecting (first_byte_timeout)\n" %
            link.peer), self.routerd.log())

    def test_by_default_silent_connections_holding_every_place_are_closed_after_thirty_seconds(self):
        routerd = harness.Routerd(http="off")
        self.addCleanup(routerd.close)
        self.assertEqual(routerd.announcements, ["listening on 127.0.0.1:%d" % routerd.port])
        silent = [Link(self, routerd.port, source) for source in ("127.0.0.2", "127.0.0.3") for _ in range(8)]
        opened = time.monotonic()
        refused_with(self, Link(self, routerd.port), b"too many clients: the limit is 16\r\n")
        self.assertTrue(silent[0].closed_within(34))
        # Checked once a second: between the timeout and a second more.
        self.assertGreaterEqual(time.monotonic() - opened, 29.9)
        for link in silent[1:]:
            self.assertTrue(link.closed_within(3))
        # The line is written just after the connection is closed.
        deadline = time.monotonic() + 5
        while routerd.log().count("of connecting (first_byte_timeout)") < 16 and time.monotonic() < deadline:
            time.sleep(0.05)
        self.assertEqual(routerd.log().count("of connecting (first_byte_timeout)"), 16)
        self.assertTrue(Link(self, routerd.port).served())

    def test_silent_connections_holding_every_place_are_closed_and_a_client_gets_in(self):
        routerd = Routerd(self, "[server]\nlisten = \"127.0.0.1:0\"\nmax_clients = 3\n"
                                "max_clients_per_address = 3\nfirst_byte_timeout = 2\n")
        silent = [Link(self, routerd.port) for _ in range(3)]
        refused_with(self, Link(self, routerd.port), b"too many clients: the limit is 3\r\n")
        for link in silent:
            self.assertTrue(link.closed_within(6))
        self.assertTrue(Link(self, routerd.port).served())


# ---------------------------------------------------------------------------

class AddressShare(unittest.TestCase):
    def setUp(self):
        # One address may hold three of the five places: half, rounded up.
        self.routerd = Routerd(self, "[server]\nlisten = \"127.0.0.1:0\"\nmax_clients = 5\n")
        self.port = self.routerd.port

    def fill(self, source, count):
        links = [Link(self, self.port, source) for _ in range(count)]
        for link in links:
            self.assertTrue(link.served())
        return links

    def test_one_address_holds_at_most_half_of_max_clients_rounded_up_and_the_others_get_the_rest(self):
        self.fill("127.0.0.2", 3)
        over = Link(self, self.port, "127.0.0.2")
        refused_with(self, over, b"too many clients from your address: the limit is 3 per address\r\n")
        self.assertTrue(self.routerd.log_contains(
            "refused client from %s: 127.0.0.2 holds 3 of its 3 places (max_clients_per_address)\n" % over.peer),
            self.routerd.log())
        self.fill("127.0.0.3", 2)
        refused_with(self, Link(self, self.port, "127.0.0.4"), b"too many clients: the limit is 5\r\n")

    def test_a_place_given_back_can_be_taken_again_by_that_address(self):
        first = self.fill("127.0.0.2", 3)[0]
        peer = first.peer
        first.sock.close()
        self.assertTrue(self.routerd.log_contains("client 1 (%s) disconnected" % peer), self.routerd.log())
        self.fill("127.0.0.2", 1)

    def test_the_refusals_of_a_burst_from_one_address_are_logged_in_one_line_and_summed_up_in_another(self):
        self.fill("127.0.0.2", 3)
        for _ in range(20):
            refused_with(self, Link(self, self.port, "127.0.0.2"),
                         b"too many clients from your address: the limit is 3 per address\r\n")
        self.assertEqual(self.routerd.count("refused client from 127.0.0.2:"), 1, self.routerd.log())
        # The burst ends after five quiet seconds, checked once a second.
        summed_up = re.compile(r"refused 19 more clients from 127\.0\.0\.2 \(max_clients_per_address\) over \d+ s\n")
        deadline = time.monotonic() + 10
        while not summed_up.search(self.routerd.log()):
            self.assertLess(time.monotonic(), deadline, self.routerd.log())
            time.sleep(0.1)
        refused_with(self, Link(self, self.port, "127.0.0.2"),
                     b"too many clients from your address: the limit is 3 per address\r\n")
        self.assertTrue(self.routerd.log_contains("refused client from 127.0.0.2:", timeout=0))
        self.assertEqual(self.routerd.count("refused client from 127.0.0.2:"), 2, self.routerd.log())
        self.assertEqual(len(summed_up.findall(self.routerd.log())), 1)

    def test_the_share_is_set_with_max_clients_per_address(self):
        routerd = Routerd(self, "[server]\nlisten = \"127.0.0.1:0\"\nmax_clients = 4\nmax_clients_per_address = 1\n")
        self.assertTrue(Link(self, routerd.port, "127.0.0.2").served())
        refused_with(self, Link(self, routerd.port, "127.0.0.2"),
                     b"too many clients from your address: the limit is 1 per address\r\n")
        self.assertTrue(Link(self, routerd.port, "127.0.0.3").served())

    def test_a_share_larger_than_max_clients_is_a_configuration_error(self):
        directory = tempfile.mkdtemp(prefix="routerd-lockout-")
        self.addCleanup(shutil.rmtree, directory, True)
        path = os.path.join(directory, "routerd.toml")
        with open(path, "w") as f:
            f.write("[server]\nmax_clients = 4\nmax_clients_per_address = 5\n")
        code, output, errors = run_routerd("--config", path, "--listen", "127.0.0.1:0")
        self.assertEqual((code, output), (2, ""))
        self.assertEqual(errors, "leitch-routerd: configuration error: %s:3: key 'server.max_clients_per_address': "
                                 "at most server.max_clients (4)\n" % path)


# ---------------------------------------------------------------------------

LOGIN_CONFIG = """
[server]
max_clients = %d
max_clients_per_address = %d
max_clients_logging_in = %d

[[listen]]
address = "127.0.0.1:0"

[[listen]]
address = "127.0.0.1:0"
login = "password"
users = [ { user = "%s", password = "%s" } ]
"""


class LoginPlaces(unittest.TestCase):
    def start(self, clients, per_address, logging_in):
        self.routerd = Routerd(self, LOGIN_CONFIG % (clients, per_address, logging_in, USER, PASSWORD), announced=2)
        self.raw, self.login = self.routerd.ports

    def at_prompt(self, source="127.0.0.1"):
        link = Link(self, self.login, source)
        self.assertEqual(link.read_until(b"login: "), b"login: ")
        return link

    def log_in(self, link):
        link.send(b"%s\r%s\r@ ?\r" % (USER.encode(), PASSWORD.encode()))
        self.assertEqual(link.read_until(PROMPT), b"password: @ ?\r\n>")

    def test_clients_at_the_login_prompt_do_not_take_the_places_of_other_clients(self):
        self.start(2, 2, 2)
        self.at_prompt()
        self.at_prompt()
        self.assertTrue(Link(self, self.raw).served())
        self.assertTrue(Link(self, self.raw).served())

    def test_over_the_login_budget_a_client_is_told_and_closed(self):
        self.start(2, 2, 2)
        self.at_prompt()
        self.at_prompt()
        over = Link(self, self.login)
        refused_with(self, over, b"too many clients logging in: the limit is 2\r\n")
        self.assertTrue(self.routerd.log_contains(
            "refused client from %s: already 2 clients at the login prompt (max_clients_logging_in)\n" % over.peer),
            self.routerd.log())

    def test_logging_in_frees_the_place_at_the_prompt(self):
        self.start(2, 2, 2)
        first = self.at_prompt()
        self.at_prompt()
        self.log_in(first)
        self.at_prompt()

    def test_a_client_that_logs_in_while_max_clients_are_taken_is_told_and_closed(self):
        self.start(2, 2, 2)
        self.assertTrue(Link(self, self.raw).served())
        self.assertTrue(Link(self, self.raw).served())
        late = self.at_prompt()
        late.send(b"%s\r%s\r@ ?\r" % (USER.encode(), PASSWORD.encode()))
        self.assertEqual(late.read_until(b"\r\n"), b"password: too many clients: the limit is 2\r\n")
        self.assertTrue(late.closed_within(3))
        self.assertEqual(late.pending, b"")
        self.assertTrue(self.routerd.log_contains(
            "client 3 (%s) disconnected: logged in, but already 2 clients (max_clients)\n" % late.peer),
            self.routerd.log())

    def test_one_address_holds_at_most_its_share_of_the_login_places(self):
        # Half of max_clients per address, so half of the login places too.
        self.start(4, 2, 4)
        self.at_prompt("127.0.0.2")
        self.at_prompt("127.0.0.2")
        over = Link(self, self.login, "127.0.0.2")
        refused_with(self, over, b"too many clients logging in from your address: the limit is 2 per address\r\n")
        self.assertTrue(self.routerd.log_contains(
            "refused client from %s: 127.0.0.2 has 2 of its 2 places at the login prompt "
            "(its share of max_clients_logging_in)\n" % over.peer), self.routerd.log())
        self.log_in(self.at_prompt("127.0.0.3"))


# ---------------------------------------------------------------------------

GUESSING_CONFIG = """
[[listen]]
address = "127.0.0.1:0"

[[listen]]
address = "127.0.0.1:0"
login = "password"
users = [ { user = "%s", password = "%s" } ]
""" % (USER, PASSWORD)


class FailedLogins(unittest.TestCase):
    def setUp(self):
        self.routerd = Routerd(self, GUESSING_CONFIG, announced=2)
        self.raw, self.login = self.routerd.ports

    def at_prompt(self, source):
        link = Link(self, self.login, source)
        self.assertEqual(link.read_until(b"login: "), b"login: ")
        return link

    def wrong_login(self, link):
        """Seconds until the wrong login is answered."""
        link.send(USER.encode() + b"\r")
        self.assertEqual(link.read_until(b"password: "), b"password: ")
        link.send(b"wrong\r")
        sent = time.monotonic()
        self.assertEqual(link.read_until(b"login incorrect\r\n", timeout=20), b"login incorrect\r\n")
        return time.monotonic() - sent

    def assertAbout(self, seconds, expected):
        # Never sooner; later by at most a second (a loaded machine).
        self.assertGreaterEqual(seconds, expected - 0.1)
        self.assertLess(seconds, expected + 1.0)

    def test_each_failed_login_from_an_address_waits_twice_as_long_as_the_one_before(self):
        first = self.at_prompt("127.0.0.2")
        self.assertAbout(self.wrong_login(first), 1)
        first.read_until(b"login: ")
        self.assertAbout(self.wrong_login(first), 2)
        # On another connection from the same address the count goes on.
        self.assertAbout(self.wrong_login(self.at_prompt("127.0.0.2")), 4)
        # Another address starts from one second.
        self.assertAbout(self.wrong_login(self.at_prompt("127.0.0.3")), 1)

    def test_a_login_that_passes_forgets_the_failures_of_its_address(self):
        link = self.at_prompt("127.0.0.2")
        self.assertAbout(self.wrong_login(link), 1)
        link.read_until(b"login: ")
        self.assertAbout(self.wrong_login(link), 2)
        link.read_until(b"login: ")
        link.send(b"%s\r%s\r@ ?\r" % (USER.encode(), PASSWORD.encode()))
        self.assertEqual(link.read_until(PROMPT), b"password: @ ?\r\n>")
        self.assertAbout(self.wrong_login(self.at_prompt("127.0.0.2")), 1)

    def test_ten_failed_logins_in_a_row_shut_the_login_ports_to_that_address_for_five_minutes(self):
        # Each guess on a connection of its own, closed at once: the delay
        # does not slow this down, the refusal stops it.
        for attempt in range(10):
            link = self.at_prompt("127.0.0.2")
            link.send(b"%s\rguess-%d\r" % (USER.encode(), attempt))
            client = self.routerd.client_id(link.peer)
            self.assertTrue(self.routerd.log_contains("client %d (%s): login incorrect (1 of 3)" % (client, link.peer)),
                            self.routerd.log())
            link.sock.close()
        announced = "login: 10 failed logins in a row from 127.0.0.2: its connections to login ports are refused " \
                    "for 300 s\n"
        self.assertTrue(self.routerd.log_contains(announced), self.routerd.log())
        for _ in range(5):
            refused = Link(self, self.login, "127.0.0.2")
            line = refused.read_until(b"\r\n")
            self.assertRegex(line, rb"^login refused: too many failed logins from your address; "
                                   rb"try again in (300|299|298) s\r\n$")
            self.assertTrue(refused.closed_within(3))
        self.assertEqual(self.routerd.count(announced), 1)
        self.assertEqual(self.routerd.count("login incorrect"), 10)
        # The raw port is open to that address, the login port to others.
        self.assertTrue(Link(self, self.raw, "127.0.0.2").served())
        other = self.at_prompt("127.0.0.3")
        other.send(b"%s\r%s\r@ ?\r" % (USER.encode(), PASSWORD.encode()))
        self.assertEqual(other.read_until(PROMPT), b"password: @ ?\r\n>")


# ---------------------------------------------------------------------------

class Attacker(threading.Thread):
    """Guesses passwords on the login port as fast as the simulator lets it: a
    connection, a guess at the prompt, and, as the answer to a wrong guess
    waits, another connection at once rather than the wait."""

    def __init__(self, port, source, stop):
        super().__init__(daemon=True)
        self.port, self.source, self.stop = port, source, stop
        self.lines = set()  # what refused connections were told

    def run(self):
        while not self.stop.is_set():
            try:
                sock = harness.connect(self.port, self.source, timeout=0.3)
            except OSError:
                continue
            received = b""
            with sock:
                while not self.stop.is_set():
                    try:
                        chunk = sock.recv(4096)
                    except OSError:
                        break  # no next prompt within 0.3 s, or reset
                    if not chunk:
                        break
                    received += chunk
                    if received.endswith(b"login: "):
                        try:
                            sock.sendall(b"op\rguess\r")
                        except OSError:
                            break
                        received = b""
            for line in received.split(b"\r\n"):
                if line.startswith(b"too many") or line.startswith(b"login refused"):
                    self.lines.add(line.split(b";")[0])


class UnderAttack(unittest.TestCase):
    def test_guessing_passwords_from_one_address_leaves_room_for_every_other_client(self):
        routerd = Routerd(self, GUESSING_CONFIG, announced=2)
        raw, login = routerd.ports
        stop = threading.Event()
        attackers = [Attacker(login, "127.0.0.2", stop) for _ in range(16)]
        for attacker in attackers:
            attacker.start()

        def stop_attack():
            stop.set()
            for attacker in attackers:
                attacker.join(5)
        self.addCleanup(stop_attack)

        raw_served = logins_served = 0
        started = time.monotonic()
        for _ in range(20):
            client = Link(self, raw)
            raw_served += client.served()
            client.sock.close()
            operator = Link(self, login, "127.0.0.3")
            operator.read_until(b"login: ")
            operator.send(b"%s\r%s\r@ ?\r" % (USER.encode(), PASSWORD.encode()))
            logins_served += operator.read_until(PROMPT) == b"password: @ ?\r\n>"
            operator.sock.close()
            time.sleep(0.2)
        elapsed = time.monotonic() - started
        # Slow builds (the sanitizers) may not have had ten guesses answered yet.
        self.assertTrue(routerd.log_contains("login: 10 failed logins in a row from 127.0.0.2", timeout=60),
                        routerd.log())
        stop_attack()

        self.assertEqual((raw_served, logins_served), (20, 20))
        # Ten guesses, then the login port is shut to the address; those of
        # the connections at the prompt then (four at most) still count.
        failed = routerd.count("login incorrect")
        self.assertGreaterEqual(failed, 10)
        self.assertLessEqual(failed, 14, "%d guesses in %.1f s" % (failed, elapsed))
        self.assertEqual(routerd.count("login: 10 failed logins in a row from 127.0.0.2"), 1)
        told = set().union(*(attacker.lines for attacker in attackers))
        self.assertIn(b"login refused: too many failed logins from your address", told)


if __name__ == "__main__":
    unittest.main(warnings="ignore")
