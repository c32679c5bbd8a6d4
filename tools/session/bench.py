"""The bench instruments' simulator, and instruments written in a test: for tests of the commands that drive them."""
import contextlib
import itertools
import os
import pathlib
import pty
import select
import socket
import threading
import tty

from kestrel_session import KESTREL, Process, Server, far_end, free_port, wait_until

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

    def heard(self, name):
        """The commands that an instrument got since `seen`, line ends as escapes."""
        return [text[2:] for text in self.text.lines(f"wire seen '{name}'")[:-1]]

    def seen(self, name):
        """The same for the last time: when nothing is on its way."""
        lines = self.heard(name)
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


ESTABLISHED = "01"


def column(connection, number):
    """What the kernel says of the server's end, as of one with nothing to send when that is gone."""
    try:
        return far_end(connection)[number]
    except ValueError:
        return "00000000:"


class Scripted:
    """An instrument over TCP that answers each command line by a function: bytes, or None to hang up."""

    def __init__(self, answer):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.where = f"ip-addr '127.0.0.1' ip-port {self.listener.getsockname()[1]}"
        self.answer, self.lines, self.connections = answer, [], []
        self.at_work = threading.Lock()
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        with contextlib.suppress(OSError, ValueError):  # until it is closed
            while select.select([self.listener], [], [])[0]:
                with self.at_work:
                    connection = self.listener.accept()[0]
                    self.connections.append(connection)
                threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        begun, talking = b"", True
        while talking:
            select.select([connection], [], [])
            with self.at_work:
                begun, talking = self._hear(connection, begun)
                if not talking:
                    self.connections.remove(connection)
                    connection.close()

    def _hear(self, connection, begun):
        """Answers the lines that have come; what has come of the next one, and whether there may be one."""
        try:
            data = connection.recv(65536)
            *lines, begun = (begun + data).split(b"\n")
            return begun, data != b"" and all(self._reply(connection, line) for line in lines)
        except OSError:
            return b"", False

    def _reply(self, connection, line):
        self.lines.append(line + b"\n")
        said = self.answer(line)
        if said:
            connection.sendall(said)
        return said is not None

    def _has_heard_all(self):
        """No byte is on its way, of those that were sent before."""
        with self.at_work:
            unsent = [column(connection, 4).startswith("00000000:") for connection in self.connections].count(False)
            return not unsent and not select.select([self.listener, *self.connections], [], [], 0)[0]

    def say(self, data):
        self.connections[-1].sendall(data)

    def take(self):
        """The commands since the last time, also those without an answer, which the server does not wait for."""
        wait_until(self._has_heard_all, "reading of all commands")
        lines, self.lines = self.lines, []
        return lines

    def close(self):
        """Hangs up; the server can know of it."""
        self.listener.close()
        for connection in [*self.connections]:
            with contextlib.suppress(OSError):
                connection.shutdown(socket.SHUT_RDWR)
                wait_until(lambda: column(connection, 3) != ESTABLISHED, "news of the end")
