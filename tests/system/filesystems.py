"""Kernel file systems on the live export, and every checkpoint of theirs, while writing goes on.

    kernel -> loop device -> nbdfuse -> recording proxy -> nbdkit with the plugin

Each checkpoint has to hold, byte for byte, what the recorded requests make of an empty volume; has
to be clean once its file system has replayed its own journal on a private copy; and its files have
to be those that were there.
"""

import hashlib
import os
import random
import shutil
import subprocess
import tarfile
import threading
import time

from nbdattached import Attached, need_devices
from nbdproxy import Proxy
from nbdsupport import Server, checkpoint, find_tool, run_tool
from replay import Image, Order, check_between
from support import Failure, Folder, check, rlctl, run, wait_until

SIZE = 512 << 20
FILES = int(os.environ.get("RL_FILES", 1200))  # of one unpacking

# How to make one, what a second mount of the same volume wants, what reads a frozen one without
# its journal, and what checks it.
KINDS = {
    "ext4": (["mkfs.ext4", "-q", "-b", "4096", "-E", "lazy_itable_init=0,lazy_journal_init=0"],
             "discard", "ro,noload", ["e2fsck", "-fn"]),
    "xfs": (["mkfs.xfs", "-q"], "discard,nouuid", "ro,norecovery,nouuid", ["xfs_repair", "-n"]),
    "btrfs": (["mkfs.btrfs", "-q"], "discard", "ro,rescue=nologreplay",
              ["btrfs", "check", "--check-data-csum"]),
}


def missing(kind):
    with open("/proc/filesystems", encoding="ascii") as file:
        known = [line.split()[-1] for line in file]
    if kind not in known and subprocess.run(["modprobe", "-q", kind], check=False).returncode != 0:
        return "the kernel has no " + kind
    for command in (KINDS[kind][0][0], KINDS[kind][3][0]):
        if find_tool(command) is None:
            return "there is no " + command
    return None


class PrivateCopy(Attached):
    """A file as a block device."""

    def __init__(self, folder, name, file):
        super().__init__(folder, name, None)
        self.file = file

    def __enter__(self):
        os.makedirs(self.place)
        self.attach(self.file, [])
        return self


def make_tar(path, seed):
    chance = random.Random(seed)
    source = path + ".d"
    for i in range(FILES):
        folder = os.path.join(source, "d%02d" % (i % 37))
        os.makedirs(folder, exist_ok=True)
        with open(os.path.join(folder, "f%05d" % i), "wb") as file:
            file.write(chance.randbytes(chance.choice((0, 100, 3000, 4096, 9000, 20000))))
    with tarfile.open(path, "w") as tar:
        tar.add(source, "t")
    shutil.rmtree(source)


def digests(place):
    """Of all files, with their names; folders too."""
    result = {}
    for folder, _, names in os.walk(place):
        inside = os.path.relpath(folder, place)
        if inside.startswith("busy"):
            continue
        result[inside] = "folder"
        for name in names:
            with open(os.path.join(folder, name), "rb") as file:
                result[os.path.join(inside, name)] = hashlib.sha256(file.read()).hexdigest()
    return result


def compare_digests(place, expected, what):
    found = digests(place)
    for name in sorted(expected.keys() | found.keys()):
        check(found.get(name) == expected.get(name), "%s: %s is %s, and was %s" % (
            what, name, found.get(name), expected.get(name)))


def change(place, tar, step, chance):
    """One step of a busy life; another one each time."""
    def unpack(name):
        folder = os.path.join(place, name)
        os.makedirs(folder)
        run_tool("tar", "-xf", tar, "-C", folder)

    def some(name, share):
        for folder, _, names in os.walk(os.path.join(place, name)):
            for one in names:
                if chance.random() < share:
                    yield os.path.join(folder, one)

    if step == 0:
        unpack("a")
    elif step == 1:
        for path in list(some("a", 0.5)):
            os.unlink(path)
        for path in list(some("a", 0.3)):
            with open(path, "r+b") as file:
                file.seek(chance.randrange(5000))
                file.write(chance.randbytes(3000))
        unpack("b")
    elif step == 2:
        shutil.rmtree(os.path.join(place, "b"))
        for path in list(some("a", 0.5)):
            os.rename(path, path + ".renamed")
        for path in list(some("a", 0.2)):
            os.truncate(path, 50)
        with open(os.path.join(place, "large"), "wb") as file:
            for _ in range(24):
                file.write(chance.randbytes(1 << 20))
    else:
        unpack("c")
        shutil.rmtree(os.path.join(place, "a"))
        with open(os.path.join(place, "large"), "r+b") as file:
            file.seek(3 << 20)
            file.write(bytes(5 << 20))


class Busy(threading.Thread):
    """Writes, overwrites, syncs and deletes files until it is told to end."""

    def __init__(self, place):
        super().__init__()
        self.place = os.path.join(place, "busy")
        self.ending = threading.Event()
        self.rounds = 0
        self.failure = None

    def run(self):
        chance = random.Random(5)
        try:
            os.makedirs(self.place, exist_ok=True)
            while not self.ending.is_set():
                path = os.path.join(self.place, "f%d" % chance.randrange(40))
                if os.path.exists(path) and chance.random() < 0.3:
                    os.unlink(path)
                else:
                    with open(path, "wb") as file:
                        file.write(chance.randbytes(chance.randrange(1, 200000)))
                        if chance.random() < 0.3:
                            os.fsync(file.fileno())
                self.rounds += 1
                time.sleep(0.002)
        except OSError as error:
            self.failure = str(error)

    def __exit__(self, *_):
        self.ending.set()
        self.join()

    def __enter__(self):
        self.start()
        return self


class Taken:
    """A checkpoint, and what was known of the volume then."""

    def __init__(self, name, items, between, files, is_frozen):
        self.name, self.items, self.between = name, items, between
        self.files, self.is_frozen = files, is_frozen
        self.image = None


def take(mirror, proxy, place, is_frozen):
    run_tool("sync", "-f", place)
    files = digests(place)
    if is_frozen:
        run_tool("fsfreeze", "-f", place)
    try:
        before = proxy.now()
        name, items = checkpoint(mirror)
        between = (before, proxy.now())
    finally:
        if is_frozen:
            run_tool("fsfreeze", "-u", place)
    return Taken(name, items, between, files, is_frozen)


def check_view(kind, folder, server, taken):
    """The view's file system, on a private copy; where it was at rest, on the export itself too."""
    _, options, at_rest, checker = KINDS[kind]
    name = taken.name.replace(":", "")
    taken.image = os.path.join(folder, name + ".img")
    run_tool("nbdcopy", server.uri(taken.name), taken.image)
    private = taken.image + ".private"
    run_tool("cp", "--sparse=always", taken.image, private)
    with PrivateCopy(folder, name + "-private", private) as copy:
        copy.mount(kind, options)  # replays its journal
        compare_digests(copy.place, taken.files, "%s, replayed" % taken.name)
        copy.unmount()
        run_tool(*checker, copy.loop)
    os.unlink(private)
    if taken.is_frozen:
        with Attached(folder, name + "-export", server.uri(taken.name), read_only=True) as export:
            export.mount(kind, at_rest)
            compare_digests(export.place, taken.files, "%s, mounted" % taken.name)


def compare_views(mirror, proxy, all_taken):
    order = Order(mirror, proxy.requests)
    image = Image(SIZE)
    for taken in all_taken:
        check_between(order, taken.items, *taken.between)
        order.play(image, taken.items)
        image.compare(taken.image, taken.name)
    check_comparison(order, image, all_taken[-1])
    writes = sum(1 for one in order.requests if one.data)
    print("     %d writes and %d zeroings, %d MiB; %d of them in flight at the end" % (
        writes, len(order.requests) - writes,
        sum(len(one.data) for one in order.requests) >> 20, len(order.missing)))


def check_comparison(order, image, taken):
    """The comparison is worth something: without one of the last requests, it has to fail."""
    for left_out in range(taken.items - 1, -1, -1):
        request = order.requests[left_out]
        other = Image(SIZE)
        for number, one in enumerate(order.requests[:taken.items]):
            if number != left_out:
                other.play(one)
        if other.read(request.offset, request.length) == image.read(request.offset, request.length):
            continue  # it wrote what was there, or was overwritten
        try:
            other.compare(taken.image, taken.name)
        except Failure:
            return
        raise Failure("a request that is left out is not noticed")


def check_filesystem(kind):
    reason = missing(kind)
    if reason:
        print("     %s is not tested: %s" % (kind, reason), flush=True)
        return
    started = time.monotonic()
    make, options, _, _ = KINDS[kind]
    chance = random.Random(kind)
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        tar = os.path.join(folder, "files.tar")
        make_tar(tar, kind)
        rlctl("create", mirror, "--size", SIZE)
        with Server(folder, mirror) as server:
            proxy = Proxy(os.path.join(folder, "p.sock"), server.socket)
            uri = "nbd+unix:///live?socket=" + proxy.path
            with Attached(folder, "live", uri) as live:
                run_tool(*make, live.loop)
                live.mount(kind, options)
                all_taken = []
                for step in range(4):
                    change(live.place, tar, step, chance)
                    all_taken.append(take(mirror, proxy, live.place, step % 2 == 1))
                with Busy(live.place) as busy:
                    for taken in all_taken:
                        check_view(kind, folder, server, taken)
                    wait_until(lambda: busy.rounds > 20 or busy.failure is not None,
                               lambda: "only %d files are written meanwhile" % busy.rounds)
                check(busy.failure is None, "writing meanwhile: %s" % busy.failure)
            proxy.close()
        compare_views(mirror, proxy, all_taken)
    print("     %s: %d files, %d written meanwhile, %.1f s" % (
        kind, len(all_taken[-1].files), busy.rounds, time.monotonic() - started), flush=True)


def test_ext4():
    check_filesystem("ext4")


def test_xfs():
    check_filesystem("xfs")


def test_btrfs():
    check_filesystem("btrfs")


need_devices()
run(test_ext4, test_xfs, test_btrfs)
