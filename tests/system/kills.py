"""kill -9 at random moments of record, apply, trim, backup and restore.

After each one the mirror verifies, what was acknowledged is there, and what can be served is what
an expectation says that shares no code with the program: the image as the trace's lines leave it.
"""

import os
import random
import signal
import subprocess
import time

from support import RLCTL, BLOCK, Failure, Folder, check, payload, read_trace, rlctl, rlctl_json, run

BLOCKS = 1 << 15
SIZE = BLOCKS * BLOCK
KINDS = ("record", "apply", "trim", "backup", "restore")
EVERY = 40  # lines from checkpoint to checkpoint


def write_trace(path, chance):
    """A small volume that is overwritten a few times: several grains of journal, small images."""
    position = 0
    with open(path, "w") as file:
        file.write("time_us,op,offset_blocks,length_blocks\n")
        for i in range(1500):
            op = chance.choices("WTZRF", (80, 5, 5, 8, 2))[0]
            length = chance.choice((8, 100, 2000) if op in "TZ" else (1, 7, 8, 8, 64, 136, 488))
            offset = position if chance.random() < 0.4 else chance.randrange(BLOCKS)
            offset = min(offset, BLOCKS - length)
            position = (offset + length) % BLOCKS
            file.write("%d,%s,%d,%d\n" % (i, op, *((0, 0) if op == "F" else (offset, length))))


class Images:
    """The volume's bytes after the first lines of a trace, with a copy at every 200th."""

    STEP = 200

    def __init__(self, lines):
        self.lines = lines
        self.copies = [bytes(SIZE)]

    def play(self, image, begin, end):
        for k in range(begin + 1, end + 1):
            is_write, offset, length = self.lines[k - 1]
            image[offset * BLOCK:(offset + length) * BLOCK] = (
                payload(k, offset, length) if is_write else bytes(length * BLOCK))

    def at(self, items):
        check(items <= len(self.lines), "more items than lines")
        while len(self.copies) <= items // self.STEP:
            image = bytearray(self.copies[-1])
            begin = (len(self.copies) - 1) * self.STEP
            self.play(image, begin, begin + self.STEP)
            self.copies.append(bytes(image))
        image = bytearray(self.copies[items // self.STEP])
        self.play(image, items // self.STEP * self.STEP, items)
        return image


def compare_file(path, expected, what):
    with open(path, "rb") as file:
        data = file.read()
    check(len(data) == len(expected), "%s has %d bytes" % (what, len(data)))
    if data != expected:
        block = next(b for b in range(BLOCKS)
                     if data[b * BLOCK:(b + 1) * BLOCK] != expected[b * BLOCK:(b + 1) * BLOCK])
        raise Failure("%s: block %d is wrong" % (what, block))


class Pace:
    """How long each command takes, so that the kills fall within it."""

    def __init__(self):
        self.whole = {}
        self.least = 0
        # What was measured at first stops being true when others want the cores.
        self.factor = dict.fromkeys(KINDS, 1.0)

    def measure(self, folder, chance):
        mirror = Mirror(folder, chance, self)
        started = time.monotonic()
        rlctl("info", mirror.path)
        self.least = time.monotonic() - started
        for kind in ("record", "backup", "restore", "apply", "trim"):
            plan = mirror.plan(kind, whole=True)
            started = time.monotonic()
            rlctl(*plan.arguments)
            self.whole[kind] = time.monotonic() - started
            if kind == "backup":
                mirror.backups.append((plan.file, plan.checkpoint))

    def draw(self, chance, plan):
        share = max(0.0, min(1.0, plan.share))
        longest = self.least + max(0.0, self.whole[plan.kind] - self.least) * share
        return chance.random() * longest * self.factor[plan.kind]

    def learn(self, kind, hit):
        # Quickly, as there are few kills of a kind; they settle where three of four hit.
        self.factor[kind] *= 1.1 if hit else 0.75


class Plan:
    def __init__(self, kind, share, arguments, items=0, file=None, checkpoint=None):
        self.kind, self.share, self.items, self.file = kind, share, items, file
        self.checkpoint = checkpoint
        self.arguments = [kind, *arguments]

    def text(self):
        return " ".join(self.arguments)


class Mirror:
    """A mirror, and what is known of it from commands that ended and from what they said."""

    def __init__(self, folder, chance, pace):
        self.folder, self.chance, self.pace = folder, chance, pace
        self.path = os.path.join(folder, "m")
        self.trace = os.path.join(folder, "trace.csv")
        write_trace(self.trace, chance)
        self.lines = read_trace(self.trace)
        self.images = Images(self.lines)
        self.checkpoints = []  # acknowledged: (id, items, tag), ascending
        self.items = self.first = self.applied = self.trimmed = 0
        self.recorded = False
        self.backups = []  # (file, checkpoint): a full one and the increments behind it
        self.files = 0
        rlctl("create", self.path, "--size", SIZE)

    def usable(self):
        return [one for one in self.checkpoints if one[1] >= self.first]

    def plan(self, kind, whole=False):
        """The command, with the share of its whole work that there is; None: nothing to do."""
        count = len(self.lines)
        if kind == "record":
            if self.recorded:
                return None
            resume = os.path.exists(os.path.join(self.path, "recording"))
            return Plan(kind, (count - self.items) / count,
                        [self.path, "--trace", self.trace, "--checkpoint-every", str(EVERY),
                         *(["--resume"] if resume else [])])
        self.look()
        if kind == "apply":
            if self.items == self.first == self.applied:
                return None
            to = self.items if whole else self.chance.choice(
                (self.items, self.chance.randrange(self.first, self.items + 1)))
            return Plan(kind, (to - self.applied) / count,
                        [self.path, "--to", "item:%d" % to, "--yes"], to)
        if kind == "trim":
            to = self.applied
            grains = rlctl_json("trim", self.path, "--to", "item:%d" % to, "--yes", "--dry-run")
            if grains["data_grains"] + grains["metadata_grains"] == 0:
                return None
            return Plan(kind, (to - self.trimmed) / count,
                        [self.path, "--to", "item:%d" % to, "--yes"], to)
        if kind == "backup":
            since = self.backups[-1][1][1] if self.backups else 0
            later = [one for one in self.usable() if one[1] > since]
            if not later:
                return None
            at = later[-1] if whole else self.chance.choice(later)
            arguments = ["--at", "cp:%d" % at[0]]
            # An increment starts where the last backup ended, as long as that can be had.
            if self.backups and self.backups[-1][1] in self.usable():
                arguments += ["--since", "cp:%d" % self.backups[-1][1][0]]
            elif self.backups:
                self.backups = []
            self.files += 1
            file = os.path.join(self.folder, "backup-%d" % self.files)
            return Plan(kind, (at[1] - since) / count, [self.path, *arguments, file], at[1], file, at)
        if not self.backups:
            return None
        file = os.path.join(self.folder, "restored")
        items = self.backups[-1][1][1]
        return Plan(kind, items / count, [*(one[0] for one in self.backups), file], items, file)

    def look(self):
        """Takes in what the mirror tells of itself, and that it lost nothing since the last time."""
        info = rlctl_json("info", self.path)
        first = int(info["first_point"].split(":")[1])
        check(info["items"] >= self.items, "%d items, and there were %d" % (
            info["items"], self.items))
        for now, before, what in ((first, self.first, "first point"),
                                  (info["applied_items"], self.applied, "target"),
                                  (info["trimmed_items"], self.trimmed, "trim position")):
            check(now >= before, "the %s went back from item %d to %d" % (what, before, now))
        self.items, self.first = info["items"], first
        self.applied, self.trimmed = info["applied_items"], info["trimmed_items"]
        self.see_checkpoints(rlctl_json("checkpoints", self.path)["checkpoints"])
        return info

    def see_checkpoints(self, listed):
        listed = [(one["id"], one["items"], one["tag"]) for one in listed]
        known = set(listed)
        for one in self.usable():
            check(one in known, "checkpoint %r is lost" % (one,))
        check(not listed or listed[0][1] >= self.first, "a checkpoint before the first point")
        self.checkpoints = listed

    def start(self, plan, delay):
        """Runs the command, kills it after so long, and tells whether it was running."""
        process = subprocess.Popen([RLCTL, *plan.arguments, "-q"], stdout=subprocess.DEVNULL,
                                   stderr=subprocess.PIPE)
        seen = None
        with process:
            time.sleep(delay)
            if plan.kind == "record" and self.items > 0 and self.chance.random() < 0.5:
                # What another process is told of while it runs is acknowledged as well.
                seen = rlctl_json("checkpoints", self.path)["checkpoints"]
            process.send_signal(signal.SIGKILL)
            code = process.wait()
            errors = process.stderr.read().decode()
        check(code in (0, -signal.SIGKILL), "exit code %d %s" % (code, errors))
        if seen is not None:
            self.see_checkpoints(seen)
        return code != 0

    def kill(self, kind):
        """None if there is nothing to do; else whether the kill found it running."""
        plan = self.plan(kind)
        if plan is None:
            return None
        delay = self.pace.draw(self.chance, plan)
        try:
            hit = self.start(plan, delay)
            self.compare(plan, hit)
        except Failure as failure:
            raise Failure("after %s, killed after %.4f s: %s" % (
                plan.text(), delay, failure)) from None
        self.pace.learn(kind, hit)
        return hit

    def compare(self, plan, hit):
        check(rlctl_json("verify", self.path)["ok"], "verify")
        info = self.look()
        if plan.kind == "record":
            # The kill may come between the end of the work and that of the process.
            self.recorded = not os.path.exists(os.path.join(self.path, "recording")) and (
                not hit or self.items > 0)
            check(not self.recorded or self.items == len(self.lines),
                  "recorded %d lines" % self.items)
        if plan.kind == "apply" and not hit:
            check(self.applied == plan.items, "applied to item %d" % self.applied)
        if plan.kind == "record" and self.chance.random() < 0.3:
            told = rlctl_json("checkpoint", self.path, "--tag", "t%d" % len(self.checkpoints))
            check(told["items"] == self.items, "a checkpoint after %d items" % told["items"])
            self.checkpoints.append((told["id"], told["items"], told["tag"]))
        if plan.kind in ("backup", "restore"):
            self.compare_backups(plan, hit)
        points = {self.first, self.items} if plan.kind in ("record", "apply", "trim") else set()
        if self.usable() and (not points or self.chance.random() < 0.4):
            points.add(self.chance.choice(self.usable())[1])
        image = os.path.join(self.folder, "exported")
        for items in points:
            rlctl("export", self.path, "--at", "item:%d" % items, image)
            compare_file(image, self.images.at(items), "item:%d" % items)
            os.unlink(image)
        if info["applied_items"] == info["apply_toward_items"]:
            compare_file(os.path.join(self.path, "target"), self.images.at(self.applied),
                         "the target at item:%d" % self.applied)

    def compare_backups(self, plan, hit):
        expected = self.images.at(plan.items)
        # It is there as a whole or not at all, and the same command succeeds then.
        check(hit or os.path.exists(plan.file), "no file though it ended well")
        if not os.path.exists(plan.file):
            rlctl(*plan.arguments)
        left = [name for name in os.listdir(self.folder) if ".partial-" in name]
        check(not left, "%s leaves %s behind" % (plan.kind, left))
        image = plan.file
        if plan.kind == "backup":
            self.backups.append((plan.file, plan.checkpoint))
            image = os.path.join(self.folder, "restored")
            rlctl("restore", *(one[0] for one in self.backups), image)
        compare_file(image, expected, "what restores at item:%d" % plan.items)
        os.unlink(image)

    def finish(self, kind):
        """Makes something to do for a kind that has nothing; False if this mirror has no more."""
        needed = {"restore": "backup", "trim": "apply"}.get(kind)
        plan = (self.plan(needed) if needed else None) or self.plan("record")
        if plan is None:
            return False
        rlctl(*plan.arguments)
        if plan.kind == "record":
            self.recorded = True
        if plan.kind == "backup":
            self.backups.append((plan.file, plan.checkpoint))
        self.look()
        return True


def test_kill_at_random_moments():
    seed = int(os.environ.get("RL_SEED", random.randrange(1 << 30)))
    kills = int(os.environ.get("RL_KILLS", 200))
    print("     RL_SEED=%d RL_KILLS=%d" % (seed, kills), flush=True)
    chance = random.Random(seed)
    started = time.monotonic()
    pace = Pace()
    with Folder() as folder:
        pace.measure(folder, chance)
    done = dict.fromkeys(KINDS, 0)
    hits = dict.fromkeys(KINDS, 0)
    mirrors = 0

    def hit_enough():
        return 2 * sum(hits.values()) >= kills and all(
            4 * hits[kind] >= done[kind] or done[kind] < 8 for kind in KINDS)

    def goes_on():
        # On a machine that is busy with other things it takes more of them, but not without end.
        return sum(done.values()) < (kills if hit_enough() else 3 * kills)

    while goes_on():
        with Folder() as folder:
            mirror = Mirror(folder, chance, pace)
            mirrors += 1
            stuck = False
            while not stuck and goes_on():
                # The kind that had the fewest kills, so that each gets its part.
                fewest = min(done.values())
                kind = chance.choice([kind for kind in KINDS if done[kind] == fewest])
                hit = mirror.kill(kind)
                if hit is None:
                    stuck = not mirror.finish(kind)
                    continue
                done[kind] += 1
                hits[kind] += hit
    print("     %d mirrors, %.1f s; killed while running: %s" % (
        mirrors, time.monotonic() - started,
        ", ".join("%s %d of %d" % (kind, hits[kind], done[kind]) for kind in KINDS)))
    check(hit_enough(), "too few kills hit a running command")


run(test_kill_at_random_moments)
