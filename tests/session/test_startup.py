"""The process: options, banners, usages, start-up files, environment, logs."""
import errno
import os
import re
import socket

import pytest
from kestrel_session import KESTREL, Process, free_port, wait_until

DASHES = "-" * 70
QUIT_HINT = "Use ^C to quit scripts, wait etc, ^\\ to really quit the server\n"


def run(start, *options, **how):
    """A run that ends by itself: (status, standard output, standard error)."""
    process = start(*options, kind=Process, **how)
    status = process.wait_exit()
    return status, process.stdout, process.stderr


def test_server_option_prints_what_the_server_understands(start):
    status, out, err = run(start, "-server?")
    assert (status, out) == (1, "")
    credit, _, rest = err.partition("\n")
    assert credit and rest == (
        "The following arguments are understood by the server directly, and not passed\n"
        "to the main program:\n"
        "  -port[=<nn>]      Start up in server mode on port nn (default: 1972)\n"
        "  -startup[=<name>] Execute given start-up file (default: .kestrel.inc)\n"
        "  -log[=<name>]     Log commands to stdout or to the given file\n"
        "  -vlog[=<name>]    Verbose Log commands to stdout or to the given file\n"
        "  -detach           Detach from the terminal (only in server mode)\n"
        "  -listen=<address> Take sessions at this address only\n"
        "  -allow=<networks> Take sessions from these networks only\n"
        "  -control=<path>   Put the control socket there\n"
        "  -control-group=<name> Let this group use the control socket, too\n")


@pytest.mark.parametrize("options", [["-what"], ["file"], ["-log", "-portal"], ["-Port"], ["-detached"], [""],
                                     ["-port=0", "-server"]])
def test_an_unknown_argument_ends_in_the_usage(start, options):
    status, _, err = run(start, *options)
    credit, _, rest = err.partition("\n")
    assert status == 1 and credit
    assert rest == (f"Usage:\n\t{KESTREL} [-options]\nOptions:\n"
                    "\t-server?   Print usage of command arguments understood by server.\n")


def test_network_banner(server):
    banner = server.stdout[server.stdout.index(DASHES):]  # what the configuration had to say comes first
    assert re.fullmatch(f"{DASHES}\n{re.escape(KESTREL)}[^\n]*\n(?:[^\n]+\n)?"
                        rf"Listening for connections on port {server.port}\.\n" + re.escape(QUIT_HINT), banner)


def test_a_port_in_use_is_explained(start):
    with socket.socket() as other:
        other.bind(("", 0))
        other.listen(1)
        status, _, err = run(start, f"-port={other.getsockname()[1]}")
    assert status == errno.EADDRINUSE
    assert err == ("Can't bind socket.\n"
                   "Either another process is using this port already, or else you must wait\n"
                   "a short while for Linux's Internet library to time-out and allow further binds.\n")


def test_a_port_left_by_closed_sessions_is_free_at_once(start):
    first = start()
    first.client().cmd("7")
    first.close()
    assert start(port=first.port).client().cmd("7") == b"* 7\r\n"


def test_detach_lets_go_of_the_terminal_and_serves(start):
    server = start("-detach")
    wait_until(lambda: socket.socket().connect_ex(("127.0.0.1", server.port)) == 0, "listening port")
    assert server.client().lines("system 'readlink /proc/$PPID/fd/1'") == ["# /dev/null", "* 0"]
    assert "Listening" not in server.stdout and server.stderr == ""


def test_detach_without_a_port_has_no_effect(start):
    status, out, _ = run(start, "-detach")
    assert status == 0 and "Directly connected to the terminal.\n" in out


STARTUP = "set-int 'n' 5\necho 'up'\ninput 'name? ' 'v'\n"


@pytest.mark.parametrize("option, name", [("-startup", ".kestrel.inc"), ("-startup=my.cmd", "my.cmd")])
def test_a_start_up_file_runs_before_the_first_session(start, option, name):
    server = start(option, prepare=lambda cwd: (cwd / name).write_text(STARTUP))
    client = server.client()
    assert client.cmd("%n") == b"* 5\r\n"
    assert f"Executing initialization commands from {name}\n" in server.stdout
    assert "up\r\n" in server.stdout
    assert client.lines("status")[1].startswith("#\t0\tOpen\t")  # its slot is free again


def test_without_the_option_no_start_up_file_runs(start):
    server = start(prepare=lambda cwd: (cwd / ".kestrel.inc").write_text(STARTUP))
    assert "! Undefined Variable 'n'" in server.client().lines("echo %n")
    assert "Executing" not in server.stdout


def test_a_missing_start_up_file_is_passed_over(start):
    server = start("-startup=none.cmd")
    assert server.client().cmd("7") == b"* 7\r\n"
    assert "Executing" not in server.stdout


def test_a_start_up_file_may_end_the_server(start):
    server = start("-startup", f"-port={free_port()}", kind=Process,
                   prepare=lambda cwd: (cwd / ".kestrel.inc").write_text("echo 'up'\nshutdown\n"))
    assert server.wait_exit() == 0
    assert "up\r\n" in server.stdout


@pytest.mark.parametrize("given, seen", [("/data", "/data/"), ("/data/", "/data/"), ("c:\\", "c:\\"), ("x", "x/")])
def test_the_data_folder_becomes_two_variables(start, given, seen):
    client = start(env={"DATA_DIR": given}).client()
    assert client.lines("%DATA_DIR") == [f'* "{seen}"']
    assert client.lines("echo %data_dir") == [seen, "* 0"]


def test_an_empty_data_folder_is_none(start):
    client = start(env={"DATA_DIR": ""}).client()
    assert "! Undefined Variable 'DATA_DIR'" in client.lines("echo %DATA_DIR")


# ---------------------------------------------------------------- logs

LOGGED = [  # (line, reply, command log, what the verbose log has between the line and the next one)
    ("set-int 'n' 5", "* 0\r\n", "=> 0", "1:Ret => 0\n"),
    ("radix 16", "* $0\r\n", "=> $0", "1:Ret => $0\n"),
    ("255", "* $ff\r\n", "=> $ff", "1:Ret => $ff\n"),
    ("radix 2", f"* #{0:032b}\r\n", f"=> #{0:032b}", f"1:Ret => #{0:032b}\n"),
    ("radix 10", "* 0\r\n", "=> 0", "1:Ret => 0\n"),
    ("echo 'hi'", "hi\r\n* 0\r\n", "=> 0", "1:Print:hi\n"),
    ("eval string 'a' 'b'", '* "ab"\r\n', '=> "ab"', '1:Ret => "ab"\n'),
    ("printf '%n' 1", "! Conversion '%n' is not supported\r\n* (null)\r\n", "* (null)", "1:Ret * (null)\n"),
    ("1.5", "* 1.5\r\n", "=> 1.5", "1:Ret => 1.5"),
    ("debug on", "", "", ""),
    ("", "", "", ""),
]


@pytest.mark.parametrize("to_file", [True, False])
def test_the_logs_hold_what_was_typed_and_answered(start, to_file):
    server = start("-log=c.log" if to_file else "-log", "-vlog=v.log",
                   prepare=lambda cwd: (cwd / "c.log").write_text("old\n"))
    server.client()
    client = server.client()
    for line, reply, _, _ in LOGGED:
        assert client.cmd(line) == reply.encode()
    log = (server.cwd / "c.log").read_text() if to_file else server.stdout
    wanted = "".join(f"1: {line} {result}\n" for line, _, result, _ in LOGGED)
    assert log == wanted if to_file else wanted in log
    log = (server.cwd / "v.log").read_text()
    assert re.search(r"1:Ret => 1\.51:( debug on\n|Print:)", log), "a double's entry has no line end"
    for line, _, _, entry in LOGGED:
        start_of_line = log.find(f"1: {line}\n")
        assert start_of_line >= 0, line
        log = log[start_of_line:]
        assert entry in log, (line, log)
    assert server.stderr == ""


def test_both_logs_on_standard_output_leave_the_verbose_one(start):
    server = start("-log", "-vlog")
    server.client().cmd("echo 'hi'")
    assert server.stderr == "Cannot log anbd verbose log to same file, so doing verbose log\n"
    assert "0:Print:hi\n" in server.stdout
    assert "0: echo 'hi' " not in server.stdout


def test_the_last_of_two_files_for_one_log_holds_and_the_others_are_closed(start):
    server = start("-log=a.log", "-vlog=v.log", "-log=b.log", "-vlog=w.log", "-log=c.log")
    server.client().cmd("echo 'hi'")
    assert [(server.cwd / f"{n}.log").read_text() for n in "abv"] == ["", "", ""]
    assert (server.cwd / "c.log").read_text() == "0: echo 'hi' => 0\n"
    open_files = [os.readlink(f"/proc/{server.process.pid}/fd/{fd}") for fd in os.listdir(f"/proc/{server.process.pid}/fd")]
    assert sorted(os.path.basename(name) for name in open_files if name.endswith(".log")) == ["c.log", "w.log"]


def test_a_pipe_that_nobody_reads_does_not_hold_up_the_start(start):
    def pipes(cwd):
        os.mkfifo(cwd / "pipe")
        os.mkfifo(cwd / "kestrel.clients.ini")
    for option in "-log", "-vlog":
        status, _, err = run(start, f"{option}=pipe", prepare=pipes)
        assert (status, err) == (1, "Cannot open log file 'pipe': No such device or address\n")
    assert "Sub-server configuration file not in:\n" in start(prepare=pipes).stdout


@pytest.mark.parametrize("option, log", [("-log", "command log"), ("-vlog", "verbose log")])
def test_a_log_on_a_full_disk_is_told_once(start, option, log):
    server = start(f"{option}=/dev/full")
    client = server.client()
    lost = f"Cannot write the {log}, what happens is not logged: No space left on device"
    assert client.lines("1+1") == ["! " + lost, "* 2"]
    assert client.lines("1+2") == ["* 3"]
    assert server.client().lines("echo 'hi'") == ["hi", "* 0"]
    assert server.stderr == f"server: Cannot write the {log}: No space left on device\n"


def test_a_log_is_told_again_after_it_could_be_written(start, small_disk):
    server = start(f"-log={small_disk}/c.log")
    client = server.client()
    line = "rem '" + 1000 * "x" + "'"

    def fill():
        room = os.statvfs(small_disk)
        (small_disk / "fill").write_bytes(bytes(room.f_bavail * room.f_frsize))
        replies = [client.lines(line) for _ in range(11)]  # more than the log's last page holds, and who tells it
        assert sorted(map(len, replies)) == 10 * [1] + [2], replies

    for again in range(1, 7):
        fill()
        os.unlink(small_disk / "fill")
        assert client.lines("1+1") == ["* 2"]
        assert (small_disk / "c.log").read_text().count("0: 1+1 => 2\n") == again


@pytest.mark.parametrize("line", ["rem password 'sesame'", 'rem PASSWORD  "sesame"', "rem 'x' password 'sesame' 5"])
def test_a_password_shows_in_no_log_and_no_echo(start, line):
    server = start("-log=c.log", "-vlog=v.log")
    server.write("s.cmd", [line])
    client = server.client()
    client.cmd(line)
    shown = client.cmd("include 's.cmd' echo no-exit-error")
    assert b"rem" in shown and b"sesame" not in shown
    for name in "c.log", "v.log":
        text = (server.cwd / name).read_text()
        assert "rem" in text and "sesame" not in text
