"""The Keithleys' loggers: their files, and what commands and loggers want of one line at the same time."""
import re
import time

import pytest
from kestrel_session import wait_until

KE2410_LINE = re.compile(r"\d{10}\t[01]\t\S+\t\S+\t\S+\n")
KE2700_LINE = re.compile(r"\d{10}\t\S+\n")


@pytest.fixture
def bench(play, client):
    program = play()
    assert client.lines(f"ke2410 config {program.line('ke2410')}")[-1] == "* 0"
    assert client.lines(f"ke2700 open {program.tcp('ke2700')}")[-1] == "* 0"
    for name in "ke2410", "ke2700":
        client.cmd(f"{name} send '*IDN?'")  # answered behind all that opening sent
    return program


def logged(path, count):
    return wait_until(lambda: path.exists() and path.read_text().count("\n") >= count and
                      path.read_text().splitlines(keepends=True), f"{count} lines in {path}")


def test_a_line_says_time_state_voltages_and_current(server, client, bench):
    bench.do("ke2410 level 1.5 1")
    assert client.lines("ke2410 start-log 'a.log' period 1 samples 2 xh 'time on V Vs I'") == ["* 0"]
    header, line, *_ = logged(server.cwd / "a.log", 3)
    assert header == "# time on V Vs I\n" and KE2410_LINE.fullmatch(line)
    moment, rest = line.split("\t", 1)
    assert abs(int(moment) - time.time()) < 10 and rest == "1\t1.5\t1.5\t1.5e-10\n"
    bench.do("ke2700 input 0 0.25")
    assert client.lines("ke2700 start-log 'm.log' period 1 samples 3 debug")[-1] == "* 0"
    line = logged(server.cwd / "m.log", 1)[0]
    assert KE2700_LINE.fullmatch(line) and line.endswith("\t0.25\n")
    server.wait_stdout("Keithley Logger: Mean=0.25\r?\n")


@pytest.mark.parametrize("name", ["ke2410", "ke2700"])
def test_starting_stopping_pausing(server, client, bench, name):
    upper = name.upper()
    for line, reply in [("stop-log", f"! ERROR : {upper} logger not running"),
                        ("pause-log", "# WARNING : Logger was not running so cannot pause"),
                        ("continue-log", "# WARNING : Logger was not running so cannot continue")]:
        assert client.lines(f"{name} {line}") == [reply, "* -1"]
    assert client.lines(f"{name} start-log 'x.log' period 1") == ["* 0"]
    assert client.lines(f"{name} start-log 'y.log'") == ["# Warning: Logger already running", "* -1"]
    logged(server.cwd / "x.log", 1)
    assert client.lines(f"{name} pause-log") == ["* 0"]
    count = len(logged(server.cwd / "x.log", 1))
    time.sleep(3.3)
    paused = len(logged(server.cwd / "x.log", 1))
    assert paused <= count + 1, "more than what was being measured came"
    assert client.lines(f"{name} continue-log") == ["* 0"]
    logged(server.cwd / "x.log", paused + 1)
    assert client.lines(f"{name} stop-log") == ["* 0"]
    assert client.lines(f"{name} stop-log")[-1] == "* -1"
    # Adds to the file, without a second header; or empties it. Its end waits for no period.
    count = len(logged(server.cwd / "x.log", 1))
    assert client.lines(f"{name} start-log 'x.log' period 600 xh 'late'") == ["* 0"]
    assert not logged(server.cwd / "x.log", count + 1)[0].startswith("#")
    assert client.lines(f"{name} stop-log") == ["* 0"]
    assert client.lines(f"{name} start-log 'x.log' period 1 truncate xh 'new'") == ["* 0"]
    assert logged(server.cwd / "x.log", 2)[0] == "# new\n"
    assert not (server.cwd / "y.log").exists()


def test_a_long_file_is_moved_aside(server, client, bench):
    path = server.write("r.log", "x" * 101)
    stamp = time.strftime("%Y%m%d%H%M", time.localtime(path.stat().st_mtime))
    server.write(f"r.log.{stamp}", "older")
    assert client.lines("ke2700 start-log 'r.log' period 1 roll max-len 100 xh 'head'") == [
        f"# Note renaming log file r.log to r.log.{stamp}.1", "* 0"]
    assert (server.cwd / f"r.log.{stamp}").read_text() == "older"
    assert (server.cwd / f"r.log.{stamp}.1").read_text() == "x" * 101
    client.cmd("chd '/'")  # the log stays where it is
    server.wait_stdout(r"# Note renaming log file r.log to r.log.\d{12}\S*\r?\n")
    client.cmd("ke2700 stop-log")
    files = [p.read_text() for p in server.cwd.glob("r.log.*") if p.read_text().startswith("#")]
    assert files and all(text.endswith("\n") and len(text) > 100 for text in files)


def test_roll_and_a_length_belong_together(client, bench):
    assert client.lines("ke2700 start-log 'r.log' roll") == ["# Warning: roll and max-len work together only", "* 0"]
    client.cmd("ke2700 stop-log")
    assert client.lines("ke2700 start-log 'r.log' max-len -1 roll") == [
        "! ERROR: Expected a maximum length of 1 or more bytes, not -1", "* -1"]


def test_a_full_disk_is_told_once_and_leaves_whole_lines(server, client, bench, small_disk):
    assert client.lines(f"ke2700 start-log '{small_disk}/x.log' period 1") == ["* 0"]
    logged(small_disk / "x.log", 1)
    filler = small_disk / "filler"
    filler.touch()
    while (small_disk / "x.log").stat().st_size:
        (small_disk / "x.log").write_bytes(b"")  # its page goes to the filler, if no line is written just now
        with open(filler, "ab", buffering=0) as f, pytest.raises(OSError):
            while True:
                f.write(bytes(4096))
    server.wait_stdout("! ERROR: Cannot write to log file .* lines are lost. Errno=28")
    time.sleep(1.5)
    filler.unlink()
    server.wait_stdout("# Note log file .* is written again")
    client.cmd("ke2700 stop-log")
    assert server.stdout.count("lines are lost") == 1
    assert all(KE2700_LINE.fullmatch(line) for line in (small_disk / "x.log").read_text().splitlines(keepends=True))


def test_a_logger_ends_with_its_connection(server, client, bench):
    for name in "ke2410", "ke2700":
        assert client.lines(f"{name} start-log '{name}.log' period 1") == ["* 0"]
        bench.do(f"wire vanish '{name}'")
        server.wait_stdout(f"# Note {name.upper()} logger ends with its connection")
        assert client.lines(f"{name} stop-log") == [f"! ERROR : {name.upper()} logger not running", "* -1"]
        bench.do(f"wire return '{name}'")
        opening = "config" if name == "ke2410" else "open"
        assert client.lines(f"{name} {opening} {bench.tcp(name)}")[-1] == "* 0"
        assert client.lines(f"{name} start-log '{name}.log' period 1") == ["* 0"]


def test_a_failure_is_told_once_until_it_is_over(server, client, bench):
    bench.do("wire fault 'ke2410' garbage times 4 on 'READ?'")
    client.cmd("ke2410 start-log 'x.log' period 1")
    logged(server.cwd / "x.log", 1)
    assert server.stdout.count("which is no reading") == 1


def test_each_answer_goes_to_its_asker(server, client, script):
    """Ten thousand commands while a logger measures as often as it can; every answer has the asker's number."""
    def answer(line):
        if line == b":READ?":
            return b"7,7e-9,0\n"
        if line.startswith(b"Q"):
            return line[1:-1] + b"\n"
        return {b":OUTP:STAT?": b"1\n", b":SOUR:VOLT:LEV?": b"2\n"}.get(line, b"")

    peer = script(answer)
    assert client.lines(f"ke2410 config {peer.where}")[-1] == "* 0"
    assert client.lines("ke2410 start-log 'x.log' period 1 samples 49") == ["* 0"]
    for number in range(10000):
        assert client.lines(f"ke2410 send 'Q{number}?'") == [f'* "{number}"']
    # Samples and commands came in between one another, a measurement's own never.
    lines = logged(server.cwd / "x.log", 2)
    assert all(line.endswith("\t1\t7\t2\t7e-09\n") for line in lines)
    sent = peer.take()
    reads = [i for i, line in enumerate(sent) if line == b":READ?\n"]
    assert len(reads) >= 98 and reads[48] - reads[0] == 48 and sent[reads[48] + 1] == b":OUTP:STAT?\n"
    assert sum(line.startswith(b"Q") for line in sent) == 10000


def test_a_command_waits_for_a_measurement_and_an_interrupt_ends_that(server, client, bench):
    def wait_for_the_logger():
        bench.seen("ke2700")
        wait_until(lambda: bench.heard("ke2700")[-2:] == ["SAMP:COUN 30\\n", "READ?\\n"], "measurement of six seconds")

    bench.do("ke2700 input 0 1.0 seconds 0.2")
    bench.do("wire forget 'ke2700'")
    client.cmd("ke2700 start-log 'x.log' period 1 samples 30")
    wait_for_the_logger()
    began = time.monotonic()
    assert client.lines("ke2700 measure")[-1] == "* 0" and time.monotonic() - began > 2
    wait_for_the_logger()
    client.send("ke2700 measure\n")
    server.wait_until_busy()
    server.interrupt()
    assert b"! ERROR: Stopped with ^C while the logger was measuring\r\n" in client.recv_prompt()
