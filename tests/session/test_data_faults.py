"""Things that go wrong with data: each gives its line, leaves nothing behind, and the next command works."""
import errno
import fcntl
import os
import signal
import socket
import stat
import struct
import subprocess
import termios
import threading
import time

import kestrel_data
import kestrel_session
import numpy as np
import pytest
from kestrel_data import DataPort, do, refused, result
from kestrel_session import far_end, wait_until


def unread(end):
    """The bytes that have come to a pipe or a socket."""
    return struct.unpack("i", fcntl.ioctl(end, termios.FIONREAD, bytes(4)))[0]


def test_a_full_disk(server, client, small_disk, still):
    handle = do(client, "test open 1000 100 1 long")
    box = f"read 0 0 0 1000 100 1 from {handle} to-local-file '{small_disk}/out'"
    for form in ("raw", "", "asc-col", "motorola raw"):
        assert refused(client, f"{box} {form}") == [
            f"! Cannot write file '{small_disk}/out': No space left on device", "! Error during write"], form
        assert not os.listdir(small_disk)
    client.lines(f"cd '{small_disk}'")
    large = do(client, "test open 1000 200 1 long")
    box = f"read 0 0 0 1000 200 1 from {large} to-local-file '{server.cwd}/out'"
    assert refused(client, box + " gel")[0].startswith("! TIFFWriteScanline failed on line ")
    assert refused(client, box + " det")[0] == "! Cannot open dummy DET file for output."
    assert not os.listdir(small_disk)
    client.lines(f"cd '{server.cwd}'")
    do(client, f"read 0 0 0 1000 1 1 from {handle} to-local-file '{small_disk}/out' raw")


def test_a_full_disk_and_the_index(client, small_disk, still):
    assert do(client, f"file get-next-index '{small_disk}'") == 1
    (small_disk / "fill").write_bytes(b"x" * (os.statvfs(small_disk).f_bavail * os.statvfs(small_disk).f_frsize))
    assert refused(client, f"file get-next-index '{small_disk}'") == [
        f"! ERROR: cannot write index file '{small_disk}/kestrel.index': No space left on device"]
    os.unlink(small_disk / "fill")
    assert do(client, f"file get-next-index '{small_disk}'") == 2


def test_full_shared_memory(start, monkeypatch, tmp_path, names):
    """The server runs where shared memory has room for 512 KiB."""
    program = tmp_path / "kestrel"
    program.write_text(f"#!/bin/sh\nmount -t tmpfs -o size=512k tmpfs /dev/shm && exec {kestrel_session.KESTREL} \"$@\"\n")
    program.chmod(0o755)
    if subprocess.run(["unshare", "-m", "true"], capture_output=True).returncode:
        pytest.skip("cannot make a mount of its own here")
    launcher = tmp_path / "launch"
    launcher.write_text(f"#!/bin/sh\nexec unshare -m {program} \"$@\"\n")
    launcher.chmod(0o755)
    monkeypatch.setattr(kestrel_session, "KESTREL", str(launcher))
    server = start()
    client = server.client()
    do(client, f"module create '{names('fits')}' 100 100 header")
    before = kestrel_data.held(server)
    line = f'! Cannot create data module "{names("big")}", errno = 28.'
    assert refused(client, f"module create '{names('big')}' 1000 1000 header") == [line]
    assert refused(client, f"module create '{names('big')}' 0 0 size 1000000") == [line]
    assert refused(client, f"module copy '{names('fits')}' '{names('big')}' max-x 4000 quiet") == [line]
    handle = do(client, "test open 1000 1000 1 long")
    assert refused(client, f"read 0 0 0 1000 1000 1 from {handle} to-module '{names('big')}'") == [
        line, "! Error when opening a file or a module (errno 28)."]
    do(client, "close-all")
    assert os.listdir(f"/proc/{server.process.pid}/root/dev/shm") == [names("fits")]
    assert kestrel_data.held(server) == before
    do(client, f"module create '{names('big')}' 200 100 header")


def test_a_client_that_closes_its_data_connection_half_way(client, still):
    handle = do(client, "test open 4000 1000 1 double")
    port = DataPort(client)

    def take_some():
        with port.listener.accept()[0] as connection:
            connection.recv(1000)
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")

    for form in ("raw", ""):
        thread = threading.Thread(target=take_some)
        thread.start()
        said = refused(client, f"read 0 0 0 4000 1000 1 from {handle} {form}")
        assert said[0] in ("! Cannot send data: Connection reset by peer", "! Cannot send data: Broken pipe")
        assert said[1] == "! Error during write"
        thread.join()
    data, reply = port.take(client, f"read 0 0 0 3 1 1 from {handle} raw")
    assert np.frombuffer(data).tolist() == [0, 1, 2]
    port.close()


def test_a_module_that_vanishes_stays_until_it_is_closed(client, names, still):
    n = names("m")
    do(client, f"module create '{n}' 10 10 header")
    handle = do(client, f"module open '{n}' header")
    os.unlink("/dev/shm/" + n)
    do(client, f"read 0 0 0 10 10 1 from {handle} to-local-file 'out'")
    assert refused(client, f"module clear '{n}'") == [f"! Cannot link to data module {n}"]
    do(client, f"module create '{n}' 3 3 header")
    assert do(client, f"unif-get-nx {do(client, f'''module open '{n}' header''')}") == 3


@pytest.mark.parametrize("size", [0, 100, 400, 4096])
def test_a_module_that_shrinks(client, names, still, size):
    n, target = names("m"), names("t")
    do(client, f"module create '{n}' 100 100 header")
    handle = do(client, f"module open '{n}' header")
    do(client, f"module create '{target}' 100 100 header")
    os.truncate("/dev/shm/" + n, size)
    if size > 360:
        assert refused(client, f"module copy '{n}' '{target}'") == [
            f"! ERROR: module '{n}' was cut short by another process"]
    for form in ("raw", "", "float"):
        assert refused(client, f"read 0 0 0 100 100 1 from {handle} {form} to-local-file 'out'")[-1] == "! Error during read"
    assert refused(client, f"clear {handle}")[-1] == "! Device clear failed."
    pattern = do(client, "test open 100 100 1 long")
    for line in (f"module clear '{n}'", f"module set-point '{n}' 99 99 1", f"module copy '{target}' '{n}'",
                 f"module copy '{n}' '{target}'", f"module resize '{n}' 10 10",
                 f"read 0 0 0 100 100 1 from {pattern} to-module '{n}'", f"module open '{n}' header"):
        assert result(client, line)[0] == -1, line
    do(client, f"close {handle}")


def test_a_module_that_was_resized_under_its_handle(client, names, still):
    n = names("m")
    do(client, f"module create '{n}' 100 100 header")
    handle = do(client, f"module open '{n}' header")
    raw = np.memmap("/dev/shm/" + n, dtype="u1", mode="r+")[:360].view(kestrel_data.HEAD)
    raw["num_x"] = 50  # the handle was opened with 100
    assert refused(client, f"read 0 0 0 100 100 1 from {handle} raw to-local-file 'out'") == [
        "! Module of path 1 is (50, 100, 1) now", "! Device read failed.", "! Error during read"]
    do(client, f"read 0 0 0 50 100 1 from {handle} raw to-local-file 'out'")


def test_no_file_is_left_where_a_read_fails(server, client, still, names):
    handle = do(client, "test open 10 10 1 int64")
    (server.cwd / "kept").write_text("what was there")
    assert refused(client, f"read 0 0 0 10 10 2 from {handle} to-local-file 'kept' raw")
    assert (server.cwd / "kept").read_text() == "what was there"
    assert refused(client, f"read 0 0 0 10 10 1 from {handle} to-module '{names('m')}'") == [
        "! A headed module holds long, float or double data, not int64",
        "! Error when opening a file or a module (errno 22)."]
    assert not os.path.exists("/dev/shm/" + names("m"))


def test_a_module_that_is_cut_while_a_command_uses_it(server, client, names, still, tmp_path):
    """Another process cuts the module and makes it whole again, over and over; the server answers every command."""
    n, target = names("m"), names("t")
    do(client, f"module create '{n}' 2000 2000 header")
    path = "/dev/shm/" + n
    size = os.path.getsize(path)
    program = f"import os\nwhile True:\n    os.truncate({path!r}, 4096)\n    os.truncate({path!r}, {size})\n"
    header = open(path, "rb").read(400)
    lines = ["read 0 0 0 2000 2000 1 from {} float to-local-file 'out'", "read 0 0 0 2000 2000 1 from {} raw to-local-file 'out'",
             "maths accumulate {} 0 0 0 1999 1999 0", "maths integrate {} 0 0 0 1999 1999 0 x module 'T'",
             "module copy 'M' 'T' quiet", "clear {}", "module set-point 'M' 1999 1999 5"]
    def line_for(line, handle):
        return line.format(handle).replace("'M'", f"'{n}'").replace("'T'", f"'{target}'")

    handle = do(client, f"module open '{n}' header")
    for line in lines:  # all of them work on a whole module
        assert not client.lines(line_for(line, handle))[-1].startswith("* -"), line
        if os.path.exists("/dev/shm/" + target):
            os.unlink("/dev/shm/" + target)
    client.lines("close-all")
    racer = subprocess.Popen(["/usr/bin/python3", "-c", program])
    cut = 0
    try:
        end = time.monotonic() + 4 * kestrel_session.SCALE
        while time.monotonic() < end or not cut and time.monotonic() < end + 3 * kestrel_session.WAIT:
            handle, _ = result(client, f"module open '{n}' header")
            for line in lines:
                reply = client.lines(line_for(line, max(handle, 0)))
                met = [text for text in reply if "was cut short by another process while" in text]
                cut += len(met)
                assert not met or reply[-1] in ("* -1", "* $ffffffff"), reply
            client.lines("close-all")
            if os.path.exists("/dev/shm/" + target):
                os.unlink("/dev/shm/" + target)
    finally:
        racer.kill()
        racer.wait()
    assert cut > 0, "no access met the end of the module"
    os.truncate(path, size)
    with open(path, "r+b") as module:
        module.write(header)
    handle = do(client, f"module open '{n}' header")
    do(client, f"read 0 0 0 2000 2000 1 from {handle} raw to-local-file 'out'")


def test_any_other_bus_error_ends_the_server(start, names):
    server = start()
    do(server.client(), f"module create '{names('m')}' 10 10 header")  # modules are watched from now on
    server.process.send_signal(signal.SIGBUS)
    assert server.wait_exit() == -signal.SIGBUS
    server.process.returncode = 0  # as it should be


def file_kinds(folder):
    """Old files in their kinds: (name, what makes it)."""
    return {"plain": lambda path: None, "closed to others": lambda path: path.chmod(0o640),
            "a link": lambda path: (path.rename(path.with_name("behind")), path.symlink_to("behind")),
            "two names": lambda path: os.link(path, path.with_name("second"))}


@pytest.mark.parametrize("kind", file_kinds(None))
def test_a_failing_read_leaves_the_old_file_as_it_was(server, client, small_disk, still, kind):
    old = small_disk / "out"
    old.write_text("what was there")
    old.chmod(0o604)
    file_kinds(None)[kind](old)
    mode, files = old.stat().st_mode, sorted(os.listdir(small_disk))
    handle = do(client, "test open 1000 100 1 long")
    read = f"read 0 0 0 1000 {{}} 1 from {handle} to-local-file '{old}' raw"
    assert refused(client, read.format(100)) == [
        f"! Cannot write file '{old}': No space left on device", "! Error during write"]
    if kind != "two names":  # which would no longer be names of one file
        assert old.read_text() == "what was there"
    assert sorted(os.listdir(small_disk)) == files and old.is_symlink() == (kind == "a link")
    do(client, read.format(1))
    assert np.fromfile(old, "u4").tolist() == list(range(1000))
    assert sorted(os.listdir(small_disk)) == files and old.is_symlink() == (kind == "a link")
    assert old.stat().st_mode == mode
    if kind == "two names":
        assert old.samefile(small_disk / "second")


def test_a_failing_read_leaves_a_link_without_a_file(client, small_disk, still):
    (small_disk / "out").symlink_to("behind")
    handle = do(client, "test open 1000 100 1 long")
    read = f"read 0 0 0 1000 {{}} 1 from {handle} to-local-file '{small_disk}/out' raw"
    refused(client, read.format(100))
    assert os.listdir(small_disk) == ["out"]
    do(client, read.format(1))
    assert (small_disk / "behind").stat().st_size == 4000


def test_a_file_that_no_other_may_replace_is_written_itself(server, client, tmp_path, still):
    handle = do(client, "test open 1000 100 1 long")
    read = f"read 0 0 0 1000 1 1 from {handle} raw to-local-file "
    # The server's own standard output: it goes on to be that.
    do(client, read + "'/dev/stdout'")
    assert not os.readlink(f"/proc/{server.process.pid}/fd/1").endswith("(deleted)")
    # A file mounted over another, as containers have them.
    below, above = tmp_path / "below", tmp_path / "above"
    below.write_text("below")
    above.write_text("above")
    if subprocess.run(["mount", "--bind", above, below], capture_output=True).returncode:
        pytest.skip("cannot mount here")
    try:
        do(client, read + f"'{below}'")
        assert np.fromfile(above, "u4").tolist() == list(range(1000))
        assert sorted(os.listdir(tmp_path)) == sorted(["0", "above", "below"])
    finally:
        subprocess.run(["umount", "-l", below], check=True)


def test_data_that_do_not_fit_into_a_mounted_file_are_kept(client, small_disk, still):
    """Written aside they fit, but not a second time."""
    below, above = small_disk / "below", small_disk / "above"
    below.touch()
    above.touch()
    if subprocess.run(["mount", "--bind", above, below], capture_output=True).returncode:
        pytest.skip("cannot mount here")
    try:
        handle = do(client, "test open 1000 40 1 long")
        said = refused(client, f"read 0 0 0 1000 40 1 from {handle} raw to-local-file '{below}'")
        aside = next(small_disk.glob("below.*"))
        assert said == [f"! Cannot finish file '{below}': No space left on device", f"! The data are in '{aside}'"]
        assert np.fromfile(aside, "u4").size == 40000
    finally:
        subprocess.run(["umount", "-l", below], check=True)


def test_devices_and_pipes_are_written_directly(server, client, still):
    handle = do(client, "test open 1000 100 1 long")
    read = f"read 0 0 0 1000 100 1 from {handle} raw to-local-file "
    do(client, read + "'/dev/null'")
    assert refused(client, read + "'/dev/full'")[0] == "! Cannot write file '/dev/full': No space left on device"
    assert stat.S_ISCHR(os.stat("/dev/full").st_mode) and stat.S_ISCHR(os.stat("/dev/null").st_mode)
    os.mkfifo(server.cwd / "pipe")
    assert refused(client, read + "'pipe'") == ["! Error when opening a file or a module (errno 6)."]
    assert stat.S_ISFIFO(os.stat(server.cwd / "pipe").st_mode)
    data = []
    reader = threading.Thread(target=lambda: data.append((server.cwd / "pipe").read_bytes()))
    reader.start()
    wait_until(lambda: result(client, read + "'pipe'")[0] == 0, "reader")
    reader.join()
    assert len(data[0]) == 400000 and np.frombuffer(data[0], "u4")[:1000].tolist() == list(range(1000))


def test_a_pipe_that_nobody_empties_is_left_by_an_interrupt(server, client, still):
    handle = do(client, "test open 1000 1000 1 long")
    os.mkfifo(server.cwd / "pipe")
    end = os.open(server.cwd / "pipe", os.O_RDONLY | os.O_NONBLOCK)
    client.send(f"read 0 0 0 1000 1000 1 from {handle} raw to-local-file 'pipe'\n")
    client.recv_until("# Calling Write\r\n")
    wait_until(lambda: unread(end), "some of the data")  # the first block, which the pipe does not hold
    client.expect_silence()
    server.interrupt()
    client.recv_until("! Cannot write file 'pipe': Interrupted system call\r\n! Error during write\r\n* -1\r\n> ")
    os.close(end)


def test_free_handles_and_sizes_of_zero_are_refused(server, client, names):
    (server.cwd / "rows").write_text("1 2 3\n4 5 6\n")
    assert refused(client, "module close 7")
    assert refused(client, "module close 99")
    line = f"module load 'rows' '{names('m')}' open-quals 'ascii' num-t"
    for size in "0", "-1":
        assert refused(client, f"{line} {size}") == [f"! ERROR: Specified num-t ({size}) is less than file num-t (1)"]
    assert not os.path.exists("/dev/shm/" + names("m"))
    do(client, line + " 1")


def test_text_files_on_a_full_disk_and_pipes_without_a_reader(server, client, still):
    os.mkfifo(server.cwd / "pipe")
    for mode in "", " append":
        assert client.lines(f"printf 'a' file '/dev/full'{mode}") == ["! Error on write", '* "a"']
        assert client.lines(f"printf 'a' file 'pipe'{mode}") == [
            f"! Cannont open File pipe in mode {'a' if mode else 'w'}", '* "ERROR"']
    client.send("ascii write file '/dev/full'\nabc\n:EOF\n")
    assert client.recv_prompt() == b"! Error on write\r\n* -1\r\n"
    assert refused(client, "ascii write file 'pipe'") == ["! Cannont open File pipe in mode w"]
    client.lines("printf 'one' file 'text'")
    client.lines("printf 'two' file 'text' append")
    assert (server.cwd / "text").read_text() == "one\ntwo\n"
    client.lines("printf 'three' file 'text'")
    assert (server.cwd / "text").read_text() == "three\n"


def test_a_client_that_takes_no_data_is_left_by_an_interrupt(server, client, still):
    handle = do(client, "test open 4000 1000 1 double")
    port = DataPort(client)
    client.send(f"read 0 0 0 4000 1000 1 from {handle} raw\n")
    with port.listener.accept()[0] as connection:
        client.recv_until("# Calling Write\r\n")

        def stands_still():
            filled = unread(connection), far_end(connection)[4]
            client.expect_silence()
            return filled[0] > 0 and filled == (unread(connection), far_end(connection)[4])

        wait_until(stands_still, "connection that is full")
        server.interrupt()
        client.recv_until("! Cannot send data: Interrupted system call\r\n! Error during write\r\n* -1\r\n> ")
    port.close()


@pytest.mark.parametrize("broken", [True, False])
def test_a_kept_data_connection_is_used_again_unless_it_is_broken(client, still, broken):
    """A client that only has no more to send itself still gets its data there."""
    handle = do(client, "test open 3 1 1 double")
    port = DataPort(client)
    line = f"read 0 0 0 3 1 1 from {handle} raw preserve-socket"
    do(client, line)
    with port.listener.accept()[0] as connection:
        do(client, line)
        received = b""
        while len(received) < 48:  # both, over the connection that was kept
            received += connection.recv(48)
        last = line.replace(" preserve-socket", "")
        if broken:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            connection.close()
            data, _ = port.take(client, last)
        else:
            connection.shutdown(socket.SHUT_WR)
            do(client, last)
            data = b"".join(iter(lambda: connection.recv(48), b""))
    assert np.frombuffer(data).tolist() == [0, 1, 2]
    port.close()


def test_the_number_of_the_error_is_its_cause(client, names, still):
    handle = do(client, "test open 100 10 1 float")
    read = f"read 0 0 0 100 10 1 from {handle}"
    last = "! Error when opening a file or a module (errno {})."
    assert refused(client, read) == [last.format(errno.ENOTCONN)]
    with socket.socket() as nobody:
        nobody.bind(("127.0.0.1", 0))
        do(client, f"port {nobody.getsockname()[1]}")
        assert refused(client, read) == [last.format(errno.ECONNREFUSED)]
    for name, size, error in (("type", "100 10 header", errno.EINVAL), ("small", "99 10 header float", errno.ENOSPC),
                              ("plain", "0 0 size 999", errno.EINVAL), ("cut", "100 10 header float", errno.ENXIO)):
        do(client, f"module create '{names(name)}' {size}")
        held_open = do(client, f"module open '{names(name)}' header") if name == "cut" else -1
        if held_open >= 0:
            os.truncate("/dev/shm/" + names(name), 1000)
        assert refused(client, f"{read} to-module '{names(name)}'")[1:] == [last.format(error)], name
    assert refused(client, f"{read} to-module '{names('plain')}' no-header")[1:] == [last.format(errno.ENOSPC)]


@pytest.mark.parametrize("words", ["", "start-t 1", "no-header raw"])
def test_a_module_that_a_failing_read_made_goes_again(server, client, names, still, words):
    n, source = names("made"), names("source")
    do(client, f"module create '{source}' 100 100 header")
    cut = do(client, f"module open '{source}' header")
    os.truncate("/dev/shm/" + source, 400)
    egg = do(client, "test open 2000 2000 6 long egg")  # a second or more, which an interrupt comes into
    read = f"read 0 0 0 2000 2000 6 from {egg} to-module '{n}' {words}"

    def fail_both():
        assert refused(client, f"read 0 0 0 100 100 1 from {cut} to-module '{n}' {words}")[-1] == "! Error during read"
        client.send(read + "\n")
        client.recv_until("# Calling read")
        server.interrupt()
        assert b"! Read interrupted\r\n! Error during write\r\n* -1" in client.recv_prompt()

    fail_both()
    assert not os.path.exists("/dev/shm/" + n)
    do(client, read)  # and is kept this time
    inode = os.stat("/dev/shm/" + n).st_ino
    fail_both()
    assert os.stat("/dev/shm/" + n).st_ino == inode


def test_plain_bytes_do_not_overwrite_a_header(client, names, still):
    headed, plain = names("headed"), names("plain")
    do(client, f"module create '{headed}' 20 10 header num-t 1")
    before = open("/dev/shm/" + headed, "rb").read()
    handle = do(client, "test open 300 1 1 long")
    read = f"read 1 0 0 100 1 1 from {handle} raw to-module '{{}}' no-header"
    assert refused(client, read.format(headed)) == [
        f"! ERROR: module '{headed}' has a header", "! Error when opening a file or a module (errno 22)."]
    assert open("/dev/shm/" + headed, "rb").read() == before
    for _ in range(2):
        do(client, read.format(plain))
    assert np.fromfile("/dev/shm/" + plain, "u4").tolist() == list(range(1, 101))


@pytest.mark.parametrize("form", ["raw", "det"])
def test_a_file_is_not_overwritten_while_it_is_read(server, client, still, form):
    """With two names it can only be written in place."""
    old = server.cwd / "old"
    pattern = do(client, "test open 100 10 1 float")
    do(client, f"read 0 0 0 100 10 1 from {pattern} {form} to-local-file 'old'")
    handle = do(client, "file open 'old' " + ("raw nx 100 ny 10 float" if form == "raw" else "tessera"))
    os.link(old, server.cwd / "second")
    before = old.read_bytes()
    for name in "old", "second":
        assert refused(client, f"read 0 0 0 50 10 1 from {handle} raw to-local-file '{name}'") == [
            f"! File '{name}' holds the data that are read and cannot be replaced",
            "! Error when opening a file or a module (errno 16)."]
    assert old.read_bytes() == before
    os.unlink(server.cwd / "second")
    do(client, f"read 50 0 0 50 10 1 from {handle} raw to-local-file 'old'")
    assert (np.fromfile(old, "f4").reshape(10, 50) == np.add.outer(2 * np.arange(10), np.arange(50, 100))).all()


def test_there_is_nothing_to_sync_on_a_device(client, still):
    handle = do(client, "test open 10 10 1 long")
    do(client, f"read 0 0 0 10 10 1 from {handle} raw to-local-file '/dev/null' fsync")


def test_what_a_killed_server_was_saving_is_swept_at_the_next_save(server, client):
    """Only unfinished files of servers of this machine that are no more; a long name has no room for the mark."""
    do(client, "test open 4 4 1 float")
    do(client, "read 0 0 0 4 4 1 from 0 to-local-file 'data' raw")
    host = socket.gethostname()
    dead = subprocess.run(["sh", "-c", "echo $$"], capture_output=True, text=True).stdout.strip()
    left = {f"data.kestrel-{host}-{dead}.abc123": False, f"other.kestrel-{host}-{dead}.abc124": False,
            f"data.kestrel-{host}-{server.process.pid}.abc125": True, f"data.kestrel-elsewhere-{dead}.abc126": True,
            f"data.kestrel-{host}-{dead}": True, f"data.kestrel-{host}-{dead}x.abc127": True, "data.abc128": True}
    for name in left:
        server.write(name, "unfinished")
    do(client, "read 0 0 0 4 4 1 from 0 to-local-file 'data' raw")
    assert {name: (server.cwd / name).exists() for name in left} == left
