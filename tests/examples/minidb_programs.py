# SPDX-License-Identifier: Apache-2.0
"""What the tests of the sample share: running its programs, and records for them."""
import os
import random
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

SEED = int(os.environ.get("ZOV_SEED", time.time_ns() % 1_000_000))
PROGRAMS = {}


def text_of(records):
    return "".join(f"{key};{value}\n" for key, value in records.items())


def random_records(count, prefix="K"):
    letters = "abcdefghij ÄÖßé€𝄞;"
    return {
        f"{prefix}{number:05d}": "".join(random.choices(letters, k=random.randrange(40)))
        for number in random.sample(range(100000), count)
    }


def quoted(text):
    quote = random.choice("'\"")
    return quote + text.replace(quote, quote * 2) + quote


class ProgramTest(unittest.TestCase):
    """A test in a folder of its own."""

    def setUp(self):
        random.seed(SEED)
        self.folder = tempfile.mkdtemp(prefix="minidbtest.")
        self.addCleanup(shutil.rmtree, self.folder)
        self.data = self.path("data")
        self.socket = self.path("socket")

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, text, encoding="utf-8"):
        with open(self.path(name), "wb") as file:
            file.write(text.encode(encoding))
        return self.path(name)

    def read(self, name, encoding="utf-8"):
        with open(self.path(name), "rb") as file:
            return file.read().decode(encoding)

    def minidb(self, *words):
        """The command of minidb on the data file."""
        return [PROGRAMS["minidb"], "--data", self.data, *words]

    def client(self, *words):
        return [PROGRAMS["minidb"], "--connect", self.socket, *words]

    def run_command(self, command, status=0, text=None, env=None):
        done = subprocess.run(command, capture_output=True, cwd=self.folder, timeout=100,
                              input=None if text is None else text.encode(),
                              env={**os.environ, **(env or {})})
        self.assertEqual(done.returncode, status, f"seed {SEED}: {command}: {done.stderr}")
        return done.stdout.decode(), done.stderr.decode()

    def start_server(self, *words, **options):
        """A server in the foreground, once it serves."""
        server = subprocess.Popen(
            [PROGRAMS["minidb-server"], "--data", self.data, "--socket", self.socket,
             "--foreground", *words],
            cwd=self.folder, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)
        self.addCleanup(self.kill, server)
        self.assertIn(b"serving", server.stdout.readline())
        return server

    def stop_server(self, server):
        server.send_signal(signal.SIGINT)
        self.assertEqual(server.wait(100), 0, server.stderr.read())

    def kill(self, process):
        process.kill()
        process.wait()
        for pipe in process.stdout, process.stderr:
            if pipe:
                pipe.close()


def main(arguments):
    PROGRAMS["minidb"] = os.path.abspath(arguments.pop(1))
    PROGRAMS["minidb-server"] = os.path.abspath(arguments.pop(1))
    unittest.main()
