#!/usr/bin/env python3
"""Has clang read every source and every header by itself, for what each lacks and for its warnings.

usage: read_alone.py TREE BUILD      prints what clang says; exits 1 when it says anything

BUILD is a folder that cmake configured for clang: its compile_commands.json names the sources and
their options. Nothing is built.

Most of reading a file is reading the headers of the standard library. So a few sets of headers are
precompiled, and a file is read behind one of them where it comes to all headers of that set by its
own includes, or by those of the project's headers that it includes. What stands behind the set is
then nothing that the file would not have without it: an include that is missing is missed as
before. Only in which order the headers come is not seen.
"""
import collections
import concurrent.futures
import heapq
import json
import os
import re
import shlex
import subprocess
import sys
import tempfile

# Sets are made of headers that come up in so many files at least.
OFTEN = 10
MOST_SETS = 20
# What making a set takes, in times of reading it.
MAKING = 1.5
# What a command says of the code that is made, and which file it is.
LEFT_OUT = {"-c", "-fPIC", "-fPIE", "-Winvalid-pch", "-fvisibility=hidden",
            "-fvisibility-inlines-hidden", "-fno-semantic-interposition"}
FOLDERS = ("common", "Sfs", "XelControl", "RegionLocator", "host", "appliance", "cli", "nbd", "bench",
           "examples", "tests")


class Includes:
    """Who includes what, as the text says it. What stands behind an #if may not be there."""

    def __init__(self, root):
        self.root = root
        self.direct = {}

    def of_file(self, path):
        """Its own includes: the paths of the project's files, the names of all others."""
        if path not in self.direct:
            own, other = [], []
            depth = 0
            with open(path, encoding="utf-8") as file:
                for line in file:
                    word = re.match(r"\s*#\s*(if|endif|include)", line)
                    if not word:
                        continue
                    depth += {"if": 1, "endif": -1, "include": 0}[word.group(1)]
                    named = re.match(r'\s*#\s*include\s+(["<][^">]+[">])', line)
                    if named and depth == 0:
                        found = self.find(path, named.group(1))
                        (own if found else other).append(found or named.group(1))
            self.direct[path] = own, other
        return self.direct[path]

    def find(self, path, name):
        for folder in (os.path.dirname(path), self.root) if name.startswith('"') else ():
            beside = os.path.normpath(os.path.join(folder, name[1:-1]))
            if os.path.isfile(beside):
                return beside
        return None

    def others_of(self, path):
        """The names of all headers of others that it comes to."""
        reached, names = {path}, set()
        waiting = [path]
        while waiting:
            own, other = self.of_file(waiting.pop())
            names.update(other)
            waiting += [file for file in own if file not in reached]
            reached.update(own)
        return frozenset(names)


def shared(ways, least):
    """The options that so many of these have, in their order."""
    times = collections.Counter(word for way in ways for word in way)
    return [word for word, count in times.items() if count >= least]


def own_options(command):
    """A command's options without what it reads and writes, one word each."""
    kept = []
    words = iter(shlex.split(command))
    for word in words:
        if word == "-Xclang":
            next(words)
        elif word == "-o":
            next(words)
        elif word == "-isystem":
            kept.append(word + next(words))
        elif word not in LEFT_OUT and not word.endswith(".cpp"):
            kept.append(word)
    return kept


def files_behind(name, way):
    """The files that are read for a header, with their sizes."""
    run = subprocess.run(way + ["-M", "-x", "c++", "-"], capture_output=True,
                         input=f"#include {name}\n", text=True, check=True)
    files = run.stdout.replace("\\\n", " ").split()[1:]
    return {file: os.path.getsize(file) for file in files if file.startswith("/")}


def make_set(made, names, way):
    """Precompiles these headers."""
    with open(made + ".h", "w", encoding="utf-8") as file:
        file.write("".join(f"#include {name}\n" for name in sorted(names)))
    subprocess.run(way + ["-fpch-instantiate-templates", "-x", "c++-header", made + ".h", "-o", made],
                   check=True)


def read_alone(path, way, made):
    """What there is to say of a file: nothing where all is well."""
    behind = ["-include-pch", made] if made else []
    header = path.endswith(".h")
    # As an include, for by itself a header is told what is meant for sources.
    what = ["-x", "c++", "-"] if header else [path]
    run = subprocess.run(way + behind + ["-fsyntax-only"] + what, capture_output=True,
                         input=f'#include "{path}"\n' if header else "", text=True)
    return run.stderr or (f"{path}: clang failed\n" if run.returncode else "")


def choose_sets(closures, behind):
    """The sets that spare most, one after the other, and the size of each."""
    def size(names):
        files = {}
        for name in names:
            files.update(behind[name])
        return sum(files.values())

    times = collections.Counter(closures)
    spared = dict.fromkeys(times, 0)
    # What two files have in common: one file's own is too special.
    candidates = {a & b for a in times for b in times} | {frozenset([name]) for name in behind}
    sizes = {candidate: size(candidate) for candidate in candidates}

    def gain(candidate):
        return sum(count * max(0, sizes[candidate] - spared[closure])
                   for closure, count in times.items()
                   if candidate <= closure) - MAKING * sizes[candidate]

    # What a candidate spares only becomes less while others are chosen, so the best one is found
    # when nothing that seemed better is left to be looked at again.
    waiting = [(-gain(candidate), sorted(candidate)) for candidate in candidates]
    heapq.heapify(waiting)
    chosen = {}
    while waiting and len(chosen) < MOST_SETS:
        best = frozenset(waiting[0][1])
        now = gain(best)
        heapq.heapreplace(waiting, (-now, sorted(best)))
        if -waiting[0][0] <= 0:
            break
        if frozenset(waiting[0][1]) != best:
            continue
        heapq.heappop(waiting)
        chosen[best] = sizes[best]
        for closure in times:
            if best <= closure:
                spared[closure] = max(spared[closure], sizes[best])
    return chosen


def main(arguments):
    if len(arguments) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    root, build = map(os.path.abspath, arguments)
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as file:
        commands = {entry["file"]: entry["command"] for entry in json.load(file)
                    if os.path.relpath(entry["file"], root).split("/")[0] in FOLDERS}
    listed = subprocess.run(["git", "-C", root, "ls-files", "-co", "--exclude-standard", "*.h"],
                            check=True, capture_output=True, text=True).stdout.split()
    sources = {path: own_options(command) for path, command in commands.items()}
    ways = dict(sources)
    for path in listed:
        if os.path.isfile(os.path.join(root, path)):
            beside = os.path.join(root, path.split("/")[0]) + "/"
            like = [way for source, way in sources.items() if source.startswith(beside)]
            like = like or list(sources.values())
            ways[os.path.join(root, path)] = shared(like, len(like) / 2)

    includes = Includes(root)
    others = {path: includes.others_of(path) for path in ways}
    times = collections.Counter(name for names in others.values() for name in names)
    often = sorted(name for name, count in times.items() if count >= OFTEN)

    with tempfile.TemporaryDirectory() as folder, \
            concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        def fitting(names):
            ways_of = [way for path, way in ways.items() if names <= others[path]]
            return shared(ways_of, len(ways_of))

        behind = dict(zip(often, pool.map(
            lambda name: files_behind(name, fitting(frozenset([name]))), often)))
        sets = choose_sets([names & frozenset(often) for names in others.values()], behind)
        made = {names: os.path.join(folder, f"set{number}") for number, names in enumerate(sets)}
        list(pool.map(lambda names: make_set(made[names], names, fitting(names)), sets))

        def read(path):
            best = max((names for names in sets if names <= others[path]),
                       key=sets.get, default=None)
            return read_alone(path, ways[path], made.get(best))

        found = 0
        for said in pool.map(read, sorted(ways)):
            if said:
                print(said, end="", flush=True)
                found += 1
    print(f"{len(ways)} files were read by themselves, behind {len(sets)} sets of headers; "
          f"clang has something to say of {found}")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
