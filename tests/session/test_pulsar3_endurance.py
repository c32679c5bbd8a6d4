"""Counting for long and with ends of every kind: cycles of runs, a server that is killed, a viewer beside a run, many
channels with faults at once, a host that is too slow."""
import os
import pathlib
import random
import select
import signal
import subprocess
import sys
import time

import numpy
from kestrel_data import do, held, threads
from kestrel_session import SCALE, Server, wait_until
from test_pulsar3_cards import play  # noqa: F401 (a fixture)
from test_pulsar3_counting import BINS, FRAMES, configured, count, losses, module, sent, table
from test_pulsar3_dummy import no_modules_left  # noqa: F401 (a fixture)

CYCLES = int(os.environ.get("KESTREL_CYCLES", "100" if SCALE == 1 else "20"))


def resident(server):
    """Resident memory, kB."""
    status = pathlib.Path(f"/proc/{server.process.pid}/status").read_text()
    return int(status.split("VmRSS:")[1].split()[0])


def test_cycles_leave_nothing_behind(server, client, play):
    sim = play("-cards=2", "-chans=4", "-speed=100")
    memory = []
    for cycle in range(CYCLES):
        assert do(client, f"pulsar3 config 2 {FRAMES} 0 baseIP '{sim.net}1' no-create") == 0
        do(client, "pulsar3 setup-timing 0 internal time 0.01 frames 4")
        do(client, "pulsar3 hist start 0")
        if cycle % 3 == 0:
            time.sleep(0.002 * random.random())
        do(client, "pulsar3 hist stop 0")
        do(client, "pulsar3 close 0")
        memory.append(resident(server))
        if cycle == 4:
            warm = held(server), threads(server)
    assert (held(server), threads(server)) == warm
    if SCALE == 1:
        assert memory[-1] < memory[len(memory) // 4] + 2000
    wait_until(lambda: sim.do("card count 0 open") == 0, "closed links")


def test_a_killed_server_leaves_good_modules(server, client, start, play):
    sim = configured(client, play, frames=200)
    do(client, "pulsar3 setup-timing 0 internal time 0.02 frames 0")
    do(client, "pulsar3 hist start 0")
    wait_until(lambda: (module("plr3_tf_status0", 2, 200, 2)[0] == 1).any(), "whole frames")
    server.process.send_signal(signal.SIGKILL)
    server.process.wait()
    server.process.returncode = 0  # as wanted
    status = module("plr3_tf_status0", 2, 200, 2)[0]
    stored = module("plr3_hist0", 2, 200, BINS)
    assert (status == 1).any()
    for frame, chan in zip(*numpy.nonzero(status == 1)):
        assert (stored[chan, frame] == sent(0, chan, frame)).all()
    other = start(kind=Server)
    client = other.client()
    assert do(client, f"pulsar3 config 1 200 0 baseIP '{sim.net}1'") == 0
    count(client)
    assert losses(client) == [[FRAMES, FRAMES, 0, 0, 0, 0, 0, 0, 0]] * 2
    assert (module("plr3_hist0", 2, 200, BINS)[1, 3] == sent(0, 1, 3)).all()


VIEWER = """
import select, sys, numpy
sys.path[:0] = sys.argv[1:3]
from kestrel_data import Module
from test_pulsar3_counting import BINS, FRAMES, sent
hist, status, runs = Module("plr3_hist0", "r"), Module("plr3_tf_status0", "r"), numpy.memmap(sys.argv[3], "u4", "r")
want = {(c, f): sent(0, c, f) for c in range(2) for f in range(FRAMES)}
seen = 0
while seen < 200 or not select.select([sys.stdin], [], [], 0)[0]:
    for (chan, frame), words in want.items():
        run, before = int(runs[0]), int(status.data[0, frame, chan])
        copy = numpy.array(hist.data[chan, frame])
        after = int(status.data[0, frame, chan])
        if int(runs[0]) != run:  # the next one may have come as far meanwhile
            continue
        if before == after == 1:
            seen += 1
            if seen == 200:
                print("enough", flush=True)
            assert (copy == words).all(), (chan, frame)
        elif before == after == 2:
            assert not copy.any(), (chan, frame)
"""


def test_a_viewer_sees_whole_frames_or_marks(client, play, tmp_path):
    sim = configured(client, play)
    folder = pathlib.Path(__file__).resolve().parent
    runs = numpy.memmap(tmp_path / "runs", "u4", "w+", shape=1)
    viewer = subprocess.Popen([sys.executable, "-c", VIEWER, folder.parents[1] / "tools" / "session", folder, runs.filename],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    end = time.monotonic() + 3 * SCALE
    while time.monotonic() < end or not select.select([viewer.stdout], [], [], 0)[0]:  # it has seen enough, or failed
        runs[0] += 1
        if runs[0] % 2:
            sim.do("packets fault 0 -1 lose rate 0.1 times 5")
        count(client, milliseconds=1)
        sim.do("packets no-faults")
    out, _ = viewer.communicate("")
    assert viewer.returncode == 0 and out == "enough\n"


def test_faults_of_many_channels_add_up(client, play):
    """48 channels, a tenth of all packets spoilt in every way that there is."""
    sim = configured(client, play, "-kind=4", ncards=3, chans=16)
    for fault in ("lose", "repeat", "swap", "cut", "frame-number", "packet-number", "unmark", "mark", "lose-frame",
                  "lose-tail", "swap-frames", "junk"):
        sim.do(f"packets fault -1 -1 {fault} times -1 rate 0.01")
    for _ in range(3):
        count(client, milliseconds=20)
        rows = losses(client, chans=48)
        assert sum(row[2] + row[3] for row in rows) > 0
        for card in range(3):
            status = module(f"plr3_tf_status{card}", 2, FRAMES, 16)[0]
            stored = module(f"plr3_hist{card}", 16, FRAMES, BINS)
            for chan in range(16):
                row = rows[16 * card + chan]
                assert sum(row[1:4]) == FRAMES
                assert (status[:, chan] == 1).sum() == row[1] and (status[:, chan] == 2).sum() == row[2] + row[3]
                for frame in range(FRAMES):
                    wanted = sent(card, chan, frame) if status[frame, chan] == 1 else 0
                    assert (stored[chan, frame] == wanted).all(), (card, chan, frame)


def test_a_host_that_is_too_slow_sees_what_it_lost(server, client, play):
    sim = configured(client, play, frames=64)
    do(client, "pulsar3 setup-timing 0 software")
    do(client, "pulsar3 hist start 0")
    server.process.send_signal(signal.SIGSTOP)
    try:
        sim.do("packets blast 0 0 4000")
    finally:
        server.process.send_signal(signal.SIGCONT)
    wait_until(lambda: table(client)[0][1] > 100, "what the socket's buffer held")
    do(client, "pulsar3 hist stop 0")

    def all_told():
        row = table(client)[0]
        return row if row[4] > 0 and row[0] == sum(row[1:4]) else None

    assert wait_until(all_told, "the kernel's count, and an account of all frames")[4] > 2000


def test_foreign_senders_cost_nothing(client, play):
    sim = configured(client, play)
    for _ in range(20):
        sim.do("packets foreign 0 0 9000")
    count(client)
    assert losses(client) == [[FRAMES, FRAMES, 0, 0, 0, 0, 0, 0, 0]] * 2
