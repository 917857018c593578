"""Bringing the target forward and giving the journal back, beside readers."""

import os
import random
import signal
import subprocess
import threading
import time

from support import (BLOCK, RLCTL, Expectation, Folder, check, compare_image, generated_trace,
                     payload, read_trace, recorded_traces, rlctl, rlctl_json, run, same_image)

BLOCKS = 1 << 22
SIZE = BLOCKS * BLOCK


def make(folder, lines=3000, every=250, limit=None):
    mirror = os.path.join(folder, "m")
    trace = os.path.join(folder, "trace.csv")
    generated_trace(trace, lines=lines, blocks=BLOCKS, seed=11)
    rlctl("create", mirror, "--size", SIZE, *(("--journal-limit", limit) if limit else ()))
    if every:
        rlctl("record", mirror, "--trace", trace, "--checkpoint-every", every)
    return mirror, trace, read_trace(trace)


def expectation_at(lines, items):
    result = Expectation(lines)
    result.advance(items)
    return result


def journal_bytes_on_disk(mirror):
    folder = os.path.join(mirror, "journal")
    return sum(os.stat(os.path.join(folder, name)).st_blocks * 512 for name in os.listdir(folder))


def expected_bytes(expectation, first, count):
    data = bytearray()
    for block in range(first, first + count):
        value = expectation.value(block)
        if 0 < value < Expectation.ZERO:
            data += payload(value, block, 1)
        else:
            data += bytes(BLOCK)
    return bytes(data)


def compare_export(mirror, at, lines, items, size=SIZE):
    image = mirror + ".img"
    rlctl("export", mirror, "--at", at, image)
    try:
        compare_image(image, size, expectation_at(lines, items))
    finally:
        os.unlink(image)


class Reader(threading.Thread):
    """Reads random ranges of some points, half of them near what was written, until told to end."""

    def __init__(self, mirror, views, lines, blocks, seed):
        super().__init__()
        self.mirror, self.views, self.chance = mirror, views, random.Random(seed)
        self.lines, self.blocks = lines, blocks
        self.ending = threading.Event()
        self.reads = 0
        self.failure = None

    def run(self):
        while not self.ending.is_set() and self.failure is None:
            at, expectation = self.chance.choice(self.views)
            count = self.chance.randrange(1, 600)
            first = self.chance.randrange(self.blocks - count)
            if self.chance.random() < 0.5:
                first = min(first, self.chance.choice(self.lines)[1])
            done = subprocess.run(
                [RLCTL, "read", self.mirror, "--at", at, "--offset", str(first * BLOCK),
                 "--length", str(count * BLOCK), "-q"], capture_output=True, check=False)
            if done.returncode != 0:
                self.failure = "read at %s: %d %s" % (at, done.returncode, done.stderr.decode())
            elif done.stdout != expected_bytes(expectation, first, count):
                self.failure = "blocks %d to %d at %s are wrong" % (first, first + count - 1, at)
            self.reads += 1


def check_apply_and_trim(mirror, lines, size=SIZE):
    checkpoints = rlctl_json("checkpoints", mirror)["checkpoints"]
    middle = len(checkpoints) // 2
    later = [checkpoints[i] for i in (middle, middle + 2, len(checkpoints) - 1)]
    views = [("cp:%d" % one["id"], expectation_at(lines, one["items"])) for one in later]
    readers = [Reader(mirror, views, lines, size // BLOCK, seed) for seed in range(4)]
    for reader in readers:
        reader.start()
    try:
        for one in checkpoints[:middle + 1]:
            applied = rlctl_json("apply", mirror, "--to", "cp:%d" % one["id"], "--yes")
            check(applied["to_items"] == one["items"], "applied to another point")
        before = [reader.reads for reader in readers]
        while any(r.reads < b + 2 and r.failure is None for r, b in zip(readers, before)):
            time.sleep(0.05)
    finally:
        for reader in readers:
            reader.ending.set()
        for reader in readers:
            reader.join()
    for reader in readers:
        check(reader.failure is None, reader.failure)
    print("     %d reads while it applied" % sum(before))
    compare_image(os.path.join(mirror, "target"), size,
                  expectation_at(lines, checkpoints[middle]["items"]))

    # The journal shrinks, and every point that is left reads as before.
    on_disk = journal_bytes_on_disk(mirror)
    trimmed = rlctl_json("trim", mirror, "--to", "cp:%d" % checkpoints[middle]["id"], "--yes")
    # Half of a journal of two grains may lie in the second one.
    check(trimmed["data_grains"] > 0 or on_disk < 3 * (17 << 20), "nothing was trimmed")
    gone = on_disk - journal_bytes_on_disk(mirror)
    check(trimmed["data_grains"] == 0 or gone > trimmed["data_grains"] * (15 << 20),
          "%d bytes less on disk" % gone)
    left = rlctl_json("checkpoints", mirror)["checkpoints"]
    check(left == checkpoints[middle:], "other checkpoints than before")
    for one in left:
        compare_export(mirror, "cp:%d" % one["id"], lines, one["items"], size)
    check(rlctl_json("verify", mirror)["ok"], "verify after trim")

    rlctl("apply", mirror, "--to", "latest", "--yes")
    image = mirror + "-latest.img"
    rlctl("export", mirror, "--at", "latest", image)
    check(same_image(image, os.path.join(mirror, "target")), "the target is not the latest view")
    os.unlink(image)
    rlctl("trim", mirror, "--to", "latest", "--yes")
    compare_export(mirror, "latest", lines, len(lines), size)
    check(journal_bytes_on_disk(mirror) < 2 * (17 << 20), "the journal is still large")


def test_apply_and_trim_beside_readers():
    with Folder() as folder:
        mirror, _, lines = make(folder)
        check_apply_and_trim(mirror, lines)


def test_apply_and_trim_of_recorded_traces():
    size = 40 << 30
    for trace in recorded_traces():
        if os.path.getsize(trace) > 100000 and not os.environ.get("RL_LONG_TESTS"):
            print("   %s: only with RL_LONG_TESTS" % os.path.basename(trace))
            continue
        print("   " + os.path.basename(trace), flush=True)
        with Folder() as folder:
            mirror = os.path.join(folder, "m")
            lines = read_trace(trace)
            rlctl("create", mirror, "--size", size)
            rlctl("record", mirror, "--trace", trace, "--checkpoint-every", len(lines) // 9)
            check_apply_and_trim(mirror, lines, size)


def test_points_before_the_target_are_gone():
    with Folder() as folder:
        mirror, _, lines = make(folder, lines=400, every=50)
        rlctl("apply", mirror, "--to", "cp:3", "--yes")
        first = rlctl_json("checkpoints", mirror)["checkpoints"][0]
        check(first["id"] == 3, "cp:3 is not the first")
        info = rlctl_json("info", mirror)
        check(info["first_point"] == "item:%d" % first["items"], "first point")
        check(info["applied_items"] == first["items"], "applied items")
        for at in ("cp:2", "item:%d" % (first["items"] - 1), "item:0"):
            rlctl("export", mirror, "--at", at, os.path.join(folder, "x"), code=10)
            check("can serve item:%d to" % first["items"] in rlctl.errors, rlctl.errors)
            rlctl("apply", mirror, "--to", at, "--yes", code=10)
            rlctl("hold", mirror, "--at", at, code=10)
        compare_export(mirror, "cp:3", lines, first["items"])
        check("item:%d only" % first["items"] in
              (rlctl("trim", mirror, "--to", "cp:4", "--yes", code=11), rlctl.errors)[1],
              rlctl.errors)


def test_it_asks_and_dry_runs_change_nothing():
    with Folder() as folder:
        mirror, _, lines = make(folder, lines=300, every=100)
        target = os.path.join(mirror, "target")
        rlctl("apply", mirror, "--to", "cp:2", code=2, stdin=subprocess.DEVNULL)
        check("--yes" in rlctl.errors, rlctl.errors)
        told = rlctl_json("apply", mirror, "--to", "cp:2", "--dry-run")
        check(told["dry_run"] and told["data_bytes"] > 0, "a dry run tells nothing")
        check(os.stat(target).st_blocks == 0, "a dry run wrote to the target")
        check(rlctl_json("info", mirror)["first_point"] == "item:0", "a dry run moved the window")
        done = rlctl_json("apply", mirror, "--to", "cp:2", "--yes")
        check(done["data_bytes"] == told["data_bytes"], "other than the dry run told")
        rlctl("trim", mirror, "--to", "cp:2", code=2, stdin=subprocess.DEVNULL)
        compare_export(mirror, "latest", lines, len(lines))


def test_holds_and_uses_are_not_passed():
    with Folder() as folder:
        mirror, _, lines = make(folder, lines=400, every=50)
        held = rlctl_json("hold", mirror, "--at", "cp:3", "--name", "audit")
        check(held["name"] == "audit" and held["point"] == "cp:3", "hold")
        check(rlctl_json("hold", mirror, "--at", "cp:5")["name"] == "hold-1", "a name of its own")
        rlctl("hold", mirror, "--at", "cp:4", "--name", "audit", code=2)
        rlctl("apply", mirror, "--to", "cp:4", "--yes", code=11)
        check("'audit'" in rlctl.errors and "cp:3" in rlctl.errors, rlctl.errors)
        info = rlctl_json("info", mirror)
        check([one["name"] for one in info["holds"]] == ["audit", "hold-1"], "holds")
        check("audit" in info["trim_held_by"], "trim_held_by")
        rlctl("apply", mirror, "--to", "cp:3", "--yes")
        rlctl("release", mirror, "nobody", code=10)
        rlctl("release", mirror, "audit")
        rlctl("apply", mirror, "--to", "cp:5", "--yes")
        rlctl("release", mirror, "hold-1")
        # An export that nobody reads on stands for a reader that takes its time.
        with subprocess.Popen([RLCTL, "export", mirror, "--at", "cp:6", "-", "-q"],
                              stdout=subprocess.PIPE) as slow:
            check(slow.stdout.read(1) != b"", "no export")
            rlctl("apply", mirror, "--to", "cp:7", "--yes", code=11)
            check("a view of cp:6" in rlctl.errors and str(slow.pid) in rlctl.errors, rlctl.errors)
            check(rlctl_json("info", mirror)["uses"][0]["process"] == slow.pid, "uses")
            slow.kill()
            slow.wait()
            rlctl("apply", mirror, "--to", "cp:7", "--yes")
        check(rlctl_json("info", mirror)["uses"] == [], "a dead process uses something")
        compare_export(mirror, "latest", lines, len(lines))


def test_an_interrupted_apply_goes_on():
    with Folder() as folder:
        mirror, _, lines = make(folder, lines=3000, every=500)
        interrupted = 0
        for delay in (0.05, 0.1, 0.15, 0.2, 0.3):
            with subprocess.Popen([RLCTL, "apply", mirror, "--to", "latest", "--yes", "-q"],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.PIPE) as process:
                time.sleep(delay)
                process.send_signal(signal.SIGINT)
                errors = process.stderr.read().decode()
                code = process.wait()
            # Before it listens, the signal ends it as it does any program.
            check(code in (0, 130, -signal.SIGINT), "exit code %d: %s" % (code, errors))
            interrupted += code == 130
        rlctl("apply", mirror, "--to", "latest", "--yes")
        compare_image(os.path.join(mirror, "target"), SIZE, expectation_at(lines, len(lines)))


def test_retention_keeps_what_is_set():
    with Folder() as folder:
        mirror, trace, lines = make(folder, lines=1500, every=100)
        count = len(rlctl_json("checkpoints", mirror)["checkpoints"])
        rlctl("set", mirror, "--keep-for", "soon", code=2)
        rlctl("set", mirror, "--keep-checkpoints", "few", code=2)
        rlctl("apply", mirror, "--yes", code=2)
        done = rlctl_json("apply", mirror, "--retention", "--yes")
        check(done["items"] == 0, "applied something though everything is to be kept")
        told = rlctl_json("set", mirror, "--keep-checkpoints", "4", "--keep-for", "0s")
        check(told["keep_checkpoints"] == 4, "set")
        rlctl("apply", mirror, "--retention", "--yes")
        rlctl("trim", mirror, "--retention", "--yes")
        left = rlctl_json("checkpoints", mirror)["checkpoints"]
        check([one["id"] for one in left] == list(range(count - 3, count + 1)), "others are left")
        for one in left:
            compare_export(mirror, "cp:%d" % one["id"], lines, one["items"])
        rlctl("set", mirror, "--keep-checkpoints", "0", "--keep-for", "7d")
        info = rlctl_json("info", mirror)
        check(info["keep_for_seconds"] == 7 * 86400 and info["keep_checkpoints"] == 0, "info")
        check("the last 7d" in rlctl("info", mirror).decode(), "info in words")


def test_nearly_full_is_told_before_full():
    with Folder() as folder:
        mirror, trace, lines = make(folder, lines=3000, every=0, limit="40M")
        rlctl("record", mirror, "--trace", trace, "--checkpoint-every", 50, code=13)
        check("nearly full" in rlctl.errors, rlctl.errors)
        check(rlctl.errors.index("nearly full") < rlctl.errors.index("is reached"), rlctl.errors)
        info = rlctl_json("info", mirror)
        check(info["journal_nearly_full"], "info says nothing of it")
        before = info["items"]
        # What was accepted is there, and with room made the recording goes on where it stopped.
        compare_export(mirror, "latest", lines, before)
        for _ in range(50):
            rlctl("apply", mirror, "--retention", "--yes")
            rlctl("trim", mirror, "--retention", "--yes")
            info = rlctl_json("info", mirror)
            check(not info["journal_nearly_full"], "no room was made")
            done = subprocess.run([RLCTL, "record", mirror, "--trace", trace, "--checkpoint-every",
                                   "50", "--resume", "-q"], capture_output=True, check=False)
            if done.returncode == 0:
                break
            check(done.returncode == 13, done.stderr.decode())
        compare_export(mirror, "latest", lines, len(lines))
        check(rlctl_json("verify", mirror)["ok"], "verify")


run(test_apply_and_trim_beside_readers, test_apply_and_trim_of_recorded_traces,
    test_points_before_the_target_are_gone, test_it_asks_and_dry_runs_change_nothing,
    test_holds_and_uses_are_not_passed, test_an_interrupted_apply_goes_on,
    test_retention_keeps_what_is_set, test_nearly_full_is_told_before_full)
