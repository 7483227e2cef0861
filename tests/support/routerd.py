"""Starting leitch-routerd on free ports for the Python tests and benchmarks,
and talking to it as a Leitch client, an HTTP client and a WebSocket client
would. The simulator is $LEITCH_ROUTERD (ctest sets it to the one built)."""

import base64
import http.client
import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time

ROUTERD = os.environ.get("LEITCH_ROUTERD", "")
CONFIGS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "sim", "configs")

# The first line of a sanitizer report: "==PID==ERROR: " (AddressSanitizer,
# LeakSanitizer) or "FILE:LINE:COLUMN: runtime error: " (UndefinedBehaviorSanitizer).
# The same rule as sanitizer_report() in routerd.h.
REPORT_START = re.compile(r"^(==\d+==ERROR: |[^ \n]+: runtime error: )", re.M)


def sanitizer_report(errors):
    """The sanitizer report in a simulator's standard error, from its first
    line to the end; "" when there is none. The sanitize build's simulator
    writes its reports on its real standard error."""
    found = REPORT_START.search(errors)
    return errors[found.start():] if found else ""


def fail_on_report(errors, pid=None):
    """Every simulator started here is looked at when it has ended: a
    sanitizer report fails the test that started it."""
    report = sanitizer_report(errors)
    if report:
        who = "leitch-routerd" if pid is None else "leitch-routerd (pid %d)" % pid
        raise AssertionError("%s wrote a sanitizer report:\n%s" % (who, report))


class Routerd:
    """leitch-routerd as a child process, started with "--listen LISTEN" and
    "--http HTTP" (each left out when None; a later one in `args` wins), then
    `args`. It has started once it has printed `announced` lines (by default
    the listener and, when served, the web view); killed when closed. Once it
    has ended (stop() or close()), a sanitizer report in its log raises
    AssertionError, once. `command` runs another program in its place that
    ends by executing the simulator with the arguments given (scripts/run.sh)."""

    def __init__(self, *args, http="127.0.0.1:0", listen="127.0.0.1:0", announced=None, command=None):
        self.directory = tempfile.mkdtemp(prefix="routerd-test-")
        self.log_path = os.path.join(self.directory, "stderr")
        self.looked_at = False
        command = list(command or [ROUTERD])
        if listen is not None:
            command += ["--listen", listen]
        if http is not None:
            command += ["--http", http]
        command += list(args)
        web_view = http is not None and http != "off"
        if announced is None:
            announced = 2 if web_view else 1
        with open(self.log_path, "wb") as log:
            self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=log)
        self.announcements = []
        for _ in range(announced):
            line = self.process.stdout.readline().decode()
            if not line:
                self.process.wait()
                log = self.log()
                self.close()
                raise RuntimeError("leitch-routerd did not start: %r\n%s" % (self.announcements, log))
            self.announcements.append(line.rstrip("\n"))
        self.ports = [int(m.group(1)) for m in
                      (re.match(r"listening on 127\.0\.0\.1:(\d+)", line) for line in self.announcements) if m]
        self.port = self.ports[0] if self.ports else None
        self.web_port = None
        for line in self.announcements:
            if line.startswith("web view on http://"):
                self.web_port = int(line.rstrip("/").rsplit(":", 1)[1])
        if web_view and self.web_port is None:
            log = self.log()
            self.close()
            raise RuntimeError("no web view: %r\n%s" % (self.announcements, log))

    @property
    def url(self):
        return "http://127.0.0.1:%d/" % self.web_port

    @property
    def host(self):
        return "127.0.0.1:%d" % self.web_port

    def log(self):
        with open(self.log_path, "rb") as f:
            return f.read().decode(errors="replace")

    def log_contains(self, text, timeout=5.0):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if text in self.log():
                return True
            time.sleep(0.05)
        return text in self.log()

    def count(self, text):
        return self.log().count(text)

    def client_id(self, peer, timeout=5.0):
        """The number the log gives the client connected from `peer`."""
        pattern = re.compile(r"client (\d+) connected from %s(?: |$)" % re.escape(peer), re.M)
        deadline = time.monotonic() + timeout
        while True:
            found = pattern.search(self.log())
            if found:
                return int(found.group(1))
            if time.monotonic() > deadline:
                raise AssertionError("no client from %s in the log:\n%s" % (peer, self.log()))
            time.sleep(0.02)

    def resident_kib(self):
        with open("/proc/%d/status" % self.process.pid) as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
        return -1

    def cpu_seconds(self):
        with open("/proc/%d/stat" % self.process.pid) as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def stop(self, timeout=10):
        """SIGTERM, then the whole log is written; the exit code."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(timeout)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        self._look_at_log()
        return self.process.returncode

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()
        try:
            self._look_at_log()
        finally:
            shutil.rmtree(self.directory, ignore_errors=True)

    def _look_at_log(self):
        if self.looked_at or not os.path.exists(self.log_path):
            return
        self.looked_at = True
        fail_on_report(self.log(), self.process.pid)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


def wait_until(predicate, timeout=5.0):
    """True once predicate() holds, checked every 20 ms; its last value after `timeout` s."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if predicate():
            return True
        time.sleep(0.02)
    return predicate()


def run_routerd(*args, timeout=30):
    """(exit code, standard output, standard error) of a simulator that is not
    expected to start, run with "--http off" and then `args`."""
    done = subprocess.run([ROUTERD, "--http", "off"] + list(args), capture_output=True, timeout=timeout)
    fail_on_report(done.stderr.decode(errors="replace"))
    return done.returncode, done.stdout.decode(), done.stderr.decode()


def connect(port, source=None, timeout=10):
    """A TCP connection to 127.0.0.1:`port`, from the loopback address `source`
    ("127.0.0.2", ...: every 127.x.y.z reaches a listener on 127.0.0.1, and the
    simulator sees another client address) or from 127.0.0.1."""
    return socket.create_connection(("127.0.0.1", port), timeout=timeout,
                                    source_address=(source, 0) if source else None)


class Link:
    """Bytes from the simulator: whatever arrived beyond what a read asked
    for waits for the next read."""

    def __init__(self):
        self.pending = b""
        self.ended = False

    def _receive(self, timeout):
        """Bytes received within `timeout`; None if none came, b"" at the end."""
        raise NotImplementedError

    def _fill(self, deadline):
        left = deadline - time.monotonic()
        if left <= 0 or self.ended:
            return False
        chunk = self._receive(left)
        if chunk is None:
            return False
        if not chunk:
            self.ended = True
            return False
        self.pending += chunk
        return True

    def read_until(self, wanted, timeout=5.0):
        """Everything up to and including `wanted`: a failed assertion, with
        what did arrive, if it does not come."""
        deadline = time.monotonic() + timeout
        while wanted not in self.pending:
            if not self._fill(deadline):
                raise AssertionError("waited %.1f s for %r; received %r%s" % (
                    timeout, wanted, self.pending, " and the link closed" if self.ended else ""))
        end = self.pending.index(wanted) + len(wanted)
        found, self.pending = self.pending[:end], self.pending[end:]
        return found

    def read_for(self, seconds):
        """Everything that arrives within `seconds` (less if the link ends)."""
        deadline = time.monotonic() + seconds
        while self._fill(deadline):
            pass
        found, self.pending = self.pending, b""
        return found

    def closed_within(self, seconds):
        """True if the other side closes the link within `seconds`; what
        arrives meanwhile is kept for the next read."""
        deadline = time.monotonic() + seconds
        while self._fill(deadline):
            pass
        return self.ended


class TcpLink(Link):
    """A raw TCP client, from the loopback address `source` if given."""

    def __init__(self, port, source=None):
        super().__init__()
        self.sock = connect(port, source)
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    @property
    def peer(self):
        """How the simulator names this client in its log."""
        host, port = self.sock.getsockname()
        return "%s:%d" % (host, port)

    def send(self, data):
        self.sock.sendall(data)

    def _receive(self, timeout):
        self.sock.settimeout(timeout)
        try:
            return self.sock.recv(65536)
        except socket.timeout:
            return None
        except ConnectionResetError:
            return b""

    def close(self):
        self.sock.close()


def receive_until(sock, received, wanted, timeout):
    """(everything up to and including `wanted`, what came after it), reading
    `sock` after the bytes `received` already; (None, all received) when
    `wanted` has not come within `timeout` seconds or the peer closed."""
    deadline = time.monotonic() + timeout
    while wanted not in received:
        left = deadline - time.monotonic()
        if left <= 0:
            return None, received
        sock.settimeout(left)
        try:
            chunk = sock.recv(65536)
        except socket.timeout:
            return None, received
        if not chunk:
            return None, received
        received += chunk
    end = received.index(wanted) + len(wanted)
    return received[:end], received[end:]


class LeitchClient:
    """A Leitch client over TCP, from the loopback address `source` if given."""

    def __init__(self, port, source=None):
        self.sock = connect(port, source)
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.received = b""

    def send(self, text):
        self.sock.sendall(text.encode())

    def read_until(self, text, timeout=5.0):
        """Everything up to and including `text`; None on timeout."""
        found, self.received = receive_until(self.sock, self.received, text.encode(), timeout)
        return None if found is None else found.decode()

    def report_mode(self):
        self.send("@ ?\r")
        assert self.read_until("\r\n>") is not None

    def close(self):
        self.sock.close()


def request(routerd, method, path, body=None, headers=None, raw_body=None, source=None):
    """(status, parsed JSON or text) of one HTTP request, from the loopback
    address `source` if given."""
    connection = http.client.HTTPConnection("127.0.0.1", routerd.web_port, timeout=10,
                                            source_address=(source, 0) if source else None)
    data = raw_body if raw_body is not None else (json.dumps(body) if body is not None else None)
    all_headers = {"Content-Type": "application/json"} if data is not None else {}
    all_headers.update(headers or {})
    connection.request(method, path, body=data, headers=all_headers)
    response = connection.getresponse()
    text = response.read().decode()
    connection.close()
    try:
        return response.status, json.loads(text)
    except ValueError:
        return response.status, text


class WebSocket:
    """A minimal WebSocket client: text messages in, nothing out. After the
    handshake, `status` is the answer's status and, for a refusal, `body` its body."""

    def __init__(self, port, origin=None, host=None, receive_buffer=None, source=None):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if receive_buffer:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.sock.settimeout(10)
        if source:
            self.sock.bind((source, 0))
        self.sock.connect(("127.0.0.1", port))
        key = base64.b64encode(os.urandom(16)).decode()
        lines = ["GET /ws HTTP/1.1", "Host: %s" % (host or "127.0.0.1:%d" % port), "Upgrade: websocket",
                 "Connection: Upgrade", "Sec-WebSocket-Key: " + key, "Sec-WebSocket-Version: 13"]
        if origin:
            lines.append("Origin: " + origin)
        self.sock.sendall(("\r\n".join(lines) + "\r\n\r\n").encode())
        self.buffer = b""
        while b"\r\n\r\n" not in self.buffer:
            chunk = self.sock.recv(4096)
            if not chunk:
                break
            self.buffer += chunk
        head, _, self.buffer = self.buffer.partition(b"\r\n\r\n")
        self.status = int(head.split(b" ")[1]) if head else 0
        self.body = b""
        if self.status != 101:
            # A refusal closes the connection after its body.
            while True:
                try:
                    chunk = self.sock.recv(4096)
                except (socket.timeout, ConnectionResetError):
                    break
                if not chunk:
                    break
                self.buffer += chunk
            self.body, self.buffer = self.buffer, b""

    def _fill(self, count, deadline):
        while len(self.buffer) < count:
            left = deadline - time.monotonic()
            if left <= 0:
                raise TimeoutError
            self.sock.settimeout(left)
            chunk = self.sock.recv(1 << 20)
            if not chunk:
                raise EOFError
            self.buffer += chunk

    def receive(self, timeout=5.0):
        """The next text message, parsed; pings are answered on the way."""
        deadline = time.monotonic() + timeout
        message = b""
        while True:
            self._fill(2, deadline)
            final = self.buffer[0] & 0x80
            opcode = self.buffer[0] & 0x0F
            length = self.buffer[1] & 0x7F
            offset = 2
            if length == 126:
                self._fill(4, deadline)
                length = struct.unpack(">H", self.buffer[2:4])[0]
                offset = 4
            elif length == 127:
                self._fill(10, deadline)
                length = struct.unpack(">Q", self.buffer[2:10])[0]
                offset = 10
            self._fill(offset + length, deadline)
            payload = self.buffer[offset:offset + length]
            self.buffer = self.buffer[offset + length:]
            if opcode == 0x9:
                self._send(0xA, payload)
                continue
            if opcode == 0x8:
                raise EOFError
            if opcode in (0x0, 0x1):
                message += payload
                if final:
                    return json.loads(message)

    def _send(self, opcode, payload):
        mask = os.urandom(4)
        header = bytes([0x80 | opcode, 0x80 | len(payload)]) + mask
        self.sock.sendall(header + bytes(b ^ mask[i % 4] for i, b in enumerate(payload)))

    def closed_by_server(self, timeout=15.0):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            self.sock.settimeout(max(0.01, deadline - time.monotonic()))
            try:
                if not self.sock.recv(1 << 16):
                    return True
            except socket.timeout:
                return False
            except ConnectionResetError:
                return True
        return False

    def close(self):
        self.sock.close()


def config(name):
    return os.path.join(CONFIGS, name)
