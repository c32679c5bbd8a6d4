"""Counting on simulated cards: what is stored, what is lost and how it is told, for each fault of the data link."""
import os
import time

import numpy
import pytest
from kestrel_data import Module, do, held, result, threads
from kestrel_session import SCALE, wait_until
from test_pulsar3_cards import cards, play  # noqa: F401 (a fixture)
from test_pulsar3_dummy import no_modules_left  # noqa: F401 (a fixture)

CHANS, FRAMES, BINS = 2, 8, 4096
WHOLE, INCOMPLETE = 1, 2


def module(name, *shape):
    """A module's words, shaped; they lie at its end."""
    size = 4 * int(numpy.prod(shape))
    with open("/dev/shm/" + name, "rb") as file:
        return numpy.frombuffer(file.read()[-size:], "<u4").reshape(shape)


def histograms(card=0, chans=CHANS, frames=FRAMES, bins=BINS):
    return module(f"plr3_hist{card}", chans, frames, bins)


def statuses(card=0, chans=CHANS, frames=FRAMES):
    return module(f"plr3_tf_status{card}", 2, frames, chans)


def sent(card, chan, frame, bins=BINS):
    return numpy.array(cards.pattern(card, chan, frame, 0, bins), "<u4")


def configured(client, play, *options, frames=FRAMES, chans=CHANS, ncards=1, words=""):
    sim = play(f"-cards={ncards}", f"-chans={chans}", "-speed=10", *options)
    sim.do("events kind pattern")
    assert do(client, f"pulsar3 config {ncards} {frames} 0 baseIP '{sim.net}1' {words}") == 0
    return sim


def count(client, frames=FRAMES, milliseconds=5):
    assert do(client, f"pulsar3 setup-timing 0 internal time {milliseconds / 1000.0} frames {frames}") == 0
    assert do(client, "pulsar3 hist start 0") == 0
    assert do(client, f"pulsar3 check-progress 0 num-t {frames}") == frames


def losses(client, frames=FRAMES, chans=CHANS):
    """The rows of the table of losses, once everything is accounted for."""
    def all_there():
        return all(sum(row[1:4]) == frames for row in table(client)[:chans])

    wait_until(all_there, "account of all frames")
    return table(client)


def table(client):
    lines = client.lines("pulsar3 hist loss 0")
    return [[int(n) for n in line[1:].replace("|", " ").split()][1:] for line in lines
            if line.startswith("#") and line[1:].split()[0].isdigit()]


def check_stored(whole, card=0, chan=0, frames=FRAMES):
    """Frames in `whole` hold what was sent, others nothing; the status says which."""
    stored, status = histograms(card, frames=frames), statuses(card, frames=frames)
    for frame in range(frames):
        if frame in whole:
            assert status[0, frame, chan] == WHOLE
            assert (stored[chan, frame] == sent(card, chan, frame)).all(), frame
        else:
            assert status[0, frame, chan] == INCOMPLETE
            assert not stored[chan, frame].any(), frame


@pytest.mark.parametrize("kind", ["-kind=3", "-kind=3v7 -generation=1", "-kind=3v7 -generation=2", "-kind=4"])
def test_every_bin_of_every_card_arrives(client, play, kind):
    configured(client, play, *kind.split(), ncards=3)
    count(client)
    assert losses(client, chans=3 * CHANS) == [[FRAMES, FRAMES, 0, 0, 0, 0, 0, 0, 0]] * (3 * CHANS)
    for card in range(3):
        for chan in range(CHANS):
            check_stored(range(FRAMES), card, chan)
    assert do(client, "pulsar3 hist stop 0") == 0


# The fault, then of channel 0: whole, incomplete, missing, frames that are not whole, late, repeated, malformed.
FAULTS = [
    ("lose frame 3 packet 1", 7, 1, 0, {3}, 0, 0, 0),
    ("lose frame 3 packet 0", 7, 1, 0, {3}, 0, 0, 0),
    ("lose-frame frame 2", 7, 0, 1, {2}, 0, 0, 0),
    ("lose-frame frame 0", 7, 0, 1, {0}, 0, 0, 0),
    ("lose-frame frame 7", 7, 0, 1, {7}, 0, 0, 0),
    ("lose-tail frame 7", 7, 1, 0, {7}, 0, 0, 0),
    ("repeat frame 4 packet 0", 8, 0, 0, set(), 0, 1, 0),
    ("repeat frame 4 packet 1", 8, 0, 0, set(), 0, 1, 0),
    ("swap frame 5 packet 0", 8, 0, 0, set(), 0, 0, 0),
    ("swap-frames frame 5", 7, 0, 1, {5}, 2, 0, 0),
    ("cut frame 1 packet 0", 7, 1, 0, {1}, 0, 0, 1),
    ("cut frame 1 packet 1 argument 3", 7, 1, 0, {1}, 0, 0, 1),
    ("frame-number frame 6 packet 0", 7, 1, 0, {6}, 0, 0, 1),
    ("frame-number frame 6 packet 1", 7, 1, 0, {6}, 0, 0, 1),
    ("frame-number frame 3 packet 0 argument 1000000", 7, 1, 0, {3}, 0, 0, 1),
    ("packet-number frame 2 packet 0", 7, 1, 0, {2}, 0, 0, 1),
    ("packet-number frame 2 packet 1", 7, 1, 0, {2}, 0, 0, 1),
    ("unmark frame 2 packet 0", 7, 1, 0, {2}, 0, 0, 1),
    ("mark frame 2 packet 1", 7, 1, 0, {2}, 0, 0, 1),
    ("junk frame 5", 8, 0, 0, set(), 0, 0, 1),
    ("pad packet 1 times -1 argument 5", 8, 0, 0, set(), 0, 0, 0),
]


@pytest.mark.parametrize("fault, whole, incomplete, missing, bad, late, repeated, malformed", FAULTS,
                         ids=[f[0].replace(" ", "-") for f in FAULTS])
def test_each_fault_costs_its_frame_and_is_told(client, play, fault, whole, incomplete, missing, bad, late, repeated,
                                                malformed):
    sim = configured(client, play)
    kind, *where = fault.split()
    sim.do(f"packets fault 0 0 {kind} {' '.join(where)}")
    count(client)
    rows = losses(client)
    assert rows == [[FRAMES, whole, incomplete, missing, 0, late, repeated, malformed, 0],
                    [FRAMES, FRAMES, 0, 0, 0, 0, 0, 0, 0]]
    check_stored(set(range(FRAMES)) - bad)
    check_stored(range(FRAMES), chan=1)
    assert do(client, "pulsar3 hist read-dropped 0 0") == incomplete + missing
    assert do(client, "pulsar3 hist read-dropped 0 1") == 0
    sim.do("packets no-faults" if "times -1" in fault else "packets waiting")
    assert sim.do("packets waiting") == 0
    # The next run knows nothing of it.
    count(client)
    assert losses(client) == [[FRAMES, FRAMES, 0, 0, 0, 0, 0, 0, 0]] * CHANS
    check_stored(range(FRAMES))


def test_pads_of_a_card_that_does_not_know_them_are_no_data(client, play):
    sim = configured(client, play, "-feature=62:0")
    sim.do("packets fault 0 0 pad frame 5 packet 1")
    count(client)
    assert losses(client)[0] == [FRAMES, 7, 1, 0, 0, 0, 0, 1, 0]
    check_stored(set(range(FRAMES)) - {5})


def test_a_run_that_is_stopped_is_accounted_for(client, play):
    configured(client, play, frames=100)
    do(client, "pulsar3 setup-timing 0 internal time 1.0 frames 0")  # a tenth of that, here
    do(client, "pulsar3 hist start 0")
    wait_until(lambda: table(client)[0][1] > 1, "frames")
    assert do(client, "pulsar3 hist stop 0") == 0
    frames = table(client)[0][0]
    assert 1 < frames < 100 and losses(client, frames) == [[frames, frames, 0, 0, 0, 0, 0, 0, 0]] * CHANS
    status = statuses(frames=100)
    assert (status[0, :frames] == WHOLE).all() and not status[0, frames:].any()


@pytest.mark.parametrize("how", ["stopped", "left on"])
def test_frames_that_come_late_are_not_taken_for_those_of_the_next_run(client, play, how):
    sim = configured(client, play)
    sim.do("packets fault 0 -1 delay frame 1 times -1 argument 80")
    assert do(client, "pulsar3 setup-timing 0 pauses") == 0
    do(client, "pulsar3 hist start 0")
    do(client, "pulsar3 hist pause 0")
    do(client, "pulsar3 hist continue 0")
    if how == "stopped":
        do(client, "pulsar3 hist stop 0")
    assert client.lines("pulsar3 start 0 -1 pause") == ["* 0"]
    time.sleep(0.2)
    do(client, "pulsar3 hist continue 0")
    do(client, "pulsar3 hist stop 0")
    assert losses(client, frames=1) == [[1, 1, 0, 0, 0, 0, 0, 0, 0]] * CHANS


def test_frames_beyond_the_buffer_are_told(client, play):
    configured(client, play, frames=4)
    count(client, frames=10)
    assert losses(client, frames=10) == [[10, 10, 0, 0, 0, 0, 0, 0, 6]] * CHANS
    check_stored(range(4), frames=4)


def test_software_timing_pauses_and_continues(client, play):
    sim = configured(client, play, ncards=2)
    assert do(client, "pulsar3 setup-timing 0 pauses") == 0
    assert do(client, "pulsar3 hist arm 0") == 0
    time.sleep(0.02)
    for _ in range(3):
        assert do(client, "pulsar3 hist continue 0") == 0
        assert do(client, "pulsar3 hist pause 0") == 0
    assert do(client, "pulsar3 check-progress 0 num-t 3 busy") == 3
    assert do(client, "pulsar3 hist stop 0") == 0
    assert losses(client, frames=3, chans=2 * CHANS) == [[3, 3, 0, 0, 0, 0, 0, 0, 0]] * (2 * CHANS)
    assert sim.do("card get-global 0 2") == 1
    # Counting with the timing unit is nobody's to pause.
    assert do(client, "pulsar3 setup-timing 0 external") == 0
    assert client.lines("pulsar3 hist pause 0")[0] == (
        "! ERROR plr3_histogram_pause: System should be armed and ready in software timing mode, but Timea=00000002")
    assert client.lines("pulsar3 hist continue 0")[0].endswith(
        "on all cards and in software timing mode or IKAIRO on card 0, but card 0 Timea=00000002")
    assert client.lines("pulsar3 hist collect 0 0.1")[0].startswith("! ERROR: collect needs software timing")


def test_the_timing_unit_ends_frames(client, play):
    sim = configured(client, play)
    assert do(client, "pulsar3 setup-timing 0 external") == 0
    assert do(client, "pulsar3 hist start 0") == 0
    sim.do("gate open")
    for _ in range(4):
        sim.do("frame next")
    sim.do("gate close")
    assert do(client, "pulsar3 hist stop 0") == 0
    assert losses(client, frames=5) == [[5, 5, 0, 0, 0, 0, 0, 0, 0]] * CHANS


def test_collect_reports_what_it_got(client, play):
    sim = configured(client, play, ncards=2)
    assert client.lines("pulsar3 hist collect 0 0.1")[-2:] == ["# Collected 4 frames of 4 channels", "* 0"]
    sim.do("packets fault 1 1 lose packet 1")
    lines = client.lines("pulsar3 hist collect 0 0.1")
    assert lines[-2:] == ["# Collected 3 frames of 4 channels, lost 1 of 4: 1 incomplete, 0 missing; "
                          "the kernel dropped 0 packets", "* 0"]
    assert statuses(1)[0, 0].tolist() == [WHOLE, INCOMPLETE]
    for bad in ("-1.0", "1e7"):
        assert client.lines(f"pulsar3 hist collect 0 {bad}")[-1] == "* -1"


def test_shapes_follow_the_format(client, play):
    sim = configured(client, play)
    assert do(client, "pulsar3 format-run 0 -1 nbits-eng 10 nbits-aux1 2") == 0
    assert sim.do("card get-register 0 1 0 28") == 10 | 2 << 8
    count(client)
    assert losses(client) == [[FRAMES, FRAMES, 0, 0, 0, 0, 0, 0, 0]] * CHANS
    stored = module("plr3_hist0", CHANS, FRAMES * 4, 1024).reshape(CHANS, FRAMES, BINS)
    assert (stored[1, 3] == sent(0, 1, 3)).all()
    # Frames of other sizes: a channel by itself has them, the modules follow channel 0.
    assert do(client, "pulsar3 format-run 0 1 nbits-eng 9") == 0
    count(client)
    assert losses(client)[1][:2] == [FRAMES, FRAMES]
    assert client.lines("pulsar3 format-run 0 0 nbits-eng 16 nbits-aux1 15")[0].startswith(
        "! ERROR plr3_format_run: channel 0: frames of 16 energy bits and 15 auxiliary bits do not fit")
    for chan in (CHANS, 2147483647, -2):
        assert result(client, f"pulsar3 format-run 0 {chan} nbits-eng 9") == (
            -6, [f"! ERROR plr3_format_run: illegal channel specified ({chan})"])
    assert sim.do("card get-register 0 0 0 28") == 10 | 2 << 8
    assert do(client, "pulsar3 format-run 0 -1 nbits-eng 12 nbits-aux1 0") == 0
    count(client)
    assert (histograms()[0, 7] == sent(0, 0, 7)).all()
    do(client, "pulsar3 setup-timing 0 internal time 10.0 frames 5")
    do(client, "pulsar3 hist start 0")
    assert client.lines("pulsar3 format-run 0 -1 nbits-eng 8")[0] == "! ERROR plr3_format_run: path 0 is counting"
    do(client, "pulsar3 hist stop 0")


@pytest.mark.parametrize("mode", ["send-hist-frames send-scalars", "send-hist-list send-scalars"])
def test_a_mini_model_sends_over_its_readout(client, play, mode):
    sim = play("-kind=3mini", "-speed=10")
    sim.do("events set 0 -1 rate 300000.0")
    assert do(client, f"pulsar3 config 1 {FRAMES} 0 baseIP '{sim.net}1' {mode}") == 0
    for _ in range(2):
        count(client)
        assert losses(client) == [[FRAMES, FRAMES, 0, 0, 0, 0, 0, 0, 0]] * CHANS
        for chan in range(CHANS):
            for frame in range(FRAMES):
                assert histograms()[chan, frame].sum() == sim.do(f"events total 0 {chan} {frame}") > 0
        assert (module("plr3_scalar_tf_status0", 2, FRAMES, CHANS)[0] == WHOLE).all()
        scalers = module("plr3_scalers0", FRAMES, CHANS, 9)
        assert (scalers[:, :, 0] > 0).all() and (scalers[:, :, 3] > 0).all()


def test_frames_of_the_run_before_are_nobodys(client, play):
    sim = configured(client, play, ncards=2)
    sheets = [Module(f"plr3_run{card}").data for card in range(2)]
    count(client)
    assert do(client, "pulsar3 hist stop 0") == 0
    # Card 1 keeps its count until card 0 begins, too.
    assert do(client, "pulsar3 hist start 0 1") == do(client, "pulsar3 hist stop 0") == 0
    assert [row[0] for row in table(client)] == [FRAMES] * CHANS + [0] * CHANS and [sheet[0, 2] for sheet in sheets] == [FRAMES, 0]
    assert do(client, "pulsar3 hist start 0 1") == do(client, "pulsar3 hist start 0 0") == 0
    assert do(client, f"pulsar3 check-progress 0 num-t {FRAMES}") == FRAMES
    assert losses(client, chans=2 * CHANS) == [[FRAMES, FRAMES, 0, 0, 0, 0, 0, 0, 0]] * (2 * CHANS)
    # A card that was restarted knows nothing of the run that it had ended.
    assert do(client, "pulsar3 hist stop 0") == 0
    sim.do("control die 0")
    sim.do("control live 0")
    client.lines("pulsar3 hist stop 0")
    assert do(client, "pulsar3 hist stop 0") == 0 and [sheet[0, 2] for sheet in sheets] == [FRAMES, FRAMES]


def test_events_are_written_to_a_file_while_they_are_histogrammed(client, play, tmp_path, small_disk):
    sim = play("-kind=3mini", "-cards=2", "-speed=10")
    sim.do("events set -1 -1 rate 300000.0")
    assert do(client, f"pulsar3 config 2 {FRAMES} 0 baseIP '{sim.net}1' send-hist-list") == 0
    name = tmp_path / "events"
    assert client.lines("pulsar3 hist list-mode 0")[0] == (
        "! ERROR plr3_list_mode_stop: no list-mode file is written for path 0")
    assert do(client, f"pulsar3 hist list-mode 0 '{name}'") == 0
    assert client.lines(f"pulsar3 hist list-mode 0 '{name}'")[0] == (
        f"! ERROR plr3_list_mode_start: Cannot make file {name}: File exists")
    # A card by itself ends with a file what it sends there, and the others go on; nothing ends unsaid.
    empty = [f"# List-mode file {name}: 0 events in 0 records", f"# List-mode file {name}.1: 0 events in 0 records"]
    assert client.lines("pulsar3 hist list-mode 2") == [empty[0], "* 0"]
    assert client.lines(f"pulsar3 hist list-mode 2 '{name}.1'") == ["* 0"]
    assert client.lines(f"pulsar3 hist list-mode 0 '{name}.2'") == [*empty, "* 0"]
    name = tmp_path / "events.2"
    count(client)
    [line, *_] = client.lines("pulsar3 hist list-mode 0")
    data = numpy.frombuffer(name.read_bytes(), "<u4")
    spectra = numpy.zeros((2 * CHANS, FRAMES, 4096), int)
    at = records = 0
    while at < data.size:
        magic, chan, frame, events = data[at:at + 4]
        assert magic == 0x4D534C4B and at + 4 + 2 * events <= data.size
        numpy.add.at(spectra[chan, frame], data[at + 4:at + 4 + 2 * events:2] & 0xFFFF, 1)
        at += 4 + 2 * int(events)
        records += 1
    assert line == f"# List-mode file {name}: {spectra.sum()} events in {records} records"
    for card in range(2):
        assert (spectra[card * CHANS:(card + 1) * CHANS] == module(f"plr3_hist{card}", CHANS, FRAMES, 4096)).all()
    assert spectra.sum(axis=(1, 2)).all()
    # A disk that is full ends the file behind a whole record, and nothing else.
    short = small_disk / "short"
    (small_disk / "others").write_bytes(bytes(200_000))
    assert do(client, f"pulsar3 hist list-mode 0 '{short}'") == 0
    count(client)
    assert losses(client)[0][:2] == [FRAMES, FRAMES]
    lines = client.lines("pulsar3 hist list-mode 0")
    assert f"! ERROR: List-mode file {short} ended early: No space left on device" in lines and lines[-1] == "* -1"
    data, at = numpy.frombuffer(short.read_bytes(), "<u4"), 0
    while at < data.size:
        at += 4 + 2 * int(data[at + 3])
    assert 0 < at == data.size


def test_a_readout_that_vanishes_is_opened_again(server, client, play):
    sim = play("-kind=3mini", "-speed=10")
    assert do(client, f"pulsar3 config 1 {FRAMES} 0 baseIP '{sim.net}1' send-hist-frames") == 0
    sim.do("control die 0")
    sim.do("control live 0 keep")
    said = []

    def told():
        said.extend(client.lines("pulsar3 dma read-glob-reg 0 0 3"))
        return any("connection has ended" in line for line in said) and said[-1] == "* 0"

    wait_until(told, "its line, and a control link that works again")
    count(client)
    assert losses(client)[0][:2] == [FRAMES, FRAMES]


def test_passive_mini_models_are_asked(client, play):
    sim = play("-kind=3mini", "-speed=10")
    sim.do("events set 0 -1 rate 300000.0")
    lines = client.lines(f"pulsar3 config 1 {FRAMES} 0 baseIP '{sim.net}1' passive")
    assert "# Is Pulsar3mini without active readout, so no extra TCP setup" in lines
    count(client)
    handle = do(client, "pulsar3 open-mca 0")
    total = sum(sim.do(f"events total 0 1 {frame}") for frame in range(FRAMES))
    assert total > 0


def test_scope_data_come_back_row_by_row(client, play):
    sim = configured(client, play, "-kind=4", ncards=2)
    assert do(client, "pulsar3 read-scope-data 0") == 0
    assert do(client, "pulsar3 set-run-mode 0 scope-mode") == 0
    assert do(client, "pulsar3 start 0 read pause") == 0
    assert client.lines("pulsar3 read-scope-data 0 2")[0] == (
        "! ERROR plr3_read_scope_data: illegal card specified (2)")


def test_threads_and_descriptors_go_with_their_path(server, client, play):
    sim = configured(client, play, chans=16, ncards=2)
    assert do(client, "pulsar3 close 0") == 0
    warm, idle = held(server), threads(server)
    for _ in range(5):
        assert do(client, f"pulsar3 config 2 {FRAMES} 0 baseIP '{sim.net}1'") == 0
        assert threads(server) == idle + 32
        count(client, milliseconds=1)
        begun = time.monotonic()
        assert do(client, "pulsar3 close 0") == 0
        assert time.monotonic() - begun < 5 * SCALE
        assert held(server) == warm and threads(server) == idle


def test_progress_is_for_everyone(client, play):
    configured(client, play, ncards=2)
    count(client)
    do(client, "pulsar3 hist stop 0")
    rows = module("plr3_progress0", 2, 4)
    assert rows[:, :3].tolist() == [[FRAMES, FRAMES, 0]] * 2
