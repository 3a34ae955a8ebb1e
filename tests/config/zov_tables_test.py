#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What zov-tables says and writes: zov_tables_test.py ZOV_TABLES BISON CMAKE"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
CMAKE, BISON, TOOL = sys.argv.pop(), sys.argv.pop(), pathlib.Path(sys.argv.pop()).resolve()

LIST = "%token NUM PLUS\n%%\nl: NUM PLUS | error PLUS;\n"
XML = subprocess.run([BISON, "--xml=/dev/stdout", "--output=/dev/null", "/dev/stdin"],
                     input=LIST.encode(), capture_output=True, check=True).stdout.decode()
# 701 states that differ all over, with 80 steps each; no two fit over one another for long.
STEPS = "".join(f'<state number="{state}">' + "".join(
    f'<transition symbol="T{token % 701}" state="{token % 701}"/>'
    for token in range(state, state + 80 * (state % 7 + 1), state % 7 + 1)) + "</state>"
                for state in range(701))
TOKENS = "".join(f'<terminal token-number="{300 + token}" name="T{token}"/>' for token in range(701))
WIDE = re.sub("(?s)(</terminals>.*<automaton>).*(</automaton>)", rf"{TOKENS}\1{STEPS}\2", XML)
ENDLESS = "the parse of a wrong token may never end\n$"
# A bison whose header names nothing.
NAMELESS = f'{BISON} "$@" && for file; do case $file in --defines=*) : >"${{file#*=}}" ;; esac; done'

# Name and text of the grammar, options, what is said, and what is in the header that is
# written; without one the tool fails.
ROWS = [
    ("g.y", LIST, ["-pq", "-oout"], "^$", "#ifndef Q_TABLES_H.*q_NUM = 258,.*q_l_2 = 2, /\\* l: error PLUS"),
    ("g.y", "%define api.token.raw\n" + LIST, [], "^$", "g_NUM = 258,"),
    ("g.y", '%language "c++"\n' + LIST, [], "^$", "g_NUM = 258,"),
    ("g.y", '%token A "\xe4"\n' + LIST, [], "^$", "g_A = 258,"),
    ("g.y", "%token A.B C-D\n" + LIST, [], "token A.B .*identifier.*\n.*C-D", "g_NUM = 260"),
    ("g.y", "%%\nl: 'a' error | error l;", [], f"rule 1, l: 'a' error, ends[^\n]*{ENDLESS}", "l_1"),
    ("g.y", "%%\nl: 'a' error m ';'; m: o '.'; o: | '+';", [], f"rule 1, .*empty[^\n]*{ENDLESS}", "l_1"),
    ("g.xml", XML.replace("258", "1258"), [], "^$", "g_NUM = 1258,"),
    ("g.y", "%glr-parser\n" + LIST, [], "g.y is for a GLR parser", None),
    ("g.y", "%token A 40000\n" + LIST, [], "the token PLUS has the number 40003, at most", None),
    ("g.xml", WIDE, [], "too large a grammar: more than 32767 table entries", None),
    ("9lives.y", LIST, [], "prefix, '9lives', is no C identifier; give one with -p", None),
    ("g.y", LIST, ["-o", ""], "output, '', names no file", None),
    ("no.y", None, [], "no.y: cannot open.*zov-tables: bison refused no.y", None),
    ("g.xml", XML[:len(XML) // 2], [], "g.xml is no automaton of bison's: ", None),
    ("g.xml", "<svg/>", [], "no automaton of bison's: its root is svg", None),
    ("g.xml", "<bison-xml-report/>", [], "g.xml is no automaton of bison's: ", None),
    ("g.xml", XML.replace('state="', 'state="9'), [], "leads to no state", None),
    ("g.xml", XML.replace('rule="1"', 'rule="7"'), [], "an unknown rule", None),
    ("g.y", LIST, ["--bison=./none"], "cannot run ./none: .*; install bison 3, or", None),
    ("g.y", LIST, ["--bison=./nameless"], "bison's header has no names of tokens", None),
]


class ZovTables(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def run_in_folder(self, *command, **options):
        return subprocess.run(command, cwd=self.folder, capture_output=True, text=True,
                              check=False, timeout=60, **options)

    def test_every_row(self):
        for number, (name, text, options, message, header) in enumerate(ROWS):
            with self.subTest(row=number, grammar=name):
                self.setUp()
                (self.folder / "nameless").write_text("#!/bin/sh\n" + NAMELESS)
                (self.folder / "nameless").chmod(0o755)
                if text is not None:
                    (self.folder / name).write_bytes(text.encode("latin-1"))
                done = self.run_in_folder(TOOL, f"--bison={BISON}", *options, name)
                self.assertRegex(done.stderr, re.compile(message, re.DOTALL))
                self.assertEqual(done.returncode, 0 if header else 1, done.stderr)
                made = sorted(self.folder.glob("*.[ch]"))
                self.assertEqual([file.suffix for file in made], [".c", ".h"] if header else [])
                if header:
                    self.assertRegex(made[1].read_text(), re.compile(header, re.DOTALL))

    def test_version_is_the_library_s(self):
        numbers = re.findall(r"#define ZOV_VERSION_\w+ (\d+)", (ROOT / "include/zov.h").read_text())
        self.assertEqual(self.run_in_folder(TOOL, "--version").stdout, f"zov-tables {'.'.join(numbers)}\n")

    def test_what_is_missing_is_named(self):
        done = self.run_in_folder("/bin/sh", TOOL, env={**os.environ, "PATH": "/nowhere"})
        self.assertEqual((done.returncode, done.stderr), (1, "zov-tables: there is no python3; install Python 3\n"))
        (self.folder / "try.cmake").write_text(
            f"include({ROOT}/cmake/zov_grammar.cmake)\nset(BISON_FOUND FALSE)\nzov_add_grammar(target lost.y)\n")
        done = self.run_in_folder(CMAKE, "-P", "try.cmake")
        self.assertRegex(done.stderr, r"there\s+is\s+no\s+bison\s+3,\s+and\s+no\s+tables\s+made\s+before,\s+\S+lost_tables.c")


if __name__ == "__main__":
    unittest.main()
