"""A raw client of a Videohub server (the fixture router, the npm mockup), for
tests that pin what the server sends byte for byte."""

import socket
import struct


class VideohubClient:
    """A client connection that reads exact byte counts or up to a marker;
    a read that waits longer than `timeout` raises socket.timeout."""

    def __init__(self, port, host="127.0.0.1", timeout=2.0):
        self.sock = socket.create_connection((host, port), timeout=timeout)
        self.pending = b""

    def send(self, data):
        self.sock.sendall(data)

    def _receive(self):
        data = self.sock.recv(1 << 20)
        if not data:
            raise EOFError("the server closed the connection; had %r" % self.pending[-200:])
        self.pending += data

    def read(self, count):
        while len(self.pending) < count:
            self._receive()
        data, self.pending = self.pending[:count], self.pending[count:]
        return data

    def read_until(self, marker):
        while marker not in self.pending:
            self._receive()
        end = self.pending.index(marker) + len(marker)
        data, self.pending = self.pending[:end], self.pending[end:]
        return data

    def read_dump(self):
        """The dump of a server that ends it with END PRELUDE."""
        return self.read_until(b"END PRELUDE:\n\n")

    def is_closed_by_peer(self):
        """True once the server closes (data still in flight is dropped); False on a timeout."""
        try:
            while self.sock.recv(1 << 20):
                pass
            return True
        except ConnectionResetError:
            return True
        except socket.timeout:
            return False

    def reset(self):
        """Close with a TCP reset rather than a FIN."""
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.sock.close()

    def close(self):
        self.sock.close()
