"""Drives the real server: its process, sessions over TCP and telnet, its terminal.

Every wait ends in a time-out that fails the test; KESTREL_TIME_SCALE stretches them for slow builds.
"""
import atexit
import contextlib
import errno
import fcntl
import os
import pathlib
import pty
import random
import re
import resource
import select
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import termios
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
KESTREL = os.environ.get("KESTREL", str(ROOT / "build" / "kestrel"))
SCALE = float(os.environ.get("KESTREL_TIME_SCALE", "1"))
WAIT = 20 * SCALE  # seconds before a missing reply is a failure

PROMPT = b"> "

# Control sockets of what this process starts, also of what it kills, go with it.
os.environ["XDG_RUNTIME_DIR"] = tempfile.mkdtemp(prefix="kestrel-")
atexit.register(shutil.rmtree, os.environ["XDG_RUNTIME_DIR"], ignore_errors=True)


def free_port():
    """A port that nobody has, and that no connection of another process gets: the system's own choice ends at once."""
    while True:
        port = random.randrange(10000, 20000)
        with socket.socket() as s, contextlib.suppress(OSError):
            s.bind(("", port))
            return port


def wait_until(condition, what, seconds=WAIT):
    """Polls until the condition gives something true, and returns that."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < end, f"no {what} within {seconds:g} s"
        time.sleep(0.005)


# What the program says of its links to other servers before anything else, without a configuration file.
SUB_SERVERS = ("Sub-server configuration file not in:\n    kestrel.clients.ini\n    /etc/kestrel.clients.ini\n"
               "Loading default configuration instead.\n")


def far_end(sock):
    """What the kernel says of the other end of a connection within this machine: the columns of /proc/net/tcp."""
    ends = []
    for host, port in sock.getpeername(), sock.getsockname():  # another connection may have the same port here, and another there
        ends.append(f"{int.from_bytes(socket.inet_aton(host), 'little'):08X}:{port:04X}")
    with open("/proc/net/tcp", encoding="ascii") as table:
        (row,) = (line.split() for line in table if line.split()[1:3] == ends)
    return row


def wait_until_taken(sock):
    """Waits until the other end has read all that was sent: first until it is there."""
    unsent = lambda: struct.unpack("i", fcntl.ioctl(sock, termios.TIOCOUTQ, bytes(4)))[0]
    wait_until(lambda: not unsent() and far_end(sock)[4].endswith(":00000000"), "reading of what was sent")


def living_members(group):
    """The names of a process group's programs, without those that have ended and that nobody has asked for."""
    names = []
    for stat in pathlib.Path("/proc").glob("[0-9]*/stat"):
        with contextlib.suppress(OSError):
            name, _, rest = stat.read_text().partition(" (")[2].rpartition(") ")
            state, _, its_group = rest.split()[:3]
            names += [name] if int(its_group) == group and state not in "ZX" else []
    return names


class Process:
    """A run of the program in a scratch folder, its standard output and error kept in files beside it."""

    def __init__(self, scratch, *options, env=None, stdin=subprocess.DEVNULL, stdout=None, files=None,
                 program=None):
        scratch = pathlib.Path(scratch)
        self.cwd = scratch / "cwd"
        self.cwd.mkdir(parents=True, exist_ok=True)
        self._paths = scratch / "stdout", scratch / "stderr"
        environment = {k: v for k, v in os.environ.items() if k not in ("DATA_DIR", "KESTRELPATH")}
        environment.update(env or {})

        def prepare():
            for number in signal.SIGINT, signal.SIGQUIT:  # a shell's background job ignores them
                signal.signal(number, signal.SIG_DFL)
            if stdin == stdout:  # a terminal: it is the one that ^C is typed at
                os.setsid()
                fcntl.ioctl(0, termios.TIOCSCTTY, 0)
            if files:
                resource.setrlimit(resource.RLIMIT_NOFILE, (files, resource.getrlimit(resource.RLIMIT_NOFILE)[1]))

        with open(self._paths[0], "wb") as out, open(self._paths[1], "wb") as err:
            self.process = subprocess.Popen([program or KESTREL, *options], cwd=self.cwd, env=environment, stdin=stdin,
                                            stdout=stdout or out, stderr=err, preexec_fn=prepare)

    @property
    def stdout(self):
        return self._paths[0].read_bytes().decode(errors="replace")

    @property
    def stderr(self):
        return self._paths[1].read_bytes().decode(errors="replace")

    def write(self, name, text):
        """A file in the server's folder, a script for example; the text may be given as a list of lines."""
        path = self.cwd / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text if isinstance(text, str) else "".join(line + "\n" for line in text))
        return path

    def alive(self):
        return self.process.poll() is None

    def wait_stdout(self, pattern):
        """Waits for a match in the standard output and returns it."""
        def look():
            found = re.search(pattern, self.stdout)
            assert found or self.alive(), f"ended with {self.process.returncode}: {self.stdout}{self.stderr}"
            return found
        return wait_until(look, f"{pattern!r} on standard output")

    def interrupt(self):
        """^C. It has been counted when this returns: two of them are two."""
        self.process.send_signal(signal.SIGINT)
        wait_until(lambda: not self._interrupt_waits(), "notice of the interrupt")

    def _interrupt_waits(self):
        sets = []
        with contextlib.suppress(OSError):  # it may end by it
            for status in pathlib.Path(f"/proc/{self.process.pid}/task").glob("*/status"):
                sets += re.findall(r"^(?:SigPnd|ShdPnd):\s*(\w+)$", status.read_text(), re.MULTILINE)
        return any(int(pending, 16) & 1 << signal.SIGINT - 1 for pending in sets)

    def wait_exit(self):
        """Waits for the end and returns the exit status."""
        return self.process.wait(WAIT)

    def check_reports(self):
        reports = re.findall(r".*(?:Sanitizer|runtime error).*", self.stderr)
        assert not reports, self.stderr

    def close(self):
        """Ends the process, and fails if it crashed or a sanitizer complained."""
        if self.alive():
            try:
                self.stop()
                self.process.wait(WAIT)
            except (subprocess.TimeoutExpired, AssertionError, OSError) as why:
                self.process.kill()
                self.process.wait()
                self.check_reports()
                raise AssertionError("the server did not stop: " + self.stderr) from why
            assert self.process.returncode == 0, f"ended with {self.process.returncode}: {self.stderr}"
        assert self.process.returncode >= 0, f"killed by signal {-self.process.returncode}: {self.stderr}"
        self.check_reports()

    def stop(self):
        self.process.terminate()


class Server(Process):
    """The server in network mode, listening on `port`."""

    def __init__(self, scratch, *options, port=None, **how):
        self.clients = []
        for attempt in range(5):
            self.port = port or free_port()
            super().__init__(scratch, f"-port={self.port}", *options, **how)
            if "-detach" in options or self.listens():
                return
            # Another program took the free port between the asking and the using.
            assert port is None and self.wait_exit() == errno.EADDRINUSE, self.stdout + self.stderr
        raise AssertionError("no free port")

    def listens(self):
        """Waits for the line that says so; false when the program ended instead."""
        line = re.compile(f"Listening for connections on port {self.port}\\.\n")
        return wait_until(lambda: line.search(self.stdout) and "yes" or not self.alive() and "no",
                          "line that the server listens") == "yes"

    def client(self, kind=None, **how):
        """A new session, past its first prompt."""
        self.clients.append((kind or Client)(self.port, **how))
        return self.clients[-1]

    def wait_until_busy(self):
        """Waits until a session's line runs: from then on an interrupt is meant for it."""
        status = [pathlib.Path(KESTREL).parent / "kestrelctl", f"-port={self.port}", "status"]
        wait_until(lambda: b"\nrunning session " in subprocess.run(status, capture_output=True, check=False).stdout,
                   "running line")

    def stop(self):
        for client in self.clients:
            client.close()
        self.clients.clear()
        last = Client(self.port)
        last.send("shutdown\n")
        last.close()


class Stream:
    """Bytes both ways, with what has come and was not yet taken in `buffer`."""

    buffer = b""

    def _take(self, count):
        taken, self.buffer = self.buffer[:count], self.buffer[count:]
        return taken

    def _fill(self, end):
        """Waits for more bytes; false at the end of the stream."""
        left = end - time.monotonic()
        assert left > 0 and select.select([self], [], [], left)[0], f"only {self.buffer!r} came"
        data = self._read()
        self.buffer += data
        return bool(data)

    def recv_match(self, pattern, seconds=None):
        """The bytes up to the end of the first match of a regular expression."""
        end = time.monotonic() + (seconds or WAIT)
        matcher, seen = re.compile(pattern, re.DOTALL), 0
        while True:
            found = matcher.search(self.buffer, max(seen - 4096, 0))
            if found:
                return self._take(found.end())
            seen = len(self.buffer)
            assert self._fill(end), f"closed after {self.buffer!r}"

    def recv_until(self, text, seconds=None):
        return self.recv_match(re.escape(text.encode() if isinstance(text, str) else text), seconds)

    def recv_prompt(self, seconds=None):
        """The reply before the next prompt."""
        return self.recv_match(rb"(?:^|(?<=\r\n))> ", seconds)[: -len(PROMPT)]

    def expect_closed(self):
        """The rest of the stream, which must end."""
        end = time.monotonic() + WAIT
        try:
            while self._fill(end):
                pass
        except ConnectionResetError:
            pass
        return self._take(len(self.buffer))

    def expect_silence(self, seconds=0.3):
        """Nothing comes for a while."""
        assert not self.buffer and not select.select([self], [], [], seconds)[0], self.buffer

    def send(self, data):
        self._write(data.encode("latin-1") if isinstance(data, str) else data)

    def cmd(self, line, seconds=None):
        """Sends a line; the bytes of the reply before the next prompt."""
        self.send(line + "\n")
        return self.recv_prompt(seconds)

    def lines(self, line, seconds=None):
        """The same, as the lines of the reply, each of which must have ended in CR LF."""
        return reply_lines(self.cmd(line, seconds))

    def errors(self, line):
        """The lines of a reply without the caret's line: for errors whose place is of no interest."""
        return [text for text in self.lines(line) if not re.fullmatch("# *\\^", text)]


def reply_lines(reply):
    lines = reply.decode("latin-1").split("\r\n")
    assert lines.pop() == "", f"the reply does not end in CR LF: {reply!r}"
    assert not any("\n" in line or "\r" in line for line in lines), reply
    return lines


class Client(Stream):
    """A plain session over TCP."""

    def __init__(self, port, prompt=True, receive_buffer=None):
        self.sock = socket.socket()
        if receive_buffer:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.sock.settimeout(WAIT)
        self.sock.connect(("127.0.0.1", port))
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if prompt:
            assert self.recv_prompt() == b""

    def fileno(self):
        return self.sock.fileno()

    def _read(self):
        return self.sock.recv(65536)

    def _write(self, data):
        self.sock.sendall(data)

    def reset(self):
        """Vanishes: the server's next send or read meets a reset connection."""
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.sock.close()

    def close(self):
        self.sock.close()


IAC, DONT, DO, WONT, WILL, SB, SE = 255, 254, 253, 252, 251, 250, 240
NAWS = 31


class Telnet(Client):
    """A telnet client: takes the negotiation out of what comes and draws the rest on a screen."""

    def __init__(self, port, cols=80):
        self.options = []  # (command, option) as the server sent them
        self.screen = Screen(cols)
        self.raw = b""  # an unfinished telnet command
        super().__init__(port)
        self.send(bytes([IAC, WILL, NAWS]))

    def window(self, width, height=24, screen=True):
        size = struct.pack(">HH", width, height).replace(b"\xff", b"\xff\xff")
        self.send(bytes([IAC, SB, NAWS]) + size + bytes([IAC, SE]))
        if screen:
            self.screen.cols = width

    def _read(self):
        data = self.sock.recv(65536)
        self.raw += data
        plain = bytearray()
        while self.raw:
            if self.raw[0] != IAC:
                plain.append(self.raw[0])
                self.raw = self.raw[1:]
            elif len(self.raw) >= 3:
                self.options.append((self.raw[1], self.raw[2]))
                self.raw = self.raw[3:]
            else:
                break
        for query in self.screen.feed(bytes(plain)):
            self._write(query)
        self.buffer += bytes(plain)
        return data

    def _fill(self, end):
        left = end - time.monotonic()
        assert left > 0 and select.select([self], [], [], left)[0], f"only {self.buffer!r} came\n{self.screen}"
        return bool(self._read())

    def expect_screen(self, rows, cursor=None, bells=0):
        """Waits until the last rows of the screen read like this, with the cursor (row among these, column)."""
        end = time.monotonic() + WAIT
        while True:
            shown = self.screen.rows()
            first = len(shown) - len(rows)
            place = (self.screen.row - first, self.screen.col)
            if shown[max(first, 0):] == rows and cursor in (None, place) and self.screen.bells >= bells:
                assert not bells or self.screen.bells == bells
                return
            left = end - time.monotonic()
            assert left > 0 and select.select([self], [], [], left)[0], (
                f"wanted {rows}, the cursor at {cursor}, {bells} bells; it is at {place} of\n{self.screen}")
            assert self._read(), f"closed at\n{self.screen}"


class Screen:
    """What a terminal of `cols` columns shows: enough of its escape sequences to judge a line editor."""

    def __init__(self, cols):
        self.cols, self.row, self.col, self.bells = cols, 0, 0, 0
        self.wrap = False  # the last column is written, the next character goes to the next row
        self.cells = [[]]
        self._rest = b""

    def rows(self):
        """The rows, blanks at their ends cut, and empty rows at the bottom left out unless the cursor is there."""
        shown = ["".join(row).rstrip() for row in self.cells]
        while len(shown) > self.row + 1 and not shown[-1]:
            shown.pop()
        return shown

    def __str__(self):
        return "\n".join(f"|{row}" for row in self.rows())

    def feed(self, data):
        """Draws the bytes; returns the terminal's answers to cursor queries."""
        answers = []
        self._rest += data
        while self._rest:
            escape = re.match(rb"\x1b(?:\[([0-9;]*)([A-Za-z])|[^\[])", self._rest)
            if escape:
                self._rest = self._rest[escape.end():]
                if escape[2] == b"n":
                    answers.append(b"\x1b[%d;%dR" % (self.row + 1, self.col + 1))
                elif escape[2]:
                    self._escape(escape[1], escape[2])
            elif self._rest[0] == 27:
                break  # the rest of the sequence is still to come
            else:
                self._put(self._rest[0])
                self._rest = self._rest[1:]
        return answers

    def _goto(self, row, col):
        self.row, self.col, self.wrap = max(row, 0), min(max(col, 0), self.cols - 1), False
        while len(self.cells) <= self.row:
            self.cells.append([])

    def _put(self, byte):
        if byte == 7:
            self.bells += 1
        elif byte == 8:
            self._goto(self.row, self.col - 1)
        elif byte == 10:
            self._goto(self.row + 1, self.col)
        elif byte == 13:
            self._goto(self.row, 0)
        elif byte >= 32:
            if self.wrap:
                self._goto(self.row + 1, 0)
            row = self.cells[self.row]
            row.extend(" " * (self.col + 1 - len(row)))
            row[self.col] = chr(byte)
            self.wrap = self.col == self.cols - 1
            self.col = min(self.col + 1, self.cols - 1)

    def _escape(self, text, letter):
        numbers = [int(n or 0) for n in text.split(b";")]
        count = max(numbers[0], 1)
        if letter in b"ABCD":
            down, right = {b"A": (-1, 0), b"B": (1, 0), b"C": (0, 1), b"D": (0, -1)}[letter]
            self._goto(self.row + count * down, self.col + count * right)
        elif letter == b"G":
            self._goto(self.row, count - 1)
        elif letter == b"H":
            self._goto(count - 1, (numbers[1] if len(numbers) > 1 else 1) - 1)
        elif letter == b"K":
            assert numbers[0] == 0
            del self.cells[self.row][self.col:]
        elif letter == b"J":
            if numbers[0] == 2:
                self.cells = [[] for _ in range(self.row + 1)]
            else:
                del self.cells[self.row][self.col:], self.cells[self.row + 1:]
        else:
            raise AssertionError(f"unknown escape sequence [{text!r}{letter!r}")


class Terminal(Stream, Process):
    """The server in direct mode on a terminal of its own."""

    def __init__(self, scratch, *options, cols=80, env=None, program=None):
        self.master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, cols, 0, 0))
        Process.__init__(self, scratch, *options, env={"TERM": "vt100", **(env or {})}, stdin=slave,
                         stdout=slave, program=program)
        os.close(slave)

    def fileno(self):
        return self.master

    def _read(self):
        try:
            return os.read(self.master, 65536)
        except OSError:  # EIO: the other end is closed
            return b""

    def _write(self, data):
        os.write(self.master, data)

    def wait_editing(self):
        """Waits until keys reach the line editor: a ^D before that would be the terminal driver's."""
        wait_until(lambda: not termios.tcgetattr(self.master)[3] & termios.ICANON, "line editing")

    def stop(self):
        self.send(b"\x15quit\n")
        self.expect_closed()  # what it still prints must be read, or the terminal holds it

    def close(self):
        super().close()
        os.close(self.master)
