"""The multimeter and the bench supply: each command's bytes, what is refused, what comes out of readings."""
import math

import pytest
from kestrel_session import wait_until

FUNCTIONS = {"dc": "VOLT:DC", "ac": "VOLT:AC"}


class Meter:
    def __init__(self, script):
        self.reading = b"+1.5E+00\n"
        self.peer = script(lambda line: self.reading if line == b"READ?" else b"yes\n" if b"?" in line else b"")

    def sent(self):
        return [line.decode().removesuffix("\n") for line in self.peer.take()]


@pytest.fixture
def meter(client, script):
    meter = Meter(script)
    assert client.lines(f"ke2700 open {meter.peer.where}")[-1] == "* 0"
    assert meter.sent() == ["VOLT:DC:RANG 10"]
    return meter


def ranges():
    volts = {"100mV": "0.1", "1V": "1", "10V": "10", "100V": "100", "1000V": "1000", "750V": "750"}
    for kind, names in ("dc", ("100mV", "1V", "10V", "100V", "1000V")), ("ac", ("100mV", "1V", "10V", "100V", "750V")):
        yield f"{kind}-auto-V", f"VOLT:{kind.upper()}", ":AUTO ON"
        for name in names:
            yield f"{kind}-{name}", f"VOLT:{kind.upper()}", " " + volts[name]
    for name, value in ("20mA", "0.02"), ("100mA", "0.1"), ("1A", "1"), ("3A", "3"):
        yield f"dc-{name}", "CURR:DC", " " + value
    for name, value in ("1A", "1"), ("3A", "3"):
        yield f"ac-{name}", "CURR:AC", " " + value
    yield "dc-auto-A", "CURR:DC", ":AUTO ON"
    yield "ac-auto-A", "CURR:AC", ":AUTO ON"
    yield "r-auto", "RES", ":AUTO ON"
    yield "r-auto four-wire", "FRES", ":AUTO ON"
    for name, value in ("100", "100"), ("1k", "1e3"), ("10k", "10e3"), ("100k", "100e3"), ("1M", "1e6"), (
            "10M", "10e6"), ("100M", "100e6"):
        yield f"r-{name}", "RES", " " + value
        yield f"four-wire r-{name}", "FRES", " " + value


def test_every_range_sends_its_bytes(client, meter):
    for words, function, value in ranges():
        assert client.lines("ke2700 set-range " + words) == ["* 0"], words
        assert meter.sent() == [f":FUNC '{function}'", f":{function}:RANG{value}"], words
    assert client.lines("ke2700 set-range freq") == ["* 0"]
    assert meter.sent() == [":FUNC 'FREQ'"]


FILTERS = [
    ("", []),
    ("dcv slow", [":VOLT:DC:NPLC 5.000000"]), ("dci medium", [":CURR:DC:NPLC 1.000000"]),
    ("res fast", [":RES:NPLC 0.100000"]), ("acv slow", [":VOLT:AC:DET:BAND 3"]), ("aci fast", [":CURR:AC:DET:BAND 300"]),
    ("res4 nplc 2.5", [":FRES:NPLC 2.500000"]), ("aper 0.02", [":VOLT:DC:APER 0.020000"]),
    ("acv bw 30", [":VOLT:AC:DET:BAND 30"]),
    ("ave-count 0", [":VOLT:DC:AVER:STATE OFF"]),
    ("ave-count 10 ave-window 0.5 moving", [":VOLT:DC:AVER:TCON MOV", ":VOLT:DC:AVER:WIND 0.500000",
                                            ":VOLT:DC:AVER:COUN 10", ":VOLT:DC:AVER:STATE ON"]),
    ("ave-count 10", [":VOLT:DC:AVER:TCON REP", ":VOLT:DC:AVER:COUN 10", ":VOLT:DC:AVER:STATE ON"]),
]


def test_every_filter_sends_its_bytes(client, meter):
    for words, sent in FILTERS:
        assert client.lines("ke2700 set-filter " + words) == ["* 0"], words
        assert meter.sent() == sent, words
    assert client.lines("ke2700 set-filter nplc 1.0 aper 0.5") == [
        "'# WARNING: Normally specify either NPLC or aperture", "* 0"]


@pytest.mark.parametrize("line, error", [
    ("set-range dc-1V ac-1V", "! ERROR: Please specify at most 1 voltage or current range"),
    ("set-range", "! ERROR: Please specify a range"),
    ("set-range dc-1V four-wire", "! ERROR: Only resistances are measured with four wires"),
    ("set-filter freq", "! ERROR: Function FREQ not supported yet"),
    ("set-filter temp slow", "! ERROR: Function TEMP not supported yet"),
    ("set-filter dcv acv", "! ERROR: Please specify at most 1 reading type"),
    ("set-filter slow fast", "! ERROR: Please specify at most 1 of slow, medium and fast"),
    ("set-filter bw 30", "! ERROR: Only alternating voltages and currents have a bandwidth"),
    ("measure samples 50", "! ERROR: Number of samples 50 is out of range 1...49"),
    ("measure samples 0", "! ERROR: Number of samples 0 is out of range 1...49"),
    ("measure channel 8", "! ERROR: Channel 8 is out of range 9...10"),
    ("start-log 'x' channel 11", "! ERROR: Channel 11 is out of range 9...10"),
    ("start-log 'x' samples 50", "! ERROR: Number of samples 50 is out of range 1...49"),
    ("start-log 'x' period 0", "! ERROR: Expected period > 1, not 0"),
    ("start-log '/none/x'", "! ERROR: Cannot open file '/none/x' mode 'a'. Errno=2"),
    ("start-log '/dev' truncate", "! ERROR: Cannot open file '/dev' mode 'w'. Errno=21"),
])
def test_what_is_refused_sends_nothing(client, meter, line, error):
    assert client.lines("ke2700 " + line) == [error, "* -1"]
    assert meter.sent() == []


def test_readings_give_mean_and_deviation(client, meter):
    meter.reading = b"+1.0E+00,+2.0E+00,+3.0E+00,+4.0E+00\n"
    deviation = math.sqrt(5 / 3)
    assert client.lines("ke2700 measure samples 4 var 'm'") == [f"# mean = 2.50000000, std dev= {deviation:.8f}", "* 0"]
    assert meter.sent() == ["SAMP:COUN 4", "READ?"]
    assert client.lines("ke2700 get-mean") == client.lines("%m.mean") == ["* 2.5"]
    assert client.lines("ke2700 get-stdev") == client.lines("%m.stddev") == [f"* {deviation:g}"]
    assert client.lines("ke2700 measure samples 3")[0] == "# Warning : samples requested 3 != samples received 4"
    meter.reading = b"+1.5E+00VDC,+1.0SECS,+00001RDNG#\n"
    assert client.lines("ke2700 measure")[-2:] == ["# mean = 1.50000000, std dev= 0.00000000", "* 0"]
    for bad in b"\n", b"OVERFLOW\n", b"1,2,\n", b"nan\n":
        meter.reading = bad
        reply = client.lines("ke2700 measure")
        assert reply[-1] == "* -1" and reply[0].endswith("to 'READ?', which is no reading")
    assert client.lines("ke2700 get-mean") == ["* 1.5"]
    meter.reading = b"7" * 5000 + b"\n"
    assert client.lines("ke2700 measure") == [
        "! ERROR: Over run receiving data, modify code for longer buffers?", "* -1"]
    meter.reading = b"2\n"
    assert client.lines("ke2700 measure")[-1] == "* 0"


def test_the_card_chooses_the_channel(client, script):
    meter = Meter(script)
    assert client.lines(f"ke2700 open ke7700 {meter.peer.where}")[-1] == "* 0"
    meter.sent()
    for channel in 9, 10:
        client.cmd(f"ke2700 measure channel {channel}")
        assert meter.sent() == [f"ROUT:CLOS (@1{channel:02d})", "SAMP:COUN 1", "READ?"]


def test_opening_and_closing(client, script):
    meter = Meter(script)
    name = meter.peer.where.split("'")[1] + ":" + meter.peer.where.split()[-1]
    assert client.lines(f"ke2700 open {meter.peer.where}") == [f"# Connected to Keithley 2700 @ {name}", "* 0"]
    assert client.lines(f"ke2700 open {meter.peer.where}") == [f"# {name} is already open", "* -1"]
    assert client.lines("ke2700 send 'A?'") == ['* "yes"'] and client.lines("ke2700 send 'A'") == ['* ""']
    assert client.lines("ke2700 close") == [f"# Closed {name}", "* 0"]
    for line in "close", "measure", "send 'x'", "set-range freq", "set-filter slow", "start-log 'x'":
        reply = client.lines("ke2700 " + line)
        assert reply[0] == "# /dev/ttyS0 is not open" and reply[-1] in ("* -1", "* (null)"), line


@pytest.mark.parametrize("words, error", [
    ("ip-addr 'no.such.host.invalid'", "! Error looking up host name no.such.host.invalid"),
    ("ip-addr '127.0.0.1' ip-port 1", "! Error: socket connect failed errno=111, Connection refused"),
    ("ip-addr '127.0.0.1' ip-port 70000", "! ERROR: Expected ip-port in range 1..65535, not 70000"),
    ("telnet", "! ERROR: Please specify ip-addr, too"),
    ("port '/none'", "! ERROR could not open ttyS0 errorno=2, descr=No such file or directory"),
    ("port '/dev/null'", "! ERROR could not getattr ttyS0 errorno=25, descr=Inappropriate ioctl for device"),
])
def test_what_cannot_be_opened_says_why(server, client, still, words, error):
    for instrument in "ke2700 open", "ke2410 config", "iseg config":
        if instrument != "iseg config" or words.startswith("port"):
            assert client.lines(f"{instrument} {words}") == [error, "* -1"]


def test_the_bench_supply(client, play):
    bench = play()
    assert client.lines("ke2700 tti-set 1") == ["# tti psu is not open", "* -1"]
    assert client.lines("ke2700 tti-close") == ["# tti psu is not open", "* -1"]
    client.cmd(f"set-string 'tti_address' '{bench.address}'")
    assert client.lines("ke2700 tti-open") == [f"# Connected to tti psu @ {bench.address}:9221", "* 0"]
    assert client.lines("ke2700 tti-open") == ["# tti psu is already open", "* -1"]
    for line, error in [("4.61", "! ERROR voltage range is 0.000000..4.600000"),
                        ("0-0.1", "! ERROR voltage range is 0.000000..4.600000"),
                        ("1 channel 3", "! ERROR psu channel range is 1..2"),
                        ("1 channel 0", "! ERROR psu channel range is 1..2")]:
        assert client.lines("ke2700 tti-set " + line) == [error, "* -1"]
    for line in "4.6", "2.5 channel 2", "0.0 channel 1":
        assert client.lines("ke2700 tti-set " + line) == ["* 0"]
    wait_until(lambda: len(bench.heard("tti")) >= 4, "commands at the supply")
    assert bench.seen("tti") == ["ovp1 4.8;ovp2 4.8;i1 0.05;i2 0.05;ocp1 0.1;ocp2 0.1;opall 1\\r",
                                 "v1 4.600000\\r", "v2 2.500000\\r", "v1 0.000000\\r"]
    bench.do("wire vanish 'tti'")
    assert client.lines("ke2700 tti-set 1") == ["! ERROR Failed to write to tti psu", "* -1"]
    bench.do("wire return 'tti'")
    assert client.lines("ke2700 tti-open")[-1] == "* 0"
    assert client.lines("ke2700 tti-close") == ["# Disconnected from tti psu ", "* 0"]
    assert bench.do("tti volts 2") == 2.5, "closing changes no output"
