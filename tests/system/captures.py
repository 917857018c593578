"""Captures of a changing image: each checkpoint exports as the image was."""

import filecmp
import os
import random
import resource
import shutil

from support import Folder, check, rlctl, rlctl_json, run


def scribble(path, chance, changes):
    with open(path, "r+b") as file:
        size = os.path.getsize(path)
        for _ in range(changes):
            length = chance.choice((512, 4096, 100, 70000))
            file.seek(chance.randrange(size - length))
            file.write(bytes(length) if chance.random() < 0.3 else chance.randbytes(length))


def check_captures(*options):
    chance = random.Random(3)
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        image = os.path.join(folder, "disk.img")
        with open(image, "wb") as file:
            file.truncate(64 << 20)
        rlctl("create", mirror, "--size", "64M", *options)
        for number in range(1, 5):
            scribble(image, chance, 40)
            if number == 3:
                # A stretch becomes a hole.
                os.system("fallocate -p -o 8M -l 16M " + image)
            shutil.copy(image, "%s.%d" % (image, number))
            captured = rlctl_json("capture", mirror, image, "--tag", "step%d" % number)
            check(captured["checkpoint"] == number, "checkpoint id")
        again = rlctl_json("capture", mirror, image)
        check(again["items"] == 0 and again["changed_bytes"] == 0, "nothing had changed")
        for number in range(1, 5):
            out = os.path.join(folder, "out.img")
            rlctl("export", mirror, "--at", "tag:step%d" % number, out)
            check(filecmp.cmp(out, "%s.%d" % (image, number), shallow=False),
                  "checkpoint %d differs" % number)
            with open(os.path.join(folder, "stream"), "wb") as file:
                file.write(rlctl("export", mirror, "--at", "cp:%d" % number, "-"))
            check(filecmp.cmp(out, os.path.join(folder, "stream"), shallow=False),
                  "the stream of checkpoint %d differs" % number)


def test_captures():
    check_captures()


def test_captures_compressed():
    check_captures("--compress", "zstd")


def test_capture_over_a_named_target():
    chance = random.Random(4)
    with Folder() as folder:
        target = os.path.join(folder, "base.img")
        image = os.path.join(folder, "disk.img")
        mirror = os.path.join(folder, "m")
        out = os.path.join(folder, "out.img")
        with open(target, "wb") as file:
            file.truncate(16 << 20)
        scribble(target, chance, 30)
        shutil.copy(target, image)
        rlctl("create", mirror, "--size", "16M", "--target", target)
        scribble(image, chance, 10)
        captured = rlctl_json("capture", mirror, image)
        check(captured["changed_bytes"] < 4 << 20, "only what differs is journaled")
        rlctl("export", mirror, "--at", "latest", out)
        check(filecmp.cmp(out, image, shallow=False), "the capture differs")
        rlctl("export", mirror, "--at", "item:0", out)
        check(filecmp.cmp(out, target, shallow=False), "before it, the target")


def test_image_of_another_size_is_refused():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        image = os.path.join(folder, "disk.img")
        with open(image, "wb") as file:
            file.truncate(1 << 20)
        rlctl("create", mirror, "--size", "2M")
        rlctl("capture", mirror, image, code=2)
        check(rlctl_json("info", mirror)["checkpoints"] == 0, "nothing changed")


def test_huge_view_costs_what_is_there():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        trace = os.path.join(folder, "trace.csv")
        out = os.path.join(folder, "out.img")
        with open(trace, "w") as file:
            file.write("time_us,op,offset_blocks,length_blocks\n")
            for i in range(500):
                file.write("%d,W,%d,100\n" % (i, i * 4000000))
        rlctl("create", mirror, "--size", "1T")
        rlctl("record", mirror, "--trace", trace)
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        rlctl("export", mirror, "--at", "latest", out)
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        # Reading or writing all of it would take far longer. What the processor did is counted, as it
        # waits for no disk and nobody else.
        took = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
        check(took < 60, "the export of a sparse TiB takes %.1f s" % took)
        check(os.path.getsize(out) == 1 << 40, "size")
        check(os.stat(out).st_blocks * 512 < 100 << 20, "the image is not sparse")


run(test_captures, test_captures_compressed, test_capture_over_a_named_target,
    test_image_of_another_size_is_refused, test_huge_view_costs_what_is_there)
