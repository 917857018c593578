"""A file system without a free block: writes are refused with ENOSPC, reading goes on, and apply and
trim make room again; nothing that was answered and flushed is lost, also not by a kill in between.

On a tmpfs, and on an ext4 in a file behind a loop device.
"""

import errno
import os
import random
import subprocess

from nbdsupport import Server, connect, find_tool, need_nbd, refused, run_tool, skip
from replay import Image
from support import (BLOCK, RLCTL, Expectation, Folder, check, compare_image, read_trace, rlctl,
                     rlctl_json, run, same_image, write_plain_trace)

DISK = 72 << 20
SIZE = 16 << 20
SAFE = ("--threads=1",)  # as rlctl serve has it


class Disk:
    """A small file system, mounted below a folder."""

    def __init__(self, folder, kind):
        self.kind = kind
        self.image = os.path.join(folder, "disk.img")
        self.place = os.path.join(folder, "disk")

    def __enter__(self):
        os.mkdir(self.place)
        if self.kind == "tmpfs":
            run_tool("mount", "-t", "tmpfs", "-o", "size=%d" % DISK, "none", self.place)
        else:
            with open(self.image, "wb") as file:
                file.truncate(DISK)
            run_tool("mkfs.ext4", "-q", "-m", "0", "-b", "4096", self.image)
            run_tool("mount", "-o", "loop", self.image, self.place)
        return self

    def __exit__(self, *_):
        run_tool("umount", "-l", self.place)
        if self.kind == "ext4":
            os.unlink(self.image)

    def free(self):
        state = os.statvfs(self.place)
        return state.f_bfree * state.f_frsize


def missing(kind):
    if kind == "tmpfs":
        return None
    if find_tool("mkfs.ext4") is None:
        return "there is no mkfs.ext4"
    if not os.path.exists("/dev/loop-control"):
        return "there are no loop devices"
    return None


def need_disks():
    need_nbd("mount", "umount", "nbdcopy")
    if os.geteuid() != 0:
        skip("only root can mount")
    with Folder() as folder:
        done = subprocess.run([find_tool("mount"), "-t", "tmpfs", "none", folder], check=False,
                              stderr=subprocess.PIPE)
        if done.returncode != 0:
            skip("nothing can be mounted: " + done.stderr.decode().strip())
        run_tool("umount", folder)


def on_each_disk(test):
    for kind in ("tmpfs", "ext4"):
        reason = missing(kind)
        if reason:
            print("     %s is not tested: %s" % (kind, reason), flush=True)
            continue
        with Folder() as folder, Disk(folder, kind) as disk:
            test(folder, disk)


def write_until_full(handle, image, chance, refusals=30):
    """Large requests first, then blocks, until there is no room for these either."""
    written = 0
    full = 0
    while full < refusals:
        length = BLOCK * (chance.randrange(1, 256) if full == 0 else chance.randrange(1, 3))
        offset = BLOCK * chance.randrange((SIZE - length) // BLOCK)
        data = chance.randbytes(length)
        error = refused(handle.pwrite, data, offset)
        if error == 0:
            image.write(offset, data)
            written += 1
            check(written < 100000, "it never is full")
        else:
            check(error == errno.ENOSPC, "errno %d" % error)
            full += 1
    return written


def read_all(handle):
    return b"".join(handle.pread(1 << 20, at) for at in range(0, SIZE, 1 << 20))


def fill_target(handle, mirror, image, chance):
    """All of the volume is written and applied: its target has all its blocks."""
    for at in range(0, SIZE, 1 << 20):
        data = chance.randbytes(1 << 20)
        handle.pwrite(data, at)
        image.write(at, data)
    rlctl("apply", mirror, "--to", "latest", "--yes")
    rlctl("trim", mirror, "--to", "latest", "--yes")


def check_live(folder, disk):
    mirror = os.path.join(disk.place, "m")
    chance = random.Random(disk.kind)
    image = Image(SIZE)
    rlctl("create", mirror, "--size", SIZE)
    for killed in (False, True, False):
        with Server(folder, mirror, options=SAFE) as server:
            handle = connect(server)
            if rlctl_json("info", mirror)["items"] == 0:
                fill_target(handle, mirror, image, chance)
            before = rlctl_json("info", mirror)["items"]
            snapshot = bytes(image.read(0, SIZE))
            written = write_until_full(handle, image, chance)
            free = disk.free()
            # ext4 keeps a fiftieth for itself.
            check(free < DISK // 32, "%d bytes are free" % free)
            check(written > 100, "only %d writes" % written)
            check(read_all(handle) == image.read(0, SIZE), "reading, when it is full")
            handle.flush()
            view = connect(server, "item:%d" % before)
            check(read_all(view) == snapshot, "a view, when it is full")
            view.shutdown()
            check(rlctl_json("info", mirror)["items"] == before + written, "items")
            if killed:
                server.kill()
            else:
                make_room(mirror, disk)
                write_again(handle, image, chance)
                handle.shutdown()
        if killed:
            # As full as it was, nobody having served it: the commands do it alone.
            rlctl("read", mirror, "--at", "latest", "--offset", "0", "--length", BLOCK)
            make_room(mirror, disk)
            with Server(folder, mirror, options=SAFE) as server:
                handle = connect(server)
                check(read_all(handle) == image.read(0, SIZE), "after a kill")
                write_again(handle, image, chance)
                handle.shutdown()
        with Server(folder, mirror, options=SAFE) as server:
            copy = os.path.join(folder, "copy")
            run_tool("nbdcopy", server.uri(), copy)
            image.compare(copy, "live, opened anew")
        rlctl("verify", mirror)
        print("     %s: %d writes, then %d KiB were free%s" % (
            disk.kind, written, free >> 10, ", killed" if killed else ""), flush=True)


def make_room(mirror, disk):
    rlctl("apply", mirror, "--to", "latest", "--yes")
    rlctl("trim", mirror, "--to", "latest", "--yes")
    check(disk.free() > 16 << 20, "only %d bytes are free after a trim" % disk.free())


def write_again(handle, image, chance):
    for _ in range(20):
        offset, data = BLOCK * chance.randrange(SIZE // BLOCK - 256), chance.randbytes(256 * BLOCK)
        handle.pwrite(data, offset)
        image.write(offset, data)
    handle.flush()
    check(read_all(handle) == image.read(0, SIZE), "reading, after it")


def check_record(folder, disk):
    """A trace of more than the disk takes: what was refused goes on once there is room."""
    mirror = os.path.join(disk.place, "m")
    target = os.path.join(folder, "target")  # elsewhere, so that it always has room
    with open(target, "wb") as file:
        file.truncate(SIZE)
    trace = os.path.join(folder, "trace.csv")
    chance = random.Random(3)
    with open(trace, "w", encoding="ascii") as file:
        file.write("time_us,op,offset_blocks,length_blocks\n")
        for i in range(2500):
            length = chance.choice((1, 8, 64, 128, 500))
            file.write("%d,W,%d,%d\n" % (i, chance.randrange(SIZE // BLOCK - length), length))
    rlctl("create", mirror, "--size", SIZE, "--target", target)
    times = 0
    resume = ()
    while True:
        done = subprocess.run([RLCTL, "record", mirror, "--trace", trace, *resume],
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False)
        if done.returncode == 0:
            break
        errors = done.stderr.decode()
        check(done.returncode == 13, "exit code %d: %s" % (done.returncode, errors))
        check("the disk is full; apply and trim make room" in errors, errors)
        times += 1
        check(times < 20, "it does not go on")
        items = rlctl_json("info", mirror)["items"]
        export_and_compare(folder, mirror, trace, items)
        rlctl("apply", mirror, "--to", "item:%d" % items, "--yes")
        rlctl("trim", mirror, "--to", "item:%d" % items, "--yes")
        resume = ("--resume",)
    check(times > 0, "the disk never was full")
    export_and_compare(folder, mirror, trace, 2500)
    rlctl("verify", mirror)
    print("     %s: full %d times" % (disk.kind, times), flush=True)


def export_and_compare(folder, mirror, trace, items):
    image = os.path.join(folder, "image")
    if os.path.exists(image):
        os.unlink(image)
    rlctl("export", mirror, "--at", "latest", image)
    expectation = Expectation(read_trace(trace))
    expectation.advance(items)
    compare_image(image, SIZE, expectation)


def check_sparse_target(folder, disk):
    """A target on the same disk that has no blocks yet needs room from elsewhere."""
    mirror = os.path.join(disk.place, "m")
    ballast = os.path.join(disk.place, "ballast")
    chance = random.Random(5)
    image = Image(SIZE)
    with open(ballast, "wb") as file:
        os.posix_fallocate(file.fileno(), 0, 20 << 20)
    rlctl("create", mirror, "--size", SIZE)
    with Server(folder, mirror, options=SAFE) as server:
        handle = connect(server)
        written = write_until_full(handle, image, chance)
        handle.flush()
        rlctl("apply", mirror, "--to", "latest", "--yes", code=13)
        check("its disk is full; make room there" in rlctl.errors, rlctl.errors)
        check(read_all(handle) == image.read(0, SIZE), "reading, half applied")
        error = refused(handle.pwrite, bytes(1 << 20), 0)
        check(error == errno.ENOSPC, "errno %d" % error)
        os.unlink(ballast)
        rlctl("apply", mirror, "--to", "latest", "--yes")
        rlctl("trim", mirror, "--to", "latest", "--yes")
        write_again(handle, image, chance)
        handle.shutdown()
    with Server(folder, mirror, options=SAFE) as server:
        handle = connect(server)
        check(read_all(handle) == image.read(0, SIZE), "opened anew")
        handle.shutdown()
    check(written > 100, "only %d writes" % written)


def check_images(folder, disk):
    """Images that find no room, synced or not: it is told, nothing is left, what was there stays."""
    size = 2 * DISK
    mirror, full, expected = (os.path.join(folder, name) for name in ("m", "full", "expected"))
    image = os.path.join(disk.place, "image")
    rlctl("create", mirror, "--size", size)
    rlctl("record", mirror, "--trace", write_plain_trace(folder, size // BLOCK // 1024, 1024))
    rlctl("backup", mirror, full)
    with open(image, "wb") as file:
        file.truncate(size)
    for command in (("export", mirror), ("restore", full)):
        for option in ((), ("--no-sync",)):
            rlctl(*command, *option, image, code=13)
            check("cannot write " + image in rlctl.errors, rlctl.errors)
            check(os.stat(image).st_blocks == 0, "the image is another one")
            names = set(os.listdir(disk.place)) - {"lost+found"}
            check(names == {"image"}, "left: %r" % names)
            check(disk.free() > DISK // 2, "the room is not given back")
    rlctl("export", mirror, expected)
    rlctl("export", mirror, "--no-sync", os.path.join(folder, "other"))
    check(same_image(expected, os.path.join(folder, "other")), "not the same image")


def test_images():
    on_each_disk(check_images)


def test_live_volume():
    on_each_disk(check_live)


def test_record():
    on_each_disk(check_record)


def test_sparse_target():
    on_each_disk(check_sparse_target)


need_disks()
run(test_live_volume, test_record, test_sparse_target, test_images)
