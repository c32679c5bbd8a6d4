"""KILN headers, their index and log, and the data files that they name: on disk, over FTP, by two servers at once."""
import base64
import contextlib
import os
import pathlib
import re
import struct
import threading

import numpy as np
import pytest
from ftp_server import ftp  # noqa: F401, a fixture
from kairo_peer import KairoPeer
from kestrel_data import Module, do, held, refused

WRITE = "file write-kiln-header"
PASSWORD = base64.b64encode(b"s3cret word").decode()


def numbers(text):
    return [int(n) for n in text.split()]


def header_name(client, line):
    *lines, last = client.lines(line)
    assert not [text for text in lines if text.startswith("! ERR")] and re.fullmatch(r'\* "[A-Z]..000\....?"', last), (lines, last)
    return last[3:-1]


def no_header(client, line):
    *lines, last = client.lines(line)
    assert last == "* (null)", (lines, last)
    return lines


def test_lines_of_the_detectors(server, client):
    for line, said in [("saxs-det psd-1d", "SAXS detector = 268435456 = 0x10000000"),
                       ("saxs-det quill1-area128x128", "SAXS detector = 537924352 = 0x20101300"),
                       ("saxs-serial 300", "SAXS detector = 537924396 = 0x2010132C"),
                       ("waxs-det emberw512", "WAXS detector = 269550080 = 0x10110200"),
                       ("waxs-serial -1", "WAXS detector = 269550335 = 0x101102FF"),
                       ("cal-chan kairo2", "Cal Chan = 806392064 = 0x30109100")]:
        assert client.lines("file kiln-default-" + line) == ["# Set default " + said, "* 0"], line
    for line in ("saxs-det", "saxs-det psd-1d psd-2d", "waxs-det 1 psd-1d", "cal-chan"):
        assert client.lines("file kiln-default-" + line) == ["! Must specify one and only one detector type", "* -1"], line
    header_name(client, f"{WRITE} 'A01000.C31' 5 'text' saxs-x 128 saxs-y 64 calib 9 waxs-x 512 time-v1 extra1 'b' extra0 'a'")
    lines = (server.cwd / "A01000.C31").read_text().splitlines()
    assert [numbers(line) for line in lines[2:10:2]] == [
        [128, 64, 5, 0, 0, 0x2010132C, 0x30000000, 0, 0, 1], [5, 9, 1, 0, 0, 0x30109100, 0, 0, 0, 1],
        [512, 5, 1, 0, 0, 0x101102FF, 0x10000000, 0, 0, 1], [5, 8, 1, 0, 0, 1, 0, 0, 0, 0]]
    assert lines[3:11:2] == ["A01001.C31", "A01002.C31", "A01003.C31", "A01004.C31"] and lines[10:] == ["a", "b"]
    assert lines[8].startswith("      5       8       1 ")
    assert client.lines(f"{WRITE} 'B01000.C31' 5 saxs-x 4 saxs-det 7 intel cal-det 3") == [
        "! Unknown SAXS detector default display type = 0x00000007", '* "B01000.C31"']
    assert numbers((server.cwd / "B01000.C31").read_text().splitlines()[2]) == [4, 5, 1, 1, 0, 7, 0, 0, 0, 1]


def test_what_is_refused_writes_nothing(server, client):
    for line, said in [
            ("'A01000.C31' 1 saxs-y 5", "! If Using 2D saxs, must specify both saxs X and Y resolution"),
            ("'A01000.C31' 1 waxs-y 5", "! If Using 2D WAXS, must specify both saxs X and Y resolution"),
            ("'A01000.C31' -1", "! ERROR: the sizes of a header cannot be negative"),
            ("'A1000.C31' 1", "! Wrong format for KILN header file name 'A1000.C31', expected 'xnn000.mdd'"),
            ("'d/A01001.C31' 1", "! Wrong format for KILN header file name 'A01001.C31', expected 'xnn000.mdd'"),
            ("'.' 1 query", "! ERROR: If query option is specified, first letter must be specified"),
            ("'.' 1 first '1A'", "! ERROR: first should begin with a letter, not '1A'"),
            ("'.' 1 first ''", "! ERROR: first should begin with a letter, not ''"),
            ("'.' 1 first 'A' user 'u'", "! Must specify all of on machine user uid password xxx for ftp"),
            ("'.' 1 first 'A' user 'u' on 'm' password 'no code'", "! ERROR: Password decoding failed"),
            ("'.' 1 first 'A' on 'm' user 'u' password 'AA=='", "! ERROR: Password decoding failed")]:
        assert no_header(client, f"{WRITE} {line}") == [said], line
    assert no_header(client, f"{WRITE} 'none/A01000.C31' 1") == [
        "! Cannot open output file 'none/A01000.C31'", "! No such file or directory"]
    assert no_header(client, f"{WRITE} 'none' 1 first 'A'")[0].startswith("! ERROR: cannot lock index file with 'none/A")
    assert os.listdir(server.cwd) == []
    (server.cwd / "AINDEX.NDX").mkdir()
    assert no_header(client, f"{WRITE} '' 1 first 'A'") == [
        "! Unexpected error trying to read header file './AINDEX.NDX'"]


def test_an_existing_header_is_kept_unless_over(server, client):
    path = server.cwd / "A01000.C31"
    assert header_name(client, f"{WRITE} 'a01000.C31' 1") == "A01000.C31" and oct(path.stat().st_mode)[-3:] == "644"
    before = path.read_text()
    assert no_header(client, f"{WRITE} 'A01000.C31' 2") == [
        "! ERROR: File 'A01000.C31' Exists, specified over to force overwrite"]
    assert path.read_text() == before
    header_name(client, f"{WRITE} 'A01000.C31' 2 over")
    assert numbers(path.read_text().splitlines()[2])[0] == 2 and os.listdir(server.cwd) == ["A01000.C31"]


def test_variables_and_log(server, client):
    peer = KairoPeer(times=[[1.0]] * 4, num_tf=5)
    assert client.lines(f"kairo config 'd' remote server '127.0.0.1' port {peer.port}")[-1] == "* 0"
    groups = ["5 1 1 0 0 0 0", "2 " + "0" * 120]
    assert client.lines("\n".join(["kairo setup-groups", *groups, "-1"]))[-1] == "* 5"
    (server.cwd / "d").mkdir()
    name = header_name(client, f"{WRITE} 'd' 5 'a run' saxs-x 4 waxs-x 4 calib 1 first 'qx' var 'v'")
    for suffix, kind in [("saxs", 1), ("calib", 2), ("waxs", 3), ("time", 4)]:
        assert client.lines(f"%v.{suffix}") == [f'* "{name[:5]}{kind}{name[6:]}"']
    log = (server.cwd / "d" / "QINFO.LOG").read_text().splitlines()
    assert log[0].startswith(f"{name} Created on ") and log[1:] == ["a run", groups[0], groups[1][:100], "=" * 79]
    client.lines("kairo generate 1 1 1 1 0")
    header_name(client, f"{WRITE} 'd' 5 first 'Q'")
    assert (server.cwd / "d" / "QINFO.LOG").read_text().splitlines()[6:] == ["", "KAIRO Setup Unknown", "=" * 79]
    pathlib.Path("/dev/shm/kairo_times").unlink()
    peer.stop()


def test_two_servers_number_one_folder_at_once(start, tmp_path):
    names, threads = [], []
    for server in [start(), start()]:
        def draw(client=server.client()):
            names.extend(header_name(client, f"{WRITE} '{tmp_path}' 1 first 'N'") for _ in range(40))
        threads.append(threading.Thread(target=draw))
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert sorted(int(name[1:3]) for name in names) == list(range(80))
    assert len((tmp_path / "NINFO.LOG").read_text().splitlines()) == 3 * 80
    assert struct.unpack("=i", (tmp_path / "NINDEX.NDX").read_bytes()[:4]) == (79,)


def test_a_full_disk(server, client, small_disk):
    header_name(client, f"{WRITE} '{small_disk}' 1 first 'A'")
    index = (small_disk / "AINDEX.NDX").read_bytes()
    with contextlib.suppress(OSError), open(small_disk / "fill", "wb", buffering=0) as fill:
        while True:
            fill.write(b"x" * 4096)
    assert no_header(client, f"{WRITE} '{small_disk}' 1 first 'A'") == ["! Error writing new sequence number"]
    lines = no_header(client, f"{WRITE} '{small_disk}/A77000.101' 1")
    assert lines == [f"! ERRORS (1) writing KILN header file '{small_disk}/A77000.101', errno=0x0000001C"]
    assert (small_disk / "AINDEX.NDX").read_bytes() == index and not (small_disk / "A77000.101").exists()
    assert not list(small_disk.glob("*.new"))


# ---------------------------------------------------------------- FTP

def test_headers_over_ftp(client, ftp):  # noqa: F811
    address, folder = ftp()
    login = f"on '{address}' user 'probe' password '{PASSWORD}'"
    (folder / "d").mkdir()
    for sequence in range(12):  # 10 is a line end
        assert header_name(client, f"{WRITE} 'd' 5 'far' saxs-x 3 first 'f' {login}")[:3] == f"F{sequence:02d}"
    index = (folder / "d" / "FINDEX.NDX").read_bytes()
    assert struct.unpack("=i", index[:4]) == (11,) and len(index) == 8
    name = client.lines(f"{WRITE} 'd' 0 first 'F' query {login}")[-1][3:-1]
    assert (folder / "d" / "FINDEX.NDX").read_bytes() == index and name[3:7] == "000." and name[7:].encode() == index[4:7]
    assert len((folder / "d" / "FINFO.LOG").read_text().splitlines()) == 3 * 12
    text = (folder / "d" / name).read_bytes()
    assert text.count(b"\n") == 6 and b"\r" not in text, "the server made its own line ends of CR LF"
    assert no_header(client, f"{WRITE} 'd/{name}' 1 {login}") == [
        f"! ERROR: File 'd/{name}' Exists, specified over to force overwrite"]
    assert (folder / "d" / name).read_bytes() == text
    header_name(client, f"{WRITE} 'd/{name}' 1 over {login}")
    assert not list(folder.glob("**/*.new"))


def test_ftp_that_fails(client, ftp, tmp_path):  # noqa: F811
    address, folder = ftp()
    login = f"on '{address}' user 'probe' password"
    assert no_header(client, f"{WRITE} '' 1 first 'F' {login} '{base64.b64encode(b'wrong').decode()}'")[:2] == [
        f"! FTP Authorisation failed to machine '{address}', user 'probe'",
        "! Please check user name 'probe' and password"]
    assert no_header(client, f"{WRITE} '' 1 first 'F' on '127.0.0.1:1' user 'u' password '{PASSWORD}'")[0] == (
        "! FTP open failed to machine '127.0.0.1:1'. Please check machine name")
    login = f"{login} '{PASSWORD}'"
    (folder / "FINDEX.NDX").write_bytes(b"\0\0")
    assert no_header(client, f"{WRITE} '' 1 first 'F' {login}") == [
        "! Cannot read sequence number from remote file './FINDEX.NDX'"]
    assert no_header(client, f"{WRITE} 'none' 1 first 'F' {login}")[-1] == "! Cannot open remote fd for read of index file"
    assert no_header(client, f"{WRITE} 'none/F01000.101' 1 over {login}")[-1] == (
        "! ERROR opening remote file 'none/F01000.101' for write")


def test_ftp_that_may_not_write(client, ftp):  # noqa: F811
    address, folder = ftp(perm="elr")
    login = f"on '{address}' user 'probe' password '{PASSWORD}'"
    lines = no_header(client, f"{WRITE} '' 1 first 'F' {login}")
    assert lines[0].startswith("! FTP ftp-open-data failed: ")
    assert lines[1:] == ["! ERROR opening remote index file file './FINDEX.NDX' for write"] and not os.listdir(folder)


def test_an_index_that_the_ftp_server_lists_but_does_not_give(client, ftp):  # noqa: F811
    address, folder = ftp(perm="elamw")
    (folder / "FINDEX.NDX").write_bytes(struct.pack("=i4s", 7, b"101"))
    lines = no_header(client, f"{WRITE} '' 1 first 'F' on '{address}' user 'probe' password '{PASSWORD}'")
    assert lines == ["! Cannot read sequence number from remote file './FINDEX.NDX'"] and (folder / "FINDEX.NDX").read_bytes()[:1] == b"\7"


# ---------------------------------------------------------------- data files

@pytest.fixture
def unit(client):
    """Frame times of 6 frames, of which 5 are set up."""
    rows = [[10.0 * row + x for x in range(6)] for row in range(5)]
    peer = KairoPeer(times=rows, num_tf=5)
    assert client.lines(f"kairo config 'd' remote server '127.0.0.1' port {peer.port}")[-1] == "* 0"
    yield np.array(rows)
    pathlib.Path("/dev/shm/kairo_times").unlink()
    peer.stop()


@pytest.fixture
def handle(client, names):
    """A handle of 3 x 2 x 5 floats."""
    do(client, f"module create '{names('m')}' 3 2 header float num-t 5")
    Module(names("m")).data[:] = np.arange(30).reshape(5, 2, 3) + 0.5
    return do(client, f"module open '{names('m')}' header")


@pytest.mark.parametrize("order, mark", [("", ">f4"), ("intel", "<f4")])
@pytest.mark.parametrize("version, rows", [("", 4), ("time-v1", 8)])
def test_data_files_are_as_the_header_says(server, client, unit, handle, order, mark, version, rows):
    (server.cwd / "d").mkdir()
    do(client, "set-int 'x' 0")
    name = header_name(client, f"{WRITE} 'd' 5 saxs-x 3 saxs-y 2 first 'A' {order} {version}")
    do(client, f"file kiln-data 'd/{name}' 5 {handle} {order} {version}")
    times = np.fromfile(server.cwd / "d" / (name[:5] + "4" + name[6:]), mark).reshape(rows, 5)
    assert (times[:4] == unit[:4, :5]).all() and (rows == 4 or (times[4] == unit[4, :5]).all() and not times[5:].any())
    data = np.fromfile(server.cwd / "d" / (name[:5] + "1" + name[6:]), mark)
    assert (data == np.arange(30) + 0.5).all()


def test_frames_of_a_line_detector_may_be_rows(server, client, unit, names):
    do(client, f"module create '{names('l')}' 4 7 header float")
    Module(names("l")).data[:] = np.arange(28).reshape(7, 4)
    line = do(client, f"module open '{names('l')}' header")
    header_name(client, f"{WRITE} 'A00000.101' 5 saxs-x 4 intel")
    do(client, f"file kiln-data 'A00000.101' 5 {line}")
    assert (np.fromfile(server.cwd / "A00001.101", "<f4") == np.arange(20)).all()


def test_data_that_do_not_fit_the_header_are_not_written(server, client, unit, handle):
    for header, data, said in [
            ("5 saxs-x 3 saxs-y 2", "4", "! ERROR: header 'A00000.101' says otherwise: the number of time frames"),
            ("5", "5 intel", "! ERROR: header 'A00000.101' says otherwise: intel"),
            ("5", "5 time-v1", "! ERROR: header 'A00000.101' says otherwise: time-v1"),
            ("5", f"5 {handle}", "! ERROR: header 'A00000.101' has no small-angle data"),
            ("5 saxs-x 3", f"5 {handle}", f"! ERROR: handle {handle} has 3 x 2 x 5, header 'A00000.101' has 3 x 5 x 1"),
            ("6 saxs-x 3 saxs-y 2", f"6 {handle}", f"! ERROR: handle {handle} has 3 x 2 x 5, header 'A00000.101' has 3 x 2 x 6"),
            ("6", "6", "! ERROR: there are times of 5 frames, header 'A00000.101' has 6"),
            ("5 saxs-x 3", "5 19", "! Invalid handle 19"),
            ("0 saxs-x 3 saxs-y 2", f"0 {handle}", "! ERROR: header 'A00000.101' has no time frames")]:
        header_name(client, f"{WRITE} 'A00000.101' {header} over")
        assert refused(client, f"file kiln-data 'A00000.101' {data}") == [said]
    for text, said in [("", "! ERROR: 'A00000.101' is not a KILN header"), ("\n" * 9, "! ERROR: 'A00000.101' is not a KILN header"),
                       ("a\nb\n5 4 1 0 0 0 0 0 0 0\n../x04.101\n", "! ERROR: header 'A00000.101' has a line that does not belong there"),
                       ("a\nb\n5 4 1 0 0 0 0 0 0 0\n../../4.10\n", "! ERROR: 'A00000.101' is not a KILN header"),
                       ("a\nb\n5 4 1 0 0 0 0 0 0 0\nB00004.101\n", "! ERROR: header 'A00000.101' has a line that does not belong there"),
                       ("a\nb\n5 5 1 0 0 0 0 0 0 0\nA00004.101\n", "! ERROR: header 'A00000.101' has a line that does not belong there"),
                       ("a\nb\n-5 4 1 0 0 0 0 0 0 0\nA00004.101\n", "! ERROR: header 'A00000.101' has a line that does not belong there")]:
        server.write("A00000.101", text)
        assert refused(client, "file kiln-data 'A00000.101' 5") == [said], text
    assert refused(client, "file kiln-data 'none/A00000.101' 5") == [
        "! ERROR: cannot read header file 'none/A00000.101': No such file or directory"]
    assert os.listdir(server.cwd) == ["A00000.101"]


def test_without_frame_times_there_is_no_time_file(server, client):
    header_name(client, f"{WRITE} 'A00000.101' 5")
    assert refused(client, "file kiln-data 'A00000.101' 5") == [
        "! KAIRO times module not in use, so no times file possible"]
    assert os.listdir(server.cwd) == ["A00000.101"]
