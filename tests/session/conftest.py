"""Fixtures: each server of a test ends with it, and a crash or a sanitizer's report then fails the test."""
import os
import pathlib
import subprocess
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tools" / "session"))
import kestrel_data
import kestrel_session


def pytest_sessionstart():
    if not os.access(kestrel_session.KESTREL, os.X_OK):
        pytest.exit(f"no program {kestrel_session.KESTREL}", 2)


@pytest.fixture
def start(tmp_path, names):  # modules go after the programs: a follower would make them again
    """Starts servers:  start(*options, kind=Server, env=..., prepare=f) ; prepare gets the folder first."""
    running = []

    def begin(*options, kind=kestrel_session.Server, prepare=None, **how):
        scratch = tmp_path / str(len(running))
        (scratch / "cwd").mkdir(parents=True)
        if prepare:
            prepare(scratch / "cwd")
        running.append(kind(scratch, *options, **how))
        return running[-1]

    yield begin
    complaints = []
    for process in running:  # all of them: a complaint about one leaves no other running
        try:
            process.close()
        except Exception as complaint:  # whatever it is
            complaints.append(complaint)
    if complaints:
        raise complaints[0]


@pytest.fixture
def server(start):
    return start()


@pytest.fixture
def client(server):
    return server.client()


@pytest.fixture(scope="module")
def shared_server(tmp_path_factory):
    """One server for a file's tables of cases that leave nothing behind."""
    server = kestrel_session.Server(tmp_path_factory.mktemp("server"))
    yield server
    server.close()


@pytest.fixture
def shared(shared_server):
    """A new session with the shared server."""
    return shared_server.client()


@pytest.fixture
def names():
    """Makes names of modules for one test, and removes the modules after it."""
    import kestrel_data
    names = kestrel_data.Names()
    yield names
    names.remove()


@pytest.fixture
def small_disk(tmp_path):
    """A folder on a file system of 256 KiB."""
    folder = tmp_path / "small"
    folder.mkdir()
    if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=256k", "tmpfs", folder], capture_output=True).returncode:
        pytest.skip("cannot mount a small file system here")
    yield folder
    subprocess.run(["umount", "-l", folder], check=True)


@pytest.fixture
def play(tmp_path):
    """play(*options) -> a running simulator of bench instruments."""
    import bench
    running = []

    def begin(*options):
        running.append(bench.Bench(tmp_path / f"bench{len(running)}", *options))
        return running[-1]

    yield begin
    for program in running:
        program.close()


@pytest.fixture
def script():
    """script(answer) -> an instrument over TCP that answers each command by the function."""
    import bench
    running = []

    def begin(answer):
        running.append(bench.Scripted(answer))
        return running[-1]

    yield begin
    for instrument in running:
        instrument.close()


@pytest.fixture
def still(server, client):
    """After the test the server holds no more descriptors and mappings than before it, and answers."""
    kestrel_data.do(client, "test open 2 2 1 byte")  # libraries keep what they open once
    kestrel_data.do(client, "read 0 0 0 2 2 1 from 0 to-local-file 'warm' det")
    kestrel_data.do(client, "close-all")
    before = kestrel_data.held(server)
    yield
    kestrel_data.do(client, "close-all")
    assert client.lines("1+1") == ["* 2"]
    # A large module is kept 5 to 10 s.
    kestrel_session.wait_until(lambda: kestrel_data.held(server) == before, f"return to {before}", 10 + kestrel_session.WAIT)
