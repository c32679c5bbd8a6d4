"""Files as handles, modules from and to files, and the numbers of a folder's files."""
import re
import threading

import h5py
import numpy as np
import pytest
from kestrel_data import Module, do, refused, result

ROWS = "# comment\n" + "1 2 3 4 5 6 7 8\n" + "".join(f"{r}\t2, 3.5 4 5 6 7 {r * 0.5e9:g}\n" for r in range(10))


def test_an_identification_row_is_left_out_by_load(server, client, names):
    server.write("a.txt", ROWS)
    n = names("m")
    value, lines = result(client, f"module load 'a.txt' '{n}'")
    assert value == 0 and lines[0] == "# Determined file size = (8, 11, 1)"
    m = Module(n)
    assert m.data.shape == (10, 8) and m.head["data_type"] == 3
    assert m.data[9].tolist() == [9, 2, 3.5, 4, 5, 6, 7, np.float32(4.5e9)]
    do(client, f"module load 'a.txt' '{names('l')}' long")
    assert Module(names("l")).data[9].tolist() == [9, 2, 3, 4, 5, 6, 7, 4294967295]
    do(client, f"module load 'a.txt' '{names('d')}' double open-quals 'ascii'")
    assert Module(names("d")).data.shape == (11, 8)
    assert not [line for line in client.lines("ustatus")[:-1] if not line.endswith("Unused")], "handles are closed"


def test_frames_of_a_file(server, client, names):
    server.write("a.txt", ROWS)
    handle = do(client, "file open 'a.txt' ascii nt 11")
    assert [do(client, f"unif-get-{n} {handle}") for n in ("nx", "ny", "nt", "type")] == [8, 1, 11, 6]
    do(client, f"file close {handle}")
    do(client, f"module load 'a.txt' '{names('m')}' open-quals 'ascii nt 11' num-t 12 double")
    assert Module(names("m")).data.shape == (12, 1, 8) and Module(names("m")).data[10, 0, 0] == 9
    assert refused(client, f"module load 'a.txt' '{names('x')}' open-quals 'ascii nt 11' num-t 10") == [
        "! ERROR: Specified num-t (10) is less than file num-t (11)"]
    assert not [line for line in client.lines("ustatus")[:-1] if not line.endswith("Unused")], "handles are closed"


def test_files_that_cannot_be_read_say_where(server, client, names):
    server.write("ragged", "1 2\n3\n")
    server.write("words", "1 2\n3 four\n")
    (server.cwd / "short").write_bytes(b"\0" * 10)
    cases = {"'none' ascii": "! ERROR: file 'none': No such file or directory",
             "'.' ascii": "! ERROR: file '.': is not a regular file",
             "'/dev/zero' raw nx 1 byte": "! ERROR: file '/dev/zero': is not a regular file",
             "'ragged' ascii": "! ERROR: file 'ragged': line 2: 1 values, the rows before have 2",
             "'words' ascii": "! ERROR: file 'words': line 2: 'four' is not a number",
             "'short' raw nx 3 long": "! ERROR: file 'short': ends at byte 10 of 12",
             "'short' raw nx 2147483647 ny 2147483647 nt 2147483647 double":
                 "! ERROR: file 'short': sizes are too large for any file",
             "'short' raw nx 0 byte": "! ERROR: file 'short': sizes must be at least 1, and what is skipped at least 0",
             "'short' raw long": "! ERROR: file 'short': raw data need nx, one element type and at most one byte order",
             "'short' ascii nx 2": "! ERROR: file 'short': sizes, element type and byte order are given for raw data only",
             "'short' tessera": "! ERROR: file 'short': cannot be opened as an HDF5 file",
             "'short'": "! Must specify one and only one of ascii, ascii-id, raw or tessera"}
    for words, line in cases.items():
        assert refused(client, "file open " + words) == [line], words
    assert refused(client, f"module load 'none' '{names('m')}'") == [
        "! ERROR: file 'none': No such file or directory",
        "! ERROR: Cannot open file using command 'file open 'none' ascii-id'"]
    assert refused(client, "file close 3") == ["! Handle 3 is not a file"]


@pytest.mark.parametrize("word,kind", [("byte", "u1"), ("short", "u2"), ("long", "u4"), ("float", "f4"),
                                       ("double", "f8"), ("int64", "i8")])
def test_raw_files_of_every_type_in_both_orders(server, client, word, kind):
    values = np.arange(60).reshape(3, 4, 5).astype(kind)
    for order, mark in (("intel", "<"), ("motorola", ">")):
        (server.cwd / "raw").write_bytes(b"head" + values.astype(np.dtype(kind).newbyteorder(mark)).tobytes() + b"tail")
        value, lines = result(client, f"file open 'raw' raw nx 5 ny 4 nt 3 {word} {order} skip 4")
        assert lines == ["# Warning: file 'raw' has 4 bytes after the data"]
        for x, y, t, dx, dy, dt in ((0, 0, 0, 5, 4, 3), (1, 2, 1, 3, 2, 2), (0, 1, 0, 5, 2, 3), (4, 3, 2, 1, 1, 1)):
            do(client, f"read {x} {y} {t} {dx} {dy} {dt} from {value} raw to-local-file 'out'")
            assert (server.cwd / "out").read_bytes() == values[t:t + dt, y:y + dy, x:x + dx].tobytes()
        (server.cwd / "raw").write_bytes(b"head")
        assert refused(client, f"read 0 0 0 5 4 3 from {value} raw to-local-file 'out'") == [
            "! file 'raw': ends at byte 4", "! Device read failed.", "! Error during read"]
        do(client, f"file close {value}")


def test_48_bit_data(server, client):
    (server.cwd / "raw").write_bytes(bytes(range(1, 13)))
    handle = do(client, "file open 'raw' raw nx 2 int48")
    do(client, f"read 0 0 0 2 1 1 from {handle} to-local-file 'out'")
    assert (server.cwd / "out").read_text() == "%u:%u %u:%u \n" % (0x0201, 0x06050403, 0x0807, 0x0C0B0A09)
    do(client, f"read 0 0 0 2 1 1 from {handle} to-local-file 'out' double")
    assert np.frombuffer((server.cwd / "out").read_bytes()).tolist() == [0x060504030201, 0x0C0B0A090807]
    do(client, f"read 0 0 0 2 1 1 from {handle} to-local-file 'out' raw motorola")
    assert (server.cwd / "out").read_bytes() == bytes([6, 5, 4, 3, 2, 1, 12, 11, 10, 9, 8, 7])


@pytest.mark.parametrize("kind,utype", [("u1", 1), ("u2", 2), ("u4", 3), ("f4", 4), ("f8", 6), ("i2", 6), ("i8", 7)])
def test_anybodys_hdf5_file(server, client, names, kind, utype):
    values = np.arange(24).reshape(2, 3, 4).astype(kind)
    with h5py.File(server.cwd / "any.h5", "w") as f:
        f["a/list"] = np.arange(5)
        f["a/text"] = "no numbers"
        f.create_dataset("b/image", data=values, chunks=(1, 3, 2), compression="gzip")
    handle = do(client, "file open 'any.h5' tessera")
    assert [do(client, f"unif-get-{n} {handle}") for n in ("nx", "ny", "nt", "type")] == [4, 3, 2, utype]
    do(client, f"read 1 1 0 2 2 2 from {handle} to-local-file 'out' double")
    assert (server.cwd / "out").read_bytes() == values[:, 1:, 1:3].astype("f8").tobytes()
    value, lines = result(client, f"module load 'any.h5' '{names('m')}' tessera")
    assert value == 0 and f"# Determined utype={utype} from tessera header" in lines
    assert Module(names("m")).head["data_type"] == {3: 1, 6: 4}.get(utype, 3)
    assert (Module(names("m")).data == values).all()


@pytest.mark.parametrize("word,kind", [("raw", "u4"), ("long", "u4"), ("float", "f4"), ("double", "f8")])
def test_save_in_byte_forms(server, client, names, word, kind):
    n = names("m")
    do(client, f"module create '{n}' 3 2 header")
    Module(n).data[:] = np.arange(6).reshape(2, 3)
    value, lines = result(client, f"module save '{n}' 'out' {word}")
    assert value == 0 and re.fullmatch(
        rf"# Saving '{n}' using 'read 0 0 0 3 2 1 from 0 to-local-file 'out'  {word}'", lines[0])
    assert (server.cwd / "out").read_bytes() == np.arange(6).astype(kind).tobytes()
    do(client, f"module save '{n}' 'text' read-quals 'scale-c'")
    assert (server.cwd / "text").read_text() == "0\t1\t2\t\n3\t4\t5\t\n"
    assert client.lines(f"module save '{n}' os9") == ["! OS9 module save not supported on Linux", "* -1"]
    do(client, f"module save '{n}' 'image' det")
    do(client, f"module load 'image' '{names('back')}' tessera long")
    assert (Module(names("back")).data == Module(n).data).all()


def test_numbered_files(server, client, names):
    n = names("m")
    do(client, f"module create '{n}' 2 1 header")
    (server.cwd / "run").mkdir()
    assert refused(client, f"module save '{n}' 'run' current-file 'x.txt'")[0] == (
        "! ERROR: no file was numbered in folder 'run' yet")
    server.write("save.cmd", [f"module save '{n}' 'run' next-file 'sum.txt' comment1 'hot' comment2 'dry' xh 'xh0' "
                              "save-script 'run'"])
    assert client.lines("include 'save.cmd'")[-1] == "* 0"
    do(client, f"module save '{n}' 'run' next-file 'sum.txt'")
    do(client, f"module save '{n}' 'run' current-file 'raw.bin' raw")
    assert sorted(p.name for p in (server.cwd / "run").iterdir()) == [
        "1_save.cmd", "1_sum.txt", "2_raw.bin", "2_sum.txt", "kestrel.index", "kestrel.index.lock", "kestrel.log"]
    assert (server.cwd / "run/kestrel.index").read_text() == "2\n"
    log = re.sub(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", "TIME", (server.cwd / "run/kestrel.log").read_text())
    assert log == (f"TIME  run/1_sum.txt\n    hot\n    dry\n    XH: xh0\n    script: {server.cwd}/save.cmd\n"
                   "TIME  run/2_sum.txt\nTIME  append to run/2_raw.bin\n")
    assert (server.cwd / "run/1_save.cmd").read_text() == (server.cwd / "save.cmd").read_text()
    assert do(client, "file get-next-index 'run' file-suffix 'a' get-fname 'fname'") == 3
    assert client.lines("%fname") == ['* "run/3_a"']


def test_an_index_that_is_none_is_not_overwritten(server, client):
    server.write("kestrel.index", "seven\n")
    assert refused(client, "file get-next-index '.'") == ["! ERROR: index file './kestrel.index' does not hold a number"]
    assert (server.cwd / "kestrel.index").read_text() == "seven\n"
    server.write("kestrel.index", "2147483647\n")
    assert refused(client, "file get-next-index '.'") == ["! ERROR: no number is left in folder '.'"]
    assert refused(client, "file get-next-index '/no/such'")[0].startswith("! ERROR: cannot open lock file")
    assert refused(client, "file get-next-index '.' file-suffix 'a/b'") == [
        "! ERROR: a file suffix cannot have a '/' in it"]


def test_two_servers_draw_different_numbers(start, tmp_path):
    servers = [start(), start()]
    drawn = []

    def draw(server):
        client = server.client()
        drawn.extend(do(client, f"file get-next-index '{tmp_path}'") for _ in range(40))

    threads = [threading.Thread(target=draw, args=(s,)) for s in servers]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert sorted(drawn) == list(range(1, 81))
