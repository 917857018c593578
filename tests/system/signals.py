"""SIGUSR1 and SIGTERM at the commands that take long: a line of progress, a safe end, and going on."""

import os
import random
import signal
import subprocess
import time

from support import (BLOCK, RLCTL, Expectation, Folder, check, compare_image,
                     generated_trace, listens, read_trace, rlctl, rlctl_json, run)

SIZE = (1 << 22) * BLOCK
LINES = 6000


def make(folder):
    mirror, trace = (os.path.join(folder, name) for name in ("m", "trace.csv"))
    generated_trace(trace, lines=LINES, blocks=SIZE // BLOCK, seed=19)
    rlctl("create", mirror, "--size", SIZE)
    rlctl("record", mirror, "--trace", trace, "--checkpoint-every", 1000)
    return mirror, read_trace(trace)


def told(delay, *command):
    """Asks the command how far it is, and then to end: its exit code, and what it said."""
    with subprocess.Popen([RLCTL, *command], stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE) as process:
        if listens(process, signal.SIGUSR1, signal.SIGTERM):
            process.send_signal(signal.SIGUSR1)
            time.sleep(delay)
            process.send_signal(signal.SIGTERM)
        errors = process.stderr.read().decode()
        code = process.wait()
    check(code in (0, 130), "%s: exit code %d: %s" % (command[0], code, errors))
    return code, errors


def interrupt(*command, rounds=8, before=None):
    """Tells a command so at several moments, the earlier the less it has done yet. Where it begins
    anew each time, until it was interrupted and has told how far it is: on a busy machine it may be
    over before."""
    chance = random.Random(command[0])
    interrupted = lines = number = 0
    most = rounds if before is None else 20 * rounds
    while number < rounds or ((interrupted == 0 or lines == 0) and number < most):
        if before is not None:
            before()
        code, errors = told(chance.random() * 0.02 * (number % rounds), *command)
        number += 1
        interrupted += code == 130
        lines += any("%" in line for line in errors.splitlines())
    print("     %s: of %d %d interrupted, %d told how far they are" % (
        command[0], number, interrupted, lines), flush=True)
    return interrupted, lines


def test_apply_and_trim():
    interrupted = answered = mirrors = 0
    while mirrors == 0 or ((interrupted == 0 or answered == 0) and mirrors < 20):
        mirrors += 1
        one, other = apply_and_trim()
        interrupted += one
        answered += other
    check(interrupted > 0, "no apply was interrupted")
    check(answered > 0, "no apply told how far it is")


def apply_and_trim():
    """How many applies were interrupted, and how many told how far they are."""
    with Folder() as folder:
        mirror, lines = make(folder)
        counts = interrupt("apply", mirror, "--to", "latest", "--yes")
        rlctl("apply", mirror, "--to", "latest", "--yes")
        # A trim may be done before it is asked; whichever it is, nothing is lost.
        interrupt("trim", mirror, "--to", "latest", "--yes")
        rlctl("trim", mirror, "--to", "latest", "--yes")
        check(rlctl_json("verify", mirror)["ok"], "verify")
        expectation = Expectation(lines)
        expectation.advance(len(lines))
        compare_image(os.path.join(mirror, "target"), SIZE, expectation)
        return counts


def test_backup():
    with Folder() as folder:
        mirror, lines = make(folder)
        file, image = (os.path.join(folder, name) for name in ("b", "image"))

        def clear():
            if os.path.exists(file):
                os.unlink(file)

        interrupted, answered = interrupt("backup", mirror, "--at", "latest", file, before=clear)
        check(interrupted > 0, "no backup was interrupted")
        check(answered > 0, "no backup told how far it is")
        clear()
        check(sorted(os.listdir(folder)) == ["m", "trace.csv"], "left behind: %s" % sorted(
            os.listdir(folder)))
        rlctl("backup", mirror, "--at", "latest", file)
        rlctl("restore", file, image)
        expectation = Expectation(lines)
        expectation.advance(len(lines))
        compare_image(image, SIZE, expectation)


run(test_apply_and_trim, test_backup)
