#!/usr/bin/env python3
"""An SW-P-08 router on loopback (or on a serial line), standing in for the
broadcast router that leitch-routerd's gateway mode drives over SW-P-08.

As a program, in front of leitch-routerd:

    python3 tests/support/swp08_router.py --port 8910 --matrix-levels 2 --sources 32 --destinations 32

It prints "swp08 fixture listening on 127.0.0.1:PORT" once it listens (--port 0
picks a free port), then "swp08 fixture second controller on 127.0.0.1:PORT2"
with --dual and "swp08 fixture serving serial DEVICE" with --serial, and
serves until SIGINT or SIGTERM. --help lists the switches.

As a library, in a test:

    from swp08_router import Swp08Router
    router = Swp08Router(levels={(0, 0): (32, 32)}, resend_timeout=0.2)
    port = router.start()                  # 127.0.0.1, a free port
    router.set_crosspoint(0, 0, 7, 2)      # as a front panel: every connection gets 04
    router.withhold_acks = True            # misbehaviour, switched while it runs
    router.stop()

Constructor arguments (each also an attribute of the same name; the ones
marked * may be changed while it runs):

    levels                    {(matrix, level): (sources, destinations)}; default
                              matrix 0 levels 0 and 1, 32 x 32 each
    port, port2               listening ports (0: a free one); port2 only with dual
    dual                      two controllers, A on port and B on port2, sharing
                              the state; A is active at start
    dumps*                    answer to 15/95: "word" (17/97), "byte" (16 when
                              every number is <= 191, else 17; 95 always gets 97),
                              "tallies" (one 03/83 per destination) or "none"
    group_salvos*             78/79/7C and F8/FC implemented
    implementation*           61 answered with 62
    extended*                 the 8x, 9x and Ex commands implemented
    interrogate_reply*        "03" (the documented tally) or "04": the reply to
                              01 (and 83 or 84 to 81), to the asking port only
    short_extended*           83/84 without their status byte (6 bytes, not 7)
    wait_for_ack*             one frame at a time per connection, the next only
                              after the ACK; False streams them (no re-sends)
    reply_before_ack*         a request's first reply goes out before its ACK
    resend_timeout*           seconds to wait for an ACK before re-sending (1.0)
    max_resends*              re-sends of one frame before it is given up (5)
    protect_blocks_connects*  a connect (02/82, or a salvo's crosspoint) to a
                              protected destination is ACKed and ignored;
                              False lets it through (the protect stays)
    connected_after_go*       a salvo go also broadcasts 04/84 per crosspoint
    names_updated_delay*      seconds from the last name change to 1E (0: at once)
    idle_controller_status*   byte 2 of 09; None: 0 (OK) when dual, 1 (missing)
                              when there is no second controller
    max_connections           TCP clients per controller (16)

Misbehaviour switches, attributes changed while it runs: withhold_acks (no
ACK or NAK at all; requests are still acted on), nak_everything (every frame
NAKed and not acted on), never_confirm (a connect is ACKed, changes nothing
and gets no 04). Methods: send_raw(), send_garbage(), send_frame(),
endless_frame() / stop_endless_frame(), flood(), drop_connections(),
changeover(), restart().

The state (tallies, protects, names, salvo groups) is read and set through
methods that hold the fixture's lock; the set_ methods act as another panel
would and tell every connection of the active controller. Connections (TCP
and serial) are numbered from 1 in the order they arrive. Every well-formed
frame received is logged as (connection, command byte, message bytes), see
requests(); link counters are in counters().

Protocol facts it relies on:
- A frame is DLE STX, DATA, BTC, CHK, DLE ETX. BTC counts the DATA bytes
  before stuffing; CHK is the two's complement of the 8-bit sum of DATA and
  BTC. Every 0x10 in DATA, BTC or CHK is sent doubled.
- The receiver works on byte pairs: DLE DLE is data 0x10, DLE STX starts a
  frame (a partial one is dropped), DLE ETX ends it, and DLE ACK / DLE NAK
  are link answers that may come in the middle of another frame.
- Every well-formed frame is ACKed, whatever it asks; a bad checksum or byte
  count is NAKed. Unknown commands and numbers out of range are ACKed and
  otherwise ignored.
- Each frame the router sends waits for the peer's ACK; it is sent again
  after the timeout or at once on a NAK.
- Standard crosspoint fields split numbers at 128 (MU: bits 6-4 dest DIV 128,
  bit 3 a status flag, masked off, bits 2-0 source DIV 128); names, dumps and
  extended commands carry 16-bit big-endian numbers. An extended request gets
  an extended reply; otherwise a number over 1023 or a matrix or level over
  15 forces the extended form.
- SW-P-08 has no per-destination names: destinations have association names
  per matrix, and 66/67 carry the matrix in the high nibble.

Choices made where the protocol leaves room:
- Names are padded with spaces to their fixed width and cut to it.
- 1E carries two 32-bit big-endian words: the matrix bitmap (matrix m is bit
  m, so matrix 0 is bit 0 of the fourth byte) and the name flags (bit 0:
  source names, bit 1: destination-association names).
- A protect connect (0C/8C) on a destination protected by another device is
  refused: the requester alone gets 0D/8D showing the existing protect (P=1,
  the owner's device). The same device protecting again is accepted. 1D
  takes over any protect.
- A protect disconnect (0E/8E) from a device that does not own the protect is
  refused: the requester alone gets 0F/8F with P=1 and the owner's device. A
  disconnect of an unprotected destination is confirmed to everyone (P=0).
- An unprotected destination reads P=0, device 0. The protect dump word is
  P in bits 14-12, device in bits 9-0, high byte first.
- 16 (byte dump) and every dump message hold at most 64 destinations.
- After a go (79), 7B goes to the requester first; with connected_after_go
  the 04/84 broadcasts follow it.
- A frame without a command byte (BTC 0) is NAKed, as is a DLE followed by
  anything but DLE, STX, ETX, ACK or NAK inside a frame. A request of the
  wrong length for its command is ACKed and ignored.
- Every accepted connect is confirmed with 04/84, even one that changes
  nothing (a repeated request is acted on again).
- A salvo's crosspoint to a protected destination is left out at the go;
  never_confirm concerns 02/82 only.
- 1E goes out at once by default (names_updated_delay holds it back, as the
  routers' 5 s do), and not at start-up.
- Without a second controller, byte 2 of 09 says the idle controller is
  missing (1).
"""

import argparse
import collections
import errno
import os
import select
import signal
import socket
import struct
import sys
import termios
import threading
import time

DLE, STX, ETX, ACK, NAK = 0x10, 0x02, 0x03, 0x06, 0x15
ACK_BYTES = bytes([DLE, ACK])
NAK_BYTES = bytes([DLE, NAK])

MAX_DATA = 255                 # BTC is one byte: a longer DATA field cannot be counted
MAX_PENDING_FRAMES = 4096      # frames queued for one connection; past it the connection is closed
MAX_PENDING_LINK = 64 * 1024   # ACK/NAK bytes not yet written; likewise
MAX_LOGGED = 100000            # requests kept for requests(), oldest dropped first
RECV_SIZE = 4096
POLL = 0.25                    # how often a blocked read or write looks whether its link was closed
ENDLESS_CHUNK = b"\x55" * 4096 # no 0x10 in it, so it reads as data of one frame that never ends
DUMP_MAX = 64                  # destinations per dump message
PROTECTED = 1

# LEN code -> (characters per name, names per message)
NAME_LENGTHS = {0: (4, 32), 1: (8, 16), 2: (12, 10), 3: (16, 8), 4: (32, 7)}
SOURCE_NAMES_FLAG = 0x01
DESTINATION_NAMES_FLAG = 0x02

DUMP_MODES = ("word", "byte", "tallies", "none")
STANDARD, EXTENDED, SALVO, EXTENDED_SALVO = "standard", "extended", "salvo", "extended salvo"

# Command -> (message length, handler, family). The family says which switch
# turns it off: extended, group_salvos, or both.
COMMANDS = {
    0x01: (3, "_interrogate", STANDARD),
    0x02: (4, "_connect", STANDARD),
    0x08: (0, "_dual_status", STANDARD),
    0x0A: (3, "_protect_interrogate", STANDARD),
    0x0C: (4, "_protect_connect", STANDARD),
    0x0E: (4, "_protect_disconnect", STANDARD),
    0x11: (2, "_protect_device_name", STANDARD),
    0x13: (3, "_protect_dump", STANDARD),
    0x15: (1, "_tally_dump", STANDARD),
    0x1D: (6, "_master_protect", STANDARD),
    0x61: (0, "_implementation", STANDARD),
    0x64: (2, "_all_source_names", STANDARD),
    0x65: (4, "_one_source_name", STANDARD),
    0x66: (2, "_all_destination_names", STANDARD),
    0x67: (4, "_one_destination_name", STANDARD),
    0x78: (5, "_salvo_connect", SALVO),
    0x79: (2, "_salvo_go", SALVO),
    0x7C: (2, "_salvo_interrogate", SALVO),
    0x81: (4, "_extended_interrogate", EXTENDED),
    0x82: (6, "_extended_connect", EXTENDED),
    0x8A: (4, "_extended_protect_interrogate", EXTENDED),
    0x8C: (6, "_extended_protect_connect", EXTENDED),
    0x8E: (6, "_extended_protect_disconnect", EXTENDED),
    0x93: (4, "_extended_protect_dump", EXTENDED),
    0x95: (2, "_extended_tally_dump", EXTENDED),
    0xE4: (3, "_extended_all_source_names", EXTENDED),
    0xE5: (5, "_extended_one_source_name", EXTENDED),
    0xE6: (2, "_extended_all_destination_names", EXTENDED),
    0xE7: (4, "_extended_one_destination_name", EXTENDED),
    0xF8: (7, "_extended_salvo_connect", EXTENDED_SALVO),
    0xFC: (3, "_extended_salvo_interrogate", EXTENDED_SALVO),
}

# What the router sends, by family, for 62. The dump replies depend on the dump mode.
TRANSMITTED = {
    0x03: STANDARD, 0x04: STANDARD, 0x09: STANDARD, 0x0B: STANDARD, 0x0D: STANDARD, 0x0F: STANDARD,
    0x12: STANDARD, 0x14: STANDARD, 0x1E: STANDARD, 0x62: STANDARD, 0x6A: STANDARD, 0x6B: STANDARD,
    0x7A: SALVO, 0x7B: SALVO, 0x7D: SALVO,
    0x83: EXTENDED, 0x84: EXTENDED, 0x8B: EXTENDED, 0x8D: EXTENDED, 0x8F: EXTENDED, 0x94: EXTENDED,
    0xEA: EXTENDED, 0xEB: EXTENDED,
    0xFA: EXTENDED_SALVO, 0xFD: EXTENDED_SALVO,
}
DUMP_REPLIES = {"word": (0x17, 0x97), "byte": (0x16, 0x17, 0x97), "tallies": (), "none": ()}


def encode_frame(data):
    """DATA -> the bytes on the wire: BTC and CHK worked out on the unstuffed
    bytes, then every 0x10 of DATA, BTC and CHK doubled, then SOM and EOM."""
    data = bytes(data)
    if len(data) > MAX_DATA:
        raise ValueError("%d data bytes: BTC counts at most %d" % (len(data), MAX_DATA))
    btc = len(data)
    chk = -(sum(data) + btc) & 0xFF
    body = data + bytes([btc, chk])
    return bytes([DLE, STX]) + body.replace(b"\x10", b"\x10\x10") + bytes([DLE, ETX])


class FrameParser:
    """Bytes from a peer in, events out: ("frame", DATA), ("bad", reason) for a
    frame to NAK, ("ack", None), ("nak", None), ("dropped", reason) for a partial
    frame cut off by a new start. A frame that grows past MAX_DATA stops being
    stored and is reported bad at its end, so a peer that never ends its frame
    costs no memory."""

    def __init__(self):
        self._body = None       # unstuffed bytes of the frame being read; None between frames
        self._dle = False       # the last byte was a DLE waiting for its partner
        self._runaway = False   # the frame being read has passed MAX_DATA

    def feed(self, data):
        events = []
        index, end = 0, len(data)
        while index < end:
            if self._dle:
                self._dle = False
                self._pair(data[index], events)
                index += 1
                continue
            if self._body is None or self._runaway:
                # Between frames, or in a frame past its bound: only a DLE pair matters.
                found = data.find(b"\x10", index)
                if found < 0:
                    break
                index = found
            byte = data[index]
            index += 1
            if byte == DLE:
                self._dle = True
            else:
                self._add(byte)
        return events

    def _pair(self, byte, events):
        if byte == STX:
            if self._body is not None:
                events.append(("dropped", "a new frame started before this one ended"))
            self._body, self._runaway = bytearray(), False
        elif byte == ACK:
            events.append(("ack", None))
        elif byte == NAK:
            events.append(("nak", None))
        elif self._body is None:
            pass   # a stray pair between frames is line noise
        elif byte == DLE:
            self._add(DLE)
        elif byte == ETX:
            events.append(self._end())
            self._body = None
        else:
            events.append(("bad", "DLE followed by 0x%02X" % byte))
            self._body = None

    def _add(self, byte):
        if len(self._body) >= MAX_DATA + 2:
            self._runaway = True
        else:
            self._body.append(byte)

    def _end(self):
        body = self._body
        if self._runaway:
            return ("bad", "more than %d data bytes" % MAX_DATA)
        if len(body) < 3:
            return ("bad", "no command byte")
        if sum(body) & 0xFF:
            return ("bad", "checksum")
        if body[-2] != len(body) - 2:
            return ("bad", "byte count %d for %d data bytes" % (body[-2], len(body) - 2))
        return ("frame", bytes(body[:-2]))


class SocketLink:
    """A TCP client. The socket has a short timeout so that a read or write
    blocked on a silent peer sees close() within POLL."""

    kind = "tcp"

    def __init__(self, sock):
        # Without it a reply written just after an ACK waits for the peer's delayed ACK (Nagle).
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        sock.settimeout(POLL)
        self.sock = sock
        self.closing = False
        self.reset = False

    def recv(self):
        while not self.closing:
            try:
                return self.sock.recv(RECV_SIZE)
            except TimeoutError:
                continue
        return b""

    def send(self, data):
        view = memoryview(data)
        while view:
            if self.closing:
                raise OSError(errno.EPIPE, "closed")
            try:
                view = view[self.sock.send(view):]
            except TimeoutError:
                continue

    def shutdown(self, reset=False):
        """Wake the reader; with reset, send nothing now and end with an RST once
        both threads are done (close())."""
        self.closing = True
        self.reset = reset
        try:
            self.sock.shutdown(socket.SHUT_RD if reset else socket.SHUT_RDWR)
        except OSError:
            pass

    def close(self):
        if self.reset:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.sock.close()


def configure_serial(fd):
    """Raw 38400 baud, 8 data bits, no parity, 1 stop bit, no flow control."""
    attrs = termios.tcgetattr(fd)
    attrs[0] = 0                                             # iflag: no translation, no XON/XOFF
    attrs[1] = 0                                             # oflag: no post-processing
    attrs[2] = termios.CS8 | termios.CREAD | termios.CLOCAL  # cflag: 8N1, no modem lines
    attrs[3] = 0                                             # lflag: no echo, not canonical, no signals
    attrs[4] = attrs[5] = termios.B38400
    attrs[6][termios.VMIN] = 1
    attrs[6][termios.VTIME] = 0
    termios.tcsetattr(fd, termios.TCSANOW, attrs)
    termios.tcflush(fd, termios.TCIFLUSH)   # bytes that came while nobody served the line are stale


class SerialLink:
    """A tty served as one client link. Non-blocking, polled, so that close()
    never has to interrupt a thread blocked in the kernel."""

    kind = "serial"

    def __init__(self, path):
        self.path = path
        self.fd = os.open(path, os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)
        try:
            configure_serial(self.fd)
        except BaseException:
            os.close(self.fd)
            raise
        self.closing = False

    def recv(self):
        while not self.closing:
            readable, _, _ = select.select([self.fd], [], [], POLL)
            if not readable:
                continue
            try:
                return os.read(self.fd, RECV_SIZE)
            except BlockingIOError:
                continue
            except OSError as error:
                if error.errno == errno.EIO:   # the other end of a pty went away
                    return b""
                raise
        return b""

    def send(self, data):
        view = memoryview(data)
        while view:
            if self.closing:
                raise OSError(errno.EPIPE, "closed")
            try:
                view = view[os.write(self.fd, view):]
            except BlockingIOError:
                select.select([], [self.fd], [], POLL)

    def shutdown(self, reset=False):
        self.closing = True

    def close(self):
        os.close(self.fd)


class Outgoing:
    """A frame on its way to one connection: its bytes, link bytes to write just
    after its first transmission (reply_before_ack), and its re-send state."""

    def __init__(self, data, trailer=b""):
        self.data = data
        self.trailer = trailer
        self.resends = 0
        self.deadline = 0.0
        self.resend_now = False   # a NAK came for it


RAW = "raw"          # an out item written as it is, no ACK awaited
ENDLESS = "endless"  # an out item: DLE STX, then data bytes until stopped


class Connection:
    """One client link: its transport, the ACK/NAK bytes to write (ahead of
    anything else), the frames and raw writes waiting in order, and the frame
    waiting for its ACK. All of it is guarded by the router's lock; `wake` is
    a condition on that lock for the writer."""

    def __init__(self, number, controller, link, lock):
        self.number = number
        self.controller = controller
        self.link = link
        self.parser = FrameParser()
        self.link_out = bytearray()
        self.out = collections.deque()
        self.inflight = None
        self.endless = False
        self.closed = False
        self.threads_left = 2
        self.wake = threading.Condition(lock)
        self.counters = collections.Counter()


def ml_byte(matrix, level):
    return (matrix & 0x0F) << 4 | (level & 0x0F)


def split_ml(byte):
    return byte >> 4, byte & 0x0F


def standard_number(mu_bits, low):
    """A number split at 128: DIV 128 from three bits of MU, MOD 128 from the low 7 bits of its byte."""
    return (mu_bits & 0x07) * 128 + (low & 0x7F)


def word(number):
    return [number >> 8 & 0xFF, number & 0xFF]


def needs_extended(matrix, level, *numbers):
    return matrix > 15 or level > 15 or any(number > 1023 for number in numbers)


class Level:
    """One (matrix, level): counts, tally (dest -> source), protects (dest ->
    (device, P)) and source names."""

    def __init__(self, sources, destinations):
        if sources < 1 or destinations < 0 or sources > 65536 or destinations > 65536:
            raise ValueError("a level needs 1-65536 sources and 0-65536 destinations")
        self.sources = sources
        self.destinations = destinations
        self.tally = [dest % sources for dest in range(destinations)]
        self.protects = {}
        self.names = ["SRC %d" % (source + 1) for source in range(sources)]


class Controller:
    def __init__(self, name, port):
        self.name = name
        self.port = port
        self.listener = None
        self.accepting = None


class Swp08Router:
    """An SW-P-08 router serving on 127.0.0.1 (and on serial lines). See the
    module's docstring for the switches."""

    def __init__(self, levels=None, port=0, port2=0, dual=False, dumps="word", group_salvos=True,
                 implementation=True, extended=True, interrogate_reply="03", short_extended=False,
                 wait_for_ack=True, reply_before_ack=False, resend_timeout=1.0, max_resends=5,
                 protect_blocks_connects=True, connected_after_go=False, names_updated_delay=0.0,
                 idle_controller_status=None, max_connections=16):
        if levels is None:
            levels = {(0, 0): (32, 32), (0, 1): (32, 32)}
        for (matrix, level) in levels:
            if not (0 <= matrix <= 255 and 0 <= level <= 255):
                raise ValueError("matrix and level are 0-255")
        if dumps not in DUMP_MODES:
            raise ValueError("dumps is one of %s" % ", ".join(DUMP_MODES))
        if interrogate_reply not in ("03", "04"):
            raise ValueError('interrogate_reply is "03" or "04"')
        self.levels = dict(levels)
        self.dual = dual
        self.dumps = dumps
        self.group_salvos = group_salvos
        self.implementation = implementation
        self.extended = extended
        self.interrogate_reply = interrogate_reply
        self.short_extended = short_extended
        self.wait_for_ack = wait_for_ack
        self.reply_before_ack = reply_before_ack
        self.resend_timeout = resend_timeout
        self.max_resends = max_resends
        self.protect_blocks_connects = protect_blocks_connects
        self.connected_after_go = connected_after_go
        self.names_updated_delay = names_updated_delay
        self.idle_controller_status = idle_controller_status
        self.max_connections = max_connections
        self.withhold_acks = False
        self.nak_everything = False
        self.never_confirm = False
        self._lock = threading.RLock()
        self._changed = threading.Condition(self._lock)
        self._controllers = [Controller("A", port)] + ([Controller("B", port2)] if dual else [])
        self._connections = {}
        self._log = collections.deque(maxlen=MAX_LOGGED)
        self._totals = collections.Counter()
        self._next_number = 1
        self._threads = []
        self._serial_paths = []
        self._sends = None
        self._names_timer = None
        self._running = False
        self._reset_state()

    # ----- running -----

    @property
    def port(self):
        return self._controllers[0].port

    @property
    def port2(self):
        """The second controller's port (None without dual)."""
        return self._controllers[1].port if self.dual else None

    def start(self, port=None, port2=None):
        """Listen on 127.0.0.1 (0: a free port), both controllers' ports with
        dual, and serve on background threads. Returns the first port."""
        wanted = [port, port2]
        listeners = []
        try:
            for controller, chosen in zip(self._controllers, wanted):
                listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
                listeners.append(listener)
                # restart() binds the same port again while old connections sit in TIME_WAIT.
                listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                listener.bind(("127.0.0.1", controller.port if chosen is None else chosen))
                listener.listen(16)
        except BaseException:
            for listener in listeners:
                listener.close()
            raise
        with self._lock:
            self._running = True
            for index, (controller, listener) in enumerate(zip(self._controllers, listeners)):
                controller.port = listener.getsockname()[1]
                controller.listener = listener
                controller.accepting = threading.Thread(target=self._accept_until_closed,
                                                        args=(listener, index), daemon=True)
                controller.accepting.start()
        return self.port

    def stop(self):
        """Close the listeners, every connection and the serial links, and wait
        for the threads."""
        with self._lock:
            self._running = False
            controllers = [c for c in self._controllers if c.listener is not None]
            listeners = [(c, c.listener) for c in controllers]
            for controller in controllers:
                controller.listener = None
            if self._names_timer is not None:
                self._names_timer.cancel()
                self._names_timer = None
        for controller, listener in listeners:
            try:
                listener.shutdown(socket.SHUT_RDWR)   # wakes accept() on Linux
            except OSError:
                pass
            listener.close()
            controller.accepting.join()
        with self._lock:
            for connection in list(self._connections.values()):
                self._close(connection)
        for thread in self._threads:
            thread.join(5)
        self._threads = []

    def restart(self, reset=False):
        """Close everything, then listen again on the same port(s) and reopen the
        serial lines: a router that rebooted. State is kept unless `reset`,
        which restores the state it was built with (and controller A active)."""
        with self._lock:
            paths = list(self._serial_paths)
        self.stop()
        if reset:
            with self._lock:
                self._reset_state()
        self.start()
        for path, controller in paths:
            self.serve_serial(path, controller)

    def serve_serial(self, device_path, controller=0):
        """Open a tty (raw, 38400 8N1) and serve it as one client link of the
        given controller (0 = A). Returns the connection's number."""
        link = SerialLink(device_path)
        with self._lock:
            self._serial_paths = [(p, c) for p, c in self._serial_paths if p != device_path]
            self._serial_paths.append((device_path, controller))
            return self._admit(link, controller).number

    def close_serial(self, device_path=None):
        """Close the router's end of a serial line (all of them by default)."""
        with self._lock:
            for connection in list(self._connections.values()):
                if connection.link.kind == "serial" and device_path in (None, connection.link.path):
                    self._close(connection)
            self._serial_paths = [(p, c) for p, c in self._serial_paths
                                  if device_path is not None and p != device_path]
            self._changed.notify_all()

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.stop()

    # ----- state, read and set as a panel would -----

    def tally(self, matrix, level, dest):
        with self._lock:
            state = self._level_or_raise(matrix, level)
            self._check(dest, state.destinations, "destination")
            return state.tally[dest]

    def tallies(self, matrix, level):
        """The source each destination carries, by destination."""
        with self._lock:
            return list(self._level_or_raise(matrix, level).tally)

    def set_crosspoint(self, matrix, level, dest, source):
        """Route as a front panel would (protects do not stop a panel): every
        connection of the active controller gets 04 (84 when a number needs it)."""
        with self._lock:
            state = self._level_or_raise(matrix, level)
            self._check(dest, state.destinations, "destination")
            self._check(source, state.sources, "source")
            state.tally[dest] = source
            self._broadcast(self._crosspoint(0x04, matrix, level, dest, source, False))
            self._changed.notify_all()

    def protect_of(self, matrix, level, dest):
        """(device, P) of a protected destination, or None."""
        with self._lock:
            state = self._level_or_raise(matrix, level)
            self._check(dest, state.destinations, "destination")
            return state.protects.get(dest)

    def set_protect(self, matrix, level, dest, device, state=PROTECTED):
        """Protect as another panel would (over any protect): 0D to every connection."""
        with self._lock:
            level_state = self._level_or_raise(matrix, level)
            self._check(dest, level_state.destinations, "destination")
            self._check(device, 65536, "device")
            level_state.protects[dest] = (device, state)
            self._broadcast(self._protect_frame(0x0D, matrix, level, dest, state, device, False))
            self._changed.notify_all()

    def clear_protect(self, matrix, level, dest):
        """Remove any protect as another panel would: 0F (P=0, the former owner) to every connection."""
        with self._lock:
            state = self._level_or_raise(matrix, level)
            self._check(dest, state.destinations, "destination")
            device, _ = state.protects.pop(dest, (0, 0))
            self._broadcast(self._protect_frame(0x0F, matrix, level, dest, 0, device, False))
            self._changed.notify_all()

    def source_names(self, matrix, level):
        with self._lock:
            return list(self._level_or_raise(matrix, level).names)

    def set_source_name(self, matrix, level, source, text):
        """Rename a source; connections of the active controller get 1E."""
        with self._lock:
            state = self._level_or_raise(matrix, level)
            self._check(source, state.sources, "source")
            state.names[source] = text
            self._names_changed(matrix, SOURCE_NAMES_FLAG)

    def destination_names(self, matrix):
        """The destination-association names of a matrix."""
        with self._lock:
            if matrix not in self._dest_names:
                raise IndexError("no matrix %d" % matrix)
            return list(self._dest_names[matrix])

    def set_destination_name(self, matrix, dest, text):
        """Rename a destination association; connections of the active controller get 1E."""
        with self._lock:
            if matrix not in self._dest_names:
                raise IndexError("no matrix %d" % matrix)
            self._check(dest, len(self._dest_names[matrix]), "destination")
            self._dest_names[matrix][dest] = text
            self._names_changed(matrix, DESTINATION_NAMES_FLAG)

    def salvo(self, number):
        """The crosspoints stored in a salvo group: [(matrix, level, dest, source)]."""
        with self._lock:
            return [key + (value[0],) for key, value in self._salvos.get(number, {}).items()]

    def active_controller(self):
        """0 for A, 1 for B."""
        with self._lock:
            return self._active

    def changeover(self, notify=True):
        """The idle controller becomes the active one. With notify, both send an
        unsolicited 09 to their connections; without, the one going idle resets
        all its connections without a word and the new active one says nothing."""
        if not self.dual:
            raise RuntimeError("changeover needs dual=True")
        with self._lock:
            going_idle = self._active
            self._active = 1 - self._active
            if notify:
                for connection in self._connections.values():
                    self._queue_frame(connection, encode_frame(self._dual_status_frame(connection.controller)))
            else:
                for connection in list(self._connections.values()):
                    if connection.controller == going_idle:
                        self._close(connection, reset=True)
            self._changed.notify_all()

    # ----- observation -----

    def connections(self, controller=None):
        """The numbers of the connections open now, oldest first; of one
        controller (0 = A, 1 = B) if given."""
        with self._lock:
            return sorted(number for number, connection in self._connections.items()
                          if controller is None or connection.controller == controller)

    def requests(self, connection=None):
        """The well-formed frames received, in order: all of them as
        (connection, command, message bytes), or one connection's as
        (command, message bytes). A NAKed frame is not among them."""
        with self._lock:
            if connection is None:
                return list(self._log)
            return [(command, message) for number, command, message in self._log if number == connection]

    def counters(self, connection=None):
        """Link counters, totals over every connection so far or one open
        connection's: acks_received, naks_received, acks_sent, naks_sent,
        frames_received, bad_frames, dropped_frames, frames_sent, resends,
        given_up (frames abandoned after max_resends re-sends)."""
        with self._lock:
            if connection is None:
                return collections.Counter(self._totals)
            target = self._connections.get(connection)
            return collections.Counter(target.counters) if target else collections.Counter()

    def wait_for(self, predicate, timeout=2.0):
        """Wait until predicate() holds; it is checked whenever a frame, an ACK
        or NAK, a re-send, a connection or a disconnection happens. Returns its
        last value."""
        with self._changed:
            return self._changed.wait_for(predicate, timeout)

    # ----- misbehaviour -----

    def drop_connections(self):
        """Close every client connection now (serial lines too)."""
        with self._lock:
            for connection in list(self._connections.values()):
                self._close(connection)

    def send_raw(self, data, connection=None):
        """Write bytes as they are, in order with the frames queued, to one
        connection (by number) or to all; no ACK is awaited."""
        with self._lock:
            for target in self._targets(connection):
                self._queue(target, (RAW, bytes(data)))

    def send_garbage(self, data, connection=None):
        self.send_raw(data, connection)

    def send_frame(self, data, connection=None):
        """Frame any DATA (known command or not) and send it like any reply:
        it waits for its ACK and is re-sent. Nothing in the state changes."""
        with self._lock:
            for target in self._targets(connection):
                self._queue_frame(target, encode_frame(data))

    def endless_frame(self, connection=None):
        """DLE STX, then data bytes with no DLE ETX, until stop_endless_frame()
        or the peer closes. ACK/NAK owed meanwhile go out inside it; frames
        wait behind it."""
        with self._lock:
            for target in self._targets(connection):
                self._queue(target, (ENDLESS, bytes([DLE, STX])))

    def stop_endless_frame(self):
        """Stop the endless frame where it is; no DLE ETX ends it."""
        with self._lock:
            for target in self._connections.values():
                target.endless = False
                target.out = collections.deque(item for item in target.out if item[0] != ENDLESS)

    def flood(self, frames=1000, connection=None):
        """`frames` valid 04 frames in one write, without waiting for ACKs: the
        current tallies of the first level, destination after destination.
        Nothing changes."""
        with self._lock:
            matrix, level = min(self._levels)
            state = self._levels[(matrix, level)]
            count = max(state.destinations, 1)
            data = b"".join(
                encode_frame(self._crosspoint(0x04, matrix, level, dest % count,
                                              state.tally[dest % count] if state.destinations else 0, False))
                for dest in range(frames))
            for target in self._targets(connection):
                self._queue(target, (RAW, data))

    # ----- connections -----

    def _accept_until_closed(self, listener, controller):
        while True:
            try:
                sock, _ = listener.accept()
            except OSError:
                return
            with self._lock:
                tcp = [c for c in self._connections.values()
                       if c.controller == controller and c.link.kind == "tcp"]
                if not self._running or len(tcp) >= self.max_connections:
                    sock.close()
                    continue
                self._admit(SocketLink(sock), controller)

    def _admit(self, link, controller):
        connection = Connection(self._next_number, controller, link, self._lock)
        self._next_number += 1
        self._connections[connection.number] = connection
        self._threads = [thread for thread in self._threads if thread.is_alive()]
        for job in (self._read_until_closed, self._write_until_closed):
            thread = threading.Thread(target=job, args=(connection,), daemon=True)
            thread.start()
            self._threads.append(thread)
        self._changed.notify_all()
        return connection

    def _close(self, connection, reset=False):
        """Mark closed and wake both threads; the last one to finish closes the link."""
        if connection.closed:
            return
        connection.closed = True
        connection.endless = False
        connection.link.shutdown(reset)
        connection.wake.notify_all()
        self._changed.notify_all()

    def _thread_done(self, connection):
        connection.threads_left -= 1
        if connection.threads_left == 0:
            try:
                connection.link.close()
            except OSError:
                pass

    def _read_until_closed(self, connection):
        try:
            while True:
                data = connection.link.recv()
                if not data:
                    break
                events = connection.parser.feed(data)
                with self._lock:
                    if connection.closed:
                        break   # dropped: what was read after that is not acted on
                    for event in events:
                        self._on_event(connection, event)
                        if connection.closed:
                            break
                    self._changed.notify_all()
        except OSError:
            pass
        finally:
            with self._lock:
                self._close(connection)
                self._connections.pop(connection.number, None)
                self._thread_done(connection)
                self._changed.notify_all()

    def _write_until_closed(self, connection):
        try:
            while True:
                with self._lock:
                    data = self._next_write(connection)
                if data is None:
                    break
                connection.link.send(data)
        except OSError:
            pass
        finally:
            with self._lock:
                self._close(connection)
                self._thread_done(connection)

    def _next_write(self, connection):
        """What the writer sends next, waiting until there is something; None
        once closed. ACK/NAK go first, then the endless frame if on, then the
        frame waiting for its ACK (re-sent when due), then the queue."""
        while not connection.closed:
            if connection.link_out:
                data = bytes(connection.link_out)
                connection.link_out.clear()
                return data
            if connection.endless:
                return ENDLESS_CHUNK
            now = time.monotonic()
            inflight = connection.inflight
            if inflight is not None:
                if inflight.resend_now or now >= inflight.deadline:
                    if inflight.resends >= self.max_resends:
                        connection.inflight = None
                        self._count(connection, "given_up")
                        continue
                    inflight.resends += 1
                    inflight.resend_now = False
                    inflight.deadline = now + self.resend_timeout
                    self._count(connection, "resends")
                    return inflight.data
                connection.wake.wait(inflight.deadline - now)
                continue
            if connection.out:
                kind, data, *trailer = connection.out.popleft()
                if kind == ENDLESS:
                    connection.endless = True
                    return data
                if kind == RAW:
                    return data
                outgoing = trailer[0]
                self._count(connection, "frames_sent")
                if self.wait_for_ack:
                    outgoing.deadline = now + self.resend_timeout
                    connection.inflight = outgoing
                return outgoing.data + outgoing.trailer
            connection.wake.wait()
        return None

    def _targets(self, number):
        if number is None:
            return list(self._connections.values())
        return [self._connections[number]] if number in self._connections else []

    def _count(self, connection, key, amount=1):
        connection.counters[key] += amount
        self._totals[key] += amount
        self._changed.notify_all()

    def _queue(self, connection, item):
        if connection.closed:
            return
        if len(connection.out) >= MAX_PENDING_FRAMES:
            self._close(connection)   # a peer that never ACKs or reads is closed, not buffered for
            return
        connection.out.append(item)
        connection.wake.notify_all()

    def _queue_frame(self, connection, data, trailer=b""):
        self._queue(connection, ("frame", data, Outgoing(data, trailer)))

    def _link(self, connection, data):
        if connection.closed:
            return
        if len(connection.link_out) >= MAX_PENDING_LINK:
            self._close(connection)
            return
        connection.link_out += data
        self._count(connection, "acks_sent" if data == ACK_BYTES else "naks_sent")
        connection.wake.notify_all()

    # ----- link events -----

    def _on_event(self, connection, event):
        kind, value = event
        if kind == "ack":
            self._count(connection, "acks_received")
            if connection.inflight is not None:
                connection.inflight = None
                connection.wake.notify_all()
        elif kind == "nak":
            self._count(connection, "naks_received")
            if connection.inflight is not None:
                connection.inflight.resend_now = True
                connection.wake.notify_all()
        elif kind == "dropped":
            self._count(connection, "dropped_frames")
        elif kind == "bad":
            self._count(connection, "bad_frames")
            if not self.withhold_acks:
                self._link(connection, NAK_BYTES)
        else:
            self._on_frame(connection, value)

    def _on_frame(self, connection, data):
        command, message = data[0], data[1:]
        self._log.append((connection.number, command, message))
        self._count(connection, "frames_received")
        if self.nak_everything:
            if not self.withhold_acks:
                self._link(connection, NAK_BYTES)
            return
        self._sends = []
        try:
            self._dispatch(connection, command, message)
            sends = self._sends
        finally:
            self._sends = None
        answer = None if self.withhold_acks else ACK_BYTES
        trailers = {}
        if answer and self.reply_before_ack:
            for index, (target, _) in enumerate(sends):
                if target is connection:
                    trailers[index], answer = ACK_BYTES, None
                    self._count(connection, "acks_sent")
                    break
        if answer:
            self._link(connection, answer)
        for index, (target, frame) in enumerate(sends):
            self._queue_frame(target, encode_frame(frame), trailers.get(index, b""))

    def _reply(self, connection, data):
        self._sends.append((connection, data))

    def _broadcast(self, data):
        """To every connection of the active controller."""
        targets = [c for c in self._connections.values() if c.controller == self._active and not c.closed]
        for target in targets:
            if self._sends is not None:
                self._sends.append((target, data))
            else:
                self._queue_frame(target, encode_frame(data))

    def _dispatch(self, connection, command, message):
        if connection.controller != self._active:
            # The idle controller answers only the status request.
            if command == 0x08 and not message:
                self._dual_status(connection, message)
            return
        entry = COMMANDS.get(command)
        if entry is None:
            return
        length, handler, family = entry
        if not self._family_on(family) or len(message) != length:
            return
        getattr(self, handler)(connection, message)

    def _family_on(self, family):
        if family in (EXTENDED, EXTENDED_SALVO) and not self.extended:
            return False
        if family in (SALVO, EXTENDED_SALVO) and not self.group_salvos:
            return False
        return True

    # ----- state helpers -----

    def _reset_state(self):
        self._levels = {key: Level(*counts) for key, counts in self.levels.items()}
        self._dest_names = {}
        for (matrix, _), state in self._levels.items():
            count = max(len(self._dest_names.get(matrix, [])), state.destinations)
            self._dest_names[matrix] = ["DST %d" % (dest + 1) for dest in range(count)]
        self._salvos = {}
        self._active = 0
        self._pending_names = [0, 0]

    def _level_or_raise(self, matrix, level):
        state = self._levels.get((matrix, level))
        if state is None:
            raise IndexError("no matrix %d level %d" % (matrix, level))
        return state

    @staticmethod
    def _check(index, count, what):
        # A negative index would quietly pick an entry from the end of a list.
        if not 0 <= index < count:
            raise IndexError("no %s %d (there are %d)" % (what, index, count))

    def _destination(self, matrix, level, dest):
        """The level if it exists and has that destination, else None."""
        state = self._levels.get((matrix, level))
        return state if state is not None and dest < state.destinations else None

    def _crosspoint(self, command, matrix, level, dest, source, extended):
        """03/04 (or 83/84): the standard layout unless asked for or needed."""
        if extended or needs_extended(matrix, level, dest, source):
            data = [command | 0x80, matrix, level] + word(dest) + word(source)
            return bytes(data if self.short_extended else data + [0])
        mu = (dest // 128) << 4 | (source // 128)
        return bytes([command, ml_byte(matrix, level), mu, dest % 128, source % 128])

    def _protect_frame(self, command, matrix, level, dest, state, device, extended):
        """0B/0D/0F (or 8B/8D/8F). P comes before MU; MU's low bits carry the device DIV 128."""
        if extended or needs_extended(matrix, level, dest, device):
            return bytes([command | 0x80, matrix, level, state] + word(dest) + word(device))
        mu = (dest // 128) << 4 | (device // 128)
        return bytes([command, ml_byte(matrix, level), state, mu, dest % 128, device % 128])

    def _dual_status_frame(self, controller):
        status = self.idle_controller_status
        if status is None:
            status = 0 if self.dual else 1
        flags = (1 if self._active == 1 else 0) | (2 if controller == self._active else 0)
        return bytes([0x09, flags, status])

    def _names_changed(self, matrix, flag):
        if matrix < 32:
            self._pending_names[0] |= 1 << matrix
        self._pending_names[1] |= flag
        if self._names_timer is not None:
            self._names_timer.cancel()
            self._names_timer = None
        if self.names_updated_delay <= 0:
            self._send_names_updated()
        else:
            self._names_timer = threading.Timer(self.names_updated_delay, self._send_names_updated)
            self._names_timer.daemon = True
            self._names_timer.start()

    def _send_names_updated(self):
        with self._lock:
            matrices, flags = self._pending_names
            self._pending_names = [0, 0]
            self._names_timer = None
            if matrices or flags:
                self._broadcast(bytes([0x1E]) + struct.pack(">II", matrices, flags))
            self._changed.notify_all()

    # ----- commands: crosspoints -----

    def _interrogate(self, connection, message):
        matrix, level = split_ml(message[0])
        self._answer_interrogate(connection, matrix, level, standard_number(message[1] >> 4, message[2]), False)

    def _extended_interrogate(self, connection, message):
        matrix, level, dest_high, dest_low = message
        self._answer_interrogate(connection, matrix, level, dest_high << 8 | dest_low, True)

    def _answer_interrogate(self, connection, matrix, level, dest, extended):
        state = self._destination(matrix, level, dest)
        if state is None:
            return
        command = 0x04 if self.interrogate_reply == "04" else 0x03
        self._reply(connection, self._crosspoint(command, matrix, level, dest, state.tally[dest], extended))

    def _connect(self, connection, message):
        matrix, level = split_ml(message[0])
        dest = standard_number(message[1] >> 4, message[2])
        source = standard_number(message[1], message[3])   # bit 3 of MU is a status flag: masked off
        self._apply_connect(matrix, level, dest, source, False)

    def _extended_connect(self, connection, message):
        matrix, level, dest_high, dest_low, source_high, source_low = message
        self._apply_connect(matrix, level, dest_high << 8 | dest_low, source_high << 8 | source_low, True)

    def _connect_allowed(self, state, dest, source):
        if source >= state.sources:
            return False
        return not (self.protect_blocks_connects and dest in state.protects)

    def _apply_connect(self, matrix, level, dest, source, extended):
        state = self._destination(matrix, level, dest)
        if state is None or self.never_confirm or not self._connect_allowed(state, dest, source):
            return
        state.tally[dest] = source
        self._broadcast(self._crosspoint(0x04, matrix, level, dest, source, extended))

    def _tally_dump(self, connection, message):
        matrix, level = split_ml(message[0])
        self._answer_tally_dump(connection, matrix, level, False)

    def _extended_tally_dump(self, connection, message):
        self._answer_tally_dump(connection, message[0], message[1], True)

    def _answer_tally_dump(self, connection, matrix, level, extended):
        state = self._levels.get((matrix, level))
        if state is None or self.dumps == "none":
            return
        tally = state.tally
        if self.dumps == "tallies":
            for dest, source in enumerate(tally):
                self._reply(connection, self._crosspoint(0x03, matrix, level, dest, source, extended))
            return
        byte_dump = (self.dumps == "byte" and not extended and state.destinations <= 192
                     and all(source <= 191 for source in tally))
        for first in range(0, state.destinations, DUMP_MAX):
            sources = tally[first:first + DUMP_MAX]
            if byte_dump:
                self._reply(connection, bytes([0x16, ml_byte(matrix, level), len(sources), first] + sources))
            elif extended:
                self._reply(connection, bytes([0x97, matrix, level, len(sources)] + word(first) +
                                              [byte for source in sources for byte in word(source)]))
            else:
                self._reply(connection, bytes([0x17, ml_byte(matrix, level), len(sources)] + word(first) +
                                              [byte for source in sources for byte in word(source)]))

    # ----- commands: protects -----

    def _protect_interrogate(self, connection, message):
        matrix, level = split_ml(message[0])
        self._answer_protect(connection, matrix, level, standard_number(message[1] >> 4, message[2]), False)

    def _extended_protect_interrogate(self, connection, message):
        matrix, level, dest_high, dest_low = message
        self._answer_protect(connection, matrix, level, dest_high << 8 | dest_low, True)

    def _answer_protect(self, connection, matrix, level, dest, extended):
        state = self._destination(matrix, level, dest)
        if state is None:
            return
        device, protect = state.protects.get(dest, (0, 0))
        self._reply(connection, self._protect_frame(0x0B, matrix, level, dest, protect, device, extended))

    @staticmethod
    def _standard_protect_fields(message):
        """ML, MU, d%128, dev%128 -> matrix, level, dest, device."""
        matrix, level = split_ml(message[0])
        return matrix, level, standard_number(message[1] >> 4, message[2]), standard_number(message[1], message[3])

    @staticmethod
    def _extended_protect_fields(message):
        """M, L, dH, dL, devH, devL -> matrix, level, dest, device."""
        return message[0], message[1], message[2] << 8 | message[3], message[4] << 8 | message[5]

    def _protect_connect(self, connection, message):
        self._apply_protect(connection, *self._standard_protect_fields(message), extended=False)

    def _extended_protect_connect(self, connection, message):
        self._apply_protect(connection, *self._extended_protect_fields(message), extended=True)

    def _master_protect(self, connection, message):
        # 1D: matrix and level in bytes of their own and 16-bit numbers, answered with 0D.
        self._apply_protect(connection, *self._extended_protect_fields(message), extended=False, master=True)

    def _apply_protect(self, connection, matrix, level, dest, device, extended, master=False):
        state = self._destination(matrix, level, dest)
        if state is None:
            return
        current = state.protects.get(dest)
        if current is not None and current[0] != device and not master:
            owner, protect = current
            self._reply(connection, self._protect_frame(0x0D, matrix, level, dest, protect, owner, extended))
            return
        state.protects[dest] = (device, PROTECTED)
        self._broadcast(self._protect_frame(0x0D, matrix, level, dest, PROTECTED, device, extended))

    def _protect_disconnect(self, connection, message):
        self._remove_protect(connection, *self._standard_protect_fields(message), extended=False)

    def _extended_protect_disconnect(self, connection, message):
        self._remove_protect(connection, *self._extended_protect_fields(message), extended=True)

    def _remove_protect(self, connection, matrix, level, dest, device, extended):
        state = self._destination(matrix, level, dest)
        if state is None:
            return
        current = state.protects.get(dest)
        if current is not None and current[0] != device:
            owner, protect = current
            self._reply(connection, self._protect_frame(0x0F, matrix, level, dest, protect, owner, extended))
            return
        state.protects.pop(dest, None)
        self._broadcast(self._protect_frame(0x0F, matrix, level, dest, 0, device, extended))

    def _protect_dump(self, connection, message):
        matrix, level = split_ml(message[0])
        self._answer_protect_dump(connection, matrix, level, message[1] << 8 | message[2], False)

    def _extended_protect_dump(self, connection, message):
        matrix, level, dest_high, dest_low = message
        self._answer_protect_dump(connection, matrix, level, dest_high << 8 | dest_low, True)

    def _answer_protect_dump(self, connection, matrix, level, start, extended):
        state = self._destination(matrix, level, start)
        if state is None:
            return
        for first in range(start, state.destinations, DUMP_MAX):
            words = []
            for dest in range(first, min(first + DUMP_MAX, state.destinations)):
                device, protect = state.protects.get(dest, (0, 0))
                words += word((protect & 0x07) << 12 | (device & 0x3FF))
            count = len(words) // 2
            if extended:
                self._reply(connection, bytes([0x94, matrix, level, count] + word(first) + words))
            else:
                self._reply(connection, bytes([0x14, ml_byte(matrix, level), count] + word(first) + words))

    def _protect_device_name(self, connection, message):
        device = standard_number(message[0], message[1])
        name = ("DEV %d" % device).encode("ascii").ljust(8)[:8]
        self._reply(connection, bytes([0x12, device // 128, device % 128]) + name)

    # ----- commands: names -----

    def _all_source_names(self, connection, message):
        matrix, level = split_ml(message[0])
        self._answer_source_names(connection, matrix, level, message[1], 0, None, False)

    def _one_source_name(self, connection, message):
        matrix, level = split_ml(message[0])
        self._answer_source_names(connection, matrix, level, message[1], message[2] << 8 | message[3], 1, False)

    def _extended_all_source_names(self, connection, message):
        matrix, level, length = message
        self._answer_source_names(connection, matrix, level, length, 0, None, True)

    def _extended_one_source_name(self, connection, message):
        matrix, level, length, source_high, source_low = message
        self._answer_source_names(connection, matrix, level, length, source_high << 8 | source_low, 1, True)

    def _all_destination_names(self, connection, message):
        # The matrix sits in the high nibble; the low one is unused.
        self._answer_destination_names(connection, message[0] >> 4, message[1], 0, None, False)

    def _one_destination_name(self, connection, message):
        self._answer_destination_names(connection, message[0] >> 4, message[1],
                                       message[2] << 8 | message[3], 1, False)

    def _extended_all_destination_names(self, connection, message):
        matrix, length = message
        self._answer_destination_names(connection, matrix, length, 0, None, True)

    def _extended_one_destination_name(self, connection, message):
        matrix, length, dest_high, dest_low = message
        self._answer_destination_names(connection, matrix, length, dest_high << 8 | dest_low, 1, True)

    def _answer_source_names(self, connection, matrix, level, length, first, count, extended):
        state = self._levels.get((matrix, level))
        if state is None or length not in NAME_LENGTHS or first >= state.sources:
            return
        for start, names in self._name_chunks(state.names, length, first, count):
            if extended:
                header = [0xEA, matrix, level, length] + word(start) + [len(names)]
            else:
                header = [0x6A, ml_byte(matrix, level), length] + word(start) + [len(names)]
            self._reply(connection, bytes(header) + b"".join(names))

    def _answer_destination_names(self, connection, matrix, length, first, count, extended):
        names = self._dest_names.get(matrix)
        if names is None or length not in NAME_LENGTHS or first >= len(names):
            return
        for start, chunk in self._name_chunks(names, length, first, count):
            if extended:
                header = [0xEB, matrix, length] + word(start) + [len(chunk)]
            else:
                header = [0x6B, ml_byte(matrix, 0), length] + word(start) + [len(chunk)]
            self._reply(connection, bytes(header) + b"".join(chunk))

    @staticmethod
    def _name_chunks(names, length, first, count):
        """(first number, [fixed-width names]) per message: cut to the width,
        padded with spaces, as many per message as the length allows."""
        width, per_message = NAME_LENGTHS[length]
        end = len(names) if count is None else first + count
        fields = [name.encode("ascii", "replace")[:width].ljust(width) for name in names[first:end]]
        return [(first + offset, fields[offset:offset + per_message])
                for offset in range(0, len(fields), per_message)]

    # ----- commands: salvos -----

    def _salvo_connect(self, connection, message):
        ml, mu, dest_low, source_low, number = message
        matrix, level = split_ml(ml)
        dest, source = standard_number(mu >> 4, dest_low), standard_number(mu, source_low)
        if self._store_salvo(matrix, level, dest, source, number, False):
            mu = (dest // 128) << 4 | (source // 128)   # bit 3 is 0 in the ack
            self._reply(connection, bytes([0x7A, ml, mu, dest % 128, source % 128, number]))

    def _extended_salvo_connect(self, connection, message):
        number = message[6]
        matrix, level, dest, source = self._extended_protect_fields(message[:6])
        if self._store_salvo(matrix, level, dest, source, number, True):
            self._reply(connection, bytes([0xFA]) + bytes(message))

    def _store_salvo(self, matrix, level, dest, source, number, extended):
        state = self._destination(matrix, level, dest)
        if state is None or source >= state.sources or number > 127:
            return False
        self._salvos.setdefault(number, {})[(matrix, level, dest)] = (source, extended)
        return True

    def _salvo_go(self, connection, message):
        operation, number = message
        if operation not in (0, 1) or number > 127:
            return
        group = self._salvos.pop(number, None)
        if not group:
            self._reply(connection, bytes([0x7B, 2, number]))   # nothing to set or clear
            return
        self._reply(connection, bytes([0x7B, operation, number]))
        if operation == 1:
            return
        for (matrix, level, dest), (source, extended) in group.items():
            state = self._levels[(matrix, level)]
            if not self._connect_allowed(state, dest, source):
                continue
            state.tally[dest] = source
            if self.connected_after_go:
                self._broadcast(self._crosspoint(0x04, matrix, level, dest, source, extended))

    def _salvo_entry(self, number, index):
        """(matrix, level, dest, source, validity): 00 more follow, 01 the last, 02 none there."""
        entries = list(self._salvos.get(number, {}).items())
        if index >= len(entries):
            return 0, 0, 0, 0, 2
        (matrix, level, dest), (source, _) = entries[index]
        return matrix, level, dest, source, 1 if index == len(entries) - 1 else 0

    def _salvo_interrogate(self, connection, message):
        number, index = message
        matrix, level, dest, source, validity = self._salvo_entry(number, index)
        mu = (dest // 128 & 0x07) << 4 | (source // 128 & 0x07)
        self._reply(connection, bytes([0x7D, ml_byte(matrix, level), mu, dest % 128, source % 128,
                                       number, index, validity]))

    def _extended_salvo_interrogate(self, connection, message):
        number, index_high, index_low = message
        matrix, level, dest, source, validity = self._salvo_entry(number, index_high << 8 | index_low)
        self._reply(connection, bytes([0xFD, matrix, level] + word(dest) + word(source) +
                                      [number, index_high, index_low, validity]))

    # ----- commands: status -----

    def _dual_status(self, connection, message):
        self._reply(connection, self._dual_status_frame(connection.controller))

    def _implementation(self, connection, message):
        if not self.implementation:
            return
        transmitted, accepted = self.implemented()
        self._reply(connection, bytes([0x62, len(transmitted), len(accepted)] + transmitted + accepted))

    def implemented(self):
        """([codes transmitted], [codes accepted]) as 62 lists them, ascending:
        what the switches leave on."""
        with self._lock:
            accepted = [command for command, (_, _, family) in COMMANDS.items() if self._family_on(family)]
            transmitted = [command for command, family in TRANSMITTED.items() if self._family_on(family)]
            if self.dumps == "none":
                accepted = [command for command in accepted if command not in (0x15, 0x95)]
            transmitted += [command for command in DUMP_REPLIES[self.dumps]
                            if self.extended or command < 0x80]
            if not self.implementation:
                accepted.remove(0x61)
                transmitted.remove(0x62)
            return sorted(transmitted), sorted(accepted)


def main(argv=None):
    parser = argparse.ArgumentParser(description="An SW-P-08 router on 127.0.0.1 for leitch-routerd's gateway.")
    parser.add_argument("--port", type=int, default=8910, help="0 picks a free port (default 8910)")
    parser.add_argument("--dual", action="store_true", help="a second controller, idle at start, sharing the state")
    parser.add_argument("--port2", type=int, default=0, help="the second controller's port (default: a free one)")
    parser.add_argument("--matrix-levels", type=int, default=2, help="matrix 0 with levels 0..N-1 (default 2)")
    parser.add_argument("--sources", type=int, default=32, help="sources per level (default 32)")
    parser.add_argument("--destinations", type=int, default=32, help="destinations per level (default 32)")
    parser.add_argument("--serial", metavar="DEVICE", help="also serve this tty (raw, 38400 8N1) as a client link")
    parser.add_argument("--dumps", choices=DUMP_MODES, default="word",
                        help="answer to a tally dump request: word (17), byte (16), tallies (03s) or none")
    parser.add_argument("--no-salvos", action="store_true", help="no group salvos (78-7D, F8-FD)")
    parser.add_argument("--no-extended", action="store_true", help="no extended commands (8x, 9x, Ex, Fx)")
    parser.add_argument("--no-implementation", action="store_true", help="61 is ACKed and not answered")
    parser.add_argument("--interrogate-reply", choices=("03", "04"), default="03",
                        help="the reply to an interrogate (default 03)")
    parser.add_argument("--short-extended", action="store_true", help="83/84 without the status byte")
    parser.add_argument("--reply-before-ack", action="store_true", help="a reply goes out before its request's ACK")
    parser.add_argument("--connected-after-go", action="store_true", help="a salvo go also broadcasts 04s")
    parser.add_argument("--resend-timeout", type=float, default=1.0, help="seconds to wait for an ACK (default 1)")
    args = parser.parse_args(argv)
    levels = {(0, level): (args.sources, args.destinations) for level in range(args.matrix_levels)}
    router = Swp08Router(
        levels=levels, port=args.port, port2=args.port2, dual=args.dual, dumps=args.dumps,
        group_salvos=not args.no_salvos, implementation=not args.no_implementation,
        extended=not args.no_extended, interrogate_reply=args.interrogate_reply,
        short_extended=args.short_extended, reply_before_ack=args.reply_before_ack,
        connected_after_go=args.connected_after_go, resend_timeout=args.resend_timeout)
    # Blocked before any thread starts, so the threads inherit the mask and sigwait() gets them.
    stop_signals = {signal.SIGINT, signal.SIGTERM}
    signal.pthread_sigmask(signal.SIG_BLOCK, stop_signals)
    port = router.start()
    print("swp08 fixture listening on 127.0.0.1:%d" % port, flush=True)
    if args.dual:
        print("swp08 fixture second controller on 127.0.0.1:%d" % router.port2, flush=True)
    if args.serial:
        router.serve_serial(args.serial)
        print("swp08 fixture serving serial %s" % args.serial, flush=True)
    signal.sigwait(stop_signals)
    router.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
