"""Damage and sudden ends: a flipped byte is found, and a killed recording leaves a prefix."""

import array
import fcntl
import os
import random
import shutil
import signal
import subprocess
import termios
import time

from support import (RLCTL, Expectation, Folder, check, compare_image, generated_trace, read_trace,
                     rlctl, rlctl_json, run, wait_until)

SIZE = 2 << 30


def recorded_mirror(folder, lines=600, *options):
    mirror = os.path.join(folder, "m")
    trace = os.path.join(folder, "trace.csv")
    generated_trace(trace, lines=lines)
    rlctl("create", mirror, "--size", SIZE, *options)
    rlctl("record", mirror, "--trace", trace, "--checkpoint-every", 100)
    return mirror, trace


def flip(path, position):
    with open(path, "r+b") as file:
        file.seek(position)
        byte = file.read(1)[0]
        file.seek(position)
        file.write(bytes([byte ^ 0x10]))


def test_flipped_data_byte_is_found_and_never_served():
    with Folder() as folder:
        mirror, _ = recorded_mirror(folder)
        check(rlctl_json("verify", mirror)["ok"], "the mirror is whole at first")
        journal = os.path.join(mirror, "journal")
        grains = sorted(name for name in os.listdir(journal) if name.startswith("d-"))
        flip(os.path.join(journal, grains[0]), 512 * 3 + 17)
        answer = rlctl_json("verify", mirror, code=4)
        check(not answer["ok"] and len(answer["damage"]) == 1, "damage: %r" % answer["damage"])
        damage = answer["damage"][0]
        check(damage["length"] > 0 and damage["reason"], "damage: %r" % damage)
        # Right after the damaged write its blocks are not served; before it all is well.
        image = os.path.join(folder, "image")
        rlctl("export", mirror, "--at", "item:0", image)
        rlctl("export", mirror, "--at", "item:1", image, code=12)
        check("cannot read the view's blocks" in rlctl.errors, rlctl.errors)
        check([name for name in os.listdir(folder) if "partial" in name] == [],
              "a part of an image was left")


def test_flipped_metadata_byte_is_found():
    with Folder() as folder:
        mirror, _ = recorded_mirror(folder)
        journal = os.path.join(mirror, "journal")
        grains = sorted(name for name in os.listdir(journal) if name.startswith("m-"))
        flip(os.path.join(journal, grains[0]), 512 * 2 + 100)
        check(rlctl_json("verify", mirror, code=4)["damage"], "damage is told")
        rlctl("stats", mirror, code=12)
        check("damaged" in rlctl.errors or "checksum" in rlctl.errors, rlctl.errors)
        rlctl("stats", mirror, "--recovery", "salvage", code=3)
        rlctl("stats", mirror, "--recovery", "point-in-time")


def test_killed_recording_is_a_prefix_and_goes_on():
    chance = random.Random(5)
    with Folder() as folder:
        trace = os.path.join(folder, "trace.csv")
        image = os.path.join(folder, "image")
        generated_trace(trace, lines=30000)
        lines = read_trace(trace)
        mirror = os.path.join(folder, "m")
        rlctl("create", mirror, "--size", SIZE)
        resume = ()
        interrupted = 0
        # The longest delay halves as long as the recording is over before it: then it begins anew.
        longest = 0.2
        for number in range(16):
            command = [RLCTL, "record", mirror, "--trace", trace, "--checkpoint-every", "500",
                       *resume]
            with subprocess.Popen(command, stderr=subprocess.DEVNULL,
                                  stdout=subprocess.DEVNULL) as process:
                time.sleep(chance.uniform(0.1 * longest, longest))
                process.send_signal(signal.SIGKILL if number % 2 == 0 else signal.SIGTERM)
                code = process.wait()
            check(code in (-9, 130, 0, -15), "exit code %d" % code)
            interrupted += code != 0
            info = rlctl_json("info", mirror)
            items = info["items"]
            check(items <= len(lines), "more than was written")
            listed = rlctl_json("checkpoints", mirror)["checkpoints"]
            check([c["items"] for c in listed] ==
                  [500 * (i + 1) if 500 * (i + 1) <= len(lines) else len(lines)
                   for i in range(len(listed))], "checkpoints: %r" % listed)
            expectation = Expectation(lines)
            expectation.advance(items)
            rlctl("export", mirror, "--at", "latest", image)
            compare_image(image, SIZE, expectation)
            if os.path.exists(os.path.join(mirror, "recording")):
                resume = ("--resume",)
            if code == 0 and interrupted == 0:
                longest /= 2
                shutil.rmtree(mirror)
                rlctl("create", mirror, "--size", SIZE)
                resume = ()
            elif code == 0 or interrupted == 8:
                break
        check(interrupted > 0, "no recording was interrupted")
        # On a slow machine each of them may have come before the recording had begun.
        if rlctl_json("info", mirror)["items"] < len(lines):
            rlctl("record", mirror, "--trace", trace, "--checkpoint-every", 500, *resume)
        check(rlctl_json("info", mirror)["items"] == len(lines), "all lines, each once")
        expectation = Expectation(lines)
        expectation.advance(len(lines))
        rlctl("export", mirror, "--at", "latest", image)
        compare_image(image, SIZE, expectation)
        listed = rlctl_json("checkpoints", mirror)["checkpoints"]
        check([c["items"] for c in listed] ==
              list(range(500, len(lines), 500)) + [len(lines)], "checkpoints at the end")
        check(rlctl_json("verify", mirror)["ok"], "verify")


def bytes_in(pipe):
    """How many nobody has read yet."""
    count = array.array("i", [0])
    fcntl.ioctl(pipe.fileno(), termios.FIONREAD, count)
    return count[0]


def test_writer_in_use_is_11_and_readers_go_on():
    with Folder() as folder:
        mirror, _ = recorded_mirror(folder)
        # A writer that waits for its trace on a pipe.
        with subprocess.Popen([RLCTL, "record", mirror, "--trace", "-"],
                              stdin=subprocess.PIPE) as writer:
            writer.stdin.write(b"time_us,op,offset_blocks,length_blocks\n")
            writer.stdin.flush()
            # It reads when it has the mirror.
            wait_until(lambda: bytes_in(writer.stdin) == 0, "the writer never reads its trace")
            check(writer.poll() is None, "the writer ended")
            done = subprocess.run([RLCTL, "checkpoint", mirror], stderr=subprocess.PIPE,
                                  stdout=subprocess.PIPE, check=False)
            check(done.returncode == 11, "exit code %d" % done.returncode)
            check(b"in use" in done.stderr, done.stderr.decode())
            rlctl("stats", mirror)
            writer.stdin.close()
            check(writer.wait() == 0, "the writer failed")


def test_target_that_was_cut_is_damage_and_not_zeroes():
    for named in (False, True):
        with Folder() as folder:
            target = os.path.join(folder, "m", "target")
            options = ()
            if named:
                target = os.path.join(folder, "volume")
                with open(target, "wb") as file:
                    file.truncate(SIZE)
                options = ("--target", target)
            mirror, _ = recorded_mirror(folder, 600, *options)
            rlctl("apply", mirror, "--to", "cp:1", "--yes")
            os.truncate(target, SIZE - 512)
            before = os.stat(target)
            for command in (("read", mirror, "--length", "4K"), ("verify", mirror), ("info", mirror),
                            ("apply", mirror, "--to", "cp:2", "--yes")):
                rlctl(*command, code=12)
                check("%d bytes" % (SIZE - 512) in rlctl.errors and str(SIZE) in rlctl.errors,
                      "not both sizes: " + rlctl.errors)
            check(os.stat(target).st_mtime_ns == before.st_mtime_ns, "the target was changed")
            os.truncate(target, SIZE + 512)  # more than is needed is no harm
            rlctl("info", mirror)


run(test_flipped_data_byte_is_found_and_never_served, test_flipped_metadata_byte_is_found,
    test_killed_recording_is_a_prefix_and_goes_on, test_writer_in_use_is_11_and_readers_go_on,
    test_target_that_was_cut_is_damage_and_not_zeroes)
