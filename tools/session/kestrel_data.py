"""Independent eyes on the server's data: modules mapped with numpy, a listening data port, counts of what is open."""
import contextlib
import glob
import os
import re
import socket
import threading

import numpy as np
from kestrel_session import WAIT

# The two headers as numpy sees them.
HEAD = np.dtype({"names": ["data_type", "disp_type", "num_x", "num_y", "version", "aspect", "x_label", "y_label",
                           "z_label", "title"],
                 "offsets": [0, 4, 8, 12, 16, 24, 32, 114, 196, 278],
                 "formats": ["i4", "i4", "u4", "u4", "i4", "f8", "S82", "S82", "S82", "S82"], "itemsize": 360})
HEAD3D = np.dtype({"names": ["data_type", "disp_type", "num_x", "num_y", "num_t", "version", "aspect", "x_label",
                             "y_label", "t_label", "z_label", "title", "labels_num", "labels_size", "data_offset"],
                   "offsets": [0, 4, 8, 12, 16, 20, 24, 32, 114, 196, 278, 360, 444, 448, 456],
                   "formats": ["i4", "i4", "u4", "u4", "u4", "i4", "f8", "S82", "S82", "S82", "S82", "S82", "i4", "i4",
                               "i4"], "itemsize": 464})
TYPES = {1: "u4", 2: "u2", 3: "f4", 4: "f8"}


class Module:
    """A module mapped by this process: `head` and `data` (t, y, x; or y, x)."""

    def __init__(self, name, mode="r+"):
        raw = np.memmap("/dev/shm/" + name, dtype="u1", mode=mode)
        self.raw = raw
        self.head = raw[:360].view(HEAD)[0]
        offset, shape = 360, (self.head["num_y"], self.head["num_x"])
        if self.head["disp_type"] >> 16 == 1:
            self.head = raw[:464].view(HEAD3D)[0]
            offset, shape = self.head["data_offset"], (self.head["num_t"], *shape)
        kind = np.dtype(TYPES[int(self.head["data_type"])])
        count = int(np.prod(shape, dtype="u8"))
        self.data = raw[offset:offset + count * kind.itemsize].view(kind).reshape(shape)

    def labels(self):
        """The labels of a 3-D module's frames."""
        starts = self.raw[464:464 + 4 * int(self.head["labels_num"])].view("i4")
        end = int(self.head["data_offset"])
        return [bytes(self.raw[start:end]).split(b"\0")[0].decode() for start in starts]

    def frames(self):
        """Label -> frame."""
        return dict(zip(self.labels(), self.data, strict=True))


class Names:
    """Module names of one test, unlike any other's; the objects go with the test."""

    def __init__(self):
        self.prefix = f"kt_{os.getpid()}_"

    def __call__(self, name):
        return self.prefix + name

    def remove(self):
        for path in glob.glob(f"/dev/shm/{self.prefix}*"):
            os.unlink(path)


class DataPort:
    """A client's data port: takes what the server sends on a second connection."""

    def __init__(self, client):
        self.listener = socket.socket()
        self.listener.bind(("127.0.0.1", 0))
        self.listener.listen(1)
        self.listener.settimeout(WAIT)
        assert client.lines(f"port {self.listener.getsockname()[1]}") == ["* 0"]

    def take(self, client, line):
        """Runs the line; the bytes that came until the server closed, and the reply."""
        received = bytearray()

        def receive():
            connection = self.listener.accept()[0]
            with connection:
                while block := connection.recv(1 << 20):
                    received.extend(block)

        thread = threading.Thread(target=receive)
        thread.start()
        reply = client.lines(line)
        thread.join(WAIT)
        assert not thread.is_alive()
        return bytes(received), reply

    def close(self):
        self.listener.close()


def result(client, line):
    """The integer result of a command, and its other lines."""
    *lines, last = client.lines(line)
    found = re.fullmatch(r"\* (\$|#|)(-?[0-9a-f]+)", last)
    assert found, (lines, last)
    return int(found[2], {"": 10, "$": 16, "#": 2}[found[1]]), lines


def do(client, line):
    """Runs a command that must work; returns its result."""
    value, lines = result(client, line)
    assert value >= 0, (line, lines)
    return value


def refused(client, line):
    """Runs a command that must fail; its "!" lines."""
    value, lines = result(client, line)
    assert value == -1, (line, lines)
    return [text for text in lines if text.startswith("!")]


def threads(server):
    """How many threads the server has, without those that are ending: who joins one may see it for a moment more."""
    ending, count = 0x4, 0
    for task in glob.glob(f"/proc/{server.process.pid}/task/*/stat"):
        with contextlib.suppress(OSError), open(task) as stat:
            count += not int(stat.read().rpartition(") ")[2].split()[6]) & ending
    return count


def held(server):
    """What the server process holds: descriptors, and mappings of shared memory."""
    pid = server.process.pid
    maps = [line for line in open(f"/proc/{pid}/maps") if "/dev/shm/" in line]
    return len(os.listdir(f"/proc/{pid}/fd")), len(maps)
