"""Corrected rates against the rates that simulated detectors really see, over three decades.

`KESTREL_PULLS=1` prints a table of each case.
"""
import math
import os
import pathlib
import sys

import numpy as np
import pytest
from kestrel_data import Module, do, refused
from kestrel_session import wait_until
from test_pulsar3_cards import play  # noqa: F401 (a fixture)
from test_pulsar3_dummy import no_modules_left  # noqa: F401 (a fixture)
from test_pulsar3_scalers import INDEX, config, count, read

CHANNELS, FRAMES, TICKS = 16, 40, 8_000_000
FRAME = TICKS / 8e7  # seconds
RESETS = 0.02
LIVE = FRAME * (1 - RESETS)
RATES = [10 ** (3 + 3 * i / (CHANNELS - 1)) for i in range(CHANNELS)]  # 1e3 to 1e6 a second


class Model:
    """Of x true events a second, x exp(-x (a + b x)) are seen and x exp(-2 x (c + d x)) land in the windows; their
    variances, by their means."""

    def __init__(self, a, b, c, d):
        self.a, self.b, self.c, self.d = a, b, c, d

    def settings(self):
        return f"model a {self.a} b {self.b} c {self.c} d {self.d}"

    def seen(self, x):
        return x * math.exp(-x * (self.a + self.b * x))

    def slope(self, x):
        return self.seen(x) * (1 / x - self.a - 2 * self.b * x)

    def spread(self, x):
        return 1.0


class Paralysable(Model):
    """Dead for `tau` after each event: what is seen is spread less than Poisson's law has it (J. W. Mueller, Nuclear
    Instruments and Methods 117 (1974) 401)."""

    def __init__(self, tau):
        super().__init__(tau, 0.0, tau / 2, 0.0)
        self.tau = tau

    def settings(self):
        return f"paralysable tau {self.tau}"

    def spread(self, x):
        return 1 - 2 * x * self.tau * math.exp(-x * self.tau)


class NonParalysable(Model):
    """Dead for `tau` after each event taken: x / (1 + x tau) are seen, the model to the third order of x tau."""

    def __init__(self, tau):
        super().__init__(tau, -tau ** 2 / 2, tau / 2, -tau ** 2 / 4)
        self.tau = tau

    def settings(self):
        return f"non-paralysable tau {self.tau}"

    def spread(self, x):
        return (1 + x * self.tau) ** -2


CASES = {
    "model, b = 0": Model(4e-7, 0.0, 3e-7, 0.0),
    "model, peak by b": Model(3e-7, 1e-13, 2e-7, 5e-14),
    "model, b < 0, a peak": Model(4e-7, -1.5e-14, 3e-7, -1e-14),
    "model, b < 0, none": Model(4e-7, -8e-14, 3e-7, -4e-14),
    "paralysable events": Paralysable(4e-7),
    "non-paralysable events": NonParalysable(1e-7),
}


def counted(client, play, names, model):
    """Frame, channel, scaler: raw and corrected scalers of a run."""
    sim = play("-kind=4", f"-chans={CHANNELS}", f"-index={INDEX}", "-speed=100", "-seed=11")
    config(client, sim, 1, FRAMES)
    for chan, rate in enumerate(RATES):
        sim.do(f"events set 0 {chan} rate {rate!r} resets {RESETS} {model.settings()}")
    do(client, f"pulsar3 dtc set-params 0 -1 0.0 {model.a} 0.0 {model.c} all-rate-c {model.b} win-rate-c {model.d}")
    count(client, FRAMES, TICKS)
    raw = do(client, "pulsar3 open-scalers 0")
    corrected = do(client, "pulsar3 open-scalers 0 dtc")
    box = (0, 0, 0, 9, CHANNELS, FRAMES)
    return read(client, names("raw"), raw, box).astype(float), read(client, names("dtc"), corrected, box)


def tell(name, rates, pulls, means):
    if not os.environ.get("KESTREL_PULLS"):
        return
    print(f"\n{name}: all pulls: mean {pulls.mean():+.3f}, deviation {pulls.std():.3f}, worst {abs(pulls).max():.2f}")
    for x, of_rate, (mean, error) in zip(rates, pulls.T, means, strict=True):
        print(f"  {x:12.1f} {mean:12.1f} +- {error:8.1f} {100 * (mean / x - 1):+8.3f} %  "
              f"pull {of_rate.mean():+.2f} deviation {of_rate.std():.2f}")


@pytest.mark.parametrize("name", CASES)
def test_corrected_rates_agree_with_true_ones_within_counting_error(client, play, names, name):
    model = CASES[name]
    raw, corrected = counted(client, play, names, model)
    rates = np.array(RATES)
    error = np.array([math.sqrt(model.spread(x) * model.seen(x) / LIVE) / model.slope(x) for x in RATES])
    found = corrected[:, :, 3] / FRAME
    pulls = (found - rates) / error
    tell(name, RATES, pulls, zip(found.mean(axis=0), error / math.sqrt(FRAMES), strict=True))
    # 640 pulls: their mean and deviation are known to 0.04 and 0.028, that of a channel's 40 to 0.16.
    assert abs(pulls.mean()) < 0.16 and 0.88 < pulls.std() < 1.12 and abs(pulls).max() < 5
    assert (abs(pulls.mean(axis=0)) < 0.7).all()
    # Events in a window: what they were before the losses. Rate and window share events, so the bound is Poisson's
    # and what the rate's error adds.
    kept = np.array([x * math.exp(-2 * x * (model.c + model.d * x)) for x in RATES])
    window = corrected[:, :, 5].mean(axis=0) / FRAME
    loss_error = rates * abs(2 * (model.c + 2 * model.d * rates)) * error / math.sqrt(FRAMES)
    window_error = rates / np.sqrt(kept * LIVE * FRAMES) + loss_error
    assert (abs(window - rates) < 4 * window_error).all(), (window - rates) / window_error
    assert (corrected[:, :, 6] == corrected[:, :, 5]).all()
    # The correction is worth something: without it the rates would be off by far more than that.
    uncorrected = raw[:, :, 3].mean(axis=0) / FRAME
    assert abs(uncorrected[-1] - RATES[-1]) > 20 * error[-1] / math.sqrt(FRAMES)
    assert (raw[:, :, 0] == TICKS).all() and (corrected[:, :, [0, 1, 2, 4, 7, 8]] == raw[:, :, [0, 1, 2, 4, 7, 8]]).all()


def test_a_rate_above_the_peak_saturates(client, play, names):
    sim = play("-kind=4", "-chans=2", f"-index={INDEX}", "-speed=100")
    config(client, sim, 1, 4)
    sim.do("events set 0 0 rate 2.5e6 a 3e-7 c 0.0 resets 0.0")  # more are seen than a = 4e-7 allows
    sim.do("events set 0 1 rate 1e5 a 3e-7 c 0.0 resets 0.0")
    do(client, "pulsar3 dtc set-params 0 -1 0.0 4e-7 0.0 1e-7")
    count(client, 4, 800_000)
    got = read(client, names("dtc"), do(client, "pulsar3 open-scalers 0 dtc"), (0, 0, 0, 9, 2, 4))
    assert got[:, 0, 3] / 0.01 == pytest.approx([1 / 4e-7] * 4, rel=1e-14)
    assert (got[:, 1, 3] / 0.01 < 1.2e5).all()


def test_energy_scales_the_dead_times(client, play, names):
    sim = play("-kind=4", "-chans=2", f"-index={INDEX}", "-speed=100")
    config(client, sim, 1, 4)
    sim.do("events set 0 -1 rate 4e5 a 4e-7 c 3e-7 resets 0.0")
    count(client, 4, 800_000)
    handle = do(client, "pulsar3 open-scalers 0 dtc")
    do(client, "pulsar3 dtc set-params 0 -1 0.0 4e-7 0.0 3e-7")
    fixed = read(client, names("a"), handle, (0, 0, 0, 9, 2, 4))
    do(client, "pulsar3 dtc set-params 0 -1 5e-8 1.5e-7 2.5e-8 1.75e-7")
    do(client, "pulsar3 dtc energy 0 5.0")
    assert read(client, names("b"), handle, (0, 0, 0, 9, 2, 4)) == pytest.approx(fixed, rel=1e-12)
    do(client, "pulsar3 dtc energy 0 6.0")
    assert (read(client, names("c"), handle, (0, 0, 0, 9, 2, 4))[:, :, 3] > 1.01 * fixed[:, :, 3]).all()


@pytest.mark.parametrize("name, words", [("model, b = 0", ""), ("model, peak by b", " rate-terms"),
                                         ("non-paralysable events", " rate-terms")])
def test_dead_times_are_found_from_rates_and_correct_other_data(client, play, names, name, words):
    model = CASES[name]
    raw, _ = counted(client, play, names, model)
    points = raw.sum(axis=0)  # channels see the same dead times at different rates: points of a series
    live = (points[:, 0] - points[:, 1]) / 8e7
    do(client, f"module create '{names('rates')}' {CHANNELS} 3 header double")
    Module(names("rates")).data[:] = np.array(RATES) / 2500, points[:, 3] / live, points[:, 5] / live
    handle = do(client, f"module open '{names('rates')}' header")
    lines = client.lines(f"maths pulsar-dtc {handle} time {live.mean()!r} path 0{words}")
    assert lines[-1] == "* 0", lines
    value = {key: float(client.lines(f"%pulsar_dtc_{key}")[0][2:]) for parameter in "kabscd"
             for key in (parameter, parameter + "_err")}
    truth = {"k": 2500, "a": model.a, "b": model.b, "s": 1, "c": model.c, "d": model.d}
    for key in "kabscd" if words else "kasc":
        # Events that a dead time follows are spread less than the errors take them to be, and share both rates.
        assert abs(value[key] - truth[key]) < 4 * value[key + "_err"], (key, value[key], value[key + "_err"])
    command, = [line[2:] for line in lines if line.startswith("# pulsar3 ")]
    assert client.lines("%pulsar_dtc_command")[0] == f'* "{command}"'
    do(client, command)
    corrected = read(client, names("again"), 1, (0, 0, 0, 9, CHANNELS, FRAMES))
    assert corrected[:, :, 3].mean(axis=0) / FRAME == pytest.approx(RATES, rel=0.04)
    assert (corrected[:, -3:, 3].mean(axis=0) / FRAME) == pytest.approx(RATES[-3:], rel=0.005)


def test_rates_that_cannot_be_fitted(client, names):
    do(client, f"module create '{names('rates')}' 6 3 header double")
    rates = Module(names("rates")).data
    handle = do(client, f"module open '{names('rates')}' header")
    rates[:] = np.outer([1, 2, 3], np.ones(6))
    for line, texts in (
            ("7", ["! Device handle is stale (passed 7)."]),
            (f"{handle} 0 1", ["! At least 3 points are needed, not 2"]),
            (f"{handle} 0 2 rate-terms", ["! At least 4 points are needed, not 3"]),
            (f"{handle} time 0.0", ["! The time of a point should be above 0, not 0"]),
            (f"{handle}", ["! The points do not fix the dead times"])):
        assert refused(client, f"maths pulsar-dtc {line}") == texts, line
    for line in (f"{handle} 0 6", f"{handle} 3 2", f"{handle} frame 1"):
        assert refused(client, f"maths pulsar-dtc {line}"), line
    rates[1, 2:] = 0, -1, math.nan, math.inf
    assert client.lines(f"maths pulsar-dtc {handle}")[:2] == [
        "# 4 points are left out: all three rows should be above 0", "! At least 3 points are needed, not 2"]


def test_histograms_are_corrected_by_the_factors_of_their_frames(client, play, names):
    sim = play("-cards=2", "-kind=4", "-chans=2", f"-index={INDEX}", "-speed=10")
    config(client, sim, 2, 5)
    for card in range(2):
        for chan in range(2):
            sim.do(f"events set {card} {chan} rate {3e5 * (1 + 2 * card + chan)} a 4e-7 c 3e-7")
    do(client, "pulsar3 dtc set-params 0 -1 0.0 4e-7 0.0 3e-7")
    do(client, "pulsar3 dtc set-params 0 2 0.0 4e-7 0.0 3e-7 omit-chan")
    do(client, "pulsar3 format-run 0 -1 nbits-eng 10 nbits-aux1 1")
    do(client, "pulsar3 setup-timing 0 internal time 0.01 frames 5")
    scalers, corrected_scalers = do(client, "pulsar3 open-scalers 0"), do(client, "pulsar3 open-scalers 0 dtc")
    mca, corrected_mca = do(client, "pulsar3 open-mca 0"), do(client, "pulsar3 open-mca 0 dtc")
    do(client, f"enable {scalers}")
    events = lambda handle: read(client, names("s"), handle, (0, 0, 0, 9, 4, 5))[:, :, 5]
    rows = lambda handle: read(client, names("h"), handle, (0, 0, 0, 1024, 8, 5))  # two auxiliary bins a channel
    total = lambda data: data.reshape(5, -1).sum(axis=1)
    wait_until(lambda: (total(rows(mca)) == total(events(scalers))).all() and (events(scalers) > 1000).all(), "all frames")
    do(client, f"disable {corrected_mca}")
    counts, corrected = rows(mca).astype(float), rows(corrected_mca)
    factors = np.divide(events(corrected_scalers), events(scalers))
    assert (factors[:, 2] == 0).all() and (factors[:, [0, 1, 3]] > 1.1).all()
    assert corrected == pytest.approx(counts * np.repeat(factors, 2, axis=1)[:, :, np.newaxis], rel=1e-12)
