"""Systems of simulated cards for tests of what is saved: their numbers are no other test's."""
import contextlib
import glob
import os
import pathlib
import random
import sys

import pytest
from kestrel_data import do, result

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "sim"))
import cards

INDEX = 30  # of the first card
REGIONS = {1: 1024, 2: 1024, 3: 512, 4: 256, 5: 256, 6: 1024}
ROI, FORMAT, RECORD = 7, 28, 72
KINDS = ["-kind=3", "-kind=3v7 -generation=1", "-kind=3v7 -generation=2", "-kind=4", "-kind=3mini"]


@pytest.fixture(autouse=True)
def no_modules_left():
    yield
    for path in glob.glob("/dev/shm/plr3_*3[0-9]"):
        os.unlink(path)


@pytest.fixture
def play(tmp_path):
    running = []

    def begin(*options):
        running.append(cards.Program(tmp_path / f"cards{len(running)}", f"-index={INDEX}", *options))
        return running[-1]

    yield begin
    for program in running:
        program.close()


@pytest.fixture
def folder(tmp_path):
    (tmp_path / "saved").mkdir()
    return tmp_path / "saved"


def configure(client, sim, count=1, words=""):
    assert do(client, f"pulsar3 config {count} 4 {INDEX} baseIP '{sim.net}1' {words}") == 0


def failed(client, line, status=-1):
    """The one "!" line of a command that fails."""
    value, lines = result(client, line)
    assert value == status, (line, lines)
    [text] = [text for text in lines if text.startswith("!")]
    return text


def difference_lines(client, folder, words=""):
    value, lines = result(client, f"pulsar3 check-settings 0 '{folder}' {words}")
    found = [text for text in lines if text.startswith("#")]
    assert value == len(found), lines
    return found


class Wires:
    """One card, behind the server's back: all that a save holds of it."""

    def __init__(self, sim, card, kind, channels):
        self.gen4, self.mini = "kind=4" in kind, "mini" in kind
        one = "kind=3" == kind.strip("-") or "generation=1" in kind
        self.link, self.channels = sim.link(1 if one else 2, INDEX + card), channels
        self.spi, self.chan_spi = (5, (5, 0x2000)) if one else (18, (22, 0))
        self.globals = 15 if kind == "-kind=3" else 32

    def at(self, chan, region, offset):
        return self.link.REGISTERS, cards.register(self.link, chan, region, offset)

    def glob(self, offset):
        return (0, 4 * offset) if self.gen4 else self.at(15, 15, offset)

    def gain(self, chan, device):
        return self.chan_spi[0], self.chan_spi[1] + (chan << 8) + device

    def fill(self, seed):
        rng = random.Random(seed)
        words = lambda count: [rng.getrandbits(32) for _ in range(count)]
        for chan in range(self.channels):
            self.link.write(*self.at(chan, 0, 1), words(FORMAT - 1))
            self.link.write(*self.at(chan, 0, FORMAT + 1), words(59 - FORMAT))
            for region, count in REGIONS.items():
                self.link.write(*self.at(chan, region, 0), words(count))
            for device in (0, 1):
                self.link.write(*self.gain(chan, device), [rng.getrandbits(16)])
        self.link.write(*self.glob(0), words(2))
        self.link.write(*self.glob(2), [2])
        self.link.write(*self.glob(3), words(6))
        self.link.write(*self.glob(10), words(self.globals - 10))
        self.link.write(self.spi, 0x20, words(2))

    def state(self):
        found = {}
        for chan in range(self.channels):
            found[chan, 0] = self.link.read(*self.at(chan, 0, 0), 64)
            for region, count in {**REGIONS, ROI: 4096}.items():
                found[chan, region] = sum((self.link.read(*self.at(chan, region, first), min(128, count - first))
                                           for first in range(0, count, 128)), [])
            found[chan, "spi"] = [self.link.read(*self.gain(chan, device), 1)[0] for device in (0, 1)]
        found["globals"] = self.link.read(*self.glob(0), self.globals)
        found["terminations"] = self.link.read(self.spi, 0x20, 2)
        return found


@contextlib.contextmanager
def wires(sim, kind, count, channels):
    """The cards behind the server's back."""
    made = [Wires(sim, card, kind, channels) for card in range(count)]
    try:
        yield made
    finally:
        for one in made:
            one.link.sock.close()


@pytest.fixture
def saved(client, play, folder):
    """A small system, its settings in `folder`, and what the cards were asked afterwards forgotten."""
    sim = play("-chans=1", "-kind=3v7", "-generation=2")
    configure(client, sim)
    do(client, f"pulsar3 save-settings 0 '{folder}'")
    sim.do("card forget 0")
    return sim


def writes_of(sim):
    """Requests that write (or change) since the last look."""
    lines = sim.text.lines("card seen 0 4000")
    return [line for line in lines if line.startswith(("# command 2 ", "# command 3 ", "# command 4 "))]
