"""Scripts and macros: how a line becomes another, where files are found, arguments, nesting, endings."""
import random

import pytest


def test_a_script_runs_line_by_line(server, client):
    server.write("s.cmd", ["echo 'one'", "", "# a comment", "* another", "  echo 'two'", "eval int 7", "'value'"])
    assert client.lines("include 's.cmd'") == ["one", "two", "* 0"]
    assert client.lines("include 's.cmd' show-returns") == ["one", "* 0", "two", "* 0", "* 7", '* "value"', "* 0"]


def test_radix_is_printed_where_results_are_not(server, client):
    server.write("s.cmd", ["radix 16", "radix", "set-func 'r' 'radix' hide", "echo (string)%r"])
    assert client.lines("~s") == ["* 16", "* 16", "16", "* $0"]
    assert client.lines("include 's.cmd' show-returns")[1] == "* 16"


def test_echo_shows_each_line_that_runs(server, client):
    server.write("s.cmd", ["echo 'one'", "# a comment", "eval int 7"])
    assert client.lines("include 's.cmd' echo") == ["# echo 'one'", "one", "# eval int 7", "* 0"]
    assert client.lines("include 's.cmd' show-returns ECHO") == [
        "# echo 'one'", "one", "* 0", "# eval int 7", "* 7", "* 0"]


@pytest.mark.parametrize("text", ["echo 'a'\necho 'b'", "echo 'a'\r\necho 'b'\r\n", "\n\n\necho 'a'\n\necho 'b'\n\n"])
def test_line_ends_in_a_script(server, client, text):
    (server.cwd / "s.cmd").write_bytes(text.encode())
    assert client.lines("~s") == ["a", "b", "* 0"]


def test_a_long_line_comes_in_pieces_of_1024(server, client):
    text = "echo '%s'" % ("x" * (1024 - 7))
    server.write("s.cmd", [text, "echo 'next'"])
    assert client.lines("~s") == ["x" * (1024 - 7), "next", "* 0"]
    server.write("s.cmd", ["echo '" + 1017 * "x" + "'" + "echo 'second'"])
    assert client.lines("~s") == ["x" * 1017, "second", "* 0"]


def test_a_failing_line_stops_the_script(server, client):
    server.write("s.cmd", ["echo 'one'", "chd '/no such folder'", "echo 'two'"])
    assert client.lines("~s") == ["one", "* 0"]  # the script's result is what `return` gave
    assert client.lines("include 's.cmd' no-exit-error") == ["one", "two", "* 0"]


def test_a_value_of_minus_one_is_no_failure(server, client):
    server.write("s.cmd", ["-1", "n=-1", "%n", "eval int 0", "echo 'on'", "eval int -1", "echo 'never'"])
    assert client.lines("~s") == ["on", "* 0"]


def test_return(server, client):
    server.write("s.cmd", ["echo 'one'", "return 42", "echo 'never'"])
    assert client.lines("~s") == ["one", "* 42"]
    server.write("s.cmd", ["return"])
    assert client.lines("~s") == ["* 0"]
    server.write("outer.cmd", ["set-func 'v' \"include 's.cmd'\"", "echo 'back'", "return %v+1"])
    server.write("s.cmd", ["if 1 'return 7'", "echo 'never'"])
    assert client.lines("~outer") == ["back", "* 8"]
    server.write("s.cmd", ["return 5"])
    assert client.lines("~s") == ["* 5"]
    server.write("s.cmd", ["echo 'plain'"])
    assert client.lines("~s") == ["plain", "* 0"]  # nothing of the last script's value is left


def test_a_return_of_minus_one_stops_the_outer_script_too(server, client):
    server.write("inner.cmd", ["return -1"])
    server.write("outer.cmd", ["~inner", "echo 'never'"])
    assert "never" not in client.lines("~outer")
    assert client.lines("include 'outer.cmd' no-exit-error")[:1] == ["never"]


def test_arguments(server, client):
    server.write("s.cmd", ["printf '%d %s %g %d' %1 %2 %3 %nargs direct", "echo %2+'!'", "echo (string)(1+%1)"])
    assert client.lines("include 's.cmd' 5 'five' 5.5") == ["# 5 five 5.5 3", "five!", "6", "* 0"]
    assert client.lines("include 's.cmd' 1+2 'a'+'b' 1/2.0") == ["# 3 ab 0.5 3", "ab!", "4", "* 0"]
    server.write("n.cmd", ["echo (string)nargs"])
    for count in 0, 1, 32:
        assert client.lines("include 'n.cmd' " + "7 " * count) == [str(count), "* 0"]
    assert "! Unexpected character when reading qualifiers" in client.lines("include 'n.cmd' " + "7 " * 33)


def test_argument_variables_are_local(server, client):
    server.write("inner.cmd", ["echo %1", "set-string '1' 'changed' local"])
    server.write("outer.cmd", ["~inner 'of inner'", "echo %1"])
    assert client.lines("~outer 'of outer'") == ["of inner", "of outer", "* 0"]
    assert client.errors("%1") == ["! Undefined Variable '1'", "* -1"]


def test_the_short_form(server, client):
    server.write("run.cmd", ["echo 'run.cmd'", "echo (string)nargs"])
    server.write("run", ["echo 'run'", "echo (string)nargs"])
    server.write("run.txt", ["echo 'run.txt'", "echo (string)nargs"])
    server.write("d.ir/run.cmd", ["echo 'd.ir/run.cmd'", "echo (string)nargs"])
    for line, name, nargs in [
            ("~run", "run.cmd", 0), ("~run 2", "run.cmd", 1), ("~ run 2 3", "run.cmd", 2), ("  ~run", "run.cmd", 0),
            ("~run 1.5", "run", 1),  # a dot anywhere in a line without a "/"
            ("~run.cmd", "run.cmd", 0), ("~run.txt 'x'", "run.txt", 1),
            ("~d.ir/run", "d.ir/run.cmd", 0), ("~d.ir/run 1.5", "d.ir/run.cmd", 1), ("~./run 2.5", "run.cmd", 1)]:
        assert client.lines(line) == [name, str(nargs), "* 0"], line


def test_a_script_that_is_missing_or_cannot_be_read(server, client):
    assert client.lines("include 'none.cmd'") == ["! Can't open file none.cmd.", "* -1"]
    assert client.lines("~none") == ["! Can't open file none.cmd.", "* -1"]
    assert client.lines("include '/proc/self/mem'") == ["! Cannot read on in the include file, errno=5", "* -1"]
    assert client.lines("7") == ["* 7"]


@pytest.mark.parametrize("path", ["{0}/one:{0}/two", "{0}/one/:{0}/two/", "/none:{0}/one:{0}/two", ":{0}/one:{0}/two:"])
def test_the_search_path(start, tmp_path, path):
    for folder, names in ("one", "ab"), ("two", "bc"):
        (tmp_path / folder).mkdir()
        for name in names:
            (tmp_path / folder / f"{name}.cmd").write_text(f"echo '{folder}'\n")
    server = start(env={"KESTRELPATH": path.format(tmp_path)})
    client = server.client()
    for name, where in ("a", "one"), ("b", "one"), ("c", "two"):
        assert client.lines(f"~{name}") == [where, "* 0"]
    server.write("b.cmd", ["echo 'here'"])
    assert client.lines("~b") == ["here", "* 0"]  # the name as it stands comes first
    assert client.lines("~d") == ["! Can't open file d.cmd.", "* -1"]


def test_a_very_long_search_path(start, tmp_path):
    (tmp_path / "s.cmd").write_text("echo 'found'\n")
    server = start(env={"KESTRELPATH": f"{tmp_path}:" + ":".join(f"/none/{n}" for n in range(5000))})
    server.write("here.cmd", ["echo 'here'"])
    client = server.client()
    reply = client.lines("~here")  # the first include takes the path, whether it needs it or not
    assert reply[0].startswith("! ERROR: Too Many paths parsing kestrel_path '") and reply[1:] == ["here", "* 0"]
    assert client.lines("~s") == ["found", "* 0"]


def test_nesting_ends_at_eight(server, client):
    server.write("deep.cmd", ["echo (string)%1", "include 'deep.cmd' %1+1 no-exit-error", "echo 'back '+(string)%1"])
    lines = client.lines("include 'deep.cmd' 1 no-exit-error")
    assert lines == [str(n) for n in range(1, 9)] + [f"back {n}" for n in range(8, 0, -1)] + ["* 0"]
    assert server.stderr == "server: Current maximum include depth (8) exceeded\n"
    assert client.lines("include 'deep.cmd' 8 no-exit-error")[0] == "8"


def test_a_script_may_change_while_it_runs(server, client):
    server.write("s.cmd", ["for 'i' 1 2", "printf \"echo 'new'\" file 's.cmd' append", "next", "echo 'old'"])
    assert client.lines("~s") == ["old", "new", "new", "* 0"]


def test_the_session_goes_on_after_a_script(server, client):
    server.write("s.cmd", ["radix 16", "echo 'in'"])
    client.send("~s\n255\n")
    assert client.recv_prompt() == b"in\r\n* $0\r\n"
    assert client.recv_prompt() == b"* $ff\r\n"


@pytest.mark.parametrize("content", [b"", bytes(5000), b"'" * 5000, b"\r" * 3000, random.Random(1).randbytes(20000)])
def test_a_script_that_is_none(server, client, content):
    (server.cwd / "none").write_bytes(content)
    client.send("include 'none' no-exit-error\necho 'alive'\n")
    client.recv_until("alive\r\n* 0\r\n> ")


def test_a_folder_is_no_script(server, client):
    (server.cwd / "folder").mkdir()
    assert client.lines("include 'folder'")[-1].startswith("* ")
    assert client.lines("7") == ["* 7"]


# ---------------------------------------------------------------- macros

def test_macros(client):
    assert client.lines("macro 'hi' \"echo 'hello'\"") == ["* 0"]
    assert client.lines("macro 'add' 'eval int'") == ["* 0"]
    assert client.lines("@hi") == ["hello", "* 0"]
    assert client.lines("  @add 1 2 add") == ["* 3"]
    assert client.lines("@add 1+2*3") == ["* 7"]
    assert client.lines("macro 'add' 'eval double'") == ["# Overwriting macro add with value eval double", "* 0"]
    assert client.lines("@add 7 2 div") == ["* 3.5"]
    assert client.lines("macro-list") == ["# 'hi'\t'echo 'hello''", "# 'add'\t'eval double'", "* 0"]


def test_an_unknown_macro_is_told_through_echo(client):
    assert client.lines("@m") == ["! macro m not found", "* 0"]
    assert client.lines("@m 1 2 3") == ["! macro m not found", "* 0"]
    client.cmd("macro 'M' 'help'")
    assert client.lines("@m") == ["! macro m not found", "* 0"]  # names keep their case
    assert client.lines("@MM") == ["! macro MM not found", "* 0"]


def test_macros_are_every_session_s_and_every_script_s(server):
    first, second = server.client(), server.client()
    first.cmd("macro 'hi' \"echo 'hello'\"")
    assert second.lines("@hi") == ["hello", "* 0"]
    server.write("s.cmd", ["@hi"])
    assert second.lines("~s") == ["hello", "* 0"]


def test_no_macros_no_list(client):
    assert client.lines("macro-list") == ["* 0"]


def test_macros_of_macros_end(client):
    for n in range(100):
        client.cmd(f"macro 'm{n}' '@m{n + 1}'")
    client.cmd("macro 'm100' 'echo'")
    assert client.lines("@m1 'a hundred'") == ["a hundred", "* 0"]
    assert client.lines("@m0 'one more'") == ["! Macro expands without end", "* -1"]
    assert "! Macro expands without end" in client.lines("if 1 '@m0'")
    client.cmd("macro 'me' '@me'")
    client.cmd("macro 'run' \"if 1 '@run'\"")
    for line in "@me", "@run":
        assert client.lines(line)[-1].startswith("* ")
        assert client.lines("7") == ["* 7"]


def test_a_macro_makes_a_line_longer(client):
    client.cmd("macro 'long' 'eval string \"%s\"'" % ("x" * 900))
    assert client.lines("@long 'y'") == ['* "' + 900 * "x" + 'y"']
    reply = client.lines("@long '%s'" % ("y" * 900))
    assert reply == ['* "' + 900 * "x" + '"']  # joined, the second piece does not fit
