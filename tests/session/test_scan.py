"""A scan end to end: the example script, a simulated timing unit and motor server, and a card that the unit gates."""
import pathlib
import shutil

import numpy as np
import pytest
from kestrel_data import Module, do
from kestrel_session import KESTREL, ROOT, SCALE, Process, Server, free_port
from test_pulsar3_cards import play  # noqa: F401 (a fixture)
from test_pulsar3_dummy import no_modules_left  # noqa: F401 (a fixture)

BUILD = pathlib.Path(KESTREL).parent
TIMES = pathlib.Path("/dev/shm/kairo_times")
RATE = 1e6  # events a second that the card's detector sees


class Card(Server):
    """A simulated card, gated by whoever connects to its gate port."""

    def __init__(self, scratch):
        self.clients, self.port, self.gate = [], free_port(), free_port()
        Process.__init__(self, scratch, f"-text={self.port}", f"-gate={self.gate}", "-base=127.61.16.1", "-generation=2",
                         "-chans=1", program=str(BUILD / "sim_card"))
        assert self.listens(), self.stderr
        self.text = self.client()
        for line in (f"events set 0 -1 rate {RATE} resets 0.0 a 0.0 b 0.0 c 0.0 d 0.0", "card set-global 0 9 100",
                     "card set-global 0 2 $90000002"):  # histograms and scalers run, the timing unit times them
            do(self.text, line)

    def frames(self):
        return do(self.text, "card get-global 0 34")

    def seconds(self, frame):
        """For how long it counted in a frame, by its events; good to 1 %."""
        return do(self.text, f"events total 0 0 {frame}") / RATE


@pytest.fixture
def station(start):
    """(client, unit, card): configured for a unit that gates the card, and for motors."""
    TIMES.unlink(missing_ok=True)
    card = start(kind=lambda scratch: Card(scratch))
    unit = start(f"-gate={card.gate}", program=str(BUILD / "sim_timing_unit"))
    motors = start(program=str(BUILD / "motor_server"))
    server = start(prepare=lambda cwd: (shutil.copy(ROOT / "examples" / "scan.cmd", cwd), (cwd / "d").mkdir()))
    client = server.client()
    do(client, f"kairo config 'sim' remote kairo2 server '127.0.0.1' port {unit.port}")
    do(client, f"client define '127.0.0.1' {motors.port} motor")
    yield client, server, card
    TIMES.unlink(missing_ok=True)


def test_times_frames_and_files_of_a_scan_agree(station, names):
    client, server, card = station
    do(client, f"module create '{names('memory')}' 8 1 header float num-t 5")
    handle = do(client, f"module open '{names('memory')}' header")
    reply = client.lines(f"~scan.cmd 0 10 3 0.1 2 {handle} 'd'")
    assert reply[-1] == "* 0", reply
    assert [line for line in reply if "Motor 2 moves" in line] == [
        f"# - Motor 2 moves from {a} to {b}" for a, b in [(0, 0), (0, 3), (3, 6), (6, 9)]]
    assert client.lines("%num_tf") == ["* 4"] and card.frames() == 4
    for frame in range(4):
        assert 0.099 <= card.seconds(frame) <= 0.1 + 0.1 * SCALE
    name = client.lines("%scan_header")[0][3:-1]
    folder = server.cwd / "d"
    assert sorted(path.name for path in folder.iterdir()) == sorted(
        [name, name[:5] + "1" + name[6:], name[:5] + "4" + name[6:], "SINDEX.NDX", "SINDEX.NDX.lock", "SINFO.LOG"])
    times = np.fromfile(folder / (name[:5] + "4" + name[6:]), ">f4").reshape(4, 4)
    assert np.allclose(times, [[2e-5] * 4, [0.1] * 4] * 2) and (times == Module("kairo_times").data[:4, :4]).all()
    lines = (folder / name).read_text().splitlines()
    assert lines[1:3] == ["motor scan", "      8       4       1       0       0       0       0       0       0       1"]
    assert (folder / (name[:5] + "1" + name[6:])).stat().st_size == 8 * 4 * 4
    assert "KAIRO Setup Unknown" in (folder / "SINFO.LOG").read_text()


def test_the_unit_gates_what_cards_count(station):
    client, _, card = station
    groups = ["2 0.1 0.05 0 0 0 0", "1 0.05 0.2 0 0 1 0", "-1 0 0 0 0 0 0"]
    assert client.lines("\n".join(["kairo setup-groups cycles 2", *groups]))[-1] == "* 3"
    do(client, "kairo start"), do(client, "kairo wait")
    assert client.lines("kairo read status") == ['* "PAUSED"'] and client.lines("kairo read frame") == ["* 2"]
    assert card.frames() == 2
    do(client, "kairo cont"), do(client, "kairo wait")  # to the pause of the second lap
    assert client.lines("kairo read lap") == ["* 1"] and card.frames() == 5
    do(client, "kairo cont"), do(client, "kairo wait ignore-pause")
    assert client.lines("kairo read status") == ['* "IDLE"'] and card.frames() == 6
    for frame, live in enumerate([0.05, 0.05, 0.2] * 2):
        assert 0.98 * live <= card.seconds(frame) <= 1.02 * live + 0.1 * SCALE
    do(card.text, "card set-global 0 2 2")  # the run ends, and no frame with it
    assert card.frames() == 6


def test_external_starts_and_stops(station):
    client, _, card = station
    do(client, "kairo generate 2 1 0 30 0 ext-start")
    do(client, "kairo start")
    assert client.lines("kairo read status") == ['* "ARMED"']
    do(client, "send kairo 'trigger'")
    do(client, "sleep 0.1")
    assert client.lines("kairo read progress")[0].startswith('* "RUNNING: lap 0 of 2, frame 0 of 1, live, 0.')
    do(client, "kairo stop")
    assert client.lines("kairo read status") == ['* "IDLE"'] and card.frames() == 1
    assert client.lines("kairo cont")[0] == "! - The unit is IDLE"


def test_an_interrupt_stops_a_unit_in_the_middle_of_a_frame(station):
    client, server, _ = station
    client.send("kairo scan motor 0 3 1 30.0 2\n")
    client.recv_until("Setting Scan variable to 0")
    server.interrupt()
    said = client.recv_prompt().decode().splitlines()
    assert "! Scan Aborted by quit signal" in said and said[-1] == "* -1"
    assert client.lines("kairo read status")[-1] == '* "IDLE"'


def test_a_scan_counts_into_the_cards_histograms(start, play):
    """Motor, timing unit and cards together: a histogram a position, of the live time that the times file says."""
    TIMES.unlink(missing_ok=True)
    gate = free_port()
    cards = play(f"-gate={gate}", "-generation=2", "-cards=2", "-chans=2")
    unit = start(f"-gate={gate}", program=str(BUILD / "sim_timing_unit"))
    motors = start(program=str(BUILD / "motor_server"))
    server = start(prepare=lambda cwd: (shutil.copy(ROOT / "examples" / "scan.cmd", cwd), (cwd / "d").mkdir()))
    client = server.client()
    cards.do(f"events set -1 -1 rate {RATE} resets 0.0 a 0.0 b 0.0 c 0.0 d 0.0")
    do(client, f"kairo config 'sim' remote kairo2 server '127.0.0.1' port {unit.port}")
    do(client, f"client define '127.0.0.1' {motors.port} motor")
    do(client, f"pulsar3 config 2 20 0 baseIP '{cards.net}1'")
    do(client, "pulsar3 setup-timing 0 external")
    handle = do(client, "pulsar3 open-mca 0")
    reply = client.lines(f"~scan.cmd 0 10 3 0.1 2 {handle} 'd'")
    assert reply[-1] == "* 0", reply
    assert client.lines("pulsar3 hist loss 0")[-1] == "* 0"
    name = client.lines("%scan_header")[0][3:-1]
    stored = np.fromfile(server.cwd / "d" / (name[:5] + "1" + name[6:]), ">f4").reshape(4, 4096)
    for frame in range(4):
        assert stored[frame].sum() == cards.do(f"events total 0 0 {frame}") > 0.09 * RATE
    do(client, f"close {handle}")
    do(client, "pulsar3 close 0")
    TIMES.unlink(missing_ok=True)
