"""Stability, smoothing, histograms, contours and masks, against formulas written anew with numpy."""
import pathlib

import numpy as np
import pytest
from kestrel_data import do, held, refused
from test_maths import TYPES, answer, mapped, random_volume, volume  # noqa: F401 (a fixture)

OUTPUT_ONLY = "! Only support module mode output at the moment"


def steadiness(data, axis):
    """(4, what remains): mean, deviation, smallest, largest."""
    wide = data.astype(np.longdouble)
    mean = wide.mean(axis, keepdims=True)
    deviation = np.sqrt(((wide - mean) ** 2).mean(axis))
    return np.stack([mean.squeeze(axis), deviation, data.min(axis), data.max(axis)]).astype(float)


@pytest.mark.parametrize("kind", TYPES)
@pytest.mark.parametrize("letter, axis", [("x", 2), ("y", 1), ("t", 0)])
def test_stability_along_each_axis(client, volume, names, kind, letter, axis):
    data = random_volume(kind)
    part = data[1:5, 2:6, 1:9]
    do(client, f"maths stability {volume(kind, data)} 1 2 1 8 5 4 {letter} module '{names('r')}'")
    assert np.allclose(mapped(names("r")), steadiness(part, axis), rtol=1e-13)
    do(client, f"maths stability 0 1 2 1 8 5 4 {letter} skip 2 module '{names('s')}'")
    kept = np.delete(part, [0, 1], axis)
    assert np.allclose(mapped(names("s")), steadiness(kept, axis), rtol=1e-13)


def test_stability_of_a_line_and_of_one_series(client, volume, names):
    data = random_volume("float", (7, 1, 5))
    handle = volume("float", data)
    do(client, f"maths stability {handle} 0 0 0 4 0 6 t module '{names('r')}'")
    assert mapped(names("r")).shape == (1, 4, 5), "a line gives four rows"
    assert np.allclose(mapped(names("r"))[0], steadiness(data[:, 0], 0))
    lines = client.lines(f"maths stability {handle} 2 0 0 2 0 6 t module '{names('r')}' start-x 1")
    expected = steadiness(data[:, 0, 2:3], 0)
    assert np.allclose(mapped(names("r"))[0, :, 1:2], expected)
    assert "# Aver = {:g}, Stdev = {:g}, Min = {:g}, Max = {:g}".format(*expected[:, 0]) in lines
    assert np.allclose(mapped(names("r"))[0, :, 2:], steadiness(data[:, 0, 2:], 0)), "what lies around is kept"


def test_stability_is_exact_for_a_small_spread_on_a_large_mean(client, volume, names):
    noise = np.random.default_rng(5).normal(0, 1e-3, (1, 1, 4000))
    handle = volume("double", 1e9 + noise)
    do(client, f"maths stability {handle} 0 0 0 3999 0 0 x module '{names('r')}'")
    deviation = mapped(names("r"))[0, 1, 0]
    assert deviation == pytest.approx(float(steadiness(1e9 + noise, 2)[1, 0, 0]), rel=1e-9)
    constant = volume("", np.full((3, 2, 2), 0xfffffffe, np.uint32))
    do(client, f"maths stability {constant} 0 0 0 1 1 2 t module '{names('c')}'")
    assert np.array_equal(mapped(names("c"))[:, 0, 0], [0xfffffffe, 0, 0xfffffffe, 0xfffffffe])
    do(client, f"maths stability {constant} 0 0 0 1 1 2 t signed module '{names('c')}'")
    assert np.array_equal(mapped(names("c"))[:, 0, 0], [-2, 0, -2, -2])


def test_stability_with_gaps_and_refusals(client, volume, names):
    data = random_volume("float", (4, 1, 3))
    data[2, 0, 1] = np.nan
    handle = volume("float", data)
    do(client, f"maths stability {handle} 0 0 0 2 0 3 t module '{names('r')}'")
    got = mapped(names("r"))[0]
    assert np.isnan(got[:2, 1]).all() and np.isfinite(np.delete(got, 1, 1)).all()
    assert got[2, 1] == np.nanmin(data[:, 0, 1]) and got[3, 1] == np.nanmax(data[:, 0, 1])
    region = f"maths stability {handle} 0 0 0 2 0 3"
    for line, message in [
            (f"{region} x y module 'n'", "! Must specify exactly one of X, Y, T"),
            (f"{region} y module 'n'", "! Nothing varies along Y AXIS as it is 1 long"),
            (f"{region} t skip 3 module 'n'", "! Skip should be in range 0 to 2, not 3"),
            (f"{region} t skip -1 module 'n'", "! Skip should be in range 0 to 2, not -1"),
            (f"{region} t", OUTPUT_ONLY), (f"{region} t carafe", OUTPUT_ONLY)]:
        assert refused(client, line) == [message]


def running_mean(values, width, wrapped=False):
    n, half = len(values), width // 2
    means = []
    for i in range(n):
        if wrapped:
            near = [values[(i + k) % n] for k in range(-half, half + 1)]
        else:
            reach = min(half, i, n - 1 - i)
            near = values[i - reach:i + reach + 1]
        means.append(np.mean(near, dtype=float))
    return np.array(means)


@pytest.mark.parametrize("kind", TYPES)
def test_smooth_takes_means_of_a_row(client, volume, names, kind):
    data = random_volume(kind, (2, 3, 40))
    volume(kind, data)
    for first, last, width in (0, 39, 1), (0, 39, 3), (5, 30, 7), (0, 39, 39), (10, 16, 7), (4, 4, 1):
        for word in "", "wrapped":
            mapped(names("v0"))[:] = data
            do(client, f"maths smooth '{names('v0')}' {first} {last} 4 1 {width} {word}")
            means = running_mean(data[1, 1, first:last + 1], width, bool(word))
            expected = data.copy()
            expected[0, 1, first:last + 1] = np.floor(means + 0.5) if kind == "" else means
            assert np.allclose(mapped(names("v0")), expected, rtol=1e-6), (first, last, width, word)


def test_a_bad_point_spoils_its_surroundings_only(client, volume, names):
    data = np.linspace(-1, 1, 50).reshape(1, 1, 50)
    data[0, 0, 20:22] = np.inf, 1e300
    volume("double", data)
    do(client, f"maths smooth '{names('v0')}' 0 49 0 0 5")
    got = mapped(names("v0"))[0, 0]
    assert (got[18:23] == np.inf).all() and got[23] > 1e299
    straight = np.r_[0:18, 24:50]
    assert np.allclose(got[straight], np.linspace(-1, 1, 50)[straight], rtol=1e-13, atol=1e-15), "a line stays a line"


@pytest.mark.parametrize("kind, result", [("", "f4"), ("float", "f4"), ("double", "f8")])
def test_smooth2d_smooths_every_frame(client, volume, names, kind, result):
    data = random_volume(kind, (2, 13, 21))
    volume(kind, data)
    do(client, f"maths smooth2d '{names('v0')}' '{names('r')}' 5")
    rows = np.apply_along_axis(running_mean, 2, data.astype(float), 5)
    expected = np.apply_along_axis(running_mean, 1, rows, 5)
    got = mapped(names("r"))
    assert got.dtype == result and np.allclose(got, expected, rtol=1e-6)
    do(client, f"maths smooth2d '{names('v0')}' '{names('v0')}' 5")
    assert np.allclose(mapped(names("v0")), np.floor(expected + 0.5) if kind == "" else expected, rtol=1e-6)


def test_histogram_counts_pairs(client, volume, names):
    random = np.random.default_rng(7)
    data = random.normal(0, 1, (1, 3, 5000))
    data[0, 1, 10] = np.nan
    data[0, 2, 20] = np.inf
    volume("double", data)
    n, r = names("v0"), names("r")
    x, y = data[0, 1], data[0, 2]
    ranges = "min-x -2.0 max-x 2.0 min-y -1.0 max-y 3.0"
    lines = client.lines(f"maths histogram '{n}' '{r}' x-row 1 y-row 2 num 4000 hist-x 40 hist-y 30 {ranges}")
    assert lines[-1] == "* 0"
    finite = np.isfinite(x[:4000]) & np.isfinite(y[:4000])
    expected = np.histogram2d(y[:4000][finite], x[:4000][finite], (30, 40), ((-1, 3), (-2, 2)))[0]
    assert mapped(r).dtype == "u4" and np.array_equal(mapped(r)[0], expected)
    counted = int(expected.sum())
    assert f"# {counted} points counted, {3999 - counted} outside, 1 not numbers" in lines
    # All points, the range of the data, into a corner of a module that exists.
    do(client, f"module create '{names('w')}' 12 9 header float")
    mapped(names("w"))[:] = -3
    do(client, f"maths histogram '{n}' '{names('w')}' x-row 1 y-row 2 hist-x 10 hist-y 8")
    finite = np.isfinite(x) & np.isfinite(y)
    bounds = [(v[np.isfinite(v)].min(), v[np.isfinite(v)].max()) for v in (y, x)]
    expected = np.full((9, 12), -3.0)
    expected[:8, :10] = np.histogram2d(y[finite], x[finite], (8, 10), bounds)[0]
    assert np.array_equal(mapped(names("w"))[0], expected)


def test_histogram_of_one_value_and_of_none(client, volume, names):
    volume("double", np.array([[[4.0, 4.0, 4.0], [1.0, 2.0, 3.0], [np.nan] * 3]]))
    do(client, f"maths histogram '{names('v0')}' '{names('r')}' hist-x 2 hist-y 2")
    assert np.array_equal(mapped(names("r"))[0], [[0, 1], [0, 2]])
    n = f"'{names('v0')}' '{names('q')}'"
    for words, message in [
            ("y-row 2", "! No range for Y, its row holds no numbers"),
            ("min-x 4.0 max-x 4.0", "! Histogram of X needs a range from less to more, not 4 to 4"),
            ("max-y 0.5", "! Histogram of Y needs a range from less to more, not 1 to 0.5"),
            ("min-x -1e308 max-x 1e308",
             "! Histogram of X needs a range from less to more, not -1e+308 to 1e+308"),
            ("x-row 3", "! X Row should be 0..2 not 3"), ("y-row -1", "! Y Row should be 0..2 not -1"),
            ("num 4", "! Number of points should be in range 1 to 3, not 4"),
            ("hist-x 0", "! Histogram should have 1 to 67108864 bins, not 0 by 256"),
            ("hist-x 2147483647 hist-y 2147483647",
             "! Histogram should have 1 to 67108864 bins, not 2147483647 by 2147483647")]:
        assert refused(client, f"maths histogram {n} {words}") == [message]
    assert refused(client, f"maths histogram '{names('v0')}' '{names('r')}' hist-x 3") == [
        f"! Error, module '{names('r')}' exists but is too small (2,2), require at least (3,2)"]
    assert not pathlib.Path("/dev/shm", names("q")).exists()


def outline(image, level):
    reached = np.pad(image >= level, 1)
    inner = reached[:-2, 1:-1] & reached[2:, 1:-1] & reached[1:-1, :-2] & reached[1:-1, 2:]
    return reached[1:-1, 1:-1] & ~inner


def test_mark_contour_draws_outlines(client, volume, names):
    y, x = np.mgrid[:24, :31]
    image = np.stack([100 * np.exp(-((x - 12) ** 2 + (y - 10) ** 2) / 60), x * 4.0]).astype("f4")
    image[0, 0, 0] = np.nan
    volume("float", image)
    n, r = names("v0"), names("r")
    masks = {level: np.stack([outline(frame, level) for frame in image]) for level in (30, 60)}
    lines = client.lines(f"maths mark-contour '{n}' '{r}' 30 7")
    assert lines[-2:] == [f"# Contour has {masks[30].sum()} points", "* 0"]
    assert mapped(r).dtype == "u4" and np.array_equal(mapped(r), 7 * masks[30])
    do(client, f"maths mark-contour '{n}' '{r}' 60 5")
    drawn = np.where(masks[60], 5, 7 * masks[30])
    assert np.array_equal(mapped(r), drawn)
    do(client, f"maths mark-contour '{n}' '{r}' 30 2 cumulative")
    assert np.array_equal(mapped(r), drawn + 2 * masks[30])
    do(client, f"maths mark-contour '{n}' '{r}' 60 1 clear cumulative")
    assert np.array_equal(mapped(r), masks[60])
    do(client, f"maths mark-contour '{n}' '{n}' 30 -1")
    assert np.array_equal(mapped(n), np.where(masks[30], -1, image), equal_nan=True), "into its own source"
    do(client, f"maths mark-contour '{n}' '{n}' -2147483647 2147483647 clear")


@pytest.mark.parametrize("kind", TYPES)
@pytest.mark.parametrize("letter", ["x", "y"])
def test_measure_mask_finds_spots_and_their_line(client, volume, kind, letter):
    centres = np.array([20.0, 50.4, 79.8, 110.5, 140.1, 169.7])
    middle = np.arange(190) + 0.5
    profile = sum(np.clip((6.5 - abs(middle - c)) / 4, 0, 1) for c in centres)  # 9 wide at half height
    profile = np.round(1000 * profile) + 10
    profile[187:] = 1010  # cut off by the edge
    profile[95:97] = 700  # stray light
    image = np.broadcast_to(profile, (2, 3, 190)) if letter == "x" else np.broadcast_to(profile[:, None], (2, 190, 3))
    lines = client.lines(f"maths measure-mask {volume(kind, image)} {letter}")
    assert lines[-1] == "* 6"
    found = [line.split() for line in lines if line.startswith("# Spot ")]
    got = np.array([float(words[4].rstrip(",")) for words in found])
    assert np.allclose(got, centres, atol=2e-3)
    pitch, first = np.polyfit(np.arange(6), got, 1)
    residuals = got - (first + pitch * np.arange(6))
    assert np.allclose([float(words[6]) for words in found], residuals, atol=1e-3)
    numbers = {line.split(" =")[0].strip("# "): line.split("= ")[1] for line in lines if " = " in line}
    worst = int(np.abs(residuals).argmax())
    assert float(numbers["Pitch"]) == pytest.approx(pitch, rel=1e-4)
    assert float(numbers["First spot"]) == pytest.approx(first, rel=1e-4)
    assert float(numbers["RMS residual"]) == pytest.approx(np.sqrt((residuals ** 2).mean()), abs=1e-3)
    assert numbers["Max residual"].endswith(f"at spot {worst}")


def test_images_that_are_refused(server, client, volume, names):
    handle = volume("float", random_volume("float", (1, 4, 6)))
    flat = volume("float", np.ones((1, 4, 6), "f4"))
    bad = volume("float", np.full((1, 4, 6), np.nan, "f4"))
    before = held(server)
    n, m = names("v0"), names("m")
    do(client, f"module create '{m}' 5 5 header")
    for line, message in [
            (f"measure-mask {handle}", "! Must specify exactly one of X, Y"),
            (f"measure-mask {handle} x y", "! Must specify exactly one of X, Y"),
            (f"measure-mask {flat} x", "! A straight line needs at least 3 spots, found 0"),
            (f"measure-mask {bad} y", "! The image holds values that are not numbers"),
            ("measure-mask 19 x", "! Invalid unified handle"),
            (f"smooth '{n}' 0 6 0 0 3", "! First and last should be in range 0 to 5, not 0, 6"),
            (f"smooth '{n}' 3 2 0 0 1", "! First and last should be in range 0 to 5, not 3, 2"),
            (f"smooth '{n}' 0 5 4 0 3", "! Row should be 0..3 not 4"),
            (f"smooth '{n}' 0 5 0 -1 3", "! Destination Row should be 0..3 not -1"),
            (f"smooth '{n}' 0 5 0 0 4", "! Width should be odd and in range 1 to 6, not 4"),
            (f"smooth '{n}' 0 4 0 0 7 wrapped", "! Width should be odd and in range 1 to 5, not 7"),
            (f"smooth '{n}' 0 4 0 0 -2147483647", "! Width should be odd and in range 1 to 5, not -2147483647"),
            ("smooth 'no_such' 0 4 0 0 3", "! Cannot link to module 'no_such', errno = 2"),
            (f"smooth2d '{n}' '{m}' 2", "! Width should be odd and in range 1 to 6, not 2"),
            (f"smooth2d '{n}' '{m}' 3",
             f"! Error, module '{m}' exists but is wrong size (5,5,1) not (6,4,1)"),
            (f"mark-contour '{n}' '{m}' 3 1",
             f"! Error, module '{m}' exists but is wrong size (5,5,1) not (6,4,1)"),
            (f"mark-contour 'no_such' '{m}' 3 1", "! Cannot link to module 'no_such', errno = 2"),
            (f"histogram 'no_such' '{m}'", "! Cannot link to module 'no_such', errno = 2")]:
        assert refused(client, "maths " + line) == [message], line
    assert held(server) == before


def test_an_interrupt_ends_a_long_command(server, client, names):
    """With one frame only: rows and columns are the steps."""
    do(client, f"module create '{names('a')}' 4000 4000 header float")
    before = held(server)
    client.send(f"maths smooth2d '{names('a')}' '{names('b')}' 9\n")
    server.wait_until_busy()
    server.interrupt()
    assert b"! Terminated by ^C\r\n" in client.recv_prompt()
    assert client.lines("7") == ["* 7"] and held(server) == before
    assert not pathlib.Path("/dev/shm", names("b")).exists(), "nothing was written into it"


# ---------------------------------------------------------------- what holds for all reductions

def test_projections_agree_where_sums_are_exact(client, volume, names):
    data = random_volume("", (6, 9, 21), seed=8)
    handle = volume("", data)
    region = f"{handle} 2 1 1 20 8 5"
    totals = {answer(client, f"maths accumulate {region}")}
    for target in "x", "y", "t", "xy", "xt", "yt":
        do(client, f"maths integrate {region} {target} module '{names(target)}'")
        totals.add(float(mapped(names(target)).sum()))
    assert len(totals) == 1
    planes = [do(client, f"module open '{names(name)}' header") for name in ("xy", "xt", "yt")]
    for plane, (first, second) in zip(planes, ("xy", "xt", "yt")):
        shape = mapped(names(first + second)).shape[1:]
        corners = f"{plane} 0 0 0 {shape[1] - 1} {shape[0] - 1} 0"
        for word, axis in ("x", first), ("y", second):
            do(client, f"maths integrate {corners} {word} module '{names('again')}_{plane}_{word}'")
            again = mapped(f"{names('again')}_{plane}_{word}")
            assert np.array_equal(np.squeeze(again), np.squeeze(mapped(names(axis))))


@pytest.mark.parametrize("command, words", [
    ("integrate", "xy"), ("weighted-sum", "x"), ("centroid", "t"), ("stability", "y"), ("re-bin", "x 2 t 2")])
def test_order_of_corners_and_placement(client, volume, names, command, words):
    data = random_volume("float", (6, 8, 11), seed=9)
    handle = volume("float", data)
    kind = "double" if command == "stability" else "float"
    results = []
    for i, corners in enumerate(["1 2 0 8 7 4", "8 7 4 1 2 0", "8 2 4 1 7 0"]):
        do(client, f"maths {command} {handle} {corners} {words} module '{names(f'c{i}')}'")
        results.append(mapped(names(f"c{i}")).copy())
    assert results[0].any() and all(np.array_equal(one, results[0]) for one in results)
    nt, ny, nx = results[0].shape
    do(client, f"module create '{names('big')}' {nx + 5} {ny + 4} header {kind} num-t {nt + 3}")
    big = mapped(names("big"))
    big[:] = -9
    do(client, f"maths {command} {handle} 1 2 0 8 7 4 {words} module '{names('big')}' start-x 3 start-y 2 start-t 1")
    expected = np.full(big.shape, -9.0)
    expected[1:1 + nt, 2:2 + ny, 3:3 + nx] = results[0]
    assert np.array_equal(big, expected)


def test_rows_by_fours_give_what_rows_singly_give(client, volume, names):
    """Sums are the same to the bit whatever rows are summed with: lengths around the block sizes of the loops."""
    data = (np.random.default_rng(10).random((9, 261, 35)) * 1e3).astype("f4")
    handle = volume("float", data)
    do(client, f"maths integrate {handle} 0 0 0 34 260 8 yt module '{names('all')}'")
    for y in 0, 63, 64, 255, 256, 260:
        do(client, f"maths integrate {handle} 0 {y} 0 34 {y} 8 t module '{names('one')}'")
        assert np.array_equal(mapped(names("one"))[0, 0], mapped(names("all"))[0, :, y])
    do(client, f"maths centroid {handle} 0 0 0 34 260 8 t module '{names('c')}'")
    do(client, f"maths integrate {handle} 0 0 0 34 260 8 xy module '{names('f')}'")
    weights = np.arange(9) + 0.5
    wide = data.astype(float)
    assert np.allclose(mapped(names("f"))[0], wide.sum(0), rtol=1e-7)
    assert np.allclose(mapped(names("c"))[0], np.tensordot(weights, wide, 1) / wide.sum(0), rtol=1e-7)


def test_a_result_too_large_for_the_cache(client, names):
    """It takes another road to memory; rows of odd length, so that no row starts where the last one did."""
    nx, ny = 4099, 4103
    do(client, f"module create '{names('a')}' {nx} {ny} header float")
    a = mapped(names("a"))
    a[0] = np.random.default_rng(11).random((ny, nx), dtype="f4")
    handle = do(client, f"module open '{names('a')}' header")
    do(client, f"maths binary-op {handle} {handle} add scale 3.0 module '{names('r')}' start-x 1")
    assert np.array_equal(mapped(names("r"))[0, :, 1:], (a[0] + a[0]) * np.float32(3))
    assert not mapped(names("r"))[0, :, 0].any()
