"""`ftp put` and `ftp get` against a real FTP server."""
import os

import pytest
from ftp_server import LOGIN, ftp  # noqa: F401 (a fixture)


def test_files_go_and_come_unchanged(server, client, ftp):  # noqa: F811
    address, folder = ftp()
    data = os.urandom(300_000)
    (server.cwd / "a.bin").write_bytes(data)
    assert client.lines(f"ftp put 'a.bin' host '{address}' {LOGIN}") == ["* 0"]
    assert (folder / "a.bin").read_bytes() == data
    assert client.lines(f"ftp put 'a.bin' 'b.bin' host '{address}' {LOGIN}") == ["* 0"]
    assert client.lines(f"ftp get 'b.bin' 'c.bin' host '{address}' {LOGIN}") == ["* 0"]
    assert (server.cwd / "c.bin").read_bytes() == data
    (folder / "empty").write_bytes(b"")
    assert client.lines(f"ftp get 'empty' host '{address}' {LOGIN}") == ["* 0"]
    assert (server.cwd / "empty").read_bytes() == b""


def test_refusals_leave_nothing_behind(server, client, ftp):  # noqa: F811
    address, folder = ftp()
    for line, start in [
            (f"ftp get 'none' host '{address}' {LOGIN}", "! FTP get of 'none' failed: "),
            (f"ftp put 'none' host '{address}' {LOGIN}", "! Cannot use file 'none': No such file or directory"),
            (f"ftp put '.' host '{address}' {LOGIN}", "! Cannot use file '.': "),
            (f"ftp get 'x' host '{address}' user 'probe' password 'wrong'", "! FTP Authorisation failed to machine "),
            ("ftp get 'x' host '127.0.0.1:1'", "! FTP open failed to machine '127.0.0.1:1'")]:
        reply = client.lines(line)
        assert reply[0].startswith(start) and reply[-1] == "* -1" and len(reply) == 2, reply
        assert "s3cret" not in "".join(reply)
    assert not list(server.cwd.glob("*.part")) and not list(folder.iterdir())


def test_the_dialogue_is_logged_without_the_password(server, client, ftp):  # noqa: F811
    address, folder = ftp()
    (folder / "f").write_text("x")
    assert client.lines("ftp set-debug 1 'ftp.log'") == ["* 0"]
    assert client.lines(f"ftp get 'f' host '{address}' {LOGIN}") == ["* 0"]
    assert client.lines("ftp set-debug 0") == ["* 0"]
    log = (server.cwd / "ftp.log").read_text()
    assert "ftp> USER probe" in log and "ftp> RETR f" in log and "ftp< 226" in log and "s3cret" not in log
    assert client.lines("ftp set-debug 4") == ["! FTP debug level should be 0..3 not 4", "* -1"]


@pytest.mark.parametrize("die_after", [0, 100_000])
def test_a_server_that_dies_costs_the_command_only(server, client, ftp, die_after):  # noqa: F811
    address, _ = ftp(die_after=die_after)
    (server.cwd / "big").write_bytes(bytes(3_000_000))
    reply = client.lines(f"ftp put 'big' host '{address}' {LOGIN}")
    assert reply[-1] == "* -1" and reply[0].startswith("! FTP")
    assert client.lines("eval int 1") == ["* 1"]
