"""The general commands: folders, the operating system, echo, printf, passwords, debug, help, files."""
import re

import pytest

HELP = r"""# Help notes:
# 1. Strings. All strings need to be quoted with either " or ' characters.
# 2. Integers. These may be specified in binary, decimal or hex format, eg.
#      #11110000  240  $F0
# Arguments to commands can now be full expressions with no SPACES
# The following functions are supported on integer and double types:
# \t*, / ; +, - ; <, >, <=, >= ; ==, != ; ?
# The following Binary funtions are supported on ints:
# \t& ; ^ ; |
# And the Logical Functions (Deal with 0 and !=0)
# \t&& ; ||
# String Functions\tare provided
# \t+ Concatenate,
# \t==, !=\tComparision
# Variables can be set using
# \tvarname=expr
# Type conversion is supported using the casts
# \t(int) , (double) and (string)
# Conversion to/from strings use "1234" <-> 1234\t(Not ASCII codes)
# \tVaraiables can be used in expresions optionally preceeded by a %, unless
# \tat begining of an expression.
# To get help within a command at any point, type the partial command followed
# by a space and a '?'.""".replace(r"\t", "\t").split("\n")


def test_help_notes(shared):
    assert shared.lines("help") == HELP + ["* 0"]


@pytest.mark.parametrize("line, reply", [
    ("echo 'hi'", ["hi", "* 0"]), ("echo ''", ["", "* 0"]), ("echo '%d %s %n'", ["%d %s %n", "* 0"]),
    ("rem", ["* 0"]), ("rem 'anything'", ["* 0"]),
    ("chx '/tmp'", ["! chx has no meaning on linux", "* -1"]),
    ("port 1234", ["* 0"]),
    ("enc-password 'secret'", ['* "c2VjcmV0"']), ("enc-password ''", ['* ""']), ("enc-password 'a'", ['* "YQ=="']),
    ("enc-password 'ab'", ['* "YWI="']), ("enc-password '%s'" % ("x" * 48), ['* "%s"' % ("eHh4" * 16)]),
    ("enc-password '%s'" % ("x" * 49), ["ERROR : Cannot code password", "* (null)"]),
    ("enc-password '%s'" % ("x" * 900), ["ERROR : Cannot code password", "* (null)"]),
    ("chd '/no/such/folder'", ["* -1"]), ("cd ''", ["* -1"]),
])
def test_replies(shared, line, reply):
    assert shared.lines(line) == reply


def test_a_long_text_is_cut_but_its_line_ends(client):
    client.cmd(f"a='{'x' * 900}'")
    reply = client.cmd("echo %a+%a")
    assert re.fullmatch(rb"x{1100,1800}\r\n\* 0\r\n", reply), len(reply)
    assert client.lines("7") == ["* 7"]


def test_debug_is_kept(client):
    for line, reply in [("debug", ["# Debugging is currently off."]), ("debug on", []),
                        ("debug", ["# Debugging is currently on."]),
                        ("debug on off", ["! Debugging cannot be both on and off."]),
                        ("debug", ["# Debugging is currently on."]), ("debug off", []),
                        ("debug", ["# Debugging is currently off."]),
                        ("port 0", ["! Port should be 1..65535 not 0", "* -1"]),
                        ("port 65536", ["! Port should be 1..65535 not 65536", "* -1"])]:
        assert client.lines(line) == reply, line


def test_folders_are_the_whole_server_s(server):
    first, second = server.client(), server.client()
    server.write("sub/file", "")
    assert first.lines("chd 'sub'") == ["* 0"]
    assert second.lines("ls") == ["# file", "* 0"]
    assert second.lines("cd '..'") == ["* 0"]
    assert first.lines("ls") == ["# sub", "* 0"]


def test_listings(server, client):
    server.write("sub/file", "12345")
    assert client.lines("ls 'sub'") == ["# file", "* 0"]
    lines = client.lines("dir 'sub'")
    assert lines[0].startswith("# total ") and lines[1].startswith("# -rw") and lines[1].endswith(" file")
    assert client.lines("dir")[-1] == "* 0"
    lines = client.lines("ls '/no/such/folder'")
    assert lines[0].startswith("# ls: ") and lines[1:] == ["* 2"]
    assert client.lines("ls '-a sub'")[1:] == ["# ..", "# file", "* 0"]


@pytest.mark.parametrize("command, reply", [
    ("echo hi", ["# hi", "* 0"]), ("true", ["* 0"]), ("false", ["* 1"]), ('sh -c "exit 3"', ["* 3"]),
    ("kill -TERM $$", ["* 143"]),
    ('sh -c "echo out; echo err 1>&2"', ["# out", "# err", "* 0"]), ('printf "a\\n\\nb\\n"', ["# a", "# ", "# b", "* 0"]),
    ("seq 500", [f"# {n}" for n in range(1, 501)] + ["* 0"]),
    ('head -c 2000 /dev/zero | tr "\\0" x', None), ("printf a", None), ("no-such-program", None),
    ('printf "%%s\\n" "100%% \\$x"', None), ("cat", ["* 0"]),
])
def test_system(shared, command, reply):
    if reply is not None:
        assert shared.lines(f"system '{command}'") == reply
        return
    shared.send(f"system '{command}'\neval int 7\n")
    text = shared.recv_until("* 7\r\n> ").decode()
    assert re.fullmatch(r"# [^\r\n]+(\r\n)?\* \d+\r\n> \* 7\r\n> ", text), text


def test_system_leaves_no_file_behind(server, client):
    server.write(".fork_temp", "old")
    assert client.lines("system 'true'") == ["* 0"]
    assert list(server.cwd.iterdir()) == []


# ---------------------------------------------------------------- printf

@pytest.mark.parametrize("arguments, reply", [
    ("'%d-%d' 1 2 direct", ["# 1-2", '* "1-2"']), ("'%d-%d' 1 2", ['* "1-2"']), ("'plain'", ['* "plain"']),
    ("''", ['* ""']), ("'100%%'", ['* "100%"']), ("'%5.2f|%-5d|%05d' 3.14159 42 42", ['* " 3.14|42   |00042"']),
    ("'%x %X %o %u %i %c' 255 255 8 7 9 65", ['* "ff FF 10 7 9 A"']), ("'%e' 12345.678", ['* "1.234568e+04"']),
    ("'%g' 3", ['* "3"']), ("'%d' 3.9", ['* "3"']), ("'%+d % d' 5 5", ['* "+5  5"']), ("'%#x' 255", ['* "0xff"']),
    ("'[%s] [%5s] [%-5s] [%.2s]' 'a' 'b' 'c' 'defg'", ['* "[a] [    b] [c    ] [de]"']),
    ("'%s|%.1s' 'ab' 'ab'", ['* "ab|a"']), ("'%d %ld' 7 8 9", ['* "7 8"']),  # a value more than it takes
    ("'%d' 1<<31", ['* "-2147483648"']), (r"'a\n%d' 1", [r'* "a\n1"']), ("'%f' 1.0/0", ['* "inf"']),
])
def test_printf(shared, arguments, reply):
    assert shared.lines("printf " + arguments) == reply


@pytest.mark.parametrize("arguments", ["'%s' 5", "'%d' 'x'", "'%g' 'x'", "'%n' 5", "'%*d' 5 5", "'%d'", "'%d %d' 1", "'%'",
                                       "'%k' 5", "'%5'", "'%.*f' 2 2.5", "'%s'", "'%hhn' 1", "'%p' 1", "'%1234d' 1",
                                       "'%.1234f' 1", "'%d' 3e9", "'%1$d' 1", "'%lld' 1"])
def test_printf_is_checked_against_its_values(shared, arguments):
    lines = shared.lines("printf " + arguments)
    if arguments in ("'%lld' 1", "'%1$d' 1"):
        assert len(lines) <= 2
    else:
        assert lines[0].startswith("! ") and len(lines) == 2, lines
    assert shared.lines("7") == ["* 7"]


def test_printf_makes_at_most_1000_characters(shared):
    shared.cmd(f"y='{'y' * 600}'")
    assert shared.lines("printf '%s%s' %y %y") == [f'* "{"y" * 1000}"']
    assert len(shared.cmd("printf '%1000000000d' 1")) < 1010
    assert len(shared.cmd("printf '%.1000000000f' 1.5")) < 1010


def test_printf_to_files(server, client):
    def text():
        return (server.cwd / "f").read_text()

    assert client.lines("printf '%d' 1 file 'f'") == ['* "1"']
    assert text() == "1\n"
    assert client.lines("printf 'two' file 'f' append") == ['* "two"']
    assert text() == "1\ntwo\n"
    assert client.lines("printf 'three' append file 'f' direct") == ["# three", '* "three"']
    assert text() == "1\ntwo\nthree\n"
    client.cmd("printf 'new' file 'f'")
    assert text() == "new\n"


@pytest.mark.parametrize("append, mode", [("", "w"), ("append", "a")])
def test_printf_to_a_file_that_cannot_be_opened(shared, append, mode):
    assert shared.lines(f"printf 'x' file '/none/f' {append}") == [
        f"! Cannont open File /none/f in mode {mode}", '* "ERROR"']


def test_printf_to_a_full_disk(shared):
    lines = shared.lines("printf 'x' file '/dev/full'")
    assert lines[0] == "! Error on write"


# ---------------------------------------------------------------- ascii write file

def test_ascii_write_file_takes_the_lines_that_follow(server, client):
    client.send("ascii write file 'f'\r\nfirst line\r\n\r\n  echo 'not run'\r\n:EOF\r\necho 'run'\r\n")
    assert client.recv_prompt() == b"* 0\r\n"
    assert client.recv_prompt() == b"run\r\n* 0\r\n"
    assert (server.cwd / "f").read_text() == "first line\n\n  echo 'not run'\n"
    client.send("ascii write file 'f'\n:EOF\n")
    assert client.recv_prompt() == b"* 0\r\n"
    assert (server.cwd / "f").read_text() == ""


def test_ascii_write_file_in_a_script_takes_the_script_s_lines(server, client):
    server.write("s.cmd", ["ascii write file 'f'", "# kept", "echo 'not run'", ":EOF", "echo 'run'"])
    assert client.lines("~s") == ["run", "* 0"]
    assert (server.cwd / "f").read_text() == "# kept\necho 'not run'\n"
    (server.cwd / "s.cmd").write_bytes(b"ascii write file 'f'\r\na\rb\r\n\r\rx\0y\nc\n\rd\n" + 2000 * b"z" + b"\n:EOF\necho 'run'\n")
    assert client.lines("~s") == ["run", "* 0"]  # a line's end is what it is at the prompt
    assert (server.cwd / "f").read_text() == "a\nb\n\n\nxy\nc\nd\n" + 1024 * "z" + "\n"


def test_ascii_write_file_that_cannot_be_opened(client):
    client.send("ascii write file '/none/f'\n")
    reply = client.recv_until("* -1\r\n> ")
    assert reply.startswith(b"! ")


def test_a_script_that_ends_in_ascii_write_file_ends_the_session(server, client):
    server.write("s.cmd", ["ascii write file 'f'", "kept"])
    client.send("~s\n")
    client.expect_closed()  # the end of what a session reads is the session's end
    assert server.client().cmd("7") == b"* 7\r\n"
    assert (server.cwd / "f").read_text() == "kept\n"


def test_echo_of_a_plain_session_is_off(client):
    assert client.cmd("echo-off") == b"* 0\r\n"
    assert client.cmd("7") == b"* 7\r\n"
