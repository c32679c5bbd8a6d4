"""A private broker for a test, and the programs that talk to it."""
import pathlib
import signal
import socket
import subprocess
import threading
import time

from kestrel_session import KESTREL, WAIT, Server, wait_until

BUILD = pathlib.Path(KESTREL).parent


class BrokerError(Exception):
    pass


class Connection:
    """Commands and replies, as bytes, numbers, lists and None."""

    def __init__(self, path):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(WAIT)
        self.sock.connect(str(path))
        self.file = self.sock.makefile("rb")

    def __call__(self, *words):
        words = [w if isinstance(w, bytes) else str(w).encode() for w in words]
        self.sock.sendall(b"*%d\r\n" % len(words) + b"".join(b"$%d\r\n%b\r\n" % (len(w), w) for w in words))
        reply = self._reply()
        if isinstance(reply, BrokerError):
            raise reply
        return reply

    def _reply(self):
        line = self.file.readline()
        if not line.endswith(b"\r\n"):
            raise ConnectionError("the broker has gone")
        kind, rest = line[:1], line[1:-2]
        if kind == b"+":
            return rest
        if kind == b"-":
            return BrokerError(rest.decode())
        if kind == b":":
            return int(rest)
        count = int(rest)
        if count < 0:
            return None
        if kind == b"*":
            return [self._reply() for _ in range(count)]
        return self.file.read(count + 2)[:-2]

    def close(self):
        self.file.close()
        self.sock.close()


class Broker:
    """A redis-server on a socket in a folder, without a port and a file."""

    def __init__(self, folder, *options):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.socket = self.folder / "redis.sock"
        self.site = f"unix:{self.socket}"
        self.options = options
        self.start()

    def start(self):
        with open(self.folder / "log", "ab") as log:
            self.process = subprocess.Popen(
                ["redis-server", "--port", "0", "--unixsocket", self.socket, "--save", "", "--appendonly", "no",
                 "--dir", self.folder, "--maxmemory-policy", "noeviction", *self.options], stdout=log, stderr=log)
        self.connection = None
        wait_until(self._answers, "broker")

    def _answers(self):
        try:
            return self("PING") == b"PONG"
        except (OSError, BrokerError):
            self.connection = None
            return False

    def __call__(self, *words):
        if not self.connection:
            self.connection = Connection(self.socket)
        return self.connection(*words)

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.connection = None

    def restart(self):
        self.kill()
        self.socket.unlink(missing_ok=True)
        self.start()

    def freeze(self, seconds):
        self.process.send_signal(signal.SIGSTOP)
        time.sleep(seconds)
        self.process.send_signal(signal.SIGCONT)

    def close(self):
        self.process.send_signal(signal.SIGCONT)
        self.kill()

    # ---- what stands there

    def fields(self, key):
        words = self("HGETALL", key)
        return {name.decode(): value.decode(errors="replace") for name, value in zip(words[::2], words[1::2])}

    def entries(self, key):
        """[(id, {field: bytes})]"""
        return [(i.decode(), {n.decode(): v for n, v in zip(f[::2], f[1::2])}) for i, f in self("XRANGE", key, "-", "+")]

    def runs(self):
        """Ids of the runs, in order."""
        return list(dict.fromkeys(f["run"].decode() for _, f in self.entries("kestrel:runs")))

    def meta(self, run):
        return self.fields(f"kestrel:{run}:meta")


class Publisher(Server):
    def __init__(self, scratch, *options, **how):
        super().__init__(scratch, *options, program=str(BUILD / "kestrel-publish"), **how)


class Follower(Server):
    def __init__(self, scratch, *options, **how):
        super().__init__(scratch, *options, program=str(BUILD / "kestrel-follow"), **how)


class Proxy:
    """Stands between a program and the broker, and cuts connections: each after so many bytes from the program, or of the
    broker's answers, by an end or a reset."""

    def __init__(self, folder, target):
        self.path = pathlib.Path(folder) / "proxy.sock"
        self.site = f"unix:{self.path}"
        self.target, self.cuts, self.made = str(target), [], 0
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(str(self.path))
        self.listener.listen()
        threading.Thread(target=self._accept, daemon=True).start()

    def cut_next(self, *cuts):
        """(bytes up, bytes down) of each of the next connections; None: as many as there are."""
        self.cuts = list(cuts)

    def _accept(self):
        while True:
            try:
                near, _ = self.listener.accept()
                far = socket.socket(socket.AF_UNIX)
                far.connect(self.target)
            except OSError:
                return
            self.made += 1
            up, down = self.cuts.pop(0) if self.cuts else (None, None)
            for a, b, most in (near, far, up), (far, near, down):
                threading.Thread(target=self._pass, args=(a, b, most), daemon=True).start()

    @staticmethod
    def _pass(a, b, most):
        passed = 0
        try:
            while most is None or passed < most:
                data = a.recv(65536 if most is None else min(65536, most - passed))
                if not data:
                    break
                b.sendall(data)
                passed += len(data)
        except OSError:
            pass
        for end in a, b:
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def close(self):
        self.listener.close()
