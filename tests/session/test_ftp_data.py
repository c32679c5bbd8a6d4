"""Reads that leave by FTP, against a real FTP server on loopback that can be told to refuse and to die."""
import os
import socket

import numpy as np
from ftp_server import LOGIN, ftp  # noqa: F401 (a fixture)
from kestrel_data import do, held, refused
from kestrel_session import wait_until


def test_a_box_arrives_whole(server, client, ftp):
    address, folder = ftp()
    handle = do(client, "test open 1000 700 1 float")
    do(client, f"read 0 0 0 1000 700 1 from {handle} raw to-remote-file 'box.raw' on '{address}' {LOGIN}")
    values = np.fromfile(folder / "box.raw", "f4").reshape(700, 1000)
    assert (values == np.add.outer(2 * np.arange(700), np.arange(1000))).all()
    do(client, f"read 0 0 0 3 1 1 from {handle} to-remote-file 'rows #1.txt' on '{address}' {LOGIN}")
    assert (folder / "rows #1.txt").read_bytes() == b"0 1 2 \n"
    do(client, f"read 0 0 0 9 9 1 from {handle} gel to-remote-file 'a.gel' on '{address}' {LOGIN}")
    assert (folder / "a.gel").read_bytes() == (server.cwd / ".utemp.gel").read_bytes()


def test_refusals_have_their_lines_and_no_password(start, ftp, names):
    server = start("-log=log", "-vlog=vlog")
    client = server.client()
    address, folder = ftp()
    handle = do(client, "test open 10 10 1 float")
    box = f"read 0 0 0 10 10 1 from {handle} raw to-remote-file"
    do(client, f"{box} 'warm' on '{address}' {LOGIN}")
    before = held(server)
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        nobody = "127.0.0.1:%d" % s.getsockname()[1]
    last = "! Error when opening a file or a module (errno 5)."
    assert refused(client, f"{box} 'x' on '{nobody}' {LOGIN}")[0].startswith(f"! FTP open failed to machine '{nobody}': ")
    assert refused(client, f"{box} 'x' on '{address}' user 'probe' password 'wr0ng word'") == [
        f"! FTP Authorisation failed to machine '{address}', user 'probe'", last]
    assert refused(client, f"{box} 'no/such/folder' on '{address}' {LOGIN}")[-1] in (last, "! Error during write")
    assert refused(client, f"{box} 'x' on 'bad host/name' {LOGIN}")[1] == last
    do(client, f"{box} 'good' on '{address}' {LOGIN}")
    assert (folder / "good").stat().st_size == 400
    wait_until(lambda: held(server) == before, f"return to {before}")
    logged = "".join(p.read_text() for p in server.cwd.iterdir() if "log" in p.name) + server.stdout + server.stderr
    assert "to-remote-file" in logged and "s3cret" not in logged and "wr0ng" not in logged


def test_a_server_that_dies_costs_the_read_only(server, client, ftp):
    address, folder = ftp(die_after=100000)
    handle = do(client, "test open 1000 1000 1 double")
    lines = refused(client, f"read 0 0 0 1000 1000 1 from {handle} raw to-remote-file 'big' on '{address}' {LOGIN}")
    assert lines[0].startswith("! FTP put of 'big' failed: ") and len(lines) <= 2
    assert not (folder / "big").exists(), "half a file is taken back"
    do(client, f"read 0 0 0 10 1 1 from {handle} raw to-remote-file 'small' on '{address}' {LOGIN}")
    assert (folder / "small").stat().st_size == 80


def test_an_upload_that_does_not_begin_touches_nothing(client, ftp, names):
    address, folder = ftp()
    (folder / "old").write_text("what was there")
    do(client, f"module create '{names('m')}' 100 100 header")
    handle = do(client, f"module open '{names('m')}' header")
    os.truncate("/dev/shm/" + names("m"), 400)
    for name in "old", "new":
        line = f"read 0 0 0 100 100 1 from {handle} raw to-remote-file '{name}'"
        assert refused(client, f"{line} on '{address}' {LOGIN}")[-1] == "! Error during read"
    assert os.listdir(folder) == ["old"]
    # Files may be removed there, but not written.
    address, _ = ftp(perm="elrd")
    pattern = do(client, "test open 10 10 1 long")
    line = f"read 0 0 0 10 10 1 from {pattern} raw to-remote-file 'old' on '{address}' {LOGIN}"
    assert refused(client, line)[0].startswith("! FTP put of 'old' failed: ")
    assert (folder / "old").read_text() == "what was there"


def test_an_interrupted_upload_is_taken_back(server, client, ftp):
    address, folder = ftp(rate=100000)
    handle = do(client, "test open 4000 1000 1 double")
    for form in "raw", "":
        client.send(f"read 0 0 0 4000 1000 1 from {handle} {form} to-remote-file 'big' on '{address}' {LOGIN}\n")
        wait_until(lambda: os.listdir(folder) == ["big"], "upload")
        server.interrupt()
        reply = client.recv_prompt()
        assert b"Interrupted\r\n! Error during write\r\n* -1\r\n" in reply or b"! Read interrupted" in reply
        assert os.listdir(folder) == [], "half a file is taken back"
