"""A server that drives a timing unit, as the link sees it: it notes every line and answers what a test tells it to."""
import contextlib
import re
import socket
import struct
import threading


class KairoPeer:
    """Answers "* 0" but for `answers` (a line or its first words: the reply, or None to vanish). `times` are the rows of
    its kairo_times, of `kind`; `lines` is what it was sent but for the questions about that module."""

    def __init__(self, times=None, num_tf=0, answers=None, kind=4):
        self.times, self.kind, self.num_tf = times, kind, num_tf
        self.answers, self.lines, self.closed = answers or {}, [], 0
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        with contextlib.suppress(OSError):
            while True:
                connection = self.listener.accept()[0]
                threading.Thread(target=self.serve, args=(connection,), daemon=True).start()

    def stop(self):
        self.listener.close()

    def serve(self, connection):
        port = 0
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        with connection, connection.makefile("rb") as received, contextlib.suppress(OSError):
            while True:
                connection.sendall(b"> ")
                line = received.readline().decode().rstrip("\r\n")
                if not line or line == "quit":
                    return
                if line.startswith("port "):
                    port = int(line[5:])
                    reply = "* 0"
                else:
                    reply = self.reply(line, received, port)
                if reply is None:
                    return
                connection.sendall(reply.replace("\n", "\r\n").encode() + b"\r\n")

    def reply(self, line, received, port):
        about_times = re.match(r"module (open|close)|unif-get|read \d", line)
        if not about_times:
            self.lines.append(line)
        for start in (line, *(" ".join(line.split()[:n]) for n in (3, 2, 1))):
            if start in self.answers:
                return self.answers[start]
        if about_times:
            return self.times_reply(line, port)
        if line == "%num_tf":
            return f"* {self.num_tf}"
        if line.startswith("kairo setup-groups"):
            return self.take_groups(received)
        return "* 0"

    def times_reply(self, line, port):
        if self.times is None:
            return "! no such module\n* -1"
        if line.startswith("module close"):
            self.closed += 1
        if line.startswith("read "):
            with socket.create_connection(("127.0.0.1", port)) as data:
                data.sendall(b"".join(struct.pack(f"<{len(row)}f", *row) for row in self.times))
        answers = {"unif-get-nx": len(self.times[0]), "unif-get-ny": len(self.times), "unif-get-type": self.kind}
        return f"* {answers.get(line.split()[0], 0)}"

    def take_groups(self, received):
        frames = 0
        while True:
            line = received.readline().decode().rstrip("\r\n")
            self.lines.append(line)
            if not line or int(line.split()[0]) < 0:
                return f"* {frames}"
            frames += int(line.split()[0])
