#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The sample as its users see it, against a model in Python: on a file, in memory, and
through a server, which also meets clients that misbehave.

minidb_test.py MINIDB MINIDB-SERVER TEST...
"""
import os
import pty
import random
import re
import resource
import select
import signal
import socket
import stat
import struct
import subprocess
import sys
import tempfile
import time
import unittest
from concurrent import futures

SEED = int(os.environ.get("ZOV_SEED", time.time_ns() % 1_000_000))
MINIDB, SERVER = (os.path.abspath(name) for name in sys.argv[1:3])
FOLDER = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None  # syncs cost nothing there
ADDRESSES_TAKEN = "MINIDB_ADDRESSES_TAKEN" in os.environ  # by what runs the programs
MARK, INTERRUPT = 0x6D646233, 0x6D646269


def text_of(records):
    return "".join(f"{key};{records[key]}\n" for key in sorted(records, key=str.encode))


def random_records(count):
    letters = "abcdefghij ÄÖßé€𝄞;"
    return {f"K{number:05d}": "".join(random.choices(letters, k=random.randrange(40)))
            for number in random.sample(range(100000), count)}


def quoted(text):
    quote = random.choice("'\"")
    return quote + text.replace(quote, quote * 2) + quote


def matches(line, pattern):
    parts = re.findall(r"\\.|.", pattern, re.S)
    expression = "".join({"*": "(?s:.*)", "?": "(?s:.)"}.get(part, re.escape(part[-1]))
                         for part in parts)
    return re.fullmatch(expression, line) is not None


class Model:
    """What statements do, with a dictionary for the database."""

    def __init__(self):
        self.records = {}
        self.saved = None  # what an abort goes back to

    def statement(self):
        """One with the lines that are expected of it."""
        key = random.choice(["a", "b b", "c:", "d'", 'e"', "Ä", "get", "from", "f*?\\"])
        value = random.choice(["1", "two words", "x;y", "", "ß'\"--", "a\tb", "v" * 9000, "*"])
        kind = random.choice(["put", "put", "put", "get", "delete", "find", "count", "end"])
        if kind == "put":
            self.records[key] = value
            return f"PUT {quoted(key)} {quoted(value)}", []
        if kind == "get" and key in self.records:
            return f"get -- a comment;\n {quoted(key)}", [f"{key};{self.records[key]}"]
        if kind == "delete" and key in self.records:
            del self.records[key]
            return f"delete {quoted(key)}", []
        return self.begin_or_end() if kind == "end" else self.find(kind)

    def begin_or_end(self):
        if self.saved is None:
            self.saved = dict(self.records)
            return "begin", []
        keeps = random.random() < 0.5
        self.records, self.saved = self.records if keeps else self.saved, None
        return "commit" if keeps else "abort", []

    def find(self, kind):
        pattern = random.choice([None, "*", "*a*", "?;*", "*two*", "f\\*\\?*", "*\\*", "*Ä?1"])
        first, last = random.choice([None, "b", "d", "from"]), random.choice([None, "Z", "c;", "d'"])
        most = random.choice([None, None, 0, 2])
        lines = [line for line in text_of(self.records).split("\n")[:-1]
                 if (first or "").encode() <= line.split(";")[0].encode() <= (last or "ÿ").encode()
                 and matches(line, pattern or "*")][:most]
        words = ["count" if kind == "count" else "find", pattern and quoted(pattern),
                 first and "from " + random.choice([first, quoted(first)]),
                 last and "to " + quoted(last), most is not None and f"limit {most}"]
        return " ".join(filter(None, words)), [str(len(lines))] if kind == "count" else lines


class ProgramTest(unittest.TestCase):
    """A test in a folder of its own."""

    def setUp(self):
        random.seed(SEED)
        self.folder = self.enterContext(tempfile.TemporaryDirectory(dir=FOLDER))
        self.data, self.socket = self.path("data"), self.path("socket")

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, text, encoding="utf-8"):
        with open(self.path(name), "wb") as file:
            file.write(text if isinstance(text, bytes) else text.encode(encoding))
        return self.path(name)

    def bytes(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()

    def read(self, name):
        return self.bytes(name).decode()

    def mode(self, name):
        return stat.S_IMODE(os.stat(self.path(name)).st_mode)

    def minidb(self, *words):
        """The command of minidb on the data file."""
        return [MINIDB, "--data", self.data, *words]

    def client(self, *words):
        return [MINIDB, "--connect", self.socket, *words]

    def run_command(self, command, status=0, text="", **options):
        done = subprocess.run(command, capture_output=True, cwd=self.folder, timeout=100,
                              input=text.encode(), check=False, **options)
        self.assertEqual(done.returncode, status, f"seed {SEED}: {command}: {done.stderr}")
        return done.stdout.decode(), done.stderr.decode()

    def run_minidb(self, *words, **options):
        return self.run_command(self.minidb(*words), **options)

    def load(self, records):
        self.run_minidb("load", self.write("load.txt", text_of(records)))

    def records(self):
        """What is there, of a file that is whole, without a lock."""
        rows = self.run_command([MINIDB, "--data", self.data, "--read-only", "check; find"])[0]
        return dict(line.split(";", 1) for line in rows.split("\n")[:-1])

    def start_server(self, *words, **options):
        """A server in the foreground, once it serves."""
        server = subprocess.Popen(
            [SERVER, "--data", self.data, "--socket", self.socket, "--foreground", *words],
            cwd=self.folder, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)
        self.addCleanup(server.communicate)
        self.addCleanup(server.kill)
        self.assertIn(b"serving", server.stdout.readline())
        return server

    def stop_server(self, server, how=signal.SIGTERM):
        server.send_signal(how)
        self.assertEqual(server.wait(100), 0)
        self.assertFalse(os.path.exists(self.socket) or os.path.exists(self.path("socket.pid")))

    def connect(self):
        client = self.enterContext(Client(socket.AF_UNIX))
        client.connect(self.socket)
        return client


class StatementTests:
    """For every way to run statements."""

    def test_statements_do_what_the_model_does(self):
        for _ in range(3):
            model, text, expected = Model(), "", []
            for _ in range(300):
                statement, lines = model.statement()
                text += statement + random.choice([";\n", " ; ", ";;"])
                expected += lines
            if model.saved is not None:
                model.records, text = model.saved, text + "abort;"
            text += "find;" + "".join(f"delete {quoted(key)};" for key in model.records)
            expected += text_of(model.records).split("\n")[:-1]
            shown = self.run_minidb(text=text + "quit; find")[0].split("\n")[:-1]
            self.assertEqual(shown, expected, f"seed {SEED}")

    def test_loads_and_dumps_are_those_of_a_dictionary(self):
        records = random_records(2000)
        for encoding in "utf-8", "utf-8-sig", "utf-16":
            self.write("load.txt", text_of(records).replace("\n", "\r\n\n"), encoding)
            notes = self.run_minidb("load load.txt; delete gone; put gone 1; load load.txt; "
                                    "delete gone; compact; check; dump dump.txt", status=1)[1]
            self.assertIn("4000 lines, 0 new records", notes)
            self.assertEqual(self.read("dump.txt"), text_of(records))
            self.assertEqual(self.mode("dump.txt"), 0o600)

    def test_mistakes_are_named_and_change_nothing(self):
        os.mkfifo(self.path("fifo"))
        for name, text in [("bare", "a;1\nb\n"), ("nul", "a;1\nb;\0x\n"), ("empty", "\n\n;1\n"),
                           ("long", "k" * 1000 + ";1")]:
            self.write(name, text)
        for text, messages in [
                ("putt a 1; get x", ['line 1, column 1: unexpected "putt", expected a statement',
                                     'no record "x"']),
                ("get", ["line 1, column 4: unexpected end, expected get KEY"]),
                ("\n get Ä Ö;", ['line 2, column 8: unexpected "Ö"']),
                ("put a;", ['column 6: unexpected ";", expected put KEY VALUE']),
                ("find from a from b", ['column 13: unexpected "from", expected find [PATTERN]']),
                ("commit x", ['column 8: unexpected "x", expected ";"']),
                ("get 'x;\ny", ["column 5: no word, or a string without end: \"'x;"]),
                ("get a\x01; begin; begin", ["column 6", "under way"]),
                ("commit; abort", ["no transaction\nminidb: there is no transaction"]),
                ("begin; compact; put a 1; commit", ["under way", "only be aborted", "mistake"]),
                ("begin; put a 1; oops; commit", ["oops", "nothing of it was kept"]),
                ("begin x; put a 1; commit", ['"x"', "only be aborted", "nothing of it"]),
                ("begin; put a 1", ["a transaction was open, so nothing of it was kept"]),
                ("set no 1", ["no setting"]), ("set clients 0", ["a number from 1 to 1000"]),
                ("find limit x; count limit ''", ['no number: "x"', 'no number: ""']),
                ("put '' 1", ["key"]), (f"put {'k' * 1000} 1", ["key"]),
                ("put 'a;b' 1; dump x; delete 'a;b'", ['no line can hold the record "a;b"']),
                ("put a 'x\ny'; dump x; delete a", ["no line can hold"]),
                ("load no.txt", ['cannot open "no.txt": No such file']), ("load .", ["no regular"]),
                ("load fifo", ["no regular file"]), ("load bare", ["line 2: it has no separator"]),
                ("load nul", ["line 2: it holds a NUL"]), ("load empty", ["line 3:", "key"]),
                ("load long", ["line 1:", "key"]), ("dump no/x", ["cannot create"]),
                ("dump fifo", ["no regular file"]), ("dump .", ["no regular file"]),
                ("x" * 100000, ["x" * 60 + '"'])]:
            with self.subTest(text[:60]):
                shown, errors = self.run_minidb(text=text, status=1)
                self.assertEqual(shown, "")
                for message in messages:
                    self.assertIn(message, errors)
        self.assertFalse(os.path.exists(self.path("x")))
        self.assertEqual(self.run_minidb("count")[0], "0\n")


class FileTest(StatementTests, ProgramTest):
    def test_the_command_line(self):
        self.write("bad.ini", "[server]\nclients=many\n")
        text = self.write("text", "x" * 9000)
        for words, status, message in [
                (["--unknown", "count"], 2, 'there is no option "--unknown"'),
                (["--data"], 2, 'no value behind "--data"'), (["--wait", "0", "count"], 2, "1 to"),
                (["--data", "x" * 600, "count"], 2, "1 to 511 bytes"),
                (["--separator", "ab", "count"], 2, "a character"),
                (["--data", self.path("no/data"), "count"], 1, "No such file"),
                (["--data", text, "count"], 1, "not a minidb"),
                (["--settings", "bad.ini", "count"], 1, 'clients cannot be "many"'),
                (["--settings", "/", "count"], 1, "/"),
                (["--connect", self.path("no"), "count"], 1, "cannot connect"),
                (["--log", self.path("no/log"), "count"], 1, "cannot create"),
                (["--log", text, "--data", text, "count"], 1, "take the place"),
                (["--log", text, "--data", text + ".old", "count"], 1, "take the place")]:
            self.assertIn(message, self.run_minidb(*words, status=status)[1], words)
        self.assertEqual(self.read("text"), "x" * 9000)
        self.assertRegex(self.run_minidb()[0], "^$")
        self.assertRegex(self.run_command([MINIDB, "--version"])[0], r"^minidb \d+\.\d+\.\d+\n$")
        self.assertIn("put KEY VALUE  ", self.run_minidb("help")[0])
        self.assertIn("usage", self.run_command([SERVER, "--help"])[0])
        self.run_command([SERVER, "word"], status=2)
        for word in "count", "from", "a b", "--x", "'\"", ";", "*":
            self.run_minidb("put", word, word)
            self.assertEqual(self.run_minidb("get", word)[0], f"{word};{word}\n")
        self.assertEqual(self.run_minidb("count", "from", "from", "to", "to")[0], "1\n")
        self.assertIn("read", self.run_minidb("--read-only", "put", "a", "1", status=1)[1])

    def test_damaged_and_other_files_are_left_alone(self):
        self.run_minidb("put", "a", "1")
        whole = self.bytes("data")
        for image in (b"x", b"minidb file 2\r\n" + bytes(9000), whole[:5000], whole[:8192],
                      bytes(byte ^ (at in (40, 4136)) for at, byte in enumerate(whole)),  # metas
                      bytes(byte ^ (at == 12192) for at, byte in enumerate(whole))):  # a root
            self.write("data", image)
            for words in [], ["--read-only"]:
                self.assertIn(self.data, self.run_minidb(*words, "count", status=1)[1])
            self.assertEqual(self.bytes("data"), image)

    def test_settings_and_logs_are_kept_private(self):
        self.data = "otherÄ"
        self.run_minidb("put", "a", "1")
        self.run_minidb("set data otherÄ; set separator tab; set clients 7")
        self.assertIn("clients = 7\n", self.run_minidb("settings")[0])
        self.assertEqual(self.run_command([MINIDB, "get", "a"])[0], "a\t1\n")
        os.symlink(self.write("victim", "x"), self.path("log"))
        self.run_minidb("--log", self.path("log"), "compact")
        self.assertRegex(self.read("log"), r"^\[\d\d-\w{3}-\d{4} \d\d:\d\d:\d\d\]  \d+ bytes, ")
        self.assertEqual(self.read("victim"), "x")
        for name in "otherÄ", "minidb.ini", "log":
            self.assertEqual(self.mode(name), 0o600, name)
        self.write("minidb.ini", "[database]\ndata = z\n")
        self.assertIn("another line", self.run_minidb("set data zz", status=1)[1])
        self.assertNotIn("zz", self.read("minidb.ini"))

    def test_dumps_spare_what_is_the_database_s_and_what_was_there(self):
        self.load({"a": "1"})
        os.symlink("data", self.path("soft"))
        self.run_minidb("set wait 9000")
        os.link(self.path("minidb.ini"), self.path("hard"))
        for name in ("data", "soft", "hard", "./minidb.ini", "data.new", "minidb-server.log",
                     "minidb.socket", "minidb.socket.pid", "minidb.socket.lock"):
            self.assertIn("the database itself", self.run_minidb("dump", name, status=1)[1], name)
        self.write("good", "earlier")
        self.write("good.minidb-new", "left by a kill")
        self.run_minidb("put 'x;y' 1; dump good", status=1)
        self.assertEqual(self.read("good"), "earlier")
        self.run_minidb("delete 'x;y'; dump good")
        self.assertEqual(self.read("good"), "a;1\n")
        self.assertFalse(os.path.exists(self.path("good.minidb-new")))
        self.data = self.path("good.minidb-new")
        os.rename(self.path("data"), self.data)
        self.run_minidb("--read-only", "dump", "good", status=1)
        self.assertEqual(self.records(), {"a": "1"})

    def test_output_that_nobody_takes(self):
        self.load(random_records(5000))
        shell = f"{MINIDB} --data {self.data} 'find; put z 1' | head -n 1; exit ${{PIPESTATUS[0]}}"
        shown, errors = self.run_command(["bash", "-c", shell])
        self.assertEqual((len(shown.split("\n")), errors), (2, ""))
        stats = dict(re.findall("(.*): (\\d+)", self.run_minidb("get z; stats")[0]))
        self.assertGreaterEqual(int(stats["depth"]), 2)
        self.assertLessEqual(int(stats["pages read"]), int(stats["depth"]) + 3)
        shell = f"{MINIDB} --data {self.data} find >/dev/full"
        self.assertEqual(self.run_command(["bash", "-c", shell], status=1)[1].count("No space left"), 1)

    def test_a_terminal(self):
        self.load({f"{number:06}": "x" * 40 for number in range(60000)})
        pid, terminal = pty.fork()
        if pid == 0:
            os.chdir(self.folder)
            os.execv(MINIDB, self.minidb())
        shown = b""
        for typed, expected in [  # each only when what is in front of it was seen
                (b"", b"minidb> "), (b"put a\n", b"...> "), (b"\x03", b"minidb> "),
                (b"put a 1;find;\n", b"000001;"), (b"\x03", b"interrupted"), (b"", b"minidb> "),
                (b"get a; begin;\n", b"a;1\r\n"), (b"", b"minidb> "),
                (b"quit;\n", b"a transaction was open")]:
            os.write(terminal, typed)
            while expected not in shown:
                self.assertTrue(select.select([terminal], [], [], 100)[0], shown[-200:])
                shown += os.read(terminal, 65536)
            shown = shown[shown.index(expected) + len(expected):]
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]), 1)
        os.close(terminal)


class MemoryTest(StatementTests, ProgramTest):
    def minidb(self, *words):
        return super().minidb("--memory", *words)


class ServedTest(StatementTests, ProgramTest):
    def setUp(self):
        super().setUp()
        self.start_server()

    def minidb(self, *words):
        return self.client(*words)


def request(query):
    text = query.encode()
    return struct.pack("=iiii", MARK, 1, 1, len(text)) + text


class Client(socket.socket):
    """A client that speaks the protocol by itself."""

    def exactly(self, count):
        return self.recv(count, socket.MSG_WAITALL)

    def reply(self):
        """What is said, messages with a line end, and whether every statement succeeded."""
        said = b""
        while (kind := self.exactly(1)) != b"D":
            length, = struct.unpack("=i", self.exactly(4))
            said += self.exactly(length) + b"\n" * (kind != b"R")
        return said.decode(), self.exactly(1)[0] & 1 == 1

    def ask(self, data):
        self.sendall(request(data) if isinstance(data, str) else data)
        return self.reply()


class ServerTest(ProgramTest):
    def test_sessions_have_a_transaction_each(self):
        server = self.start_server()
        one, other = self.connect(), self.connect()
        self.assertEqual(one.ask("put a 1; begin; put a 2; get a"), ("a;2\n", True))
        self.assertEqual(other.ask("get a; begin; delete a; count"), ("a;1\n0\n", True))
        self.assertEqual(one.ask("commit; begin; put gone 1"), ("", True))
        self.assertFalse(other.ask("commit")[1])  # a was changed meanwhile
        one.close()
        self.assertEqual(other.ask("begin; put c 3; commit; find"), ("a;2\nc;3\n2 found\n", True))
        with futures.ThreadPoolExecutor() as clients:
            said = clients.map(lambda wait: self.connect().ask(f"set wait {wait}; put {wait} 1;" * 99),
                               range(1, 5))
            self.assertEqual(list(said), [("", True)] * 4)
        server.kill()
        server.wait(100)
        self.assertEqual(self.records(), {"a": "2", "c": "3", "1": "1", "2": "1", "3": "1", "4": "1"})

    def test_misbehaving_clients_harm_nobody(self):
        self.load(random_records(20000))
        server = self.start_server("--wait", "500")
        good = self.connect()
        whole = request("count")
        for data in [random.randbytes(200), b"\0" * 8, whole[:3], whole[:14], whole[:-1],
                     struct.pack("=iiii", MARK, 1, 1, -1), struct.pack("=iiii", MARK, 1, 1, 1 << 30),
                     struct.pack("=iiii", MARK, 1, (1 << 31) - 1, 5) + b"count",
                     struct.pack("=iiii", MARK, 0, 1, 5) + b"count", request("get \0"),
                     struct.pack("=i", INTERRUPT) * 3, request("find") * 3]:
            with self.connect() as client:
                client.sendall(data)
            self.assertEqual(good.ask("count"), ("20000\n", True), data[:20])
        stalled = [self.connect() for _ in range(4)]
        for client in stalled:  # who never read
            client.sendall(request("find; find"))
        self.assertEqual(good.ask("put a 1; count")[0], "20001\n")
        for client in stalled:  # given up after the wait
            poll = select.poll()
            poll.register(client, 0)
            self.assertEqual(poll.poll(100000)[0][1] & select.POLLHUP, select.POLLHUP)
        said, succeeded = good.ask(request("find") + struct.pack("=i", INTERRUPT))
        self.assertEqual((said[-12:], succeeded), ("interrupted\n", False))
        self.assertEqual(good.ask("count"), ("20001\n", True))
        self.stop_server(server, signal.SIGINT)

    def test_clients_beyond_the_descriptors_the_memory_or_the_limit_wait(self):
        for words, what, limit in [([], resource.RLIMIT_NOFILE, 24),
                                   (["--clients", "3"], resource.RLIMIT_NOFILE, 1000),
                                   (["--clients", "1000"], resource.RLIMIT_AS, 1 << 28)]:
            if ADDRESSES_TAKEN and what == resource.RLIMIT_AS:
                continue
            server = self.start_server(*words, preexec_fn=lambda: resource.setrlimit(
                what, (limit, limit)))
            clients = [self.connect() for _ in range(30)]
            for client in clients:  # each one that leaves lets another in
                self.assertEqual(client.ask("count"), ("0\n", True))
                client.close()
            self.stop_server(server)

    def test_client_tells_what_is_wrong_with_the_server(self):
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(self.socket)
            listener.listen()
            for answer, message in [(b"", "under way and may still be carried out"),
                                    (b"HTTP/1.1 400", "no minidb server"), (b"N", "broke off")]:
                wait = "60000" if answer else "100"
                client = subprocess.Popen(self.client("--wait", wait, "count"), cwd=self.folder,
                                          stderr=subprocess.PIPE)
                with listener.accept()[0] as connection:
                    connection.sendall(answer)
                    if answer:
                        connection.shutdown(socket.SHUT_WR)
                    self.assertIn(message, client.communicate(timeout=100)[1].decode())
                self.assertEqual(client.returncode, 1)

    def test_in_the_background(self):
        victim = self.write("victim", "x")
        os.symlink(victim, self.path("socket.pid"))
        with socket.socket(socket.AF_UNIX) as dead:
            dead.bind(self.socket)
        command = [SERVER, "--socket", self.socket, "--data", self.data]
        self.assertIn("started successfully", self.run_command(command)[0])
        server = os.pidfd_open(int(self.read("socket.pid")))
        self.addCleanup(os.close, server)
        try:
            self.run_command(self.client("put", "a", "1"))
            other = [*command, "--data", self.path("other"), "--log", self.path("other.log")]
            for rival in (command, other, [*command, "--socket", self.path("2")],
                          self.minidb("count")):
                self.assertIn("in use", self.run_command(rival, status=1)[1])
            self.assertEqual(self.run_command(self.client("get", "a"))[0], "a;1\n")
            for name in "socket", "socket.pid", "minidb-server.log", "data":
                self.assertEqual(self.mode(name) & 0o77, 0, name)
        finally:
            signal.pidfd_send_signal(server, signal.SIGTERM)
        self.assertEqual(select.select([server], [], [], 100)[0], [server])
        self.assertFalse(os.path.exists(self.socket) or os.path.lexists(self.path("socket.pid")))
        self.assertEqual(self.read("victim"), "x")
        self.assertRegex(self.read("minidb-server.log"), "serving (.|\n)* ended")
        self.assertEqual(self.records(), {"a": "1"})


if __name__ == "__main__":
    del sys.argv[1:3]
    unittest.main()
