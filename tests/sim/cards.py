"""The host's side of the wires of a processing card, written from the description of the wires alone."""
import itertools
import os
import pathlib
import socket
import struct

import kestrel_session
from kestrel_session import WAIT, KESTREL, Process, Server, free_port

PROGRAM = str(pathlib.Path(KESTREL).parent / "sim_card")
BASE_PORT = 30123
DATA_PORT = BASE_PORT + 1
MAGIC = 0xDEADBEEF
numbers = itertools.count()


class Program(Server):
    """A simulator whose cards live at addresses that no other test uses."""

    def __init__(self, scratch, *options):
        self.clients = []
        self.net = f"127.{1 + os.getpid() % 250}.{1 + next(numbers) % 250}."
        for attempt in range(5):
            self.port = free_port()
            Process.__init__(self, scratch, f"-base={self.net}1", f"-text={self.port}", *options, program=PROGRAM)
            if self.listens():
                break
        self.text = self.client()

    def do(self, line):
        """A command that succeeds with a number."""
        *lines, result = self.text.lines(line)
        assert not [text for text in lines if text.startswith("!")], lines
        assert result.startswith("* "), lines + [result]
        return float(result[2:]) if "." in result or "e" in result else int(result[2:])

    def control(self, index=0):
        return f"{self.net}{2 + index}"

    def host(self, index=0):
        return f"{self.net}{65 + 4 * index}"

    def card(self, index=0):
        return f"{self.net}{66 + 4 * index}"

    def link(self, protocol, index=0):
        return (Link1 if protocol == 1 else Link2)(self.control(index))


class Link:
    """A control connection; `exchange` is raw, the others check every byte of the answer."""

    def __init__(self, address, port):
        self.sock = socket.create_connection((address, port), WAIT)
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.sock.close()

    def recv(self, count):
        data = b""
        while len(data) < count:
            more = self.sock.recv(count - len(data))
            assert more, f"closed after {data!r}"
            data += more
        return data

    def closed(self):
        try:
            return self.sock.recv(1) == b""
        except ConnectionResetError:
            return True


class Link1(Link):
    """Generation 1. `bus` numbers: 1 EEPROM, 2 I2C, 3 registers, 4 RDMA, 5 SPI, 6 memory, 7 fan, 8 configuration."""
    LETTER = {1: "B", 2: "H", 3: "I"}

    def __init__(self, address):
        super().__init__(address, BASE_PORT)

    @staticmethod
    def request(command, bus, width, state, address, payload):
        return struct.pack(">IBBBBII", MAGIC, command, bus, width, state, address, len(payload)) + payload

    def exchange(self, command, bus, width, state, address, payload, answer):
        self.sock.sendall(self.request(command, bus, width, state, address, payload))
        return self.recv(answer)

    def refused(self, command, bus, width, state, address, payload):
        got = self.exchange(command, bus, width, state, address, payload, 20)
        return got == struct.pack(">IBBBBIII", MAGIC, command, bus, width, state | 0x40, address, 4, 0)

    def write(self, bus, address, values, width=3, command=1):
        payload = struct.pack(f">{len(values)}{self.LETTER[width]}", *values)
        got = self.exchange(command, bus, width, 2, address, payload, 20)
        assert got == struct.pack(">IBBBBIII", MAGIC, command, bus, width, 0x22, address, 4, len(values))

    def read(self, bus, address, count, width=3):
        letter = f"{count}{self.LETTER[width]}"
        size = 4 + struct.calcsize(">" + letter)
        got = self.exchange(1, bus, width, 1, address, struct.pack(">I", count), 16 + size)
        assert got[:20] == struct.pack(">IBBBBIII", MAGIC, 1, bus, width, 0x21, address, size, count)
        return list(struct.unpack(">" + letter, got[20:]))

    def modify(self, bus, address, mask, value):
        got = self.exchange(1, bus, 3, 3, address, struct.pack(">II", mask, value), 24)
        assert got[:20] == struct.pack(">IBBBBIII", MAGIC, 1, bus, 3, 0x23, address, 8, 1)
        return struct.unpack(">I", got[20:])[0]

    def order(self, code, mask, *arguments):
        self.write(0, code, [mask, *arguments], command=4)

    def question(self, code, mask, *arguments, words):
        payload = struct.pack(f">{1 + len(arguments)}I", mask, *arguments)
        got = self.exchange(4, 0, 3, 1, code, payload, 20 + 4 * words)
        assert got[:20] == struct.pack(">IBBBBIII", MAGIC, 4, 0, 3, 0x21, code, 4 + 4 * words, words)
        return list(struct.unpack(f">{words}I", got[20:]))

    REGISTERS, RDMA, MEMORY, REGISTER_BASE = 3, 4, 6, 0xA0000000


class Link2(Link):
    """Generation 2. `bus` numbers: 0 local, 1 registers, 2 RDMA, 17 I2C, 24 readout mode, 100 memory and so on."""
    LETTER = Link1.LETTER

    def __init__(self, address):
        super().__init__(address, BASE_PORT + 1)
        self.sequence = 7

    @staticmethod
    def header(sequence, command, bus, width, state, address, items, size, extra=b""):
        return struct.pack("<IIBBBBIII", MAGIC, sequence, command, bus, width, state, address, items,
                           size) + extra.ljust(12, b"\0")

    def exchange(self, request, answer):
        self.sock.sendall(request)
        return self.recv(answer)

    def ask(self, command, bus, address, items, size=0, data=b"", width=3, expect=0):
        """One transaction that is acknowledged; the data of its answer."""
        self.sequence += 1
        embedded = command in (3, 4, 5, 7)
        head = struct.pack("<IIBBBBII", MAGIC, self.sequence, command, bus, width, 0, address, items)
        tail = data.ljust(16, b"\0") if embedded else struct.pack("<I", size).ljust(16, b"\0")
        got = self.exchange(head + tail + (b"" if embedded else data), 36 + expect)
        assert got[:36] == self.header(self.sequence, command, bus, width, 0x20, address, items, expect)
        return got[36:]

    def refused(self, command, bus, address, items, size=0, data=b"", width=3):
        self.sequence += 1
        embedded = command in (3, 4, 5, 7)
        head = struct.pack("<IIBBBBII", MAGIC, self.sequence, command, bus, width, 0, address, items)
        tail = data.ljust(16, b"\0") if embedded else struct.pack("<I", size).ljust(16, b"\0")
        got = self.exchange(head + tail + (b"" if embedded else data), 36)
        return got == self.header(self.sequence, command, bus, width, 0x40, address, items, 0)

    def write(self, bus, address, values, width=3, command=2):
        data = struct.pack(f"<{len(values)}{self.LETTER[width]}", *values)
        embedded = len(data) <= 16
        self.ask(command + 1 if embedded else command, bus, address, len(values), len(data), data, width)

    def read(self, bus, address, count, width=3):
        letter = f"<{count}{self.LETTER[width]}"
        size = struct.calcsize(letter)
        return list(struct.unpack(letter, self.ask(1, bus, address, count, size, b"", width, size)))

    def modify(self, bus, address, mask, value):
        return struct.unpack("<I", self.ask(4, bus, address, 1, 0, struct.pack("<II", mask, value), 3, 4))[0]

    def zero(self, bus, address, words):
        self.ask(8, bus, address, words)

    def order(self, code, mask, *arguments):
        self.write(0, code, [mask, *arguments], command=6)

    def question(self, code, mask, *arguments, words):
        data = struct.pack(f"<{1 + len(arguments)}I", mask, *arguments)
        return list(struct.unpack(f"<{words}I", self.ask(5, 0, code, words, 0, data, 3, 4 * words)))

    REGISTERS, RDMA, MEMORY, REGISTER_BASE = 1, 2, 100, 0


def register(link, chan, region, offset):
    """The address of a channel's register on this link."""
    return link.REGISTER_BASE + 4 * (chan << 20 | region << 16 | offset)


def global_register(link, offset):
    return register(link, 15, 15, offset)
