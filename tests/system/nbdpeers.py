"""Clients for tests of a server under strain: one that may stop at any byte, one that behaves while
others do not, and what the server takes of memory."""

import random
import socket
import struct
import threading
import time

from nbdproxy import REQUEST_MAGIC
from nbdsupport import connect
from support import FAR_END, Failure, check


def memory_kib(process, what):
    with open("/proc/%d/status" % process.pid, encoding="ascii") as file:
        for line in file:
            if line.startswith(what + ":"):
                return int(line.split()[1])
    raise Failure("no " + what)


class RawClient:
    """Speaks just enough of the protocol to stop at any byte of it."""

    def __init__(self, path, export="live"):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(FAR_END)
        self.socket.connect(path)
        self.export = export.encode()

    def negotiate(self):
        check(self.receive(18)[:8] == b"NBDMAGIC", "no NBD server")
        data = struct.pack(">I", len(self.export)) + self.export + struct.pack(">H", 0)
        self.socket.sendall(struct.pack(">I8sII", 3, b"IHAVEOPT", 7, len(data)) + data)
        while True:
            kind, length = struct.unpack(">12xII", self.receive(20))
            self.receive(length)
            if kind == 1:
                return self
            check(kind == 3, "the export is refused")

    def receive(self, count):
        data = b""
        while len(data) < count:
            part = self.socket.recv(count - len(data))
            check(part, "the server hung up")
            data += part
        return data

    def request(self, op, offset, length, cookie=1, magic=REQUEST_MAGIC):
        return struct.pack(">IHHQQI", magic, 0, op, cookie, offset, length)

    def close(self):
        self.socket.close()


class Others(threading.Thread):
    """A well-behaved client beside the others: how long its requests take, and what it reads."""

    def __init__(self, server, offset):
        super().__init__()
        self.handle = connect(server)
        self.offset = offset
        self.ending = threading.Event()
        self.slowest = 0.0
        self.rounds = 0
        self.failure = None

    def run(self):
        import nbd  # pylint: disable=import-outside-toplevel
        chance = random.Random(3)
        try:
            while not self.ending.is_set():
                data = chance.randbytes(4096)
                at = self.offset + chance.randrange(64) * 4096
                started = time.monotonic()
                self.handle.pwrite(data, at)
                found = self.handle.pread(4096, at)
                self.slowest = max(self.slowest, time.monotonic() - started)
                self.rounds += 1
                if found != data:
                    self.failure = "reads something else than it wrote"
                    return
        except nbd.Error as error:
            self.failure = str(error)

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, kind, *_):
        self.ending.set()
        self.join()
        if kind is None:
            check(self.failure is None, "another client: %s" % self.failure)
            check(self.rounds > 0, "another client was not served at all")
            check(self.slowest < 60, "another client waited %.1f s" % self.slowest)
            self.handle.shutdown()
