"""The source-meter: each command's bytes, what is refused, ramps, and what keeps a detector alive."""
import re
import time

import pytest
from kestrel_session import reply_lines, wait_until

RESET = ["*RST", ":SENS:FUNC:CONC 1 ", ":SENSE:VOLT:RANG:AUTO ON", ":SENSE:CURR:RANG:AUTO ON", ':SENS:FUNC "CURR" ',
         ':SENS:FUNC "VOLT" ', ":FORM:ELEM:SENS VOLT,CURR,TIME"]
NO_LIMITS = "! ERROR: Please specify the software voltage limits first using ke2410 set-limit"
CLOSED = "! ERROR: Please open TTY using ke2410 config first"


class Meter:
    """A source-meter with a level and an output, over TCP; `special` answers stand before its own."""

    def __init__(self, script, level="0", output="0", special=()):
        self.level, self.output, self.special = level, output, dict(special)
        self.peer = script(self.answer)

    def answer(self, line):
        text = line.decode()
        if text in self.special:
            said = self.special[text]
            return said() if callable(said) else said
        if text.startswith(":SOUR:VOLT:LEV "):
            self.level = text.split()[1]
        if text.startswith(":OUTP:STAT "):
            self.output = text.split()[1]
        answers = {":SOUR:VOLT:LEV?": self.level, ":OUTP:STAT?": self.output, ":READ?": f"{self.level},5e-9,1.5",
                   ":SOUR:VOLT:PROT?": "40", ":SENS:CURR:PROT?": "1.05E-4", ":STAT:QUE?": '-113,"Undefined header"'}
        return answers[text].encode() + b"\r\n" if text in answers else b""

    def wait_for(self, question):
        """Waits until it is asked, since what was sent was taken the last time; takes that."""
        wait_until(lambda: question in self.sent(), question)

    def sent(self):
        lines = self.peer.take()
        assert all(line.endswith(b"\n") and b"\r" not in line for line in lines)
        return [line[:-1].decode() for line in lines]


def opened(client, meter):
    assert client.lines(f"ke2410 config {meter.peer.where}")[-1] == "* 0"
    meter.sent()
    return meter


@pytest.fixture
def meter(client, script):
    return opened(client, Meter(script))


def told(client, meter, line):
    """The commands that a line sends: it prints nothing but a result of 0."""
    assert client.lines(line) == ["* 0"], line
    return meter.sent()


def test_config_resets_a_source_meter_that_gives_nothing(client, script):
    for level in "0", "1.9", "-2.0":
        meter = Meter(script, level)
        reply = client.lines(f"ke2410 config {meter.peer.where}")
        where = re.search("ip-addr '(.*)' ip-port (.*)", meter.peer.where).expand(r"\1:\2")
        assert reply == [f"# Connected to Keithley 2410 @ {where}", "* 0"]
        assert client.lines("ke2410 get vs")[-1] == f"* {float(level):g}"
        assert meter.sent() == [":SOUR:VOLT:LEV?", *RESET, ":SOUR:VOLT:LEV?"]
        assert client.lines(f"ke2410 config {meter.peer.where}") == [f"# {where} is already open", "* -1"]
        meter.peer.close()


@pytest.mark.parametrize("level", ["50", "-2.1", "1100"])
def test_config_never_resets_a_source_meter_that_drives(client, script, level):
    meter = Meter(script, level)
    assert client.lines(f"ke2410 config {meter.peer.where}")[1:] == [
        "# Warning : Output is driving a voltage, not performing a reset, wind Vbias down gently first", "* 0"]
    assert meter.sent() == [":SOUR:VOLT:LEV?"]


@pytest.mark.parametrize("answer", [b"nan\n", b"\n", b"what?\n", b"1e5\n", b"9" * 5000 + b"\n", None],
                         ids=["nan", "empty", "text", "too much", "too long", "gone"])
def test_config_never_resets_one_whose_level_is_unknown(client, script, answer):
    meter = Meter(script, special={":SOUR:VOLT:LEV?": answer})
    reply = client.lines(f"ke2410 config {meter.peer.where}")
    assert len([line for line in reply if line.startswith("!")]) == 1 and reply[-1] == "* -1"
    assert meter.sent() == [":SOUR:VOLT:LEV?"]
    if answer is not None:  # the connection stays, and config can be tried again
        meter.special.clear()
        assert client.lines(f"ke2410 config {meter.peer.where}")[-1] == "* 0"
        assert meter.sent() == [LOOK, LOOK, *RESET]  # two answers must be the same now


LOOK = ":SOUR:VOLT:LEV?"
MODE = [LOOK, ":SOUR:FUNC VOLT", ":SOUR:VOLT:MODE FIXED"]
OFF = [":SENS:CURR:PROT:RSYN OFF", ":SOUR1:CLE:AUTO OFF"]
ROWS = [
    ("set-mode", [*MODE, *OFF]),
    ("set-mode v 60.0 i 0.001 rsync auto-off", [*MODE, ":SOUR:VOLT:PROT 60", ":SOUR:VOLT:RANG 60",
     ":SENS:CURR:PROT 0.001", ":SENS:CURR:PROT:RSYN ON", ":SOUR1:CLE:AUTO ON"]),
    ("set-mode v 0-60.5 ui 25.0", [*MODE, ":SOUR:VOLT:PROT 60.5", ":SOUR:VOLT:RANG -60.5", ":SENS:CURR:PROT 2.5e-05",
                                   *OFF]),
    ("set-mode v 0-60.5 bipolar", [*MODE, ":SOUR:VOLT:PROT 60.5", ":SOUR:VOLT:RANG 60.5", *OFF]),
    ("set-mode current", [LOOK, ":SOUR:FUNC CURRENT", ":SOUR:VOLT:MODE FIXED", *OFF]),
    *[(f"set-i-range {word}", [f":SENSE:CURR:RANG {value} "]) for word, value in [
        ("i1uA", "1e-6"), ("i10uA", "10e-6"), ("i100uA", "100e-6"), ("i1mA", "1e-3"), ("i20mA", "20e-3"),
        ("i100mA", "100e-3"), ("i1A", "1")]],
    ("set-i-range auto", [":SENSE:CURR:RANG:AUTO 1 "]),
    *[(f"set-v-range {word}", [f":SOUR:VOLT:RANG {value} "]) for word, value in [
        ("v200mV", "200e-3"), ("v2V", "2"), ("v20V", "20"), ("v1000V", "1000")]],
    ("set-v-range auto", [":SOUR:VOLT:RANG:AUTO 1 "]),
    *[(f"set-src-v-limit v{volts}V", [LOOK, f":SOUR:VOLT:PROT {volts} "]) for volts in (20, 40, 100, 200, 300, 400, 500)],
    ("set-src-v-limit none", [LOOK, ":SOUR:VOLT:PROT NONE "]),
    ("set 0.0001 i", [LOOK, ":SENS:CURR:PROT:LEV 0.0001 "]),
    ("enable 1", [":OUTP:STAT?", ":SOUR:VOLT:LEV?", ":OUTP:STAT 1"]),
    ("enable 0", [":OUTP:STAT?", ":OUTP:STAT 0"]),
    ("set 0", [":OUTP:STAT?", ":SOUR:VOLT:LEV?", ":SOUR:VOLT:LEV 0"]),
    ("set 0.0 no-slew", [":OUTP:STAT?", ":SOUR:VOLT:LEV 0"]),
]


def test_every_command_sends_its_bytes(client, meter):
    client.cmd("ke2410 set-limit 100")
    for line, sent in ROWS:
        if line == "set-i-range i1uA":
            client.cmd("ke2410 set-mode")
            meter.sent()
        assert told(client, meter, "ke2410 " + line) == sent, line


REFUSED = [
    ("set 10", NO_LIMITS), ("set 0-10.0 no-slew", NO_LIMITS),
    ("set 1101", "! ERROR: Expected voltage limit in range -1100 to 1100, not 1101"),
    ("set-limit 10 10", "! ERROR: Expecting min < max but got min=10, max=10"),
    ("set-limit 0", "! ERROR: Expecting min < max but got min=0, max=0"),
    ("set-limit 0 2000", "! ERROR: Expected voltage limit in range -1100 to 1100, not 2000"),
    ("set-mode v 0-1200.0", "! ERROR: Expected voltage limit in range -1100 to 1100, not -1200"),
    ("set-mode i 0.1 ui 1.0", "! ERROR: Please specify onpy one of current in A or uA"),
    ("set 1 v i", "! ERROR: Please specify at most one of v, i, ramp, wait and no-slew"),
    ("enable 2", "! ERROR: Expected on flag to be 0 or 1, not 2"),
    ("set-i-range", "! ERROR: Please specify exactly one range"),
    ("set-i-range i1A auto", "! ERROR: Please specify exactly one range"),
    ("set-v-range v2V v20V", "! ERROR: Please specify exactly one range"),
    ("set-src-v-limit", "! ERROR: Please specify exactly one range"),
]


def test_what_is_refused_sends_nothing(client, meter):
    for line, error in REFUSED:
        assert client.lines("ke2410 " + line) == [error, "* -1"], line
    assert client.lines("ke2410 send ':A\t1'") == [
        "! ERROR: A command is one line without control characters", "* (null)"]
    assert meter.sent() == []


def test_a_current_source_has_no_current_range(client, meter):
    assert client.lines("ke2410 set-mode current") == ["* 0"]
    assert client.lines("ke2410 set-i-range i1A") == [
        "! ERROR: Cannot set current measurement range when working as a current soucre", "* -1"]
    assert client.lines("ke2410 set-mode") == client.lines("ke2410 set-i-range i1A") == ["* 0"]


@pytest.mark.parametrize("given, low, high, outside", [("80", 0, 80, (-1, 81)), ("0-80.0", -80, 0, (1, -81)),
                                                       ("0-20 30", -20, 30, (-21, 30.5))])
def test_limits_hold(client, meter, given, low, high, outside):
    assert client.lines("ke2410 set-limit " + given) == [
        f"# Setting software V limits : {low} <= Vset <= {high}", "* 0"]
    for volts in outside:
        for how in "", " no-slew", " v", " ramp", " wait":
            assert client.lines(f"ke2410 set {0 if volts < 0 else ''}{volts}{how}") == [
                f"! ERROR: Requested voltage {volts:g}  not within range {low} <= vset <= {high}", "* -1"]
    assert meter.sent() == []


def test_limits_hold_for_what_is_sent(client, meter):
    """What is sent has six digits; a request that they round above the limit is refused."""
    client.cmd("ke2410 set-limit 99.99996")
    assert client.lines("ke2410 set 99.99996 no-slew")[0].startswith("! ERROR: Requested voltage 100  not within")
    assert meter.sent() == []


def test_unchecked_words_never_raise_a_voltage_without_limits(client, script):
    """The set point that was found is 50 V: nothing lets it out, and nothing raises it."""
    meter = Meter(script, "50")
    client.cmd(f"ke2410 config {meter.peer.where}")
    meter.sent()
    for line in "set 51", "set 60 no-slew":
        assert client.lines("ke2410 " + line) == [NO_LIMITS, "* -1"]
    for limits in None, "40":  # none, and some that it is outside of
        if limits:
            client.cmd("ke2410 set-limit " + limits)
        for line in "set-mode v 100.0", "set-mode auto-off", "set-src-v-limit none", "set 0.001 i":
            assert client.lines("ke2410 " + line) == [
                "! ERROR: The set point of 50 V is not within the software voltage limits, nothing was changed",
                "* -1"], line
    assert meter.sent() == [LOOK] * 8
    assert client.lines("ke2410 enable 1") == [
        "! ERROR: Attempting to step turn on HV supply while output fabs(setpoint) > 1.0. Setting HV to 0", "* 0"]
    assert meter.sent() == [":OUTP:STAT?", ":SOUR:VOLT:LEV?", ":SOUR:VOLT:LEV 0", ":OUTP:STAT 1"]


def test_an_output_is_switched_on_at_a_low_set_point_only(client, meter):
    for level, limits, zeroed in [("1.0", None, True), ("0.5", "0-10", True), ("0.5", "10", False), ("1.1", "10", True)]:
        meter.level, meter.output = level, "0"
        if limits:
            client.cmd("ke2410 set-limit " + limits)
        reply = client.lines("ke2410 enable 1")
        assert reply[-1] == "* 0" and len(reply) == 1 + zeroed and meter.sent(), reply
        assert meter.level == ("0" if zeroed else level)
    assert client.lines("ke2410 enable 1") == ["# Note Output state is already 1", "* 0"]


@pytest.mark.parametrize("question, answers", [(":OUTP:STAT?", [b"2\n", b"\n", b"on\n"]),
                                               (":SOUR:VOLT:LEV?", [b"nan\n", b"2000\n", b"0,0\n"])])
def test_answers_that_cannot_be_change_nothing(client, meter, question, answers):
    client.cmd("ke2410 set-limit 100")
    for answer in answers:
        meter.special[question] = answer
        for line in "set 50", "set 0", "enable 1":
            meter.sent()
            reply = client.lines("ke2410 " + line)
            assert reply[-1] == "* -1" and reply[-2].startswith("! ERROR: Keithley 2410 "), reply
            assert not [s for s in meter.sent() if not s.endswith("?")]


def test_a_ramp_takes_steps_of_a_volt_and_a_second(client, meter):
    client.cmd("ke2410 set-limit 100")
    meter.output = "1"
    began = time.monotonic()
    assert client.lines("ke2410 set 3.5") == ["@ 1 3 'Vbias'", "@ 2 3 'Vbias'", "@ 3 3 'Vbias'", "* 0"]
    assert 2.9 < time.monotonic() - began < 5.9  # twice as slow would be 6
    assert meter.sent()[2:] == [f":SOUR:VOLT:LEV {v}" for v in ("1", "2", "3", "3.5")]
    assert client.lines("ke2410 set 2.5") == ["* 0"]  # a volt away is no ramp
    assert client.lines("ke2410 set 0")[-1] == "* 0"
    assert [s for s in meter.sent() if "?" not in s] == [f":SOUR:VOLT:LEV {v}" for v in ("2.5", "1.5", "0.5", "0")]


def test_a_ramp_from_outside_the_limits_goes_towards_the_target(client, meter):
    client.cmd("ke2410 set-limit 10 20")
    meter.level, meter.output = "22.25", "1"
    assert client.lines("ke2410 set 20")[-1] == "* 0"
    assert meter.sent()[2:] == [f":SOUR:VOLT:LEV {v}" for v in ("21.25", "20.25", "20")]


def test_a_voltage_behind_an_output_that_is_off_is_warned_of(client, meter):
    client.cmd("ke2410 set-limit 0-5 5")
    assert client.lines("ke2410 set 1") == [
        "WARNING : Setting output, but output not enabled. Is this what you want?", "* 0"]
    assert client.lines("ke2410 set 0") == ["* 0"]


def test_an_interrupt_ends_a_ramp_where_it_is(server, client, meter):
    client.cmd("ke2410 set-limit 100")
    meter.output = "1"
    client.send("ke2410 set 50\n")
    client.recv_until("@ 2 49 'Vbias'\r\n")
    server.interrupt()
    *steps, stopped, result = reply_lines(client.recv_prompt())
    level = 2 + len(steps)
    assert level < 50 and stopped == f"! ERROR: Stopped with ^C, the level stays at {level} V" and result == "* -1"
    assert meter.sent()[-1] == f":SOUR:VOLT:LEV {level}"
    assert client.lines("ke2410 get vs") == [f"* {level}"]


def test_one_interrupt_retries_a_read_and_two_end_it(server, client, meter):
    meter.special[":READ?"] = b""
    for answered in True, False:
        client.send("ke2410 get v\n")
        meter.wait_for(":READ?")
        server.interrupt()
        client.recv_until("# Ke2410 read interrupted with ^C, retrying read ^c again to stop\r\n")
        if answered:
            meter.peer.say(b"7,1e-9,0\n")
            assert client.recv_prompt() == b"* 7\r\n"
        else:
            server.interrupt()
            assert client.recv_prompt() == b"! ERROR: Read stopped with ^C, Hope this is OK\r\n* -1\r\n"
    assert client.lines("ke2410 get vs") == ["* 0"]


def test_an_interrupted_read_sends_no_voltage_afterwards(server, client, meter):
    """One ^C lets the read go on, but the command that it was typed at goes no further."""
    client.cmd("ke2410 set-limit 100")
    meter.special[":OUTP:STAT?"] = b""
    client.send("ke2410 set 50 no-slew\n")
    meter.wait_for(":OUTP:STAT?")
    server.interrupt()
    client.recv_until("again to stop\r\n")
    meter.peer.say(b"1\n")
    assert client.recv_prompt() == b"! ERROR: Stopped with ^C, no level was sent\r\n* -1\r\n"
    assert meter.sent() == [] and meter.level == "0"


def test_get_tells_the_first_and_stores_all(client, meter):
    meter.level = "12.5"
    assert client.lines("ke2410 get") == client.lines("ke2410 get v") == ["* 12.5"]
    assert client.lines("ke2410 get i") == ["* 0.005"]
    assert client.lines("ke2410 get vl") == ["* 40"]
    assert client.lines("ke2410 get il var 'one'") == ["* 105"] == client.lines("%one")
    meter.sent()
    assert client.lines("ke2410 get vs il i v vl var 'all'") == [
        "# v = 12.5", "# i = 0.005", "# vl = 40", "# il = 105", "# vs = 12.5", "* 12.5"]
    assert meter.sent() == [":READ?", ":SOUR:VOLT:PROT?", ":SENS:CURR:PROT?", ":SOUR:VOLT:LEV?"]
    for name, value in ("v", "12.5"), ("i", "0.005"), ("vl", "40"), ("il", "105"), ("vs", "12.5"):
        assert client.lines(f"%all.{name}") == [f"* {value}"]
    meter.special[":READ?"] = b"1\n"
    assert client.lines("ke2410 get") == [
        "! ERROR: Keithley 2410 answered '1' to ':READ?', which is no reading", "* -1"]


def test_send_and_read_error(client, meter):
    assert client.lines("ke2410 send ':SOUR:VOLT:LEV 5'") == ['* ""']
    assert client.lines("ke2410 send ':SOUR:VOLT:LEV?'") == ['* "5"']
    message = '-113,"Undefined header"'
    for line, sent in ("read-error", [":STAT:QUE?"]), ("read-error clear", [":STAT:QUE?", ":STAT:CLE"]):
        meter.sent()
        assert client.lines("ke2410 " + line) == [f"# KE2410 message:'{message}'", f'* "{message}"']
        assert meter.sent() == sent


def test_debug_shows_what_is_said(client, script):
    meter = Meter(script, "5")
    reply = client.lines(f"ke2410 config debug {meter.peer.where}")
    assert reply[1:3] == ["# Keithley 2410: Sending ':SOUR:VOLT:LEV?'", "# Keithley 2410 :.... Received '5' len 1"]


def test_everything_needs_config_first(client):
    for line in ("send '1'", "set 0", "set 0 i", "set-mode", "set-i-range auto", "set-v-range auto",
                 "set-src-v-limit none", "enable 0", "get v", "read-error", "start-log 'x'"):
        reply = client.lines("ke2410 " + line)
        assert reply[0] == CLOSED and reply[-1] in ("* -1", "* (null)"), line
