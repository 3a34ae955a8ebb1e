#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The sample program as its users see it, against a model in Python.

minidb_test.py PROGRAM
"""
import fcntl
import fnmatch
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAM = ""
SEED = int(os.environ.get("ZOV_SEED", time.time_ns() % 1_000_000))


def text_of(records):
    return "".join(f"{key};{value}\n" for key, value in records.items())


def random_records(count, prefix="K"):
    letters = "abcdefghij ÄÖßé€𝄞;"
    return {
        f"{prefix}{number:05d}": "".join(random.choices(letters, k=random.randrange(40)))
        for number in random.sample(range(100000), count)
    }


class MinidbTest(unittest.TestCase):
    OPTIONS = []

    def setUp(self):
        random.seed(SEED)
        self.folder = tempfile.mkdtemp(prefix="minidbtest.")
        self.addCleanup(shutil.rmtree, self.folder)
        self.data = self.path("data")

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, text, encoding="utf-8"):
        with open(self.path(name), "wb") as file:
            file.write(text.encode(encoding))
        return self.path(name)

    def read(self, name, encoding="utf-8"):
        with open(self.path(name), "rb") as file:
            return file.read().decode(encoding)

    def command(self, words):
        return [PROGRAM, "--data", self.data, *self.OPTIONS, *words]

    def run_minidb(self, *words, status=0, env=None):
        done = subprocess.run(self.command(words), capture_output=True,
                              env={**os.environ, **(env or {})}, timeout=100)
        self.assertEqual(done.returncode, status, f"seed {SEED}: {words}: {done.stderr}")
        return done.stdout.decode(), done.stderr.decode()

    def load(self, records, **options):
        self.run_minidb("load", self.write("load.txt", text_of(records)), **options)

    def dumped(self):
        self.run_minidb("dump", self.path("dump.txt"))
        return dict(line.split(";", 1) for line in self.read("dump.txt").split("\n")[:-1])

    def test_answers_are_those_of_a_dictionary(self):
        records = random_records(3000)
        for encoding in "utf-8", "utf-8-sig", "utf-16":
            self.data = self.path(encoding)
            self.run_minidb("load", self.write("load.txt", text_of(records), encoding))
            self.assertEqual(self.dumped(), records)
        records.update(random_records(2000))
        self.load(records)
        self.assertEqual(self.run_minidb("count")[0], f"{len(records)}\n")
        for key in random.sample(sorted(records), 20):
            self.assertEqual(self.run_minidb("get", key)[0], f"{key};{records[key]}\n")
        for pattern in "K1234*", "*a*b*c*", "K?0?00*", "*;", "*XYZ*":
            lines = [f"{key};{value}" for key, value in records.items()]
            found = self.run_minidb("find", pattern)[0].split("\n")
            self.assertEqual(sorted(found[:-2]), sorted(fnmatch.filter(lines, pattern)))
            self.assertEqual(found[-2], f"{len(found) - 2} found")
        self.run_minidb("dump", self.path("wide.txt"), "utf16")
        self.assertEqual(self.read("wide.txt", "utf-16"), self.read("dump.txt")
                         if self.dumped() else "")
        self.run_minidb("compact")
        self.assertEqual(self.dumped(), records)

    def test_lines_of_any_shape(self):
        self.run_minidb("--separator", "|", "load",
                        self.write("in", "a|1\r\n\n\nalone\n|no key\na|2\nlast|" + "v" * 300000))
        self.assertEqual(self.run_minidb("count")[0], "4\n")
        self.assertEqual(self.run_minidb("--separator", "|", "get", "a")[0], "a|2\n")
        self.assertEqual(self.run_minidb("get", "")[0], ";no key\n")
        self.assertEqual(len(self.run_minidb("get", "last")[0]), 300006)

    def test_mistakes_are_named(self):
        self.load({"a": "1"})
        blank = self.write("blank", "")
        big = self.path("big")
        self.run_minidb("--data", big, "load", self.write("in", text_of(random_records(300))))
        for words, status, message in [
                ([], 2, "usage"), (["unknown"], 2, "usage"), (["get"], 2, "usage"),
                (["get", "a", "b"], 2, "usage"), (["--separator", "ab", "count"], 2, "usage"),
                (["--data"], 2, "usage"), (["dump", "x", "latin1"], 2, "latin1"),
                (["get", "b"], 1, "no record"), (["load", self.path("no")], 1, "No such file"),
                (["load", self.folder], 1, "directory"),
                (["dump", self.path("no/file")], 1, "cannot create"),
                (["dump", "/dev/full"], 1, "cannot write to"),
                (["--data", big, "dump", "/dev/full", "utf16"], 1, "cannot write to"),
                (["--data", self.path("no"), "count"], 1, "No such file"),
                (["--data", blank, "count"], 1, "not a minidb data file"),
                (["--data", self.write("text", "x" * 5000), "load", blank], 1, "not a minidb"),
                (["--log", self.path("no/log"), "count"], 1, "cannot create")]:
            self.assertIn(message, self.run_minidb(*words, status=status)[1])
        self.assertEqual(self.dumped(), {"a": "1"})
        self.assertEqual(self.read("text"), "x" * 5000)

    def test_damage_is_refused_and_left_alone(self):
        self.load(random_records(500))
        with open(self.data, "rb") as file:
            whole = file.read()
        for length in 1, 600, 1030, 2048, len(whole) // 2, len(whole) - 1:
            with open(self.data, "wb") as file:
                file.write(whole[:length])
            for words in ["count"], ["load", self.write("more", "x;y\n")], ["compact"]:
                self.assertRegex(self.run_minidb(*words, status=1)[1], "truncated|not a|damaged")
            with open(self.data, "rb") as file:
                self.assertEqual(file.read(), whole[:length])
        broken = bytearray(whole)
        broken[5000] ^= 1
        with open(self.data, "wb") as file:
            file.write(broken)
        self.assertIn("damaged", self.run_minidb("count", status=1)[1])
        with open(self.data, "wb") as file:
            file.write(whole + b"left of an interrupted load")
        self.assertEqual(self.run_minidb("count")[0], "500\n")

    def test_one_process_at_a_time(self):
        self.load({"a": "1"})
        with open(self.data + ".lock") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            self.assertIn("in use", self.run_minidb("count", status=1)[1])
        self.assertEqual(self.run_minidb("count")[0], "1\n")

    def test_log_and_temporary_directory(self):
        records = random_records(2000)
        self.load(records)
        log = self.path("log")
        self.run_minidb("--log", log, "compact")
        self.assertRegex(self.read("log"), r"^\[\d\d-\w{3}-\d{4} \d\d:\d\d:\d\d\]  \d+ bytes, ")
        missing = {"QEL_TMPDIR": self.path("no")}
        if not self.OPTIONS:
            self.assertIn("cannot open", self.run_minidb("compact", status=1, env=missing)[1])
        here = {"QEL_TMPDIR": self.folder}
        before = os.listdir(self.folder)
        self.run_minidb("compact", env=here)
        self.assertEqual(sorted(os.listdir(self.folder)), sorted(before))
        self.assertEqual(self.dumped(), records)

    def test_killed_at_any_moment(self):
        """Loads and compactions that are killed leave every committed record."""
        records = random_records(3000)
        self.load(records)
        more = {**records, **random_records(3000, "L")}
        more_path = self.write("more.txt", text_of(more))
        survived = 0
        for _ in range(16):
            words = random.choice([["compact"], ["load", more_path]])
            process = subprocess.Popen(self.command(words), stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL)
            time.sleep(random.random() * 0.05)
            process.kill()
            survived += process.wait() == 0
            found = self.dumped()
            if found != records:
                self.assertEqual(found, more, f"seed {SEED}: {words}")
                shutil.copy(self.path("dump.txt"), self.path("all.txt"))
                os.remove(self.data)
                self.load(records)
        print(f"seed {SEED}: {survived} of 16 ended before the kill", file=sys.stderr)


class MinidbInMemoryTest(MinidbTest):
    OPTIONS = ["--memory"]


if __name__ == "__main__":
    PROGRAM = sys.argv.pop(1)
    unittest.main()
