"""A mirror on a disk that is slow, and on one that stops to answer: ext4 on a loop device on nbdfuse on
nbdkit's file plugin behind its delay and rate filters.

Ending, applying and trimming stay bounded in time, a stop is heard, and nothing that was acknowledged
is lost.
"""

import os
import random
import signal
import subprocess
import threading
import time

import nbd

from nbdattached import Attached, need_devices
from nbdfleet import Fleet
from nbdproxy import FLUSH, TRIM, WRITE, ZERO
from nbdsupport import find_tool, greets, run_tool, skip
from replay import Image, Order
from serve import Served
from support import (FAR_END, RLCTL, Failure, Folder, check, listens, rlctl, rlctl_json, run,
                     same_image, wait_until, write_plain_trace)

BLOCK = 512
MIB = 1 << 20
SIZE = 64 * MIB
STOP_TIMEOUT = 5
# Of rlctl, which takes seven seconds beside what the server gives itself, and of a busy machine; only
# who waits for the disk takes for ever.
MARGIN = 240
# In bits a second, as the filter wants it.
SLOW = 48 << 20


class SlowDisk:
    """A folder on it; fast until it is told otherwise."""

    def __init__(self, folder):
        self.folder = folder
        self.rate_file = os.path.join(folder, "rate")
        self.image = os.path.join(folder, "disk")
        self.socket = os.path.join(folder, "disk.sock")
        self.attached = self.process = None

    def __enter__(self):
        with open(self.image, "wb") as file:
            file.truncate(1 << 30)
        self.set_rate(0)
        with open(os.path.join(self.folder, "disk.log"), "wb") as log:
            self.process = subprocess.Popen(
                ["nbdkit", "-f", "-U", self.socket, "--filter=delay", "--filter=rate", "file",
                 self.image, "wdelay=3ms", "rdelay=1ms", "rate-file=" + self.rate_file],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        wait_until(lambda: greets(self.socket) or self.process.poll() is not None,
                   "nbdkit does not come up")
        check(self.process.poll() is None, "nbdkit ended at once")
        self.attached = Attached(self.folder, "slow", "nbd+unix:///?socket=" + self.socket)
        self.attached.__enter__()
        run_tool("mkfs.ext4", "-q", self.attached.loop)
        self.attached.mount("ext4", "noatime")
        return self

    def __exit__(self, kind, *_):
        self.answer_again()
        self.set_rate(0)
        try:
            self.attached.__exit__(kind)
        finally:
            self.process.kill()
            self.process.wait()

    def set_rate(self, rate):
        with open(self.rate_file + ".new", "w", encoding="ascii") as file:
            file.write("%d\n" % rate)
        os.rename(self.rate_file + ".new", self.rate_file)

    def stop_to_answer(self):
        self.process.send_signal(signal.SIGSTOP)

    def answer_again(self):
        self.process.send_signal(signal.SIGCONT)

    def mirror(self, *options):
        path = os.path.join(self.attached.place, "m%d" % len(os.listdir(self.attached.place)))
        rlctl("create", path, "--size", SIZE, *options)
        return path


class Writers(threading.Thread):
    """Writes of all kinds until the server has gone."""

    def __init__(self, served, seed, most=1 << 30):
        super().__init__()
        self.fleet = Fleet(served, connections=4)
        self.chance = random.Random(seed)
        self.most = most
        self.failure = None

    def run(self):
        try:
            while len(self.fleet.requests) < self.most:
                op = self.chance.choices((WRITE, ZERO, TRIM, FLUSH), (90, 4, 3, 3))[0]
                length = 0 if op == FLUSH else self.chance.choice((1, 8, 64, 256)) * BLOCK
                offset = self.chance.randrange((SIZE - length) // BLOCK) * BLOCK
                data = self.chance.randbytes(16) * (length // 16) if op == WRITE else b""
                self.fleet.send(op, offset if length else 0, length, data,
                                durable=op == WRITE and self.chance.random() < 0.05)
            self.fleet.drain()
        except nbd.Error:
            pass
        except Failure as failure:  # a disk that does not answer
            self.failure = failure

    def are_stuck(self):
        before = self.answered()
        time.sleep(1)
        return self.answered() == before < len(self.fleet.requests)

    def answered(self):
        return sum(1 for one in self.fleet.requests if one.answered is not None)


def compare(mirror, requests, all_answered):
    """The journal holds what it has to, in an order that agrees with the answers; and views do."""
    order = Order(mirror, requests)
    for one in order.missing:
        check(not all_answered or one.answered is None or one.error, "an answered request is lost")
    with Folder() as folder:
        image = Image(SIZE)
        order.play(image, len(order.requests))
        path = os.path.join(folder, "image")
        rlctl("export", mirror, "--at", "latest", path)
        image.compare(path, "latest")
    return len(order.requests)


def end_under_writes():
    """On a disk that is slow: it ends in its time, with all that was answered."""
    with Folder() as folder, SlowDisk(folder) as disk:
        mirror = disk.mirror()
        with Served(mirror, "--stop-timeout", "%ds" % STOP_TIMEOUT) as served:
            writers = Writers(served, 1)
            disk.set_rate(SLOW)
            writers.start()
            time.sleep(3)
            wait_until(lambda: writers.answered() > 40 or not writers.is_alive(),
                       "hardly anything is written")
            began = time.monotonic()
            served.process.send_signal(signal.SIGTERM)
            code = served.process.wait(FAR_END)
            took = time.monotonic() - began
            log = served.process.stdout.read().decode(errors="replace")
            writers.join()
        disk.set_rate(0)
        check(took < STOP_TIMEOUT + MARGIN, "the end took %.1f s" % took)
        # Where the time did not suffice to flush, it says so; what was answered is with the system.
        check(code == 0 or "ended before all was durable" in log or "in time" in log,
              "exit code %d: %s" % (code, log[-3000:]))
        items = compare(mirror, writers.fleet.requests, code == 0)
        print("     ended with %d in %.1f s; %d of %d requests answered, %d items" % (
            code, took, writers.answered(), len(writers.fleet.requests), items), flush=True)
        check(items > 20, "hardly anything was written")


def end_on_a_disk_that_does_not_answer():
    """Nothing can be made durable any more: the end comes in time and says so."""
    with Folder() as folder, SlowDisk(folder) as disk:
        mirror = disk.mirror()
        served = Served(mirror, "--stop-timeout", "%ds" % STOP_TIMEOUT)
        try:
            writers = Writers(served, 2)
            writers.start()
            wait_until(lambda: writers.answered() > 200 or not writers.is_alive(),
                       "hardly anything is written")
            disk.stop_to_answer()
            wait_until(writers.are_stuck, "flushes end all the same")
            began = time.monotonic()
            served.process.send_signal(signal.SIGTERM)
            try:
                code = served.process.wait(FAR_END)
            except subprocess.TimeoutExpired:
                raise Failure("it does not end while the disk does not answer") from None
            took = time.monotonic() - began
            check(took < STOP_TIMEOUT + MARGIN, "the end took %.1f s" % took)
        finally:
            disk.answer_again()
            served.process.kill()
            served.process.wait()
        writers.join()
        log = served.process.stdout.read().decode(errors="replace")
        check(code == 1 and ("durable" in log or "in time" in log), "%d: %s" % (code, log[-3000:]))
        # What could not be ended goes now, and with it the mirror's lock.
        wait_until(lambda: "in use" not in held(mirror), "the mirror stays in use")
        items = compare(mirror, writers.fleet.requests, False)
        print("     ended with %d in %.1f s: %s; %d of %d requests answered, %d items" % (
            code, took, log.strip().splitlines()[-1][:200], writers.answered(),
            len(writers.fleet.requests), items), flush=True)


def held(mirror):
    done = subprocess.run([RLCTL, "apply", mirror, "--to", "item:0", "--yes"], check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.stdout.decode(errors="replace")


def interrupted(*arguments):
    """Runs a command, tells it to stop a moment later, and returns its exit code and time."""
    with subprocess.Popen([RLCTL, *arguments], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT) as process:
        if listens(process, signal.SIGINT):
            time.sleep(0.5)
        began = time.monotonic()
        process.send_signal(signal.SIGINT)
        try:
            text = process.communicate(timeout=FAR_END)[0].decode(errors="replace")
        except subprocess.TimeoutExpired:
            process.kill()
            raise Failure("%s does not stop" % arguments[0]) from None
        check(process.returncode in (0, 130), "%s: %d\n%s" % (
            arguments[0], process.returncode, text))
        return process.returncode, time.monotonic() - began


def apply_and_trim(beside):
    """Stopped, they stop; let be, they end; and the volume is what it was."""
    with Folder() as folder, SlowDisk(folder) as disk:
        mirror = disk.mirror()
        served = Served(mirror)
        try:
            writers = Writers(served, 3 + beside, most=700)
            writers.run()
            check(writers.failure is None, str(writers.failure))
            rlctl("checkpoint", mirror)
            if not beside:
                served.end()
            compare(mirror, writers.fleet.requests, True)
            images = [os.path.join(folder, name) for name in ("before", "after")]
            rlctl("export", mirror, "--at", "latest", images[0])
            told = []
            for command in (("apply", "--to", "latest"), ("apply", "--to", "latest"),
                            ("trim", "--retention")):
                disk.set_rate(SLOW)
                told.append(interrupted(command[0], mirror, *command[1:], "--yes"))
                disk.set_rate(0)
                if command[0] == "trim" or len(told) == 2:
                    rlctl(command[0], mirror, *command[1:], "--yes")
                rlctl("export", mirror, "--at", "latest", images[1])
                check(same_image(*images), "after %s the volume is another one" % command[0])
            info = rlctl_json("info", mirror)
            check(info["applied_items"] == info["items"] and info["trimmed_items"] > 0,
                  "not all is applied and trimmed: %s" % info)
            if beside:
                served.end()
            print("     %s" % ", ".join("%d in %.1f s" % one for one in told), flush=True)
        finally:
            served.process.kill()
            served.process.wait()
        rlctl("verify", mirror)


def apply_and_trim_beside_a_server():
    apply_and_trim(True)


def apply_and_trim_alone():
    apply_and_trim(False)


def images_that_need_not_be_synced():
    """Export and restore end when the image is on the disk, or while it is not, as they are told."""
    amount = 32 * MIB
    with Folder() as folder, SlowDisk(folder) as disk:
        mirror = os.path.join(folder, "m")
        rlctl("create", mirror, "--size", SIZE)
        rlctl("record", mirror, "--trace", write_plain_trace(folder, amount // MIB * 16, 128))
        full, expected = (os.path.join(folder, name) for name in ("full", "expected"))
        rlctl("backup", mirror, full)
        rlctl("export", mirror, expected)

        def on_disk():
            return os.stat(disk.image).st_blocks * 512

        for command in (("export", mirror), ("restore", full)):
            image = os.path.join(disk.attached.place, command[0])
            before = on_disk()
            disk.set_rate(SLOW)
            rlctl(*command, image, "--no-sync")
            early = on_disk() - before
            disk.set_rate(0)
            check(same_image(image, expected), command[0] + " --no-sync makes another image")
            check(early < amount // 2, "%s --no-sync waits: %d bytes" % (command[0], early))
            rlctl(*command, image)
            late = on_disk() - before
            check(same_image(image, expected), command[0] + " makes another image")
            check(late >= amount, "%s does not wait: %d bytes" % (command[0], late))
            print("     %s: of %d KiB %d were on the disk at the end, synced %d" % (
                command[0], amount >> 10, early >> 10, late >> 10), flush=True)


def need_ext4():
    need_devices()
    with open("/proc/filesystems", encoding="ascii") as file:
        if "ext4" not in file.read().split():
            skip("the kernel has no ext4")
    if find_tool("mkfs.ext4") is None:
        skip("there is no mkfs.ext4")


need_ext4()
run(end_under_writes, end_on_a_disk_that_does_not_answer, apply_and_trim_beside_a_server,
    apply_and_trim_alone, images_that_need_not_be_synced)
