#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The commands for gdb, on a living process and on its core: gdb_test.py PROGRAM SCRIPT."""
import os
import pathlib
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAM, SCRIPT = (os.path.abspath(argument) for argument in sys.argv[1:3])
MANY = {f"{number:0{200 if number == 350 else 3}}" for number in range(700)}


class GdbTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        os.chdir(cls.folder.name)
        cls.process = subprocess.Popen([PROGRAM], stdout=subprocess.PIPE)
        assert cls.process.stdout.readline() == b"ready\n"
        tasks = pathlib.Path(f"/proc/{cls.process.pid}/task")
        while any(task.joinpath("stat").read_text().rpartition(") ")[2][0] != "S"
                  for task in tasks.iterdir()):
            time.sleep(0.01)  # until each thread waits
        refused = cls.gdb(["-p", str(cls.process.pid)], "generate-core-file core")[1]
        if "ptrace: Operation not permitted" in refused:  # as in some containers
            cls.tearDownClass()
            raise unittest.SkipTest("no process may trace another here")

    @classmethod
    def tearDownClass(cls):
        cls.process.kill()
        cls.process.communicate()
        cls.folder.cleanup()

    @staticmethod
    def gdb(target, *commands):
        flags = [flag for command in (f"source {SCRIPT}",) + commands for flag in ("-ex", command)]
        done = subprocess.run(["gdb", "-nx", "-batch", "-iex", "set auto-load off", *target, *flags],
                              capture_output=True, text=True, timeout=100)
        return done.stdout, done.stderr

    def both(self, *commands):
        """What the commands print for the process, which is what they print for its core."""
        commands = ("echo --\\n",) + commands + ("echo --\\n",)
        living, refused = self.gdb(["-p", str(self.process.pid)], *commands)
        dead, refused_dead = self.gdb([PROGRAM, "core"], *commands)
        shown = dead.split("--\n")[1]
        self.assertEqual(living.split("--\n")[1], shown)
        return shown, refused, refused_dead

    def test_process_and_core_show_the_same(self):
        shown, refused, _ = self.both("zov tags", "zov queues", "zov queues orders", "zov syncs", "zov output",
                                "zov files")
        for pattern in [
                r"0x\w+ +0x\w+ +5 +50[0-9]{2}  returns, may be armed\n",
                r"706 files and directories in memory +[0-9]+ +[0-9]+\n",
                r"orders: 2 messages\n    code 7, key 8, data 0x1234\n    code 9, key 10, data 0x5678\n",
                rf"mutex, inside thread 1 \(LWP {self.process.pid}\), 2 times; waits: thread [23]\n",
                r"event, reset; waits: thread [23]\n", r"stdout +redirected over stdout\nstderr +stderr\n",
                r"on-disk: descriptor [0-9]+\n", r"/open: in memory at 12\n"]:
            self.assertRegex(shown, pattern, refused)

    def test_files_in_memory_are_listed_and_copied(self):
        shown, *refused = self.both("zov memory-list", "zov memory-copy /missing x", "zov memory-list FAR")
        lines = [line.split() for line in shown.splitlines()]
        listed = {line[-1]: line[0] for line in lines}
        self.assertEqual({name[5:] for name in listed if name.startswith("many/")}, MANY)
        self.assertEqual([listed[name] for name in ["open", "many", "many/007", "away/hole"]],
                         ["12", "directory", "9", str((50 << 20) + 13)])
        for reason in refused:
            self.assertIn("No file or directory in memory has the name /missing.", reason)
        self.gdb([PROGRAM, "core"], "zov memory-copy / all", "zov memory-copy /open one")
        for name in MANY:
            self.assertEqual(pathlib.Path("all/many", name).read_text(), f"/many/{name}")
        hole = pathlib.Path("all/far/away/hole").read_bytes()
        self.assertEqual(hole, bytes(50 << 20) + b"behind a hole")
        self.assertEqual(pathlib.Path("one").read_text(), "twelve bytes")
        self.assertEqual(os.stat("one").st_mode & 0o777, 0o600)
        again = self.gdb([PROGRAM, "core"], "zov memory-copy open one")
        self.assertIn("one: File exists", again[1])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
