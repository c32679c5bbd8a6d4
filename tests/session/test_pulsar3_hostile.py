"""Counting with hostile users, peers and neighbours: odd orders of commands, cards that die, readouts that lie or stall,
modules that others cut short."""
import os
import socket
import struct
import threading

import numpy
import pytest
from kestrel_data import do, held, result, threads
from kestrel_session import WAIT, wait_until, wait_until_taken
from test_pulsar3_cards import play  # noqa: F401 (a fixture)
from test_pulsar3_counting import BINS, CHANS, FRAMES, configured, count, histograms, losses, module, sent, table
from test_pulsar3_dummy import fails, no_modules_left  # noqa: F401 (a fixture)


class Readout:
    """A mini model whose control link is the simulator's and whose readout is played here."""
    CONTROL, PORT, MAGIC = 30124, 30125, 0x334D4C50

    def __init__(self, sim):
        a, b = (int(part) for part in sim.net.split(".")[1:3])
        self.net = f"127.{a}.{b % 100 + 150}."
        self.control, self.listener = (socket.create_server((self.net + "2", port))
                                       for port in (self.CONTROL, self.PORT))
        self.links = []
        threading.Thread(target=self.forward, args=(sim.control(),), daemon=True).start()

    def forward(self, card):
        while True:
            try:
                near, _ = self.control.accept()
            except OSError:
                return
            far = socket.create_connection((card, self.CONTROL))
            self.links += [near, far]
            for pair in ((near, far), (far, near)):
                threading.Thread(target=self.pump, args=pair, daemon=True).start()

    @staticmethod
    def pump(source, to):
        try:
            while data := source.recv(65536):
                to.sendall(data)
            to.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass

    def accept(self):
        """The next connection's mode."""
        self.listener.settimeout(WAIT)
        self.link, _ = self.listener.accept()
        self.links.append(self.link)
        self.sequence = 0
        return struct.unpack("<I", self.link.recv(4, socket.MSG_WAITALL))[0]

    def send(self, kind, chan, frame, payload, size=None):
        header = struct.pack("<6I", self.MAGIC, kind, chan, frame, len(payload) if size is None else size, self.sequence)
        self.sequence += 1
        self.link.sendall(header + payload)

    def close(self):
        for one in (self.control, self.listener, *self.links):
            one.close()


@pytest.fixture
def readout(play):
    peer = Readout(play("-kind=3mini", "-speed=10"))
    yield peer
    peer.close()


def test_a_frame_that_began_before_its_shape_changed_is_not_stored(server, client, readout):
    assert do(client, f"pulsar3 config 1 {FRAMES} 0 baseIP '{readout.net}1' send-hist-frames") == 0
    assert readout.accept() == 2
    readout.send(2, 0, 4 * FRAMES - 1, b"\xee" * 8000, size=4 * BINS)
    wait_until_taken(readout.link)
    assert do(client, "pulsar3 format-run 0 -1 nbits-eng 10") == 0
    assert do(client, "pulsar3 hist start 0") == 0
    readout.link.sendall(b"\xee" * (4 * BINS - 8000))
    wait_until(lambda: any("is not the expected one" in line for line in client.lines("sleep 0.01")), "its refusal")
    assert not histograms(frames=4 * FRAMES, bins=BINS // 4).any()
    assert do(client, "pulsar3 hist start 0") == 0
    readout.accept()
    readout.send(2, 1, 0, b"\x01" * BINS)
    wait_until(lambda: table(client)[1][1] == 1, "a frame of the new shape")


def test_one_card_can_start_while_others_count(client, play):
    configured(client, play, ncards=2)
    do(client, f"pulsar3 setup-timing 0 internal time 0.5 frames {FRAMES}")
    do(client, "pulsar3 hist start 0")
    wait_until(lambda: table(client)[0][1] >= 3, "frames")
    assert do(client, "pulsar3 hist start 0 1") == 0
    assert losses(client, chans=2 * CHANS)[:CHANS] == [[FRAMES, FRAMES, 0, 0, 0, 0, 0, 0, 0]] * CHANS
    assert (histograms()[1, 7] == sent(0, 1, 7)).all()


def test_a_format_may_change_once_a_run_has_ended_by_itself(client, play):
    configured(client, play)
    do(client, "pulsar3 setup-timing 0 internal time 0.01 frames 2")
    do(client, "pulsar3 hist start 0")
    assert do(client, "pulsar3 check-progress 0 num-t 2") == 2
    assert do(client, "pulsar3 format-run 0 -1 nbits-eng 10") == 0


def test_channels_that_are_not_there_have_no_losses(client):
    do(client, "pulsar3 config 1 4 0 dummy3")
    for chan in (-2, 4, 2147483647, -2147483648):
        assert fails(client, f"pulsar3 hist loss 0 {chan}", -6) == [
            f"! ERROR plr3_resolve_path: chan={chan} out of range 0..3"]


def test_each_frame_of_a_circular_buffer_can_be_read(client, play):
    configured(client, play, "-feature=61:65536", frames=4)
    assert do(client, "pulsar3 set-run-mode 0 circ-buffer") == 0
    count(client, frames=6)
    handle = do(client, "pulsar3 open-mca 0")
    for place, frame in enumerate((4, 5, 2, 3)):
        do(client, f"read 0 0 {place} {BINS} {CHANS} 1 from {handle} long to-module 'plr3_one'")
        assert (module("plr3_one", CHANS, BINS)[1] == sent(0, 1, frame)).all(), frame
    assert do(client, f"clear {handle}") == 0
    assert not histograms(frames=4).any()


def test_a_card_that_died_hides_nothing_of_the_others(client, play):
    sim = configured(client, play, ncards=3)
    do(client, "pulsar3 setup-timing 0 internal time 0.1 frames 0")
    do(client, "pulsar3 hist start 0")
    wait_until(lambda: table(client)[0][1] >= 1, "frames")
    sim.do("control die 1")
    assert fails(client, "pulsar3 hist stop 0", -4)[0].startswith("! ERROR plr3_histogram_stop: plr3_read_glob_reg")
    value, lines = result(client, "pulsar3 hist loss 0")
    assert value < 0 and any(line.startswith("! ERROR plr3_read_glob_reg") for line in lines)
    alive = (0, 1, 4, 5)
    wait_until(lambda: all(row[0] == row[1] > 0 for row in [table(client)[chan] for chan in alive]), "their account")
    rows = table(client)
    assert len(rows) == 3 * CHANS
    for row in (rows[chan] for chan in alive):  # a packet that a busy machine had asked for twice is no loss
        assert row[2:6] == [0] * 4 and row[7] == 0, row
    sim.do("control live 1")


def test_a_viewer_of_progress_who_leaves_does_not_stop_the_others(server, client, play):
    configured(client, play)
    other = server.client()
    other.send("pulsar3 check-progress 0 num-t 99\n")
    other.recv_until("card 0")
    other.close()
    server.clients.pop()
    assert client.lines("1+1") == ["* 2"]


def test_a_collection_that_was_interrupted_is_accounted_for(server, client, play):
    sim = configured(client, play)
    sim.do("packets fault 0 1 delay packet 1 argument 300")
    client.send("pulsar3 hist collect 0 1000.0\n")
    client.recv_until("Collecting")
    server.interrupt()
    assert b"# Collected 2 frames of 2 channels\r\n* -1" in client.recv_prompt()


@pytest.mark.parametrize("name", ["plr3_hist0", "plr3_tf_status0", "plr3_progress0", "plr3_scalers0"])
@pytest.mark.parametrize("size", [0, 100, 40000])
def test_a_module_that_was_cut_short_ends_no_thread(server, client, play, name, size):
    sim = configured(client, play)
    before = threads(server)
    do(client, "pulsar3 setup-timing 0 internal time 0.1 frames 0")
    do(client, "pulsar3 hist start 0")
    wait_until(lambda: table(client)[0][1] >= 1, "frames")
    os.truncate("/dev/shm/" + name, min(size, os.path.getsize("/dev/shm/" + name)))
    wait_until(lambda: client.lines("pulsar3 hist loss 0") and table(client)[1][1] >= 12, "further frames")
    assert threads(server) == before
    client.lines("pulsar3 hist stop 0")
    client.lines("pulsar3 close 0")
    # What was left of it is nobody's.
    assert do(client, f"pulsar3 config 1 {FRAMES} 0 baseIP '{sim.net}1'") == 0
    count(client)
    assert losses(client) == [[FRAMES, FRAMES, 0, 0, 0, 0, 0, 0, 0]] * CHANS
    assert (histograms()[1, 3] == sent(0, 1, 3)).all()


def test_a_readout_that_lies_costs_a_connection_and_nothing_else(server, client, readout):
    assert do(client, f"pulsar3 config 1 {FRAMES} 0 baseIP '{readout.net}1' send-hist-frames send-scalars") == 0
    readout.accept()
    before = held(server), threads(server)
    frame = bytes(4 * BINS)
    for kind, chan, payload, size in ((4, 0, b"", None), (2, 2, frame, None), (2, 0xFFFFFFFF, frame, None), (3, 0, b"", None),
                                      (2, 0, frame[4:], None), (2, 0, b"", 0xFFFFFFFF), (1, 0, bytes(72), None),
                                      (1, 0xFFFFFFFF, bytes(36), None), (0, 0, b"", None)):
        readout.send(kind, chan, 0, payload, size)
        wait_until(lambda: any("is not the expected one" in line for line in client.lines("sleep 0.01")), "its refusal")
        assert do(client, "pulsar3 hist start 0") == 0
        readout.accept()
        assert (held(server), threads(server)) == before
    for number in (0, 0x7FFFFFFF, 0xFFFFFFFE, 5, 0x80000000):  # numbers that jump are counted, and nothing is written
        readout.send(2, 1, number, frame)
        readout.send(1, 0xFFFFFFFF, number, bytes(72))
    wait_until(lambda: table(client)[1][1] == 5, "their account")
    row = table(client)[1]
    assert row[0] == sum(row[1:4])
    do(client, "pulsar3 hist stop 0")


def test_a_shape_that_could_not_be_made_is_tried_again_before_a_run(client, play):
    configured(client, play)
    path = "/dev/shm/plr3_tf_status0"
    os.unlink(path)
    os.mkdir(path)  # nothing can be made under this name
    try:
        for line in ("pulsar3 format-run 0 -1 nbits-eng 10", "pulsar3 hist start 0", "pulsar3 hist start 0"):
            assert "cannot make module 'plr3_tf_status0'" in fails(client, line)[-1]
        assert do(client, "pulsar3 hist stop 0") == 0
    finally:
        os.rmdir(path)
    count(client)
    assert losses(client) == [[FRAMES, FRAMES, 0, 0, 0, 0, 0, 0, 0]] * CHANS
    assert (module("plr3_tf_status0", 2, 4 * FRAMES, CHANS)[0, :FRAMES] == 1).all()


def test_processors_that_cannot_be_used_are_told(start, play):
    sim = play("-chans=2")
    for cpus, line in (("0,zz", "PLR3CPUS=0,zz cannot be read from 'zz' on"), ("3-1", "PLR3CPUS=3-1 cannot be read from '1' on"),
                       ("1023", "The receive thread of channel 1 cannot be bound to its processor (errno 22)")):
        client = start(env={"PLR3CPUS": cpus}).client()
        assert "# " + line in client.lines(f"pulsar3 config 1 1 0 baseIP '{sim.net}1'")
        assert do(client, "pulsar3 close 0") == 0


def test_frames_beyond_a_cards_addresses_are_refused(client, play):
    sim = play("-kind=3mini")
    do(client, f"pulsar3 config 1 140000 0 baseIP '{sim.net}1' passive")
    handle = do(client, "pulsar3 open-mca 0")
    do(client, f"read 0 0 139999 4 1 1 from {handle} long to-module 'plr3_some'")
    assert "word 573435904 of channel 1 is beyond the card's addresses" in fails(
        client, f"read 0 1 139999 4 1 1 from {handle} long to-module 'plr3_some'")[0]
