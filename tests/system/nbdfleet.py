"""Several connections to one export from one thread, each with many requests in flight, which
records what it sends: a client that knows of every change whether and when it was answered."""

import errno
import select

import nbd

from nbdproxy import FLUSH, WRITE, ZERO, Request
from nbdsupport import connect
from support import FAR_END, Failure

# The connection went, or the server refused as it was ending: no answer to the request itself.
NO_ANSWER = (errno.ENOTCONN, errno.ESHUTDOWN)


class Fleet:
    """requests: what was sent, in that order, with the moments of the clock that Order wants."""

    def __init__(self, server, connections=4, depth=8, first_tick=0):
        self.handles = [connect(server) for _ in range(connections)]
        self.in_flight = [[] for _ in self.handles]
        self.depth = depth
        self.clock = first_tick
        self.requests = []
        self.next = 0

    def tick(self):
        self.clock += 1
        return self.clock

    def send(self, op, offset=0, length=0, data=b"", durable=False):
        """Sends one on the next connection, as soon as there is room on it."""
        index = self.next
        self.next = (index + 1) % len(self.handles)
        while len(self.in_flight[index]) >= self.depth:
            self.step()
        handle = self.handles[index]
        request = Request(op, offset, length, data, durable, self.tick())
        self.requests.append(request)
        self.in_flight[index].append(request)

        def done(error):
            self.in_flight[index].remove(request)
            if error.value not in NO_ANSWER:
                request.answered = self.tick()
                request.error = error.value
            return 1

        flags = nbd.CMD_FLAG_FUA if durable else 0
        if op == WRITE:
            handle.aio_pwrite(nbd.Buffer.from_bytearray(bytearray(data)), offset, done, flags)
        elif op == ZERO:
            handle.aio_zero(length, offset, done, flags)
        elif op == FLUSH:
            handle.aio_flush(done)
        else:
            handle.aio_trim(length, offset, done, flags)
        return request

    def step(self, timeout=FAR_END):
        """Waits until something has happened; nbd.Error when the server has gone."""
        poll = select.poll()
        handles = {}
        for handle in self.handles:
            if handle.aio_is_dead() or handle.aio_is_closed():
                raise nbd.Error("the connection has gone", errno.ENOTCONN)
            direction = handle.aio_get_direction()
            events = ((select.POLLIN if direction & nbd.AIO_DIRECTION_READ else 0) |
                      (select.POLLOUT if direction & nbd.AIO_DIRECTION_WRITE else 0))
            poll.register(handle.aio_get_fd(), events)
            handles[handle.aio_get_fd()] = handle
        ready = poll.poll(timeout * 1000)
        if not ready and any(self.in_flight):
            raise Failure("no answer within %d s" % timeout)
        for descriptor, events in ready:
            handle = handles[descriptor]
            direction = handle.aio_get_direction()
            if events & (select.POLLIN | select.POLLHUP) and direction & nbd.AIO_DIRECTION_READ:
                handle.aio_notify_read()
            elif events & select.POLLOUT and direction & nbd.AIO_DIRECTION_WRITE:
                handle.aio_notify_write()

    def overlapping(self, offset, length):
        return any(one.offset < offset + length and offset < one.offset + one.length
                   for ones in self.in_flight for one in ones)

    def drain(self):
        while any(self.in_flight):
            self.step()

    def close(self):
        for handle in self.handles:
            try:
                handle.shutdown()
            except nbd.Error:
                pass
        self.handles = []
