"""kill -9 of the server under writers of whom it is known what was acknowledged: a client of our own,
and fio behind a recording proxy.

After each restart the journal is a sequence of the very requests that were sent, in an order that
agrees with their answers; what it held before is still its beginning; everything that was answered
and then flushed, or covered by a checkpoint, is there; and views read as the replayed requests.
"""

import os
import random
import subprocess
import threading
import time

import nbd

from nbdfleet import Fleet
from nbdproxy import FLUSH, TRIM, WRITE, ZERO, Proxy
from nbdsupport import Server, checkpoint, connect, find_tool, need_nbd
from replay import Image, Order
from support import FAR_END, Failure, Folder, check, rlctl, rlctl_json, run, wait_until

BLOCKS = 1 << 15
BLOCK = 512
SIZE = BLOCKS * BLOCK
ROUNDS = 10  # of one mirror, which grows

# Each job has a connection of its own. Data is new in each request, so that each is known again in the
# journal, also among those of the same range; so the journal must not be compressed.
FIO_JOBS = """[global]
ioengine=nbd
uri=%(uri)s
thread
time_based
runtime=900
size=%(size)d
blockalign=512
randseed=%(seed)d
randrepeat=1
norandommap
refill_buffers

[large]
rw=randwrite
bsrange=512-128k
iodepth=8
fsync=24

[small]
rw=randwrite
bs=4k
size=1M
iodepth=16
fsync=50

[durable]
rw=write
bs=4k
offset=2M
size=1M
iodepth=1
fsync=1

[trims]
rw=randtrim
bsrange=4k-64k
offset=4M
size=8M
iodepth=4
fsync=30
"""


class Killer(threading.Thread):
    """Ends the server after a while, and not before so many requests were sent."""

    def __init__(self, server, chance, requests):
        super().__init__()
        self.server, self.requests = server, requests
        self.delay = chance.uniform(0.01, 0.25)
        self.least = chance.randrange(80)

    def run(self):
        time.sleep(self.delay)
        until = time.monotonic() + FAR_END
        while len(self.requests) < self.least and time.monotonic() < until:
            time.sleep(0.001)
        self.server.process.kill()


class Checkpoints(threading.Thread):
    """Sets checkpoints until there is no server to ask; what it was told of is acknowledged."""

    def __init__(self, mirror, server):
        super().__init__()
        self.mirror, self.server = mirror, server
        self.told = []

    def run(self):
        while self.server.process.poll() is None:
            try:
                name, items = checkpoint(self.mirror)
            except Failure:
                return
            if self.server.process.poll() is None:
                self.told.append((name, items))
            time.sleep(0.02)


def write_until_killed(fleet, chance, used):
    """Overlapping requests of all kinds and many sizes, no two of them of the same range: so each
    is known again in the journal, zeroes and compressed data too."""
    try:
        while True:
            kind = chance.random()
            length = chance.randrange(1, chance.choice((3, 10, 10, 10, 70, 200, 1000)))
            offset = chance.randrange(1024 if kind < 0.5 else BLOCKS - length)
            if (offset, length) in used:
                continue
            used.add((offset, length))
            if kind < 0.02:
                fleet.send(FLUSH)
            elif kind < 0.1:
                fleet.send(chance.choice((ZERO, TRIM)), offset * BLOCK, length * BLOCK,
                           durable=chance.random() < 0.05)
            else:
                data = chance.randbytes(16) * (length * BLOCK // 16)
                fleet.send(WRITE, offset * BLOCK, length * BLOCK, data,
                           durable=chance.random() < 0.03)
    except nbd.Error:
        pass


class Fio:
    """fio's jobs on the live export, and the proxy that records what they send; until the server has
    gone, which ends fio too."""

    def __init__(self, folder, server, seed, first_tick):
        self.proxy = Proxy(os.path.join(folder, "p.sock"), server.socket)
        self.proxy.clock = first_tick
        self.log_file = os.path.join(folder, "fio.log")
        jobs = os.path.join(folder, "jobs.fio")
        with open(jobs, "w", encoding="ascii") as file:
            file.write(FIO_JOBS % {"uri": "nbd+unix:///live?socket=" + self.proxy.path,
                                   "size": SIZE, "seed": seed})
        with open(self.log_file, "wb") as log:
            # It leaves files of its own where it is.
            self.process = subprocess.Popen(
                ["fio", "--output-format=json", "--output=" + os.path.join(folder, "fio.json"),
                 jobs], cwd=folder, stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def log(self):
        with open(self.log_file, "rb") as file:
            return file.read().decode(errors="replace")[-2000:]

    def wait_for_writes(self):
        wait_until(lambda: self.proxy.requests or self.process.poll() is not None,
                   lambda: "fio writes nothing:\n" + self.log())
        check(self.process.poll() is None, "fio ended at once:\n" + self.log())

    def wait_for_end(self):
        """What it sent. REQUIRES: the server was killed."""
        try:
            code = self.process.wait(FAR_END)
        except subprocess.TimeoutExpired:
            raise Failure("fio does not notice that the server has gone") from None
        check(code != 0, "fio ended before the server did")
        self.close()
        return list(self.proxy.requests)

    def close(self):
        self.proxy.close()
        self.process.kill()
        self.process.wait()


class Volume:
    """A mirror, and what has been found in its journal so far."""

    def __init__(self, folder, chance, compression, by_fio):
        self.folder, self.chance = folder, chance
        self.by_fio = by_fio
        self.path = os.path.join(folder, "m")
        self.server = Server(folder, self.path)
        self.settled = []  # requests, in the journal's order
        self.checkpoints = []
        self.used = set()
        self.clock = 0
        self.image = Image(SIZE)  # at the end of what is settled
        rlctl("create", self.path, "--size", SIZE, "--compress", compression)
        self.server.start()

    def kill(self):
        """Kills the server under its writers, starts it again, and compares."""
        checkpoints = Checkpoints(self.path, self.server)
        sent = (self.kill_under_fio if self.by_fio else self.kill_under_fleet)(checkpoints)
        checkpoints.join()
        self.server.kill()
        self.checkpoints += checkpoints.told
        self.server.start()
        self.compare(sent)

    def kill_under_fleet(self, checkpoints):
        fleet = Fleet(self.server, first_tick=self.clock)
        killer = Killer(self.server, self.chance, fleet.requests)
        killer.start()
        checkpoints.start()
        write_until_killed(fleet, self.chance, self.used)
        killer.join()
        self.clock = fleet.tick()
        return fleet.requests

    def kill_under_fio(self, checkpoints):
        fio = Fio(self.folder, self.server, self.chance.randrange(1 << 30), self.clock)
        try:
            fio.wait_for_writes()
            checkpoints.start()
            killer = Killer(self.server, self.chance, fio.proxy.requests)
            killer.start()
            killer.join()
            sent = fio.wait_for_end()
        finally:
            fio.close()
        self.clock = fio.proxy.now()
        return sent

    def compare(self, sent):
        order = Order(self.path, self.settled + sent)
        check(len(order.requests) >= len(self.settled) and
              all(a is b for a, b in zip(order.requests, self.settled)),
              "what the journal held before is not its beginning")
        listed = {("cp:%d" % one["id"], one["items"])
                  for one in rlctl_json("checkpoints", self.path)["checkpoints"]}
        for one in self.checkpoints:
            check(one in listed, "checkpoint %r is lost" % (one,))
            check(one[1] <= len(order.requests), "a checkpoint's items are lost")
        for request in order.requests[len(self.settled):]:
            self.image.play(request)
        self.compare_view("live", self.image, order.requests)
        # Points of what came last, and of any time.
        for least in (len(self.settled), 0):
            items = self.chance.randrange(least, len(order.requests) + 1)
            image = Image(SIZE)
            order.position = 0
            order.play(image, items)
            self.compare_view("item:%d" % items, image, order.requests[:items])
        self.lost = len(order.missing)
        self.settled = order.requests

    def compare_view(self, name, image, requests):
        handle = connect(self.server, name)
        for offset in range(0, SIZE, 4 << 20):
            found = handle.pread(4 << 20, offset)
            expected = image.read(offset, 4 << 20)
            if found != expected:
                at = next(b for b in range(0, 4 << 20, BLOCK)
                          if found[b:b + BLOCK] != expected[b:b + BLOCK])
                raise Failure("%s: the block at byte %d is wrong\n%s" % (
                    name, offset + at, writers_of(requests, offset + at, found[at:at + BLOCK])))
        handle.shutdown()


def writers_of(requests, offset, found):
    """The last requests that wrote a block, and which of them it is the content of."""
    lines = []
    for number, one in enumerate(requests):
        if one.offset <= offset < one.offset + one.length:
            start = offset - one.offset
            own = one.data[start:start + BLOCK] if one.data else bytes(BLOCK)
            lines.append("item %d, %d bytes at %d, sent %d, answered %s%s%s" % (
                number + 1, one.length, one.offset, one.sent, one.answered,
                "" if one.data else ", zeroes", ": this is found" if own == found else ""))
    return "\n".join(lines[-8:])


def check_that_losses_are_noticed(volume):
    """The comparison is worth something: without a request that was sent, or with two swapped."""
    for sent in (volume.settled[:-1], volume.settled[1:]):
        try:
            Order(volume.path, sent)
        except Failure:
            continue
        raise Failure("an item that nobody sent is not noticed")
    lost = Fleet.__new__(Fleet)  # only its clock
    lost.clock = volume.clock
    request = type(volume.settled[0])(WRITE, 0, BLOCK, bytes(range(256)) * 2, True, lost.tick())
    request.answered = lost.tick()
    try:
        Order(volume.path, volume.settled + [request])
    except Failure:
        return
    raise Failure("a durable write that is lost is not noticed")


def test_kill_under_writers():
    seed = int(os.environ.get("RL_SEED", random.randrange(1 << 30)))
    kills = int(os.environ.get("RL_KILLS", 100))
    print("     RL_SEED=%d RL_KILLS=%d" % (seed, kills), flush=True)
    with_fio = find_tool("fio") is not None
    if not with_fio:
        print("     fio is not installed: all writers are our own", flush=True)
    chance = random.Random(seed)
    started = time.monotonic()
    done = items = lost = checkpoints = by_fio = 0
    unproven = {False, True} if with_fio else {False}
    while done < kills:
        with Folder() as folder:
            number = done // ROUNDS
            volume = Volume(folder, chance, "lz4" if number % 4 == 2 else "none",
                            with_fio and number % 2 == 1)
            try:
                for _ in range(min(ROUNDS, kills - done)):
                    volume.kill()
                    done += 1
                    by_fio += volume.by_fio
                    lost += volume.lost
                if volume.settled and volume.by_fio in unproven:
                    unproven.remove(volume.by_fio)
                    check_that_losses_are_noticed(volume)
                volume.server.stop()
                check(rlctl_json("verify", volume.path)["ok"], "verify")
            except Failure:
                print("     after %d kills; by fio: %s" % (done, volume.by_fio))
                print("".join("     | %s\n" % line
                              for line in volume.server.log().splitlines()[-10:]))
                raise
            finally:
                volume.server.kill()
            items += len(volume.settled)
            checkpoints += len(volume.checkpoints)
    print("     %d kills, %d of them under fio, in %.1f s: %d items kept, %d requests not (none of "
          "them promised), %d checkpoints" % (done, by_fio, time.monotonic() - started, items, lost,
                                              checkpoints))
    check(items > kills * 10, "hardly anything was written")


need_nbd()
run(test_kill_under_writers)
