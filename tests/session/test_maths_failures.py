"""What maths commands refuse, what they leave behind when they fail, and sources larger than the reader's buffer."""
import os
import pathlib

import numpy as np
import pytest
from kestrel_data import do, held, refused, result
from test_maths import mapped, random_volume, volume  # noqa: F401 (a fixture)

READ_ERROR = "! Read returned error"
small_ones_do = pytest.mark.skipif("KESTREL_TOO_SLOW" in os.environ, reason="the same threads as with less data")


def exists(name):
    return pathlib.Path("/dev/shm", name).exists()


# ---------------------------------------------------------------- what a failure leaves

def test_a_read_that_fails_leaves_no_new_module(server, client, names):
    do(client, f"module create '{names('a')}' 8 6 header float num-t 4")
    handle = do(client, f"module open '{names('a')}' header")
    good = do(client, "test open 8 6 4 float")
    os.truncate(f"/dev/shm/{names('a')}", 500)
    before = held(server)
    region = f"{handle} 0 0 0 7 5 3"
    for line in (f"integrate {region} x", f"integrate {region} xy average", f"weighted-sum {region} t",
                 f"centroid {region} y", f"centroid {region} x threshold 0.5", f"re-bin {region} x 2",
                 f"stability {region} t", f"binary-op {handle} {good} add", f"binary-op {good} {handle} add"):
        assert refused(client, f"maths {line} module '{names('r')}'").count(READ_ERROR) == 1, line
        assert not exists(names("r")), line
    do(client, f"module create '{names('r')}' 8 1 header float")
    assert READ_ERROR in refused(client, f"maths integrate {region} x module '{names('r')}'")
    assert exists(names("r")), "it was there before"
    assert held(server) == before


@pytest.mark.parametrize("command, stays", [("re-bin {} x 8 y 8", True), ("integrate {} x", False),
                                            pytest.param("stability {} t", False, marks=small_ones_do), ("accumulate {}", None)])
def test_an_interrupt_keeps_what_was_written_and_says_so_once(server, client, names, command, stays):
    """The source takes several fills of the buffer: ^C comes during a later one."""
    do(client, "test open 2048 512 1000 float")
    line = "maths " + command.format("0 0 0 0 2047 511 999") + (f" module '{names('r')}'" if stays is not None else "")
    server.write("long.cmd", [line, "echo 'never'"])
    client.send("~long\n")
    for _ in range(2):
        client.recv_until("# Reading 64 planes")
    server.interrupt()
    reply = client.recv_prompt().decode()
    assert [text for text in reply.splitlines() if text.startswith("!")][0] == "! Terminated by ^C"
    assert READ_ERROR not in reply and "never" not in reply
    assert exists(names("r")) == bool(stays)
    if stays:
        got = mapped(names("r"))
        assert got[0, 0, 1] == sum(x + 2 * y for x in range(8, 16) for y in range(8)) and not got[-1].any()


def test_a_module_that_cannot_be_made_is_told_once(client, volume, names):
    handle = volume("float", random_volume("float"))
    region = f"{handle} 0 0 0 8 5 4"
    for line, message in [
            (f"integrate {region} x module 'a/b'", '! Cannot create data module "a/b", errno = 22.'),
            (f"re-bin {region} x 2 module 'a/b'", '! Cannot create data module "a/b", errno = 22.'),
            (f"integrate {region} x module 'n' start-x 2147483640",
             '! Cannot create data module "n", errno = 27.')]:
        assert refused(client, "maths " + line) == [message]


# ---------------------------------------------------------------- refusals

def test_straight_lines_that_nothing_fixes(client, volume, names):
    """The sums of such constants differ from their exact values by rounding."""
    rows = np.array([np.arange(10.0), np.full(10, 0.1), np.full(10, 1 / 3), np.zeros(10)])
    volume("double", rows[None])
    n = names("v0")
    for words in ("x-row 1", "x-row 2", "x-row 3", "x-row 3 const-zero", "x-row 1 cross-x0 0.1",
                  f"x-row 2 cross-x0 {1 / 3}"):
        assert refused(client, f"maths leastsqr-fit '{n}' 0 9 0 {words}") == [
            "! The points 0 to 9 do not fix a straight line"], words
    assert "# y = 45*x+0" in client.lines(f"maths leastsqr-fit '{n}' 0 9 0 x-row 1 const-zero")


def test_residuals_in_a_module_of_counts_wrap(client, volume, names):
    volume("", np.array([[[0, 30, 0], [0, 0, 0]]], np.uint32))
    do(client, f"maths leastsqr-fit '{names('v0')}' 0 2 0 errors 1")
    assert list(mapped(names("v0"))[0, 1]) == [2**32 - 10, 20, 2**32 - 10]


def test_binary_operation_forms_and_refusals(client, volume, names):
    a, flat = random_volume("float"), random_volume("float", (1, 6, 9), seed=2)
    whole, plane = volume("float", a), volume("float", flat)
    line = volume("float", flat[:, 2:3])
    r = f"module '{names('r')}'"
    # (operands and integers, the result)
    for i, (words, expected) in enumerate([
            (f"{whole} {whole} 3", a[:3] + a[:3]), (f"{plane} {plane} 4", flat[:, :4] * 2),
            (f"{plane} {plane} 4 2", flat[:, 2:5] + flat[:, :3]), (f"{plane} {line} 2 3", flat[:, 2:4] + flat[:, 2:3]),
            (f"{plane} {whole} 2 3", flat[:, 2:4] + a[:1, :2]),
            (f"{whole} {whole} 8 5 4 2 2 3 0 1 0 6 4 1", a[3:5, 2:6, 2:9] + a[:2, 1:5, :7])]):
        do(client, f"maths binary-op {words} add module '{names(f'f{i}')}'")
        assert np.array_equal(mapped(names(f"f{i}")), expected), words
    assert "# Repeating line of image B" in result(client, f"maths binary-op {whole} {line} add {r}")[1]
    big = 2147483647
    for words, message in [
            (f"{plane} {whole}", "! ERROR: Image number of frame are different (1 and 5)"),
            (f"{whole} {whole} 0 0 0 8 5 4 0 0 0 7 5 4", "! ERROR: Image widths are different (9 and 8)"),
            (f"{whole} {whole} 0 0 0 8 5 4 0 0 0 8 4 4", "! ERROR: Image number of lines are different (6 and 5)")]:
        assert refused(client, f"maths binary-op {words} add {r}") == [message]
    for words in (f"0 0 0 8 5 4 {big} 0 0", f"0 0 0 8 5 4 0 {big} {big}", " ".join([str(big)] * 6), f"-{big} {big}",
                  "0", "$80000000", f"$80000000 0 0 {big} 5 4", "0 0 0 8 5 4 $80000000 0 0"):
        lines = refused(client, f"maths binary-op {whole} {whole} {words} add module '{names('n')}'")
        assert len(lines) == 1 and lines[0].startswith("! ERROR: "), (words, lines)
    shown = client.lines(f"maths binary-op {whole} {whole} 0 0 0 8 5 4 {big} 0 0 add module '{names('n')}'")
    assert f"# With       Image B ({big}, 0, 0) to ({big + 8}, 5, 4)" in shown
    assert not exists(names("n"))


def test_min_last(client, volume, names):
    counts, real = random_volume(""), random_volume("float")
    handles = [volume("", counts), volume("float", real)]
    for i, (handle, data) in enumerate(zip(handles, (counts, real))):
        sums = data.sum((0, 2), dtype=float)
        for words, by in (f"average min-last {float(data.max())}", 1), ("min-last 60.0", 1), \
                ("average min-last 60.5", (data[-1, -1] > 60.5).sum() * 5), ("average min-last -1.0", 45):
            do(client, f"maths integrate {handle} 0 0 0 8 5 4 y {words} module '{names(f'r{i}')}'")
            got = np.squeeze(mapped(names(f"r{i}")))
            assert np.array_equal(got, sums // by) if i == 0 else np.allclose(got, sums / by, rtol=1e-6), words


def test_lines_onto_an_axis_of_one_are_refused(client, volume, names):
    handle = volume("float", random_volume("float"))
    for letter, corners in ("X", "0 0 0 0 5 4"), ("Y", "0 0 0 8 0 4"), ("T", "0 0 0 8 5 0"):
        assert refused(client, f"maths integrate {handle} {corners} {letter.lower()} module '{names('r')}'") == [
            f"! Cannot project on to {letter} AXIS as it is 1 long"]
    for words, corners in ("xy", "0 0 0 8 0 4"), ("xt", "0 0 0 0 5 4"), ("yt", "0 0 0 8 5 0"):
        assert refused(client, f"maths integrate {handle} {corners} {words} module '{names('r')}'") == [
            f"! Cannot project on to {words.upper()} PLANE as it is not 2D"]


# ---------------------------------------------------------------- search-outliers

@pytest.mark.parametrize("words, found", [
    ("above -1.0", 4), ("above -0.5", 3), ("below -1.0", 0), ("below 0.9", 0), ("below 1.9", 1), ("above 1e10", 0),
    ("below 1e10", 4), ("above 4294967294.9", 1), ("above 2.0 below 1.0", 2), ("above -1.0 mask 3", 4)])
def test_thresholds_beyond_the_counts(client, volume, words, found):
    handle = volume("", np.array([[[0, 1, 2, 0xffffffff]]], np.uint32))
    assert client.lines(f"maths search-outliers {handle} 0 0 0 3 0 0 'o' quiet {words}")[-1] == f"* {found}"


def test_a_full_disk_is_told_once(server, client, volume):
    for nx in 4, 5000:  # at the end, and on the way
        handle = volume("", np.ones((1, 1, nx), np.uint32))
        before = held(server)
        assert refused(client, f"maths search-outliers {handle} 0 0 0 {nx - 1} 0 0 '/dev/full' quiet above 0.0") == [
            "! Error on write to file '/dev/full'"]
        assert held(server) == before


def test_masks_are_explained(client):
    for command in "measure-flood 0 0 0 0 0 0 0", "search-outliers 0 0 0 0 0 0 0 'o'":
        assert any(text.endswith("Mask to AND with integer data, particualrly scope mode data")
                   for text in client.lines(f"maths {command} ?"))


# ---------------------------------------------------------------- sources larger than the buffer

def ramp(nx, ny, nt):
    """The sum of a test image's values over y and t, by x; and over all."""
    values = np.arange(nx, dtype=float) * ny * nt + (ny - 1) * ny * nt + 1.5 * (nt - 1) * nt * ny
    return values, values.sum()


def large(client, line):
    """The reply's lines without those that show how far a slow machine is."""
    return [text for text in client.lines(line) if not text.startswith("@")]


@small_ones_do
def test_planes_that_fill_the_buffer_more_than_once(client):
    handle = do(client, "test open 4096 4096 5 float")
    lines = large(client, f"maths accumulate {handle} 0 0 0 4095 4095 4")
    assert lines[:-1] == ["# umaths_start gives num_lines = 0, num_planes = 4",
                          f"# Reading 4 planes from handle {handle} ", f"# Reading 1 planes from handle {handle} "]
    assert float(lines[-1][2:]) == pytest.approx(ramp(4096, 4096, 5)[1], rel=1e-5)


@small_ones_do
def test_planes_larger_than_the_buffer_are_read_in_runs_of_lines(client, names):
    nx, ny = 20000, 3400
    handle = do(client, f"test open {nx} {ny} 2 float")
    region = f"{handle} 0 0 0 {nx - 1} {ny - 1}"
    reading = ["# Reading 3355 lines ", "# Reading 45 lines "]
    by_x, total = ramp(nx, ny, 1)
    lines = large(client, f"maths accumulate {region} 0")
    assert lines[:-1] == ["# umaths_start gives num_lines = 3355, num_planes = 0", *reading]
    assert float(lines[-1][2:]) == pytest.approx(total, rel=1e-5)
    do(client, f"maths integrate {region} 0 x module '{names('x')}'")
    assert np.allclose(np.squeeze(mapped(names("x"))), by_x, rtol=1e-7)
    lines = large(client, f"maths integrate {region} 1 y average min-last 1e9 module '{names('y')}'")
    assert [text for text in lines if "Reading" in text] == 2 * reading, "the last row is in the buffer already"
    by_y = 2.0 * (np.arange(nx).sum() + 2.0 * nx * np.arange(ny)) + 3.0 * nx
    assert np.allclose(np.squeeze(mapped(names("y"))), by_y, rtol=1e-6)
    lines = large(client, f"maths measure-flood {handle} 0 0 0 {nx - 1} {ny - 1} 0 quiet")
    assert lines == [f"* {total / nx / ny:g}"]


# ---------------------------------------------------------------- corners of regions, masks and lines

def test_centroid_old_divides_what_it_formed_and_nothing_else(client, names):
    """Sums of an earlier, larger region stand in the modules that it makes; they are no part of the result."""
    n = names("c")
    do(client, "test open 4 3 2 long")
    for suffix in "_fx", "_f":
        do(client, f"module create '{n}{suffix}' 8 8 header" + (" float" if suffix == "_fx" else ""))
    do(client, f"maths centroid-old 0 0 0 0 3 2 1 x module '{n}'")
    assert mapped(n).shape == (1, 2, 3)
    assert refused(client, "maths centroid-old 0 0 0 0 0 2 1 x") == ["! Why form SUM FX when dx == 1"]
    assert refused(client, "maths centroid-old 0 0 0 0 3 2 1 x") == [
        "! Only support module mode output at the moment", "! ERROR Forming SUMFX from",
        "! 'maths weighted-sum 0 0 0 0 3 2 1 x'"]


@pytest.mark.parametrize("kind", ["byte", "short", "long", "int64"])
def test_a_mask_reaches_every_kind_of_integer(client, kind):
    """The pattern is x + 2 y: half of its elements are odd."""
    handle = do(client, f"test open 4 4 1 {kind}")
    client.cmd(f"maths measure-flood {handle} 0 0 0 3 3 0 'f' mask 1 quiet")
    assert client.lines("%f.total") == ["* 8"] and client.lines("%f.max") == ["* 1"]
    client.cmd(f"maths measure-flood {handle} 0 0 0 3 3 0 'f' mask -1 quiet")
    assert client.lines("%f.total") == ["* 72"]


def test_a_region_of_frames_that_are_not_there(client):
    do(client, "test open 8 6 0 float")
    assert client.lines("maths accumulate 0 0 0 0 7 5 0")[0] == (
        "! ERROR: Requested region (0, 0, 0) + (8, 6, 1) does not fit in memory (8, 6, 0)")


def test_shapes_that_do_not_go_together(client, names):
    do(client, "test open 6 5 4 float")
    do(client, "test open 6 5 2 float")
    do(client, "test open 6 3 1 float")
    do(client, "test open 6 5 1 float")
    for line, message in (("0 1 3", "! ERROR: Image number of frame are different (3 and 2)"),
                          ("0 2", "! ERROR: Image number of lines are different (5 and 3)"),
                          ("3 2 1 4", "! ERROR: Image number of lines are different (4 and 3)")):
        assert refused(client, f"maths binary-op {line} add module '{names('r')}'") == [message]


def test_one_point_fixes_a_line_through_a_given_one(client, names):
    n = names("l")
    do(client, f"module create '{n}' 4 2 header float")
    do(client, f"module set-point '{n}' 2 0 6.0")
    assert "# y = 3*x+0" in client.lines(f"maths leastsqr-fit '{n}' 2 2 0 const-zero")
    assert "# y = 6*x+0" in client.lines(f"maths leastsqr-fit '{n}' 2 2 0 cross-x0 1.0")
    assert refused(client, f"maths leastsqr-fit '{n}' 2 2 0") == [
        "! A straight line needs at least 2 points, not 2 to 2"]
