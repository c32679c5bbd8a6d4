"""The module commands, seen from the session and from another process that maps the module."""
import multiprocessing
import os
import re
import resource

import kestrel_data
import numpy as np
import pytest
from kestrel_data import Module, do, refused, result
from kestrel_session import WAIT


def test_created_modules_are_what_viewers_map(client, names):
    do(client, f"module create '{names('a')}' 5 3 'energy' header float")
    a = Module(names("a"))
    assert (a.head["data_type"], a.head["disp_type"], a.head["aspect"]) == (3, 3, -1.0)
    assert (a.head["x_label"], a.head["y_label"], a.head["z_label"]) == (b"energy", b"Y", b"COUNTS")
    assert a.head["title"] == names("a").encode() and a.data.shape == (3, 5) and len(a.raw) == 360 + 60
    do(client, f"module create '{names('b')}' 5 3 'x' 'y' 'time' header double num-t 4")
    b = Module(names("b"))
    assert (b.head["data_type"], b.head["disp_type"], b.head["data_offset"]) == (4, 0x10003, 464)
    assert b.head["t_label"] == b"time" and b.data.shape == (4, 3, 5)
    do(client, f"module create '{names('c')}' 1 1 size 10")
    assert os.path.getsize("/dev/shm/" + names("c")) == 40
    do(client, f"module headed '{names('d')}' 7 2")
    assert Module(names("d")).head["data_type"] == 1
    assert os.stat("/dev/shm/" + names("d")).st_mode & 0o777 == 0o777


def test_a_module_that_exists_keeps_its_contents(client, names):
    n = names("m")
    do(client, f"module create '{n}' 4 2 header")
    Module(n).data[:] = 9
    for size in "4 2", "0 0", "-4 -1":  # exactly, any, at least
        assert client.lines(f"module create '{n}' {size} header") == [
            f'# Warning: module "{n}" already exists', "* 0"]
    assert client.lines(f"module create '{n}' size 4") == [f'# Warning: module "{n}" already exists.', "* 0"]
    assert (Module(n).data == 9).all()
    for words, size in ("4 3", "4, 3"), ("-5 0", "-5, 0"), ("3 2", "3, 2"), ("$80000000 0", "-2147483648, 0"):
        assert refused(client, f"module create '{n}' {words} header") == [
            f"! Error, module '{n}' exists but is wrong size (4,2) not ({size})"]
    assert refused(client, f"module create '{n}' 4 2 header double") == [
        f"! Error, module '{n}' exists but is wrong data type 1 not 4"]
    assert refused(client, f"module create '{n}' 4 2 header num-t 2") == [
        f"! ERROR: Module '{n}' exists but is not a 3D module, cannot change type"]
    for words in ("4 2", "4 2 header size 4"):
        assert client.lines(f"module create '{n}' {words}") == [
            "# Format of the 'module create' command:",
            "# (a)  module create <name> <width> <height> [<xlabel> <ylabel>] header",
            "# (b)  module create <name> size <bytes>",
            "! You must supply one of 'header' or 'size xxx'", "* -1"]


def test_points(client, names):
    two, three = names("two"), names("three")
    do(client, f"module create '{two}' 4 2 header")
    do(client, f"module create '{three}' 4 2 header num-t 3 double")
    for value, stored in (("2.9", 2), ("-1.5", 0xFFFFFFFF), ("0.99999999", 0), ("4294967298", 2),
                          ("1.0e300", 0xFFFFFFFF), ("5", 5)):
        do(client, f"module set-point '{two}' 3 1 {value if '.' in value else value + '.0'}")
        assert Module(two).data[1, 3] == stored
    do(client, f"module get-point '{two}' 3 1 'count'")
    assert client.lines("%count") == ["* 5"]
    do(client, f"module set-point '{three}' 1 0 2.5 t 2")
    assert Module(three).data[2, 0, 1] == 2.5
    do(client, f"module get-point '{three}' 1 0 'level' t 2")
    assert client.lines("%level") == ["* 2.5"]
    for x, y in ((4, 0), (0, 2), (-1, 0), (0, -1)):
        line = f"! Offsets ({x}, {y}) lie outside module size  (4, 2)"
        assert refused(client, f"module set-point '{two}' {x} {y} 1") == [line]
        assert refused(client, f"module get-point '{two}' {x} {y} 'v'") == [line]
    assert refused(client, f"module get-point '{three}' 0 0 'v' t 3") == [
        "! 3-d Offsets (0, 0, 3) wrong. Module size is (4, 2, 3)"]
    assert refused(client, "module set-point 'no such' 0 0 1") == ["! Cannot link to module 'no such'"]


def test_clear_aspect_and_resize(client, names):
    n = names("m")
    do(client, f"module create '{n}' 4 3 header double")
    m = Module(n)
    m.data[:] = 7
    do(client, f"module clear '{n}'")
    assert (m.data == 0).all()
    do(client, f"module set-aspect '{n}' 1.25")
    assert m.head["aspect"] == 1.25
    m.data[:] = np.arange(12).reshape(3, 4)
    do(client, f"module resize '{n}' 2 5")
    assert (Module(n).data == np.arange(10).reshape(5, 2)).all()
    value, lines = result(client, f"module resize '{n}' 13 1")
    assert value == -1 and lines == [
        f"ERROR: Data module '{n}' size (2, 5) size 456 too small to resize to (13, 1) requires 464"]
    assert refused(client, f"module resize '{n}' 4 3 2") == [
        "! ERROR: Cannot resize a 2-d data module to 3-d (num_t > 1)"]
    assert refused(client, f"module resize '{n}' -1 2") == [
        f"! ERROR: Data module '{n}' cannot have the size (-1, 2, 1)"]
    do(client, f"module resize '{n}' 4 3 1")
    assert (Module(n).data == np.arange(12).reshape(3, 4)).all()
    assert client.lines("module resize 'no such' 1 1") == [" ERROR: Cannot link to module 'no such'", "* -1"]
    assert refused(client, "module clear 'no such'") == ["! Cannot link to data module no such"]


def test_handles_on_modules(server, client, names):
    n = names("m")
    do(client, f"module create '{n}' 4 3 header double")
    assert client.lines(f"module open '{n}'")[0].startswith("# Only headed modules accepted")
    before = kestrel_data.held(server)
    handle = do(client, f"module open '{n}' header")
    assert [do(client, f"unif-get-{what} {handle}") for what in ("nx", "ny", "nt", "type", "bsize")] == [4, 3, 1, 6, 8]
    assert client.lines(f"ustatus of {handle}") == [f"#  {handle}    4 x    3 x    1 double {n}", "* 0"]
    Module(n).data[:] = 5
    do(client, f"clear {handle} 1 1 0 2 1 1")
    assert Module(n).data.tolist() == [[5, 5, 5, 5], [5, 0, 0, 5], [5, 5, 5, 5]]
    do(client, f"module close {handle}")
    assert kestrel_data.held(server) == before
    assert refused(client, f"close {handle}") == [f"! Invalid handle {handle}"]


def test_a_session_takes_its_handles_along(server, names):
    n = names("m")
    first, second = server.client(), server.client()
    do(first, f"module create '{n}' 4 3 header")
    assert [do(c, f"module open '{n}' header") for c in (first, second, first)] == [0, 1, 2]
    first.close()
    server.wait_stdout("Disconnected")
    states = second.lines("ustatus")[:3]
    assert ["Unused" in line for line in states] == [True, False, True]
    assert result(second, "unif-get-nx 0")[0] == -1 and do(second, "unif-get-nx 1") == 4


@pytest.mark.parametrize("kind,word", [("u4", ""), ("f4", "float"), ("f8", "double")])
def test_copy(client, names, kind, word):
    a, b = names("a"), names("b")
    do(client, f"module create '{a}' 4 3 header {word} num-t 2")
    source = (np.arange(24).reshape(2, 3, 4) * 3).astype(kind)
    Module(a).data[:] = source
    do(client, f"module copy '{a}' '{b}' quiet")
    assert (Module(b).data == source).all()
    do(client, f"module copy '{a}' '{names('t')}' transpose")
    assert (Module(names("t")).data == source.transpose(0, 2, 1)).all()
    do(client, f"module copy '{a}' '{names('part')}' src-x 1 num-x 2 src-t 1 dst-x 1 dst-y 1 max-x 5")
    part = np.zeros((4, 5), kind)
    part[1:4, 1:3] = source[1, :, 1:3]
    assert (Module(names("part")).data == part).all()
    value, lines = result(client, f"module copy '{a}' '{b}' add scale 0.5 verbose")
    assert value == 0 and lines[0] == f'# Warning: module "{b}" already exists - overwriting'
    assert lines[1] == ("# Adding/Scaling data non-transposed src=(0, 0, 0) for (4, 3, 2) => (0, 0, 0), "
                        f"elem_size={np.dtype(kind).itemsize}")
    assert (Module(b).data == (source + source.astype("f8") * 0.5).astype(kind)).all()
    do(client, f"module copy '{b}' '{b}' src-x 0 num-x 3 dst-x 1 quiet")  # over itself
    expected = (source + source.astype("f8") * 0.5).astype(kind)
    expected[:, :, 1:4] = expected[:, :, 0:3].copy()
    assert (Module(b).data == expected).all()


def test_copies_that_do_not_fit_change_nothing(client, names):
    a, b = names("a"), names("b")
    do(client, f"module create '{a}' 4 3 header")
    do(client, f"module create '{b}' 4 3 header float")
    cases = {
        "src-x 2 num-x 3": "! ERROR: Src x start=2, num=3 does not fit in image (4, 3)",
        "src-y -1": "! ERROR: Src Y region start=-1, num=1 does not fit in image (4, 3)",
        "num-t 2": "! ERROR: Src T region start=0, num=2 does not fit in image (4, 3, 1)",
        "dst-x -1": "! ERROR: Dst X region start=-1 should be >= 0",
        "max-x 3": "! ERROR: Requested new module width 3 will not accept read from 0 for 4",
        "dst-x 2147483647": "! ERROR: Requested new module width 2147483647 will not accept read from 2147483647 for 4",
        "": f"! Error, module '{b}' exists but is wrong data type 3 not 1",
        "dst-y 1": f"! Error, module '{b}' exists but is not large enough for requested destination Module:(4,3, 1) "
                   "dst (0, 1, 0)+(4, 3, 1), Max:(4, 4, 1)",
    }
    for words, line in cases.items():
        assert refused(client, f"module copy '{a}' '{b}' {words}") == [line], words
    assert refused(client, f"module copy 'no such' '{b}'") == ["! Cannot link to module 'no such' to copy"]


def watch(path, mapped, stop, results):
    """Another process: maps the module and looks on while the server writes; counts torn 4-byte values."""
    import time
    data = np.memmap(path, dtype="u4", mode="r", offset=360)
    mapped.set()
    strange, seen = 0, set()
    last = False
    while not last:
        last = stop.is_set()  # at least one look at what was written
        values = set(np.array(data).tolist())
        strange += len(values - {0, 0x01010101, 0xFFFFFFFF})
        seen |= values
        time.sleep(0.001)
    results.put((strange, seen))


def test_another_process_sees_what_the_server_writes(client, names):
    n = names("shared")
    do(client, f"module create '{n}' 64 64 header")
    do(client, f"module create '{names('ones')}' 64 64 header")
    Module(names("ones")).data[:] = 0x01010101
    context = multiprocessing.get_context("fork")
    mapped, stop, results = context.Event(), context.Event(), context.Queue()
    viewer = context.Process(target=watch, args=("/dev/shm/" + n, mapped, stop, results))
    viewer.start()
    assert mapped.wait(WAIT)
    for _ in range(50):
        do(client, f"module copy '{names('ones')}' '{n}' quiet")
        do(client, f"module set-point '{n}' 63 63 4294967295.0")
    stop.set()
    strange, seen = results.get(timeout=WAIT)
    viewer.join(WAIT)
    assert strange == 0 and 0x01010101 in seen
    assert Module(n).data[63, 63] == 0xFFFFFFFF


@pytest.mark.parametrize("lie", [{"num_x": 1 << 30}, {"num_y": 0xFFFFFFFF}, {"data_type": 99}, {"data_type": 4},
                                 {"disp_type": 0x50003}, {"disp_type": 0x10003}, {"num_x": 0}])
def test_a_header_that_another_process_changed_is_refused(server, client, names, lie):
    n = names("m")
    do(client, f"module create '{n}' 6 5 header")
    handle = do(client, f"module open '{n}' header")
    Module(n).data[:] = 3
    head = Module(n, "r+").head
    good = {field: head[field].copy() for field in lie}
    raw = np.memmap("/dev/shm/" + n, dtype="u1", mode="r+")[:360].view(kestrel_data.HEAD)
    for field, value in lie.items():
        raw[field] = value
    assert refused(client, f"read 0 0 0 6 5 1 from {handle} to-local-file 'x' raw")
    assert refused(client, f"clear {handle}")
    if lie != {"num_x": 0}:
        assert refused(client, f"module set-point '{n}' 0 0 1") or "disp_type" in lie
    for field, value in good.items():
        raw[field] = value
    do(client, f"read 0 0 0 6 5 1 from {handle} to-local-file 'x' raw")
    assert (server.cwd / "x").read_bytes() == b"\3\0\0\0" * 30


def test_types_that_commands_do_not_know_are_named(client, names):
    n = names("m")
    do(client, f"module create '{n}' 6 5 header")
    np.memmap("/dev/shm/" + n, dtype="i4", mode="r+")[0] = 40
    assert client.lines(f"module open '{n}' header") == ["# Cannot handle module data type 40", "* -1"]
    assert refused(client, f"module set-point '{n}' 0 0 1") == [f"! ERROR: Unknow data type 40 in module '{n}'"]
    np.memmap("/dev/shm/" + n, dtype="i4", mode="r+")[:2] = (1, 0x20003)
    assert refused(client, f"module open '{n}' header") == [f"! ERROR: unknown data module type 2 for '{n}'"]
    do(client, f"module create '{names('plain')}' 0 0 size 100")
    assert client.lines(f"module open '{names('plain')}' header") == ["# Cannot handle module data type 0", "* -1"]


def test_handles_run_out_before_paths(client, names):
    n = names("m")
    do(client, f"module create '{n}' 2 2 header")
    for handle in range(20):
        assert do(client, f"module open '{n}' header") == handle
    assert refused(client, f"module open '{n}' header") == ["! No free unified handle, please close some"]
    do(client, "close 5")
    assert do(client, f"module open '{n}' header") == 5, "the lowest that is free"
    for handle in "20", "-1":
        assert refused(client, f"close {handle}")
    do(client, "close-all")
    assert do(client, f"module open '{n}' header") == 0
    assert not [line for line in client.lines("ustatus")[1:-1] if not re.search("Unused$", line)]


def test_a_size_of_nothing_is_a_header_alone(client, names):
    n = names("m")
    for line, shape in (("create '{}' header", (0, 0)), ("create '{}' 5 header", (0, 5)), ("headed '{}' 0 5", (5, 0)),
                        ("create '{}' 5 3 header num-t 0", (0, 3, 5))):
        do(client, "module " + line.format(n))
        assert Module(n).data.shape == shape
        assert os.path.getsize("/dev/shm/" + n) == (464 if len(shape) == 3 else 360)
        assert refused(client, f"module set-point '{n}' 0 0 1.0")[0].endswith(
            "lie outside module size  (%d, %d)" % shape[::-1] if len(shape) == 2 else "(5, 3, 0)")
        handle = do(client, f"module open '{n}' header")
        assert client.lines(f"maths accumulate {handle} 0 0 0 0 0 0")[0].startswith("! ERROR: Requested region")
        refused(client, f"read 0 0 0 1 1 1 from {handle}")
        do(client, f"close {handle}")
        os.unlink("/dev/shm/" + n)
    do(client, f"module create '{n}' 8 4 header")
    do(client, f"module resize '{n}' 8 0")
    assert Module(n).data.shape == (0, 8)
    do(client, f"module resize '{n}' 8 4")


def test_bounds_come_before_the_type(client, names):
    n = names("m")
    do(client, f"module create '{n}' 4 2 header")
    Module(n).head["data_type"] = 99
    assert refused(client, f"module set-point '{n}' 9 0 1.0") == [
        "! Offsets (9, 0) lie outside module size  (4, 2)"]
    assert refused(client, f"module set-point '{n}' 3 1 1.0") == [f"! ERROR: Unknow data type 99 in module '{n}'"]
    plain = names("p")
    do(client, f"module create '{plain}' size 10")
    assert client.lines(f"module open '{plain}' header") == ["# Cannot handle module data type 0", "* -1"]


def test_a_copys_size_is_the_one_that_was_given(client, names):
    a, b = names("a"), names("b")
    do(client, f"module create '{a}' 4 2 header")
    for words, size, start in (("max-x 0", 0, 0), ("max-x 3", 3, 0), ("max-x -1", -1, 0),
                               ("dst-x 2147483647", 2147483647, 2147483647)):
        assert refused(client, f"module copy '{a}' '{b}' {words}") == [
            f"! ERROR: Requested new module width {size} will not accept read from {start} for 4"]
    assert not os.path.exists("/dev/shm/" + b)
    assert refused(client, f"module copy '{a}' 'a/b' num-t 1 max-t 2") == [
        '! Cannot create data module "a/b", errno = 22.']


@pytest.mark.parametrize("code, size", [(2, 2), (33, 2), (40, 4), (47, 4)])
def test_elements_of_any_type_can_be_copied(client, names, code, size):
    """Elements that the server does not count with are moved as they are, also into a new module and transposed."""
    a, b = names("a"), names("b")
    do(client, f"module create '{a}' 4 2 header")
    raw = Module(a).raw
    raw[:4].view("i4")[0] = code
    elements = raw[360:360 + 8 * size].view(f"u{size}").reshape(2, 4)
    elements[:] = np.arange(8).reshape(2, 4) + 1
    for words, wanted in (("", elements), ("transpose", elements.T)):
        do(client, f"module copy '{a}' '{b}' {words}")
        copy = np.memmap("/dev/shm/" + b, dtype="u1", mode="r+")
        assert copy[:4].view("i4")[0] == code and len(copy) == 360 + 8 * size
        assert (copy[360:].view(f"u{size}").reshape(wanted.shape) == wanted).all()
        os.unlink("/dev/shm/" + b)
    assert refused(client, f"module copy '{a}' '{b}' scale 2.0") == [
        f"! ERROR: Unknow data type {code} in module '{a}'"]


def test_modules_leave_a_reserve_of_memory(start, names):
    n = names("m")
    free = next(int(line.split()[1]) for line in open("/proc/meminfo") if line.startswith("MemAvailable:")) // 1024
    client = start(env={"KESTREL_RESERVE": str(max(free - 1024, 1))}).client()
    wide = 4096 * 262144  # 4 GiB of longs; what others on this machine take meanwhile is less than 1 GiB
    assert refused(client, f"module create '{n}' {wide} 1 header") == [
        f'! Cannot create data module "{n}", errno = 12.']
    assert refused(client, f"module create '{n}' size {wide}") == [f'! Cannot create data module "{n}", errno = 12.']
    assert not os.path.exists("/dev/shm/" + n)
    do(client, f"module create '{n}' 4 4 header")
    assert do(start(env={"KESTREL_RESERVE": "0"}).client(), f"module create '{names('k')}' 4 4 header") == 0


@pytest.mark.parametrize("words", ["header", "header num-t 2", "size"])
def test_a_module_without_a_descriptor_leaves_nothing_half_made(start, names, words):
    """However few descriptors are left: there is a whole module, or none; and one made later is whole."""
    n = names("m")
    line = f"module create '{n}' 4 2 {words}" if words != "size" else f"module create '{n}' size 8"
    server = start()
    client = server.client()
    used = kestrel_data.held(server)[0]
    for spare in range(4):
        resource.prlimit(server.process.pid, resource.RLIMIT_NOFILE, (used + spare, 4096))
        value, lines = result(client, line)
        assert os.path.exists("/dev/shm/" + n) == (value >= 0), lines
        if value >= 0:
            break
    resource.prlimit(server.process.pid, resource.RLIMIT_NOFILE, (1024, 4096))
    assert result(client, line)[0] == 0
    if words != "size":
        assert Module(n).head["data_type"] == 1
