"""Peak fits of spectra with a known truth, and of a measured one."""
import itertools
import math
import pathlib
import re
import time

import numpy as np
import pytest
from kestrel_data import Module, do, held, refused, result
from kestrel_session import SCALE

EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples"
ENERGIES = (5.8950, 6.4904)  # keV, what fe55 fits
GAIN = 0.010


def fitted(name):
    """Label -> points (second scan axis, scan axis) of a result module."""
    return Module(name).frames()


def gauss(x, posn, area, sigma):
    return area / (sigma * math.sqrt(2 * math.pi)) * np.exp(-((x - posn) ** 2) / (2 * sigma**2))


def two_lines(area, sigma=6.0, channels=1024, gain=GAIN):
    x = np.arange(channels)
    return gauss(x, ENERGIES[0] / gain, area, sigma) + gauss(x, ENERGIES[1] / gain, 0.134 * area, sigma)


@pytest.fixture
def make(client, names):
    """make(array, kind) -> name of a module with these rows, or frames of rows."""
    count = itertools.count()

    def module(array, kind=""):
        name = names(f"s{next(count)}")
        frames = f"num-t {array.shape[0]}" if array.ndim == 3 else ""
        do(client, f"module create '{name}' {array.shape[-1]} {array.shape[-2]} header {kind} {frames}")
        Module(name).data[:] = array
        return name

    return module


def noisy(count, area, seed=1, **how):
    return np.random.default_rng(seed).poisson(two_lines(area, **how), (count, how.get("channels", 1024)))


def test_a_row_of_a_module(client, names, make):
    name = make(noisy(3, 1e5))
    value, lines = result(client, f"peak-fit module '{name}' '{names('r')}' 1 1 fe55 no-lor")
    assert value == 0
    point = re.fullmatch(r"# Point 1 : Fitted posn=(\S+), Hgt=(\S+), FWHM \(kev\)=(\S+), sigma=(\S+), lor_wid=0, "
                         r"lor_frac=0", lines[-1])
    assert [float(text) for text in point.groups()] == pytest.approx([589.5, 1e5 / 15.04, 0.1413, 6.0], rel=0.01)
    fit = fitted(names("r"))
    assert list(fit)[:17] == ["posn[0]", "posn[1]", "height[0]", "height[1]", "sigma[0]", "sigma[1]", "lor_wid[0]",
                              "lor_wid[1]", "lor_frac[0]", "lor_frac[1]", "eng_cal", "fwhm_codes[0]", "fwhm_codes[1]",
                              "fwhm_kev[0]", "fwhm_kev[1]", "valley_peak", "tail_total"]
    row = Module(name).data[1].astype(float)
    p0, p1 = (float(fit[f"posn[{i}]"][0, 0]) for i in (0, 1))
    assert fit["mca_total"][0, 0] == row.sum() and fit["most_total"][0, 0] == row[200:].sum()
    assert fit["peaks_total"][0, 0] == row[int(0.85 * p0):int(1.15 * p1) + 1].sum()
    assert fit["tail_total"][0, 0] == pytest.approx(
        row[int(0.85 * p0):int(0.95 * p0) + 1].sum() / row[int(0.85 * p0):int(1.15 * p1) + 1].sum())
    assert fit["eng_cal"][0, 0] == pytest.approx((ENERGIES[1] - ENERGIES[0]) / (p1 - p0))
    assert fit["fwhm_kev[0]"][0, 0] == pytest.approx(
        fit["sigma[0]"][0, 0] * math.sqrt(8 * math.log(2)) * fit["eng_cal"][0, 0])


@pytest.mark.parametrize("kind", ["", "float", "double"])
def test_any_axis_may_be_energy(client, names, make, kind):
    spectra = noisy(6, 1e4).reshape(2, 3, 1024)  # second scan axis, scan axis, energy
    expected = None
    for axis, order in ("x", (0, 1, 2)), ("y", (0, 2, 1)), ("t", (2, 0, 1)):
        array = spectra.transpose(order)
        nt, ny, nx = array.shape
        handle = do(client, f"module open '{make(array, kind)}' header")
        r = names("r" + axis)
        assert result(client, f"peak-fit unified {handle} 0 0 0 {nx - 1} {ny - 1} {nt - 1} '{r}' {axis} fe55")[0] == 0
        data = Module(r).data.copy()
        assert data.shape[1:] == (2, 3)
        expected = data if expected is None else expected
        assert np.array_equal(data, expected)


def test_threads_and_where_spectra_come_from_change_nothing(server, client, names, make):
    spectra = noisy(70, 3000, seed=5).astype("u4")
    spectra.tofile(server.cwd / "s.raw")
    name = make(spectra)
    module = do(client, f"module open '{name}' header")
    file = do(client, "file open 's.raw' raw nx 1024 ny 70 long")
    outcomes = []
    for threads, source in (1, module), (8, module), (64, module), (8, file), (8, None):
        do(client, f"peak-fit max-threads {threads}")
        line = f"unified {source} 0 0 0 1023 69 0" if source is not None else f"module '{name}'"
        rows, r = "" if source is not None else "0 69", names(f"r{len(outcomes)}")
        outcomes.append((do(client, f"peak-fit {line} '{r}' {rows} fe55 by-top-sum"), Module(r).data.tobytes()))
    assert len(set(outcomes)) == 1
    for bad in 0, 65, -1:
        assert refused(client, f"peak-fit max-threads {bad}") == ["! ERROR: Please set max threads in range 1..64"]


def test_bias_and_pulls_of_many_noisy_spectra(client, names, make):
    """Thousands of spectra: the mean of the results is the truth, and their spread is the stated error."""
    do(client, "peak-fit max-threads 4")
    for area, count, tails in (176, 800, ""), (2000, 1500, "no-lor"), (1e5, 1500, "no-lor"), (1e5, 800, ""):
        name, r = make(noisy(count, area, seed=int(area))), names(f"r{int(area)}{tails}")
        result(client, f"peak-fit module '{name}' '{r}' 0 {count - 1} fe55 {tails}")
        fit = fitted(r)
        truth = {"posn[0]": 589.5, "posn[1]": 649.04, "sigma[0]": 6.0, "area[0]": area}
        for label, true in truth.items():
            values, errors = fit[label][0], fit[label.replace("[", "_err[")][0]
            known = errors > 0  # a line may be lost among so few counts
            assert known.mean() > (0.8 if label == "posn[1]" else 0.999), label
            values, errors = values[known], errors[known]
            pulls = (values - true) / errors
            # Of few counts, sigma is a little small; tails cannot be negative, and make the area a little large.
            assert abs(values.mean() - true) < (0.25 if "posn" not in label and not tails else 0.15) * values.std(), label
            # The width of 1500 pulls is known to 0.02; few counts have large fluctuations.
            assert 0.8 < pulls.std() < (1.2 if area < 1000 else 1.1), (area, label, pulls.std())


def test_spectra_with_tails(client, names, make):
    """A Lorentzian part is found, and not invented for spectra without it."""
    x = np.arange(1024)
    tails = sum(height * (0.8 * np.exp(-((x - p) ** 2) / (2 * 6.0**2)) + 0.2 / (((x - p) / 12.0) ** 2 + 1))
                for p, height in ((589.5, 5000), (649.04, 670)))
    rng = np.random.default_rng(3)
    name = make(rng.poisson(tails, (40, 1024)))
    result(client, f"peak-fit module '{name}' '{names('r')}' 0 39 fe55")
    fit = fitted(names("r"))
    assert fit["lor_frac[0]"].mean() == pytest.approx(0.2, abs=0.01)
    assert fit["lor_wid[0]"].mean() == pytest.approx(12, abs=0.7)
    assert fit["posn[0]"].mean() == pytest.approx(589.5, abs=0.05)
    # Small ones, too, with the errors that are stated: two in a hundred of the height.
    height = 1e5 / 15.04
    small = sum(part * height * (0.98 * np.exp(-((x - p) ** 2) / 72) + 0.02 / (((x - p) / 12.0) ** 2 + 1))
                for p, part in ((589.5, 1.0), (649.04, 0.134)))
    name = make(rng.poisson(small, (300, 1024)))
    result(client, f"peak-fit module '{name}' '{names('w')}' 0 299 fe55")
    fit = fitted(names("w"))
    area = height * (0.98 * 6.0 * math.sqrt(2 * math.pi) + 0.02 * 12.0 * math.pi)
    pulls = (fit["area[0]"][0] - area) / fit["area_err[0]"][0]
    assert (fit["lor_frac[0]"][0] > 0).mean() > 0.98 and abs(pulls.mean()) < 0.35 and 0.7 < pulls.std() < 1.1
    # In a mean of many spectra the noise is less than that of counts, and tails show that would drown in it.
    mean = make(np.array([0.01 * rng.poisson(100 * 0.05 * small)]), "double")
    result(client, f"peak-fit module '{mean}' '{names('m')}' 0 0 fe55")
    assert 0.005 < fitted(names("m"))["lor_frac[0]"][0, 0] < 0.06
    plain = make(noisy(40, 1e5))
    result(client, f"peak-fit module '{plain}' '{names('p')}' 0 39 fe55")
    assert fitted(names("p"))["lor_frac[0]"].mean() < 0.01


def test_poor_spectra_are_counted_or_summed(client, names, make):
    data = np.zeros((9, 1024), np.uint32)
    data[:] = noisy(9, 9)  # together some 90 counts
    name = make(data)
    value, lines = result(client, f"peak-fit module '{name}' '{names('r')}' 0 8 fe55 no-lor")
    assert value == 9
    assert lines[-1] == ("# WARNING : Number of points with Errors=0, insufficient counts=9, peaks near x1/2=0, large "
                         "values near x1/x2=0 out of 9")
    assert any(re.fullmatch(r"# Found peak < \S+ height, so not trying fit", line) for line in lines)
    assert (fitted(names("r"))["posn[0]"] == -1).all() and (fitted(names("r"))["tail_total"] == -1).all()
    _, lines = result(client, f"peak-fit module '{name}' '{names('r')}' 0 8 fe55 no-lor by-top-sum")
    retries = [line for line in lines if line.startswith("# Retrying with num_neb=")]
    assert "# Retrying with num_neb=2" in retries and "# Retrying with num_neb=16" not in retries
    fit = fitted(names("r"))
    assert fit["posn[0]"][0, 4] == pytest.approx(589.5, abs=6)
    _, lines = result(client, f"peak-fit module '{name}' '{names('one')}' 4 4 fe55 no-lor by-top-sum")
    reached = int(re.findall(r"num_neb=(\d+)", "\n".join(lines))[-1])  # neighbours that are not fitted themselves
    total = data[max(0, 4 - reached):5 + reached].sum()
    assert fitted(names("one"))["mca_total"][0, 0] == fit["mca_total"][0, 4] == total > data[4].sum()


def test_what_cannot_be_a_number_is_an_error(client, names, make):
    data = np.array(noisy(3, 1e4), np.float32)
    data[1, 100], data[2, 100] = math.nan, math.inf
    name = make(data, "float")
    value, lines = result(client, f"peak-fit module '{name}' '{names('r')}' 0 2 fe55")
    assert value == -1 and lines[-3:-1] == ["! Point 1 cannot be fitted", "! Point 2 cannot be fitted"]
    assert lines[-1].startswith("! ERROR : Number of points with Errors=2, ")
    assert fitted(names("r"))["posn[0]"][0].tolist()[1:] == [-1, -1]


def test_refusals(server, client, names, make):
    name = make(noisy(3, 1e4))
    fit = f"peak-fit module '{name}' '{names('r')}'"
    handle = do(client, f"module open '{name}' header")
    for line, text in (
            (f"{fit} 0 0 peak0 5.9 peak2 6.5", "! ERROR: Please supply peaks 0..1 without gaps, gap at 1"),
            (f"{fit} 0 0 element 'Xx'", "! ERROR: Cannot identify element name 'Xx'"),
            (f"{fit} 0 3 fe55", "! Row should be 0..2 not 3"),
            (f"{fit} 0 0 first-eng 1024", "! ERROR in first-x value 1024, expected0..1023"),
            (f"{fit} 0 0 first-eng 10 last-eng 9", "! ERROR in last-x value 9, expected0..1023"),
            (f"{fit} 0 0 pt mo peak0 3.0", "! ERROR: Can fit at most 8 peaks"),
            (f"{fit} 0 0 peak0 -1.0", "! ERROR: Energy of peak 0 should be above 0 and below 1e+06 keV, not -1"),
            (f"{fit} 0 0 peak0 1.0e308", "! ERROR: Energy of peak 0 should be above 0 and below 1e+06 keV, not 1e+308"),
            (f"peak-fit module '{names('none')}' '{names('r')}' 0 0 fe",
             f"! Cannot link to module '{names('none')}', errno = 2"),
            (f"peak-fit module '{name}' '{name}' 0 0 fe55", "! The result module must not be the source"),
            (f"peak-fit unified {handle} 0 0 0 1023 2 0 '{name}' fe55", "! The result module must not be the source"),
            (f"peak-fit unified {handle} 0 0 0 1024 2 0 '{names('r')}' fe55",
             "! ERROR: Requested region (0, 0, 0) + (1025, 3, 1) does not fit in memory (1024, 3, 1)"),
            (f"peak-fit unified {handle} 0 0 0 1023 2 0 '{names('r')}' x y", "! Must specify exactly one of X, Y, T"),
            (f"peak-fit unified 19 0 0 0 1 1 0 '{names('r')}' x", "! Invalid unified handle"),
            ("peak-fit debug 1 pass 16", "! ERROR: Please set pass in range 0..15")):
        before = held(server)
        assert refused(client, line) == [text], line
        assert held(server) == before, line
    small = make(np.zeros((5, 2, 2)), "double")
    assert refused(client, f"peak-fit module '{name}' '{small}' 0 2 fe55") == ["! Out of space in result mod"]
    assert not pathlib.Path("/dev/shm", names("r")).exists()


def test_explicit_peaks_join_an_element(client, names, make):
    x = np.arange(1024)
    name = make(np.array([two_lines(1e5) + gauss(x, 740.0, 5e3, 6.5)]), "double")
    value, lines = result(client, f"peak-fit module '{name}' '{names('r')}' 0 0 fe55 peak0 7.4 no-lor")
    assert lines[0] == ("# Added user peak to element specific peak, num_peaks = 3, posn[0]=5.895 "
                        "[posn][num_peaks-1]=7.4")
    fit = fitted(names("r"))
    assert value == 0 and fit["posn[2]"][0, 0] == pytest.approx(740, abs=0.01)
    assert fit["area[2]"][0, 0] == pytest.approx(5e3, rel=1e-3)


def test_one_peak_of_unknown_energy(client, names, make):
    name = make(np.array([gauss(np.arange(300), 120.25, 1e4, 5)]), "double")
    assert result(client, f"peak-fit module '{name}' '{names('r')}'")[0] == 0
    fit = fitted(names("r"))
    assert fit["posn[0]"][0, 0] == pytest.approx(120.25, abs=1e-3)
    assert fit["eng_cal"][0, 0] == 0 and fit["fwhm_kev[0]"][0, 0] == 0


def test_the_measured_steel(client, names):
    """Lines of a steel, six at once: K-alpha within 5 eV of its place by the calibration that came with the data."""
    do(client, f"module load '{EXAMPLES / 'steel_xrf_row.txt'}' '{names('steel')}' long")
    lines = {"Fe Ka": 6.3995, "Fe Kb": 7.0580, "Cr Ka": 5.4117, "Ni Ka": 7.4723, "Cr Kb": 5.9467, "Ni Kb": 8.2647}
    for order in itertools.islice(itertools.permutations(lines.values()), 0, 720, 143):  # any order will do
        peaks = " ".join(f"peak{i} {energy}" for i, energy in enumerate(order))
        result(client, f"peak-fit module '{names('steel')}' '{names('r')}' 0 0 {peaks}")
        fit = fitted(names("r"))
        for i, energy in enumerate(order):
            tolerance = 0.005 if energy in (6.3995, 5.4117, 7.4723) else 0.025  # lines of Mn and Cu lie beside the others
            assert 0.011928 * fit[f"posn[{i}]"][0, 0] - 0.006 == pytest.approx(energy, abs=tolerance), energy
        assert fit["eng_cal"][0, 0] == pytest.approx(0.011928, rel=1e-3)


def test_debugging_keeps_every_trial(server, client, names, make):
    name = make(noisy(1, 1e4))
    do(client, "peak-fit debug 3")
    try:
        _, lines = result(client, f"peak-fit module '{name}' '{names('r')}' 0 0 fe55 no-lor")
        passes = [line for line in lines if re.match(r"# Pass \d+, Solver returns (-2|[1-8]) after \d+ calls, tol =", line)]
        assert len(passes) == 5 and any(line.startswith("# Refining best pass=") for line in lines)
        assert any(line.startswith("# Note machine precission = 2.22045e-16, sqrt(machine prec) = ") for line in lines)
        debug = fitted("peakfit_debug0")
        assert list(debug) == ["Attempt", "Seed", "Residuals", "Function", "Energy", "pass"]
        assert np.allclose(debug["Attempt"] - debug["Function"], debug["Residuals"])
        assert np.array_equal(debug["Attempt"][0], Module(name).data[0])
        assert len(list(server.cwd.glob("peak_attempt000_*.txt"))) == 6
        do(client, "peak-fit debug 1 pass 2")
        _, lines = result(client, f"peak-fit module '{name}' '{names('r')}' 0 0 fe55")
        assert [line[:8] for line in lines if line.startswith("# Pass")] == ["# Pass 2"]
    finally:
        do(client, "peak-fit debug 0")
        pathlib.Path("/dev/shm/peakfit_debug0").unlink(missing_ok=True)


@pytest.mark.parametrize("threads", [1, 4])
def test_an_interrupt_ends_the_fits(server, client, names, make, threads):
    name = make(10 * noisy(4000, 1e5))  # ten times too noisy for any pass to be the last
    do(client, f"peak-fit max-threads {threads}")
    client.send(f"peak-fit module '{name}' '{names('r')}' 0 3999 fe55\n")
    client.recv_until("'Peak fit'\r\n")
    server.interrupt()
    assert client.recv_prompt().endswith(b"! Fitting terminated by ^C\r\n* -1\r\n")
    assert client.cmd("7") == b"* 7\r\n"


def test_an_interrupt_ends_a_running_solver(server, client, names, make):
    """One wide spectrum of many peaks, seconds of work: the reply comes at once."""
    x = np.arange(60000)
    wide = sum(gauss(x, 20000 + 4000 * i, 1e7 / (i + 1), 1500) for i in range(8))
    name = make(10 * np.random.default_rng(1).poisson(wide, (1, x.size)), "double")  # no pass comes down to the noise
    peaks = " ".join(f"peak{i} {20.0 + 4 * i}" for i in range(8))
    client.send(f"peak-fit module '{name}' '{names('r')}' 0 0 {peaks}\n")
    server.wait_until_busy()
    time.sleep(0.3)
    begin = time.monotonic()
    server.interrupt()
    assert b"! Fitting terminated by ^C\r\n" in client.recv_prompt()
    assert time.monotonic() - begin < 5 * SCALE
    assert (fitted(names("r"))["posn[0]"] == -1).all()
