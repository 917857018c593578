"""kill -9 of the server under writers that log what was acknowledged.

After each restart the journal is a sequence of the very requests that were sent, in an order that
agrees with their answers; what it held before is still its beginning; everything that was answered
and then flushed, or covered by a checkpoint, is there; and views read as the replayed requests.
"""

import os
import random
import threading
import time

import nbd

from nbdfleet import Fleet
from nbdproxy import FLUSH, TRIM, WRITE, ZERO
from nbdsupport import Server, checkpoint, connect, need_nbd
from replay import Image, Order
from support import Failure, Folder, check, rlctl, rlctl_json, run

BLOCKS = 1 << 15
BLOCK = 512
SIZE = BLOCKS * BLOCK
ROUNDS = 10  # of one mirror, which grows


class Killer(threading.Thread):
    """Ends the server after a while."""

    def __init__(self, server, delay):
        super().__init__()
        self.server, self.delay = server, delay

    def run(self):
        time.sleep(self.delay)
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


class Volume:
    """A mirror, and what has been found in its journal so far."""

    def __init__(self, folder, chance, compression):
        self.folder, self.chance = folder, chance
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
        fleet = Fleet(self.server, first_tick=self.clock)
        killer = Killer(self.server, self.chance.uniform(0.01, 0.25))
        checkpoints = Checkpoints(self.path, self.server)
        killer.start()
        checkpoints.start()
        write_until_killed(fleet, self.chance, self.used)
        killer.join()
        checkpoints.join()
        self.server.kill()
        self.clock = fleet.tick()
        self.checkpoints += checkpoints.told
        self.server.start()
        self.compare(fleet.requests)

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
        self.compare_view("live", self.image)
        # Points of what came last, and of any time.
        for least in (len(self.settled), 0):
            items = self.chance.randrange(least, len(order.requests) + 1)
            image = Image(SIZE)
            order.position = 0
            order.play(image, items)
            self.compare_view("item:%d" % items, image)
        self.lost = len(order.missing)
        self.settled = order.requests

    def compare_view(self, name, image):
        handle = connect(self.server, name)
        for offset in range(0, SIZE, 4 << 20):
            found = handle.pread(4 << 20, offset)
            expected = image.read(offset, 4 << 20)
            if found != expected:
                at = next(b for b in range(0, 4 << 20, BLOCK)
                          if found[b:b + BLOCK] != expected[b:b + BLOCK])
                raise Failure("%s: the block at byte %d is wrong" % (name, offset + at))
        handle.shutdown()


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
    chance = random.Random(seed)
    started = time.monotonic()
    done = items = lost = checkpoints = 0
    while done < kills:
        with Folder() as folder:
            volume = Volume(folder, chance, "lz4" if done // ROUNDS % 3 == 2 else "none")
            try:
                for _ in range(min(ROUNDS, kills - done)):
                    volume.kill()
                    done += 1
                    lost += volume.lost
                if volume.settled and done == min(ROUNDS, kills):
                    check_that_losses_are_noticed(volume)
                volume.server.stop()
                check(rlctl_json("verify", volume.path)["ok"], "verify")
            except Failure:
                print("".join("     | %s\n" % line
                              for line in volume.server.log().splitlines()[-10:]))
                raise
            finally:
                volume.server.kill()
            items += len(volume.settled)
            checkpoints += len(volume.checkpoints)
    print("     %d kills in %.1f s: %d items kept, %d requests not (none of them promised), "
          "%d checkpoints" % (done, time.monotonic() - started, items, lost, checkpoints))
    check(items > kills * 10, "hardly anything was written")


need_nbd()
run(test_kill_under_writers)
