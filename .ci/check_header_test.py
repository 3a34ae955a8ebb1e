#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Proves that scripts/check_header can fail.

It gets the header with one statement taken out at a time, and is to complain of
just that: of the one function, or of all that rely on what is said once.
"""
import pathlib
import re
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[1]
HEADER = (ROOT / "include/zov.h").read_text(encoding="utf-8")

# What is taken out, as a pattern and what takes its place; the first complaint.
ROWS = [
    (r" \* Tells the size of an open file\.\n", "", "zov_fileLength: effect: not told"),
    (r" \* @param  ?streamNumber [^\n]*\n", "", "zov_flOpenStd: argument streamNumber: not told"),
    (r"@param whence SEEK_SET", "@param origin SEEK_SET", "zov_fileSeek: argument origin: there is none"),
    (r"@param offset bytes, from where", "@param offset from where", "zov_fileSeek: argument offset: unit not told"),
    (r"@return bytes; 0 also for what is not an open descriptor", "@return 0 also for no descriptor",
     "zov_flSize: result: unit not told"),
    (r" \* @return bytes; 0 also for what [^\n]*\n", "", "zov_flSize: result: not told"),
    (r"or #ZOV_ERROR for a position before the beginning[^/]*\*/", "\n */", "zov_fileSeek: failure value: not told"),
    (r", or null\. It still belongs to who made\n[^/]*?any time\.\n", ".\n", "zov_queueFind: failure value: not told"),
    (r"It still belongs to who made\n[^/]*?any time\.\n", "\n", "zov_queueFind: owner of what it hands out: not told"),
    (r", to be closed with zov_fileClose\(\)", "",
     "zov_fileOpen: owner of what it hands out: does not name zov_fileClose"),
    (r" \* Threads: one at a time on a generator\.\n", "",
     "zov_randSetSeed: threads: one at a time uses a ZOV_RAND, which nothing says"),
    (r" \* Messages: those of failing allocations\. (May jump, before or after)", r" * \1",
     "zov_setlocaleW: messages: it may jump, and nothing says what is written then"),
    (r"Any number of threads may be in a call at once", "", "zov_rdonly: threads: neither it nor a convention says"),
    (r"What is passed stays the caller's", "", "zov_init: ownership of arguments: neither it nor a convention says"),
    (r"A call returns\. Only one", "One", "zov_init: jumps: neither it nor a convention says"),
    (r"A call writes none\.", "", "zov_rdonly: messages: neither it nor a convention says"),
    (r"without a line of its own is the\n \*     object", "is", "zov_syncDelete: arguments: neither it nor a convention says"),
    (r" \* \| \| \| ::ZOV_DISK_WALK [^\n]*\n", "", "ZOV_DISK_WALK: a handle that is not in the table of contents"),
    (r"\| zov_flPathClose\(\) \| one", "| zov_flPathEnd() | one",
     "ZOV_DISK_WALK: zov_flPathEnd in the table of contents is no function"),
    (r" \* \| @ref zov_random [^\n]*\n", "", "zov_random: not in the table of contents"),
]


def complaints(text):
    with tempfile.NamedTemporaryFile("w", suffix=".h", encoding="utf-8") as file:
        file.write(text)
        file.flush()
        run = subprocess.run([ROOT / "scripts/check_header", file.name], capture_output=True, text=True, check=False)
    lines = [line.removeprefix("check_header: ") for line in run.stderr.splitlines()]
    return run.returncode, lines


class CheckHeader(unittest.TestCase):
    def test_the_header_passes(self):
        self.assertEqual(complaints(HEADER), (0, []))

    def test_each_missing_statement_is_noticed(self):
        for pattern, instead, expected in ROWS:
            with self.subTest(pattern):
                text, count = re.subn(pattern, instead, HEADER, count=1)
                self.assertEqual(count, 1, "the header does not say so")
                outcome, lines = complaints(text)
                self.assertEqual(outcome, 1)
                self.assertIn(expected, lines)


if __name__ == "__main__":
    unittest.main()
