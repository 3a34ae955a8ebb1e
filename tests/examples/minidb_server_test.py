#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The sample's server: several clients, clients that misbehave, its end, clean and
not.

minidb_server_test.py MINIDB MINIDB-SERVER
"""
import os
import random
import resource
import signal
import socket
import struct
import subprocess
import sys
import threading
import time

import minidb_programs
from minidb_programs import SEED, ProgramTest, random_records, text_of

MARK = 0x6D646231


def request(query, line=1, column=1):
    text = query.encode()
    return struct.pack("=iiiii", MARK, 12 + len(text), line, column, len(text)) + text


class Client:
    """A client that speaks the protocol by itself. Ends quietly with the server."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(100)
        self.socket.connect(path)

    def receive(self, count):
        data = b""
        while len(data) < count:
            piece = self.socket.recv(count - len(data))
            if not piece:
                raise ConnectionError("the server is gone")
            data += piece
        return data

    def reply(self):
        """The items of a reply, and whether every statement succeeded."""
        items = []
        assert struct.unpack("=i", self.receive(4))[0] == MARK
        while (kind := self.receive(1)) != b"D":
            items.append((kind, self.receive(struct.unpack("=i", self.receive(4))[0]).decode()))
        return items, self.receive(1) == b"\1"

    def ask(self, query):
        self.socket.sendall(request(query))
        return self.reply()


class ServerTest(ProgramTest):
    def connect(self):
        client = Client(self.socket)
        self.addCleanup(client.socket.close)
        return client

    def kept(self):
        """What is in the data file when no server has it."""
        self.run_command(self.minidb("dump", self.path("kept.txt")))
        return dict(line.split(";", 1) for line in self.read("kept.txt").split("\n")[:-1])

    def test_transactions_are_seen_when_they_are_committed(self):
        server = self.start_server()
        one, other = self.connect(), self.connect()
        self.assertEqual(one.ask("put a 1; begin; put a 2; put b 2; get a"), ([(b"R", "a;2")], True))
        self.assertEqual(other.ask("get a; count"), ([(b"R", "a;1"), (b"R", "1")], True))
        self.assertEqual(other.ask("begin; put c 3; delete a; count"), ([(b"R", "1")], True))
        self.assertEqual(one.ask("count; commit"), ([(b"R", "2")], True))
        self.assertEqual(other.ask("count; get b"), ([(b"R", "2"), (b"R", "b;2")], True))
        self.assertEqual(one.ask("begin; put gone 1"), ([], True))
        one.socket.close()
        self.assertEqual(other.ask("commit; find"),
                         ([(b"R", "b;2"), (b"R", "c;3"), (b"N", "2 found")], True))
        self.stop_server(server)
        self.assertEqual(self.kept(), {"b": "2", "c": "3"})

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
        self.assertEqual(self.kept(), {**expected, **dict.fromkeys(scripts, "49")})

    def test_misbehaving_clients_harm_nobody(self):
        records = self.write("in", text_of(random_records(20000)))
        self.run_command(self.minidb("load", records))
        self.write("minidb.ini", "[server]\nworkers=1\nwait=100\n")
        server = self.start_server()
        good = self.connect()
        whole = request("count")
        for data in [os.urandom(200), b"\0" * 8, whole[:7], whole[:12], whole[:-1],
                     struct.pack("=ii", MARK, -1), struct.pack("=ii", MARK, 0),
                     struct.pack("=iiiii", MARK, 12, 1, 1, 500) + whole,
                     struct.pack("=iiiii", MARK, 16, 1, 1, -1) + b"abcd", request("get \0"),
                     request("find") * 3]:
            bad = self.connect()
            bad.socket.sendall(data)
            bad.socket.close()
            self.assertEqual(good.ask("count"), ([(b"R", "20000")], True), data[:20])
        deaf = self.connect()
        deaf.socket.sendall(request("find"))  # more than a socket holds, and never read
        self.assertEqual(good.ask("count")[0], [(b"R", "20000")])
        slow = self.connect()
        for byte in request("count"):
            slow.socket.sendall(bytes([byte]))
        self.assertEqual(slow.reply()[0], [(b"R", "20000")])
        eager = self.connect()
        eager.socket.sendall(request("count") * 20)
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
        self.assertEqual(self.kept(), {"a": "1", "b": "2"})

    def test_clients_beyond_the_descriptors_wait(self):
        server = self.start_server(preexec_fn=lambda: resource.setrlimit(
            resource.RLIMIT_NOFILE, (16, 16)))
        clients = [self.connect() for _ in range(30)]
        for client in clients:  # each one that leaves lets another in
            self.assertEqual(client.ask("count"), ([(b"R", "0")], True))
            client.socket.close()
        self.stop_server(server)

    def test_client_tells_what_is_wrong_with_the_server(self):
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(self.socket)
            listener.listen()
            for answer, message in [(b"", "does not answer"), (b"HTTP/1.1 400", "no minidb server"),
                                    (struct.pack("=i", MARK), "broke")]:
                client = subprocess.Popen(self.client("--wait", "100", "count"),
                                          stderr=subprocess.PIPE)
                connection = listener.accept()[0]
                connection.sendall(answer)
                if answer:
                    connection.shutdown(socket.SHUT_WR)
                self.assertIn(message, client.communicate(timeout=100)[1].decode())
                self.assertEqual(client.returncode, 1)
                connection.close()

    def test_in_the_background(self):
        command = [minidb_programs.PROGRAMS["minidb-server"], "--data", self.data, "--socket",
                   self.socket]
        self.assertIn("started successfully", self.run_command(command)[0])
        number = int(self.read("socket.pid"))
        self.addCleanup(lambda: self.end_process(number, signal.SIGKILL))
        self.run_command(self.client("put", "a", "1"))
        self.assertIn("in use", self.run_command(command, status=1)[1])
        command[2] = self.path("other")
        command += ["--log", self.path("other.log")]
        self.assertIn("in use", self.run_command(command, status=1)[1])
        self.assertEqual(self.run_command(self.client("get", "a"))[0], "a;1\n")
        os.kill(number, signal.SIGINT)
        while os.path.exists(self.data) and self.is_locked():
            time.sleep(0.01)
        self.assertFalse(os.path.exists(self.socket) or os.path.exists(self.path("socket.pid")))
        self.assertRegex(self.read("minidb-server.log"), "serving (.|\n)* ended")
        self.assertEqual(self.kept(), {"a": "1"})

    def is_locked(self):
        done = subprocess.run(self.minidb("count"), capture_output=True, cwd=self.folder)
        return b"in use" in done.stderr

    @staticmethod
    def end_process(number, how):
        try:
            os.kill(number, how)
        except ProcessLookupError:
            pass

    def test_killed_at_any_moment(self):
        """Whatever a client was told is committed is there, a transaction whole or not."""
        attempted, told = {}, {}
        for _ in range(12):
            server = self.start_server()
            threads = [threading.Thread(target=self.commit_until_killed, args=(name, attempted, told))
                       for name in "ab"]
            for thread in threads:
                thread.start()
            time.sleep(random.random() * 0.1)
            server.kill()
            server.wait()
            for thread in threads:
                thread.join()
            kept = self.kept()
            for name, number in attempted.items():
                found = int(kept.get(name, "-1"))
                self.assertIn(found, [told.get(name, -1), number], f"seed {SEED}")
                for twin in "xyz":
                    self.assertEqual(kept.get(name + twin, "-1"), str(found), f"seed {SEED}")
                told[name] = found
        print(f"seed {SEED}: {told} commits", file=sys.stderr)

    def commit_until_killed(self, name, attempted, told):
        client = Client(self.socket)
        try:
            for number in range(told.get(name, -1) + 1, 1000000):
                attempted[name] = number
                twins = "".join(f"put {name}{twin} {number};" for twin in "xyz")
                assert client.ask(f"begin; put {name} {number}; {twins} commit")[1]
                told[name] = number
                if number % 10 == 0:
                    client.ask("compact")
        except OSError:
            client.socket.close()


if __name__ == "__main__":
    minidb_programs.main(sys.argv)
