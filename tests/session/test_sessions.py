"""The session table: many at once, how they end, what each has for itself, peers that misbehave."""
import os
import socket
import time

import pytest
from kestrel_data import held
from kestrel_session import WAIT, far_end, wait_until

SLOTS = 339


def test_the_340th_session_waits_for_a_free_slot(start):
    server = start(files=64)  # the server must lift this limit itself
    sessions = [server.client() for _ in range(SLOTS)]
    late = server.client(prompt=False)
    late.expect_silence()
    assert sessions[-1].cmd("7") == b"* 7\r\n"
    sessions[100].close()
    late.recv_prompt()
    late.send("7\n")
    assert late.recv_prompt() == b"* 7\r\n"
    server.wait_stdout(r"\n100: Disconnected\n(.*\n)*100: New connection established to 127\.0\.0\.1\n")
    assert server.stdout.count("338: New connection established") == 1


def test_a_session_takes_the_lowest_free_slot_and_says_so(server):
    first, second, third = (server.client() for _ in range(3))
    second.close()
    server.wait_stdout("Infered disconnect because of EOF\n?1: Disconnected\n")
    server.client()
    server.wait_stdout(r"(?s)1: New connection established to 127\.0\.0\.1\n.*"
                       r"1: New connection established to 127\.0\.0\.1\n")


def test_a_silent_peer_is_probed_after_a_minute(server):
    client = server.client()

    def until_probe():
        """What is left until then, once the prompt is acknowledged: the timer of the server's end is of kind 02 then."""
        kind, jiffies = far_end(client.sock)[5].split(":")
        return kind == "02" and int(jiffies, 16)

    assert 0 < wait_until(until_probe, "wait for the next probe") <= 60 * os.sysconf("SC_CLK_TCK")


def test_status_lists_every_slot(server):
    first, second = server.client(), server.client()
    second.close()
    server.wait_stdout("1: Disconnected")
    port = first.sock.getsockname()[1]
    lines = first.lines("status")
    assert lines[0] == "# Connection status:"
    assert lines[1].startswith("#\t0\tOpen\t") and lines[1].endswith(f":{port}")
    assert lines[2:] == [f"#\t{slot}\tClosed" for slot in range(1, SLOTS)] + ["* 0"]


def test_quit_closes_only_its_session(server):
    first, second = server.client(), server.client()
    first.send("quit\n")
    assert first.expect_closed() == b""
    assert second.cmd("7") == b"* 7\r\n"


def test_shutdown_closes_every_session_and_ends_the_server(server):
    first, second = server.client(), server.client()
    first.send("shutdown\n")
    first.expect_closed()
    assert second.expect_closed() == b""
    assert server.wait_exit() == 0
    assert "0: Disconnected\n1: Disconnected\n" in server.stdout


def test_radix_belongs_to_the_session(server):
    first, second = server.client(), server.client()
    first.cmd("radix 16")
    assert first.cmd("255") == b"* $ff\r\n"
    assert second.cmd("255") == b"* 255\r\n"
    first.close()
    server.wait_stdout("0: Disconnected")
    assert server.client().cmd("255") == b"* 255\r\n"  # a new session in the same slot


def test_a_half_typed_line_dies_with_its_session(server):
    first = server.client()
    first.send("echo 'gho")
    first.close()
    server.wait_stdout("0: Disconnected")
    assert server.client().cmd("7") == b"* 7\r\n"


@pytest.mark.parametrize("what", ["sleep 0.3", "status", "input 'name? ' 'v'", "ascii write file 'f'",
                                  "include 'lines.cmd'"])
def test_a_client_that_vanishes_in_a_command_harms_nobody(server, what):
    server.write("lines.cmd", ["for 'i' 1 2000", "echo '%s'" % ("x" * 900), "next"])
    other, client = server.client(), server.client()
    client.send(what + "\n" + "status\n" * 20)
    time.sleep(0.05)
    client.reset()
    server.wait_stdout("1: Disconnected\n")
    assert other.cmd("7") == b"* 7\r\n"
    assert server.client().cmd("7") == b"* 7\r\n"


def test_a_script_that_quits_ends_with_its_session(server):
    server.write("inner.cmd", ["echo 'in'", "quit", "echo 'never'"])
    server.write("outer.cmd", ["~inner", "echo 'nor this'"])
    first, second = server.client(), server.client()
    first.send("~outer\n")
    assert first.expect_closed() == b"in\r\n"
    assert second.cmd("7") == b"* 7\r\n"
    assert server.client().cmd("7") == b"* 7\r\n"  # the slot is as good as new


def test_replies_that_nobody_reads_close_that_session_only(server):
    """A client with a full window holds the server for at most half a minute, then it is closed."""
    server.write("flood.cmd", ["for 'i' 1 20000", "echo '%s'" % ("x" * 1000), "next"])
    deaf, other = server.client(receive_buffer=4096), server.client()
    deaf.send("~flood\n")
    begun = time.monotonic()
    assert other.cmd("7", seconds=45 + WAIT) == b"* 7\r\n"
    assert time.monotonic() - begun > 1, "the flood did not fill the connection: the case tests nothing"
    server.wait_stdout("0: Disconnected\n")
    assert server.client().cmd("7") == b"* 7\r\n"


def test_a_slow_reader_gets_everything(server):
    server.write("flood.cmd", ["for 'i' 1 10000", "echo '%s'" % ("x" * 1000), "next"])
    slow = server.client()
    slow.send("~flood\n")
    time.sleep(1)
    line = b"x" * 1000 + b"\r\n"
    assert slow.recv_prompt() == 10000 * line + b"* 0\r\n"


def test_os_commands_inherit_no_session(client):
    listed = client.lines("system 'ls -l /proc/self/fd | grep -c socket'")
    assert listed == ["# 0", "* 1"]


def test_a_peer_that_only_stops_sending_still_gets_its_replies(server):
    client = server.client()
    client.send("echo 'last'\n")
    client.sock.shutdown(socket.SHUT_WR)
    assert client.expect_closed().startswith(b"last\r\n* 0\r\n")


def test_connections_that_come_and_go_leave_no_descriptors(server):
    keeper = server.client()
    keeper.cmd("system 'true'")
    before = held(server)
    for _ in range(50):
        client = server.client()
        client.cmd("echo 'x'")
        client.close()
    server.client().reset()
    wait_until(lambda: held(server) == before, "return to the descriptors open before")
