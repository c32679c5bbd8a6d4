"""What a service manager hears of the server: ready, alive, ending; silence when the session loop hangs."""
import contextlib
import os
import pathlib
import signal
import socket
import time

import pytest
from kestrel_session import SCALE, wait_until


class Manager:
    """The manager's socket, in the file system or outside it."""

    def __init__(self, name):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(name.replace("@", "\0", 1))
        self.sock.settimeout(20 * SCALE)

    def heard(self):
        return self.sock.recv(4096).decode()

    def silent_for(self, seconds):
        self.sock.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                self.sock.recv(4096)
        self.sock.settimeout(seconds)
        with pytest.raises(TimeoutError):
            self.sock.recv(4096)
        self.sock.settimeout(20 * SCALE)


@pytest.mark.parametrize("abstract", [False, True])
def test_the_manager_hears_of_the_start_and_the_end(start, tmp_path, abstract):
    name = f"@kestrel-test-{os.getpid()}" if abstract else str(tmp_path / "notify")
    manager = Manager(name)
    server = start(env={"NOTIFY_SOCKET": name})
    assert manager.heard() == "READY=1"
    server.close()
    assert manager.heard() == "STOPPING=1"


def test_the_watchdog_is_fed_while_commands_run_and_the_loop_turns(start, tmp_path):
    manager = Manager(str(tmp_path / "notify"))
    server = start(env={"NOTIFY_SOCKET": str(tmp_path / "notify"), "WATCHDOG_USEC": "200000"})
    heard = {manager.heard()}
    while heard != {"READY=1", "WATCHDOG=1"}:
        heard.add(manager.heard())
    client = server.client()
    client.send("sleep 2.0\n")
    begun = time.monotonic()
    while time.monotonic() < begun + 1.5:
        assert manager.heard() == "WATCHDOG=1"
    assert client.lines("echo 'x'")[-1]
    server.process.send_signal(signal.SIGSTOP)
    try:
        stat = pathlib.Path(f"/proc/{server.process.pid}/task")
        wait_until(lambda: all(") T " in (task / "stat").read_text() for task in stat.iterdir()), "stopped threads")
        manager.silent_for(0.5)
    finally:
        server.process.send_signal(signal.SIGCONT)
    assert manager.heard() == "WATCHDOG=1"


def test_without_a_manager_or_with_a_senseless_one_the_server_runs(start, tmp_path):
    for env in ({"NOTIFY_SOCKET": "nowhere"}, {"NOTIFY_SOCKET": str(tmp_path / "none"), "WATCHDOG_USEC": "x"},
                {"NOTIFY_SOCKET": "/" + "a" * 200, "WATCHDOG_USEC": "1"}, {"WATCHDOG_USEC": "100000", "WATCHDOG_PID": "1"}):
        assert start(env=env).client().lines("eval int 5") == ["* 5"]
