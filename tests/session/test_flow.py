"""Loops, conditions, waits."""
import time

import pytest

I = "echo (string)i"


@pytest.mark.parametrize("head, seen", [
    ("for 'i' 1 3", "123"), ("for 'i' 3 1", "321"), ("for 'i' 1 1", "1"), ("for 'i' 1 9 4", "159"),
    ("for 'i' 1 8 4", "15"), ("for 'i' 9 1 -4", "951"), ("for 'i' 3 1 1", "3"), ("for 'i' 1 3 -1", "1"),
    ("for 'i' 1 3 global", "123"), ("for 'i' 1 3 1 local", "123"), ("FOR 'i' 1+1 2*2", "234"),
    ("for-each 'i' 'a' 'b' 'c'", "abc"), ("for-each 'i' 'a'", "a"), ("for-each 'i' 'x' 'x' global", "xx"),
    ("for-each 'i' " + " ".join("'z'" for _ in range(40)), 40 * "z"),
])
def test_for_loops(server, client, head, seen):
    server.write("s.cmd", [head, "echo %i" if "each" in head else I, "next", "echo 'done'"])
    assert client.lines("~s") == [*seen, "done", "* 0"]


def test_the_loop_variable_is_local_unless_global(server, client):
    server.write("s.cmd", ["for 'i' 1 2", "next", "for-each 'k' 'a'", "next"])
    assert client.lines("~s") == ["* 0"]
    assert client.errors("%i") == ["! Undefined Variable 'i'", "* -1"]
    server.write("s.cmd", ["for 'i' 1 2 global", "next", "for-each 'k' 'a' 'b' global", "next"])
    assert client.lines("~s") == ["* 0"]
    assert client.lines("%i") == ["* 3"]
    assert client.lines("%k") == ['* "b"']


def test_a_body_may_change_the_loop_variable(server, client):
    server.write("s.cmd", ["for 'i' 1 10", I, "i=%i*2", "next"])
    assert client.lines("~s") == ["1", "3", "7", "* 0"]
    for other in "i=2.5", "i='s'", "set-double 'i' 2.5 local", "set-qualifier 'i' 'q' local":
        server.write("s.cmd", ["for 'i' 1 3", I, other, "next"])
        assert client.lines("~s") == ["1", "2", "3", "* 0"], other  # from the loop's own count


def test_do_loops(server, client):
    server.write("s.cmd", ["set-int 'n' 0 local", "do", "n=n+1", "echo (string)n", "while %n<3", "echo 'done'"])
    assert client.lines("~s") == ["1", "2", "3", "done", "* 0"]
    server.write("s.cmd", ["do", "echo 'once'", "while 0"])
    assert client.lines("~s") == ["once", "* 0"]


def test_loops_in_loops(server, client):
    server.write("s.cmd", ["for 'i' 1 2", "for-each 'k' 'a' 'b'", "n=0", "do", "n=n+1",
                           "echo (string)i+k+(string)n", "while %n<2", "next", "next"])
    assert client.lines("~s") == [f"{i}{k}{n}" for i in "12" for k in "ab" for n in "12"] + ["* 0"]


def test_loops_over_scripts(server, client):
    server.write("inner.cmd", ["for 'i' 1 2", "echo %1+(string)i", "next"])
    server.write("outer.cmd", ["for-each 'k' 'a' 'b'", "include 'inner.cmd' %k", "next"])
    assert client.lines("~outer") == ["a1", "a2", "b1", "b2", "* 0"]


def test_a_condition_in_a_loop(server, client):
    server.write("s.cmd", ["for 'i' 1 5", "if %i&1 \"echo (string)i\"", "if %i==4 'return 9'", "next"])
    assert client.lines("~s")[:-1] == ["1", "3", "# Note tidying incomplete loop type 0"]


@pytest.mark.parametrize("line, replies", [
    ("for 'i' 1 3", ["! Not include file, Cannot lsek", "! Cannot seek on input path"]),
    ("for-each 'i' 'a'", ["! Not include file, Cannot lsek", "! Cannot seek on input path", "* -1"]),
    ("do", ["! Not include file, Cannot lsek", "! Cannot seek on input path", "* -1"]),
    ("next", ["! Loop stack is empty, next without for error"]),
    ("while 1", ["! Loop stack is empty, while without do error", "* -1"]),
])
def test_loops_are_for_scripts(shared, line, replies):
    assert shared.lines(line) == replies


@pytest.mark.parametrize("body, error", [
    (["next"], "! Loop stack is empty, next without for error"),
    (["while 0"], "! Loop stack is empty, while without do error"),
    (["do", "next"], "! Unexpected loop type 2 at next command"),
    (["for 'i' 1 2", "while 1"], "! Unexpected loop type 0 at next command"),
    (["for-each 'i' 'a'", "while 1"], "! Unexpected loop type 1 at next command"),
])
def test_loops_that_do_not_match(server, client, body, error):
    server.write("s.cmd", [*body, "echo 'on'"])
    lines = client.lines("~s")
    assert lines[0] == error
    assert "while" not in body[-1] or "on" not in lines  # `next` has no result that could stop the script
    assert client.lines("7") == ["* 7"]


@pytest.mark.parametrize("head, kind", [("for 'i' 1 3", 0), ("for-each 'i' 'a' 'b'", 1), ("do", 2)])
def test_loops_left_open_are_tidied(server, client, head, kind):
    server.write("s.cmd", [head, "echo 'in'"])
    assert client.lines("~s") == ["in", f"# Note tidying incomplete loop type {kind}", "* 0"]
    assert client.lines("~s") == ["in", f"# Note tidying incomplete loop type {kind}", "* 0"]


def test_a_loop_of_another_file_is_out_of_reach(server, client):
    for end in "next", "while 1":
        server.write("inner.cmd", [end])
        server.write("outer.cmd", ["for 'i' 1 2" if end == "next" else "do", "~inner", "echo 'on'"])
        lines = client.lines("include 'outer.cmd' no-exit-error")
        assert lines[0].startswith("! ") and lines.count("on") == 1


def test_twenty_nine_loops_may_be_open(server, client):
    def script(depth):
        return [f"for 'i{n}' 1 1" for n in range(depth)] + ["echo 'inside'"] + ["next"] * depth
    server.write("s.cmd", script(29))
    assert client.lines("~s") == ["inside", "* 0"]
    server.write("s.cmd", script(30))
    assert client.lines("~s")[0] == "! Loop stack Full"
    server.write("s.cmd", script(29))
    assert client.lines("~s") == ["inside", "* 0"]


@pytest.mark.parametrize("line, reply", [
    ("if 1 \"echo 'yes'\"", ["yes", "* 0"]), ("if 0 \"echo 'yes'\"", ["* 0"]), ("if 5 'eval int 7'", ["* 7"]),
    ("if -1 'eval int 7'", ["* 7"]), ("if 0 'nonsense'", ["* 0"]), ("if 1 '7'", ["* 0"]), ("if 1 '-1'", ["* 0"]),
    ("if 1 ''", ["* 0"]), ("if 2>1 'chd \"/none\"'", ["* -1"]), ("if 1 \"eval string 'a'\"", ["* 0"]),
])
def test_if(shared, line, reply):
    assert shared.lines(line) == reply


def test_if_runs_macros_and_scripts(server, client):
    client.cmd("macro 'm' \"echo 'macro'\"")
    server.write("s.cmd", ["echo 'script'", "return 5"])
    assert client.lines("if 1 '@m'") == ["macro", "* 0"]
    assert client.lines("if 1 '~s'") == ["script", "* 5"]


def test_if_of_a_bad_line_fails(shared):
    errors = shared.errors("if 1 'nonsense'")
    assert errors[0] == "! Unexpected identifier, or non-existent command" and errors[-1] == "* -1"


@pytest.mark.parametrize("line", ["if 1 %s", "set-func 'v' %s"])
def test_a_line_that_runs_itself_is_bounded(client, line):
    client.cmd(f'set-string "s" "{line}"')
    lines = client.lines(line)
    assert lines[-1] == "* -1" and "! Commands nested deeper than 100 levels" in lines
    assert client.lines("7") == ["* 7"]


@pytest.mark.parametrize("seconds, least", [("0.25", 0.25), ("1/4.0", 0.25), ("0", 0), ("-1", 0), ("0.05 quiet", 0.05)])
def test_sleep(shared, seconds, least):
    begun = time.monotonic()
    assert shared.lines("sleep " + seconds)[-1] in ("* 0", "* -1" if seconds == "-1" else "* 0")
    assert time.monotonic() - begun >= least


def test_sleep_takes_whole_numbers(shared):
    begun = time.monotonic()
    assert shared.lines("sleep 1 quiet") == ["* 0"]
    assert 1 <= time.monotonic() - begun < 5


def test_what_came_before_a_sleep_is_seen_at_once(server, client):
    server.write("s.cmd", ["echo 'before'", "sleep 5", "echo 'after'"])
    begun = time.monotonic()
    client.send("~s\n")
    client.recv_until("before\r\n")
    assert time.monotonic() - begun < 4
    assert client.recv_prompt() == b"after\r\n* 0\r\n"
