#!/usr/bin/env python3
"""The rules of the house, as checks over the tree.

usage: house_rules.py TREE RULE      prints each breach as path:line: text; exits 1 when there is one
       house_rules.py --list         the rules' names

Rules are functions that yield (path, line, text); a rule's docstring says what it holds.
"""
import collections
import os
import re
import subprocess
import sys
import textwrap

CONTRACTS = ["common", "Sfs", "XelControl"]

# What a folder may include; a folder that is not named here may include everything.
ARROWS = {
    "common": CONTRACTS,
    "Sfs": CONTRACTS,
    "XelControl": CONTRACTS,
    "RegionLocator": ["RegionLocator"] + CONTRACTS,
    "host": ["host"] + CONTRACTS,
    "appliance": ["appliance", "RegionLocator", "host"] + CONTRACTS,
    "cli": ["cli", "appliance", "RegionLocator", "host"] + CONTRACTS,
    "examples/own-host": ["examples/own-host", "RegionLocator"] + CONTRACTS,
}
# These take nothing from outside but the standard library.
STANDARD_ONLY = ["common", "Sfs", "XelControl", "RegionLocator", "examples/own-host"]
LIBRARIES = CONTRACTS + ["RegionLocator", "host", "appliance"]

LONGEST_FILE_LINES = 750
# One file on purpose: its name is printed in log records. It is cut into chapters instead.
MAY_BE_LONGER = ["RegionLocator/RegionLocator.cpp"]

CODE = (".h", ".cpp")


class Tree:
    def __init__(self, root):
        self.root = os.path.abspath(root)
        listed = subprocess.run(
            ["git", "-C", self.root, "ls-files", "-co", "--exclude-standard", "-z"],
            check=True, capture_output=True).stdout.decode()
        paths = (path for path in listed.split("\0") if path)
        self.files = sorted(p for p in paths if os.path.isfile(os.path.join(self.root, p)))

    def code(self, folders=None):
        return [p for p in self.files if p.endswith(CODE) and (not folders or in_any(p, folders))]

    def text(self, path):
        with open(os.path.join(self.root, path), encoding="utf-8", errors="replace") as file:
            return file.read()

    def lines(self, path):
        return enumerate(self.text(path).splitlines(), 1)

    def grep(self, paths, pattern):
        compiled = re.compile(pattern)
        for path in paths:
            for number, line in self.lines(path):
                if compiled.search(line):
                    yield path, number, line.strip()


def in_any(path, folders):
    return any(path.startswith(folder + "/") for folder in folders)


def without_comment(line):
    return line.split("//", 1)[0]


def rule_arrows(tree):
    """Includes point one way: programs, appliance, component and host, contracts."""
    for folder, allowed in ARROWS.items():
        for path in tree.code([folder]):
            for number, line in tree.lines(path):
                quoted = re.match(r'\s*#\s*include\s+"([^"]+)"', line)
                if not quoted:
                    continue
                name = quoted.group(1)
                beside = os.path.normpath(os.path.join(os.path.dirname(path), name))
                if not in_any(name, allowed) and not in_any(beside, [folder]):
                    yield path, number, line.strip()
                elif in_any(beside, [folder]) and not in_any(name, allowed) and \
                        beside not in tree.files:
                    yield path, number, line.strip()


def rule_standard_only(tree):
    """The component and the contracts use the standard library and nothing else."""
    for path in tree.code(STANDARD_ONLY):
        for number, line in tree.lines(path):
            angled = re.match(r"\s*#\s*include\s+<([^>]+)>", line)
            if angled and not re.fullmatch(r"[a-z_0-9]+", angled.group(1)):
                yield path, number, line.strip()


def rule_unused_names(tree):
    """What a source takes from a namespace, or gives another name, it uses."""
    brought = re.compile(r"using (?:\w+::)+(\w+);|\s*namespace (\w+) = ")
    for path in tree.code():
        if path.endswith(".cpp"):
            words = collections.Counter(word for _, line in tree.lines(path)
                                        for word in re.findall(r"\w+", without_comment(line)))
            for number, line in tree.lines(path):
                named = brought.match(line)
                said = re.findall(r"\w+", without_comment(line))
                name = named and (named.group(1) or named.group(2))
                if name and words[name] <= said.count(name):
                    yield path, number, line.strip()


def rule_no_leftovers(tree):
    """Nothing is left for later in the text."""
    words = "|".join(["TO" + "DO", "FIX" + "ME", "XX" + "X", "HA" + "CK"])
    yield from tree.grep(tree.files, rf"\b({words})\b")


def rule_no_printing(tree):
    """A library talks through the log only."""
    for path, number, line in tree.grep(tree.code(LIBRARIES),
                                        r"\bf?printf\s*\(|\bputs\s*\(|std::c(out|err|log)\b"):
        if re.search(r"\bf?printf\s*\(|\bputs\s*\(|std::c(out|err|log)\b", without_comment(line)):
            yield path, number, line


def rule_no_disabled_tests(tree):
    """A test that is switched off is no test."""
    yield from tree.grep(tree.code(["tests"]), "DIS" + "ABLED_")


def rule_file_length(tree):
    """Files stay small."""
    for path in tree.files:
        if path.endswith(CODE + (".py",)) and path not in MAY_BE_LONGER:
            length = tree.text(path).count("\n")
            if length > LONGEST_FILE_LINES:
                yield path, length, f"{length} lines, more than {LONGEST_FILE_LINES}"


def rule_words(tree):
    """The system speaks for itself: no papers it came from, no place where it was written."""
    patterns = [r"(?i:\bspecifi" + r"cations?\b)", r"\bspec" + r"\.md\b",
                r"\bPar" + r"ts? [0-9]+\.[0-9]", r"/wo" + r"rk/",
                r"(?i:\bissues? " + r"#?[0-9]+\b)", r"\bshared" + r"/[a-z-]+\.md\b"]
    yield from tree.grep(tree.files, "|".join(patterns))


def rule_tests_registered(tree):
    """Every test file belongs to a program that the build makes."""
    named = set()
    for path in tree.files:
        if path.startswith("tests/") and path.endswith("CMakeLists.txt"):
            for folder in re.findall(r"rl_tests\(\s*\S+\s+([^\s)]+)", tree.text(path)):
                named.add("tests/" + folder)
                named.add(os.path.normpath(os.path.join(os.path.dirname(path), folder)))
            for source in re.findall(r"[\w/]+Test\.cpp", tree.text(path)):
                named.add(os.path.normpath(os.path.join(os.path.dirname(path), source)))
    for path in tree.code(["tests"]):
        if path.endswith("Test.cpp") and os.path.dirname(path) not in named and path not in named:
            yield path, 1, "no test program takes it"


def rule_readme_listing(tree):
    """The listing in README.md is the example that the build compiles and runs."""
    listing = "examples/twenty-lines/main.cpp"
    if listing in tree.files:
        code = tree.text(listing)
        shown = textwrap.indent(code[code.index("int main()"):], "    ")
        if shown not in tree.text("README.md"):
            yield "README.md", 1, f"does not show main() as it stands in {listing}"


def rule_scripts(tree):
    """Shell scripts are executable and stop at the first error."""
    for path in tree.files:
        text = tree.text(path)
        if re.match(r"#!.*\b(ba|da)?sh\b", text):
            if not os.access(os.path.join(tree.root, path), os.X_OK):
                yield path, 1, "is not executable"
            if not re.search(r"^set -eu", text, re.M):
                yield path, 1, "has no 'set -eu'"


RULES = {name[len("rule_"):]: function for name, function in sorted(globals().items())
         if name.startswith("rule_")}


def breaches(root, rule):
    return sorted(set(RULES[rule](Tree(root))))


def main(arguments):
    if arguments == ["--list"]:
        print("\n".join(RULES))
        return 0
    if len(arguments) != 2 or arguments[1] not in RULES:
        print(__doc__, file=sys.stderr)
        return 2
    found = breaches(*arguments)
    for path, line, text in found:
        print(f"{path}:{line}: {text}")
    if found:
        print(f"{len(found)} breaches of: {RULES[arguments[1]].__doc__}")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
