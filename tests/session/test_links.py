"""Links to other servers: real ones in processes of their own, and peers that misbehave at every byte."""
import contextlib
import errno
import pathlib
import socket
import threading
import time

import pytest
from kestrel_data import held
from kestrel_session import KESTREL, SCALE, Process, free_port

REFUSED = ["# -     ^", "! - Argument 1 should be of type '%s'"]
MOTOR_SERVER = str(pathlib.Path(KESTREL).parent / "motor_server")


@pytest.fixture
def linked(start):
    """linked(user1=port, ...) -> a server with these links."""
    def begin(**links):
        text = "# links of a test\n\n" + "".join(f"{key} 127.0.0.1 {port}\n" for key, port in links.items())
        return start(prepare=lambda cwd: (cwd / "kestrel.clients.ini").write_text(text))
    return begin


@pytest.fixture
def station(start, linked):
    """Two servers, the first linked to the second as user1; gives (client of the first, the second)."""
    other = start()
    return linked(user1=other.port, user2=free_port()).client(), other


class Peer:
    """Plays a script of bytes to whoever connects: b"..." is sent, None closes, [] takes a line, a number that many bytes."""

    def __init__(self, *scripts):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.lines, self.connections = [], 0
        self.thread = threading.Thread(target=self.play, args=(scripts,), daemon=True)
        self.thread.start()

    def play(self, scripts):
        for script in scripts:
            connection, _ = self.listener.accept()
            self.connections += 1
            with connection, connection.makefile("rb") as received, contextlib.suppress(OSError):
                for step in script:
                    if step is None:
                        break
                    if isinstance(step, bytes):
                        connection.sendall(step)
                    else:
                        self.lines.append(received.read(step) if step else received.readline())
                else:
                    received.readline()  # stays until the other side leaves


def test_results_of_every_type_come_back(station):
    client, _ = station
    first = client.lines("send user1 'eval int 3 4 add'")
    assert first[0].startswith("# Connected to User 1 on 127.0.0.1 port ") and first[1:] == ["* 7"]
    for line, reply in [("send user1 '300' int 'n' global", ["* 300"]), ("%n", ["* 300"]),
                        ("send user1 'eval double 1.0 8 div' double 'd' global", ["* 0"]), ("%d", ["* 0.125"]),
                        ("send user1 'eval string \"a b\" \"c\"' string 's' global", ["* 0"]), ("%s", ['* "a bc"']),
                        ("send user1 'radix 16'", ["* 0"]), ("send user1 '255'", ["* 255"]),
                        ("send user1 'radix 2'", ["* 0"]), ("send user1 '5'", ["* 5"]),
                        ("send user1 'debug on'", ["* 0"]), ("send user1 '-1'", ["* -1"]),
                        ("send user1 '1' int 'n' double 'd'", ["! Please specify at most 1 data type", "* -1"]),
                        ("send user1 'eval string \"x\"' double 'd'", ["! User 1 did not answer with a number", "* -1"]),
                        ("send user1 'eval double 1.0 2 sub' double 'd' global", ["* 0"]), ("%d", ["* -1"]),
                        ("d=5", ["* 5"]), ("send user1 'dir 1 2' int 'd' global", [*REFUSED, "* -1"]), ("%d", ["* -1"]),
                        ("d=5", ["* 5"]), ("send user1 'dir 1 2' double 'd' global", [*REFUSED, "* -1"]), ("%d", ["* 5"]),
                        ("send user1 'dir 1 2' string 'd' global", [*REFUSED, "! User 1 did not answer with a string", "* -1"])]:
        assert client.lines(line) == reply, line


def test_what_the_remote_prints_is_shown(station):
    client, _ = station
    client.cmd("send user1 '0'")
    reply = client.lines("send user1 'no-such-command'")
    assert "! - Unexpected identifier, or non-existent command" in reply
    assert reply[0] == "# - ^" and reply[-1] == "* -1"
    for typed, shown, result in [("echo 'plain words'", "plain words", 0), ("echo 'a * (null)'", "a * (null)", 0),
                                 ("echo '* 7'", "* 7", 0), ("echo '~/data'", "~/data", 0), ("echo '@x'", "@x", 0),
                                 ("echo '~ Retry (Y/N)'", "~ Retry (Y/N)", 0), ("printf '2 * 3' direct", "2 * 3", 0)]:
        assert client.lines(f'send user1 "{typed}"') == [f"# - {shown}", f"* {result}"], typed


def test_a_remote_that_left_is_asked_again_once(station, start):
    client, other = station
    assert client.lines("send user1 '1'")[-1] == "* 1"
    port = other.port
    other.close()
    reply = client.lines("send user1 '2'")
    assert reply[:3] == ["! Time-out or error before client sent a prompt. Disconnecting.", "# Disconnected from User 1.",
                         "# Trying to resend command '2' to client 'User 1'"]
    assert reply[-3:-1] == [f"! Can't connect to User 1 on 127.0.0.1 port {port}.", "! OS-9 error code: 111."]
    assert reply[-1] == "* -1"
    start(port=port)
    assert client.lines("send user1 '3'")[-1] == "* 3"
    client.cmd("client disconnect")


def test_every_use_of_a_link_that_cannot_be_opened_fails(station, names):
    client, _ = station
    began = time.monotonic()
    for line in ("send lux '1'", "send lux '1' int 'n'", "send lux '1' double 'n'", "send lux '1' string 'n'",
                 "client up lux", "motor get-posn 1", "remote-open 'test open 1 1 1 long' lux",
                 f"module get-remote 'm' '{names('m')}' lku-x"):
        reply = client.lines(line)
        assert reply[0].startswith("! Can't connect to ") and "on unconfigured port" in reply[0], line
        assert reply[1] == "! OS-9 error code: 113." and reply[-1] == "* -1", line
    assert time.monotonic() - began < 2 * SCALE, "no name server is asked"
    assert client.lines("client up") == [
        "! You must specify one qualifier from lux, luy, corr, adcx or adcy.", "* -1"]


def test_define_and_status(station):
    client, other = station
    assert client.lines(f"client define '127.0.0.1' {other.port} user2") == ["* 0"]
    assert client.lines("send user2 '5'")[-1] == "* 5"
    status = client.lines("client status")
    assert len(status) == 14 and sum("not connected" in line for line in status) == 12
    assert client.lines("client define 'nowhere' 1972 user2") == ["# Disconnected from User 2.", "* 0"]
    assert client.lines("client define 'nowhere' 1972") == ["* -1"]
    assert client.lines("client define 'nowhere' 70000 user2")[-1] == "* -1"


def test_connect_tells_an_out_of_step_remote_from_a_broken_one(linked):
    peer = Peer([b"> ", [], b"* 99\r\n> ", None], [b"> ", [], b"* 1235\r\n> "])
    client = linked(lux=peer.port).client()
    assert client.lines("client up lux")[-1] == "* 1"
    reply = client.lines("client connect 5 lux")
    assert "# Connection to client 'Look-Up Board for X' seems out of step, disconnecting" in reply
    assert reply[-1] == "* 0"
    assert peer.lines[0] == b"1234\n"


def test_connect_gives_up_in_time(linked):
    """One link each: nobody there, out of step for ever, a prompt and no answer, no prompt."""
    out_of_step = Peer(*[[b"> ", [], b"* 7\r\n> ", None]] * 20)
    silent, mute = Peer(*[[b"> ", [], []]] * 20), Peer(*[[[]]] * 20)
    client = linked(lux=free_port(), luy=out_of_step.port, corr=silent.port, adcx=mute.port).client()
    for link in "lux", "luy", "corr", "adcx":
        began = time.monotonic()
        reply = client.lines(f"client connect 2 {link}")
        assert reply[-2].startswith("! Abbandoned\tconnection attempts due time out after "), link
        assert reply[-1] == "* -1" and time.monotonic() - began < 6 * SCALE, link
    assert out_of_step.connections >= 2
    assert client.lines("client connect 1 lux")[2].endswith("'Connecting'")


def test_an_interrupt_ends_client_connect(linked):
    server = linked(lux=free_port())
    client = server.client()
    client.send("client connect 600 lux\n")
    client.recv_until("'Connecting'\r\n")
    server.interrupt()
    assert client.recv_prompt().endswith(b"! Abbandoned\tconnection attempts due to ^C\r\n* -1\r\n")


def test_a_peer_that_floods_holds_nobody_once_its_caller_has_left(linked):
    peer = Peer([b"> ", [], *[b"# more\r\n" * 10000] * 3000])
    server = linked(user1=peer.port)
    client, other = server.client(), server.client()
    client.send("send user1 'flood'\n")
    client.recv_until(b"# - more\r\n")
    client.close()
    assert other.lines("eval int 2") == ["* 2"]
    assert peer.connections == 1


def test_a_module_comes_over_bit_for_bit(station, names):
    client, _ = station
    for kind, value in ("", 4000000000), ("float", 0.1), ("double", 1e-300):
        remote, local = names("remote" + kind), names("local" + kind)
        client.cmd(f"""send user1 "module create '{remote}' 7 3 header {kind}" """)
        client.cmd(f"""send user1 "module set-point '{remote}' 6 2 {value:g}" """)
        assert client.lines(f"module get-remote '{remote}' '{local}' user1")[-1] == "* 0"
        got, sent = (pathlib.Path("/dev/shm", name).read_bytes()[360:] for name in (local, remote))
        assert got == sent and any(got)
    assert client.lines(f"module get-remote '{remote}'")[0] == (
        "! Must Supply one of adc-x adc-y lku-x lku-y corr motors user1 user2")
    assert "! Cannot open handle to module" in client.lines("module get-remote 'none_such' user1")


def test_remote_data_behind_a_handle(station):
    client, other = station
    assert client.lines("remote-open 'test open 8 6 4 float' user1")[-1] == "* 0"
    for query, answer in ("nx", 8), ("ny", 6), ("nt", 4), ("type", 4):
        assert client.lines(f"unif-get-{query} 0") == [f"* {answer}"]
    assert client.lines("read 1 2 3 3 2 1 from 0 to-local-file 'r.txt'")[-1] == "* 0"
    folder = pathlib.Path(client.lines("system 'pwd'")[0][2:])
    assert (folder / "r.txt").read_text() == "14 15 16 \n16 17 18 \n"
    assert client.lines("maths accumulate 0 0 0 0 7 5 3")[-1] == "* 2496"
    assert client.lines("close 0")[-1] == "* 0"
    assert client.lines("send user1 'ustatus of 0'")[0].endswith("Unused")
    assert client.lines("remote-open 'test open 8 6 4 float'")[-1] == "* -1"
    assert client.lines("remote-open 'eval int -1' user1")[-1] == "* -1"


def test_remote_handles_that_cannot_be_opened_fail(station):
    client, _ = station
    reply = client.lines("remote-open '5' user1")
    assert "! Error getting info on remote handle 5" in reply and reply[-1] == "* -1"
    client.cmd("send user1 'test open 2 2 1 long'")
    for handle in range(20):
        assert client.lines("remote-open '0' user1") == [f"* {handle}"]
    reply = client.lines("remote-open '0' user1")
    assert reply == ["! Too many remote handles are open", "* -1"]


NO_DATA = f"! client_get_data: Read error, errno = {errno.ENODATA}"


@pytest.mark.parametrize("sent, replies, error", [  # what comes as data, what is answered, what is said
    (b"short", {}, NO_DATA), (b"", {}, NO_DATA), (b"", {b"port": b"! no\r\n* -1\r\n> "}, "! - no"),
    (b"", {b"read": None}, "! The remote closed the connection"),
    (bytes(64), {b"read": b"# on its way\r\n"}, "! The remote closed the connection"),
    (bytes(64), {b"read": b"! not all\r\n* -1\r\n> "}, "! - not all"),
])
def test_data_that_do_not_come_whole_fail_the_command(linked, sent, replies, error):
    sizes = {b"unif-get-nx": 4, b"unif-get-ny": 4}

    def serve(listener):
        connection = listener.accept()[0]
        with connection, connection.makefile("rb") as lines:
            connection.sendall(b"> ")
            for line in lines:
                word, *arguments = line.split()
                if word == b"port":
                    port = int(arguments[0])
                elif word == b"read" and sent:
                    with socket.create_connection(("127.0.0.1", port)) as data:
                        data.sendall(sent)
                    time.sleep(0.1)  # the data are in before the reply
                reply = replies.get(word, b"* %d\r\n> " % sizes.get(word, 1))
                connection.sendall(reply or b"")
                if not (reply or b"").endswith(b"> "):
                    return

    listener = socket.create_server(("127.0.0.1", 0))
    threading.Thread(target=serve, args=(listener,), daemon=True).start()
    client = linked(user1=listener.getsockname()[1]).client()
    assert client.lines("remote-open '0' user1")[-1] == "* 0"
    reply = client.lines("read 0 0 0 4 4 1 from 0 to-local-file 'x'")
    assert error in reply and reply[-1] == "* -1"


def test_a_remote_handle_dies_with_its_connection(station):
    client, _ = station
    client.cmd("remote-open 'test open 4 4 1 long' user1")
    client.cmd("client disconnect")
    client.cmd("send user1 '1'")
    for line in "read 0 0 0 4 4 1 from 0 to-local-file 'r.txt'", "clear 0", "enable 0", "disable 0":
        assert client.lines(line)[-1] == "* -1", line
    assert any("is gone" in line for line in client.lines("read 0 0 0 4 4 1 from 0 to-local-file 'r.txt'"))
    assert client.lines("close 0") == ["* 0"]


@pytest.fixture
def motors(start, linked):
    server = start(program=MOTOR_SERVER)
    return linked(motors=server.port).client(), server


def test_motors_move(motors):
    client, _ = motors
    assert client.lines("motor move-to 3 100+20")[1:] == ["# - Motor 3 moves from 0 to 120", "* 0"]
    assert client.lines("motor move-by 3 0-20") == ["# - Motor 3 moves from 120 to 100", "* 0"]
    assert client.lines("motor get-posn 3") == ["* 100"]
    assert client.lines("motor zero 3") == ["* 0"]
    assert client.lines("motor get-posn 3") == ["* 0"]
    assert client.lines("motor config remote 'motor config slow 0.2'") == ["* 0"]
    assert client.lines("motor move-to 1 5")[1:3] == ["@ 0 4 'Stepper Motors-moving'", "@ 1 4 'Stepper Motors-moving'"]
    client.cmd("motor config remote 'motor config slow 0'")
    client.cmd("motor config remote 'motor config fail 1'")
    assert client.lines("motor move-to 1 9") == ["! - Motor 1 does not move", "* -1"]
    assert client.lines("motor get-posn 1") == ["* 5"]


def test_a_motor_server_that_dies_costs_the_command_only(motors):
    client, server = motors
    client.cmd("motor config remote 'motor config die 0'")
    reply = client.lines("motor move-to 1 5")
    assert "! The remote closed the connection" in reply and reply[-1] == "* -1"
    assert client.lines("eval int 1") == ["* 1"]
    assert server.wait_exit() == 3


HOSTILE = {
    "closes at once": [None],
    "no prompt, then closes": [b"hello\r\n", None],
    "half a prompt": [b">", None],
    "an endless line": [b"> ", [], b"x" * 3000000, None],
    "a star and no result": [b"> ", [], b"* zzz\r\n> "],
    "half a result": [b"> ", [], b"* 1", None],
    "a result and no prompt": [b"> ", [], b"* 1\r\n", None],
    "bytes of every kind": [b"> ", [], bytes(range(256)) * 20 + b"\n", None],
    "numbers that do not fit": [b"> ", [], b"@ 99999999999 1 'x'\r\n* 99999999999999\r\n", None],
}


@pytest.mark.parametrize("script", HOSTILE.values(), ids=HOSTILE.keys())
def test_a_hostile_remote_costs_the_command_only(linked, script):
    peer = Peer(script, script)
    server = linked(user1=peer.port)
    client = server.client()
    before = held(server)
    reply = client.lines("send user1 '1'")
    assert reply[-1] == "* -1" and any(line.startswith("!") for line in reply)
    assert client.lines("eval int 2") == ["* 2"]
    assert held(server) == before


def test_a_question_goes_to_the_session(linked):
    peer = Peer([b"> ", [], b"~ Retry (Y/N)\r\n", 1, b"* 7\r\n> ", [], b"~ Retry (Y/N)\r\n", 1, b"* 8\r\n> "])
    client = linked(user1=peer.port).client()
    for key, answer, result in (b"y", b"Y", b"* 7\r\n"), (b"xn", b"N", b"* 8\r\n"):
        client.send(b"send user1 'risky'\n")
        client.recv_until(b"~ Retry (Y/N)\r\n")
        client.send(key)
        assert client.recv_until(b"> ") == result + b"> "
        assert peer.lines[-1] == answer


def test_interrupt_ends_the_wait_and_the_link(linked):
    peer = Peer([b"> ", [], b"# working\r\n"])
    server = linked(user1=peer.port)
    client = server.client()
    client.send("send user1 'long'\n")
    client.recv_until(b"# - working\r\n")
    server.interrupt()
    assert client.recv_until(b"> ").endswith(b"# Disconnected from User 1.\r\n* -1\r\n> ")
    assert peer.connections == 1


def test_comments_of_the_configuration(start):
    server = start(prepare=lambda cwd: (cwd / "kestrel.clients.ini").write_text(
        "user1 = here 12 ; x\nuser2 a#b 13 # y\n" + "#" * 300 + "\n"))
    status = server.client().lines("client status")
    assert status[10].endswith("here port 12: not connected") and status[11].endswith("a#b port 13: not connected")


@pytest.mark.parametrize("text", ["user1 host\n", "nobody host 1\n", "user1 host 1 more\n", "user1 host x\n",
                                  "user1 host 70000\n", "lux " + "h" * 300 + " 1\n"])
def test_a_malformed_configuration_ends_the_server(start, text):
    process = start(kind=Process, prepare=lambda cwd: (cwd / "kestrel.clients.ini").write_text(
        "# fine\nuser2=host 5\n" + text))
    assert process.wait_exit() == 1
    assert process.stdout.endswith("Error in ini-file kestrel.clients.ini at line 3.\n")


def test_the_display_is_told_what_was_enabled(linked, names):
    peer = Peer([b"> ", *4 * ([], b"* 0\r\n> ")])
    client = linked(imgd=peer.port).client()
    a, b, c = (names(letter) for letter in "abc")
    client.cmd(f"module create '{a}' 4 4 header")
    assert peer.connections == 0, "nothing is sent unasked"
    client.cmd("imgd enable config set-shape")
    client.cmd(f"module create '{b}' 5 1 header")
    client.cmd(f"module resize '{b}' 4 1")
    client.cmd("imgd enable reset auto-display")
    client.cmd(f"module create '{c}' 5 1 header")
    assert peer.lines == [f"module {words}\n".encode() for words in (
        f"config '{b}'", f"set-shape '{b}' 5 1 1", f"set-shape '{b}' 4 1 1", f"open '{c}' display1d")]
