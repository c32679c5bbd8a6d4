"""Scalers of a path: what is read is what the cards hold, in few requests; handles, clearing, correcting offline."""
import pathlib
import sys

import numpy as np
import pytest
from kestrel_data import Module, do, refused, result
from kestrel_session import wait_until
from test_pulsar3_cards import play  # noqa: F401 (a fixture)
from test_pulsar3_dummy import no_modules_left  # noqa: F401 (a fixture)

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "sim"))
import cards

INDEX = 44  # of the first card
KINDS = ["-kind=3", "-kind=3v7 -generation=1", "-kind=3v7 -generation=2", "-kind=4", "-kind=3mini"]


def count(client, frames, ticks):
    """A run of so many frames of the cards' own timing, to its end, of scalers alone."""
    do(client, "pulsar3 set-run-mode 0 no-hist")
    do(client, f"pulsar3 set-timing 0 -1 3 fixed-time {ticks} frames {frames}")
    do(client, "pulsar3 hist start 0")
    wait_until(lambda: do(client, "pulsar3 dma read-glob-reg 0 0 34") == frames, f"end of {frames} frames")
    do(client, "pulsar3 hist stop 0")


def config(client, sim, ncards, frames, words=""):
    do(client, f"pulsar3 config {ncards} {frames} {INDEX} baseIP '{sim.net}1' {words}")


def read(client, name, handle, box):
    do(client, f"read {' '.join(map(str, box))} from {handle} to-module '{name}'")
    data = np.array(Module(name, "r").data)
    pathlib.Path("/dev/shm", name).unlink()
    return data if data.ndim == 3 else data[np.newaxis]


def pattern(channels, ncards, frames):
    """Frame, channel, scaler, as the cards make them."""
    return np.array([[cards.pattern(INDEX + chan // channels, chan % channels, frame, 1 << 24, 9)
                      for chan in range(channels * ncards)] for frame in range(frames)], dtype="u4")


@pytest.mark.parametrize("kind", KINDS)
def test_scalers_of_all_cards_are_read_as_they_are(client, play, names, kind):
    sim = play("-cards=3", f"-index={INDEX}", "-chans=2", "-speed=100", *kind.split())
    config(client, sim, 3, 7, "passive" if "mini" in kind else "")
    sim.do("events kind pattern")
    count(client, 7, 800000)
    truth = pattern(2, 3, 7)
    handle = do(client, "pulsar3 open-scalers 0")
    for x, y, t, dx, dy, dt in ((0, 0, 0, 9, 6, 7), (3, 0, 2, 4, 6, 3), (0, 1, 0, 9, 4, 7), (8, 5, 6, 1, 1, 1),
                                (0, 3, 1, 9, 1, 5)):
        got = read(client, names("got"), handle, (x, y, t, dx, dy, dt))
        assert (got == truth[t:t + dt, y:y + dy, x:x + dx]).all(), (x, y, t, dx, dy, dt)
    mirror = Module(f"plr3_scalers{INDEX + 1}", "r")
    assert (mirror.data == truth[:, 2:4]).all()
    do(client, f"clear {handle} 0 3 1 9 2 3")
    truth[1:4, 3:5] = 0
    assert (read(client, names("got"), handle, (0, 0, 0, 9, 6, 7)) == truth).all()
    do(client, f"clear {handle} 2 0 0 3 6 7")
    truth[:, :, 2:5] = 0
    assert (read(client, names("got"), handle, (0, 0, 0, 9, 6, 7)) == truth).all()
    do(client, f"clear {handle} 0 0 0 9 6 7")
    assert not read(client, names("got"), handle, (0, 0, 0, 9, 6, 7)).any() and not mirror.data.any()


def transactions(sim, card, action):
    before = sim.do(f"card count {card} transactions")
    action()
    return sim.do(f"card count {card} transactions") - before


@pytest.mark.parametrize("kind, requests", [("3v7 -generation=1", (57, 56, 1)), ("4", (1, 1, 1))])
def test_few_requests_are_made(client, play, names, kind, requests):
    sim = play(f"-index={INDEX}", "-chans=16", *f"-kind={kind}".split())
    config(client, sim, 1, 100)
    handle = do(client, "pulsar3 open-scalers 0")
    # Of 14400 words, by 255 or 16384; a channel of each frame with the others in between; a single one.
    for box, expected in zip(((0, 0, 0, 9, 16, 100), (0, 7, 0, 9, 1, 100), (5, 7, 3, 1, 1, 1)), requests, strict=True):
        before = sim.do("card count 0 transactions")
        read(client, names("r"), handle, box)
        assert sim.do("card count 0 transactions") - before == expected, box


def test_what_a_mini_model_sends_is_read_from_its_module(client, play, names):
    sim = play("-kind=3mini", f"-index={INDEX}", "-speed=100")
    config(client, sim, 1, 3, "send-scalars")
    sim.do("events kind pattern")
    count(client, 3, 800000)
    wait_until(lambda: Module(f"plr3_scalers{INDEX}", "r").data[2, 1, 8] != 0, "the scalers that it sends")
    Module(f"plr3_scalers{INDEX}").data[:] = 77
    usual, direct = do(client, "pulsar3 open-scalers 0"), do(client, "pulsar3 open-scalers 0 direct")
    assert (read(client, names("r"), usual, (0, 0, 0, 9, 2, 3)) == 77).all()
    assert (read(client, names("r"), direct, (0, 0, 0, 9, 2, 3)) == pattern(2, 1, 3)).all()
    do(client, f"clear {usual} 0 0 0 9 2 3")
    assert not read(client, names("r"), usual, (0, 0, 0, 9, 2, 3)).any()
    assert not read(client, names("r"), direct, (0, 0, 0, 9, 2, 3)).any()


def test_faults_of_a_card_fail_the_read_with_their_text(client, play, names):
    sim = play("-cards=2", "-kind=4", f"-index={INDEX}", "-chans=2")
    config(client, sim, 2, 4)
    handles = [do(client, "pulsar3 open-scalers 0"), do(client, "pulsar3 open-scalers 0 dtc")]
    for handle, text in zip(handles, ("plr3_scaler_read: ", "plr3_scaler_dtc_read: read error: plr3_scaler_read: "),
                            strict=True):
        sim.do("control fault 1 refuse bus 100")
        lines = refused(client, f"read 0 0 0 9 4 4 from {handle} to-module '{names('r')}'")
        assert lines[0].startswith("! " + text), lines
    sim.do("control fault 0 refuse bus 100")
    assert refused(client, f"clear {handles[0]} 0 0 0 9 4 4")[0].startswith("! plr3_scaler_clear: ")
    assert read(client, names("r"), handles[0], (0, 0, 0, 9, 4, 4)).shape == (4, 4, 9)


def test_a_module_that_others_changed_is_not_used(client, play, names):
    sim = play("-kind=4", f"-index={INDEX}", "-chans=2")
    config(client, sim, 1, 4)
    handle = do(client, "pulsar3 open-scalers 0")
    module = Module(f"plr3_scalers{INDEX}")
    for field, value in (("num_t", 5), ("data_type", 4), ("num_x", 3), ("data_offset", 465)):
        kept = int(module.head[field])
        module.head[field] = value
        lines = refused(client, f"read 0 0 0 9 2 4 from {handle} to-module '{names('r')}'")
        assert f"module 'plr3_scalers{INDEX}' " in lines[0], (field, lines)
        module.head[field] = kept
    assert read(client, names("r"), handle, (0, 0, 0, 9, 2, 4)).shape == (4, 2, 9)


def test_a_path_is_not_closed_under_its_handles(start, names):
    server = start()
    client, other = server.client(), server.client()
    do(client, f"pulsar3 config 2 2 {INDEX} dummy3")
    line = "! ERROR plr3_close: handles over path 0 are open, please close them first"
    for path in (0, 2):  # the system, and a card of it
        handle = do(other, f"pulsar3 open-scalers {path}")
        assert refused(client, "pulsar3 close 0") == [line]
        do(other, f"close {handle}")
    do(other, "pulsar3 open-scalers 0")
    other.close()  # the session ends, and its handles with it
    wait_until(lambda: result(client, "pulsar3 close 0")[0] == 0, "close")


def test_what_cannot_be_opened_or_set(client):
    do(client, f"pulsar3 config 1 2 {INDEX} dummy3")
    for line, status, text in (
            ("open-scalers 1", -2, "plr3_get_scaler_num_tf: invalid path 1"),
            ("dtc energy 9 1.0", -2, "plr3_setDeadtimeCalculationEnergy: invalid path 9"),
            ("dtc set-params 0 4 0.0 0.0 0.0 0.0", -6,
             "plr3_setDeadtimeCorrectionParameters: chan=4 out of range -1..3"),
            ("dtc set-params 7 0 0.0 0.0 0.0 0.0 all-rate-c 1.0", -2,
             "plr3_setDeadtimeCorrectionParameters2: invalid path 7"),
            ("dtc list -1", -2, "plr3_getDeadtimeCalculationEnergy: invalid path -1"),
            ("dtc offline-mkmod 3 1 'x'", -2, "plr3_get_num_chan: invalid path 3"),
            ("dtc offline 3 'x'", -2, "plr3_get_num_chan: invalid path 3")):
        assert result(client, f"pulsar3 {line}") == (status, [f"! ERROR {text}"])
    assert result(client, "pulsar3 dtc list 0 2 4") == (-6, ["! ERROR: channels 2 to 4 are out of range 0..3"])


def test_rate_parameters_stay_unless_one_is_given(client):
    do(client, f"pulsar3 config 1 2 {INDEX} dummy3")
    do(client, "pulsar3 dtc energy 0 6.4")
    do(client, "pulsar3 dtc set-params 0 -1 1e-9 2e-7 3e-9 4e-7 all-rate-c 5e-15 win-rate-m 6e-16 use-good-event")
    do(client, "pulsar3 dtc set-params 0 1 0.0 3e-7 0.0 4e-7 omit-chan")
    do(client, "pulsar3 dtc set-params 0 2 0.0 3e-7 0.0 4e-7 all-rate-m 1e-15")
    rows = [line.split()[2:] for line in client.lines("pulsar3 dtc list 0 0 2")[2:-1]]
    assert rows == [["1e-09", "2e-07", "3e-09", "4e-07", "0", "5e-15", "6e-16", "0", "use-good-event"],
                    ["0", "3e-07", "0", "4e-07", "0", "5e-15", "6e-16", "0", "omit-chan"],
                    ["0", "3e-07", "0", "4e-07", "1e-15", "0", "0", "0"]]


def filled(raw):
    """Scalers of a quiet channel, a busy one and two that count nothing, in each frame."""
    raw[:] = np.arange(9)
    raw[:, :, 0] = 80000000
    raw[:, 0, 1:7] = 800000, 0, 100000, 90000, 5000, 6000
    raw[:, 1, 1:7] = 0, 0, 600000, 590000, 50000, 60000
    raw[:, 2:, 1:7] = 0


def test_a_dummy_corrects_what_its_module_holds_and_so_does_offline(client, names):
    do(client, f"pulsar3 config 1 5 {INDEX} dummy3")
    do(client, "pulsar3 dtc energy 0 5.0")
    do(client, "pulsar3 dtc set-params 0 -1 1e-8 4e-7 0.0 3e-7")
    do(client, "pulsar3 dtc set-params 0 0 0.0 4e-7 0.0 3e-7 use-good-event")
    do(client, "pulsar3 dtc set-params 0 3 0.0 4e-7 0.0 3e-7 omit-chan")
    filled(Module(f"plr3_scalers{INDEX}").data)
    handle = do(client, "pulsar3 open-scalers 0 dtc")
    got = read(client, names("r"), handle, (0, 0, 0, 9, 4, 5))
    raw = np.array(Module(f"plr3_scalers{INDEX}", "r").data)
    assert (got[:, :, [0, 1, 2, 7, 8]] == raw[:, :, [0, 1, 2, 7, 8]]).all()
    quiet, busy, none, omitted = got[0, :, 3:7]
    x = quiet[1] / 1.0  # a second: the good events are the channel's
    assert quiet[0] == 100000 and x * np.exp(-4e-7 * x) == pytest.approx(90000 / 0.99, rel=1e-12)
    factor = np.exp(6e-7 * x) / 0.99
    assert quiet[2] == pytest.approx(5000 * factor, rel=1e-12)
    assert busy[0] * np.exp(-4.5e-7 * busy[0]) == pytest.approx(600000, rel=1e-12) and busy[1] == 590000
    assert not none.any() and not omitted.any()
    # The same from modules that somebody filled
    do(client, f"pulsar3 dtc offline-mkmod 0 6 '{names('off')}'")
    filled(Module(names("off_scalers")).data)
    assert do(client, f"pulsar3 dtc offline 0 '{names('off')}' num-t 5") == 5
    corrected, factors = (Module(names("off_" + name), "r").data for name in ("corrected", "factors"))
    assert (corrected[:5] == got).all() and not corrected[5].any() and not factors[5].any()
    assert factors[0, 0] == pytest.approx(factor, rel=1e-12) and factors[4, 3] == 0
    assert do(client, f"pulsar3 dtc offline 0 '{names('off')}'") == 6
    do(client, f"module create '{names('bad_scalers')}' 8 4 header num-t 6")
    for root, text in ((names("none"), "no module"), (names("bad"), "is not as offline-mkmod makes it")):
        assert any(text in line for line in refused(client, f"pulsar3 dtc offline 0 '{root}'")), root


def test_factors_are_told_at_a_high_debug_level(client, names):
    do(client, f"pulsar3 config 1 2 {INDEX} dummy3")
    do(client, "pulsar3 set-debug 0 2")
    handle = do(client, "pulsar3 open-scalers 0 dtc")
    lines = client.lines(f"read 0 1 0 9 1 2 from {handle} to-module '{names('r')}'")
    assert "# channel=1 t=0: dtc factor 1" in lines and "# channel=1 t=1: dtc factor 1" in lines
