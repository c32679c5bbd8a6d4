"""The mini model of the card simulator: passive readout over the control link, active readout as a stream of messages."""
import socket
import struct

import pytest
from cards import BASE_PORT, SCALERS, Host, pattern, words
from kestrel_session import WAIT, wait_until

SCALARS, HISTOGRAMS, EVENTS, PASSIVE = 1, 2, 4, 256


class Readout:
    def __init__(self, program, mode):
        self.sock = socket.create_connection((program.control(), BASE_PORT + 2), WAIT)
        self.sock.sendall(struct.pack("<I", mode))
        wait_until(lambda: program.do("card peek 0 0 readout-mode") == mode, "mode")

    def recv(self, count):
        data = b""
        while len(data) < count:
            more = self.sock.recv(count - len(data))
            assert more
            data += more
        return data

    def message(self):
        magic, kind, chan, time_frame, size, sequence = struct.unpack("<6I", self.recv(24))
        assert magic == 0x334D4C50
        return kind, chan, time_frame, sequence, self.recv(size)


@pytest.fixture
def mini(play):
    program = play("-kind=3mini", "-speed=100")
    host = Host(program)
    yield host
    host.close()


def test_passive_readout_reads_the_memory(mini):
    mini.program.do("events kind pattern")
    mini.link.write(24, 0, [PASSIVE])
    mini.internal(2, 8000)
    for chan in range(2):
        assert mini.link.read(6, 4 * (chan * 20 + 1) * 4096, 4096) == pattern(0, chan, 1, 0, 4096)
        assert mini.scalers(1, 2)[chan] == pattern(0, chan, 1, 1 << 24, 9)
    assert mini.packets() == []  # nothing over UDP


def test_frames_and_scalers_are_streamed(mini):
    mini.program.do("events kind pattern")
    readout = Readout(mini.program, SCALARS | HISTOGRAMS)
    mini.internal(3, 8000)
    for time_frame in range(3):
        for chan in range(2):
            kind, got_chan, got_frame, sequence, payload = readout.message()
            assert (kind, got_chan, got_frame, sequence) == (HISTOGRAMS, chan, time_frame, 3 * time_frame + chan)
            assert words(payload) == pattern(0, chan, time_frame, 0, 4096)
        kind, got_chan, got_frame, sequence, payload = readout.message()
        assert (kind, got_chan, got_frame, sequence) == (SCALARS, 0xFFFFFFFF, time_frame, 3 * time_frame + 2)
        assert words(payload) == pattern(0, 0, time_frame, 1 << 24, 9) + pattern(0, 1, time_frame, 1 << 24, 9)


def test_events_make_the_histogram_of_the_card(mini):
    mini.program.do("events set 0 1 rate 0.0")  # a channel without events: its frame is an empty message
    mini.link.write(1, 4 * 28, [12 | 1 << 8])
    mini.link.write(1, 4 * (1 << 20 | 28), [12 | 1 << 8])
    readout = Readout(mini.program, SCALARS | EVENTS)
    ticks = 80_000_00 * 4
    mini.internal(1, ticks)
    events, messages = [], 0
    while True:
        kind, chan, time_frame, sequence, payload = readout.message()
        assert sequence == messages and time_frame == 0
        messages += 1
        if (kind, chan) != (EVENTS, 0):
            break
        assert len(payload) <= 8 * 8192
        events += struct.unpack(f"<{len(payload) // 8}Q", payload)
    assert (kind, chan, payload) == (EVENTS, 1, b"")
    assert messages > 3 and [e >> 63 for e in events] == [0] * (len(events) - 1) + [1]
    stamps = [e >> 32 & 0x7FFFFFFF for e in events]
    assert stamps == sorted(stamps) and stamps[-1] < ticks
    histogram = [0] * 8192
    for e in events:
        histogram[(e >> 16 & 0xFFFF) * 4096 + (e & 0xFFFF)] += 1
    assert mini.link.read(6, 0, 8192) == histogram
    kind, _, _, _, payload = readout.message()
    assert kind == SCALARS and words(payload)[6] >= 0 and words(payload)[9 + 3] == 0


def test_a_reader_that_comes_back_starts_anew(mini):
    first = Readout(mini.program, SCALARS)
    mini.internal(1, 800)
    assert first.message()[:4] == (SCALARS, 0xFFFFFFFF, 0, 0)
    first.sock.close()
    wait_until(lambda: mini.program.do("card count 0 open") == 1, "end of the first reader")
    mini.internal(1, 800)  # nobody listens
    second = Readout(mini.program, HISTOGRAMS)
    mini.internal(1, 800)
    assert second.message()[:4] == (HISTOGRAMS, 0, 0, 0)
    mini.program.do("control die 0")
    assert second.message()[:4] == (HISTOGRAMS, 1, 0, 1) and second.sock.recv(1) == b""
