"""Reductions, binary operations and the straight-line fit, on modules whose contents numpy knows too."""
import pathlib

import numpy as np
import pytest
from kestrel_data import Module, do, held, refused

TYPES = {"": np.uint32, "float": np.float32, "double": np.float64}


def mapped(name):
    """A module's elements as numpy sees them: (t, y, x)."""
    data = Module(name).data
    return data.reshape((-1, *data.shape[-2:]))


@pytest.fixture
def volume(client, names):
    """volume(keyword, array) -> handle of a module with those contents."""
    made = []

    def make(kind, array):
        name = names(f"v{len(made)}")
        made.append(name)
        nt, ny, nx = array.shape
        frames = f"num-t {nt}" if nt > 1 else ""
        do(client, f"module create '{name}' {nx} {ny} header {kind} {frames}")
        mapped(name)[:] = array
        return do(client, f"module open '{name}' header")

    return make


def random_volume(kind, shape=(5, 6, 9), seed=1):
    values = np.random.default_rng(seed).integers(0, 1000, shape)
    return (values if kind == "" else values / 8).astype(TYPES[kind])


def answer(client, line):
    return float(client.lines(line)[-1][2:])


@pytest.mark.parametrize("kind", TYPES)
def test_accumulate_sums_a_region(client, volume, kind):
    data = random_volume(kind)
    handle = volume(kind, data)
    assert answer(client, f"maths accumulate {handle} 0 0 0 8 5 4") == pytest.approx(data.sum(dtype=float), rel=1e-5)
    part = data[1:4, 2:6, 3:8].sum(dtype=float)
    for corners in "3 2 1 7 5 3", "7 5 3 3 2 1", "7 2 3 3 5 1":
        assert answer(client, f"maths accumulate {handle} {corners}") == pytest.approx(part, rel=1e-5)


def test_a_row_of_counts_wraps_at_32_bits(client, volume):
    data = np.full((1, 2, 4), 0x30000000, np.uint32)
    handle = volume("", data)
    rows = 2 * (4 * 0x30000000 - 2**32)
    assert rows < 0 and answer(client, f"maths accumulate {handle} 0 0 0 3 1 0") == pytest.approx(rows, rel=1e-5)


def test_regions_outside_are_refused(client, volume):
    handle = volume("", random_volume(""))
    assert refused(client, f"maths accumulate {handle} 0 0 0 9 5 4") == [
        "! ERROR: Requested region (0, 0, 0) + (10, 6, 5) does not fit in memory (9, 6, 5)"]
    for corners in "-1 0 0 3 3 3", "0 0 0 8 5 5", "0 0 0 2147483647 0 0", "-2147483647 0 0 2147483647 0 0":
        assert refused(client, f"maths accumulate {handle} {corners}")[0].startswith("! ERROR: Requested region ")
    assert refused(client, "maths accumulate 19 0 0 0 0 0 0") == ["! Invalid unified handle"]
    short = do(client, "test open 4 4 1 short")
    assert refused(client, f"maths accumulate {short} 0 0 0 3 3 0") == [
        "! Can only handle float or long and some double data for umaths"]


def centroids(f, fc):
    return np.divide(fc, f, out=np.zeros_like(fc), where=f > 0)


def moments(data, axis, origin):
    coordinate = np.arange(data.shape[axis]) + origin + 0.5
    shape = [1, 1, 1]
    shape[axis] = -1
    values = data.astype(float)
    return values.sum(axis), (values * coordinate.reshape(shape)).sum(axis)


def test_measure_peak(client, volume):
    data = random_volume("float")
    handle = volume("float", data)
    lines = client.lines(f"maths measure-peak {handle} 1 2 1 7 5 3 'p'")
    part = data[1:4, 2:6, 1:8].astype(float)
    means = {}
    for letter, axis, origin in ("x", 2, 1), ("y", 1, 2), ("t", 0, 1):
        coordinate = np.arange(part.shape[axis]) + origin + 0.5
        weights = part.sum(tuple({0, 1, 2} - {axis}))
        mean = (weights * coordinate).sum() / weights.sum()
        deviation = np.sqrt((weights * (coordinate - mean) ** 2).sum() / weights.sum())
        assert answer(client, f"%p.{letter}_mean") == pytest.approx(mean, rel=1e-5)
        assert answer(client, f"%p.{letter}_sd") == pytest.approx(deviation, rel=1e-4)
        means[letter] = mean
    assert lines[-1] == f"* {means['x']:g}"
    assert f"# Total    = {part.sum():g}" in lines and f"# Average  = {part.mean():g}" in lines
    assert client.lines(f"maths measure-peak {handle} 1 2 1 7 5 3 y")[-1] == "* 0", "X is not measured"
    quiet = client.lines(f"maths measure-peak {handle} 1 2 1 7 5 3 x threshold 1000.0")
    assert "# Total    = 0" in quiet and quiet[-1] == "* 0"
    assert client.lines(f"maths measure-peak {handle} 1 1 1 1 1 1")[-2:] == ["! Nothing to do ?", "* 0"]


def test_measure_flood(client, volume):
    data = random_volume("")
    handle = volume("", data)
    client.cmd(f"maths measure-flood {handle} 0 0 0 8 5 4 'f' quiet")
    for name, value in ("total", data.sum()), ("mean", data.mean()), ("rms", data.std()), ("max", data.max()), \
            ("min", data.min()), ("rms_percent", data.std() * 100 / data.mean()):
        assert answer(client, f"%f.{name}") == pytest.approx(float(value), rel=1e-5)
    assert client.lines(f"maths measure-flood {handle} 0 0 0 8 5 4 mask $ff quiet")[-1] == f"* {(data & 255).mean():g}"
    constant = volume("float", np.full((1, 3, 3), 2, np.float32))
    lines = client.lines(f"maths measure-flood {constant} 0 0 0 2 2 0")
    assert "# RMS Noise      = -1" in lines and "# RMS Noise/Mean = -100%" in lines
    byte = do(client, "test open 300 2 1 byte")
    assert client.lines(f"maths measure-flood {byte} 0 0 0 299 1 0 quiet")[-1].startswith("* ")


def test_search_outliers(server, client, volume):
    data = random_volume("")
    handle = volume("", data)
    found = [(x, y, t, data[t, y, x]) for t in range(5) for y in range(6) for x in range(9)
             if data[t, y, x] > 950 or data[t, y, x] < 20]
    assert found
    assert client.lines(f"maths search-outliers {handle} 0 0 0 8 5 4 'o.txt' quiet above 950.7 below 20.0")[-1] == (
        f"* {len(found)}")
    text = (server.cwd / "o.txt").read_text()
    assert text == "".join(f"{n}\t{x}\t{y}\t{t}\t{v}\n" for n, (x, y, t, v) in enumerate(found))
    assert client.lines(f"maths search-outliers {handle} 0 0 0 8 5 4 'o.txt' quiet append")[-1] == "* 0"
    assert (server.cwd / "o.txt").read_text() == text
    assert refused(client, f"maths search-outliers {handle} 0 0 0 8 5 4 'none/o.txt' above 1.0") == [
        "! Cannot open file 'none/o.txt'"]


@pytest.mark.parametrize("kind", ["", "float"])
@pytest.mark.parametrize("target, axes", [("x", (0, 1)), ("y", (0, 2)), ("t", (1, 2)), ("xy", 0), ("xt", 1), ("yt", 2)])
def test_integrate_projects(client, volume, names, kind, target, axes):
    data = random_volume(kind)
    handle = volume(kind, data)
    line = f"maths integrate {handle} 0 0 0 8 5 4 {target}"
    do(client, f"{line} module '{names('r')}'")
    expected = data.sum(axes, dtype=float)
    assert np.array_equal(np.squeeze(mapped(names("r"))), expected)
    do(client, f"{line} no-clear module '{names('r')}'")
    assert np.array_equal(np.squeeze(mapped(names("r"))), 2 * expected)
    do(client, f"{line} average module '{names('r')}'")
    mean = data.mean(axes, dtype=float)
    got = np.squeeze(mapped(names("r")))
    assert np.array_equal(got, np.floor(mean)) if kind == "" else np.allclose(got, mean, rtol=1e-6)


def test_integrate_places_its_result_and_touches_nothing_else(client, volume, names):
    data = random_volume("float")
    handle = volume("float", data)
    do(client, f"module create '{names('r')}' 20 12 header float num-t 3")
    mapped(names("r"))[:] = -7
    do(client, f"maths integrate {handle} 0 0 0 8 5 4 xy module '{names('r')}' start-x 4 start-y 3 start-t 1")
    got = mapped(names("r")).copy()
    assert np.array_equal(got[1, 3:9, 4:13], data.sum(0))
    got[1, 3:9, 4:13] = -7
    assert (got == -7).all()


def test_integrate_into_its_own_source(client, volume, names):
    data = random_volume("float", (1, 6, 9))
    handle = volume("float", data)
    do(client, f"maths integrate {handle} 0 0 0 8 5 0 x module '{names('v0')}'")
    got = mapped(names("v0"))[0]
    assert np.array_equal(got[0], data[0].sum(0)) and np.array_equal(got[1:], data[0, 1:])


def test_output_refusals(server, client, volume, names):
    handle = volume("float", random_volume("float"))
    before = held(server)
    n = names("r")
    region = f"{handle} 0 0 0 8 5 4"
    for line, message in [
            (f"integrate {region} xy xt module '{n}'", "! Must specify exactly one of X, Y, T ,XY, XT, YT"),
            (f"integrate {region} x", "! Only support module mode output at the moment"),
            (f"integrate {region} x tessera 'f'", "! Only support module mode output at the moment"),
            (f"integrate {region} x module '{n}' start-x -1", "! Start point of the result should be >= 0, not (-1, 0, 0)"),
            (f"integrate {region} x no-clear module '{n}'",
             f"! UMATHS OUTPUT, specified Read then write, but cannot link to module '{n}'"),
            (f"weighted-sum {handle} 0 0 0 0 5 4 x module '{n}'", "! Why form SUM FX when dx == 1"),
            (f"centroid {region} x threshold 1.5 module '{n}'", "! Relative threshold should be 0..1.0, not 1.5"),
            (f"re-bin {region} x 1 module '{n}'", "! EROR Expected rebin X to be in range 2 to 4 not 1"),
            (f"re-bin {region} t 3 module '{n}'", "! EROR Expected rebin T to be in range 2 to 2 not 3")]:
        assert refused(client, "maths " + line)[0] == message
    assert not pathlib.Path("/dev/shm", n).exists()
    do(client, f"module create '{n}' 8 1 header float")
    assert refused(client, f"maths integrate {region} x module '{n}'") == [
        f"! Error, module '{n}' exists but is too small (8,1)", "! Require at least (9, 1)"]
    assert refused(client, f"maths integrate {handle} 0 0 0 7 5 4 x module '{n}' start-t 0") == [
        f"! Module '{n}' is  only 2D, do not specify start t"]
    do(client, f"module create '{names('u')}' 9 1 header")
    assert refused(client, f"maths integrate {region} x module '{names('u')}'") == [
        f"! Error, module '{names('u')}' exists but is wrong data type 1 not 3"]
    assert held(server) == before
    double = volume("double", random_volume("double"))
    for command, message in [("integrate", "integrate"), ("weighted-sum", "weighted integrate"),
                             ("centroid", "centroid2")]:
        assert refused(client, f"maths {command} {double} 0 0 0 8 5 4 x module '{n}'") == [
            f"! Umaths {message} cannot handle double data yet"]


@pytest.mark.parametrize("kind", ["", "float"])
@pytest.mark.parametrize("letter, axis, origin", [("x", 2, 1), ("y", 1, 2), ("t", 0, 1)])
def test_centroids(client, volume, names, kind, letter, axis, origin):
    data = random_volume(kind)
    data[:, 3, 3] = 0
    handle = volume(kind, data)
    part = data[1:5, 2:6, 1:9]
    f, fc = moments(part, axis, origin)
    region = f"{handle} 1 2 1 8 5 4 {letter}"
    do(client, f"maths weighted-sum {region} module '{names('w')}'")
    assert np.allclose(np.squeeze(mapped(names("w"))), fc, rtol=1e-6)
    do(client, f"maths centroid {region} module '{names('c')}'")
    assert np.allclose(np.squeeze(mapped(names("c"))), centroids(f, fc), rtol=1e-6)
    if kind == "float":
        do(client, f"maths centroid-old {region} module '{names('o')}'")
        assert np.allclose(np.squeeze(mapped(names("o"))), centroids(f, fc), rtol=1e-5)
    do(client, f"maths centroid {region} threshold 0.5 module '{names('h')}'")
    kept = np.where(part < 0.5 * part.max(axis, keepdims=True), 0, part)
    f, fc = moments(kept, axis, origin)
    assert np.allclose(np.squeeze(mapped(names("h"))), centroids(f, fc), rtol=1e-6)


@pytest.mark.parametrize("kind", ["", "float"])
@pytest.mark.parametrize("x, y, t", [(2, 1, 1), (1, 3, 1), (4, 2, 2), (3, 1, 2)])
def test_re_bin(client, volume, names, kind, x, y, t):
    data = random_volume(kind)
    handle = volume(kind, data)
    factors = "".join(f" {axis} {n}" for axis, n in (("x", x), ("y", y), ("t", t)) if n > 1)
    do(client, f"maths re-bin {handle} 0 0 0 8 5 4{factors} module '{names('r')}'")
    nt, ny, nx = 5 // t, 6 // y, 9 // x
    whole = data[:nt * t, :ny * y, :nx * x].astype(float)
    assert np.array_equal(mapped(names("r")), whole.reshape(nt, t, ny, y, nx, x).sum((1, 3, 5)))


OPERATORS = {"add": np.add, "sub": np.subtract, "mult": np.multiply}


@pytest.mark.parametrize("a_kind", TYPES)
@pytest.mark.parametrize("b_kind", TYPES)
def test_binary_operations_of_every_pair_of_types(client, volume, names, a_kind, b_kind):
    a, b = random_volume(a_kind, seed=2), random_volume(b_kind, seed=3)
    handles = f"{volume(a_kind, a)} {volume(b_kind, b)}"
    a32, b32 = a.astype(np.float32), b.astype(np.float32)
    for word, operator in OPERATORS.items():
        do(client, f"maths binary-op {handles} {word} module '{names('r')}'")
        assert np.array_equal(mapped(names("r")), operator(a32, b32)), word
        do(client, f"maths binary-op {handles} {word} scale 0.3 module '{names('r')}'")
        assert np.array_equal(mapped(names("r")), operator(a32, b32) * np.float32(0.3)), word
    do(client, f"maths binary-op {handles} div module '{names('r')}'")
    with np.errstate(all="ignore"):
        quotient = a32 / b32
    assert np.array_equal(mapped(names("r")), np.where(b32 > 1, quotient, 0))
    do(client, f"maths binary-op {handles} div threshold 0.0 module '{names('r')}'")
    assert np.array_equal(mapped(names("r")), quotient, equal_nan=True)


def test_binary_operations_repeat_lines_and_frames(client, volume, names):
    a = random_volume("float")
    handle = volume("float", a)
    frame, line = volume("float", a[:1]), volume("float", a[:1, :1])
    lines = client.lines(f"maths binary-op {handle} {frame} add module '{names('r')}'")
    assert "# Repeating frames of image B" in lines and lines[-1] == "* 0"
    assert np.array_equal(mapped(names("r")), a + a[:1])
    do(client, f"maths binary-op {handle} {line} sub module '{names('r')}'")
    assert np.array_equal(mapped(names("r")), a - a[:1, :1])
    do(client, f"maths binary-op {handle} {handle} 0 0 0 8 5 0 0 0 4 add module '{names('s')}'")
    assert np.array_equal(mapped(names("s"))[0], a[0] + a[4])
    do(client, f"maths binary-op {handle} {handle} 3 1 mult module '{names('p')}'")
    assert np.array_equal(mapped(names("p")), a[1:4] * a[:3]), "B starts at its origin"
    two = volume("float", a[:2])
    assert refused(client, f"maths binary-op {handle} {two} add module '{names('r')}'") == [
        "! ERROR: Image number of frame are different (5 and 2)"]
    assert refused(client, f"maths binary-op {handle} {handle} add sub module '{names('r')}'") == [
        "! ERROR: Must specify one of add, sub, mult, div"]
    assert refused(client, f"maths binary-op {handle} 19 add module '{names('r')}'") == [
        "! Something wrong with unified handles"]
    assert refused(client, f"maths binary-op {handle} {handle} 1 2 3 add")[0].startswith("! Acceptable numbers")


# The straight line of the NIST reference set Norris: certified slope and intercept.
NORRIS = """0.1 0.2 338.8 337.4 118.1 118.2 888.0 884.6 9.2 10.1 228.1 226.5 668.5 666.3 998.5 996.3 449.1 448.6
778.9 777.0 559.2 558.2 0.3 0.4 0.1 0.6 778.1 775.5 668.8 666.9 339.3 338.0 448.9 447.5 10.8 11.6 557.7 556.0
228.3 228.1 998.0 995.8 888.8 887.6 119.6 120.2 0.3 0.3 0.6 0.3 557.6 556.8 339.3 339.1 888.0 887.2 998.5 999.0
778.9 779.0 10.2 11.1 117.6 118.3 228.9 229.2 668.4 669.1 449.2 448.9 0.2 0.5"""


def test_least_squares_against_certified_values(client, volume, names):
    pairs = np.array([float(word) for word in NORRIS.split()]).reshape(-1, 2)
    y, x = pairs.T  # the set lists y before x
    volume("double", np.array([[y, x, np.zeros(36), np.zeros(36)]]))
    lines = client.lines(f"maths leastsqr-fit '{names('v0')}' 0 35 0 'l' errors 2 fit 3 x-row 1")
    assert lines[-1] == "* 0"
    fit = mapped(names("v0"))[0]
    slope = (fit[3, 0] - fit[3, 1]) / (x[0] - x[1])
    intercept = fit[3, 0] - slope * x[0]
    assert slope == pytest.approx(1.00211681802045, rel=1e-12)
    assert intercept == pytest.approx(-0.262323073774029, rel=1e-9)
    assert np.allclose(fit[2], y - fit[3], atol=1e-11)
    worst = int(np.abs(fit[2]).argmax())
    assert lines[0] == f"# Max error is {abs(fit[2, worst]):g} at point {worst}"
    assert lines[1] == "# y = 1.00212*x+-0.262323"
    assert client.lines("%lm") == ["* 1.00212"]


def test_lines_through_a_point(client, volume, names):
    volume("double", np.array([[[3.0, 5.0, 7.0, 9.0, 0.0], [0, 0, 0, 0, 0]]]))
    n = names("v0")
    assert "# y = 2*x+3" in client.lines(f"maths leastsqr-fit '{n}' 0 3 0 fit 1 extrapolate")
    assert list(mapped(n)[0, 1]) == [3, 5, 7, 9, 11]
    assert "# y = 2*x+0" in client.lines(f"maths leastsqr-fit '{n}' 0 3 0 cross-x0 -1.5")
    assert "# y = 3.28571*x+0" in client.lines(f"maths leastsqr-fit '{n}' 0 3 0 const-zero")
    for line, message in [(f"'{n}' 0 5 0", "! First and last should be in range 0 to 4, not 0, 5"),
                          (f"'{n}' 0 3 2", "! Row should be 0..1 not 2"),
                          (f"'{n}' 0 3 0 x-row 9", "! X Row should be 0..1 not 9"),
                          (f"'{n}' 0 3 0 errors -1", "! Error Row should be 0..1 not -1"),
                          (f"'{n}' 0 3 0 fit 2", "! Fit Row should be 0..1 not 2"),
                          (f"'{n}' 2 2 0", "! A straight line needs at least 2 points, not 2 to 2")]:
        assert refused(client, "maths leastsqr-fit " + line) == [message]
    assert refused(client, "maths leastsqr-fit 'no_such' 0 3 0") == ["! Cannot link to module 'no_such', errno = 2"]


def test_sources_beyond_all_memory_are_refused(client, names):
    assert "! A source of 1 x 2147352580 x 1073807362 elements is too large" in refused(
        client, "test open 1 2147352580 1073807362 double")
    do(client, f"module create '{names('a')}' 1 1 header")
    assert refused(client, f"module copy '{names('a')}' '{names('b')}' dst-t 2000000000 max-x 100000 quiet")
