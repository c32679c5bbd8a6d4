"""^C, which reaches the server as SIGINT: what it ends, and what goes on."""
import time

import pytest
from kestrel_session import living_members, wait_until

LOOP = ["n=0", "do", "if %n==1 \"echo 'go'\"", "n=n+1", "while 1", "echo 'never'"]  # the loop is known when it says so
TIDIED = b"# Note tidying incomplete loop type 2\r\n"


def interrupted(server, client, line):
    """Runs a line that prints 'go' and then takes long; the reply after an interrupt."""
    client.send(line + "\n")
    client.recv_until("go\r\n")
    server.interrupt()
    return client.recv_prompt()


def test_an_idle_server_takes_no_notice(server, client):
    server.interrupt()
    time.sleep(0.1)
    assert client.cmd("7") == b"* 7\r\n"
    server.write("s.cmd", ["echo 'runs'"])
    assert client.lines("~s") == ["runs", "* 0"]


def test_sleep_ends_at_once_with_a_failure(server, client):
    client.send("sleep 600\n")
    server.wait_until_busy()
    server.interrupt()
    assert client.recv_prompt() == b"* -1\r\n"
    server.write("s.cmd", ["echo 'go'", "sleep 600", "echo 'never'"])
    reply = interrupted(server, client, "include 's.cmd' show-returns")
    assert reply.startswith(b"* 0\r\n") and b"never" not in reply
    assert client.cmd("sleep 0.01") == b"* 0\r\n"


def test_a_script_ends_and_the_session_goes_on(server, client):
    server.write("loop.cmd", LOOP)
    assert interrupted(server, client, "~loop").startswith(b"! Include file aborted with ^C\r\n")
    assert client.cmd("7") == b"* 7\r\n"
    server.write("s.cmd", ["echo 'runs'"])
    assert client.lines("~s") == ["runs", "* 0"]


def test_nested_scripts_end_from_the_inside_out(server, client):
    server.write("loop.cmd", LOOP)
    server.write("outer.cmd", ["~loop", "echo 'never'"])
    reply = interrupted(server, client, "include 'outer.cmd' no-exit-error")
    assert reply.startswith(b"! Inner Include file aborted with ^C \r\n" + TIDIED + b"! Include file aborted with ^C\r\n")
    assert b"never" not in reply


def test_for_loops_and_waits_in_scripts_end(server, client):
    server.write("s.cmd", ["echo 'go'", "for 'i' 1 1000000000", "rem 'x'", "next", "echo 'never'"])
    reply = interrupted(server, client, "~s")
    assert b"! Include file aborted with ^C\r\n" in reply and b"never" not in reply


def test_mask_lets_the_script_go_on(server, client):
    server.write("s.cmd", ["echo 'go'", "sleep 60", "echo 'on'", "return 3"])
    reply = interrupted(server, client, "include 's.cmd' mask-cntrl-c no-exit-error")
    assert reply == b"on\r\n* 3\r\n"


def test_an_interrupted_script_fails_if_asked_to(server, client):
    server.write("loop.cmd", LOOP)
    reply = interrupted(server, client, "include 'loop.cmd' cntrl-c-ret-neg")
    assert reply == b"! Include file aborted with ^C\r\n" + TIDIED + b"* -1\r\n"


def test_input_ends(server, client):
    client.send("input 'name? ' 'v'\n")
    client.recv_until("name? ")
    server.interrupt()
    client.recv_prompt()
    assert client.cmd("7") == b"* 7\r\n"


def test_an_os_command_leaves_the_server_running(server, client):
    client.send("system 'echo; sleep 0.5'\n")
    server.interrupt()
    client.recv_prompt()
    assert client.cmd("7") == b"* 7\r\n"


@pytest.mark.parametrize("trap, interrupts, status", [("", 1, 130), ("trap '' INT", 2, 143), ("trap '' INT TERM", 3, 137),
                                                     ("kill -STOP $$", 0, 0)])
def test_a_command_of_the_system_ends_with_all_its_processes(server, client, trap, interrupts, status):
    started = server.cwd / "started"
    rest = "sleep 600; sleep 600" if interrupts else "true"
    client.send(f'set-string "s" "{trap}; echo $$ > started; ({rest}); exit"\n'.replace('"; ', '"'))
    client.recv_prompt()
    client.send("system %s\n")
    wait_until(lambda: started.exists() and started.read_text().endswith("\n"), "start of the command")
    group = int(started.read_text())
    if interrupts:  # a shell that is interrupted just before its child exists waits for that child
        wait_until(lambda: "sleep" in living_members(group), "child of the command")
    for _ in range(interrupts):
        server.interrupt()
    assert client.recv_prompt() == b"* %d\r\n" % status
    wait_until(lambda: not living_members(group), "end of the group")


def test_an_interrupt_reaches_a_command_of_the_system_whenever_it_comes(server, client):
    """The child sees it also between two steps of waiting: it never has to be sent twice."""
    started = server.cwd / "started"
    for i in range(40):
        client.send("system 'echo > started; exec sleep 600'\n")
        wait_until(started.exists, "start of the command")
        time.sleep(i % 4 * 0.0005)
        server.interrupt()
        assert client.recv_prompt() == b"* 130\r\n"
        started.unlink()
