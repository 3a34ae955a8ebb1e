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
NUMBERS = re.sub('number="(25[89])"', 'number="1\\1"', XML)
# Rows that differ all over, 80 steps each; no two fit over one another for long.
WIDE = re.sub(r"(?s)(</terminals>.*<automaton>).*</automaton>", lambda match: "".join(
    f'<terminal token-number="{300 + token}" name="T{token}"/>' for token in range(701)) + match[1]
    + "".join(f'<state number="{state}">' + "".join(
        f'<transition symbol="T{token % 701}" state="{token % 701}"/>'
        for token in range(state, state + 80 * (state % 7 + 1), state % 7 + 1)) + "</state>"
              for state in range(701)) + "</automaton>", XML)
WIDE_ERROR = "too large a grammar: more than 32767 table entries"
ENDLESS = "the parse of a wrong token may never end"

# Line, name and text of the grammar, options, status, what is said, and what is
# in the header that is written.
HERE = lambda: sys._getframe(1).f_lineno  # pylint: disable=protected-access
ROWS = [
    (HERE(), "g.y", LIST, [], 0, "", "g_NUM = 258,.*g_l_2 = 2, /\\* l: error PLUS"),
    (HERE(), "g.y", LIST, ["-pq", "-oout"], 0, "", "#ifndef Q_TABLES_H.*q_PLUS = 259,"),
    (HERE(), "g.y", "%define api.token.raw\n" + LIST, [], 0, "", "g_NUM = 258,"),
    (HERE(), "g.y", '%language "c++"\n' + LIST, [], 0, "", "g_NUM = 258,"),
    (HERE(), "g.y", '%token A "\xe4"\n' + LIST, [], 0, "", "g_A = 258,"),
    (HERE(), "g.y", "%token error 300\n" + LIST, [], 0, "", "Tokens[^}]*{\n  g_NUM = 302,"),
    (HERE(), "g.y", "%token A.B C-D\n" + LIST, [], 0, "token A.B .*identifier.*\n.*C-D", "g_NUM = 260"),
    (HERE(), "g.y", "%%\nl: 'a' error | error l;", [], 0, f"rule 1, l: 'a' error, ends.*{ENDLESS}\n$", "l_1"),
    (HERE(), "g.y", "%%\nl: 'a' error m ';'; m: o '.'; o: | '+';", [], 0, f"rule 1, .*empty.*{ENDLESS}\n$", "l_1"),
    (HERE(), "g.xml", XML, [], 0, "", "g_NUM = 258,"),
    (HERE(), "g.xml", NUMBERS, [], 0, "", "g_NUM = 1258,"),
    (HERE(), "g.y", "%glr-parser\n" + LIST, [], 1, "g.y is for a GLR parser", None),
    (HERE(), "g.y", '%skeleton "glr.cc"\n' + LIST, [], 1, "g.y is for a GLR parser", None),
    (HERE(), "g.y", "%token A 40000\n" + LIST, [], 1, "the token PLUS has the number 40003, at most", None),
    (HERE(), "g.y", "%token error 1000\n" + LIST, [], 1, "error token has the number 1000, it must", None),
    (HERE(), "g.xml", WIDE, [], 1, WIDE_ERROR, None),
    (HERE(), "9lives.y", LIST, [], 1, "prefix, '9lives', is no C identifier; give one with -p", None),
    (HERE(), "9lives.y", LIST, ["-pq"], 0, "", "q_NUM"),
    (HERE(), "g.y", LIST, ["-pa b"], 1, "prefix, 'a b', is no C identifier", None),
    (HERE(), "g.y", LIST, ["-p", ""], 1, "prefix, '', is no C identifier", None),
    (HERE(), "g.y", LIST, ["-o", ""], 1, "output, '', names no file", None),
    (HERE(), "g.y", LIST, ["-o", "./"], 1, "output, './', names no file", None),
    (HERE(), "g.y", LIST, ["-o", "no/out"], 1, "No such file or directory: 'no/out.c'", None),
    (HERE(), "g.y", "%%\nl: NUM", [], 1, "symbol .NUM. is used.*zov-tables: bison refused g.y", None),
    (HERE(), "no.y", None, [], 1, "no.y: cannot open.*zov-tables: bison refused no.y", None),
    (HERE(), "no.xml", None, [], 1, "No such file or directory: 'no.xml'", None),
    (HERE(), "g.xml", XML[:len(XML) // 2], [], 1, "g.xml is no automaton of bison's: ", None),
    (HERE(), "g.xml", "<svg/>", [], 1, "no automaton of bison's: its root is svg", None),
    (HERE(), "g.xml", "<bison-xml-report/>", [], 1, "g.xml is no automaton of bison's: ", None),
    (HERE(), "g.xml", XML.replace('state="', 'state="9'), [], 1, "leads to no state", None),
    (HERE(), "g.xml", XML.replace('rule="1"', 'rule="7"'), [], 1, "an unknown rule", None),
    (HERE(), "g.xml", XML.replace("<lhs>l<", "<lhs>m<"), [], 1, "an unknown symbol", None),
    (HERE(), "g.xml", XML.replace('state number="1"', 'state number="x"'), [], 1, "no automaton", None),
    (HERE(), "g.y", LIST, ["--bison=./none"], 1, "cannot run ./none: .*; install bison 3, or", None),
    (HERE(), "g.y", LIST, ["--bison=./nameless"], 1, "bison's header has no names of tokens", None),
]
NAMELESS = f"""#!/bin/sh
{BISON} "$@" && for file; do case $file in --defines=*) : >"${{file#*=}}" ;; esac; done
"""


class ZovTables(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()  # pylint: disable=consider-using-with
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_in_folder(self, *command, **options):
        return subprocess.run(command, cwd=self.folder, capture_output=True, text=True,
                              check=False, timeout=60, **options)

    def test_every_row(self):
        for line, name, text, options, status, message, header in ROWS:
            with self.subTest(line=line):
                for file in self.folder.iterdir():
                    file.unlink()
                (self.folder / "nameless").write_text(NAMELESS)
                (self.folder / "nameless").chmod(0o755)
                if text is not None:
                    (self.folder / name).write_bytes(text.encode("latin-1"))
                done = self.run_in_folder(TOOL, f"--bison={BISON}", *options, name)
                self.assertEqual(done.returncode, status, done.stderr)
                self.assertRegex(done.stderr, re.compile(message or "^$", re.DOTALL))
                self.assertNotIn("Traceback", done.stderr)
                made = sorted(self.folder.glob("*.[ch]"))
                self.assertEqual([file.suffix for file in made], [".c", ".h"] if header else [])
                if header:
                    self.assertRegex(made[1].read_text(), re.compile(header, re.DOTALL))
                    self.assertIn(f'#include "{made[1].name}"', made[0].read_text())

    def test_version_is_the_library_s(self):
        numbers = re.findall(r"#define ZOV_VERSION_\w+ (\d+)", (ROOT / "include/zov.h").read_text())
        self.assertEqual(self.run_in_folder(TOOL, "--version").stdout, f"zov-tables {'.'.join(numbers)}\n")

    def test_what_is_missing_is_named(self):
        done = self.run_in_folder("/bin/sh", TOOL, env={**os.environ, "PATH": "/nowhere"})
        self.assertEqual((done.returncode, done.stderr), (1, "zov-tables: there is no python3; install Python 3\n"))
        (self.folder / "try.cmake").write_text(
            f"include({ROOT}/cmake/zov_grammar.cmake)\nset(BISON_FOUND FALSE)\nzov_add_grammar(target lost.y)\n")
        done = self.run_in_folder(CMAKE, "-P", "try.cmake")
        self.assertRegex(done.stderr, r"lost_tables.c.*\n?.*install\s+bison\s+3\s+and\s+Python\s+3")
        self.assertNotEqual(done.returncode, 0)


if __name__ == "__main__":
    unittest.main()
