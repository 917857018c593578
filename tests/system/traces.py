"""Records each trace, and compares exports, lookups and statistics with an expectation."""

import os
import random

from support import (BLOCK, Expectation, Folder, check, check_lookup, compare_image,
                     generated_trace, read_trace, recorded_traces, rlctl, rlctl_json, run)

SIZE = 40 << 30


def points_of(lines, every, with_latest):
    """A few points in ascending order: (name, items)."""
    count = len(lines)
    checkpoints = [(i + 1, items) for i, items in enumerate(
        list(range(every, count, every)) + [count])]
    chosen = [checkpoints[0], checkpoints[len(checkpoints) // 2], checkpoints[-1]]
    points = {("cp:%d" % number, items) for number, items in chosen}
    points |= {("item:%d" % items, items) for items in (0, 1, count // 3, every + 1)
               if items <= count}
    if with_latest:
        points.add(("latest", count))
    return sorted(points, key=lambda point: point[1]), checkpoints


def check_trace(path, every, create_options=(), with_latest=True):
    lines = read_trace(path)
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        image = os.path.join(folder, "image")
        rlctl("create", mirror, "--size", "40G", *create_options)
        recorded = rlctl_json("record", mirror, "--trace", path, "--checkpoint-every", every)
        check(recorded["lines"] == len(lines), "recorded lines")
        points, checkpoints = points_of(lines, every, with_latest)

        listed = rlctl_json("checkpoints", mirror)["checkpoints"]
        check([(c["id"], c["items"]) for c in listed] == checkpoints, "checkpoints: %r" % listed)

        chance = random.Random(len(lines))
        expectation = Expectation(lines)
        for name, items in points:
            expectation.advance(items)
            rlctl("export", mirror, "--at", name, image)
            compare_image(image, SIZE, expectation)
            runs = list(expectation.runs())
            stats = rlctl_json("stats", mirror, "--at", name)
            unique = sum(length for _, length, _, _ in runs) * BLOCK
            check(stats["unique_bytes"] == unique,
                  "%s: unique bytes %d, not %d" % (name, stats["unique_bytes"], unique))
            check(stats["bytes_inserted"] == expectation.inserted_blocks * BLOCK,
                  "%s: bytes inserted" % name)
            # A long run of zeroes is several items of the journal, and so several regions.
            if all(length <= 65535 for _, _, length in lines):
                check(stats["regions"] == len(runs),
                      "%s: %d regions, not %d" % (name, stats["regions"], len(runs)))
            check(stats["items_scanned"] == items, "items scanned")
            for _ in range(2):
                length = chance.choice((1, 8, 300, 20000))
                around = chance.choice(runs)[0] if runs else 0
                offset = max(0, min(around - chance.randrange(length + 1), SIZE // BLOCK - length))
                check_lookup(mirror, name, offset, length, expectation)
            if runs:
                first, length, _, _ = chance.choice(runs)
                data = rlctl("read", mirror, "--at", name, "--offset", first * BLOCK + 5,
                             "--length", length * BLOCK - 7)
                with open(image, "rb") as file:
                    file.seek(first * BLOCK + 5)
                    check(data == file.read(length * BLOCK - 7), "read differs from export")
            os.unlink(image)
        check(rlctl_json("verify", mirror)["ok"], "verify")


def test_generated_stream():
    with Folder() as folder:
        trace = os.path.join(folder, "trace.csv")
        generated_trace(trace)
        check_trace(trace, 1000)


def test_generated_stream_compressed():
    with Folder() as folder:
        trace = os.path.join(folder, "trace.csv")
        generated_trace(trace, lines=2000, seed=8)
        check_trace(trace, 500, ("--compress", "lz4"))


def test_recorded_traces():
    for trace in recorded_traces():
        print("   " + os.path.basename(trace), flush=True)
        # The last checkpoint is the latest point: a second export of it would cost time for nothing.
        check_trace(trace, 10000, with_latest=False)


run(test_generated_stream, test_generated_stream_compressed, test_recorded_traces)
