"""Time frames of the card simulator: sources of timing, frames and trailers, scalers and spectra against their model."""
import math
import struct
import time

import pytest
from cards import (CLOCK, COUNTING, FIXED, FRAMES, HIST_RUN, INTERNAL, RUN, SCALERS_RUN, SCOPE, SOFTWARE,
                   SOFTWARE_FRAMES, STATUS, TIME_A, TIME_STATUS, TIMING_UNIT, Host, pattern, register, words)
from kestrel_session import wait_until


@pytest.fixture
def connect():
    """connect(program, ...) -> a host of a card."""
    hosts = []

    def begin(*how, **more):
        hosts.append(Host(*how, **more))
        return hosts[-1]
    yield begin
    for host in hosts:
        host.close()


@pytest.mark.parametrize("kind, protocol", [("3v7", 1), ("3v7", 2), ("3", 1), ("4", 2)])
def test_frames_trailers_and_scalers_of_the_pattern(play, connect, kind, protocol):
    program = play(f"-kind={kind}", f"-generation={protocol}", "-chans=2", "-index=3")
    program.do("events kind pattern")
    host = connect(program, 3, protocol, channels=2, local=kind == "4")
    host.internal(3, 8000)
    for chan in range(2):
        for frame in range(3):
            first, last = host.packet(chan), host.packet(chan)
            assert (first.frame, first.number, first.start, first.end, first.padded) == (frame, 0, 1, 0, 0)
            assert (last.frame, last.number, last.start, last.end, last.padded) == (frame, 1, 0, 1, 0)
            assert (len(first.payload), len(last.payload)) == (8992, 4 * 4096 - 8992)
            assert words(first.payload + last.payload) == pattern(3, chan, frame, 0, 4096)
            assert host.scalers(frame, 2)[chan] == pattern(3, chan, frame, 1 << 24, 9)
            memory = host.link.read(host.link.MEMORY, 4 * (chan * 20 + frame) * 4096, 200)
            assert memory == pattern(3, chan, frame, 0, 200)
    assert host.packets() == [] and host.get(TIME_STATUS) == 3 and host.get(STATUS) == 0
    assert [program.do(f"card count 0 {n}") for n in ("frames", "packets", "bytes")] == [6, 12, 6 * 4 * 4096]


def test_formats_packet_sizes_and_the_frame_counter(play, connect, tmp_path):
    program = play("-generation=2", "-chans=1")
    program.do("events kind pattern")
    host = connect(program)
    host.link.write(1, register(host.link, 0, 0, 28), [10 | 2 << 8 | 1 << 12])
    host.link.write(2, 12, [(1008 + 8) // 8 - 127])
    host.internal(2, 800)
    got = host.packets()
    assert len(got) == 2 * 33 and [p.number for p in got[:33]] == list(range(33))
    assert words(b"".join(p.payload for p in got[33:])) == pattern(0, 0, 1, 0, 8192)
    assert program.text.lines("events total 0 0 1")[0] == f"# {sum(pattern(0, 0, 1, 0, 8192))}"
    program.do(f"events save 0 0 1 '{tmp_path}/frame'")
    assert words((tmp_path / "frame").read_bytes()) == pattern(0, 0, 1, 0, 8192)
    assert program.text.lines("events total 0 0 2")[0] == "! Time frame 2 is not kept: 2 ended, the last 10 are"
    host.set(TIME_A, INTERNAL | RUN)  # not reset: the numbers go on, the time frames begin anew
    wait_until(lambda: host.get(TIME_STATUS) == 2, "second run")
    assert {p.frame for p in host.packets()} == {2, 3}


def test_software_timing_is_one_frame_a_run(play, connect):
    host = connect(play("-generation=2", "-chans=1"))
    host.start(SOFTWARE, RUN & ~COUNTING)  # armed
    assert (host.get(STATUS), host.get(TIME_STATUS)) == (1, 0)
    host.stop()
    assert (host.get(STATUS), host.get(TIME_STATUS), host.packets()) == (0, 0, [])  # nothing was counted
    begin = time.monotonic()
    host.start(SOFTWARE)
    time.sleep(0.05)
    host.set(TIME_A, SOFTWARE | RUN & ~COUNTING)
    assert (host.get(STATUS), host.get(TIME_STATUS)) == (1, 0)
    time.sleep(0.2)
    host.set(TIME_A, SOFTWARE | RUN)
    assert host.get(STATUS) == 3
    time.sleep(0.05)
    host.stop()
    took = time.monotonic() - begin
    assert host.get(TIME_STATUS) == 1 and len(host.packets()) == 2
    assert 0.1 <= host.scalers(0, 1)[0][0] / CLOCK < took - 0.2  # the pause is not in it


def test_a_pause_ends_the_frame_of_software_frames(play, connect):
    host = connect(play("-generation=1", "-chans=1"), 0, 1)
    host.start(SOFTWARE_FRAMES)
    for ended in range(1, 4):
        host.set(TIME_A, SOFTWARE_FRAMES | RUN & ~COUNTING)
        assert host.get(TIME_STATUS) == ended
        host.set(TIME_A, SOFTWARE_FRAMES | RUN)
    host.stop()
    assert host.get(TIME_STATUS) == 4 and [p.frame for p in host.packets()] == [0, 0, 1, 1, 2, 2, 3, 3]


def test_the_timing_unit(play, connect):
    program = play("-generation=2", "-chans=1")
    host = connect(program)
    host.start(TIMING_UNIT)
    assert host.get(STATUS) == 1
    program.do("frame next")
    assert host.get(TIME_STATUS) == 0  # the gate was not open yet
    program.do("gate open")
    assert host.get(STATUS) == 3
    program.do("frame next 5")
    program.do("gate close")
    assert (host.get(STATUS), host.get(TIME_STATUS)) == (1, 5)
    host.stop()
    assert host.get(TIME_STATUS) == 6


def test_internal_frames_keep_time_and_stop_and_pause(play, connect):
    host = connect(play("-generation=2", "-chans=1"), num_tf=100)
    host.set(FIXED, 1600000)  # 20 ms
    host.set(FRAMES, 0)
    host.start(INTERNAL, RUN & ~COUNTING)
    assert host.get(STATUS) == 1
    begin = time.monotonic()
    host.set(TIME_A, INTERNAL | RUN)
    wait_until(lambda: host.get(TIME_STATUS) >= 5, "five frames")
    assert 0.1 <= time.monotonic() - begin
    host.set(TIME_A, INTERNAL | RUN & ~COUNTING)
    ended = host.get(TIME_STATUS)
    time.sleep(0.06)
    assert host.get(TIME_STATUS) == ended
    host.stop()
    assert host.get(TIME_STATUS) == ended + 1  # what was under way
    assert [host.scalers(t, 1)[0][0] for t in range(ended)] == ended * [1600000]
    assert host.scalers(ended, 1)[0][0] < 1600000


def test_card_0_gates_the_others(play, connect):
    program = play("-cards=3", "-generation=2", "-chans=1")
    hosts = [connect(program, i) for i in range(3)]
    for host in reversed(hosts):
        assert hosts[1].get(STATUS) == 0
        host.start(SOFTWARE_FRAMES)
    assert [h.get(STATUS) for h in hosts] == [3, 3, 3]
    hosts[0].set(TIME_A, SOFTWARE_FRAMES | RUN & ~COUNTING)
    assert [h.get(TIME_STATUS) for h in hosts] == [1, 1, 1]
    hosts[0].set(TIME_A, SOFTWARE_FRAMES | RUN)
    hosts[0].stop()
    assert [(h.get(STATUS), h.get(TIME_STATUS)) for h in hosts] == [(0, 2)] * 3
    assert [h.scalers(1, 1)[0][0] for h in hosts] == [hosts[0].scalers(1, 1)[0][0]] * 3
    hosts[0].start(SOFTWARE)  # the others still ask for their run
    assert [(h.get(STATUS), h.get(TIME_STATUS)) for h in hosts] == [(3, 0)] * 3


def test_what_does_not_run_sends_nothing(play, connect):
    host = connect(play("-generation=2", "-chans=1"))
    host.start(SOFTWARE_FRAMES, COUNTING | SCALERS_RUN)
    host.stop()
    assert host.packets() == [] and host.scalers(0, 1)[0][0] > 0
    host.link.zero(100, 0x80000000, 9)
    host.start(SOFTWARE_FRAMES, COUNTING | HIST_RUN)
    host.stop()
    assert len(host.packets()) == 2 and host.scalers(0, 1)[0] == [0] * 9
    host.link.write(2, 15, [0])
    host.start(SOFTWARE_FRAMES)
    host.stop()
    assert host.packets() == [] and host.program.do("card count 0 unsent") == 2


def near(got, expected):
    return abs(got - expected) < 5 * math.sqrt(expected + 1)


@pytest.mark.parametrize("rate", [1e3, 1e5, 2e6])
def test_counts_follow_the_dead_time_model(play, connect, rate):
    a, b, c, d, resets, seconds = 2e-7, 1e-14, 1.5e-7, 2e-14, 0.05, 1.0
    program = play("-generation=2", "-chans=1", "-speed=20")
    program.do(f"events set 0 0 rate {rate} a {a} b {b} c {c} d {d} resets {resets} background 0.5")
    host = connect(program)
    host.link.write(1, register(host.link, 0, 0, 24), [0 | 0xFFFF << 16, 640 * 16 | (640 * 16 + 15) << 16, 100 * 16])
    host.internal(2, int(seconds * CLOCK))
    for time_frame in range(2):
        ticks, lost, _, seen, good, all_energies, one_bin, piled_up, _ = host.scalers(time_frame, 1)[0]
        assert (ticks, lost) == (CLOCK * seconds, CLOCK * seconds * resets)
        live = seconds * (1 - resets)
        assert near(seen, rate * live * math.exp(-rate * (a + b * rate)))
        assert near(all_energies, rate * live * math.exp(-2 * rate * (c + d * rate)))
        spectrum = words(host.packet().payload + host.packet().payload)
        assert sum(spectrum) == all_energies and spectrum[640] == one_bin
        assert good == seen - sum(spectrum[:100]) and piled_up == seen - all_energies
        flat = 0.5 / 4096 * all_energies
        assert near(sum(spectrum[1000:2000]), 1000 * flat)
        line = [n - flat for n in spectrum[600:680]]  # sigma^2 = 36 + 0.0438 * 640
        centre = sum((600.5 + i) * n for i, n in enumerate(line)) / sum(line)
        assert abs(centre - 640) < 10 / math.sqrt(sum(line)) * 5
        assert near(sum(line), 0.5 / 1.45 * all_energies)


@pytest.mark.parametrize("way", ["paralysable", "non-paralysable"])
def test_dead_time_event_by_event(play, connect, way):
    rate, tau = 4e5, 1e-6
    program = play("-generation=2", "-chans=1", "-speed=20")
    program.do(f"events set 0 0 rate {rate} tau {tau} resets 0.0 {way}")
    host = connect(program)
    host.internal(1, int(CLOCK))
    seen = host.scalers(0, 1)[0][3]
    assert near(seen, rate * math.exp(-rate * tau) if way == "paralysable" else rate / (1 + rate * tau))
    assert sum(words(host.packet().payload + host.packet().payload)) == seen


def test_counts_depend_on_the_seed_alone(play, connect):
    def counts(seed):
        program = play("-cards=2", "-generation=2", "-chans=2", f"-seed={seed}", "-speed=100")
        hosts = [connect(program, i, channels=2) for i in range(2)]
        hosts[1].set(FIXED, 800000)
        hosts[1].set(FRAMES, 3)
        hosts[1].start(INTERNAL)
        hosts[0].internal(3, 800000)
        return [[p.payload for p in h.packets(c)] for h in hosts for c in range(2)], [
            h.scalers(t, 2) for h in hosts for t in range(3)]
    first, again, other = counts(5), counts(5), counts(6)
    assert first == again and first != other
    assert len({b"".join(packets) for packets in first[0]}) == 4  # no two channels alike


def test_scope_data_and_its_resending(play, connect):
    program = play("-generation=2", "-chans=1")
    host = connect(program)
    host.link.order(6, 1, 0x4000, 20000, 7, 3)
    host.link.order(3, 1, 0, 0x4000, 20000, 12000)
    host.link.order(4, 1, 0, 2, 0)

    def frames():
        data = b""
        for frame, sizes in enumerate([(8992, 3008), (8000,)]):
            for number, size in enumerate(sizes):
                p = host.packet(SCOPE)
                assert (p.frame, p.number, len(p.payload)) == (frame, number, size)
                assert (p.start, p.end) == (number == 0, number == len(sizes) - 1)
                data += p.payload
        return words(data)
    expected = [7 + 3 * i for i in range(5000)]
    assert frames() == expected
    host.link.order(9, 1, 0, 2, 0)
    assert frames() == expected and host.link.question(16, 1, 1, words=1) == [2]
    host.link.order(4, 1, 1, 1, 0)
    assert host.packet(SCOPE).frame == 2
    host.link.order(1, 1)
    host.link.order(4, 1, 0, 1, 0)
    assert [host.packet(SCOPE).frame for _ in range(2)] == [0, 0]
    assert host.link.refused(7, 0, 4, 4, 0, struct.pack("<IIII", 1, 1, 2, 0))  # no third descriptor
