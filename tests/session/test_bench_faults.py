"""Bench instruments that are silent, late, talk nonsense or vanish: what a command costs, and what comes after it."""
import time

import pytest
from kestrel_data import held
from kestrel_session import SCALE, wait_until

PATIENCE = 5  # seconds that an answer is waited for
CONFIG = {"ke2410": "ke2410 config", "ke2700": "ke2700 open", "iseg": "iseg config"}
ASK = {"ke2410": "ke2410 get v", "ke2700": "ke2700 measure", "iseg": "iseg get 1"}
WORD = {"ke2410": "READ?", "ke2700": "READ?", "iseg": "U1"}
WIRES = [("ke2410", "line"), ("ke2410", "tcp"), ("ke2700", "line"), ("ke2700", "tcp"), ("iseg", "line")]


@pytest.fixture
def bench(play):
    return play()


def config(client, bench, name, wire):
    assert client.lines(f"{CONFIG[name]} {getattr(bench, wire)(name)}")[-1] == "* 0"
    if name != "iseg":
        client.cmd(f"{name} send '*IDN?'")  # answered behind all that opening sent


def works(client, name):
    return client.lines(ASK[name])[-1] == "* 0"


def fails_once(reply):
    """One line that says why, and -1."""
    return len([line for line in reply if line.startswith("!")]) == 1 and reply[-1] == "* -1"


@pytest.mark.parametrize("name, wire", WIRES)
def test_one_that_vanishes_costs_a_command_and_opens_again(client, bench, name, wire):
    for how in "between", "while asked", "noticed by opening":
        config(client, bench, name, wire)
        assert works(client, name)
        if how == "while asked":
            bench.do(f"wire fault '{name}' vanish on '{WORD[name]}'")
        else:
            bench.do(f"wire vanish '{name}'")
        if how != "noticed by opening":
            assert fails_once(client.lines(ASK[name]))
            began = time.monotonic()
            assert client.lines(ASK[name])[-1] == "* -1" and time.monotonic() - began < PATIENCE
        bench.do(f"wire return '{name}'")
        config(client, bench, name, wire)
        assert works(client, name)
        bench.do(f"wire vanish '{name}'")
        bench.do(f"wire return '{name}'")


@pytest.mark.parametrize("wire", ["line", "tcp"])
def test_a_source_meter_that_vanishes_in_a_ramp_is_never_reset(client, bench, wire):
    config(client, bench, "ke2410", wire)
    client.cmd("ke2410 set-limit 100")
    client.cmd("ke2410 enable 1")
    bench.do("wire fault 'ke2410' vanish on 'LEV 4'")
    assert fails_once(client.lines("ke2410 set 50")) or fails_once(client.lines("ke2410 set 50"))
    assert bench.do("ke2410 volts") == 3
    bench.do("wire return 'ke2410'")
    assert client.lines(f"ke2410 config {getattr(bench, wire)('ke2410')}")[-2].startswith("# Warning : Output is driving")
    assert bench.do("ke2410 volts") == 3
    assert client.lines("ke2410 set 2")[-1] == "* 0"


@pytest.mark.parametrize("name", CONFIG)
def test_silence_costs_five_seconds_and_the_late_answer_goes_to_nobody(client, bench, name):
    config(client, bench, name, "line")
    if name == "ke2410":
        bench.do("ke2410 level 1.5 1")
    bench.do(f"wire fault '{name}' silence on '{WORD[name]}'")
    began = time.monotonic()
    reply = client.lines(ASK[name])
    assert fails_once(reply) and "errorno=110" in reply[0]
    assert 4.9 < time.monotonic() - began - (name == "ke2700") < 2 * PATIENCE
    assert client.lines(ASK[name])[-1] in ("* 0", "* 1.5")


def test_an_answer_that_comes_late_is_not_taken_for_another(client, script):
    late = []
    meter = script(lambda line: b"50\n" if line == b":SOUR:VOLT:LEV?" else late.append(line) or b"")
    assert client.lines(f"ke2410 config {meter.where}")[-1] == "* 0"
    client.cmd("ke2410 set-limit 100")
    assert client.lines("ke2410 set 0")[-1] == "* -1" and late == [b":OUTP:STAT?"]
    meter.say(b"1\n")
    assert client.lines("ke2410 get vs") == ["* 50"]


def test_a_ramp_never_starts_from_an_answer_to_another_question(client, script):
    """Answers come one question late: the output's state, 1, where the level, 50 V, was asked for."""
    out_of_step = [b"", b"1\n", b"1\n", b"50\n"]

    def answer(line):
        if not line.endswith(b"?"):
            return b""
        if armed and out_of_step:
            return out_of_step.pop(0)
        return b"1\n" if line == b":OUTP:STAT?" else b"50\n"

    armed = []
    meter = script(answer)
    assert client.lines(f"ke2410 config {meter.where}")[-1] == "* 0"
    client.cmd("ke2410 set-limit 100")
    armed.append(True)
    assert fails_once(client.lines("ke2410 set 0"))
    assert client.lines("ke2410 set 0") == [
        "! ERROR: Keithley 2410 answers out of step, with a level of 1 V and of 50 V", "* -1"]
    assert all(line.endswith(b"?\n") for line in meter.take())
    assert client.lines("ke2410 set 49") == ["* 0"]


@pytest.mark.parametrize("fault", ["garbage", "long", "cut", "split"])
def test_nonsense_costs_the_command_only(client, bench, fault):
    for name, wire in WIRES:
        if fault == "cut" and wire == "tcp":
            continue  # as silence
        config(client, bench, name, wire)
        bench.do(f"wire fault '{name}' {fault} on '{WORD[name]}'")
        reply = client.lines(ASK[name])
        assert reply[-1] == "* 0" if fault == "split" else fails_once(reply), (name, reply)
        assert works(client, name), (name, fault)
        bench.do(f"wire vanish '{name}'")
        bench.do(f"wire return '{name}'")


def test_an_instrument_that_never_falls_silent_does_not_hold_the_server(client, script):
    flood = script(lambda line: b"noise\n" * 200000)
    client.send(f"ke2410 config {flood.where}\n")
    assert client.recv_prompt(10 * SCALE).endswith(b"* -1\r\n")
    assert client.lines("1+1") == ["* 2"]


def test_a_wait_ends_at_once_with_an_interrupt(server, client, bench):
    for name, line in ("ke2700", "ke2700 measure"), ("iseg", "iseg get 1"):
        config(client, bench, name, "line")
        bench.do(f"wire fault '{name}' silence on '{WORD[name]}'")
        bench.seen(name)
        client.send(line + "\n")
        wait_until(lambda: any(WORD[name] in line for line in bench.heard(name)), "question")
        server.interrupt()
        reply = client.recv_prompt()
        assert b"stopped with ^C" in reply and reply.endswith(b"* -1\r\n")
        assert works(client, name)


def test_fifty_opens_and_closes_leave_no_descriptor(server, client, bench):
    def cycle(wire):
        config(client, bench, "ke2700", wire)
        assert client.lines("ke2700 start-log 'x.log'") == ["* 0"]
        assert client.lines("ke2700 close")[-1] == "* 0"
        for name in "ke2410", "iseg":
            config(client, bench, name, "line" if name == "iseg" else wire)
            bench.do(f"wire vanish '{name}'")
            bench.do(f"wire return '{name}'")
            assert client.lines(ASK[name])[-1] == "* -1"

    cycle("line")
    before = held(server)
    for turn in range(50):
        cycle("tcp" if turn % 2 else "line")
    wait_until(lambda: held(server) == before, "return to the descriptors open before")


def test_outputs_outlive_closing_and_the_server(start, bench):
    server = start()
    client = server.client()
    config(client, bench, "ke2410", "line")
    config(client, bench, "iseg", "line")
    client.cmd("ke2410 set-limit 5")
    client.cmd("iseg set-limit 1 5")
    client.cmd("ke2410 enable 1")
    assert client.lines("ke2410 set 2")[-1] == client.lines("iseg set 1 5")[-1] == "* 0"
    assert client.lines("ke2410 start-log 'x.log' period 1") == ["* 0"]
    server.close()
    wait_until(lambda: bench.do("ke2410 volts") == 2, "voltage")  # nobody waited for an answer to the command
    assert bench.do("iseg volts 1") == 5


def test_every_instrument_vanishes_while_the_server_ends(start, bench):
    server = start()
    client = server.client()
    config(client, bench, "ke2410", "tcp")
    config(client, bench, "ke2700", "tcp")
    for name in "ke2410", "ke2700":
        assert client.lines(f"{name} start-log '{name}.log' period 1") == ["* 0"]
        bench.do(f"wire fault '{name}' silence times -1")
        bench.seen(name)
        wait_until(lambda: bench.heard(name), "question of the logger")
    began = time.monotonic()
    server.close()
    assert time.monotonic() - began < max(PATIENCE, 3 * SCALE)
