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
        for attempt in range(5):
            number = os.getpid() + 250 * next(numbers)
            self.net = f"127.{1 + number % 250}.{1 + number // 250 % 250}."
            self.port = free_port()
            Process.__init__(self, scratch, f"-base={self.net}1", f"-text={self.port}", *options, program=PROGRAM)
            if self.listens():
                break
        else:
            raise AssertionError(self.stderr)
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


# The data link and time frames.

TIME_A, FIXED, FRAMES, NUM_TF, STATUS, TIME_STATUS = 2, 3, 8, 9, 32, 34
HIST_RUN, COUNTING, SCALERS_RUN = 1 << 28, 1 << 29, 1 << 31
RUN = HIST_RUN | COUNTING | SCALERS_RUN
SOFTWARE, SOFTWARE_FRAMES, TIMING_UNIT, INTERNAL = range(4)
SCALERS = 0x80000000
START, END, PADDED = 1 << 31, 1 << 30, 1 << 29
CLOCK = 80e6
SCOPE = 16


def pattern(card, chan, frame, first, count):
    """The words of a frame in pattern mode."""
    start = (card + 1) * 0x9E3779B1 + (chan + 1) * 0x85EBCA6B + (frame + 1) * 0xC2B2AE35
    return [(start + word * 0x27D4EB2F) & 0xFFFFFFFF for word in range(first, first + count)]


class Packet:
    def __init__(self, data):
        self.payload = data[:-8]
        self.frame, word = struct.unpack("<II", data[-8:])
        self.number, self.start, self.end, self.padded = word & 0xFFFFFFF, word >> 31 & 1, word >> 30 & 1, word >> 29 & 1

    def __repr__(self):
        return f"{self.frame}.{self.number}{'S' * self.start}{'E' * self.end}{'P' * self.padded}+{len(self.payload)}"


class Host:
    """A card's host: the control link, the data link set up as a host does it, one socket for each channel."""

    def __init__(self, program, index=0, protocol=2, channels=1, num_tf=20, local=False):
        self.program, self.link, self.local = program, program.link(protocol, index), local
        card, host = (socket.inet_aton(a) for a in (program.card(index), program.host(index)))
        port = (DATA_PORT & 255) << 8 | DATA_PORT >> 8
        half = [int.from_bytes(b, "little") for b in (host[:2], host[2:], card[:2], card[2:])]
        for register_number, value in [(4, 0xDB00001C), (6, 0xDEAD | half[0] << 16), (7, half[1] | half[2] << 16),
                                       (8, half[3] | port << 16), (9, 0x80000 | port), (12, 998), (15, 1)]:
            self.link.write(self.link.RDMA, register_number, [value])
        self.sockets = []
        for stream in range(channels + 1):  # scope data first
            s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
            s.bind((program.host(index), DATA_PORT + stream))
            s.connect((program.card(index), DATA_PORT))
            s.settimeout(WAIT)
            self.sockets.append(s)
        self.set(NUM_TF, num_tf)

    def close(self):
        self.link.sock.close()
        for s in self.sockets:
            s.close()

    def set(self, offset, value):
        if self.local:
            self.link.write(0, 4 * offset, [value])
        else:
            self.link.write(self.link.REGISTERS, global_register(self.link, offset), [value])

    def get(self, offset):
        if self.local:
            return self.link.read(0, 4 * offset, 1)[0]
        return self.link.read(self.link.REGISTERS, global_register(self.link, offset), 1)[0]

    def start(self, source, bits=RUN):
        self.link.write(self.link.RDMA, 16, [1])
        self.set(TIME_A, source | bits)

    def stop(self):
        if self.local:
            self.link.modify(0, 4 * TIME_A, 0x4FFFFFFF, 0)
        else:
            self.link.modify(self.link.REGISTERS, global_register(self.link, TIME_A), 0x4FFFFFFF, 0)

    def internal(self, frames, ticks):
        """Starts so many frames of the internal timing and waits for their end."""
        self.set(FIXED, ticks)
        self.set(FRAMES, frames)
        self.start(INTERNAL)
        kestrel_session.wait_until(lambda: self.get(TIME_STATUS) == frames, f"end of {frames} frames")
        self.stop()

    def packet(self, chan=0):
        return Packet(self.sockets[0 if chan == SCOPE else 1 + chan].recv(9001))

    def packets(self, chan=0, count=0):
        """All that has arrived, so many of them at least."""
        got = self.arrived(chan)
        kestrel_session.wait_until(lambda: len(got) >= count or got.extend(self.arrived(chan)), f"{count} packets")
        return got

    def arrived(self, chan):
        s = self.sockets[0 if chan == SCOPE else 1 + chan]
        got = []
        s.setblocking(False)
        try:
            while True:
                got.append(Packet(s.recv(9001)))
        except BlockingIOError:
            s.settimeout(WAIT)
            return got

    def scalers(self, time_frame, channels):
        words = self.link.read(self.link.MEMORY, SCALERS + 36 * channels * time_frame, 9 * channels)
        return [words[9 * c:9 * c + 9] for c in range(channels)]


def words(payload):
    return list(struct.unpack(f"<{len(payload) // 4}I", payload))
