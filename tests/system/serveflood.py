"""rlctl serve flooded with the largest requests there are: writes many deep, writes that never come to
their end, answers that nobody reads. Its memory stays within what the manual says, others are served
meanwhile, and what was answered is there.
"""

import os
import random
import select
import threading

from nbdpeers import Others, RawClient, memory_kib
from nbdproxy import READ, WRITE
from nbdsupport import need_nbd
from serve import Served, nbd
from support import FAR_END, Failure, Folder, check, rlctl, run, wait_until

LARGEST = 32 << 20
MIB = 1 << 20
DEPTH = 6
ROUNDS = 2  # of a writer
WRITERS, HALVES, DEAF, SILENT = 2, 2, 2, 2
MOST = WRITERS + HALVES + DEAF + SILENT + 2  # and two that behave
PER_CONNECTION = 64 * MIB  # as documented
SIZE = (WRITERS + 2) * LARGEST


class Child:
    """nbdkit, the child of rlctl."""

    def __init__(self, served):
        pid = served.process.pid
        with open("/proc/%d/task/%d/children" % (pid, pid), encoding="ascii") as file:
            self.pid = int(file.read().split()[0])

    def forget_peak(self):
        with open("/proc/%d/clear_refs" % self.pid, "w", encoding="ascii") as file:
            file.write("5")

    def peak_bytes(self):
        return memory_kib(self, "VmHWM") << 10


def content(number, compressible):
    """Of the largest request: random, or half of it."""
    part = random.Random(number).randbytes(MIB)
    if compressible:
        part = part[:MIB // 2] + bytes(MIB // 2)
    return part * (LARGEST // MIB)


class LargeWrites(threading.Thread):
    """One connection with many of the largest writes in flight, all to the same place; so the last
    one that was sent is what is read there."""

    def __init__(self, served, offset, data):
        super().__init__()
        self.handle = served.connect("live")
        self.offset, self.data = offset, data
        self.answered = 0
        self.failure = None

    def run(self):
        try:
            buffer = nbd.Buffer.from_bytearray(bytearray(self.data))
            for _ in range(ROUNDS):
                cookies = [self.handle.aio_pwrite(buffer, self.offset) for _ in range(DEPTH)]
                while cookies:
                    self.wait()
                    left = [one for one in cookies if not self.handle.aio_command_completed(one)]
                    self.answered += len(cookies) - len(left)
                    cookies = left
            self.handle.flush()
        except (nbd.Error, Failure) as error:
            self.failure = str(error)

    def wait(self):
        direction = self.handle.aio_get_direction()
        poll = select.poll()
        poll.register(self.handle.aio_get_fd(),
                      (select.POLLIN if direction & nbd.AIO_DIRECTION_READ else 0) |
                      (select.POLLOUT if direction & nbd.AIO_DIRECTION_WRITE else 0))
        ready = poll.poll(1000 * FAR_END)
        check(ready, "no answer to a large write")
        if ready[0][1] & select.POLLOUT and direction & nbd.AIO_DIRECTION_WRITE:
            self.handle.aio_notify_write()
        else:
            self.handle.aio_notify_read()


def send_half_a_write(served, data):
    """A largest write that lacks its last bytes, and another that never begins."""
    client = RawClient(served.socket).negotiate()
    client.socket.sendall(client.request(WRITE, SIZE - LARGEST, LARGEST) + data[:-100])
    return client


def ask_and_not_listen(served):
    client = RawClient(served.socket).negotiate()
    for cookie in range(DEPTH):
        client.socket.sendall(client.request(READ, SIZE - LARGEST, LARGEST, cookie))
    return client


def flood(compression):
    compressible = compression != "none"
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        rlctl("create", mirror, "--size", SIZE, "--compress", compression)
        with Served(mirror, "--connections", str(MOST)) as served:
            child = Child(served)
            before = memory_kib(child, "VmRSS") << 10
            child.forget_peak()
            last = content(99, compressible)
            keeper = served.connect("live")
            keeper.pwrite(last, SIZE - LARGEST)
            bad = [RawClient(served.socket) for _ in range(SILENT)]
            writers = [LargeWrites(served, (1 + i) * LARGEST, content(i, compressible))
                       for i in range(WRITERS)]
            with Others(served, 0) as others:
                bad += [send_half_a_write(served, last) for _ in range(HALVES)]
                bad += [ask_and_not_listen(served) for _ in range(DEAF)]
                for one in writers:
                    one.start()
                for one in writers:
                    one.join()
                # Those that do no good are still there: the others are served beside them too.
                wait_until(lambda: others.rounds >= 10 or others.failure is not None,
                           "another client is hardly served")
                for one in writers:
                    check(one.failure is None, "a large write: %s" % one.failure)
                    check(one.answered == ROUNDS * DEPTH, "%d are answered" % one.answered)
            peak = child.peak_bytes()
            bound = before + MOST * PER_CONNECTION
            print("     %s: %d MiB before, %d at most (bound %d); %d rounds of another client, the "
                  "slowest %.2f s" % (compression, before // MIB, peak // MIB, bound // MIB,
                                      others.rounds, others.slowest), flush=True)
            check(peak < bound, "%d MiB of memory" % (peak // MIB))
            for one in writers:
                check(keeper.pread(LARGEST, one.offset) == one.data, "what was written")
            check(keeper.pread(LARGEST, SIZE - LARGEST) == last, "half a write is there")
            # Those that wait for nothing to happen are still there.
            served.end()
        with Served(mirror) as served:
            keeper = served.connect("latest")
            for one in writers:
                check(keeper.pread(LARGEST, one.offset) == one.data, "what was flushed")
            check(keeper.pread(LARGEST, SIZE - LARGEST) == last, "half a write is there")
            keeper.shutdown()
            served.end()


def large_writes():
    flood("none")


def large_writes_that_are_compressed():
    flood("zstd")


need_nbd()
run(large_writes, large_writes_that_are_compressed)
