#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The sample as its users see it, against a model in Python: on a file, in memory, and
through a server, which also meets clients that misbehave.

minidb_test.py MINIDB MINIDB-SERVER
"""
import fnmatch
import os
import random
import resource
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

SEED = int(os.environ.get("ZOV_SEED", time.time_ns() % 1_000_000))
MINIDB, SERVER = (os.path.abspath(name) for name in sys.argv[1:3])


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


class Model:
    """What statements do, with a dictionary for the database."""

    def __init__(self):
        self.records = {}
        self.saved = None  # what an abort goes back to

    def statement(self):
        """One with the lines that are expected of it; found ones in any order."""
        key = random.choice(["a", "b b", "c:", "d'", 'e"', "Ä", "get", ""])
        value = random.choice(["1", "two words", "x;y", "", "ß'\"--", "a\tb"])
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
        pattern = random.choice([None, "*", "*a*", "?;*", "*two*"])
        first, last = random.choice([None, "b", "d"]), random.choice([None, "Z", "c;", "d'"])
        lines = [line for key, line in zip(self.records, text_of(self.records).split("\n"))
                 if (first or "").encode() <= key.encode() <= (last or "ÿ").encode()
                 and fnmatch.fnmatchcase(line.encode().decode("latin-1"), pattern or "*")]
        words = ["count" if kind == "count" else "find", pattern and quoted(pattern),
                 first and "from " + quoted(first), last and "to " + quoted(last)]
        counted = [str(len(lines))] if kind == "count" else lines + [f"{len(lines)} found"]
        return " ".join(filter(None, words)), counted


class ProgramTest(unittest.TestCase):
    """A test in a folder of its own."""

    def setUp(self):
        random.seed(SEED)
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        self.data, self.socket = self.path("data"), self.path("socket")

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, text, encoding="utf-8"):
        with open(self.path(name), "wb") as file:
            file.write(text if isinstance(text, bytes) else text.encode(encoding))
        return self.path(name)

    def read(self, name, encoding="utf-8"):
        with open(self.path(name), "rb") as file:
            return file.read().decode(encoding)

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

    def dumped(self):
        self.run_minidb("dump", self.path("dump.txt"))
        return dict(line.split(";", 1) for line in self.read("dump.txt").split("\n")[:-1])

    def start_server(self, *words, **options):
        """A server in the foreground, once it serves."""
        server = subprocess.Popen(
            [SERVER, "--data", self.data, "--socket", self.socket, "--foreground", *words],
            cwd=self.folder, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)
        self.addCleanup(server.communicate)
        self.addCleanup(server.kill)
        self.assertIn(b"serving", server.stdout.readline())
        return server

    def stop_server(self, server):
        server.send_signal(signal.SIGINT)
        self.assertEqual(server.wait(100), 0)


class StatementTests:
    """For every way to run statements."""

    def test_loads_and_dumps_are_those_of_a_dictionary(self):
        records = random_records(3000)
        for encoding in "utf-8", "utf-8-sig", "utf-16":
            self.load({"gone": "soon"})
            self.run_minidb("load", self.write("load.txt", text_of(records), encoding))
            self.run_minidb("delete", "gone")
            self.assertEqual(self.dumped(), records)
        self.run_minidb("dump", self.path("wide.txt"), "utf16")
        self.assertEqual(self.read("wide.txt", "utf-16"), self.read("dump.txt"))
        records.update(random_records(2000))
        self.load(records)
        self.run_minidb("compact")
        self.assertEqual(self.dumped(), records)

    def test_statements_do_what_the_model_does(self):
        for _ in range(4):
            model, text, expected = Model(), "", []
            for _ in range(300):
                statement, lines = model.statement()
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
        text = "a|1\r\n\n\nalone\n|no key\na|2\nlast|" + "v" * 300000
        self.run_minidb(text="set separator |")
        self.run_minidb("load", self.write("in", text))
        self.assertEqual(self.run_minidb("get", "a")[0], "a|2\n")
        self.run_minidb("set", "separator", "semicolon")
        self.assertEqual(self.dumped(), {"a": "2", "alone": "", "": "no key", "last": "v" * 300000})


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
        self.assertEqual(self.dumped(), {"a": "1"})
        self.assertEqual(self.read("text"), "x" * 5000)

    def test_settings_and_the_log_are_made_and_kept(self):
        self.data = self.path("other")
        self.run_minidb("put", "a", "1")
        self.assertIn("data=minidb.data", self.read("minidb.ini"))
        self.run_minidb("set data other; set separator tab; set workers 7")
        self.assertIn("workers = 7\n", self.run_minidb("settings")[0])
        self.assertEqual(self.run_command([MINIDB, "get", "a"])[0], "a\t1\n")
        self.run_minidb("--log", self.path("log"), "compact")
        self.assertRegex(self.read("log"), r"^\[\d\d-\w{3}-\d{4} \d\d:\d\d:\d\d\]  \d+ bytes, ")

    def test_damage_is_refused_and_left_alone(self):
        self.load(random_records(500))
        with open(self.data, "rb") as file:
            whole = file.read()
        for length in 1, 600, 1030, 2048, len(whole) // 2, len(whole) - 1:
            self.write("data", whole[:length])
            for words in ["count"], ["load", self.write("more", "x;y\n")], ["compact"]:
                self.assertRegex(self.run_minidb(*words, status=1)[1], "truncated|not a|damaged")
            with open(self.data, "rb") as file:
                self.assertEqual(file.read(), whole[:length])
        for offset in random.sample(range(2048, len(whole)), 20):
            flipped = bytes([whole[offset] ^ 1 << random.randrange(8)])
            self.write("data", whole[:offset] + flipped + whole[offset + 1:])
            self.assertIn("damaged", self.run_minidb("count", status=1)[1], f"seed {SEED}")

    def test_killed_while_it_writes(self):
        """The kernel kills it at the byte where a file would outgrow the limit."""
        records = random_records(3000)
        self.load(records)
        self.write("more.txt", text_of(random_records(3000, "L")))
        size = os.path.getsize(self.data) // 4096 * 4096
        for words, limit in [(["load", "more.txt"], size + 4096), (["load", "more.txt"], size + 65536),
                             (["compact"], 4096), (["compact"], size - 4096)]:
            self.run_minidb(*words, status=-signal.SIGXFSZ, env={**os.environ, "QEL_TMPDIR": self.folder},
                            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)))
            self.assertEqual(self.dumped(), records, (words, limit))


class MinidbInMemoryTest(MinidbTest):
    def minidb(self, *words):
        return super().minidb("--memory", *words)


class MinidbServedTest(StatementTests, ProgramTest):
    def setUp(self):
        super().setUp()
        self.start_server()

    def minidb(self, *words):
        return self.client(*words)


MARK = 0x6D646231


def request(query, line=1, column=1):
    text = query.encode()
    return struct.pack("=iiiii", MARK, 12 + len(text), line, column, len(text)) + text


class Client:
    """A client that speaks the protocol by itself."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(100)
        self.socket.connect(path)
        self.replies = self.socket.makefile("rb")

    def number(self):
        return struct.unpack("=i", self.replies.read(4))[0]

    def reply(self):
        """The items of a reply, and whether every statement succeeded."""
        items = []
        assert self.number() == MARK
        while (kind := self.replies.read(1)) != b"D":
            items.append((kind, self.replies.read(self.number()).decode()))
        return items, self.replies.read(1) == b"\1"

    def send(self, data):
        self.socket.sendall(data)
        return self

    def ask(self, query):
        return self.send(request(query)).reply()

    def close(self):
        self.replies.close()
        self.socket.close()


class ServerTest(ProgramTest):
    def connect(self):
        client = Client(self.socket)
        self.addCleanup(client.close)
        return client

    def test_transactions_are_seen_when_they_are_committed(self):
        server = self.start_server()
        one, other = self.connect(), self.connect()
        self.assertEqual(one.ask("put a 1; begin; put a 2; put b 2; get a"), ([(b"R", "a;2")], True))
        self.assertEqual(other.ask("get a; count"), ([(b"R", "a;1"), (b"R", "1")], True))
        self.assertEqual(other.ask("begin; put c 3; delete a; count"), ([(b"R", "1")], True))
        self.assertEqual(one.ask("count; commit"), ([(b"R", "2")], True))
        self.assertEqual(other.ask("count; get b"), ([(b"R", "2"), (b"R", "b;2")], True))
        self.assertEqual(one.ask("begin; put gone 1"), ([], True))
        one.close()
        self.assertEqual(other.ask("commit; find"),
                         ([(b"R", "b;2"), (b"R", "c;3"), (b"N", "2 found")], True))
        self.stop_server(server)
        self.assertEqual(self.dumped(), {"b": "2", "c": "3"})

    def test_clients_at_once(self):
        server = self.start_server()
        scripts = {name: "".join(f"begin; put {name}{n} {n}; put {name} {n}; commit;\n"
                                 for n in range(50)) for name in "vwxyz"}
        clients = [subprocess.Popen(self.client(), stdin=subprocess.PIPE) for _ in scripts]
        for client, script in zip(clients, scripts.values()):
            client.stdin.write(script.encode())
            client.stdin.close()
        self.assertEqual([client.wait(100) for client in clients], [0] * len(clients))
        self.stop_server(server)
        expected = {f"{name}{n}": str(n) for name in scripts for n in range(50)}
        self.assertEqual(self.dumped(), {**expected, **dict.fromkeys(scripts, "49")})

    def test_misbehaving_clients_harm_nobody(self):
        self.load(random_records(20000))
        self.write("minidb.ini", "[server]\nworkers=1\nwait=100\n")
        server = self.start_server()
        good = self.connect()
        whole = request("count")
        for data in [random.randbytes(200), b"\0" * 8, whole[:7], whole[:12], whole[:-1],
                     struct.pack("=ii", MARK, -1), struct.pack("=ii", MARK, 0),
                     struct.pack("=iiiii", MARK, 12, 1, 1, 500) + whole,
                     struct.pack("=iiiii", MARK, 16, 1, 1, -1) + b"abcd", request("get \0"),
                     request("find") * 3]:
            self.connect().send(data).close()
            self.assertEqual(good.ask("count"), ([(b"R", "20000")], True), data[:20])
        self.connect().send(request("find"))  # more than a socket holds, and never read
        self.assertEqual(good.ask("count")[0], [(b"R", "20000")])
        slow = self.connect()
        for byte in whole:
            slow.send(bytes([byte]))
        self.assertEqual(slow.reply()[0], [(b"R", "20000")])
        eager = self.connect().send(whole * 20)
        self.assertEqual([eager.reply()[0] for _ in range(20)], [[(b"R", "20000")]] * 20)
        self.stop_server(server)

    def test_changes_that_do_not_fit_on_the_disk(self):
        def limit_files():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (20000, 20000))

        server = self.start_server(preexec_fn=limit_files)
        client = self.connect()
        failed = [(b"E", "that failed; the log says why")]
        self.assertTrue(client.ask("put a 1")[1])
        self.assertEqual(client.ask(f"put a {'x' * 20000}; get a"), (failed + [(b"R", "a;1")], False))
        self.assertEqual(client.ask(f"begin; put b 2; put a {'x' * 20000}; commit; count"),
                         (failed + [(b"R", "1")], False))
        self.assertEqual(client.ask("put b 2; find"),
                         ([(b"R", "a;1"), (b"R", "b;2"), (b"N", "2 found")], True))
        self.stop_server(server)
        self.assertEqual(self.dumped(), {"a": "1", "b": "2"})

    def test_clients_beyond_the_descriptors_wait(self):
        server = self.start_server(preexec_fn=lambda: resource.setrlimit(
            resource.RLIMIT_NOFILE, (16, 16)))
        clients = [self.connect() for _ in range(30)]
        for client in clients:  # each one that leaves lets another in
            self.assertEqual(client.ask("count"), ([(b"R", "0")], True))
            client.close()
        self.stop_server(server)

    def test_client_tells_what_is_wrong_with_the_server(self):
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(self.socket)
            listener.listen()
            for answer, message in [(b"", "does not answer"), (b"HTTP/1.1 400", "no minidb server"),
                                    (struct.pack("=i", MARK), "broke")]:
                wait = "60000" if answer else "100"
                client = subprocess.Popen(self.client("--wait", wait, "count"), stderr=subprocess.PIPE)
                with listener.accept()[0] as connection:
                    connection.sendall(answer)
                    if answer:
                        connection.shutdown(socket.SHUT_WR)
                    self.assertIn(message, client.communicate(timeout=100)[1].decode())
                self.assertEqual(client.returncode, 1)

    def test_in_the_background(self):
        command = [SERVER, "--socket", self.socket, "--data", self.data]
        self.assertIn("started successfully", self.run_command(command)[0])
        server = os.pidfd_open(int(self.read("socket.pid")))
        self.addCleanup(os.close, server)
        try:
            self.run_command(self.client("put", "a", "1"))
            self.assertIn("in use", self.run_command(command, status=1)[1])
            self.assertIn("in use", self.run_minidb("count", status=1)[1])
            command += ["--data", self.path("other"), "--log", self.path("other.log")]
            self.assertIn("in use", self.run_command(command, status=1)[1])
            self.assertEqual(self.run_command(self.client("get", "a"))[0], "a;1\n")
        finally:
            signal.pidfd_send_signal(server, signal.SIGINT)
        self.assertEqual(select.select([server], [], [], 100)[0], [server])
        self.assertFalse(os.path.exists(self.socket) or os.path.exists(self.path("socket.pid")))
        self.assertRegex(self.read("minidb-server.log"), "serving (.|\n)* ended")
        self.assertEqual(self.dumped(), {"a": "1"})


if __name__ == "__main__":
    del sys.argv[1:3]
    unittest.main()
