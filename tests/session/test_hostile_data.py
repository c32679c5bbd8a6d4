"""Data folders and modules that others meddle with: the server answers, harms nothing and goes on."""
import os
import struct
import subprocess
import time

import h5py
import numpy as np

import kestrel_data
import kestrel_session
from kestrel_data import do, refused


FLIP = """
import mmap, struct, sys
with open(sys.argv[1], "r+b") as f:
    m = mmap.mmap(f.fileno(), 0)
shapes = [struct.pack("<III", 983040, 1, 1), struct.pack("<III", 64, 512, 30)]
while True:
    for shape in shapes:
        m[8:20] = shape
"""


def test_a_module_whose_shape_changes_under_a_copy(server, client, names):
    """Both shapes are good ones; what was checked once must be what is used."""
    source, target = names("s"), names("t")
    for name in source, target:
        do(client, f"module create '{name}' 64 512 header num-t 30")
    flipper = subprocess.Popen(["/usr/bin/python3", "-c", FLIP, "/dev/shm/" + target])
    try:
        end = time.monotonic() + 3 * kestrel_session.SCALE
        while time.monotonic() < end:
            client.lines(f"module copy '{source}' '{target}' quiet")
    finally:
        flipper.kill()
        flipper.wait()
    assert server.process.poll() is None


def test_pipes_in_place_of_index_files_are_refused(server, client):
    for file, line in [("kestrel.index", "open index file"), ("kestrel.log", "write log file"),
                       ("kestrel.index.new", "write index file"), ("kestrel.index.lock", "open lock file")]:
        folder = server.cwd / ("with_" + file)
        folder.mkdir()
        os.mkfifo(folder / file)
        said = refused(client, f"file get-next-index '{folder}'")
        path = folder / ("kestrel.index" if file.endswith(".new") else file)
        assert said[0].startswith(f"! ERROR: cannot {line} '{path}': "), said
    os.mkfifo(server.cwd / "pipe")
    do(client, "test open 4 4 1 long")
    assert refused(client, "maths search-outliers 0 0 0 0 3 3 0 'pipe' above 1.0") == ["! Cannot open file 'pipe'"]
    assert refused(client, "ftp set-debug 1 'pipe'")
    os.mkfifo(server.cwd / "got.part")
    assert refused(client, "ftp get 'far' 'got' host '127.0.0.1'") and refused(client, "ftp put 'pipe' 'far'")
    assert refused(client, f"ftp put 'titled.h5' 'far' host '{'h' * 256}'") == [
        "! The text of a qualifier can have 255 characters at most"]
    with h5py.File(server.cwd / "titled.h5", "w") as f:
        f["data"] = np.zeros((8, 8), "u1")
        f["entry/title"] = h5py.ExternalLink("pipe", "x")
    do(client, "file open 'titled.h5' tessera")


def test_an_index_that_somebody_keeps_locked(server, client):
    folder = server.cwd / "locked"
    folder.mkdir()
    program = ("import fcntl, sys\nf = open(sys.argv[1], 'w')\nfcntl.lockf(f, fcntl.LOCK_EX)\n"
               "print('held', flush=True)\nsys.stdin.read()\n")
    with subprocess.Popen(["/usr/bin/python3", "-c", program, folder / "kestrel.index.lock"],
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE) as holder:
        holder.stdout.readline()
        client.send(f"file get-next-index '{folder}'\n")
        server.wait_until_busy()
        client.expect_silence()
        server.interrupt()
        assert client.recv_prompt().decode().splitlines()[-1] == "* -1"
        holder.stdin.close()
    assert do(client, f"file get-next-index '{folder}'") == 1


def test_images_that_keep_their_data_elsewhere_are_refused(server, client):
    secret = server.cwd / "secret"
    secret.write_bytes(bytes(64))
    with h5py.File(server.cwd / "external.h5", "w") as f:
        f.create_dataset("data", (8, 8), "u1", external=[(str(secret), 0, 64)])
    with h5py.File(server.cwd / "plain.h5", "w") as f:
        f["data"] = np.zeros((8, 8), "u1")
    layout = h5py.VirtualLayout((8, 8), "u1")
    layout[:] = h5py.VirtualSource(str(server.cwd / "plain.h5"), "data", (8, 8))
    with h5py.File(server.cwd / "virtual.h5", "w") as f:
        f.create_virtual_dataset("data", layout)
    do(client, "file open 'plain.h5' tessera")
    for name in "external.h5", "virtual.h5":
        assert refused(client, f"file open '{name}' tessera") == [
            f"! ERROR: file '{name}': dataset /data keeps its data in other files"]


def test_images_that_the_library_does_not_survive(server, client, names, still):
    """It crashes over the first, has no memory for the second, and is at the third for hours."""
    good = np.arange(64, dtype="f4").reshape(8, 8)
    for name in "good.h5", "bad.h5":
        with h5py.File(server.cwd / name, "w") as f:
            f["data"] = good
    image = (server.cwd / "bad.h5").read_bytes()
    at = image.index(b"TREE") + 32
    (server.cwd / "bad.h5").write_bytes(image[:at] + b"\xff" * 8 + image[at + 8:])
    for name, chunk in ("large.h5", 30000), ("endless.h5", 1000):
        with h5py.File(server.cwd / name, "w") as f:
            f.create_dataset("data", (2000000000, 2000000000), "f4", chunks=(chunk, chunk))
    before = kestrel_data.held(server)
    crash = "! ERROR: file 'bad.h5': is corrupt: the HDF5 library crashes over it (Segmentation fault)"
    assert refused(client, "file open 'bad.h5' tessera") == [crash]
    assert refused(client, f"module load 'bad.h5' '{names('m')}' tessera") == [
        crash, "! ERROR: Cannot open file using command 'file open 'bad.h5' tessera'"]
    if kestrel_session.SCALE == 1:  # a sanitizer's memory has no limit
        assert refused(client, "file open 'large.h5' tessera") == [
            "! ERROR: file 'large.h5': needs more than 2048 MB of memory to be read"]
    client.send("file open 'endless.h5' tessera\n")
    server.wait_until_busy()
    client.expect_silence()
    server.interrupt()
    assert client.recv_prompt().decode().splitlines()[-2:] == [
        "! ERROR: file 'endless.h5': opening it was interrupted", "* -1"]
    children = f"/proc/{server.process.pid}/task/{server.process.pid}/children"
    assert kestrel_data.held(server) == before and open(children).read() == ""
    do(client, f"module load 'good.h5' '{names('m')}' tessera")
    assert (kestrel_data.Module(names("m")).data == good).all()


def test_titles_cannot_speak_for_the_server(client, names):
    name = names("m")
    do(client, f"module create '{name}' 4 4 header")
    with open("/dev/shm/" + name, "r+b") as f:
        f.seek(278)
        f.write(b"evil\r\n* 77\r\n\x1b[2J")
    handle = do(client, f"module open '{name}' header")
    said = client.lines(f"ustatus of {handle}")
    assert any("evil??* 77???[2J" in line for line in said), said
    assert said[-1] != "* 77" and not any(line.startswith("* 77") for line in said)


def test_a_copy_of_some_frames_keeps_the_other_labels(client, names, still):
    """Labels as fit results have them: 3 frames, then one frame copied over the first."""
    source, target = names("s"), names("t")
    labels = [b"alpha", b"beta", b"gamma"]
    do(client, f"module create '{source}' 2 2 header num-t 3")
    size = (4 * 3 + sum(len(text) + 1 for text in labels) + 15) // 16 * 16
    path = "/dev/shm/" + source
    head = bytearray(open(path, "rb").read(464))
    struct.pack_into("<iiii", head, 444, 3, size, 0, 464 + size)
    table, strings = b"", b""
    for text in labels:
        table += struct.pack("<i", 464 + 12 + len(strings))
        strings += text + b"\0"
    with open(path, "r+b") as f:
        f.truncate(464 + size + 48)
        f.write(head + (table + strings).ljust(size, b"\0"))
    do(client, f"module copy '{source}' '{target}' quiet")
    do(client, f"module copy '{source}' '{target}' src-t 2 dst-t 0 quiet")
    assert label_texts(target) == ["gamma", "beta", "gamma"]
    flat = names("f")
    assert client.lines(f"module copy '{source}' '{flat}' src-t 1 quiet") == [
        "# Warning: New module does not have sapce for labels, continuing without row labels", "* 0"]


def label_texts(name):
    raw = open("/dev/shm/" + name, "rb").read()
    count = struct.unpack_from("<i", raw, 444)[0]
    return [raw[at:raw.index(b"\0", at)].decode() for at in struct.unpack_from(f"<{count}i", raw, 464)]


def test_a_load_that_fails_leaves_no_module(server, client, names, still):
    name = names("m")
    np.zeros((600, 1000)).tofile(server.cwd / "raw")
    with h5py.File(server.cwd / "bad.h5", "w") as f:
        f.create_dataset("data", data=np.random.default_rng(1).integers(0, 9, (64, 64)), chunks=(64, 64), compression="gzip")
        offset, length = (lambda info: (info.byte_offset, info.size))(f["data"].id.get_chunk_info(0))
    with open(server.cwd / "bad.h5", "r+b") as f:
        f.seek(offset + length // 2)
        f.write(b"\xff" * 20)
    said = refused(client, f"module load 'bad.h5' '{name}' tessera")
    assert said[0] == "! ERROR: file 'bad.h5': cannot read dataset /data", said
    assert not os.path.exists("/dev/shm/" + name)


def test_over_long_names_do_not_become_other_names(server, client, names, still):
    name, folder = names("m"), "d" * 200
    do(client, f"module create '{name}' 4 4 header")
    (server.cwd / folder).mkdir()
    for line in [f"module save '{name}' '{folder}/{'f' * 100}'",
                 f"module save '{name}' '{folder}' next-file '{'s' * 300}'"]:
        assert "! The text of a qualifier can have 255 characters at most" in refused(client, line)
    assert not os.listdir(server.cwd / folder)


def test_causes_are_told_as_they_are(server, client, names, still):
    name = names("m")
    do(client, f"module create '{name}' 100 100 header")
    os.truncate("/dev/shm/" + name, 4096)
    assert refused(client, f"module open '{name}' header")[0].startswith(f"! ERROR: module '{name}' ")
    assert refused(client, f"module get-point '{name}' 1 1 'v'")[0].startswith(f"! ERROR: module '{name}' ")
    assert refused(client, f"module resize '{name}' 1 1")[0].startswith(f"! ERROR: module '{name}' ")
    large = "test open 2000000000 2000000000 2000000000 long"
    assert refused(client, large) == ["! A source of 2000000000 x 2000000000 x 2000000000 elements is too large"]


def test_a_local_variable_does_not_name_the_file(server, client, names, still):
    name = names("m")
    do(client, f"module create '{name}' 2 2 header")
    (server.cwd / "data").mkdir()
    (server.cwd / "script").write_text(f"set-string 'module_save_fname' 'shadow' local\n"
                                       f"module save '{name}' 'data' next-file 'x'\n")
    client.cmd("include 'script'")
    assert (server.cwd / "data" / "1_x").exists() and not (server.cwd / "shadow").exists()
