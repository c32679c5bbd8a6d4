"""The simulated timing unit by its own commands, and the wire by which it gates cards."""
import pathlib
import socket
import subprocess
import time

import pytest
from cards import Program
from kestrel_session import KESTREL, SCALE, WAIT, Server, free_port, wait_until

PROGRAM = str(pathlib.Path(KESTREL).parent / "sim_timing_unit")


@pytest.fixture
def unit(tmp_path):
    """A session with a configured unit of at most 100 frames."""
    server = Server(tmp_path / "unit", program=PROGRAM)
    client = server.client()
    assert client.lines("kairo config 'x' kairo2 max-frames 100")[-1] == "* 0"
    yield client
    server.close()


def do(client, line):
    *lines, last = client.lines(line)
    assert last.startswith("* ") and not last.startswith("* -"), (line, lines, last)
    return last[2:]


def groups(client, *lines, words=""):
    return client.lines("\n".join([f"kairo setup-groups {words}", *lines, "-1"]))


def test_what_a_unit_refuses(tmp_path):
    server = Server(tmp_path / "unit", program=PROGRAM)
    client = server.client()
    for line in ("generate 1 1 1 1 0", "start", "wait", "read lap", "stop", "setup-port 1 2", "list-seq"):
        assert client.lines("kairo " + line) == ["! The unit is not configured", "* -1"], line
    assert client.lines("kairo config 'x' max-frames 0") == ["! A unit has 1 to 65537 frames, not 0", "* -1"]
    do(client, "kairo config 'x' max-frames 5")
    for line in ("0 1 1 1 0", "1 0 1 1 0", "1 6 1 1 0", "1 1 (-1) 1 0", "1 1 1 2e6 0"):
        assert client.lines("kairo generate " + line)[-1] == "* -1", line
    for line, why in [("1 1 1 0 0 0", "a group is seven numbers"), ("1 1 1 0 0 0 0 0", "a group is seven numbers"),
                      ("1 1 x 0 0 0 0", "a group is seven numbers"), ("0 1 1 0 0 0 0", "the table holds 1 to 5 frames"),
                      ("6 1 1 0 0 0 0", "the table holds 1 to 5 frames"), ("1 1 nan 0 0 0 0", "times are 0 to 1e6 seconds"),
                      ("1 -1 1 0 0 0 0", "times are 0 to 1e6 seconds"), ("1 1 1 256 0 0 0", "port data are 0 to 255"),
                      ("1 1 1 0 -1 0 0", "port data are 0 to 255"), ("1 1 1 0 0 2 0", "pause bits are 0 or 1")]:
        assert groups(client, "2 1 1 0 0 0 0", line) == [f"! Group 2: {why}", "* -1"], line
    assert groups(client) == ["! The table has no frames", "* -1"]
    assert client.lines("kairo start") == ["! The unit is IDLE, and has no frames", "* -1"]
    server.close()


def test_pauses_laps_and_stops(unit):
    do(unit, "kairo generate 2 2 0.001 0.02 1")
    do(unit, "kairo start")
    for lap, frame in [(0, 0), (0, 1), (1, 0), (1, 1)]:
        do(unit, "kairo wait")
        assert [do(unit, "kairo read " + what) for what in ("status", "lap", "frame")] == ['"PAUSED"', str(lap), str(frame)]
        assert unit.lines("kairo generate 1 1 1 1 0") == ["! The unit is PAUSED", "* -1"]
        do(unit, "kairo cont")
    do(unit, "kairo wait")
    assert do(unit, "kairo read status") == '"IDLE"' and do(unit, "kairo read full") == "8"
    do(unit, "kairo options auto-cont 1")
    do(unit, "kairo start"), do(unit, "kairo wait")
    assert do(unit, "kairo read full") == "8"
    do(unit, "kairo generate 1000 2 0 0.005 0"), do(unit, "kairo options auto-cont 0")
    do(unit, "kairo start"), do(unit, "kairo stop pause"), do(unit, "kairo wait")
    assert do(unit, "kairo read status") == '"PAUSED"'
    do(unit, "kairo cont"), do(unit, "kairo stop end-of-cycle"), do(unit, "kairo wait")
    assert do(unit, "kairo read status") == '"IDLE"' and do(unit, "kairo read frame") == "1"
    do(unit, "kairo start"), do(unit, "kairo init")
    assert do(unit, "kairo read status") == '"IDLE"'


def test_triggers_start_a_unit_again_and_again(unit):
    assert groups(unit, "1 0 0.01 0 0 0 0", words="auto-rearm ext-start sequence 'one'")[-1] == "* 1"
    assert unit.lines("trigger") == ["! The unit is IDLE", "* -1"]
    do(unit, "kairo start")
    for _ in range(3):
        assert do(unit, "kairo read status") == '"ARMED"'
        do(unit, "trigger")
        wait_until(lambda: do(unit, "kairo read status") == '"ARMED"', "armed unit")
    do(unit, "kairo stop")
    assert do(unit, "kairo read status") == '"IDLE"' and unit.lines("kairo list-seq 'two'") == ["! No such sequence", "* -1"]
    assert unit.lines("kairo list-seq 'one'") == ["# Sequence 'one': 1 frames, 1 laps", "* 0"]


def test_a_run_takes_its_time(unit):
    do(unit, "kairo generate 3 10 0.005 0.02 0")
    began = time.monotonic()
    do(unit, "kairo start"), do(unit, "kairo wait")
    assert 0.75 <= time.monotonic() - began < 2 + SCALE


def test_who_leaves_waits_no_longer(tmp_path, unit):
    do(unit, "kairo generate 1 1 0 600 0"), do(unit, "kairo start")
    unit.send("kairo wait\n")
    unit.sock.close()


@pytest.mark.parametrize("option", ["-gate=0", "-gate=x", "-gate=70000", "-gate=1", "-nothing"])
def test_options_that_make_no_sense(option):
    ended = subprocess.run([PROGRAM, f"-port={free_port()}", option], capture_output=True, text=True, timeout=WAIT)
    assert ended.returncode == 1 and "Usage" in ended.stderr


# ---------------------------------------------------------------- the wire to the cards

@pytest.fixture
def gated(tmp_path):
    """(card program, a connection to its gate port), card 0 running by the timing unit."""
    port = free_port()
    program = Program(tmp_path / "card", "-generation=2", "-chans=1", f"-gate={port}")
    program.do("card set-global 0 2 $90000002")
    connection = socket.create_connection(("127.0.0.1", port), WAIT)
    yield program, connection
    connection.close()
    program.close()


def events(connection, letters):
    for letter in letters:
        connection.sendall(letter.encode())
        assert connection.recv(1) == letter.encode()


STATUS, ENDED = 32, 34


def counting(program):
    return program.do(f"card get-global 0 {STATUS}") == 3


def test_events_are_answered_when_they_have_happened(gated):
    program, unit = gated
    for letters, open_, ended in [("o", True, 0), ("c", False, 0), ("e", False, 1), ("e", False, 1), ("oe", True, 2),
                                  ("ce", False, 3)]:
        events(unit, letters)
        assert (counting(program), program.do(f"card get-global 0 {ENDED}")) == (open_, ended), letters
    program.do("card set-global 0 2 2")
    assert program.do(f"card get-global 0 {ENDED}") == 3


@pytest.mark.parametrize("last", ["", "x", "\0"])
def test_the_gate_closes_when_the_unit_leaves_or_speaks_nonsense(gated, last):
    program, unit = gated
    events(unit, "o")
    assert counting(program)
    if last:
        unit.sendall(last.encode())
        assert unit.recv(1) == b""
    unit.close()
    wait_until(lambda: not counting(program), "closed gate")


def test_a_gate_port_that_is_taken(tmp_path):
    with socket.create_server(("127.0.0.1", 0)) as taken:
        ended = subprocess.run([str(pathlib.Path(KESTREL).parent / "sim_card"), "-base=127.61.18.1", f"-text={free_port()}",
                                f"-gate={taken.getsockname()[1]}"], capture_output=True, text=True, timeout=WAIT)
        assert ended.returncode == 1 and "cannot listen for a timing unit at port" in ended.stderr
