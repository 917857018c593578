"""SIGUSR1 and SIGTERM at the commands that take long: a line of progress, a safe end, and going on."""

import os
import random
import signal
import subprocess
import time

from support import (BLOCK, RLCTL, Expectation, Folder, check, compare_image, generated_trace,
                     read_trace, rlctl, rlctl_json, run)

SIZE = (1 << 22) * BLOCK
LINES = 6000


def make(folder):
    mirror, trace = (os.path.join(folder, name) for name in ("m", "trace.csv"))
    generated_trace(trace, lines=LINES, blocks=SIZE // BLOCK, seed=19)
    rlctl("create", mirror, "--size", SIZE)
    rlctl("record", mirror, "--trace", trace, "--checkpoint-every", 1000)
    return mirror, read_trace(trace)


def listens(process):
    """Waits until the process has its handlers; False: it ended before."""
    bits = (1 << signal.SIGUSR1 - 1) | (1 << signal.SIGTERM - 1)
    while process.poll() is None:
        try:
            with open("/proc/%d/status" % process.pid, encoding="ascii") as file:
                mask = next((line for line in file if line.startswith("SigCgt:")), "SigCgt: 0")
        except OSError:
            continue
        if int(mask.split()[1], 16) & bits == bits:
            return True
    return False


def told(delay, *command):
    """Asks the command how far it is, and then to end: its exit code, and what it said."""
    with subprocess.Popen([RLCTL, *command], stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE) as process:
        if listens(process):
            process.send_signal(signal.SIGUSR1)
            time.sleep(delay)
            process.send_signal(signal.SIGTERM)
        began = time.monotonic()
        errors = process.stderr.read().decode()
        code = process.wait()
    check(time.monotonic() - began < 20, "the end of %s took too long" % command[0])
    check(code in (0, 130), "%s: exit code %d: %s" % (command[0], code, errors))
    return code, errors


def interrupt(*command, rounds=8, before=None):
    """Tells a command so at several moments, the earlier the less it has done yet."""
    chance = random.Random(command[0])
    interrupted = lines = 0
    for number in range(rounds):
        if before is not None:
            before()
        code, errors = told(chance.random() * 0.02 * number, *command)
        interrupted += code == 130
        lines += any("%" in line for line in errors.splitlines())
    print("     %s: of %d %d interrupted, %d told how far they are" % (
        command[0], rounds, interrupted, lines), flush=True)
    return interrupted, lines


def test_apply_and_trim():
    with Folder() as folder:
        mirror, lines = make(folder)
        interrupted, answered = interrupt("apply", mirror, "--to", "latest", "--yes")
        check(interrupted > 0, "no apply was interrupted")
        check(answered > 0, "no apply told how far it is")
        rlctl("apply", mirror, "--to", "latest", "--yes")
        # A trim may be done before it is asked; whichever it is, nothing is lost.
        interrupt("trim", mirror, "--to", "latest", "--yes")
        rlctl("trim", mirror, "--to", "latest", "--yes")
        check(rlctl_json("verify", mirror)["ok"], "verify")
        expectation = Expectation(lines)
        expectation.advance(len(lines))
        compare_image(os.path.join(mirror, "target"), SIZE, expectation)


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
