"""The read command: every form, type, order and destination, byte for byte against numpy and other readers."""
import re
import subprocess
import time

import h5py
import numpy as np
import pytest
from kestrel_data import DataPort, Module, do, refused, result

SOURCES = {"byte": "u1", "short": "u2", "long": "u4", "float": "f4", "double": "f8", "int64": "i8"}
BOX = (1, 1, 1, 3, 2, 2)


def ramp(kind, x=0, y=0, t=0, dx=9, dy=4, dt=3):
    """The test pattern's values, as its type cuts and limits them."""
    grid = np.add.outer(np.add.outer(3 * (t + np.arange(dt)), 2 * (y + np.arange(dy))), x + np.arange(dx))
    return grid.astype(SOURCES.get(kind, kind))


def text(values, radix=10):
    """ASCII rows by printf's own formats."""
    def one(v):
        if values.dtype.kind == "f":
            return "%.8g " % v
        if values.dtype.itemsize == 8:
            low, high = int(v) & 0xFFFFFFFF, int(v) >> 32 & 0xFFFFFFFF
            return {10: "%u:%u " % (low, high), 16: "%X%08X\t" % (low, high), 2: f"{low:b}{high:032b}\t"}[radix]
        return {10: "%u\t" % v, 16: "%X\t" % v, 2: f"{int(v):b}\t"}[radix]
    return "".join("".join(map(one, row)) + "\n" for frame in values for row in frame).encode()


def saved(server, client, handle, words, box=BOX):
    do(client, f"read {' '.join(map(str, box))} from {handle} to-local-file 'out' {words}")
    return (server.cwd / "out").read_bytes()


@pytest.mark.parametrize("source", SOURCES)
def test_byte_forms_in_both_orders(server, client, source):
    handle = do(client, f"test open 9 4 3 {source}")
    box = ramp(source, *BOX)
    for word, kind in {"raw": SOURCES[source], "long": "u4", "float": "f4", "double": "f8"}.items():
        for order, mark in (("", "<"), ("intel", "<"), ("motorola", ">")):
            expected = box.astype(np.dtype(kind).newbyteorder(mark)).tobytes()
            assert saved(server, client, handle, f"{word} {order}") == expected, (word, order)
    whole = (0, 0, 0, 9, 4, 3)
    assert saved(server, client, handle, "raw", whole) == ramp(source).tobytes()


@pytest.mark.parametrize("source", SOURCES)
def test_ascii_rows_in_every_radix(server, client, source):
    handle = do(client, f"test open 9 4 3 {source}")
    for radix in (10, 16, 2):
        client.lines(f"radix {radix}")
        assert saved(server, client, handle, "") == text(ramp(source, *BOX), radix)
    client.lines("radix 10")


def test_many_rows_are_those_of_printf(server, client, names):
    """More than one thread's worth of text, of rows that end anywhere in its pieces."""
    for kind, form, end in ("", "%u", "\t"), ("float", "%.8g", " "):
        shape = (211, 997)
        name = names("many" + kind)
        do(client, f"module create '{name}' {shape[1]} {shape[0]} header {kind}")
        values = np.random.default_rng(1).integers(0, 1 << 32, shape, "u4")
        Module(name).data[:] = values if not kind else values / 999
        handle = do(client, f"module open '{name}' header")
        do(client, f"read 0 0 0 {shape[1]} {shape[0]} 1 from {handle} to-local-file 'many.txt'")
        expected = "".join("".join(form % value + end for value in row) + "\n" for row in Module(name).data)
        assert (server.cwd / "many.txt").read_text() == expected


def test_radix_16_of_255_and_0(server, client, names):
    do(client, f"module create '{names('m')}' 2 1 header")
    Module(names("m")).data[0] = (255, 0)
    handle = do(client, f"module open '{names('m')}' header")
    client.lines("radix 16")
    client.lines(f"read 0 0 0 2 1 1 from {handle} to-local-file 'out'")
    assert (server.cwd / "out").read_bytes() == b"FF\t0\t\n"


def test_columns(server, client):
    handle = do(client, "test open 9 4 3 long")
    box = ramp("long", *BOX)
    plain, angles = (b"".join(b"%s %s\n" % (first(i), b"".join(b"%d\t" % v for v in box[:, :, i].ravel()))
                              for i in range(3))
                     for first in (lambda i: b"%d" % i, lambda i: b"%.8g" % (10 + i * 0.1)))
    assert saved(server, client, handle, "asc-col") == plain
    assert saved(server, client, handle, "asc-col start-ang 10.0 step-ang 0.1") == angles


@pytest.mark.parametrize("box,shape", [((2, 1, 0, 5, 3, 1), (3, 5)), ((4, 0, 0, 1, 4, 3), (3, 4)),
                                       ((0, 2, 0, 9, 1, 3), (3, 9)), ((0, 0, 1, 9, 1, 1), (1, 9))])
def test_gel_is_a_tiff_that_other_readers_open(server, client, box, shape):
    handle = do(client, "test open 9 4 3 float")
    saved(server, client, handle, "gel", box)
    info = subprocess.run(["tiffinfo", "-s", "out"], cwd=server.cwd, capture_output=True, text=True).stdout
    for line in (f"Image Width: {shape[1]} Image Length: {shape[0]}", "Bits/Sample: 16", "Resolution: 114, 114",
                 "Software: Unified read system", "HostComputer: OS9-680x0 system", "Tag 33448: Varnholm LAB",
                 "Tag 33449: Sample info goes here", "Tag 33450: Prep date ...", "Tag 33451: Prep time",
                 "Tag 33452: Counts", "Tag 33446: 1.0"):
        assert line in info, info
    data = (server.cwd / "out").read_bytes()
    strips = re.findall(r"^ +\d+: \[ *(\d+), +(\d+)\]", info, re.M)
    pixels = b"".join(data[int(start):int(start) + int(size)] for start, size in strips)
    order = {b"II": "<", b"MM": ">"}[data[:2]]
    assert (np.frombuffer(pixels, order + "u2").reshape(shape) == ramp("short", *box).reshape(shape)).all()
    assert (server.cwd / ".utemp.gel").read_bytes() == data


@pytest.mark.parametrize("source,data_type,kind", [("short", 4, "u2"), ("double", 3, "f8"), ("float", 1, "f4"),
                                                   ("long", 1, "f4")])
def test_det_is_an_hdf5_file_that_other_readers_open(server, client, source, data_type, kind):
    handle = do(client, f"test open 9 4 3 {source}")
    saved(server, client, handle, "det")
    with h5py.File(server.cwd / "out") as f:
        assert f["entry"].attrs["NX_class"] == "NXentry" and f["entry/data"].attrs["NX_class"] == "NXdata"
        data = f["entry/data"][f["entry/data"].attrs["signal"]]
        assert data.attrs["data_type"] == data_type and data.dtype == kind
        assert (data[...] == ramp(source, *BOX)).all()
        assert f["entry/title"][()] == b"DET file produced by Unified read system."
    dumped = subprocess.run(["h5dump", "-H", "out"], cwd=server.cwd, capture_output=True, text=True)
    assert dumped.returncode == 0 and "( 2, 2, 3 )" in dumped.stdout
    for box, shape in (((2, 0, 0, 1, 4, 3), (3, 4)), ((0, 1, 0, 9, 1, 3), (3, 9)), ((0, 0, 0, 9, 4, 1), (4, 9))):
        saved(server, client, handle, "det", box)
        with h5py.File(server.cwd / "out") as f:
            assert (f["entry/data/data"][...] == ramp(source, *box).reshape(shape)).all()
    image = do(client, "file open 'out' tessera")
    assert [do(client, f"unif-get-{n} {image}") for n in ("nx", "ny", "nt", "type")] == [
        9, 4, 1, {"u2": 2, "f4": 4, "f8": 6}[kind]]


def test_otoko_is_refused_at_its_first_write(server, client):
    handle = do(client, "test open 9 4 3 float")
    assert refused(client, f"read 0 0 0 9 4 3 from {handle} to-local-file 'out' otoko") == ["! Error during write"]
    assert server.stderr.splitlines()[-2:] == [
        f"unifotoko.c: Called function at line {n} which is not yet implemented." for n in (45, 55)]
    assert not (server.cwd / "out").exists()


def test_scaling_uses_the_variables(server, client):
    handle = do(client, "test open 9 4 3 long")
    box = ramp("long", *BOX).astype("f8")
    assert saved(server, client, handle, "double scale-m scale-c") == box.tobytes()
    client.lines("set-double 'scale_m' -0.5")
    client.lines("set-int 'scale_c' 3")
    assert saved(server, client, handle, "double scale-m") == (box * -0.5).tobytes()
    assert saved(server, client, handle, "double scale-c") == (box + 3).tobytes()
    both = box * -0.5 + 3
    assert saved(server, client, handle, "double scale-c scale-m") == both.tobytes()
    assert saved(server, client, handle, "long scale-c scale-m") == np.clip(np.trunc(both), 0, None).astype("u4").tobytes()
    assert saved(server, client, handle, "scale-c scale-m") == text(np.clip(np.trunc(both), 0, None).astype("u4"))


def test_the_data_connection(client):
    handle = do(client, "test open 9 4 3 double")
    port = DataPort(client)
    line = f"read {' '.join(map(str, BOX))} from {handle} raw"
    data, reply = port.take(client, line)
    assert data == ramp("double", *BOX).tobytes()
    assert reply[0] == f"# Reading from handle {handle} region (1,1,1) for (3,2,2)"
    assert reply[1] == "# Scaling: no. Able to prescan min/max: no. do_convert=0, swap_bytes=0"
    assert reply[2] == "# Got RAM required in one go (96 bytes)." and reply[-1] == "* 0"
    assert port.take(client, line)[0] == data, "a new connection for the next"
    assert client.lines(line + " preserve-socket")[-1] == "* 0"
    assert client.lines(line.replace("raw", "long"))[-1] == "* 0"
    with port.listener.accept()[0] as connection:
        received = b""
        while block := connection.recv(4096):
            received += block
    assert received == data + ramp("long", *BOX).tobytes()
    port.close()
    assert refused(client, line)[-1].startswith("! Error when opening a file or a module (errno ")


def test_into_modules(server, client, names):
    n = names("m")
    for source, kind in {"byte": 1, "short": 1, "long": 1, "float": 3, "double": 4}.items():
        handle = do(client, f"test open 9 4 3 {source}")
        do(client, f"read {' '.join(map(str, BOX))} from {handle} to-module '{names(source)}'")
        made = Module(names(source))
        assert made.head["data_type"] == kind and (made.data == ramp(source, *BOX)).all()
    do(client, f"read 0 0 0 3 2 1 from {handle} to-module '{n}' start-x 2 start-y 1")
    assert (Module(n).data == np.pad(ramp("double", 0, 0, 0, 3, 2, 1)[0], ((1, 0), (2, 0)))).all()
    do(client, f"read 0 0 0 1 1 1 from {handle} to-module '{n}' clear-mod")
    assert not Module(n).data.any()
    do(client, f"read 0 0 0 3 2 1 from {handle} to-module '{names('t')}' start-t 1 float")
    assert (Module(names("t")).data == np.pad(ramp("float", 0, 0, 0, 3, 2, 1), ((1, 0), (0, 0), (0, 0)))).all()
    do(client, f"read 0 0 0 3 2 1 from {handle} to-module '{names('raw')}' no-header long motorola")
    assert open("/dev/shm/" + names("raw"), "rb").read() == ramp(">u4", 0, 0, 0, 3, 2, 1).tobytes()
    cases = {f"'{n}' float": f"! Error, module '{n}' exists but is wrong data type 4 not 3",
             f"'{n}' start-x 3": f"! Error, module '{n}' exists but (5, 3, 1) is too small for (3, 2, 1) at (3, 0, 0)",
             f"'{n}' asc-col": "! Only numbers (raw, long, float, double) can go into a module",
             f"'{n}' gel": "! Only numbers (raw, long, float, double) can go into a module",
             f"'{n}' start-x -1": f"! ERROR: start (-1, 0, 0) in module '{n}' is out of range",
             f"'{n}' motorola": "! A headed module holds numbers in this machine's byte order only",
             f"'{names('raw')}' no-header double": f"! Error, module '{names('raw')}' exists but has 24 bytes, 48 are needed"}
    for words, line in cases.items():
        assert refused(client, f"read 0 0 0 3 2 1 from {handle} to-module {words}")[0] == line


def test_a_module_can_be_read_into_itself(client, names):
    n = names("m")
    do(client, f"module create '{n}' 6 4 header")
    values = np.arange(24, dtype="u4").reshape(4, 6)
    Module(n).data[:] = values
    handle = do(client, f"module open '{n}' header")
    do(client, f"read 0 0 0 5 3 1 from {handle} to-module '{n}' start-x 1 start-y 1")
    expected = values.copy()
    expected[1:, 1:] = values[:3, :5]
    assert (Module(n).data == expected).all()
    do(client, f"read 1 1 0 5 3 1 from {handle} to-module '{n}' clear-mod")
    cleared = np.zeros_like(values)
    cleared[:3, :5] = expected[1:, 1:]
    assert (Module(n).data == cleared).all()


def test_qualifiers_that_do_not_go_together(server, client):
    handle = do(client, "test open 9 4 3 float")
    both = "! Incorrect combination of output qualifiers."
    cases = {"": "! 'from device-handle' is required in the read command",
             "from 19": "! device-handle is required invalid or stale in the read command",
             "from 0 raw long": "! Only specify one file format", "from 0 det asc-col": "! Only specify one file format",
             "from 0 intel motorola": "! Cannot have both intel and motorola formats.",
             "from 0 to-local-file 'a' to-module 'b'": both, "from 0 to-remote-file 'a'": both, "from 0 on 'h'": both,
             "from 0 start-x 1": both, "from 0 to-module 'b' no-header start-x 1": both,
             "from 0 to-local-file 'a' preserve-socket":
                 "! preserve-socket option only applicable to data socket data transfer",
             "from 0 fsync": "! fsync option only applies to to-local-file output",
             "from 0 gel to-local-file 'a'": "! This file format does not allow files with this many dimensions."}
    for words, line in cases.items():
        assert refused(client, f"read 0 0 0 9 4 3 {words}") == [line], words
    for box in ("0, 0, 0", "10, 1, 1"), ("9, 0, 0", "1, 1, 1"), ("1, 0, 0", "9, 1, 1"), ("0, 0, 3", "1, 1, 1"), \
            ("-1, 0, 0", "2, 1, 1"), ("0, 0, 0", "9, 5, 1"), ("8, 0, 0", "2147483647, 1, 1"):
        assert refused(client, f"read {' '.join(box).replace(',', '')} from {handle}") == [
            "! This client read request does not lie within the boundaries of the image, read (%s) for (%s)" % box]
    assert client.cmd(f"read 0 0 0 9 0 1 from {handle}") == b"! dx, dy and dt must all be greater than zero.* -1\r\n"
    assert refused(client, f"read 0 0 0 9 1 1 from {handle} to-local-file '/no/such/folder/a'") == [
        "! Error when opening a file or a module (errno 2)."]
    assert not (server.cwd / "a").exists()
    do(client, f"read 0 0 0 9 1 1 from {handle} to-local-file 'a' fsync raw")


def test_corrections_by_hand(server, client, names):
    m, c = names("m"), names("c")
    do(client, f"module create '{m}' 3 1 header double num-t 2")
    Module(m).data[:] = [[[1, 2, 3]], [[10, 20, 30]]]
    do(client, f"module create '{c}' 3 3 header double num-t 2")
    Module(c).data[1] = [[2, 0, 4], [1, 1, 1], [0.5, 0.5, 0]]
    handle = do(client, f"module open '{m}' header")

    def corrected(words, form="double"):
        do(client, f"unif-set-correction {handle} {words}")
        data = saved(server, client, handle, form, (0, 0, 0, 3, 1, 2))
        return np.frombuffer(data, "f8").reshape(2, 3).tolist() if form == "double" else data

    assert corrected(f"'{c}' 1 mult1d") == [[2, 0, 12], [20, 0, 120]]
    assert corrected(f"'{c}' 1 div1d") == [[0.5, 0, 0.75], [5, 0, 7.5]]
    # 2 + v + 0.5 v^2 ; v + 0.5 v^2 ; 4 + v
    assert corrected(f"'{c}' 1 poly1d") == [[3.5, 4, 7], [62, 220, 34]]
    # with u = v / 10: 2 + u + 0.5 (2 u^2 - 1) ; u + 0.5 (2 u^2 - 1) ; 4 + u
    assert np.allclose(corrected(f"'{c}' 1 chebyshev1d 0.1"), [[1.61, -0.26, 4.3], [3.5, 5.5, 7]], rtol=1e-15)
    assert corrected(f"'{c}' 1 mult1d", "long") == np.array([2, 0, 12, 20, 0, 120], "u4").tobytes()
    # a part of the row takes its own coefficients
    assert saved(server, client, handle, "double", (2, 0, 1, 1, 1, 1)) == np.float64(120).tobytes()
    assert corrected("") == [[1, 2, 3], [10, 20, 30]]
    assert refused(client, f"unif-set-correction {handle} '{c}' 2 mult1d") == [
        f"! ERROR: correction module '{c}' (3, 3, 2) has no frame 2"]
    assert refused(client, f"unif-set-correction {handle} '{c}' mult1d div1d") == [
        "! A correction needs a module and one of mult1d, div1d, poly1d, chebyshev1d"]


def test_dead_time_correction_by_hand(server, client, names):
    m, times = names("m"), names("times")
    do(client, f"module create '{m}' 2 1 header num-t 3")
    Module(m).data[:] = [[[10, 20]], [[30, 40]], [[50, 60]]]
    do(client, f"module create '{times}' 4 8 header float")
    Module(times).data[3] = [0.5, 0, 4, 1]
    handle = do(client, f"module open '{m}' header")
    box = (0, 0, 0, 2, 1, 3)
    assert refused(client, f"read 0 0 0 2 1 3 from {handle} dtc to-local-file 'out'") == [
        "! ERROR: dead time correction: cannot link to module 'kairo_times'"]
    do(client, f"unif-set-dtc-mod '{times}'")
    value, lines = result(client, f"read 0 0 0 2 1 3 from {handle} dtc double to-local-file 'out'")
    assert np.frombuffer((server.cwd / "out").read_bytes()).tolist() == [20, 40, 0, 0, 12.5, 15]
    assert f"# Warning: 1 of 3 frames have no live time in module '{times}', their data become 0" in lines
    assert saved(server, client, handle, "dtc", box) == b"20\t40\t\n0\t0\t\n12\t15\t\n"


def test_test_patterns_grow_with_time(server, client):
    handle = do(client, "test open 4 4 2 double")
    assert saved(server, client, handle, "raw", (0, 0, 0, 4, 4, 2)) == ramp("double", 0, 0, 0, 4, 4, 2).tobytes()
    began = time.monotonic()
    do(client, f"enable {handle}")
    client.lines("sleep 0.2 quiet")
    do(client, f"disable {handle}")
    most = 10 * (time.monotonic() - began)
    first = np.frombuffer(saved(server, client, handle, "raw", (1, 0, 0, 1, 1, 1)))[0]
    assert 0.02 <= first < most
    assert np.frombuffer(saved(server, client, handle, "raw", (1, 0, 0, 1, 1, 1)))[0] == first, "stopped"
    do(client, f"clear {handle}")
    assert not any(saved(server, client, handle, "raw", (0, 0, 0, 4, 4, 2)))
    assert refused(client, "test open 4 4 1 byte long") == [
        "! Must specify one and only one of byte, short, long, float or double."]
    do(client, f"test close {handle}")
    quadrants = do(client, "test open 4 4 2 long mg-quad")
    assert np.frombuffer(saved(server, client, quadrants, "raw", (0, 1, 1, 4, 2, 1)), "u4").tolist() == [
        101, 101, 201, 201, 301, 301, 401, 401]
    egg = do(client, "test open 40 40 1 float egg")
    image = np.frombuffer(saved(server, client, egg, "raw", (0, 0, 0, 40, 40, 1)), "f4").reshape(40, 40)
    assert image.max() <= 1000 and image[19, 19] > 990
    assert (image[35] > 50).sum() > (image[4] > 50).sum(), "the blunt end is at high y"


def test_clear_takes_nothing_frames_or_a_box(client, names):
    n = names("m")
    do(client, f"module create '{n}' 2 2 header num-t 4")
    m = Module(n)
    handle = do(client, f"module open '{n}' header")
    m.data[:] = 1
    do(client, f"clear {handle} 1 2")
    assert m.data[:, 0, 0].tolist() == [1, 0, 0, 1]
    do(client, f"clear {handle} 0 1 3 1 1 1")
    assert m.data[3].tolist() == [[1, 1], [0, 1]]
    do(client, f"clear {handle}")
    assert not m.data.any()
    for words in ("1", "1 2 3"):
        assert refused(client, f"clear {handle} {words}") == [
            "! unified_clear requires either", "! 1 argument  (handle)                         => clear all",
            "! 3 arguments (handle, first, num time frames) => clear time frames",
            "! 7 arguments (handle, x, y, t, dx, dy, dt)    => clear volume"]
    assert refused(client, "clear 20") == ["! Invalid handle passed to unified clear"]
    assert refused(client, f"enable {handle}") == [f"! No enable function is defined for handle {handle}."]


def test_an_interrupt_ends_a_read(server, client):
    handle = do(client, "test open 3000 3000 1 float egg")
    client.send(f"read 0 0 0 3000 3000 1 from {handle} to-local-file 'out'\n")
    client.recv_until("# Calling read")
    server.interrupt()
    reply = client.recv_prompt()
    assert b"! Read interrupted\r\n! Error during write\r\n* -1" in reply
    assert not (server.cwd / "out").exists()
    do(client, f"read 0 0 0 10 10 1 from {handle} to-local-file 'out'")
