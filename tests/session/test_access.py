"""Who may connect, and where: -listen and -allow."""
import os
import socket

import pytest
from kestrel_session import Process, Server, wait_until


def outcome(port, source):
    """The first bytes that a peer at this address of the loop-back network gets."""
    with socket.create_connection(("127.0.0.1", port), 20, (source, 0)) as peer:
        peer.settimeout(20)
        return peer.recv(200).decode()


@pytest.mark.parametrize("networks, inside, outside", [
    ("127.0.0.1", ["127.0.0.1"], ["127.0.0.2", "127.1.0.1"]),
    ("127.0.0.8/29", ["127.0.0.9", "127.0.0.15"], ["127.0.0.7", "127.0.0.16"]),
    ("10.0.0.0/8,127.0.0.2,127.128.0.0/9", ["127.0.0.2", "127.128.0.1"], ["127.0.0.1", "127.127.0.1"]),
    ("127.77.1.2/0", ["127.0.0.1"], []),
])
def test_only_the_allowed_networks_get_a_session(start, networks, inside, outside):
    server = start(f"-allow=127.0.0.1,{networks}" if "127.0.0.1" in inside else f"-allow={networks}", "-log=log",
                   kind=Confined)
    for source in inside:
        assert outcome(server.port, source) == "> "
    for source in outside:
        assert outcome(server.port, source) == f"! Connections from {source} are not allowed\r\n"
    refused = "".join(f"Connection from {source} refused\n" for source in outside)
    told = [line for line in server.stdout.splitlines(True) if line.startswith("Connection from")]
    assert "".join(told) == refused and (server.cwd / "log").read_text() == refused


class Confined(Server):
    """Ended by a signal: this test's own address may not be allowed."""

    def stop(self):
        self.process.kill()
        self.process.wait()
        self.process.returncode = 0


@pytest.mark.parametrize("request_line", ["POST / HTTP/1.1", "GET /" + "x" * 3000 + " HTTP/1.1", "OPTIONS / HTTP/1.1",
                                          "\x16\x03\x01" + "y" * 3000], ids=["post", "long", "preflight", "tls"])
def test_a_page_in_a_browser_gives_no_commands(start, request_line):
    """What any page may make a browser send, the lines of its body being commands; a line of more than 1024 characters
    would end the server."""
    server = start("-log=log")
    mark = server.cwd / "mark"
    with socket.create_connection(("127.0.0.1", server.port), 20) as peer:
        peer.sendall(f"{request_line}\r\nHost: x\r\n\r\nsystem 'touch {mark}'\n".encode())
        wait_until(lambda: (server.cwd / "log").read_text() == "Connection from 127.0.0.1 refused\n", "log entry")
    assert server.client().lines("1+1") == ["* 2"] and not mark.exists()


def test_only_the_first_bytes_tell_a_browser(server):
    client = server.client()
    assert client.lines("1+1") == ["* 2"]
    assert client.lines("GET / HTTP/1.1")[-1] == "* -1"
    assert server.client().lines("GET /dev/null")[-1] == "* -1", "a line, if no good one"


def test_sessions_come_to_the_given_address_only(start):
    server = start("-listen=127.0.0.1")
    assert server.client().lines("1+1") == ["* 2"]
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection(("127.0.0.2", server.port), 20)


def test_refused_peers_leave_nothing_behind(start):
    server = start("-allow=127.0.0.1")
    descriptors = lambda: len(os.listdir(f"/proc/{server.process.pid}/fd"))
    client = server.client()
    before = descriptors()
    for _ in range(400):
        assert outcome(server.port, "127.0.0.3").startswith("! ")
    assert client.lines("1+1") == ["* 2"]
    wait_until(lambda: descriptors() == before, "return to as many descriptors")


@pytest.mark.parametrize("option", ["-allow", "-allow=", "-allow=127.0.0.1/33", "-allow=127.0.0.1/-1", "-allow=127.0.0.1/",
                                    "-allow=127.0.0.1,", "-allow=,127.0.0.1", "-allow=127.0.0/8", "-allow=localhost",
                                    "-allow=127.0.0.1 ", "-allow=::1", "-listen", "-listen=", "-listen=localhost",
                                    "-listen=127.0.0.1:5", "-listen=127.0.0.256"])
def test_an_address_that_is_none_ends_in_the_usage(start, option):
    process = start(option, kind=Process)
    assert process.wait_exit() == 1 and "Usage:\n" in process.stderr


def test_an_address_of_another_machine_cannot_be_listened_at(start):
    process = start("-port=21972", "-listen=192.0.2.1", kind=Process)
    assert process.wait_exit() == 99 and process.stderr.startswith("Can't bind socket.\n")
