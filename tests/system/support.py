"""What the tests from outside share: running rlctl, and an expectation of their own.

The expectation is as simple as can be: for each block of the volume, the number of the last
recorded line that wrote it, 0 for zeroes. It shares no code with the program.
"""

import array
import contextlib
import glob
import json
import os
import random
import shutil
import struct
import subprocess
import sys
import tempfile
import threading
import time

BLOCK = 512
RLCTL = sys.argv[1]


# What has no time limit of its own is waited for as long as it takes, however slow the machine: this
# far end is there only so that a test which waits in vain ends, and says where.
FAR_END = 900
# What a server that a test ends gives itself for it. It says by its exit code whether it kept to
# that, so no test looks at a clock beside it.
STOP_SECONDS = 600


class Failure(Exception):
    pass


def check(condition, text):
    if not condition:
        raise Failure(text)


def wait_until(condition, text):
    """Waits for what comes true by itself. text: what is wrong when it does not; may be a function."""
    until = time.monotonic() + FAR_END
    while not condition():
        if time.monotonic() > until:
            raise Failure(text() if callable(text) else text)
        time.sleep(0.005)


def stacks(pid):
    """What the threads of a process and of its children wait for, as far as this machine tells."""
    pids, told = [pid], []
    for one in pids:
        for task in sorted(glob.glob("/proc/%d/task/*" % one)):
            try:
                with open(task + "/children", encoding="ascii") as file:
                    pids += [int(child) for child in file.read().split()]
                with open(task + "/status", encoding="ascii") as file:
                    state = [line.split(None, 1)[1].strip() for line in file
                             if line.startswith(("Name:", "State:", "SigPnd:", "ShdPnd:"))]
                with open(task + "/wchan", encoding="ascii") as file:
                    told.append("%s %s in %s" % (task, ", ".join(state), file.read()))
            except OSError:
                pass
        if shutil.which("gdb"):
            with contextlib.suppress(subprocess.TimeoutExpired):
                told.append(subprocess.run(
                    ["gdb", "-p", str(one), "-batch", "-ex", "thread apply all bt 25"],
                    stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                    check=False, timeout=FAR_END).stdout.decode(errors="replace"))
    return "\n".join(told)


@contextlib.contextmanager
def stacks_told(process, seconds=120):
    """Prints them where what is done inside takes long, which is no failure by itself."""
    timer = threading.Timer(seconds, lambda: print(stacks(process.pid), flush=True))
    timer.start()
    try:
        yield
    finally:
        timer.cancel()
        timer.join()


def handles(process, *signals):
    """Whether it has handlers for these signals already; until then one ends it as any program."""
    try:
        with open("/proc/%d/status" % process.pid, encoding="ascii") as file:
            caught = next((int(line.split()[1], 16) for line in file if line.startswith("SigCgt:")), 0)
    except OSError:
        return False
    return all(caught >> (number - 1) & 1 for number in signals)


def listens(process, *signals):
    """Waits until it has handlers for these signals; False: it ended before."""
    until = time.monotonic() + FAR_END
    while process.poll() is None and not handles(process, *signals):  # at once, so without a pause
        check(time.monotonic() < until, "the process gets no handlers")
    return process.poll() is None


def rlctl(*arguments, code=0, stdin=None):
    """Runs rlctl and returns its standard output as bytes; any other exit code is a failure."""
    done = subprocess.run([RLCTL, *map(str, arguments)], stdin=stdin, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, check=False)
    check(done.returncode == code, "rlctl %s: exit code %d, not %d\n%s" % (
        " ".join(map(str, arguments)), done.returncode, code, done.stderr.decode()))
    rlctl.errors = done.stderr.decode()
    return done.stdout


def rlctl_json(*arguments, code=0):
    answer = json.loads(rlctl(*arguments, "--json", code=code))
    check(answer["schema"] == 1, "no schema")
    return answer


def write_plain_trace(folder, writes, length):
    """A trace of writes of so many blocks, one behind the other."""
    trace = os.path.join(folder, "trace.csv")
    with open(trace, "w") as file:
        file.write("time_us,op,offset_blocks,length_blocks\n")
        file.writelines("%d,W,%d,%d\n" % (i, i * length, length) for i in range(writes))
    return trace


def read_trace(path):
    """The lines that are recorded: (is_write, offset, length)."""
    if path.endswith(".zst"):
        text = subprocess.run(["zstd", "-dc", path], stdout=subprocess.PIPE, check=True).stdout
    else:
        with open(path, "rb") as file:
            text = file.read()
    lines = text.decode().splitlines()
    check(lines[0] == "time_us,op,offset_blocks,length_blocks", "not a trace: " + path)
    result = []
    for line in lines[1:]:
        _, op, offset, length = line.split(",")
        if op in "WTZ":
            result.append((op == "W", int(offset), int(length)))
    return result


class Expectation:
    """The last writer of each block, built line by line."""

    ZERO = 1 << 40

    def __init__(self, lines):
        self.lines = lines
        self.applied = 0
        # Pages of 4096 blocks, of which only those that were written exist.
        self.pages = {}
        self.ios = 0
        self.inserted_blocks = 0

    def advance(self, items):
        """Goes on to the state after the first `items` lines."""
        check(items >= self.applied, "the expectation only goes forward")
        for k in range(self.applied + 1, items + 1):
            is_write, offset, length = self.lines[k - 1]
            value = k if is_write else k + self.ZERO
            end = offset + length
            while offset < end:
                page, start = divmod(offset, 4096)
                count = min(4096 - start, end - offset)
                entries = self.pages.get(page)
                if entries is None:
                    entries = self.pages[page] = array.array("Q", bytes(8 * 4096))
                entries[start:start + count] = array.array("Q", [value]) * count
                offset += count
            self.inserted_blocks += length
        self.applied = items

    def runs(self):
        """(first block, length, k, is_zeroes) of each run of one writer, ascending."""
        current = None
        for page in sorted(self.pages):
            entries = self.pages[page]
            base = page * 4096
            start = 0
            for i in range(1, 4097):
                if i < 4096 and entries[i] == entries[start]:
                    continue
                value = entries[start]
                if value:
                    first = base + start
                    if current and current[2] == value and current[0] + current[1] == first:
                        current[1] += i - start
                    else:
                        if current:
                            yield current[0], current[1], current[2] % self.ZERO, current[2] >= self.ZERO
                        current = [first, i - start, value]
                start = i
        if current:
            yield current[0], current[1], current[2] % self.ZERO, current[2] >= self.ZERO

    def value(self, block):
        entries = self.pages.get(block // 4096)
        return entries[block % 4096] if entries is not None else 0


def payload(k, block, count):
    return b"".join(struct.pack("<QQ", k, b) * 32 for b in range(block, block + count))


def data_extents(file, size):
    """[start, end) of the parts of a sparse file that are no holes."""
    position = 0
    while position < size:
        try:
            start = os.lseek(file.fileno(), position, os.SEEK_DATA)
        except OSError:
            return
        position = os.lseek(file.fileno(), start, os.SEEK_HOLE)
        yield start, position


def compare_image(path, size, expectation):
    """Compares every block of an image: what was written, and that all else is zero."""
    check(os.path.getsize(path) == size, "the image has the wrong size")
    with open(path, "rb") as image:
        # Every block that was written.
        written = []
        for first, length, k, is_zeroes in expectation.runs():
            if is_zeroes:
                continue
            written.append((first, first + length))
            done = 0
            while done < length:
                count = min(2048, length - done)
                image.seek((first + done) * BLOCK)
                if image.read(count * BLOCK) != payload(k, first + done, count):
                    raise Failure("blocks %d to %d are not those of line %d" % (
                        first + done, first + done + count - 1, k))
                done += count
        # Every byte outside of these that is not a hole.
        next_written = 0
        for start, end in data_extents(image, size):
            position = start
            while position < end:
                while next_written < len(written) and written[next_written][1] * BLOCK <= position:
                    next_written += 1
                stop = end
                if next_written < len(written):
                    run = written[next_written]
                    if run[0] * BLOCK <= position:
                        position = min(end, run[1] * BLOCK)
                        continue
                    stop = min(end, run[0] * BLOCK)
                image.seek(position)
                part = image.read(min(stop - position, 1 << 20))
                check(part.count(0) == len(part), "data at byte %d that nobody wrote" % position)
                position += len(part)


def same_image(one, other):
    """Whether two sparse files read the same."""
    size = os.path.getsize(one)
    if size != os.path.getsize(other):
        return False
    with open(one, "rb") as a, open(other, "rb") as b:
        runs = sorted(list(data_extents(a, size)) + list(data_extents(b, size)))
        done = 0
        for start, end in runs:
            start = max(start, done)
            while start < end:
                count = min(end - start, 1 << 20)
                a.seek(start)
                b.seek(start)
                if a.read(count) != b.read(count):
                    return False
                start += count
            done = max(done, end)
    return True


def check_lookup(mirror, at, offset, length, expectation):
    """The pieces cover the range exactly and name what the expectation does."""
    pieces = rlctl_json("lookup", mirror, "--at", at, "--offset", offset * BLOCK,
                        "--length", length * BLOCK)["pieces"]
    position = offset * BLOCK
    for piece in pieces:
        check(piece["offset"] == position and piece["length"] > 0,
              "lookup at %s: a hole or an overlap at byte %d" % (at, position))
        position += piece["length"]
        kind = piece["type"]
        check(kind in ("data", "compressed", "zeroes", "target"), "an unknown type " + kind)
        first = piece["offset"] // BLOCK
        for block in range(first, first + piece["length"] // BLOCK):
            value = expectation.value(block)
            expected = ("target",) if value == 0 else (
                ("zeroes",) if value >= Expectation.ZERO else ("data", "compressed"))
            check(kind in expected, "lookup at %s: block %d is %s, not %s" % (
                at, block, kind, expected))
        if kind in ("data", "compressed"):
            # All blocks of a piece are of one write, and lie one behind the other in it.
            k = expectation.value(first)
            check(all(expectation.value(b) == k
                      for b in range(first, first + piece["length"] // BLOCK)),
                  "a piece of two writes at byte %d" % piece["offset"])
            start = expectation.lines[k - 1][1]
            check(piece["offset_in_io_blocks"] <= first - start, "offset in IO")
            check(isinstance(piece["journal_address"], int), "journal address")
    check(position == (offset + length) * BLOCK, "lookup does not cover the range")


def generated_trace(path, lines=4000, blocks=1 << 22, seed=7):
    """A stream with hot spots, sequential runs, zeroes and odd requests."""
    chance = random.Random(seed)
    position = 0
    with open(path, "w") as file:
        file.write("time_us,op,offset_blocks,length_blocks\n")
        for i in range(lines):
            op = chance.choices("WTZRF", (70, 5, 5, 18, 2))[0]
            length = chance.choice((1, 2, 7, 8, 8, 8, 16, 64, 136, 488))
            if op in "TZ":
                length = chance.choice((8, 100, 4096, 70000))
            kind = chance.random()
            if kind < 0.4:
                offset = position
            elif kind < 0.8:
                offset = chance.randrange(2048)
            else:
                offset = chance.randrange(blocks)
            offset = min(offset, blocks - length)
            position = offset + length if offset + length + 70000 < blocks else 0
            if op == "F":
                offset = length = 0
            file.write("%d,%s,%d,%d\n" % (i * 10, op, offset, length))


def recorded_traces():
    """The traces that RL_TRACES names; says so when there are none."""
    folder = os.environ.get("RL_TRACES", "")
    traces = sorted(glob.glob(os.path.join(folder, "*.csv*"))) if folder else []
    if not traces:
        print("RL_TRACES names no traces: only generated streams are tested")
    return traces


class Folder:
    """A folder that goes away with the test."""

    def __enter__(self):
        self.path = tempfile.mkdtemp(prefix="rlctl-test-")
        return self.path

    def __exit__(self, *_):
        shutil.rmtree(self.path, ignore_errors=True)


def run(*tests):
    """Runs the tests; the exit code says whether all passed."""
    failed = 0
    for test in tests:
        try:
            test()
            print("ok   %s" % test.__name__, flush=True)
        except Failure as failure:
            failed += 1
            print("FAIL %s: %s" % (test.__name__, failure), flush=True)
    sys.exit(1 if failed else 0)
