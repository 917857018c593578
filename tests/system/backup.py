"""Backups of recorded traces: every prefix restores to what export gives, and the streams hold
exactly the blocks that changed, as a reader finds that knows nothing but the format."""

import os
import shutil
import signal
import struct
import subprocess
import time

from support import (BLOCK, RLCTL, Expectation, Folder, Failure, check, compare_image,
                     generated_trace, payload, read_trace, recorded_traces, rlctl, rlctl_json, run,
                     same_image)

SIZE = 40 << 30
INCREMENTS = 10


def read_stream(path):
    """(metadata, records) of a backup; records are (kind, offset, length, data)."""
    listing = subprocess.run(["zstd", "-lv", path], stdout=subprocess.PIPE,
                             stderr=subprocess.DEVNULL, check=True).stdout
    check(b"XXH64" in listing, "the frame has no checksum")
    stream = subprocess.run(["zstd", "-dc", path], stdout=subprocess.PIPE, check=True).stdout
    check(stream[:12] == b"rbd diff v1\n", "no banner")
    at = 12
    metadata = {}
    records = []
    while True:
        tag = stream[at:at + 1]
        at += 1
        if tag in (b"f", b"t"):
            check(not records and tag not in metadata, "metadata out of place")
            length, = struct.unpack_from("<I", stream, at)
            metadata[tag] = stream[at + 4:at + 4 + length].decode()
            at += 4 + length
        elif tag == b"s":
            check(not records and tag not in metadata, "metadata out of place")
            metadata[tag], = struct.unpack_from("<Q", stream, at)
            at += 8
        elif tag in (b"w", b"z"):
            offset, length = struct.unpack_from("<QQ", stream, at)
            at += 16
            data = stream[at:at + length] if tag == b"w" else None
            at += length if tag == b"w" else 0
            records.append((tag, offset, length, data))
        else:
            check(tag == b"e" and at == len(stream), "unknown tag, or no end")
            return metadata, records


def changed_blocks(lines, first, last):
    """The blocks that the lines first + 1 to last write: k, or None where zeroed last."""
    blocks = {}
    for k in range(first + 1, last + 1):
        is_write, offset, length = lines[k - 1]
        value = k if is_write else None
        for block in range(offset, offset + length):
            blocks[block] = value
    return blocks


def check_increment(records, expected):
    """The records hold exactly the expected blocks, each once, with their payload."""
    seen = 0
    position = 0
    for kind, offset, length, data in records:
        check(offset >= position and length > 0, "records out of order at byte %d" % offset)
        check(offset % BLOCK == 0 and length % BLOCK == 0, "half a block")
        position = offset + length
        first = offset // BLOCK
        for block in range(first, first + length // BLOCK):
            if block not in expected:
                raise Failure("block %d was neither written nor zeroed" % block)
            k = expected[block]
            check((k is None) == (kind == b"z"), "block %d has the wrong kind" % block)
            if k is not None:
                start = (block - first) * BLOCK
                check(data[start:start + BLOCK] == payload(k, block, 1),
                      "block %d has the wrong data" % block)
        seen += length // BLOCK
    check(seen == len(expected), "%d blocks, not %d" % (seen, len(expected)))


def check_diff(mirror, span, expected):
    """diff lists the same blocks, in as few extents as can be."""
    extents = rlctl_json("diff", mirror, span)["extents"]
    seen = 0
    before = None
    for extent in extents:
        first = extent["offset"] // BLOCK
        end = first + extent["length"] // BLOCK
        check(extent["type"] in ("data", "zero"), "type")
        if before is not None:
            check(first > before[0] or (first == before[0] and extent["type"] != before[1]),
                  "extents overlap, are out of order, or could be one")
        before = (end, extent["type"])
        for block in range(first, end):
            check(block in expected and (expected[block] is None) == (extent["type"] == "zero"),
                  "diff %s: block %d" % (span, block))
        seen += end - first
    check(seen == len(expected), "diff %s has %d blocks, not %d" % (span, seen, len(expected)))


def points_after(lines, every):
    """The checkpoint in the middle, and ten later points: checkpoints where there are enough."""
    checkpoints = list(range(every, len(lines), every)) + [len(lines)]
    middle = max(1, len(checkpoints) // 2)
    points = [("cp:%d" % middle, checkpoints[middle - 1])]
    rest = checkpoints[middle:]
    if len(rest) >= INCREMENTS:
        step = len(rest) / INCREMENTS
        chosen = [middle + int(step * (i + 1)) for i in range(INCREMENTS)]
        points += [("cp:%d" % number, checkpoints[number - 1]) for number in chosen]
    else:
        start = points[0][1]
        items = [start + (len(lines) - start) * (i + 1) // INCREMENTS for i in range(INCREMENTS)]
        points += [("item:%d" % count, count) for count in items]
    return points


def check_trace(path, every, folder, create_options=(), prefixes=range(INCREMENTS + 1)):
    """prefixes: how many increments a restore to be checked has."""
    lines = read_trace(path)
    mirror = os.path.join(folder, "m")
    rlctl("create", mirror, "--size", "40G", *create_options)
    rlctl("record", mirror, "--trace", path, "--checkpoint-every", every)
    identity = rlctl_json("info", mirror)["id"]
    points = points_after(lines, every)
    name = lambda point: "rl-%d-%s" % (identity, point.replace(":", "-"))
    files = []
    for i, (point, items) in enumerate(points):
        file = os.path.join(folder, "backup-%d" % i)
        if i == 0:
            told = rlctl_json("backup", mirror, "--at", point, file)
            check(told["kind"] == "full" and told["candidate_kept"], "full: %r" % told)
        else:
            before, items_before = points[i - 1]
            told = rlctl_json("backup", mirror, "--at", point, "--since", before, file)
            metadata, records = read_stream(file)
            check(metadata == {b"f": name(before), b"t": name(point), b"s": SIZE},
                  "metadata: %r" % metadata)
            expected = changed_blocks(lines, items_before, items)
            check_increment(records, expected)
            check(told["data_bytes"] + told["zero_bytes"] == len(expected) * BLOCK, "%r" % told)
            check_diff(mirror, "%s..%s" % (before, point), expected)
        files.append(file)
        if i not in prefixes:
            continue
        restored = os.path.join(folder, "restored")
        exported = os.path.join(folder, "exported")
        # The first image is compared block by block, and the last; the others with an export.
        rlctl("restore", *files, restored)
        rlctl("export", mirror, "--at", point, exported)
        check(same_image(restored, exported), "restore differs from export at " + point)
        if i in (0, len(points) - 1):
            expectation = Expectation(lines)
            expectation.advance(items)
            compare_image(restored, SIZE, expectation)
        os.unlink(restored)
        os.unlink(exported)
    return mirror, lines, points, files


def flip(path, position):
    with open(path, "r+b") as file:
        file.seek(position)
        byte = file.read(1)[0]
        file.seek(position)
        file.write(bytes((byte ^ 0x10,)))


def check_refusals(folder, mirror, points, files):
    image = os.path.join(folder, "refused")
    before = set(os.listdir(folder))
    rlctl("restore", files[1], image, code=1)
    check("no full backup" in rlctl.errors, rlctl.errors)
    rlctl("restore", files[0], files[2], image, code=1)
    check("starts from" in rlctl.errors, rlctl.errors)
    rlctl("restore", files[0], files[1], files[0], image, code=1)
    rlctl("restore", files[0], code=2)
    check(set(os.listdir(folder)) == before, "a refused restore leaves something")

    # Another mirror, with a point of the same number.
    other = os.path.join(folder, "other")
    rlctl("create", other, "--size", "40G")
    rlctl("checkpoint", other)
    rlctl("checkpoint", other)
    foreign = os.path.join(folder, "foreign")
    rlctl("backup", other, "--at", "cp:2", "--since", "cp:1", foreign)
    rlctl("restore", files[0], foreign, image, code=1)
    check("another mirror" in rlctl.errors, rlctl.errors)
    shutil.rmtree(other)

    # Damage of the data, of the checksum, and a cut.
    bad = os.path.join(folder, "bad")
    size = os.path.getsize(files[1])
    for position in (size // 3, size // 2, size - 2):
        shutil.copy(files[1], bad)
        flip(bad, position)
        rlctl("restore", files[0], bad, image, code=12)
    shutil.copy(files[1], bad)
    os.truncate(bad, size - 5)
    rlctl("restore", files[0], bad, image, code=12)
    check(not os.path.exists(image), "a damaged backup gives an image")

    # Points in the wrong order, the same point, and no such point.
    first, last = points[0][0], points[-1][0]
    rlctl("backup", mirror, "--at", first, "--since", last, image, code=2)
    rlctl("backup", mirror, "--at", first, "--since", first, image, code=2)
    rlctl("backup", mirror, "--at", "cp:99999", image, code=10)
    rlctl("diff", mirror, "%s..%s" % (last, first), code=2)


def test_generated_stream():
    with Folder() as folder:
        trace = os.path.join(folder, "trace.csv")
        generated_trace(trace, lines=1500, blocks=1 << 20)
        mirror, _, points, files = check_trace(trace, 50, folder, ("--compress", "lz4"))
        check_refusals(folder, mirror, points, files)
        check_merge(folder, files)


def check_merge(folder, files):
    if shutil.which("rbd") is None:
        print("     rbd is not installed: merging by it is not tested")
        return
    plain = []
    for i, file in enumerate(files[1:4]):
        plain.append(os.path.join(folder, "plain-%d" % i))
        subprocess.run(["zstd", "-dqf", file, "-o", plain[-1]], check=True)
    merged = os.path.join(folder, "merged")
    two = os.path.join(folder, "two")
    subprocess.run(["rbd", "merge-diff", plain[0], plain[1], two], check=True)
    subprocess.run(["rbd", "merge-diff", two, plain[2], merged], check=True)
    subprocess.run(["zstd", "-q", "--check", merged, "-o", merged + ".zst"], check=True)
    one = os.path.join(folder, "one")
    other = os.path.join(folder, "other")
    rlctl("restore", files[0], merged + ".zst", one)
    rlctl("restore", *files[:4], other)
    check(same_image(one, other), "merged increments restore to something else")


def test_history():
    with Folder() as folder:
        trace = os.path.join(folder, "trace.csv")
        generated_trace(trace, lines=1000, seed=9)
        lines = read_trace(trace)
        mirror = os.path.join(folder, "m")
        rlctl("create", mirror, "--size", "40G")
        rlctl("record", mirror, "--trace", trace, "--checkpoint-every", 100)
        at = 2 * len(lines) // 3
        expectation = Expectation(lines)
        expectation.advance(at)
        for offset, length in ((0, 64), (1000, 600), (lines[5][1], lines[5][2]), (1 << 25, 8)):
            told = rlctl_json("history", mirror, "--at", "item:%d" % at, "--offset",
                              offset * BLOCK, "--length", length * BLOCK)
            expected = [(k, start, count, "data" if is_write else "zeroes")
                        for k, (is_write, start, count) in enumerate(lines, 1)
                        if start < offset + length and start + count > offset]
            check([(w["item"], w["offset"] // BLOCK, w["length"] // BLOCK, w["type"])
                   for w in told["writes"]] == expected, "history of %d" % offset)
            live = {}
            for block in range(offset, offset + length):
                k = expectation.value(block) % Expectation.ZERO
                live[k] = live.get(k, 0) + BLOCK
            check(told["target_bytes"] == live.get(0, 0), "target bytes")
            for write in told["writes"]:
                check(write["live_bytes"] == live.get(write["item"], 0), "live: %r" % write)
                number = (write["item"] - 1) // 100 # checkpoints before it
                check((write["after"] or {"checkpoint": 0})["checkpoint"] == number, "%r" % write)
                check(write["before"]["checkpoint"] == number + 1, "%r" % write)


def test_after_apply_and_trim():
    with Folder() as folder:
        trace = os.path.join(folder, "trace.csv")
        generated_trace(trace, lines=1000, blocks=1 << 20, seed=11)
        lines = read_trace(trace)
        mirror = os.path.join(folder, "m")
        full, increment, image = (os.path.join(folder, name) for name in ("full", "more", "image"))
        rlctl("create", mirror, "--size", "1G")
        rlctl("record", mirror, "--trace", trace, "--checkpoint-every", 50)
        rlctl("apply", mirror, "--to", "cp:4", "--yes")
        rlctl("trim", mirror, "--to", "cp:4", "--yes")
        check_diff(mirror, "cp:4..cp:9", changed_blocks(lines, 200, 450))
        rlctl("diff", mirror, "cp:3..cp:9", code=10)
        rlctl("backup", mirror, "--at", "cp:3", full, code=10)
        rlctl("backup", mirror, "--at", "cp:5", full)
        rlctl("backup", mirror, "--at", "cp:9", "--since", "cp:5", increment)
        check_increment(read_stream(increment)[1], changed_blocks(lines, 250, 450))
        rlctl("restore", full, increment, image)
        expectation = Expectation(lines)
        expectation.advance(450)
        compare_image(image, 1 << 30, expectation)
        writes = rlctl_json("history", mirror, "--offset", 0, "--length", "1M")["writes"]
        check(writes and all(200 < w["item"] for w in writes[-5:]), "history after a trim")


def test_interrupted_backup():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        image = os.path.join(folder, "image")
        with open(image, "wb") as file:
            for _ in range(24):
                file.write(os.urandom(4 << 20))
        rlctl("create", mirror, "--size", "96M")
        rlctl("capture", mirror, image)
        backup = os.path.join(folder, "backup")
        before = set(os.listdir(folder))
        for delay in (0.02, 0.08, 0.15):
            process = subprocess.Popen([RLCTL, "backup", mirror, backup], stderr=subprocess.PIPE)
            time.sleep(delay)
            process.send_signal(signal.SIGINT)
            _, errors = process.communicate()
            if process.returncode == 0: # it was done before
                os.unlink(backup)
                continue
            check(process.returncode in (130, -signal.SIGINT), errors.decode())
            check(set(os.listdir(folder)) == before, "an interrupted backup leaves something")
        rlctl("backup", mirror, backup)
        restored = os.path.join(folder, "restored")
        rlctl("restore", backup, restored)
        check(same_image(image, restored), "restore differs from the captured image")


def test_empty_increment_of_a_large_volume():
    with Folder() as folder:
        mirror = os.path.join(folder, "m")
        rlctl("create", mirror, "--size", "1024G")
        rlctl("checkpoint", mirror)
        rlctl("checkpoint", mirror)
        file = os.path.join(folder, "empty")
        told = rlctl_json("backup", mirror, "--at", "cp:2", "--since", "cp:1", file)
        check(told["data_bytes"] == 0 and told["zero_bytes"] == 0, "%r" % told)
        metadata, records = read_stream(file)
        check(not records and metadata[b"s"] == 1 << 40, "an empty increment")
        print("     empty increment of 1 TiB: %d bytes, %.3f s" % (os.path.getsize(file),
                                                                 told["seconds"]))


def test_recorded_traces():
    for trace in recorded_traces():
        # Each prefix of a large trace is half a gigabyte to write twice and to read twice.
        large = os.path.getsize(trace) > 100000 and not os.environ.get("RL_LONG_TESTS")
        prefixes = (0, INCREMENTS) if large else range(INCREMENTS + 1)
        print("   %s, %d restores" % (os.path.basename(trace), len(prefixes)), flush=True)
        with Folder() as work:
            check_trace(trace, min(2500, len(read_trace(trace)) // 25), work, prefixes=prefixes)


run(test_generated_stream, test_history, test_after_apply_and_trim, test_interrupted_backup,
    test_empty_increment_of_a_large_volume, test_recorded_traces)
