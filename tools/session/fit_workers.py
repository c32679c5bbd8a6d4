"""A broker of one test on a socket of its own, and workers that fit for it."""
import pathlib
import shutil
import signal
import socket
import subprocess
import tempfile

from kestrel_session import KESTREL, WAIT, Process, wait_until

WORKER = str(pathlib.Path(KESTREL).parent / "kestrel-worker")


class Refused(Exception):
    """What the broker says instead of an answer."""


class Broker:
    """redis-server without files, at `site` for programs; do() is one command of a client of its own."""

    def __init__(self, prefix="t"):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="kb-"))
        self.socket = self.folder / "s"
        self.site = f"unix:{self.socket}#{prefix}"
        self.prefix = prefix
        self.process = None
        self.start()

    def start(self):
        self.process = subprocess.Popen(
            ["redis-server", "--port", "0", "--unixsocket", self.socket, "--save", "", "--appendonly", "no", "--dir", self.folder,
             "--logfile", self.folder / "log"], stdin=subprocess.DEVNULL)
        self.connection = None

        def answers():
            try:
                return self.do("PING") == "PONG"
            except OSError:
                return False
        wait_until(answers, "answer of redis-server")

    def kill(self):
        self.process.kill()
        self.process.wait(WAIT)

    def close(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGCONT)
            self.kill()
        if self.connection:
            self.connection[0].close()
            self.connection[1].close()
        shutil.rmtree(self.folder)

    def do(self, *words):
        if not self.connection:
            stream = socket.socket(socket.AF_UNIX)
            stream.settimeout(WAIT)
            try:
                stream.connect(str(self.socket))
            except OSError:
                stream.close()
                raise
            self.connection = stream, stream.makefile("rb")
        parts = [word if isinstance(word, bytes) else str(word).encode() for word in words]
        self.connection[0].sendall(b"*%d\r\n" % len(parts) + b"".join(b"$%d\r\n%s\r\n" % (len(p), p) for p in parts))
        return self._answer()

    def _answer(self):
        line = self.connection[1].readline()
        kind, text = line[:1], line[1:-2]
        if kind == b"+":
            return text.decode()
        if kind == b"-":
            raise Refused(text.decode())
        if kind == b":":
            return int(text)
        if int(text) < 0:
            return None
        if kind == b"$":
            return self.connection[1].read(int(text) + 2)[:-2]
        return [self._answer() for _ in range(int(text))]

    def keys(self):
        return sorted(key.decode() for key in self.do("KEYS", "*"))

    def fit_stream(self):
        """The stream of blocks, as soon as it is there."""
        return wait_until(lambda: next((key for key in self.keys() if ":fits:" in key and key[-1] != "s"), None), "stream of blocks")


class Worker(Process):
    def __init__(self, scratch, site):
        super().__init__(scratch, site, program=WORKER)
        self.wait_stdout("# Worker .* at ")

    def kill(self):
        self.process.kill()
        self.process.wait(WAIT)
