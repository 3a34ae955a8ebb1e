#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The sample program as its users see it, against a model in Python: on a file, in
memory, and through a server.

minidb_test.py MINIDB MINIDB-SERVER
"""
import fcntl
import fnmatch
import os
import random
import shutil
import subprocess
import sys
import time

import minidb_programs
from minidb_programs import SEED, ProgramTest, quoted, random_records, text_of


class Model:
    """What the statements do, with a dictionary for the database."""

    def __init__(self):
        self.records = {}
        self.saved = None  # what an abort goes back to
        self.failed = False

    def put(self, key, value):
        self.records.pop(key, None)
        self.records[key] = value
        return []

    def get(self, key):
        return [f"{key};{self.records[key]}"] if key in self.records else []

    def delete(self, key):
        self.records.pop(key, None)
        return []

    def chosen(self, pattern, first, last):
        lines = [f"{key};{value}" for key, value in self.records.items()
                 if (first is None or key.encode() >= first.encode())
                 and (last is None or key.encode() <= last.encode())]
        return [line for line in lines if pattern is None
                or fnmatch.fnmatchcase(line.encode().decode("latin-1"), pattern)]


def random_statement(model):
    """A statement with the lines that are expected of it; found ones in any order."""
    key = random.choice(["a", "b b", "c:", "d'", 'e"', "Ä", "get", ""])
    value = random.choice(["1", "two words", "x;y", "", "ß'\"--", "a\tb"])
    kind = random.choice(["put", "put", "put", "get", "delete", "find", "count", "end"])
    if kind == "put":
        return f"PUT {quoted(key)} {quoted(value)}", model.put(key, value)
    if kind == "get" and key in model.records:
        return f"get -- a comment;\n {quoted(key)}", model.get(key)
    if kind == "delete" and key in model.records:
        return f"delete {quoted(key)}", model.delete(key)
    if kind == "end":
        return end_or_begin(model)
    pattern = random.choice([None, "*", "*a*", "?;*", "*two*"])
    first, last = random.choice([None, "b", "d"]), random.choice([None, "Z", "c;", "d'"])
    words = [word for word in (pattern and quoted(pattern), first and "from " + quoted(first),
                               last and "to " + quoted(last)) if word]
    found = model.chosen(pattern, first, last)
    if kind == "count":
        return " ".join(["count", *words]), [str(len(found))]
    return " ".join(["find", *words]), found + [f"{len(found)} found"]


def end_or_begin(model):
    if model.saved is None:
        model.saved = dict(model.records)
        return "begin", []
    keeps = random.random() < 0.5
    if not keeps:
        model.records = model.saved
    model.saved = None
    return "commit" if keeps else "abort", []


class StatementTests:
    """For every way to run statements."""
    OPTIONS = []

    def minidb(self, *words):
        return super().minidb(*self.OPTIONS, *words)

    def run_minidb(self, *words, **options):
        return self.run_command(self.minidb(*words), **options)

    def load(self, records, **options):
        self.run_minidb("load", self.write("load.txt", text_of(records)), **options)

    def dumped(self):
        self.run_minidb("dump", self.path("dump.txt"))
        return dict(line.split(";", 1) for line in self.read("dump.txt").split("\n")[:-1])

    def test_answers_are_those_of_a_dictionary(self):
        records = random_records(3000)
        for encoding in "utf-8", "utf-8-sig", "utf-16":
            self.load({"gone": "soon"})
            self.run_minidb("load", self.write("load.txt", text_of(records), encoding))
            self.run_minidb("delete", "gone")
            self.assertEqual(self.dumped(), records)
        records.update(random_records(2000))
        self.load(records)
        self.assertEqual(self.run_minidb("count")[0], f"{len(records)}\n")
        for pattern in "K1234*", "*a*b*c*", "K?0?00*", "*;", "*XYZ*":
            lines = [f"{key};{value}" for key, value in records.items()]
            found = self.run_minidb("find", pattern)[0].split("\n")
            self.assertEqual(sorted(found[:-2]), sorted(fnmatch.filter(lines, pattern)))
            self.assertEqual(found[-2], f"{len(found) - 2} found")
        self.run_minidb("dump", self.path("wide.txt"), "utf16")
        self.assertEqual(self.dumped(), records)
        self.assertEqual(self.read("wide.txt", "utf-16"), self.read("dump.txt"))
        self.run_minidb("compact")
        self.assertEqual(self.dumped(), records)

    def test_statements_do_what_the_model_does(self):
        for _ in range(4):
            model = Model()
            text, expected = "", []
            for _ in range(300):
                statement, lines = random_statement(model)
                text += statement + random.choice([";\n", " ; ", ";;"])
                expected += lines
            shown = self.run_minidb(text=text)[0].split("\n")[:-1]
            self.assertEqual(sorted(shown), sorted(expected), f"seed {SEED}")
            records = model.records if model.saved is None else model.saved
            self.assertEqual(self.dumped(), records, f"seed {SEED}")
            self.run_minidb(text="".join(f"delete {quoted(key)};" for key in records))

    def test_mistakes_of_the_language_name_their_place(self):
        for text, messages in [
                ("putt a 1; get x", ['line 1, column 1: unexpected "putt"', 'no record "x"']),
                ("get", ["line 1, column 4: unexpected end"]),
                ("\n get Ä Ö;", ['line 2, column 8: unexpected "Ö"']),
                ("put a;", ['column 6: unexpected ";"']), ("get count", ['unexpected "count"']),
                ("find from a from b", ['column 13: unexpected "from"']),
                ("get 'x;\ny", ["column 5: what begins here has no end", "'x;"]),
                ("get a\x01", ["column 6"]), ("begin; begin", ["under way"]),
                ("commit", ["no transaction"]), ("abort", ["no transaction"]),
                ("begin; compact; put a 1; commit", ["under way", "only be aborted", "mistake"]),
                ("begin; put a 1; oops; commit", ["oops", "nothing of it was kept"]),
                ("begin; delete no; put a 1; abort; get a", ['no record "a"']),
                ("put a b c", ['column 9: unexpected "c"']), ("set no 1", ["no setting"]),
                ("set workers 0", ["no value"]), ("set data 'a;b'", ["no value"]),
                ("put 'a;b' 1; dump x; delete 'a;b'", ["failed"]),
                ("set separator ab", ["no value"]), ("load no.txt", ["failed"]),
                ("x" * 100000, ["x" * 60 + '"'])]:
            errors = self.run_minidb(text=text, status=1)[1]
            for message in messages:
                self.assertIn(message, errors, text)
        self.assertEqual(self.run_minidb(text="begin; put a 1;")[1], "")
        self.assertEqual(self.dumped(), {})

    def test_lines_of_any_shape(self):
        self.run_minidb(text="set separator |")
        self.run_minidb("load", self.write("in", "a|1\r\n\n\nalone\n|no key\na|2\nlast|"
                                           + "v" * 300000))
        self.assertEqual(self.run_minidb("count")[0], "4\n")
        self.assertEqual(self.run_minidb("get", "a")[0], "a|2\n")
        self.run_minidb("set", "separator", "semicolon")
        self.assertEqual(self.run_minidb("get", "")[0], ";no key\n")
        self.assertEqual(len(self.run_minidb("get", "last")[0]), 300006)


class MinidbTest(StatementTests, ProgramTest):
    def test_the_command_line_and_files(self):
        self.load({"a": "1"})
        blank = self.write("blank", "")
        big = self.path("big")
        self.run_minidb("--data", big, "load", self.write("in", text_of(random_records(300))))
        self.write("bad.ini", "[server]\nworkers=many\n")
        for words, status, message in [
                (["--unknown"], 2, "usage"), (["--data"], 2, "usage"), (["--wait", "0"], 2, "usage"),
                (["--data", "x" * 600, "count"], 1, "too long"),
                (["--separator", "ab", "count"], 1, "no separator"),
                (["load", self.path("no")], 1, "No such file"), (["load", self.folder], 1, "directory"),
                (["dump", self.path("no/file")], 1, "cannot create"),
                (["dump", "/dev/full"], 1, "cannot write to"),
                (["--data", big, "dump", "/dev/full", "utf16"], 1, "cannot write to"),
                (["--data", self.path("no/data"), "count"], 1, "No such file"),
                (["--data", self.write("text", "x" * 5000), "load", blank], 1, "not a minidb"),
                (["--settings", "bad.ini", "count"], 1, "workers=many"),
                (["--settings", "no/x.ini", "count"], 1, "cannot create"),
                (["--connect", self.path("no"), "count"], 1, "cannot connect"),
                (["--log", self.path("no/log"), "count"], 1, "cannot create")]:
            self.assertIn(message, self.run_minidb(*words, status=status)[1])
        with open("/proc/self/mem", "rb") as unreadable:
            done = subprocess.run(self.minidb(), stdin=unreadable, capture_output=True,
                                  cwd=self.folder)
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"cannot read", done.stderr)
        self.assertEqual(self.dumped(), {"a": "1"})
        self.assertEqual(self.read("text"), "x" * 5000)

    def test_settings_are_made_and_kept(self):
        self.data = self.path("other")
        self.run_minidb("put", "a", "1")
        self.assertIn("data=minidb.data", self.read("minidb.ini"))
        self.run_minidb("set data other; set separator tab; set workers 7")
        self.assertIn("workers = 7\n", self.run_minidb("settings")[0])
        bare = [minidb_programs.PROGRAMS["minidb"], "get", "a"]
        self.assertEqual(self.run_command(bare)[0], "a\t1\n")

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
        for offset in random.sample(range(2048, len(whole)), 20):
            broken = bytearray(whole)
            broken[offset] ^= 1 << random.randrange(8)
            with open(self.data, "wb") as file:
                file.write(broken)
            self.assertIn("damaged", self.run_minidb("count", status=1)[1], f"seed {SEED}")
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
        before = os.listdir(self.folder)
        self.run_minidb("compact", env={"QEL_TMPDIR": self.folder})
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
            process = subprocess.Popen(self.minidb(*words), cwd=self.folder,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(random.random() * 0.02)
            process.kill()
            survived += process.wait() == 0
            found = self.dumped()
            if found != records:
                self.assertEqual(found, more, f"seed {SEED}: {words}")
                os.remove(self.data)
                self.load(records)
        print(f"seed {SEED}: {survived} of 16 ended before the kill", file=sys.stderr)


class MinidbInMemoryTest(MinidbTest):
    OPTIONS = ["--memory"]


class MinidbServedTest(StatementTests, ProgramTest):
    def setUp(self):
        super().setUp()
        self.start_server()

    def minidb(self, *words):
        return self.client(*words)


if __name__ == "__main__":
    minidb_programs.main(sys.argv)
