"""The bench instruments' simulator, and instruments written in a test: for tests of the commands that drive them."""
import contextlib
import itertools
import os
import pathlib
import pty
import socket
import threading
import tty

from kestrel_session import KESTREL, Process, Server, free_port

PROGRAM = str(pathlib.Path(KESTREL).parent / "sim_instruments")
numbers = itertools.count()


class Bench(Server):
    """A simulator of the four; its TCP ports are at an address that no other test uses."""

    def __init__(self, scratch, *options):
        self.clients = []
        for _ in range(5):
            number = os.getpid() + 250 * next(numbers)
            self.address = f"127.{1 + number % 250}.{1 + number // 250 % 250}.9"
            self.port = free_port()
            self.links = pathlib.Path(scratch) / "links"
            self.links.mkdir(parents=True, exist_ok=True)
            Process.__init__(self, scratch, f"-address={self.address}", f"-text={self.port}", f"-links={self.links}",
                             *options, program=PROGRAM)
            if self.listens():
                break
        else:
            raise AssertionError(self.stderr)
        self.text = self.client()

    def do(self, line):
        """A command that succeeds with a number."""
        *lines, result = self.text.lines(line)
        assert not [text for text in lines if text.startswith("!")], lines
        return float(result[2:])

    def seen(self, name):
        """The commands that an instrument got since the last time, line ends as escapes."""
        lines = [text[2:] for text in self.text.lines(f"wire seen '{name}'")[:-1]]
        self.do(f"wire forget '{name}'")
        return lines

    def line(self, name):
        """The keywords that open an instrument's serial line."""
        return f"port '{self.links / name}'"

    def tcp(self, name):
        return f"ip-addr '{self.address}' ip-port {self.do(f'wire port {name!r}'):.0f}"


def serial_line(answer):
    """A serial line at whose other end an instrument answers each command by a function; its name and its descriptor."""
    near, far = pty.openpty()
    tty.setraw(far)

    def run():
        said = b""
        while True:
            try:
                said += os.read(near, 100)
            except OSError:
                return
            while b"\r\n" in said:
                line, said = said.split(b"\r\n", 1)
                os.write(near, answer(line))

    threading.Thread(target=run, daemon=True).start()
    return os.ttyname(far), far


class Scripted:
    """An instrument over TCP that answers each command line by a function: bytes, or None to hang up."""

    def __init__(self, answer):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.where = f"ip-addr '127.0.0.1' ip-port {self.listener.getsockname()[1]}"
        self.answer, self.lines, self.connections = answer, [], []
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        while True:
            try:
                connection = self.listener.accept()[0]
            except OSError:
                return
            self.connections.append(connection)
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        with connection, connection.makefile("rb") as commands:
            for line in commands:
                self.lines.append(line)
                said = self.answer(line.rstrip(b"\n"))
                if said is None:
                    connection.shutdown(socket.SHUT_RDWR)
                    return
                if said:
                    connection.sendall(said)

    def say(self, data):
        self.connections[-1].sendall(data)

    def take(self):
        lines, self.lines = self.lines, []
        return lines

    def close(self):
        self.listener.close()
        for connection in self.connections:
            with contextlib.suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)
