#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The guides in docs/ say what their programs do.

guides_test.py GUIDE_PROGRAMS CALCULATOR

Every guide has a program: examples/guides/NAME.c, of which
GUIDE_PROGRAMS holds the build as guide-NAME, or examples/calculator for the
guide to the parser. In a guide

- a block of c or yacc is found in the program's sources, line for line but for
  the indentation;
- blocks of input, put together, are what the program reads, and those of
  output what it prints.

The server of the guide to services is ended as the guide says.
"""
import os
import pathlib
import re
import select
import signal
import subprocess
import sys
import tempfile
import textwrap
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCS = ROOT / "docs"
EXAMPLES = ROOT / "examples"
# Pages without a program.
PAGES = {"building", "debugging", "engines", "mainpage", "minidb", "minidb-store", "performance",
         "stability", "testing"}
QUOTED = {"c", "yacc"}
LANGUAGES = QUOTED | {"input", "output", "text", "ini", "sh", "cmake"}
PROGRAMS = pathlib.Path()
CALCULATOR = pathlib.Path()


class Guide:
    def __init__(self, path):
        self.name = path.stem
        page = path.read_text(encoding="utf-8")
        self.blocks = [  # language, line number, text
            (found[3], page.count("\n", 0, found.start()) + 1, re.sub(f"(?m)^{found[1]}", "", found[4]))
            for found in re.finditer(r"^( *)(```|~~~)(\S*)\n(.*?)^\1\2$", page, re.M | re.S)]
        self.is_open = len(re.findall("(?m)^ *(?:```|~~~)", page)) != 2 * len(self.blocks)

    def text(self, language):
        return "".join(text for found, _, text in self.blocks if found == language)

    def program(self):
        return CALCULATOR if self.name == "parser" else PROGRAMS / f"guide-{self.name}"

    def sources(self):
        if self.name != "parser":
            return [EXAMPLES / "guides" / f"{self.name}.c"]
        return list((EXAMPLES / "calculator").rglob("*.[chy]"))


def holds(source, block):
    lines = source.read_text(encoding="utf-8").splitlines(keepends=True)
    count = block.count("\n")
    wanted = textwrap.dedent(block)
    return any(textwrap.dedent("".join(lines[at:at + count])) == wanted
               for at in range(len(lines) - count + 1))


def log_of_server(folder):
    """Ends the server that a program left behind and gives its log."""
    log = pathlib.Path(folder, "guided.log")
    server = os.pidfd_open(int(re.search(r"process (\d+)", log.read_text())[1]))
    signal.pidfd_send_signal(server, signal.SIGTERM)
    select.select([server], [], [], 60)
    os.close(server)
    return log.read_text()


class GuidesTest(unittest.TestCase):
    def setUp(self):
        self.guides = [Guide(path) for path in sorted(DOCS.glob("*.md"))
                       if path.stem not in PAGES]

    def test_every_program_has_its_guide(self):
        programs = {path.stem for path in (EXAMPLES / "guides").glob("*.c")} | {"parser"}
        self.assertEqual(programs, {guide.name for guide in self.guides})

    def test_code_is_the_program_s(self):
        for guide in self.guides:
            self.assertFalse(guide.is_open, f"{guide.name}: a block without an end")
            for language, number, text in guide.blocks:
                with self.subTest(guide=guide.name, line=number):
                    self.assertIn(language, LANGUAGES)
                    self.assertTrue(text.strip())
                    self.assertTrue(language not in QUOTED
                                    or any(holds(source, text) for source in guide.sources()),
                                    f"not in the program:\n{text}")

    def test_output_is_the_program_s(self):
        for guide in self.guides:
            with self.subTest(guide=guide.name), tempfile.TemporaryDirectory() as folder:
                self.assertTrue(guide.text("output"), "no output to compare with")
                done = subprocess.run([guide.program()], input=guide.text("input").encode(),
                                      capture_output=True, cwd=folder, timeout=60,
                                      env={**os.environ, "QEL_TMPDIR": folder, "LC_ALL": "C"})
                self.assertEqual(done.stderr.decode(), "")
                self.assertEqual(done.returncode, 0)
                self.assertEqual(done.stdout.decode(), guide.text("output"))
                if guide.name == "services":
                    self.assertTrue(log_of_server(folder).endswith(" guided ends on signal 15\n"))


if __name__ == "__main__":
    CALCULATOR = pathlib.Path(sys.argv.pop()).resolve()
    PROGRAMS = pathlib.Path(sys.argv.pop()).resolve()
    unittest.main()
