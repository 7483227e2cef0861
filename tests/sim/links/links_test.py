"""leitch-routerd's client links from the outside: serial ports through socat
pseudo-terminal pairs, telnet through Debian's telnet program and through raw
sockets, login, idle timeouts, and the configuration errors about them."""

import json
import os
import pty
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import tty
import unittest
import urllib.request

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))
import routerd as harness  # noqa: E402
from routerd import Link, TcpLink, run_routerd  # noqa: E402

PROMPT = b"\r\n>"
INSTANCE_CREATED = "Creating Leitch Passthrough host instance"

# Telnet command and option codes, as the tests send and expect them.
IAC, DONT, DO, WONT, WILL, SB, SE, NOP, AYT = 255, 254, 253, 252, 251, 250, 240, 241, 246
ECHO, SGA, TTYPE, NAWS = 1, 3, 24, 31


def iac(*codes):
    return bytes([IAC, *codes])


class TerminalLink(Link):
    """The master side of a pseudo-terminal, or a serial port's pty."""

    def __init__(self, fd):
        super().__init__()
        self.fd = fd

    def send(self, data):
        while data:
            data = data[os.write(self.fd, data):]

    def _receive(self, timeout):
        if not select.select([self.fd], [], [], timeout)[0]:
            return None
        try:
            return os.read(self.fd, 65536)
        except OSError:
            return b""  # EIO: the other side is gone

    def close(self):
        if self.fd >= 0:
            os.close(self.fd)
            self.fd = -1


def open_panel(test, path):
    """The panel's end of a socat pair, raw, as a serial port would be."""
    fd = os.open(path, os.O_RDWR | os.O_NOCTTY)
    tty.setraw(fd)
    panel = TerminalLink(fd)
    test.addCleanup(panel.close)
    return panel


def tcp(test, port):
    link = TcpLink(port)
    test.addCleanup(link.close)
    return link


# ---------------------------------------------------------------------------
# Processes

class Routerd(harness.Routerd):
    """leitch-routerd with a configuration of the test's own, verbose, without
    the web view; killed when the test ends."""

    def __init__(self, test, config=None, args=(), announced=1):
        options = ["-v"]
        if config is not None:
            directory = tempfile.mkdtemp(prefix="routerd-links-")
            test.addCleanup(shutil.rmtree, directory, True)
            self.config_path = os.path.join(directory, "routerd.toml")
            with open(self.config_path, "w") as f:
                f.write(config)
            options += ["-c", self.config_path]
        super().__init__(*options, *args, http="off", listen=None, announced=announced)
        test.addCleanup(self.close)

    def plugin_lines(self, client):
        """What the verbose log says client `client` sent to its instance."""
        prefix = "client %d << " % client
        # Each line starts with the date and the time.
        texts = [line.split(" ", 2)[-1] for line in self.log().splitlines()]
        return [text[len(prefix):] for text in texts if text.startswith(prefix)]


class PtyPair:
    """Two pseudo-terminals joined by socat, as a null-modem cable joins two
    serial ports: the simulator opens one end, the test the other."""

    def __init__(self, test, directory):
        self.sim = os.path.join(directory, "sim")
        self.panel = os.path.join(directory, "panel")
        self.process = None
        test.addCleanup(self.stop)
        self.start()

    def start(self):
        self.process = subprocess.Popen(
            ["socat", "-d", "pty,raw,echo=0,link=" + self.sim, "pty,raw,echo=0,link=" + self.panel],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 10
        while not (os.path.exists(self.sim) and os.path.exists(self.panel)):
            if self.process.poll() is not None or time.monotonic() > deadline:
                raise AssertionError("socat made no pty pair (exit code %s)" % self.process.poll())
            time.sleep(0.01)

    def stop(self):
        """socat gone, and with it both links (it removes them as it ends)."""
        if self.process is None:
            return
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(5)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self.process = None
        for link in (self.sim, self.panel):
            if os.path.lexists(link):
                os.unlink(link)


class TelnetProgram(TerminalLink):
    """Debian's telnet on a pseudo-terminal, as someone at a terminal runs it:
    what it prints, echoes included, is what the test reads."""

    def __init__(self, test, port):
        home = tempfile.mkdtemp(prefix="routerd-telnet-home-")
        test.addCleanup(shutil.rmtree, home, True)
        pid, fd = pty.fork()
        if pid == 0:
            try:
                # A home of its own: no ~/.telnetrc of whoever runs the tests.
                env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": home, "TERM": "dumb"}
                os.execvpe("telnet", ["telnet", "127.0.0.1", str(port)], env)
            finally:
                os._exit(127)
        super().__init__(fd)
        self.pid = pid
        test.addCleanup(self.end)

    def end(self):
        if self.pid:
            try:
                os.kill(self.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            os.waitpid(self.pid, 0)
            self.pid = 0
        self.close()


# ---------------------------------------------------------------------------

class SerialPort(unittest.TestCase):
    """A panel on a serial port: a socat pty pair stands in for the cable."""

    def setUp(self):
        self.directory = tempfile.mkdtemp(prefix="routerd-serial-")
        self.addCleanup(shutil.rmtree, self.directory, True)
        self.pair = PtyPair(self, self.directory)
        self.routerd = Routerd(self, args=["--listen", "127.0.0.1:0", "--serial", self.pair.sim], announced=2)
        self.panel = open_panel(self, self.pair.panel)

    def test_announced_with_its_settings(self):
        self.assertEqual(self.routerd.announcements[1], "serial port %s (38400 8N1)" % self.pair.sim)

    def test_commands_are_answered_byte_for_byte(self):
        self.panel.send(b"@ ?\r")
        self.assertEqual(self.panel.read_until(PROMPT), b"@ ?\r\n>")
        self.panel.send(b"@ X:0/5,3\r")
        self.assertEqual(self.panel.read_until(b"S:05,3\r\n>"), b"@ X:0/5,3\r\n>\r\nS:05,3\r\n>")
        self.panel.send(b"@ X?05\r")
        self.assertEqual(self.panel.read_until(PROMPT), b"@ X?05\r\nS:05,3\r\n>")
        self.assertEqual(self.panel.read_for(0.2), b"")

    def test_a_take_on_a_tcp_client_is_reported_to_the_serial_client(self):
        self.panel.send(b"@ ?\r")
        self.panel.read_until(PROMPT)
        client = tcp(self, self.routerd.ports[0])
        client.send(b"@ ?\r")
        client.read_until(PROMPT)
        client.send(b"@ X:1/C,9\r")
        self.assertEqual(client.read_until(b"S:1C,9\r\n>"), b"@ X:1/C,9\r\n>\r\nS:1C,9\r\n>")
        self.assertEqual(self.panel.read_until(PROMPT), b"\r\nS:1C,9\r\n>")

    def test_a_take_on_the_serial_port_is_reported_to_a_tcp_client(self):
        client = tcp(self, self.routerd.ports[0])
        client.send(b"@ ?\r")
        client.read_until(PROMPT)
        self.panel.send(b"@ ?\r")
        self.panel.read_until(PROMPT)
        self.panel.send(b"@ X:0/1E,1F\r")
        self.assertEqual(self.panel.read_until(b"S:01E,1F\r\n>"), b"@ X:0/1E,1F\r\n>\r\nS:01E,1F\r\n>")
        self.assertEqual(client.read_until(PROMPT), b"\r\nS:01E,1F\r\n>")

    def test_the_web_view_shows_a_port_that_is_away_and_back(self):
        directory = tempfile.mkdtemp(prefix="routerd-serial-")
        self.addCleanup(shutil.rmtree, directory, True)
        pair = PtyPair(self, directory)
        routerd = Routerd(self, args=["--listen", "127.0.0.1:0", "--serial", pair.sim + ":9600",
                                      "--http", "127.0.0.1:0"], announced=3)
        web_port = int(routerd.announcements[2].rstrip("/").rsplit(":", 1)[1])

        def serial_status():
            with urllib.request.urlopen("http://127.0.0.1:%d/api/links" % web_port, timeout=5) as reply:
                links = json.load(reply)["links"]
            return [(l["kind"], l["where"], l["settings"], l["up"], l["problem"]) for l in links if l["kind"] == "serial"]

        self.assertEqual(serial_status(), [("serial", pair.sim, "9600 8N1", True, "")])
        pair.stop()
        away = [("serial", pair.sim, "9600 8N1", False,
                 "cannot open serial port %s: No such file or directory" % pair.sim)]
        deadline = time.monotonic() + 6
        while serial_status() != away and time.monotonic() < deadline:
            time.sleep(0.2)
        self.assertEqual(serial_status(), away)
        pair.start()
        deadline = time.monotonic() + 6
        while serial_status()[0][3] is not True and time.monotonic() < deadline:
            time.sleep(0.2)
        self.assertEqual(serial_status(), [("serial", pair.sim, "9600 8N1", True, "")])

    def test_the_serial_port_does_not_count_against_max_clients(self):
        directory = tempfile.mkdtemp(prefix="routerd-serial-")
        self.addCleanup(shutil.rmtree, directory, True)
        pair = PtyPair(self, directory)
        routerd = Routerd(self, "[server]\nlisten = \"127.0.0.1:0\"\nmax_clients = 1\n",
                          args=["--serial", pair.sim], announced=2)
        panel = open_panel(self, pair.panel)
        panel.send(b"@ ?\r")
        self.assertEqual(panel.read_until(PROMPT), b"@ ?\r\n>")
        first = tcp(self, routerd.ports[0])
        first.send(b"@ ?\r")
        self.assertEqual(first.read_until(PROMPT), b"@ ?\r\n>")
        second = tcp(self, routerd.ports[0])
        self.assertEqual(second.read_until(b"\r\n"), b"too many clients: the limit is 1\r\n")
        self.assertTrue(routerd.log_contains(": already 1 clients (max_clients)"))

    def test_a_port_that_disappears_is_logged_and_reopened_with_a_new_instance(self):
        self.panel.send(b"@ ?\r")
        self.panel.read_until(PROMPT)
        self.panel.send(b"@ X:0/5,3\r")
        self.panel.read_until(b"S:05,3\r\n>")
        self.pair.stop()
        self.panel.close()
        self.assertTrue(self.routerd.log_contains(
            "client 1 (%s) disconnected: read failed: Input/output error" % self.pair.sim), self.routerd.log())
        cannot_open = "cannot open serial port %s: No such file or directory; trying again every 2 s" % self.pair.sim
        self.assertTrue(self.routerd.log_contains(cannot_open, timeout=5), self.routerd.log())
        time.sleep(2.5)  # one more attempt fails, and says nothing more
        self.pair.start()
        self.assertTrue(self.routerd.log_contains("serial port %s open (38400 8N1)" % self.pair.sim, timeout=5),
                        self.routerd.log())
        self.assertEqual(self.routerd.log().count(cannot_open), 1)
        panel = open_panel(self, self.pair.panel)
        # A new instance: not in report mode, so no echo; told the crosspoint
        # taken before the port went away.
        panel.send(b"@ X?05\r")
        self.assertEqual(panel.read_until(PROMPT), b"\r\nS:05,3\r\n>")
        self.assertTrue(self.routerd.log_contains("client 2 connected from %s" % self.pair.sim))
        self.assertEqual(self.routerd.log().count(INSTANCE_CREATED), 2)


class SerialPortSettings(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.mkdtemp(prefix="routerd-serial-")
        self.addCleanup(shutil.rmtree, self.directory, True)

    def test_a_device_missing_at_start_exits_2_naming_it(self):
        device = os.path.join(self.directory, "ttyNothing")
        self.assertEqual(run_routerd("--listen", "127.0.0.1:0", "--serial", device),
                         (2, "", "leitch-routerd: cannot open serial port %s: No such file or directory\n" % device))

    def test_a_baud_rate_that_is_not_standard_exits_2(self):
        device = os.path.join(self.directory, "ttyS0")
        self.assertEqual(run_routerd("--listen", "127.0.0.1:0", "--serial", device + ":1234"),
                         (2, "", "leitch-routerd: --serial %s:1234: baud rate must be one of 1200, 2400, 4800, 9600, "
                                 "19200, 38400, 57600, 115200, 230400; got 1234\n" % device))

    def test_a_format_with_nine_data_bits_exits_2(self):
        device = os.path.join(self.directory, "ttyS0")
        self.assertEqual(run_routerd("--listen", "127.0.0.1:0", "--serial", device + ":38400,9N1"),
                         (2, "", "leitch-routerd: --serial %s:38400,9N1: format must be data bits (5 to 8), parity "
                                 "(N, E or O) and stop bits (1 or 2), as in 8N1; got \"9N1\"\n" % device))

    def test_flow_control_other_than_rtscts_exits_2(self):
        device = os.path.join(self.directory, "ttyS0")
        self.assertEqual(run_routerd("--listen", "127.0.0.1:0", "--serial", device + ":38400,8N1,xonxoff"),
                         (2, "", "leitch-routerd: --serial %s:38400,8N1,xonxoff: flow control must be \"rtscts\" "
                                 "or left out; got \"xonxoff\"\n" % device))

    def test_ports_on_the_command_line_replace_the_files(self):
        pair = PtyPair(self, self.directory)
        config = ('[[listen]]\naddress = "127.0.0.1:0"\n\n'
                  '[[serial]]\ndevice = "%s"\n' % os.path.join(self.directory, "ttyNothing"))
        routerd = Routerd(self, config, args=["--serial", pair.sim + ":9600,8E2"], announced=2)
        self.assertEqual(routerd.announcements[1], "serial port %s (9600 8E2)" % pair.sim)
        panel = open_panel(self, pair.panel)
        panel.send(b"@ ?\r")
        self.assertEqual(panel.read_until(PROMPT), b"@ ?\r\n>")


# ---------------------------------------------------------------------------

TELNET_LOGIN_CONFIG = """
[[listen]]
address = "127.0.0.1:0"

[[listen]]
address = "127.0.0.1:0"
telnet = true
login = "password"
users = [ { user = "op", password = "s3cret" } ]
"""


class RealTelnetClient(unittest.TestCase):
    """Debian's telnet at a terminal: it negotiates nothing on a port other
    than 23, echoes what is typed itself and ends lines with CR LF, which the
    converter answers with a prompt of its own."""

    def setUp(self):
        self.routerd = Routerd(self, TELNET_LOGIN_CONFIG, announced=2)
        self.plain, self.telnet_port = self.routerd.ports

    def test_logs_in_enters_report_mode_and_takes_a_crosspoint(self):
        telnet = TelnetProgram(self, self.telnet_port)
        self.assertTrue(telnet.read_until(b"login: ", timeout=10).endswith(b"Escape character is '^]'.\r\nlogin: "))
        telnet.send(b"op\r")
        self.assertEqual(telnet.read_until(b"password: "), b"op\r\npassword: ")
        telnet.send(b"s3cret\r")
        self.assertEqual(telnet.read_for(0.5), b"s3cret\r\n")  # the terminal's echo; nothing from the server
        telnet.send(b"@ ?\r")
        self.assertEqual(telnet.read_until(b"\r\n>\r\n>"), b"@ ?\r\n@ ?\r\n>\r\n>")
        telnet.send(b"@ X:0/9,4\r")
        self.assertEqual(telnet.read_until(b"S:09,4\r\n>"), b"@ X:0/9,4\r\n@ X:0/9,4\r\n>\r\n>\r\nS:09,4\r\n>")
        other = tcp(self, self.plain)
        other.send(b"@ X?09\r")
        self.assertEqual(other.read_until(PROMPT), b"\r\nS:09,4\r\n>")

    def test_a_take_on_a_plain_tcp_client_is_reported_to_it(self):
        telnet = TelnetProgram(self, self.telnet_port)
        telnet.read_until(b"login: ", timeout=10)
        telnet.send(b"op\r")
        telnet.read_until(b"password: ")
        telnet.send(b"s3cret\r")
        telnet.read_until(b"s3cret\r\n")
        telnet.send(b"@ ?\r")
        telnet.read_until(b"\r\n>\r\n>")
        other = tcp(self, self.plain)
        other.send(b"@ X:0/A,2\r")
        self.assertEqual(other.read_until(PROMPT), b"\r\n>")
        self.assertEqual(telnet.read_until(PROMPT), b"\r\nS:0A,2\r\n>")
        self.assertEqual(telnet.read_for(0.2), b"")


class TelnetLogin(unittest.TestCase):
    """Login on a telnet listener, over a raw socket."""

    def setUp(self):
        self.routerd = Routerd(self, TELNET_LOGIN_CONFIG, announced=2)
        self.telnet_port = self.routerd.ports[1]

    def test_negotiation_during_login_is_answered_and_the_login_goes_on(self):
        client = tcp(self, self.telnet_port)
        self.assertEqual(client.read_until(b"login: "), b"login: ")
        client.send(iac(DO, SGA) + b"o" + iac(WILL, TTYPE) + b"p\r\0")
        self.assertEqual(client.read_until(b"password: "), iac(WILL, SGA) + iac(DONT, TTYPE) + b"password: ")
        client.send(b"s3" + iac(NOP) + b"cret\r\0@ ?\r\0")
        self.assertEqual(client.read_until(PROMPT), b"@ ?\r\n>")
        self.assertEqual(client.read_for(0.2), b"")


# ---------------------------------------------------------------------------

TELNET_CONFIG = """
[[listen]]
address = "127.0.0.1:0"

[[listen]]
address = "127.0.0.1:0"
telnet = true
"""


class TelnetBytes(unittest.TestCase):
    """A telnet listener byte by byte, over a raw socket."""

    def setUp(self):
        self.routerd = Routerd(self, TELNET_CONFIG, announced=2)
        self.plain, self.telnet_port = self.routerd.ports

    def connect(self):
        return tcp(self, self.telnet_port)

    def test_the_listener_is_announced_as_telnet(self):
        self.assertEqual(self.routerd.announcements[1], "listening on 127.0.0.1:%d (telnet)" % self.telnet_port)

    def test_the_server_starts_no_negotiation(self):
        client = self.connect()
        self.assertEqual(client.read_for(0.5), b"")
        client.send(b"@ ?\r")
        self.assertEqual(client.read_until(PROMPT), b"@ ?\r\n>")

    def test_suppress_go_ahead_is_accepted_both_ways(self):
        client = self.connect()
        client.send(iac(DO, SGA))
        self.assertEqual(client.read_until(iac(WILL, SGA)), iac(WILL, SGA))
        client.send(iac(WILL, SGA))
        self.assertEqual(client.read_until(iac(DO, SGA)), iac(DO, SGA))
        self.assertEqual(client.read_for(0.2), b"")

    def test_echo_terminal_type_and_window_size_are_refused(self):
        client = self.connect()
        client.send(iac(DO, ECHO) + iac(WILL, TTYPE) + iac(WILL, ECHO) + iac(DO, TTYPE) + iac(WILL, NAWS))
        self.assertEqual(client.read_until(iac(DONT, NAWS)),
                         iac(WONT, ECHO) + iac(DONT, TTYPE) + iac(DONT, ECHO) + iac(WONT, TTYPE) + iac(DONT, NAWS))
        self.assertEqual(client.read_for(0.2), b"")

    def test_negotiation_and_subnegotiation_never_reach_the_plugin(self):
        client = self.connect()
        client.send(iac(DO, SGA) + iac(WILL, SGA) + iac(DO, ECHO) + iac(WILL, TTYPE) + iac(NOP) + iac(AYT) +
                    iac(SB, 200) + b"x" * 1024 + iac(SE) + b"@ ?\r")
        self.assertEqual(client.read_until(PROMPT),
                         iac(WILL, SGA) + iac(DO, SGA) + iac(WONT, ECHO) + iac(DONT, TTYPE) + b"@ ?\r\n>")
        client_id = self.routerd.client_id(client.peer)
        self.assertEqual(self.routerd.plugin_lines(client_id), ['"@ ?"'])

    def test_iac_iac_reaches_the_plugin_as_one_ff_byte(self):
        client = self.connect()
        client.send(b"@ ?\r@ X:0/6,\xff\xff\r")
        client.read_until(PROMPT)
        client.read_until(PROMPT)
        client_id = self.routerd.client_id(client.peer)
        self.assertEqual(self.routerd.plugin_lines(client_id), ['"@ ?"', '"@ X:0/6,\\xFF"'])

    def test_an_ff_byte_from_the_plugin_is_doubled(self):
        client = self.connect()
        client.send(b"@ ?\r")
        client.read_until(PROMPT)
        client.send(b"@ X:0/6,\xff\xff\r")
        # The converter echoes the one byte it was given; the link doubles it.
        self.assertEqual(client.read_until(PROMPT), b"@ X:0/6,\xff\xff\r\n>")
        client_id = self.routerd.client_id(client.peer)
        self.assertTrue(self.routerd.log_contains('client %d >> "@ X:0/6,\\xFF\\r\\n>"' % client_id),
                        self.routerd.log())

    def test_cr_nul_reaches_the_plugin_as_cr(self):
        # On a plain link the NUL would start the next line and spoil it.
        client = self.connect()
        client.send(b"@ X?05\r\0@ X?06\r\0")
        self.assertEqual(client.read_until(b"S:06,0\r\n>"), b"\r\nS:05,0\r\n>\r\nS:06,0\r\n>")
        client.send(b"@ X?07\r")
        time.sleep(0.1)
        client.send(b"\0@ X?08\r\0")
        self.assertEqual(client.read_until(b"S:08,0\r\n>"), b"\r\nS:07,0\r\n>\r\nS:08,0\r\n>")

    def test_a_command_split_anywhere_around_negotiation_gets_the_same_reply(self):
        command = b"@ X" + iac(SB, 200) + b"ab" + iac(SE) + b"?0" + iac(WILL, TTYPE) + b"5\r"
        expected = iac(DONT, TTYPE) + b"\r\nS:05,0\r\n>"
        whole = self.connect()
        whole.send(command)
        self.assertEqual(whole.read_until(PROMPT), expected)
        for offset in range(1, len(command)):
            with self.subTest(offset=offset):
                client = self.connect()
                client.send(command[:offset])
                time.sleep(0.03)  # two reads on the server's side
                client.send(command[offset:])
                self.assertEqual(client.read_until(PROMPT), expected)
                client.close()

    def test_an_endless_subnegotiation_drops_the_client_and_no_other(self):
        other = tcp(self, self.plain)
        other.send(b"@ ?\r")
        other.read_until(PROMPT)
        client = self.connect()
        try:
            client.send(iac(SB, TTYPE) + b"x" * (16 * 1024 + 512))
        except OSError:
            pass  # dropped while still sending
        self.assertTrue(self.routerd.log_contains("client %d (%s) disconnected: telnet protocol error: " % (
            self.routerd.client_id(client.peer), client.peer), timeout=3), self.routerd.log())
        self.assertTrue(client.closed_within(3))
        other.send(b"@ X?05\r")
        self.assertEqual(other.read_until(PROMPT), b"@ X?05\r\nS:05,0\r\n>")

    def test_no_byte_of_an_overlong_subnegotiation_reaches_the_plugin(self):
        client = self.connect()
        # Just over the 16 KiB that the subnegotiation buffer holds, then what
        # would be a command if the rest were taken for data.
        client.send(iac(SB, TTYPE) + b"x" * (16 * 1024 - 4) + b"@ X?05\r")
        self.assertEqual(client.read_for(1.0), b"")  # closed or not, no answer
        self.assertEqual(self.routerd.plugin_lines(self.routerd.client_id(client.peer)), [])


# ---------------------------------------------------------------------------

USER, PASSWORD = "operator-7f3a", "pw-93c1e5"

LOGIN_CONFIG = """
[[listen]]
address = "127.0.0.1:0"

[[listen]]
address = "127.0.0.1:0"
login = "password"
users = [ { user = "%s", password = "%s" } ]

[[listen]]
address = "127.0.0.1:0"
login = "any"
login_timeout = 2
""" % (USER, PASSWORD)


class Login(unittest.TestCase):
    def setUp(self):
        self.routerd = Routerd(self, LOGIN_CONFIG, announced=3)
        self.plain, self.password_port, self.any_port = self.routerd.ports

    def connect(self, port=None):
        client = tcp(self, port or self.password_port)
        self.assertEqual(client.read_until(b"login: "), b"login: ")
        return client

    def test_listeners_are_announced_with_their_login(self):
        self.assertEqual(self.routerd.announcements, [
            "listening on 127.0.0.1:%d" % self.plain,
            "listening on 127.0.0.1:%d (login)" % self.password_port,
            "listening on 127.0.0.1:%d (login, any credentials)" % self.any_port])

    def test_a_right_password_gets_no_reply_and_what_follows_it_reaches_the_plugin(self):
        client = self.connect()
        client.send(USER.encode() + b"\r")
        self.assertEqual(client.read_until(b"password: "), b"password: ")
        client.send(PASSWORD.encode() + b"\r@ ?\r")
        self.assertEqual(client.read_until(PROMPT), b"@ ?\r\n>")
        self.assertEqual(client.read_for(0.2), b"")
        self.assertTrue(self.routerd.log_contains("client 1 (%s) logged in" % client.peer))

    def test_the_plugin_instance_is_created_only_after_login(self):
        client = self.connect()
        client.send(USER.encode() + b"\r")
        client.read_until(b"password: ")
        self.assertNotIn(INSTANCE_CREATED, self.routerd.log())
        client.send(PASSWORD.encode() + b"\r")
        self.assertTrue(self.routerd.log_contains(INSTANCE_CREATED))
        log = self.routerd.log()
        self.assertLess(log.index("client 1 (%s) logged in" % client.peer), log.index(INSTANCE_CREATED))

    def test_lines_end_in_cr_lf_cr_nul_or_lf(self):
        # Whatever is left of a line end would reach the converter in front of
        # the command; a NUL there spoils it.
        for user_end, password_end in [(b"\r\n", b"\r\0"), (b"\n", b"\n"), (b"\r\0", b"\r\n")]:
            with self.subTest(user_end=user_end, password_end=password_end):
                client = self.connect()
                client.send(USER.encode() + user_end)
                self.assertEqual(client.read_until(b"password: "), b"password: ")
                client.send(PASSWORD.encode() + password_end + b"@ ?\r")
                self.assertEqual(client.read_until(PROMPT), b"@ ?\r\n>")
                client.close()

    def test_an_empty_user_name_asks_again(self):
        client = self.connect()
        for empty in (b"\r\n", b"\n", b"\r"):
            client.send(empty)
            self.assertEqual(client.read_until(b"login: "), b"login: ", empty)
            self.assertEqual(client.read_for(0.2), b"", empty)
        client.send(USER.encode() + b"\r")
        self.assertEqual(client.read_until(b"password: "), b"password: ")

    def test_three_wrong_passwords_wait_one_two_and_four_seconds_and_the_third_closes_the_link(self):
        client = self.connect()
        for attempt, delay in ((1, 1), (2, 2), (3, 4)):
            client.send(USER.encode() + b"\r")
            self.assertEqual(client.read_until(b"password: "), b"password: ")
            client.send(b"wrong\r")
            sent = time.monotonic()
            self.assertEqual(client.read_until(b"login incorrect\r\n", timeout=10), b"login incorrect\r\n")
            self.assertGreaterEqual(time.monotonic() - sent, delay - 0.1)
            self.assertTrue(self.routerd.log_contains(
                "client 1 (%s): login incorrect (%d of 3)" % (client.peer, attempt)), self.routerd.log())
            if attempt < 3:
                self.assertEqual(client.read_until(b"login: "), b"login: ")
        self.assertTrue(client.closed_within(2))
        self.assertEqual(client.pending, b"")
        self.assertTrue(self.routerd.log_contains(
            "client 1 (%s) disconnected: login failed 3 times" % client.peer), self.routerd.log())

    def test_a_client_that_does_not_log_in_in_time_is_closed(self):
        client = self.connect(self.any_port)
        started = time.monotonic()
        client.send(b"someone\r")
        self.assertEqual(client.read_until(b"password: "), b"password: ")
        self.assertTrue(client.closed_within(5.0))
        # Checked once a second: between the timeout and a second more.
        self.assertGreaterEqual(time.monotonic() - started, 1.9)
        self.assertTrue(self.routerd.log_contains(
            "client 1 (%s) disconnected: no login within 2 s (login_timeout)" % client.peer))

    def test_a_client_that_logged_in_outlives_the_login_timeout(self):
        client = self.connect(self.any_port)
        client.send(b"someone\rwhatever\r")
        self.assertEqual(client.read_until(b"password: "), b"password: ")
        time.sleep(3.2)
        client.send(b"@ ?\r")
        self.assertEqual(client.read_until(PROMPT), b"@ ?\r\n>")

    def test_what_follows_a_wrong_password_in_its_packet_is_discarded(self):
        client = self.connect()
        client.send(USER.encode() + b"\r")
        client.read_until(b"password: ")
        client.send(b"wrong\r" + USER.encode() + b"\r")
        self.assertEqual(client.read_until(b"login: ", timeout=3), b"login incorrect\r\nlogin: ")
        self.assertEqual(client.read_for(0.5), b"")

    def test_what_is_sent_while_a_wrong_password_waits_is_discarded(self):
        client = self.connect()
        client.send(USER.encode() + b"\r")
        client.read_until(b"password: ")
        client.send(b"wrong\r")
        time.sleep(0.3)
        client.send(USER.encode() + b"\r")
        self.assertEqual(client.read_until(b"login: ", timeout=3), b"login incorrect\r\nlogin: ")
        self.assertEqual(client.read_for(0.5), b"")

    def test_any_credentials_pass_where_login_is_any(self):
        client = self.connect(self.any_port)
        client.send(b"nobody\r")
        self.assertEqual(client.read_until(b"password: "), b"password: ")
        client.send(b"whatever\r@ ?\r")
        self.assertEqual(client.read_until(PROMPT), b"@ ?\r\n>")
        self.assertTrue(self.routerd.log_contains("client 1 (%s) logged in" % client.peer))

    def test_commands_sent_before_login_reach_no_plugin(self):
        observer = tcp(self, self.plain)
        observer.send(b"@ ?\r")
        observer.read_until(PROMPT)
        client = self.connect()
        client.send(b"@ X:0/7,7\r")
        self.assertEqual(client.read_until(b"password: "), b"password: ")
        client.send(b"@ X:0/7,7\r")
        self.assertEqual(client.read_until(b"login: ", timeout=3), b"login incorrect\r\nlogin: ")
        self.assertEqual(observer.read_for(0.2), b"")  # no report of a take
        observer.send(b"@ X?07\r")
        self.assertEqual(observer.read_until(PROMPT), b"@ X?07\r\nS:07,0\r\n>")
        self.assertEqual(self.routerd.log().count(INSTANCE_CREATED), 1)  # the observer's
        self.assertEqual(self.routerd.plugin_lines(self.routerd.client_id(client.peer)), [])

    def test_credentials_never_appear_in_the_verbose_log(self):
        intruder, guess = "intruder-5b2d", "guess-0c4e"
        failed = self.connect()
        failed.send(intruder.encode() + b"\r" + guess.encode() + b"\r")
        failed.read_until(b"login incorrect\r\n", timeout=3)
        client = self.connect()
        client.send(USER.encode() + b"\r")
        client.read_until(b"password: ")
        client.send(PASSWORD.encode() + b"\r@ ?\r@ X:0/3,2\r")
        client.read_until(b"S:03,2\r\n>")
        self.assertEqual(self.routerd.stop(), 0)
        log = self.routerd.log()
        self.assertIn('client 2 << "@ X:0/3,2"', log)  # the log is verbose
        for secret in (USER, PASSWORD, intruder, guess):
            self.assertNotIn(secret, log)


# ---------------------------------------------------------------------------

IDLE_CONFIG = """
[[listen]]
address = "127.0.0.1:0"
idle_timeout = 2

[[listen]]
address = "127.0.0.1:0"
"""


class IdleTimeout(unittest.TestCase):
    def setUp(self):
        self.routerd = Routerd(self, IDLE_CONFIG, announced=2)
        self.idle, self.plain = self.routerd.ports

    def test_the_listener_is_announced_with_its_timeout(self):
        self.assertEqual(self.routerd.announcements[0], "listening on 127.0.0.1:%d (idle timeout 2 s)" % self.idle)

    def test_a_silent_client_is_closed_after_the_timeout(self):
        client = tcp(self, self.idle)
        connected = time.monotonic()
        self.assertTrue(client.closed_within(6))
        # Checked once a second.
        self.assertGreaterEqual(time.monotonic() - connected, 1.9)
        self.assertLessEqual(time.monotonic() - connected, 4.0)
        self.assertEqual(client.pending, b"")
        self.assertTrue(self.routerd.log_contains(
            "client 1 (%s) disconnected: nothing received for 2 s (idle_timeout)" % client.peer), self.routerd.log())

    def test_a_client_sending_a_byte_every_half_second_stays_open(self):
        client = tcp(self, self.idle)
        # TABs in front of a line are dropped by the converter: activity
        # without an answer.
        for _ in range(9):
            client.send(b"\t")
            self.assertEqual(client.read_for(0.5), b"")
            self.assertFalse(client.ended)
        client.send(b"@ X?05\r")
        self.assertEqual(client.read_until(PROMPT), b"\r\nS:05,0\r\n>")
        self.assertNotIn("idle_timeout", self.routerd.log())

    def test_a_client_of_a_listener_without_timeout_is_unaffected(self):
        lasting = tcp(self, self.plain)
        idle = tcp(self, self.idle)
        self.assertTrue(idle.closed_within(6))
        time.sleep(1.2)  # one more check
        lasting.send(b"@ X?05\r")
        self.assertEqual(lasting.read_until(PROMPT), b"\r\nS:05,0\r\n>")
        self.assertEqual(self.routerd.log().count("idle_timeout"), 1)


# ---------------------------------------------------------------------------

class Announcements(unittest.TestCase):
    def test_one_line_per_listener_in_order_then_the_serial_ports(self):
        directory = tempfile.mkdtemp(prefix="routerd-serial-")
        self.addCleanup(shutil.rmtree, directory, True)
        pair = PtyPair(self, directory)
        config = """
[[listen]]
address = "127.0.0.1:0"

[[listen]]
address = "127.0.0.1:0"
telnet = true
login = "password"
users = [ { user = "op", password = "s3cret" } ]
idle_timeout = 3

[[listen]]
address = "127.0.0.1:0"
login = "any"

[[serial]]
device = "%s"
baud = 19200
format = "8O2"
idle_timeout = 30
""" % pair.sim
        routerd = Routerd(self, config, announced=4)
        first, second, third = routerd.ports
        self.assertEqual(routerd.announcements, [
            "listening on 127.0.0.1:%d" % first,
            "listening on 127.0.0.1:%d (telnet, login, idle timeout 3 s)" % second,
            "listening on 127.0.0.1:%d (login, any credentials)" % third,
            "serial port %s (19200 8O2)" % pair.sim])
        self.assertEqual(routerd.stop(), 0)
        self.assertEqual(routerd.process.stdout.read(), b"")  # and no web view

    def test_listen_on_the_command_line_replaces_every_listener(self):
        routerd = Routerd(self, TELNET_LOGIN_CONFIG, args=["--listen", "127.0.0.1:0"])
        self.assertRegex(routerd.announcements[0], r"^listening on 127\.0\.0\.1:\d+$")
        client = tcp(self, routerd.ports[0])
        client.send(b"@ ?\r")
        self.assertEqual(client.read_until(PROMPT), b"@ ?\r\n>")
        self.assertEqual(routerd.stop(), 0)
        self.assertEqual(routerd.process.stdout.read(), b"")


class ConfigurationErrors(unittest.TestCase):
    """Refused at start-up with exit code 2, naming the file, line and key."""

    def check(self, text, message):
        directory = tempfile.mkdtemp(prefix="routerd-config-")
        self.addCleanup(shutil.rmtree, directory, True)
        path = os.path.join(directory, "routerd.toml")
        with open(path, "w") as f:
            f.write(text)
        self.assertEqual(run_routerd("-c", path),
                         (2, "", "leitch-routerd: configuration error: %s:%s\n" % (path, message)))

    def test_password_login_without_users(self):
        self.check('[[listen]]\naddress = "127.0.0.1:0"\nlogin = "password"\n',
                   "1: key 'listen[0].users': missing: login = \"password\" needs at least one user")

    def test_users_without_password_login(self):
        self.check('[[listen]]\naddress = "127.0.0.1:0"\n\n[[listen]]\naddress = "127.0.0.1:0"\nlogin = "any"\n'
                   'users = [ { user = "op", password = "s3cret" } ]\n',
                   "7: key 'listen[1].users': only used with login = \"password\"")

    def test_unknown_login_mode(self):
        self.check('[[listen]]\naddress = "127.0.0.1:0"\nlogin = "maybe"\n',
                   "3: key 'listen[0].login': must be \"off\", \"password\" or \"any\", not \"maybe\"")

    def test_unknown_key_in_a_serial_table(self):
        self.check('[[serial]]\ndevice = "/dev/ttyS0"\n\nspeed = 9600\n',
                   "4: key 'serial[0].speed': unknown key")

    def test_bad_serial_format(self):
        self.check('[[serial]]\ndevice = "/dev/ttyS0"\nbaud = 9600\nformat = "9N1"\n',
                   "4: key 'serial[0].format': format must be data bits (5 to 8), parity (N, E or O) and "
                   "stop bits (1 or 2), as in 8N1; got \"9N1\"")

    def test_baud_rate_that_is_not_standard(self):
        self.check('[[serial]]\ndevice = "/dev/ttyS0"\nbaud = 9601\n',
                   "3: key 'serial[0].baud': must be one of 1200, 2400, 4800, 9600, 19200, 38400, 57600, "
                   "115200, 230400")

    def test_server_listen_together_with_listen_tables(self):
        self.check('[server]\nlisten = "127.0.0.1:0"\n\n[[listen]]\naddress = "127.0.0.1:0"\n',
                   "4: key 'listen': give either server.listen or [[listen]] tables, not both")


if __name__ == "__main__":
    unittest.main(warnings="ignore")
