"""Direct mode: the server on its terminal, and behind a pipe."""
import os
import signal
import subprocess
import time

import pytest
from kestrel_session import KESTREL, Process, Terminal, living_members, wait_until

BANNER = ("-" * 70 + "\n", "Directly connected to the terminal.\n",
          "Use ^C to quit scripts, wait etc, ^\\ to really quit the server\n")


@pytest.fixture
def terminal(start):
    terminal = start(kind=Terminal)
    terminal.recv_until("really quit the server")
    terminal.recv_until("> ")
    terminal.wait_editing()
    return terminal


def piped(start, text, *options, **how):
    """Runs with the text on standard input; what came on standard output, CR LF as the server sent it."""
    read, write = os.pipe()
    process = start(*options, kind=Process, stdin=read, **how)
    os.close(read)
    try:
        os.write(write, text.encode())
    except BrokenPipeError:  # it may have ended without reading
        pass
    os.close(write)
    assert process.wait_exit() == 0
    return process.stdout


def test_the_banner_and_the_end_of_a_pipe(start):
    out = piped(start, "")
    place = out.index(BANNER[0] + KESTREL)
    for text in BANNER:
        place = out.index(text, place) + len(text)


def test_commands_from_a_pipe(start):
    out = piped(start, "eval int 1 2 add\necho 'hi'\n\nnonsense\necho 'last'")
    assert "* 3\r\n" in out and "hi\r\n* 0\r\n" in out and "! Unexpected identifier, or non-existent command\r\n" in out
    assert "last\r\n* 0\r\n" in out


def test_quit_and_shutdown_end_the_server(start):
    for command in "quit", "shutdown":
        out = piped(start, f"echo 'a'\n{command}\necho 'never'\n")
        assert "a\r\n" in out and "never\r\n" not in out


def test_a_script_goes_on_to_its_end_as_its_input_ends_or_the_server_stops(start):
    for command in "quit", "shutdown":
        out = piped(start, "~s\necho 'never'\n",
                    prepare=lambda cwd: (cwd / "s.cmd").write_text(f"{command}\necho 'the rest'\n"))
        assert "the rest\r\n" in out and "never" not in out
    piped(start, "~s\n", prepare=lambda cwd: (cwd / "s.cmd").write_text("do\ninput 'more? ' 'v'\nwhile 1\n"))


def test_the_logs_stay_empty(start):
    process = start("-log=c.log", "-vlog=v.log", kind=Process)
    assert process.wait_exit() == 0
    assert (process.cwd / "c.log").read_text() == ""


def test_status_knows_no_network(start):
    assert "# Not connected to the network.\r\n* 0\r\n" in piped(start, "status\n")


def test_a_start_up_file_runs_first(start):
    out = piped(start, "echo %n\n", "-startup=s.cmd",
                prepare=lambda cwd: (cwd / "s.cmd").write_text("set-string 'n' 'five'\n"))
    assert out.index("Executing initialization commands from s.cmd\n") < out.index("five\r\n")
    out = piped(start, "echo 'never'\n", "-startup=s.cmd",
                prepare=lambda cwd: (cwd / "s.cmd").write_text("shutdown\n"))
    assert "never\r\n" not in out


def test_input_reads_the_next_line_of_a_pipe(start):
    assert "me\r\n* 0\r\n" in piped(start, "input 'name? ' 'v'\nme\necho %v\n")
    piped(start, "input 'name? ' 'v'\n")  # ends with its input


def test_the_terminal_s_width_and_socket_state_matter_to_no_command(start):
    out = piped(start, "radix 16\n255\nport 1234\nradix 10\n")
    assert "* $ff\r\n* $0\r\n* 0\r\n" in out.replace("> ", "")


def test_a_terminal_session(terminal):
    terminal.send("eval int 1 2 add\n")
    terminal.recv_match(rb"\* 3\r+\n")
    terminal.send("quit\n")
    terminal.expect_closed()
    assert terminal.wait_exit() == 0


def test_editing_and_history(terminal):
    terminal.send("eval int 13\x02" + "2\n")  # ^B
    terminal.recv_match(rb"\* 123\r+\n")
    terminal.send("\x10\n")  # ^P
    terminal.recv_match(rb"\* 123\r+\n")


def test_tab_completes_through_the_tree(terminal):
    terminal.send("eval q\t 'x'\n")
    terminal.recv_match(rb'\* "x"\r+\n')
    terminal.send("ret\t")  # retrieve-tree, return
    terminal.send("\t")
    terminal.recv_match(rb"retrieve-tree\s+return")


def test_control_c_ends_a_script_not_the_server(terminal):
    terminal.write("loop.cmd", ["echo 'go'", "do", "while 1"])
    terminal.send("~loop\n")
    terminal.recv_match(rb"go\r+\n")
    terminal.send("\x03")
    terminal.recv_match(rb"! Include file aborted with \^C\r+\n")
    terminal.send("7\n")
    terminal.recv_match(rb"\* 7\r+\n")


def test_a_command_of_the_system_has_the_terminal(terminal):
    started = terminal.cwd / "started"
    terminal.write("s.cmd", ["system 'echo $$ > started; sleep 600; sleep 600'", "echo 'never'"])
    terminal.send("~s\n")
    wait_until(lambda: started.exists() and started.read_text().endswith("\n"), "start of the command")
    # A shell that is interrupted just before its child exists waits for that child.
    wait_until(lambda: "sleep" in living_members(int(started.read_text())), "child of the command")
    terminal.send("\x03")
    terminal.recv_match(rb"! Include file aborted with \^C\r+\n")
    terminal.send("system 'read x < /dev/tty; echo got $x'\n")
    wait_until(lambda: os.tcgetpgrp(terminal.master) != os.getpgid(terminal.process.pid), "loan of the terminal")
    terminal.send("this\n")
    terminal.recv_match(rb"# got this\r+\n")
    terminal.write("s.cmd", ["s='0123456789abcdef'", "for 'i' 1 14", "s=%s+%s", "next", "system %s"])
    terminal.send("~s\n")
    terminal.recv_match(rb"! Cannot start a shell: Argument list too long\r+\n")
    terminal.send("system 'kill -STOP $$; echo on'\n")
    terminal.recv_match(rb"# on\r+\n")


def test_control_backslash_really_ends_the_server(start):
    process = start(kind=Process, stdin=subprocess.PIPE)
    process.wait_stdout("really quit")
    process.process.send_signal(signal.SIGQUIT)
    assert process.wait_exit() == -signal.SIGQUIT
    process.process.returncode = 0  # as wanted: no crash


def test_a_signal_at_the_prompt_ends_the_server_alone(start, tmp_path):
    """The line editor passes signals on to the whole process group."""
    beside = tmp_path / "beside"
    beside.write_text(f"#!/bin/sh\n(trap '' HUP; echo $$ > {tmp_path}/x; exec sleep 600) >/dev/null 2>&1 &\n"
                      f"echo $! > {tmp_path}/pid\nexec {KESTREL}\n")
    beside.chmod(0o755)
    terminal = start(kind=Terminal, program=str(beside))
    terminal.wait_editing()
    other = int((tmp_path / "pid").read_text())
    wait_until((tmp_path / "x").exists, "start of the other process")
    terminal.process.send_signal(signal.SIGTERM)
    assert terminal.wait_exit() == -signal.SIGTERM
    terminal.process.returncode = 0  # as wanted: no crash
    time.sleep(0.05)
    assert living_members(os.getpgid(other))
    os.kill(other, signal.SIGKILL)


def test_end_of_file_ends_the_server(terminal):
    terminal.send("\x04")
    terminal.expect_closed()
    assert terminal.wait_exit() == 0
