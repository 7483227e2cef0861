"""A raw SW-P-08 client for tests: it builds frames, reads what the router
sends as byte pairs, ACKs it, and waits for the router's ACK to its own
frames. Tests pin bytes with it; end-to-end tests use it as a direct
controller next to the gateway.

    client = Swp08Client(port)                     # or Swp08Client.serial("/dev/pts/3")
    assert client.send(connect(0, 0, 7, 2)) == "ack"
    assert client.read_frame() == bytes.fromhex("04 00 00 07 02")

A thread reads all the time, so a frame is ACKed within milliseconds of its
arrival (auto_ack; a bad one is NAKed). With auto_ack=False nothing is
answered unless the test calls ack() or nak(). Everything received is kept in
arrival order as events; read_frame() and wait_link() each take the first
event of their kind and leave the rest in place, so a reply that arrives
before its ACK is not lost. A read that waits longer than `timeout` raises
TimeoutError; one that can no longer be satisfied because the peer closed
raises EOFError.
"""

import collections
import os
import select
import socket
import struct
import termios
import threading
import tty

DLE, STX, ETX, ACK, NAK = 0x10, 0x02, 0x03, 0x06, 0x15
ACK_BYTES = b"\x10\x06"
NAK_BYTES = b"\x10\x15"
MAX_DATA = 255
MAX_EVENTS = 200000

# kind: "frame" (data: DATA, raw: the frame as received, stuffing included),
# "ack", "nak", "bad" (a frame that ended but fails its checks; data: why),
# "runaway" (a frame past 255 data bytes, reported once; the rest of it is
# skipped), "noise" (bytes outside any frame).
Event = collections.namedtuple("Event", "kind data raw")


def frame(data):
    """DATA -> DLE STX, DATA, BTC, CHK, DLE ETX with every 0x10 of DATA, BTC and
    CHK doubled. BTC = len(DATA); CHK makes DATA + BTC + CHK sum to 0 mod 256."""
    data = bytes(data)
    if len(data) > MAX_DATA:
        raise ValueError("BTC is one byte: at most %d data bytes" % MAX_DATA)
    btc = len(data)
    chk = (0x100 - ((sum(data) + btc) & 0xFF)) & 0xFF
    stuffed = bytearray()
    for byte in data + bytes([btc, chk]):
        stuffed.append(byte)
        if byte == DLE:
            stuffed.append(DLE)
    return b"\x10\x02" + bytes(stuffed) + b"\x10\x03"


def interrogate(matrix, level, dest):
    """01: ML, MU (dest DIV 128 in bits 6-4), dest MOD 128."""
    return bytes([0x01, matrix << 4 | level, (dest // 128) << 4, dest % 128])


def connect(matrix, level, dest, source):
    """02: ML, MU (dest DIV 128 in bits 6-4, source DIV 128 in bits 2-0), dest MOD 128, source MOD 128."""
    return bytes([0x02, matrix << 4 | level, (dest // 128) << 4 | source // 128, dest % 128, source % 128])


def extended_interrogate(matrix, level, dest):
    return bytes([0x81, matrix, level]) + struct.pack(">H", dest)


def extended_connect(matrix, level, dest, source):
    return bytes([0x82, matrix, level]) + struct.pack(">HH", dest, source)


def crosspoint(data):
    """The DATA of a crosspoint tally (03 or 04: 5 bytes, command included;
    83 or 84: 8, or 7 without the status byte) -> (matrix, level, dest,
    source). Bit 3 of MU is a status flag and is left out."""
    if data[0] in (0x03, 0x04) and len(data) == 5:
        mu = data[2]
        return data[1] >> 4, data[1] & 0x0F, (mu >> 4 & 7) * 128 + data[3], (mu & 7) * 128 + data[4]
    if data[0] in (0x83, 0x84) and len(data) in (7, 8):
        dest, source = struct.unpack(">HH", data[3:7])
        return data[1], data[2], dest, source
    raise ValueError("not a crosspoint tally: %s" % data.hex(" "))


class Receiver:
    """Bytes in, events out, reading byte pairs: DLE DLE is data 0x10, DLE STX
    starts a frame (dropping a partial one), DLE ETX ends it, DLE ACK and DLE
    NAK are link answers even in the middle of a frame."""

    def __init__(self):
        self.body = None          # unstuffed bytes of the current frame; None between frames
        self.raw = bytearray()    # the current frame as received
        self.dle = False
        self.runaway = False
        self.skipped = 0          # bytes of runaway frames thrown away
        self._noise = bytearray()
        self._events = []

    def feed(self, data):
        index = 0
        while index < len(data):
            byte = data[index]
            if self.runaway and not self.dle and byte != DLE:
                # Skip to the next DLE at once: an endless frame is megabytes.
                found = data.find(b"\x10", index)
                end = len(data) if found < 0 else found
                self.skipped += end - index
                index = end
                continue
            index += 1
            if self.dle:
                self.dle = False
                self._pair(byte)
            elif byte == DLE:
                self.dle = True
            elif self.body is None:
                self._noise.append(byte)
            else:
                self._add(byte, bytes([byte]))
        self._flush_noise()
        events, self._events = self._events, []
        return events

    def _emit(self, kind, data, raw):
        self._flush_noise()
        self._events.append(Event(kind, data, raw))

    def _flush_noise(self):
        if self._noise:
            self._events.append(Event("noise", bytes(self._noise), bytes(self._noise)))
            self._noise.clear()

    def _pair(self, byte):
        pair = bytes([DLE, byte])
        if byte == ACK:
            self._emit("ack", None, pair)
        elif byte == NAK:
            self._emit("nak", None, pair)
        elif byte == STX:
            self._flush_noise()
            self.body, self.raw, self.runaway = bytearray(), bytearray(pair), False
        elif self.body is None:
            self._noise.extend(pair)
        elif self.runaway:
            self.skipped += 2
            if byte == ETX:
                self.body, self.runaway = None, False
        elif byte == DLE:
            self._add(DLE, pair)
        elif byte == ETX:
            self.raw += pair
            self._end()
            self.body = None
        else:
            self.raw += pair
            self._emit("bad", "DLE followed by 0x%02X" % byte, bytes(self.raw))
            self.body = None

    def _add(self, byte, raw):
        if len(self.body) >= MAX_DATA + 2:
            self.runaway = True
            self.skipped += len(raw)
            self._emit("runaway", "more than %d data bytes" % MAX_DATA, bytes(self.raw))
            return
        self.body.append(byte)
        self.raw += raw

    def _end(self):
        body, raw = bytes(self.body), bytes(self.raw)
        if len(body) < 3:
            self._emit("bad", "no command byte", raw)
        elif sum(body) & 0xFF:
            self._emit("bad", "checksum", raw)
        elif body[-2] != len(body) - 2:
            self._emit("bad", "byte count", raw)
        else:
            self._emit("frame", body[:-2], raw)


class Swp08Client:
    """One client link over TCP (or a tty, see serial())."""

    def __init__(self, port=None, host="127.0.0.1", timeout=2.0, auto_ack=True, _fd=None):
        self.timeout = timeout
        self.auto_ack = auto_ack
        self.receiver = Receiver()
        self.events = collections.deque(maxlen=MAX_EVENTS)
        self.closed = False          # the peer closed, or close() was called
        self._cond = threading.Condition()
        self._send_lock = threading.Lock()
        self._fd = _fd
        self.sock = None
        if _fd is None:
            self.sock = socket.create_connection((host, port), timeout=timeout)
            self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self.sock.settimeout(None)
        self._reader = threading.Thread(target=self._read_until_closed, daemon=True)
        self._reader.start()

    @classmethod
    def serial(cls, path, timeout=2.0, auto_ack=True):
        """A client on a tty (a pty of a socat pair in tests), raw 38400 8N1."""
        fd = os.open(path, os.O_RDWR | os.O_NOCTTY)
        tty.setraw(fd)
        attrs = termios.tcgetattr(fd)
        attrs[2] = (attrs[2] & ~(termios.PARENB | termios.CSTOPB | termios.CSIZE)) | termios.CS8 | termios.CLOCAL
        attrs[4] = attrs[5] = termios.B38400
        termios.tcsetattr(fd, termios.TCSANOW, attrs)
        return cls(timeout=timeout, auto_ack=auto_ack, _fd=fd)

    # ----- sending -----

    def send_raw(self, data):
        with self._send_lock:
            if self._fd is None:
                self.sock.sendall(data)
            else:
                view = memoryview(data)
                while view:
                    view = view[os.write(self._fd, view):]

    def send_frame(self, data):
        """Send one frame and return at once."""
        self.send_raw(frame(data))

    def send(self, data):
        """Send one frame and wait for the link answer: "ack" or "nak"."""
        self.send_frame(data)
        return self.wait_link()

    def ack(self):
        self.send_raw(ACK_BYTES)

    def nak(self):
        self.send_raw(NAK_BYTES)

    # ----- receiving -----

    def next_event(self, timeout=None):
        """The oldest event not yet taken."""
        return self._take(lambda event: True, timeout)

    def next_frame(self, timeout=None):
        """The oldest frame event not yet taken (its data and raw bytes)."""
        return self._take(lambda event: event.kind == "frame", timeout)

    def read_frame(self, timeout=None):
        """The DATA of the oldest frame not yet taken."""
        return self.next_frame(timeout).data

    def read_frames(self, count, timeout=None):
        return [self.read_frame(timeout) for _ in range(count)]

    def wait_link(self, timeout=None):
        """The oldest link answer not yet taken: "ack" or "nak"."""
        return self._take(lambda event: event.kind in ("ack", "nak"), timeout).kind

    def read_noise(self, count, timeout=None):
        """`count` bytes received outside any frame."""
        data = b""
        while len(data) < count:
            data += self._take(lambda event: event.kind == "noise", timeout).data
        return data

    def pending(self):
        """The events received and not taken, oldest first."""
        with self._cond:
            return list(self.events)

    def is_closed_by_peer(self, timeout=None):
        """True once the peer closed (or reset) the link; False on a timeout."""
        with self._cond:
            return self._cond.wait_for(lambda: self.closed, self.timeout if timeout is None else timeout)

    def _take(self, wanted, timeout):
        timeout = self.timeout if timeout is None else timeout
        with self._cond:
            def found():
                return any(wanted(event) for event in self.events) or self.closed
            if not self._cond.wait_for(found, timeout):
                raise TimeoutError("nothing wanted arrived in %.1f s; had %r" % (timeout, list(self.events)[-5:]))
            for index, event in enumerate(self.events):
                if wanted(event):
                    del self.events[index]
                    return event
            raise EOFError("the peer closed the link; had %r" % list(self.events)[-5:])

    def _recv(self):
        if self._fd is None:
            return self.sock.recv(65536)
        while not self.closed:
            readable, _, _ = select.select([self._fd], [], [], 0.25)
            if readable:
                return os.read(self._fd, 65536)
        return b""

    def _read_until_closed(self):
        try:
            while True:
                data = self._recv()
                if not data:
                    break
                events = self.receiver.feed(data)
                if self.auto_ack:
                    answers = b"".join(ACK_BYTES if event.kind == "frame" else NAK_BYTES
                                       for event in events if event.kind in ("frame", "bad"))
                    if answers:
                        self.send_raw(answers)
                with self._cond:
                    self.events.extend(events)
                    self._cond.notify_all()
        except OSError:
            pass
        finally:
            with self._cond:
                self.closed = True
                self._cond.notify_all()

    # ----- closing -----

    def reset(self):
        """Close with a TCP reset rather than a FIN."""
        self.close(reset=True)

    def close(self, reset=False):
        with self._cond:
            if self.closed and self._reader is None:
                return
            self.closed = True
            self._cond.notify_all()
        reader, self._reader = self._reader, None
        if self._fd is None:
            if reset:
                # Linger 0 turns the close into an RST; SHUT_RD wakes the reader without sending a FIN.
                self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            try:
                self.sock.shutdown(socket.SHUT_RD if reset else socket.SHUT_RDWR)
            except OSError:
                pass
            reader.join(1)
            self.sock.close()
        else:
            reader.join(1)
            os.close(self._fd)
