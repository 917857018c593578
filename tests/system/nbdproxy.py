"""A proxy that stands between NBD clients and the server and keeps every change with its data.

It hands on what comes as it comes. Each change has two numbers of one clock: when it was about to
be sent, and when its answer was about to be handed back. So one that was answered before another
was sent came first, and of two that overlap in time either may have.
"""

import os
import socket
import struct
import threading

READ, WRITE, DISCONNECT, FLUSH, TRIM, CACHE, ZERO, STATUS = range(8)
REQUEST_MAGIC = 0x25609513
SIMPLE_MAGIC = 0x67446698
STRUCTURED_MAGIC = 0x668E33EF
FUA = 1
DONE = 1  # the flag of a structured reply's last chunk


class Request:
    """A write, a zeroing (also by trim), or a flush."""
    __slots__ = ("op", "offset", "length", "data", "durable", "sent", "answered", "error")

    def __init__(self, op, offset, length, data, durable, sent):
        self.op, self.offset, self.length, self.data = op, offset, length, data
        self.durable, self.sent = durable, sent
        self.answered = None  # None: never
        self.error = 0

    @property
    def is_change(self):
        return self.op != FLUSH and self.length > 0


class Closed(Exception):
    pass


def receive(connection, count):
    data = bytearray(count)
    view = memoryview(data)
    done = 0
    while done < count:
        got = connection.recv_into(view[done:])
        if got == 0:
            raise Closed()
        done += got
    return data


class Proxy:
    """Listens on a Unix socket until it is closed."""

    def __init__(self, path, server_path):
        self.path, self.server_path = path, server_path
        self.lock = threading.Lock()
        self.clock = 0
        self.requests = []
        self.connections = []
        if os.path.exists(path):
            os.unlink(path)
        self.listening = socket.socket(socket.AF_UNIX)
        self.listening.bind(path)
        self.listening.listen(64)
        threading.Thread(target=self.accept, daemon=True).start()

    def close(self):
        self.listening.close()
        with self.lock:
            connections, self.connections = self.connections, []
        for one in connections:
            try:
                one.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def tick(self):
        self.clock += 1
        return self.clock

    def accept(self):
        while True:
            try:
                client, _ = self.listening.accept()
            except OSError:
                return
            server = socket.socket(socket.AF_UNIX)
            try:
                server.connect(self.server_path)
            except OSError:
                client.close()
                continue
            with self.lock:
                self.connections += [client, server]
            pending = {}  # cookie -> (op, length, Request or None)
            for body in (self.forward, self.back):
                threading.Thread(target=self.guarded, args=(body, client, server, pending),
                                 daemon=True).start()

    @staticmethod
    def guarded(body, client, server, pending):
        try:
            body(client, server, pending)
        except (Closed, OSError):
            pass
        for one in (client, server):
            try:
                one.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def forward(self, client, server, pending):
        server.sendall(receive(client, 4))  # the client's flags
        while True:
            start = receive(client, 4)
            if start != b"IHAV":
                break
            header = receive(client, 12)
            length = struct.unpack_from(">I", header, 8)[0]
            server.sendall(start + header + receive(client, length))
        while True:
            header = start + receive(client, 24)
            magic, flags, op, cookie, offset, length = struct.unpack(">IHHQQI", header)
            if magic != REQUEST_MAGIC:
                raise Closed()
            data = bytes(receive(client, length)) if op == WRITE else b""
            with self.lock:
                request = None
                if op in (WRITE, TRIM, ZERO, FLUSH):
                    request = Request(op, offset, length, data, bool(flags & FUA), self.tick())
                    self.requests.append(request)
                pending[cookie] = (op, length, request)
            server.sendall(header)
            if data:
                server.sendall(data)
            start = receive(client, 4)

    def back(self, client, server, pending):
        client.sendall(receive(server, 18))
        while True:
            start = receive(server, 4)
            if start != b"\x00\x03\xe8\x89":
                break
            header = receive(server, 16)
            length = struct.unpack_from(">I", header, 12)[0]
            client.sendall(start + header + receive(server, length))
        while True:
            magic = struct.unpack(">I", start)[0]
            if magic == SIMPLE_MAGIC:
                header = receive(server, 12)
                error, cookie = struct.unpack(">IQ", header)
                op, length, _ = pending[cookie]
                data = receive(server, length) if op == READ and error == 0 else b""
                self.answered(pending, cookie, error)
            elif magic == STRUCTURED_MAGIC:
                header = receive(server, 16)
                flags, kind, cookie, length = struct.unpack(">HHQI", header)
                data = receive(server, length)
                error = struct.unpack_from(">I", data)[0] if kind & 0x8000 else 0
                if flags & DONE or error:
                    self.answered(pending, cookie, error, bool(flags & DONE))
            else:
                raise Closed()
            client.sendall(start + header + data)
            start = receive(server, 4)

    def answered(self, pending, cookie, error, is_last=True):
        with self.lock:
            request = (pending.pop(cookie) if is_last else pending[cookie])[2]
            if request is not None:
                request.answered = self.tick()
                request.error = request.error or error

    def now(self):
        """A moment between what was and what will be."""
        with self.lock:
            return self.tick()
