"""The tools that people have for NBD, on every kind of export: nbdinfo, nbdcopy, qemu-img, qemu-io
and fio."""

import json
import os
import random
import subprocess
import threading
import time

from nbdproxy import Proxy
from nbdsupport import Server, block_map, checkpoint, connect, need_nbd, run_tool
from replay import Image, Order, check_between
from support import Failure, Folder, check, rlctl, rlctl_json, run, same_image

BLOCK = 512
MIB = 1 << 20
DATA, HOLE, HOLE_ZERO = 0, 1, 3
ZEROED = 64 << 10  # of the target's data


class Served:
    """A mirror on a target that has data at [1 MiB, 2 MiB) and [6 MiB, 7 MiB), and its server."""

    def __init__(self, size=8 * MIB, *options):
        self.size, self.options = size, options
        self.folder_of_test = Folder()
        self.image = Image(size)

    def __enter__(self):
        self.folder = self.folder_of_test.__enter__()
        self.mirror = os.path.join(self.folder, "m")
        target = os.path.join(self.folder, "target")
        content = random.Random(1).randbytes(MIB)
        with open(target, "wb") as file:
            file.truncate(self.size)
            for offset in (MIB, 6 * MIB):
                file.seek(offset)
                file.write(content)
                self.image.write(offset, content)
        rlctl("create", self.mirror, "--size", self.size, "--target", target, *self.options)
        self.server = Server(self.folder, self.mirror)
        self.server.__enter__()
        return self

    def __exit__(self, *failure):
        try:
            self.server.__exit__(*failure)
        finally:
            self.folder_of_test.__exit__(*failure)

    def path(self, name):
        return os.path.join(self.folder, name)

    def compare(self, name, image=None):
        """An export with what it has to be, read both with and without its map."""
        for option in ((), ("--no-extents",)):
            copy = self.path("copy")
            run_tool("nbdcopy", *option, self.server.uri(name), copy)
            (image or self.image).compare(copy, "%s %s" % (name, option))
            os.unlink(copy)


def write_history(served):
    """item 1 and 2: data; cp:1; item 3: zeroes over the target, item 4: data; cp:2, named later."""
    handle = connect(served.server)
    data = random.Random(2).randbytes(MIB)
    for offset, length in ((3 * MIB, 4096), (4 * MIB + BLOCK, BLOCK)):
        handle.pwrite(data[:length], offset)
    first = checkpoint(served.mirror)
    handle.zero(ZEROED, MIB)
    handle.pwrite(data[:8192], 4 * MIB)
    second = checkpoint(served.mirror, "later")
    check((first, second) == (("cp:1", 2), ("cp:2", 4)), "checkpoints %r %r" % (first, second))
    handle.shutdown()


def as_text(extents):
    """As nbdinfo --map prints them."""
    names = {DATA: "data", HOLE: "hole", HOLE_ZERO: "hole,zero"}
    return "".join("%10d %11d %4d  %s\n" % (*one, names[one[2]]) for one in extents)


def test_lists_and_maps():
    with Served() as served:
        write_history(served)
        listed = json.loads(run_tool("nbdinfo", "--list", "--json", served.server.uri("")))["exports"]
        points = rlctl_json("checkpoints", served.mirror)["checkpoints"]
        check([one["export-name"] for one in listed] == ["live", "latest", "cp:1", "cp:2"],
              "exports %r" % [one["export-name"] for one in listed])
        for one, point in zip(listed[2:], points):
            when = point["time"].split(".")[0].rstrip("Z")
            check(when in one["description"], "%s: '%s' is without %s" % (
                one["export-name"], one["description"], when))
        check("later" in listed[3]["description"], "a description without its tag")
        for one in listed:
            is_live = one["export-name"] == "live"
            check(one["is_read_only"] == (not is_live), one["export-name"] + ": read-only")
            check(one["can_multi_conn"] == (one["export-name"] != "latest"),
                  one["export-name"] + ": multi-conn")
            check(one["can_flush"], one["export-name"] + ": flush")
            check(one["export-size"] == served.size, one["export-name"] + ": size")
            check((one["block_size_minimum"], one["block_size_preferred"],
                   one["block_size_maximum"]) == (512, 4096, 32 * MIB), "block sizes")
            if is_live:
                check(one["can_fua"] and one["can_zero"] and one["can_trim"] and
                      one["can_fast_zero"], "what live can do")
        text = run_tool("nbdinfo", "--list", served.server.uri(""))
        for expected in ('export="live":\n\tdescription: the live volume\n', 'export="cp:2":\n',
                         "\tblock_size_minimum: 512\n", "\tcontexts:\n\t\tbase:allocation\n"):
            check(expected in text, "nbdinfo --list has no %r:\n%s" % (expected, text))

        # At cp:1, and at cp:2: zeroes took a part of the target's data, a write filled a gap.
        first = [(MIB, MIB), (3 * MIB, 4096), (4 * MIB + BLOCK, BLOCK), (6 * MIB, MIB)]
        second = [(MIB + ZEROED, MIB - ZEROED), (3 * MIB, 4096), (4 * MIB, 8192), (6 * MIB, MIB)]
        target = [(MIB, MIB), (6 * MIB, MIB)]
        for names, data in ((("item:0",), target), (("cp:1", "item:2"), first),
                            (("live", "latest", "cp:2", "tag:later"), second)):
            for name in names:
                compare_map(served, name, between(served.size, data, HOLE_ZERO))
        compare_map(served, "diff:cp:1..cp:2", [
            (0, MIB, HOLE), (MIB, ZEROED, HOLE_ZERO), (MIB + ZEROED, 3 * MIB - ZEROED, HOLE),
            (4 * MIB, 8192, DATA), (4 * MIB + 8192, 4 * MIB - 8192, HOLE)])
        compare_map(served, "diff:item:0..cp:1", between(
            served.size, [(3 * MIB, 4096), (4 * MIB + BLOCK, BLOCK)], HOLE))
        compare_map(served, "diff:cp:2..latest", [(0, served.size, HOLE)])


def between(size, data, rest):
    """A map of that data, with the rest between."""
    result = []
    position = 0
    for offset, length in [*data, (size, 0)]:
        if position < offset:
            result.append((position, offset - position, rest))
        if length:
            result.append((offset, length, DATA))
        position = offset + length
    return result


def compare_map(served, name, expected):
    """The text as it is, and once more in pieces: whatever a client asks for at a time."""
    text = run_tool("nbdinfo", "--map", served.server.uri(name))
    check(text == as_text(expected), "the map of %s:\n%sand not\n%s" % (
        name, text, as_text(expected)))
    handle = connect(served.server, name)
    chance = random.Random(name)
    for _ in range(20):
        length = chance.randrange(1, served.size // BLOCK + 1) * BLOCK
        offset = chance.randrange((served.size - length) // BLOCK + 1) * BLOCK
        found = []
        handle.block_status(length, offset, lambda _, at, entries, __: found.append((at, entries)) or 0)
        for at, entries in found:
            for length, kind in zip(entries[::2], entries[1::2]):
                owner = next(one for one in expected if one[0] <= at < one[0] + one[1])
                check(kind == owner[2] and at + length <= owner[0] + owner[1],
                      "%s: %d bytes at %d are said to be %d" % (name, length, at, kind))
                at += length
    handle.shutdown()


def test_copy_of_a_moving_name_is_one_moment():
    """By several connections, which open it one after the other while it moves on."""
    places = (0, 20 * MIB, 40 * MIB, 64 * MIB - BLOCK)
    with Served(64 * MIB) as served:
        handle = connect(served.server)
        handle.pwrite(bytes(BLOCK), 0)
        checkpoint(served.mirror, "again")
        ending = threading.Event()

        def write():
            number = 0
            while not ending.is_set():
                number += 1
                for place in places:  # each after the answer to the one before
                    handle.pwrite(number.to_bytes(8, "little") * (BLOCK // 8), place)

        writing = threading.Thread(target=write)
        writing.start()
        try:
            for name, is_fixed in (("live", True), ("cp:1", True), ("1", True), ("item:1", True),
                                   ("diff:item:0..cp:1", True), ("latest", False),
                                   ("tag:again", False), ("time:2999-01-01T00:00:00Z", False),
                                   ("diff:item:0..latest", False), ("diff:tag:again..item:2", False)):
                other = connect(served.server, name)
                check(other.can_multi_conn() == is_fixed, "multi-conn of " + name)
                other.shutdown()
            with Server(served.folder, served.mirror, "readonly=true", name="reader") as reader:
                for name in ("latest", "tag:again", "diff:cp:1..latest"):
                    other = connect(reader, name)
                    check(other.can_multi_conn(), "multi-conn of %s, which does not move" % name)
                    other.shutdown()
            for name in 5 * ("latest", "diff:item:0..latest"):
                copy = served.path("copy")
                run_tool("nbdcopy", served.server.uri(name), copy)
                with open(copy, "rb") as file:
                    found = [int.from_bytes(os.pread(file.fileno(), 8, at), "little")
                             for at in places]
                check(found == sorted(found, reverse=True) and found[0] - found[-1] <= 1,
                      "a copy of %s is of several moments: %r" % (name, found))
                os.unlink(copy)
        finally:
            ending.set()
            writing.join()
        handle.shutdown()


def sparse_file(path, size, seed):
    """Random data with holes and zeroes between; returns what it holds."""
    chance = random.Random(seed)
    image = Image(size)
    with open(path, "wb") as file:
        file.truncate(size)
        for _ in range(40):
            length = chance.choice((BLOCK, 4096, 70000, 300000))
            offset = chance.randrange(size - length)
            data = chance.randbytes(length) if chance.random() < 0.7 else bytes(length)
            file.seek(offset)
            file.write(data)
            image.write(offset, data)
    return image


def test_copies_in_both_directions():
    with Served(48 * MIB) as served, Served(48 * MIB, "--compress", "zstd") as other:
        source = served.path("source")
        image = sparse_file(source, served.size, 3)
        run_tool("nbdcopy", "--flush", source, served.server.uri())
        served.compare("live", image)
        name, _ = checkpoint(served.mirror)
        run_tool("nbdcopy", served.server.uri(name), other.server.uri())
        other.compare("live", image)
        again = sparse_file(source, served.size, 4)
        run_tool("qemu-img", "convert", "-n", "-f", "raw", "-O", "raw", source, served.server.uri())
        run_tool("qemu-img", "compare", "-f", "raw", "-F", "raw", source, served.server.uri())
        run_tool("qemu-img", "compare", "-f", "raw", "-F", "raw", served.server.uri(name),
                 served.server.uri(), code=1)
        served.compare("latest", again)
        served.compare(name, image)
        qcow = served.path("view.qcow2")
        run_tool("qemu-img", "convert", "-f", "raw", "-O", "qcow2", served.server.uri(name), qcow)
        run_tool("qemu-img", "check", qcow)
        run_tool("qemu-img", "compare", "-f", "qcow2", "-F", "raw", qcow, served.server.uri(name))
        run_tool("qemu-img", "convert", "-n", "-f", "qcow2", "-O", "raw", qcow, other.server.uri())
        other.compare("live", image)
        # Half of it is other data now: the comparison does see that.
        try:
            other.compare("live", again)
        except Failure:
            return
        raise Failure("two different images compare as equal")


def test_increment():
    """What qemu-img makes of a diff: only the clusters that changed, and B when read over A."""
    size, cluster = 64 * MIB, 64 << 10
    with Served(size) as served:
        chance = random.Random(5)
        handle = connect(served.server)
        for offset in range(0, size, 8 * MIB):
            handle.pwrite(chance.randbytes(2 * MIB), offset)
        first, _ = checkpoint(served.mirror)
        changed = set()
        for length, offset in ((4096, 3 * MIB + BLOCK), (BLOCK, 9 * MIB), (cluster, 16 * MIB),
                               (300000 // BLOCK * BLOCK, 33 * MIB)):
            handle.pwrite(chance.randbytes(length), offset)
            changed |= set(range(offset // cluster, (offset + length - 1) // cluster + 1))
        for length, offset in ((MIB, 24 * MIB + cluster), (8192, 40 * MIB + 4096)):
            handle.zero(length, offset)
            changed |= set(range(offset // cluster, (offset + length - 1) // cluster + 1))
        second, _ = checkpoint(served.mirror)
        handle.pwrite(chance.randbytes(MIB), 0)  # after B: no part of it
        handle.shutdown()
        uri = served.server.uri("diff:%s..%s" % (first, second))
        base, increment, whole = (served.path(name) for name in ("a.raw", "inc.qcow2", "b.raw"))
        run_tool("nbdcopy", served.server.uri(first), base)
        run_tool("nbdcopy", served.server.uri(second), whole)
        run_tool("qemu-img", "convert", "-f", "raw", "-O", "qcow2", "-B", base, "-F", "raw", uri,
                 increment)
        run_tool("qemu-img", "check", increment)
        run_tool("qemu-img", "compare", "-f", "qcow2", "-F", "raw", increment, whole)
        run_tool("qemu-img", "compare", "-f", "qcow2", "-F", "raw", increment, base, code=1)
        found = set()
        for one in json.loads(run_tool("qemu-img", "map", "--output=json", "-f", "qcow2", increment)):
            if one["depth"] == 0:
                found |= set(range(one["start"] // cluster, -(-(one["start"] + one["length"]) // cluster)))
        check(found == changed, "clusters %s are in the increment, and %s changed" % (
            sorted(found), sorted(changed)))
        check(os.stat(increment).st_blocks * 512 < 40 * cluster, "the increment is large")
        # A copy that knows nothing of increments gets all of B.
        copy = served.path("copy.raw")
        run_tool("nbdcopy", uri, copy)
        check(same_image(copy, whole), "nbdcopy of a diff is not B")
        check(not same_image(copy, base), "A and B are the same")


def qemu_io(uri, *commands, read_only=False):
    run_tool("qemu-io", *(["-r"] if read_only else []), "-f", "raw",
             *(part for one in commands for part in ("-c", one)), uri)


def test_patterns_over_boundaries():
    size = 80 * MIB
    with Served(size) as served:
        uri = served.server.uri()
        image = served.image
        # (offset, length): blocks, pages, clusters, the size of a grain, the largest request, the end.
        ranges = [(0, 1), (511, 2), (0, 512), (512, 512), (4095, 2), (4096 - 512, 1024), (65535, 65538),
                  (16 * MIB - 512, 1024), (16 * MIB - 4096, 2 * MIB), (15 * MIB, 17 * MIB + 512),
                  (32 * MIB - 512, 1024), (32 * MIB, 32 * MIB), (31 * MIB + 512, 32 * MIB),
                  (size - 512, 512), (size - 4097, 4097), (size - 16 * MIB - 512, 16 * MIB + 512)]
        commands = []
        for number, (offset, length) in enumerate(ranges):
            pattern = number + 1
            commands += ["write -P %d %d %d" % (pattern, offset, length),
                         "read -P %d %d %d" % (pattern, offset, length)]
            image.write(offset, bytes([pattern]) * length)
            if number % 4 == 3:
                offset, length = offset + 512, max(512, length // 2 // 512 * 512)
                length = min(length, size - offset)
                if length > 0:
                    commands += ["write -z %d %d" % (offset, length), "read -P 0 %d %d" % (offset, length)]
                    image.zero(offset, length)
            if number == 7:
                qemu_io(uri, *commands, "discard %d 4096" % (20 * MIB), "flush")
                commands = []
                middle, before = checkpoint(served.mirror)[0], Image(size)
                before.chunks = {key: bytearray(one) for key, one in image.chunks.items()}
        qemu_io(uri, *commands, "flush")
        served.compare("live")
        served.compare(middle, before)
        qemu_io(served.server.uri(middle), "read -P 3 0 1", "read -P 0 %d 4096" % (20 * MIB),
                read_only=True)
        # It does say so when a byte is another one.
        run_tool("qemu-io", "-r", "-f", "raw", "-c", "read -P 2 0 1", uri, code=1)


class Meanwhile(threading.Thread):
    """What goes on beside the clients: a checkpoint every so often, and what follows it."""

    def __init__(self, mirror, proxy=None, moves=False):
        super().__init__()
        self.mirror, self.proxy, self.moves = mirror, proxy, moves
        self.ending = threading.Event()
        self.taken = []  # (name, items, before, after)
        self.trims = 0
        self.failure = None

    def run(self):
        try:
            while not self.ending.wait(0.15):
                before = self.proxy.now() if self.proxy else 0
                name, items = checkpoint(self.mirror)
                self.taken.append((name, items, before, self.proxy.now() if self.proxy else 0))
                if self.moves and len(self.taken) > 2:
                    to = self.taken[-3][0]
                    rlctl("apply", self.mirror, "--to", to, "--yes")
                    rlctl("trim", self.mirror, "--to", to, "--yes")
                    self.trims += 1
        except Failure as failure:
            self.failure = failure

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, kind, *_):
        self.ending.set()
        self.join()
        if kind is None and self.failure:
            raise self.failure


def fio(served, uri, seed, *options):
    report = served.path("fio.json")
    run_tool("fio", "--name=verified", "--ioengine=nbd", "--uri=" + uri, "--rw=randwrite",
             "--bsrange=512-128k", "--blockalign=512", "--iodepth=32", "--numjobs=4",
             "--size=%d" % (served.size // 4), "--offset_increment=%d" % (served.size // 4),
             "--verify=crc32c", "--verify_fatal=1", "--do_verify=1", "--randseed=%d" % seed,
             "--group_reporting", "--verify_state_save=0", "--output=" + report, "--output-format=json", *options)
    with open(report, encoding="utf-8") as file:
        job = json.load(file)["jobs"][0]
    check(job["error"] == 0, "fio: error %d" % job["error"])
    check(job["read"]["io_bytes"] > 0, "fio verified nothing")
    return job["write"]["total_ios"]


def test_fio_beside_checkpoints():
    """Every checkpoint taken under load holds what the recorded requests say."""
    started = time.monotonic()
    with Served(32 * MIB) as served:
        # Four connections, each of which waits for its own answers only.
        proxy = Proxy(served.path("p.sock"), served.server.socket)
        with Meanwhile(served.mirror, proxy) as meanwhile:
            ios = rounds = 0
            # On a fast machine one round is over before anything was taken beside it.
            while rounds < 1 or (len(meanwhile.taken) < 4 and rounds < 30
                                 and not meanwhile.failure):
                rounds += 1
                ios += fio(served, "nbd+unix:///live?socket=" + proxy.path, rounds)
        handle = connect(served.server)
        handle.flush()
        handle.shutdown()
        proxy.close()
        order = Order(served.mirror, proxy.requests)
        check(not order.missing, "answered requests are not in the journal")
        for name, items, before, after in meanwhile.taken:
            check_between(order, items, before, after)
            order.play(served.image, items)
            served.compare(name)
        order.play(served.image, len(order.requests))
        served.compare("live")
        check(len(meanwhile.taken) > 2, "only %d checkpoints" % len(meanwhile.taken))
        print("     %d writes, %d checkpoints compared, %.1f s" % (
            ios, len(meanwhile.taken), time.monotonic() - started))


def test_fio_beside_apply_and_trim():
    started = time.monotonic()
    with Served(96 * MIB, "--compress", "lz4") as served:
        ios = rounds = 0
        with Meanwhile(served.mirror, moves=True) as meanwhile:
            while rounds < 2 or (meanwhile.trims < 4 and rounds < 200 and not meanwhile.failure):
                rounds += 1
                ios += fio(served, served.server.uri(), rounds, "--refill_buffers",
                           "--buffer_compress_percentage=30")
        check(meanwhile.trims > 1, "%d trims" % meanwhile.trims)
        kept = served.path("kept")
        run_tool("nbdcopy", served.server.uri(), kept)
        points = rlctl_json("checkpoints", served.mirror)["checkpoints"]
        copies = []
        for point in points[-2:]:
            copies.append(("cp:%d" % point["id"], served.path("cp-%d" % point["id"])))
            run_tool("nbdcopy", served.server.uri(copies[-1][0]), copies[-1][1])
        served.server.stop()
        served.server.start()
        for name, copy in [("live", kept), *copies]:
            again = served.path("again")
            run_tool("nbdcopy", "--no-extents", served.server.uri(name), again)
            check(same_image(again, copy), "%s is another one after a restart" % name)
            os.unlink(again)
        print("     %d writes, %d applies and trims, %.1f s" % (
            ios, meanwhile.trims, time.monotonic() - started))


need_nbd("nbdinfo", "nbdcopy", "qemu-img", "qemu-io", "fio")
run(test_lists_and_maps, test_copy_of_a_moving_name_is_one_moment, test_copies_in_both_directions,
    test_increment, test_patterns_over_boundaries, test_fio_beside_checkpoints,
    test_fio_beside_apply_and_trim)
