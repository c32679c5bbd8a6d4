"""The simulated bench instruments over wires of the test's own: what they answer, and what their detectors do."""
import os
import re
import socket
import time
import tty

import pytest
from bench import Bench
from kestrel_session import SCALE, WAIT, wait_until


@pytest.fixture
def bench(tmp_path):
    program = Bench(tmp_path, "-speed=20")
    yield program
    program.close()


class Tcp:
    def __init__(self, bench, name):
        self.sock = socket.create_connection((bench.address, int(bench.do(f"wire port '{name}'"))), WAIT)
        self.file = self.sock.makefile("rb")

    def tell(self, *commands):
        for command in commands:
            self.sock.sendall(command.encode() + b"\n")

    def ask(self, command):
        self.tell(command)
        line = self.file.readline()
        assert line.endswith(b"\r\n"), line
        return line[:-2].decode()


class Serial:
    """The high-voltage supply's line, raw: what is sent ends with CR LF."""

    def __init__(self, bench):
        self.fd = os.open(bench.links / "iseg", os.O_RDWR | os.O_NOCTTY)
        tty.setraw(self.fd)

    def ask(self, command):
        os.write(self.fd, command.encode() + b"\r\n")
        said = b""
        while said.count(b"\r\n") < 2:
            said += os.read(self.fd, 100)
        echo, answer, rest = said.decode().split("\r\n")
        assert (echo, rest) == (command, "")
        return answer


def test_a_source_meter_holds_its_limits(bench):
    meter = Tcp(bench, "ke2410")
    assert meter.ask("*IDN?").startswith("KEITHLEY")
    meter.tell("*RST", ":SOURCE1:VOLTAGE:LEVEL 50", ":OUTP:STAT ON")
    assert [float(x) for x in meter.ask("READ?").split(",")[:2]] == [50, 5e-9]
    meter.tell(":SOUR:VOLT:PROT 40")
    assert float(meter.ask(":READ?").split(",")[0]) == 40 and float(meter.ask("SOUR:VOLT:LEV?")) == 50
    meter.tell(":SOUR:VOLT:PROT NONE", ":SENS:CURR:PROT:LEV 1e-9 ")
    assert float(meter.ask(":READ?").split(",")[0]) == 10
    meter.tell("SOUR:VOLT:LEV 1200", "BOGUS")
    assert [meter.ask("STAT:QUE?") for _ in range(3)] == [
        '-222,"Parameter data out of range"', '-113,"Undefined header"', '0,"No error"']
    meter.tell(":SOUR:FUNC CURRENT")
    assert meter.ask("OUTP:STAT?") == "0" and bench.do("ke2410 volts") == 0


def test_a_multimeter_takes_its_time_for_samples(bench):
    meter = Tcp(bench, "ke2700")
    bench.do("ke2700 input 9 2.5 seconds 2.0")
    meter.tell("ROUT:CLOS (@109)", "SAMP:COUN 3")
    began = time.monotonic()
    assert meter.ask("READ?") == ",".join(3 * ["+2.50000000E+00"])
    assert 0.29 < time.monotonic() - began < 2 + SCALE
    bench.do("ke2700 input 10 1.0 noise 0.1")
    meter.tell("ROUT:CLOS (@110)", "SAMP:COUN 50")
    values = [float(x) for x in meter.ask("READ?").split(",")]
    assert len(set(values)) > 40 and 0.8 < sum(values) / 50 < 1.2


def test_a_high_voltage_supply_echoes_ramps_and_trips(bench):
    supply = Serial(bench)
    for command, answer in [("#", "484230;3.08;2000V;6mA"), ("U1", "+00000-02"), ("D3", "?WCN"), ("X1", "????"),
                            ("D1=12a4", "????"), ("D1=2001", "? UMAX=2000"), ("V1=001", "????"), ("V1", "010"),
                            ("V1=100", ""), ("D1=0500", ""), ("D1", "05000-01"), ("S1", "S1=ON "), ("M1", "100")]:
        assert supply.ask(command) == answer, command
    assert supply.ask("G1") == "S1=L2H"
    wait_until(lambda: supply.ask("S1") == "S1=ON ", "end of the ramp")
    assert supply.ask("U1") == "+50000-02" and bench.do("iseg volts 1") == 500 and supply.ask("I1") == "50000-12"
    assert supply.ask("L1=0001") == ""
    bench.do("iseg load 1 leak 1e6")
    assert supply.ask("S1") == "S1=TRP" and bench.do("iseg volts 1") == 0
    assert supply.ask("D1=0000") == "" and supply.ask("G1") == "S1=ON "


def test_wires_go_and_come_back(bench):
    meter = Tcp(bench, "ke2410")
    assert meter.ask("OUTP:STAT?") == "0"  # the wire is taken: one that only waits for it is reset
    bench.do("ke2410 level 40.0 1")
    bench.do("wire vanish 'ke2410'")
    assert meter.file.readline() == b""
    with pytest.raises(ConnectionRefusedError):
        Tcp(bench, "ke2410")
    old = os.readlink(bench.links / "iseg")
    bench.do("wire return 'ke2410'")
    assert Tcp(bench, "ke2410").ask("OUTP:STAT?") == "1" and os.readlink(bench.links / "iseg") == old


@pytest.mark.parametrize("option", ["-speed=0", "-ke2410=70000", "-address=here", "-links=", "-what=1"])
def test_options_that_make_no_sense_end_the_program(tmp_path, option):
    from bench import PROGRAM
    from kestrel_session import Process
    process = Process(tmp_path, option, program=PROGRAM)
    assert process.wait_exit() == 1 and re.search("Cannot understand|does not know", process.stderr)
