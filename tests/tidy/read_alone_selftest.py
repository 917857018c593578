#!/usr/bin/env python3
"""read_alone.py finds in a small tree what is wrong there, behind precompiled headers as well."""
import contextlib
import io
import json
import os
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
import read_alone  # noqa: E402

# Enough that come to the same headers for a set to be made of these.
GOOD = {f"host/Good{i}.cpp": '#include "host/Good.h"\n\nint good%d() { return static_cast<int>(all().size()); }\n' % i
        for i in range(2 * read_alone.OFTEN)}
GOOD["host/Good.h"] = "#pragma once\n#include <map>\n#include <vector>\nstd::vector<int> all();\n"


class ReadAlone(unittest.TestCase):
    def read(self, files):
        """What is said of a tree, and how many sets there were."""
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        commands = []
        for path, text in {**GOOD, **files}.items():
            full = os.path.join(folder.name, path)
            os.makedirs(os.path.dirname(full), exist_ok=True)
            with open(full, "w", encoding="utf-8") as file:
                file.write(text)
            if path.endswith(".cpp"):
                command = f"clang++-14 -std=c++20 -I{folder.name} -Wall -Werror -fPIC -o x.o -c {full}"
                commands.append({"directory": folder.name, "file": full, "command": command})
        with open(os.path.join(folder.name, "compile_commands.json"), "w", encoding="utf-8") as file:
            json.dump(commands, file)
        subprocess.run(["git", "init", "-q", folder.name], check=True)
        said = io.StringIO()
        with contextlib.redirect_stdout(said):
            status = read_alone.main([folder.name, folder.name])
        return status, said.getvalue()

    def expect_finding(self, files, text):
        status, said = self.read(files)
        self.assertEqual(status, 1, said)
        self.assertIn(text, said)
        self.assertIn("something to say of 1\n", said)

    def test_good_tree(self):
        status, said = self.read({})
        self.assertEqual(status, 0, said)
        self.assertNotIn("behind 0 sets", said)
        self.assertIn("something to say of 0\n", said)

    def test_source_that_lacks_an_include(self):
        self.expect_finding({"host/Bad.cpp": "#include <map>\nstd::vector<int> bad();\n"},
                            "host/Bad.cpp:2:")

    def test_header_that_lacks_what_its_source_includes(self):
        self.expect_finding(
            {"host/Bad.h": "#pragma once\n#include <map>\nstd::vector<int> bad();\n",
             "host/Bad.cpp": '#include <vector>\n\n#include "host/Bad.h"\n'}, "host/Bad.h:3:")

    def test_include_that_may_not_be_there(self):
        self.expect_finding({"host/Bad.cpp": "#include <map>\n#ifdef NOTHING\n#include <vector>\n#endif\n"
                                             "std::vector<int> bad();\n"}, "host/Bad.cpp:5:")

    def test_warning(self):
        self.expect_finding({"host/Bad.cpp": '#include "host/Good.h"\nvoid bad() { int unused = 1; }\n'},
                            "-Wunused-variable")


if __name__ == "__main__":
    unittest.main()
