#!/usr/bin/env python3
"""A Videohub router on loopback, standing in for the real hardware that
leitch-routerd's gateway mode drives over the Videohub Ethernet protocol.

As a program, in front of leitch-routerd:

    python3 tests/support/videohub_router.py --port 9990 --inputs 12 --outputs 12

It prints "videohub fixture listening on 127.0.0.1:PORT" once it listens
(--port 0 picks a free port) and serves until SIGINT or SIGTERM. --help lists
the switches (monitoring outputs, END PRELUDE or not, lock blocks first).

As a library, in a test:

    from videohub_router import VideohubRouter
    router = VideohubRouter(inputs=12, outputs=12)
    port = router.start()              # 127.0.0.1, a free port
    router.set_route(7, 2)             # as the front panel would: every client is told
    router.stall_acks = True           # misbehaviour, switched while it runs
    router.stop()

The state (routes, labels, locks and their owners) is read and set through
methods that hold the fixture's lock. Connections are numbered from 1 in the
order they arrive; a lock's owner is a connection's number, or PANEL for a lock
set through set_lock() that no client owns. Every request block is kept, raw,
in a log (requests()).

Protocol facts it relies on: blocks are a header line, item lines and an empty
line; indices are 0-based on the wire; a change is sent to every client as one
block holding only the items that changed; a lock reads O to its owner, L to
everyone else and U when free. Ownership is per TCP connection.
"""

import argparse
import collections
import re
import signal
import socket
import sys
import threading
import queue

MAX_LINE = 64 * 1024           # a longer request line closes its connection
MAX_BLOCK = 1024 * 1024        # and so does a longer request block
MAX_PENDING_WRITES = 4096      # a client that never reads is closed, not buffered for
MAX_LOGGED = 100000            # request blocks kept for requests(), oldest dropped first
ENDLESS_CHUNK = b"x" * 65536
ENDLESS = object()             # in a connection's writes: the endless line goes here
PANEL = "panel"                # owner of a lock no connection holds

ACK = b"ACK\n\n"
NAK = b"NAK\n\n"

# Header -> the table it names. The monitoring headers differ in shape on purpose:
# that is how the units spell them.
ROUTING = {"VIDEO OUTPUT ROUTING:": "video", "VIDEO MONITORING OUTPUT ROUTING:": "monitoring"}
LOCKS = {"VIDEO OUTPUT LOCKS:": "video", "MONITORING OUTPUT LOCKS:": "monitoring"}
LABELS = {"INPUT LABELS:": "input", "OUTPUT LABELS:": "output", "MONITORING OUTPUT LABELS:": "monitoring"}
ROUTING_HEADER = {level: header for header, level in ROUTING.items()}
LOCKS_HEADER = {level: header for header, level in LOCKS.items()}
LABELS_HEADER = {kind: header for header, kind in LABELS.items()}
OUTPUTS_OF = {"video": "output", "monitoring": "monitoring"}   # level -> the count of its outputs
LABEL_PREFIX = {"input": "Input", "output": "Output", "monitoring": "Monitoring output"}

# Ten digits are enough for any index and keep int() clear of Python's limit on long numbers.
ROUTE_ITEM = re.compile(r"(\d{1,10}) (\d{1,10})")
LOCK_ITEM = re.compile(r"(\d{1,10}) ([OUF])")
LABEL_ITEM = re.compile(r"(\d{1,10}) (.*)")   # the text is everything after the first space


def block(header, lines):
    """A block as sent: header, items, and the empty line that ends it; LF only."""
    text = header + "\n" + "".join(line + "\n" for line in lines) + "\n"
    return text.encode("utf-8", "surrogateescape")


def level_of(monitoring):
    return "monitoring" if monitoring else "video"


def check_index(index, count, what):
    # A negative index would quietly pick a port from the end of the table.
    if not 0 <= index < count:
        raise IndexError("no %s %d (there are %d)" % (what, index, count))


def read_blocks(sock):
    """The request blocks arriving on `sock`, as (raw bytes, lines). A trailing
    CR is taken off each line so CR LF works like LF. Empty lines between
    blocks are skipped. Ends at end of stream, or at a line or block over the
    bounds (the caller then closes the connection)."""
    pending, raw, lines = b"", bytearray(), []
    while True:
        data = sock.recv(65536)
        if not data:
            return
        *complete, pending = (pending + data).split(b"\n")
        if len(pending) > MAX_LINE:
            return
        for line in complete:
            if len(line) > MAX_LINE:
                return
            raw += line
            raw += b"\n"
            text = line[:-1] if line.endswith(b"\r") else line
            if text:
                lines.append(text.decode("utf-8", "surrogateescape"))
            elif lines:
                yield bytes(raw), lines
                raw, lines = bytearray(), []
            else:
                raw.clear()
            if len(raw) > MAX_BLOCK:
                return


class Connection:
    """One client: its socket, the writes waiting for it (each one sendall of
    whole blocks, in the order queued) and whether the endless line is on."""

    def __init__(self, number, sock):
        self.number = number
        self.sock = sock
        self.writes = queue.Queue(MAX_PENDING_WRITES)
        self.endless = threading.Event()
        self.closed = False

    def send(self, data):
        if self.closed:
            return
        try:
            self.writes.put_nowait(data)
        except queue.Full:
            self.close()

    def close(self):
        """Close now. shutdown() wakes the reader's recv and fails the writer's
        sendall; the writer closes the socket once the reader has finished."""
        self.closed = True
        self.endless.clear()
        try:
            self.sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass

    def write_until_closed(self):
        # Drain until the reader's None even after a failure, so its put() never blocks.
        while (data := self.writes.get()) is not None:
            if self.closed:
                continue
            try:
                if data is ENDLESS:
                    self.send_endless_line()
                else:
                    self.sock.sendall(data)
            except OSError:
                self.close()
        self.sock.close()

    def send_endless_line(self):
        while self.endless.is_set():
            self.sock.sendall(ENDLESS_CHUNK)


class VideohubRouter:
    """A Videohub router serving on 127.0.0.1. Constructor arguments and the
    attributes of the same names are its switches; the misbehaviour switches
    (stall_acks, stall_changes) and the answer switches may be flipped while
    it runs."""

    def __init__(self, inputs=12, outputs=12, monitoring_outputs=0, port=0, version="2.8",
                 model_name="Videohub fixture", prelude_end=True, locks_first=False,
                 echo_unchanged=False, nak_unknown=True, drop_locks_on_disconnect=True,
                 max_connections=16):
        self.port = port
        self.version = version
        self.model_name = model_name
        self.prelude_end = prelude_end              # END PRELUDE (and CONFIGURATION) ends the dump
        self.locks_first = locks_first              # lock blocks before routing, as 2.7/2.8 units send
        self.echo_unchanged = echo_unchanged        # report requested items even when nothing changed
        self.nak_unknown = nak_unknown              # NAK an unknown header; else say nothing
        self.drop_locks_on_disconnect = drop_locks_on_disconnect
        self.max_connections = max_connections
        self.stall_acks = False                     # no ACK or NAK at all
        self.stall_changes = False                  # requests are answered but change nothing
        self._initial = (inputs, outputs, monitoring_outputs)
        self._lock = threading.RLock()
        self._changed = threading.Condition(self._lock)
        self._connections = {}
        self._log = collections.deque(maxlen=MAX_LOGGED)
        self._next_number = 1
        self._listener = None
        self._accepting = None
        self._threads = []
        self._reset_state()

    def start(self, port=None):
        """Listen on 127.0.0.1 (port 0: a free one) and serve on background
        threads. Returns the port, also kept in self.port."""
        listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        # restart() binds the same port again while old connections sit in TIME_WAIT.
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind(("127.0.0.1", self.port if port is None else port))
        listener.listen(16)
        self.port = listener.getsockname()[1]
        with self._lock:
            self._listener = listener
        self._accepting = threading.Thread(target=self._accept_until_closed, args=(listener,), daemon=True)
        self._accepting.start()
        return self.port

    def stop(self):
        """Close the listener and every connection, and wait for the threads."""
        with self._lock:
            listener, self._listener = self._listener, None
        if listener is None:
            return
        try:
            listener.shutdown(socket.SHUT_RDWR)   # wakes accept() on Linux
        except OSError:
            pass
        listener.close()
        self._accepting.join()
        self.drop_connections()
        for thread in self._threads:
            thread.join(5)
        self._threads = []

    def restart(self, reset=False):
        """Close everything, then listen again on the same port: a router that
        rebooted. State is kept unless `reset`, which restores the state it
        was built with."""
        self.stop()
        if reset:
            with self._lock:
                self._reset_state()
        self.start()

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.stop()

    def counts(self):
        """{"input": n, "output": n, "monitoring": n}."""
        with self._lock:
            return dict(self._counts)

    def routes(self, monitoring=False):
        """The input each output carries, by output index."""
        with self._lock:
            return list(self._routes[level_of(monitoring)])

    def set_route(self, output, input, monitoring=False):
        """Route as the front panel would: every client is told if it changed."""
        with self._lock:
            level = level_of(monitoring)
            routes = self._routes[level]
            check_index(output, len(routes), "output")
            check_index(input, self._counts["input"], "input")
            changed = routes[output] != input
            routes[output] = input
            if changed or self.echo_unchanged:
                self._broadcast(self._constant(self._routing_block(level, [output])))

    def labels(self, kind="input"):
        """kind: "input", "output" or "monitoring"."""
        with self._lock:
            return list(self._labels[kind])

    def set_label(self, kind, port, text):
        with self._lock:
            labels = self._labels[kind]
            check_index(port, len(labels), kind)
            changed = labels[port] != text
            labels[port] = text
            if changed or self.echo_unchanged:
                self._broadcast(self._constant(self._labels_block(kind, [port])))

    def locks(self, monitoring=False):
        """{output: owner} for the locked outputs; owner is a connection's number or PANEL."""
        with self._lock:
            return dict(self._locks[level_of(monitoring)])

    def set_lock(self, output, owner=PANEL, monitoring=False):
        """Lock `output` for `owner` (a connection's number or PANEL), or free it
        with owner None; every client is told, each in its own view."""
        with self._lock:
            level = level_of(monitoring)
            check_index(output, self._outputs(level), "output")
            locks = self._locks[level]
            changed = locks.get(output) != owner
            self._set_owner(locks, output, owner)
            if changed or self.echo_unchanged:
                self._broadcast(self._lock_update(level, [output]))

    def connections(self):
        """The numbers of the connections open now, oldest first."""
        with self._lock:
            return sorted(self._connections)

    def requests(self, connection=None):
        """The request blocks received, raw (line ends as sent, the empty line
        included), in order: all of them as (connection, bytes), or one
        connection's as bytes."""
        with self._lock:
            if connection is None:
                return list(self._log)
            return [raw for number, raw in self._log if number == connection]

    def wait_for(self, predicate, timeout=2.0):
        """Wait until predicate() holds; it is checked whenever a request, a
        connection or a disconnection arrives. Returns its last value."""
        with self._changed:
            return self._changed.wait_for(predicate, timeout)

    def drop_connections(self):
        """Close every client connection now."""
        with self._lock:
            connections = list(self._connections.values())
        for connection in connections:
            connection.close()

    def send_raw(self, data, connection=None):
        """Send bytes as they are, to one connection (by number) or to all."""
        with self._lock:
            for target in self._targets(connection):
                target.send(bytes(data))

    def send_garbage(self, data):
        self.send_raw(data)

    def send_block(self, header, lines=(), connection=None):
        """Send any block, known or not, without changing any state."""
        self.send_raw(block(header, list(lines)), connection)

    def endless_line(self, connection=None):
        """Send an LF-less line of x's until stop_endless_line() or the peer
        closes. Writes queued meanwhile wait behind it."""
        with self._lock:
            for target in self._targets(connection):
                target.endless.set()
                target.send(ENDLESS)

    def stop_endless_line(self):
        """Stop the endless line where it is; no LF ends it."""
        with self._lock:
            for target in self._connections.values():
                target.endless.clear()

    def device_present(self, present):
        """True, False or "needs_update". While not present, clients get the
        VIDEOHUB DEVICE block saying so and nothing else; on becoming present
        again they get every block but the preamble."""
        with self._lock:
            was, self._present = self._present, present
            if present is not True:
                self._broadcast(lambda viewer: self._device_block())
            elif was is not True:
                self._broadcast(lambda viewer: self._dump(viewer, preamble=False))

    def change_counts(self, inputs, outputs, monitoring_outputs=None):
        """Resize, keeping what fits, then send every block but the preamble,
        as a different device would."""
        with self._lock:
            if monitoring_outputs is None:
                monitoring_outputs = self._counts["monitoring"]
            self._resize(inputs, outputs, monitoring_outputs)
            if self._present is True:
                self._broadcast(lambda viewer: self._dump(viewer, preamble=False))

    def absurd_counts(self, count=4000000000):
        """Announce a VIDEOHUB DEVICE block with `count` inputs and outputs; the
        state does not change."""
        with self._lock:
            self._broadcast(self._constant(self._device_block(count, count, 0)))

    def _accept_until_closed(self, listener):
        while True:
            try:
                sock, _ = listener.accept()
            except OSError:
                return
            self._admit(sock)

    def _admit(self, sock):
        with self._lock:
            if len(self._connections) >= self.max_connections:
                sock.close()   # no dump: the client sees the connection closed at once
                return
            # Without it the update written just after an ACK waits for the
            # peer's delayed ACK (Nagle), some 40 ms a request.
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            connection = Connection(self._next_number, sock)
            self._next_number += 1
            self._connections[connection.number] = connection
            connection.send(self._dump(connection))
            self._threads = [thread for thread in self._threads if thread.is_alive()]
            for job in (lambda: self._read_until_closed(connection), connection.write_until_closed):
                thread = threading.Thread(target=job, daemon=True)
                thread.start()
                self._threads.append(thread)
            self._changed.notify_all()

    def _read_until_closed(self, connection):
        try:
            for raw, lines in read_blocks(connection.sock):
                if connection.closed:
                    break   # dropped: blocks already received are not acted on
                self._handle(connection, raw, lines[0], lines[1:])
        except OSError:
            pass
        finally:
            connection.close()
            connection.writes.put(None)
            self._forget(connection)

    def _forget(self, connection):
        with self._lock:
            del self._connections[connection.number]
            if self.drop_locks_on_disconnect:
                for level, locks in self._locks.items():
                    held = [port for port, owner in locks.items() if owner == connection.number]
                    for port in held:
                        del locks[port]
                    self._broadcast(self._lock_update(level, held))
            self._changed.notify_all()

    def _targets(self, connection):
        if connection is None:
            return list(self._connections.values())
        return [self._connections[connection]] if connection in self._connections else []

    def _broadcast(self, update):
        """Send every connection its own rendering of an update (None: nothing)."""
        if update is None:
            return
        for connection in self._connections.values():
            connection.send(update(connection))

    def _handle(self, connection, raw, header, items):
        # One lock around log, change and sends: every client sees changes in
        # the same order, and a request's ACK is queued before its update.
        with self._lock:
            self._log.append((connection.number, raw))
            answer, reply, update = self._answer(connection, header, items)
            if answer is not None and not self.stall_acks:
                connection.send(answer + reply)
            elif reply:
                connection.send(reply)
            self._broadcast(update)
            self._changed.notify_all()

    def _answer(self, connection, header, items):
        """(ACK, NAK or None for silence; bytes for the requester only; the update for everyone)."""
        if header == "PING:":
            return ACK, b"", None
        if header not in self._dump_headers() or header == "END PRELUDE:":
            return (NAK if self.nak_unknown else None), b"", None
        if self._present is not True:
            return NAK, b"", None   # no device to change or to read
        if self.stall_changes:
            return ACK, b"", None
        if not items:
            return ACK, self._render(header, connection), None
        if header in ROUTING:
            return self._take(connection, ROUTING[header], items)
        if header in LABELS:
            return self._relabel(LABELS[header], items)
        if header in LOCKS:
            return self._lock_request(connection, LOCKS[header], items)
        return NAK, b"", None   # preamble, device, configuration: nothing there can be set

    def _take(self, connection, level, items):
        """Apply each well-formed, in-range line whose output is not locked by
        someone else; the rest are left out. NAK only when none applied."""
        routes = self._routes[level]
        before = {}
        for item in items:
            match = ROUTE_ITEM.fullmatch(item)
            if not match:
                continue
            output, input = int(match[1]), int(match[2])
            if output >= len(routes) or input >= self._counts["input"]:
                continue
            if self._locks[level].get(output) not in (None, connection.number):
                continue
            before.setdefault(output, routes[output])
            routes[output] = input
        changed = [output for output in before if self.echo_unchanged or routes[output] != before[output]]
        update = self._routing_block(level, changed) if changed else None
        return (ACK if before else NAK), b"", self._constant(update)

    def _relabel(self, kind, items):
        labels = self._labels[kind]
        before = {}
        for item in items:
            match = LABEL_ITEM.fullmatch(item)
            if not match or int(match[1]) >= len(labels):
                continue
            port = int(match[1])
            before.setdefault(port, labels[port])
            labels[port] = match[2]
        changed = [port for port in before if self.echo_unchanged or labels[port] != before[port]]
        update = self._labels_block(kind, changed) if changed else None
        return (ACK if before else NAK), b"", self._constant(update)

    def _lock_request(self, connection, level, items):
        """O takes a free or own lock, U frees a free or own lock, F frees any."""
        locks = self._locks[level]
        before = {}
        for item in items:
            match = LOCK_ITEM.fullmatch(item)
            if not match or int(match[1]) >= self._outputs(level):
                continue
            port, action = int(match[1]), match[2]
            if action != "F" and locks.get(port) not in (None, connection.number):
                continue
            before.setdefault(port, locks.get(port))
            self._set_owner(locks, port, connection.number if action == "O" else None)
        changed = [port for port in before if self.echo_unchanged or locks.get(port) != before[port]]
        return (ACK if before else NAK), b"", self._lock_update(level, changed)

    def _reset_state(self):
        self._present = True
        self._counts = {}
        self._labels = {"input": [], "output": [], "monitoring": []}
        self._routes = {"video": [], "monitoring": []}
        self._locks = {"video": {}, "monitoring": {}}
        self._resize(*self._initial)

    def _resize(self, inputs, outputs, monitoring_outputs):
        """New counts, keeping labels, routes and locks that still fit. New
        outputs carry input (output mod inputs); labels default to the chassis
        number, which is the wire index plus one."""
        if inputs < 1 or outputs < 0 or monitoring_outputs < 0:
            raise ValueError("a router needs an input, and no negative counts")
        self._counts = {"input": inputs, "output": outputs, "monitoring": monitoring_outputs}
        for kind, labels in self._labels.items():
            kept = labels[:self._counts[kind]]
            self._labels[kind] = kept + ["%s %d" % (LABEL_PREFIX[kind], port + 1)
                                         for port in range(len(kept), self._counts[kind])]
        for level in self._routes:
            count = self._outputs(level)
            kept = [input if input < inputs else output % inputs
                    for output, input in enumerate(self._routes[level][:count])]
            self._routes[level] = kept + [output % inputs for output in range(len(kept), count)]
            self._locks[level] = {port: owner for port, owner in self._locks[level].items() if port < count}

    def _outputs(self, level):
        return self._counts[OUTPUTS_OF[level]]

    @staticmethod
    def _set_owner(locks, port, owner):
        if owner is None:
            locks.pop(port, None)
        else:
            locks[port] = owner

    def _dump_headers(self):
        """The blocks of the dump, in the order sent."""
        monitoring = self._counts["monitoring"] > 0
        labels = ["INPUT LABELS:", "OUTPUT LABELS:"] + (["MONITORING OUTPUT LABELS:"] if monitoring else [])
        routing = ["VIDEO OUTPUT ROUTING:"] + (["VIDEO MONITORING OUTPUT ROUTING:"] if monitoring else [])
        locks = ["VIDEO OUTPUT LOCKS:"] + (["MONITORING OUTPUT LOCKS:"] if monitoring else [])
        tables = locks + routing if self.locks_first else routing + locks
        ending = ["CONFIGURATION:", "END PRELUDE:"] if self.prelude_end else []
        return ["PROTOCOL PREAMBLE:", "VIDEOHUB DEVICE:"] + labels + tables + ending

    def _dump(self, viewer, preamble=True):
        headers = self._dump_headers() if self._present is True else ["PROTOCOL PREAMBLE:", "VIDEOHUB DEVICE:"]
        return b"".join(self._render(header, viewer) for header in headers[0 if preamble else 1:])

    def _render(self, header, viewer):
        """A whole block as `viewer` sees it."""
        if header in LABELS:
            return self._labels_block(LABELS[header], range(len(self._labels[LABELS[header]])))
        if header in ROUTING:
            return self._routing_block(ROUTING[header], range(len(self._routes[ROUTING[header]])))
        if header in LOCKS:
            return self._locks_block(LOCKS[header], range(self._outputs(LOCKS[header])), viewer)
        if header == "PROTOCOL PREAMBLE:":
            return block(header, ["Version: " + self.version])
        if header == "VIDEOHUB DEVICE:":
            return self._device_block()
        if header == "CONFIGURATION:":
            return block(header, ["Take Mode: false"])
        return block(header, [])

    def _device_block(self, inputs=None, outputs=None, monitoring_outputs=None):
        if self._present is not True and inputs is None:
            return block("VIDEOHUB DEVICE:", ["Device present: " + str(self._present).lower()])
        return block("VIDEOHUB DEVICE:", [
            "Device present: true",
            "Model name: " + self.model_name,
            "Video inputs: %d" % (self._counts["input"] if inputs is None else inputs),
            "Video processing units: 0",
            "Video outputs: %d" % (self._counts["output"] if outputs is None else outputs),
            "Video monitoring outputs: %d" % (self._counts["monitoring"] if monitoring_outputs is None
                                              else monitoring_outputs),
            "Serial ports: 0",
        ])

    def _routing_block(self, level, outputs):
        return block(ROUTING_HEADER[level], ["%d %d" % (output, self._routes[level][output]) for output in outputs])

    def _labels_block(self, kind, ports):
        return block(LABELS_HEADER[kind], ["%d %s" % (port, self._labels[kind][port]) for port in ports])

    def _locks_block(self, level, outputs, viewer):
        locks = self._locks[level]

        def view(output):
            owner = locks.get(output)
            return "U" if owner is None else "O" if owner == viewer.number else "L"
        return block(LOCKS_HEADER[level], ["%d %s" % (output, view(output)) for output in outputs])

    def _lock_update(self, level, outputs):
        if not outputs:
            return None
        outputs = list(outputs)
        return lambda viewer: self._locks_block(level, outputs, viewer)

    @staticmethod
    def _constant(data):
        """An update that reads the same to every client (None stays None)."""
        return None if data is None else (lambda viewer: data)


def main(argv=None):
    parser = argparse.ArgumentParser(description="A Videohub router on 127.0.0.1 for leitch-routerd's gateway.")
    parser.add_argument("--port", type=int, default=9990, help="0 picks a free port (default 9990)")
    parser.add_argument("--inputs", type=int, default=12)
    parser.add_argument("--outputs", type=int, default=12)
    parser.add_argument("--monitoring-outputs", type=int, default=0)
    parser.add_argument("--prelude-end", action=argparse.BooleanOptionalAction, default=True,
                        help="end the dump with CONFIGURATION and END PRELUDE (--no-prelude-end: v2.3 style)")
    parser.add_argument("--locks-first", action="store_true", help="lock blocks before routing blocks")
    parser.add_argument("--protocol-version", default="2.8")
    parser.add_argument("--model-name", default="Videohub fixture")
    parser.add_argument("--keep-locks", action="store_true", help="locks outlive their connection")
    parser.add_argument("--echo-unchanged", action="store_true", help="report requested items even if unchanged")
    parser.add_argument("--silent-unknown", action="store_true", help="no NAK for unknown headers")
    args = parser.parse_args(argv)
    router = VideohubRouter(
        inputs=args.inputs, outputs=args.outputs, monitoring_outputs=args.monitoring_outputs,
        port=args.port, version=args.protocol_version, model_name=args.model_name,
        prelude_end=args.prelude_end, locks_first=args.locks_first, echo_unchanged=args.echo_unchanged,
        nak_unknown=not args.silent_unknown, drop_locks_on_disconnect=not args.keep_locks)
    # Blocked before any thread starts, so the threads inherit the mask and sigwait() gets them.
    stop_signals = {signal.SIGINT, signal.SIGTERM}
    signal.pthread_sigmask(signal.SIG_BLOCK, stop_signals)
    port = router.start()
    print("videohub fixture listening on 127.0.0.1:%d" % port, flush=True)
    signal.sigwait(stop_signals)
    router.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
