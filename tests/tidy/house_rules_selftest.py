#!/usr/bin/env python3
"""Each rule of the house finds its breach in a small tree made for it, and nothing in a good one."""
import os
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
import house_rules  # noqa: E402

GOOD = {
    "common/infra/Good.h": "#pragma once\n#include <vector>\ninline int good() { return 1; }\n",
    "RegionLocator/Good.cpp": '#include "common/infra/Good.h"\nint twice() { return 2 * good(); }\n',
    "host/Names.cpp": "#include <string>\nusing std::string;\nnamespace all = std;\nall::string a(string b);\n",
    "host/Good.h": '#pragma once\n#include <string>\n#include "common/infra/Good.h"\n',
    "tests/CMakeLists.txt": "rl_tests(host_tests host rl_host)\n",
    "tests/host/GoodTest.cpp": '#include "host/Good.h"\n',
    "examples/twenty-lines/main.cpp": "int main()\n{\n    return 0;\n}\n",
    "README.md": "So:\n\n    int main()\n    {\n        return 0;\n    }\n",
    "run-it": "#!/bin/sh\nset -eu\n",
}

BAD = {
    "arrows": [("host/Bad.cpp", '#include "RegionLocator/RegionLocator.h"\n'),
               ("common/Bad.h", '#include "host/Good.h"\n'),
               ("RegionLocator/Bad.cpp", '#include "appliance/Mirror.h"\n'),
               ("appliance/Bad.h", '#include "cli/Command.h"\n')],
    "standard_only": [("RegionLocator/Bad.cpp", "#include <spdlog/spdlog.h>\n"),
                      ("Sfs/Bad.h", "#include <unistd.h>\n")],
    "unused_names": [("host/Bad.cpp", "using std::string; // string\n"),
                     ("host/Bad.cpp", "namespace fs = std::filesystem;\nint fsx = 1;\n")],
    "no_leftovers": [("host/Bad.cpp", "// TO" + "DO: later\n")],
    "no_printing": [("host/Bad.cpp", 'void bad() { printf("x"); }\n'),
                    ("appliance/Bad.cpp", "void bad() { std::cerr << 1; }\n")],
    "no_disabled_tests": [("tests/host/GoodTest.cpp", "TEST(A, DIS" + "ABLED_B) {}\n")],
    "file_length": [("host/Bad.cpp", "\n" * 751)],
    "words": [("docs/bad.md", "as the Specifi" + "cation says\n"),
              ("docs/bad.md", "see Par" + "t 3.1\n"), ("docs/bad.md", "in /wo" + "rk/main\n"),
              ("docs/bad.md", "for issue " + "12\n")],
    "tests_registered": [("tests/lost/LostTest.cpp", "\n")],
    "readme_listing": [("README.md", "int main()\n{\n}\n")],
    "scripts": [("bad", "#!/bin/sh\necho hello\n")],
}


class HouseRules(unittest.TestCase):
    def make_tree(self, files):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        for path, text in files.items():
            full = os.path.join(folder.name, path)
            os.makedirs(os.path.dirname(full), exist_ok=True)
            with open(full, "w", encoding="utf-8") as file:
                file.write(text)
            if text.startswith("#!"):
                os.chmod(full, 0o755)
        subprocess.run(["git", "init", "-q", folder.name], check=True)
        return folder.name

    def test_every_rule_has_a_breach_here(self):
        self.assertEqual(sorted(BAD), sorted(house_rules.RULES))

    def test_good_tree(self):
        root = self.make_tree(GOOD)
        for rule in house_rules.RULES:
            with self.subTest(rule=rule):
                self.assertEqual(house_rules.breaches(root, rule), [])

    def test_breaches_are_found(self):
        for rule, cases in BAD.items():
            for path, text in cases:
                with self.subTest(rule=rule, path=path, text=text):
                    found = house_rules.breaches(self.make_tree({**GOOD, path: text}), rule)
                    self.assertEqual([breach[0] for breach in found], [path])

    def test_script_that_is_not_executable(self):
        root = self.make_tree(GOOD)
        os.chmod(os.path.join(root, "run-it"), 0o644)
        self.assertEqual(len(house_rules.breaches(root, "scripts")), 1)


if __name__ == "__main__":
    unittest.main()
