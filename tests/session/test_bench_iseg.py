"""The high-voltage supply over its serial line: each command's bytes, limits, ramps, and a wrong echo."""
import termios
import time

import pytest
from bench import serial_line
from kestrel_session import SCALE


@pytest.fixture
def bench(play):
    return play()


@pytest.fixture
def supply(client, bench):
    assert client.lines(f"iseg config {bench.line('iseg')}") == ["# Note module id = 484230;3.08;2000V;6mA", "* 0"]
    assert bench.seen("iseg") == ["#\\r\\n"]
    return bench


def test_every_command_sends_its_bytes(client, supply):
    client.cmd("iseg set-limit 2 100")
    for line, reply, sent in [
        ("set 2 50 no-wait", "* 0", ["D2=0050", "G2"]), ("set 2 0 no-wait v", "* 0", ["D2=0000", "G2"]),
        ("set 1 25 i", "* 0", ["L1=0025"]), ("set 2 2 ramp", "* 0", ["V2=002"]), ("set 2 255 ramp", "* 0", ["V2=255"]),
        ("get 1 vl", "* 2000", ["M1"]), ("get 2 il", "* 6000", ["N2"]), ("get 2 vs", "* 0", ["D2"]),
        ("get 1 ramp", "* 10", ["V1"]), ("get 1", "* 0", ["U1"]), ("get 1 v", "* 0", ["U1"]), ("get 1 i", "* 0", ["I1"]),
        ("status-num 1", "* 4", ["T1"]),
    ]:
        assert client.lines("iseg " + line) == [reply], line
        assert supply.seen("iseg") == [s + "\\r\\n" for s in sent], line
    assert client.lines("iseg status 1") == ["# Status= 'S1=ON '", '* "ON"']
    assert client.lines("iseg wait 1 quiet") == ['* "ON"']
    assert client.lines("iseg wait 1") == ["# Status= 'S1=ON ' V=0", '* "ON"']
    assert supply.seen("iseg") == ["S1\\r\\n"] * 3 + ["U1\\r\\n"]


def test_what_is_refused_sends_nothing(client, supply):
    above = "! ERROR: Requested voltage %d >  software limit %d "
    for line, reply in [
        ("set 1 5", above % (5, 0)), ("set 1 1 no-wait", above % (1, 0)),
        ("set 1 -5", "! ERROR: Please specify magnitude of required voltage"),
        ("set 3 5", "! ERROR: Please specify channel  1 or 2 not 3"),
        ("set 0 5 ramp", "! ERROR: Please specify channel  1 or 2 not 0"),
        ("get 3", "! ERROR: Please specify channel  1 or 2 not 3"),
        ("status-num 3", "! ERROR: Please specify channel  1 or 2 not 3"),
        ("set-limit 3 5", "! ERROR: Please specify channel  1 or 2 not 3"),
        ("set-limit 1 -1", "! ERROR Please specify magnitude (absoluyte) volatge limit (e.g. +100)"),
        ("set 1 1 ramp", "! ERROR: Expected a ramp speed in range 2..255, not 1"),
        ("set 1 256 ramp", "! ERROR: Expected a ramp speed in range 2..255, not 256"),
        ("set 1 -1 i", "! ERROR: Expected a current limit in range 0..9999, not -1"),
        ("set 1 10000 i", "! ERROR: Expected a current limit in range 0..9999, not 10000"),
        ("set 1 1 v i", "! ERROR: Please specify at most one of v, i and ramp"),
        ("get 1 v i", "! ERROR: Please specify at most one of v, i, vl, il, vs and ramp"),
    ]:
        assert client.lines("iseg " + line) == [reply, "* -1"], line
    assert client.lines("iseg set-limit 1 20000") == ["# Setting software V limit chann 1 = 20000", "* 0"]
    assert client.lines("iseg set 1 10000") == ["! ERROR: Expected a voltage of at most 9999, not 10000", "* -1"]
    for line in "status 3", "wait 0":
        assert client.lines("iseg " + line)[-1] == "* (null)"
    assert supply.seen("iseg") == []
    assert client.lines("iseg set 1 3000") == ["! ERROR: Command D1=3000 returned message '? UMAX=2000'", "* -1"]
    assert supply.seen("iseg") == ["D1=3000\\r\\n"], "the ramp is not started"


def test_the_limit_is_that_of_the_channel(client, supply):
    client.cmd("iseg set-limit 1 100")
    assert client.lines("iseg set 2 50")[-1] == "* -1"
    assert client.lines("iseg set 1 100 no-wait") == ["* 0"]


def test_a_ramp_is_waited_for_and_shown(client, supply):
    client.cmd("iseg set-limit 1 100")
    reply = client.lines("iseg set 1 25")
    assert reply[-2:] == ["# Status= 'S1=ON ' V=25", "* 0"] and reply[0].startswith("# Status= 'S1=L2H' V=")
    client.cmd("iseg set 1 2 no-wait")
    assert client.lines("iseg wait 1 quiet") == ['* "ON"']
    assert client.lines("iseg get 1") == ["* 2"]
    assert client.lines("iseg get 1 i") == ["* 0.0002"]


def test_a_trip_is_told(client, supply):
    client.cmd("iseg set-limit 1 1000")
    supply.do("iseg load 1 breakdown 50.0")
    client.cmd("iseg set 1 255 ramp")
    client.cmd("iseg set 1 100 i")
    began = time.monotonic()
    reply = client.lines("iseg set 1 600")
    assert reply[-2:] == ["! ERROR: The ramp of channel 1 ended with status 'TRP'", "* -1"]
    assert len([line for line in reply if "S1=TRP" in line]) == 11 and time.monotonic() - began < 10 * SCALE
    assert supply.do("iseg volts 1") == 0


def test_an_interrupt_ends_waiting_and_the_ramp_goes_on(server, client, supply):
    client.cmd("iseg set-limit 1 1000")
    for line, last in ("iseg set 1 100", "* -1"), ("iseg wait 1", '* "L2H"'):
        client.send(line + "\n")
        client.recv_until("S1=L2H' V=")
        server.interrupt()
        assert client.recv_prompt().decode().endswith(last + "\r\n")
    assert supply.do("iseg volts 1") > 0


def test_a_wrong_echo_is_believed_nothing_of(client, supply):
    client.cmd("iseg set-limit 1 1000")
    supply.do("wire fault 'iseg' echo on 'D1'")
    assert client.lines("iseg set 1 100") == ["! ERROR in response from ISEG Sent 'D1=0100' received 'E1=0100", "* -1"]
    assert supply.seen("iseg") == ["D1=0100\\r\\n"], "the ramp is not started"
    assert client.lines("iseg get 1 v") == ["* 0"]
    for fault, error in [("garbage", "! ERROR in response from ISEG Sent 'U1' received '"),
                         ("long", "! ERROR: Over run receiving data, modify code for longer buffers?")]:
        supply.do(f"wire fault 'iseg' {fault} on 'U1'")
        reply = client.lines("iseg get 1 v")
        assert reply[0].startswith(error) and reply[-1] == "* -1"
        assert client.lines("iseg get 1 v") == ["* 0"]


def test_debug_shows_echo_and_answer(client, bench):
    reply = client.lines(f"iseg config debug {bench.line('iseg')}")
    assert reply[:2] == ["# ECHO from ISEG Sent '#' len 1 received '#' len 1",
                         "# Response from ISEG Sent '#' len 1 received '484230;3.08;2000V;6mA' len 21"]


def test_config_comes_first(client):
    for line in "set 1 0", "get 1", "status 1", "status-num 1", "wait 1":
        reply = client.lines("iseg " + line)
        assert reply[0] == "! ERROR: Please open TTY using iseg config first" and reply[-1] in ("* -1", "* (null)")


def module(identification):
    return lambda line: line + b"\r\n" + (identification if line == b"#" else b"????") + b"\r\n"


@pytest.mark.parametrize("identification, error", [
    (b"x;3.08;2000V;6mA", "! ERROR Parsing serial number from module id"),
    (b"1;?;2000V;6mA", "! ERROR Parsing software release from module id"),
    (b"1;3.08;V;6mA", "! ERROR Parsing Max output voltage from module id"),
    (b"1;3.08;2000V", "! ERROR Parsing Max output current from module id"),
])
def test_a_module_that_cannot_be_understood_is_not_opened(client, still, identification, error):
    name, _ = serial_line(module(identification))
    assert client.lines(f"iseg config port '{name}'")[-2:] == [error, "* -1"]
    assert client.lines("iseg get 1")[0] == "! ERROR: Please open TTY using iseg config first"


@pytest.mark.parametrize("line, speed", [("iseg config", 9600), ("ke2410 config", 9600), ("ke2700 open", 19200),
                                         ("ke2700 open b9600", 9600)])
def test_settings_of_the_line(client, line, speed):
    name, far = serial_line(module(b"1;3.08;2000V;6mA"))
    client.cmd(f"{line} port '{name}'")
    iflag, oflag, cflag, lflag, ispeed, ospeed, cc = termios.tcgetattr(far)
    assert iflag == termios.IGNCR | termios.IGNPAR | termios.IXON
    assert oflag == termios.OPOST | termios.ONLCR and lflag == termios.ICANON
    assert cflag & ~0o10017 == termios.CS8 | termios.CREAD | termios.CLOCAL
    assert ispeed == ospeed == getattr(termios, f"B{speed}")
    assert [cc[i] for i in (termios.VSTART, termios.VSTOP, termios.VEOF)] == [b"\x11", b"\x13", b"\x04"]
    assert cc[termios.VERASE] == cc[termios.VKILL] == b"\0"


def test_a_line_has_one_user(client, supply):
    reply = client.lines(f"ke2410 config {supply.line('iseg')}")
    assert reply[0].startswith("! ERROR could not open ttyS0 errorno=11") and reply[-1] == "* -1"
    assert client.lines("iseg get 1") == ["* 0"]


def test_a_stop_character_in_noise_stops_nobody(client):
    """XOFF in what was no answer: the next command goes out all the same."""
    answers = {b":SOUR:VOLT:LEV?": b"0\r\n", b"READ?": b"\x13?\r\n", b":OUTP:STAT?": b"\x13\r\n"}
    name, _ = serial_line(lambda line: answers.get(line, b""))
    assert client.lines(f"ke2410 config port '{name}'") == ["* 0"]
    assert client.lines("ke2410 enable 0")[-1] == "* -1"
    answers[b":OUTP:STAT?"] = b"0\r\n"
    assert client.lines("ke2410 enable 0") == ["# Note Output state is already 0", "* 0"]
