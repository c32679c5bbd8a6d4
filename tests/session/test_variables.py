"""Variables: the commands that set them, their scopes and listing, input, eval, commands run for their result."""
import pytest


def test_each_type_shows_as_itself(client):
    for command, value, shown in [("set-int", "5", "5"), ("set-double", "2.5", "2.5"), ("set-double", "3", "3"),
                                  ("set-string", "'a b'", '"a b"'), ("set-string", "''", '""'), ("set-int", "-5", "-5")]:
        assert client.lines(f"{command} 'v' {value}") == ["* 0"]
        assert client.lines("%v") == ["* " + shown]
    client.cmd("set-double 'v' 3")
    assert client.lines("%v/2") == ["* 1.5"]


def entry(name, value):
    return "# %-15s  %s" % (name, value)


def test_the_listing(client):
    client.cmd("set-int 'n' 5")
    client.cmd("set-double 'x' 2.5")
    client.cmd("set-string 'a-name-of-17-char' 'text'")
    client.cmd("set-int 'here' 7 local")
    assert client.lines("set-func") == [
        "# Globals:", entry("n", 5), entry("x", 2.5), entry("a-name-of-17-char", "'text'"),
        "# Current locals:", entry("here", 7), "* 0"]
    client.cmd("set-int 'x' 6")  # keeps its place
    client.cmd("set-qualifier 'n' 'add'")
    lines = client.lines("set-func")
    assert lines[1].startswith("# n ") and lines[1].endswith("# Qual   :'add'")
    assert lines[2] == entry("x", 6)


def test_a_local_shadows_the_global(server, client):
    client.cmd("set-int 'n' 5")
    client.cmd("set-int 'n' 7 local")
    assert client.lines("%n") == ["* 7"]
    server.write("s.cmd", ["echo (string)n", "n=6", "set-int 'n' 8 local", "n=9", "echo (string)n"])
    assert client.lines("~s") == ["5", "9", "* 0"]
    assert client.lines("%n") == ["* 7"]
    client.cmd("n=70")
    lines = client.lines("set-func")
    split = lines.index("# Current locals:")
    assert entry("n", 6) in lines[:split] and entry("n", 70) in lines[split:]


def test_a_script_s_locals_end_with_it(server, client):
    server.write("inner.cmd", ["set-int 'mine' 2 local", "echo (string)nargs"])
    server.write("outer.cmd", ["set-int 'mine' 1 local", "~inner 1 2 3", "echo (string)mine", "echo (string)nargs"])
    assert client.lines("~outer") == ["3", "1", "0", "* 0"]
    assert client.errors("%mine") == ["! Undefined Variable 'mine'", "* -1"]
    assert client.errors("%nargs") == ["! Undefined Variable 'nargs'", "* -1"]


def test_sessions_share_the_variables(server):
    first, second = server.client(), server.client()
    first.cmd("set-int 'n' 5")
    assert second.lines("n=%n+1") == ["* 6"]
    assert first.lines("%n") == ["* 6"]


def test_names(client):
    for name in "a", "A", "a.b", "x" * 200, "1", "with_underscore9":
        assert client.lines(f"set-string '{name}' 'of {name}'") == ["* 0"]
    for name in "a", "A", "a.b", "x" * 200, "1", "with_underscore9":
        assert client.lines(f"echo %{name}") == [f"of {name}", "* 0"]


def test_set_func_keeps_a_command_s_result(client):
    for command, printed, shown in [("eval int 7 2 div", "* 3", "3"), ("eval double 7 2 div", "* 0", "3.5"),
                                    ("eval string 'a' 'b'", "* 0", '"ab"'), ("%v+'c'", None, '"abc"'),
                                    ("eval int 0-5", "* -5", "-5")]:
        reply = client.lines(f'set-func \'v\' "{command}"')
        assert reply == [printed] or printed is None, (command, reply)
        assert client.lines("%v") == ["* " + shown]
    assert client.lines("set-func 'v' 'eval int 41' hide") == ["* 0"]
    assert client.lines("%v") == ["* 41"]
    client.cmd("set-func 'how' \"eval qualifier 'add'\"")
    assert client.lines("eval int 1 2 %how") == ["* 3"]


def test_set_func_shows_the_command_s_output_and_errors(client):
    assert client.lines("set-func 'v' \"echo 'hi'\"") == ["hi", "* 0"]
    assert client.lines("%v") == ["* 0"]
    errors = client.errors("set-func 'w' 'nonsense'")
    assert errors[0] == "! Unexpected identifier, or non-existent command" and errors[-1] == "* -1"
    assert client.lines("set-func 'w' 'nonsense' hide")[-1] == "* -1"
    client.cmd("set-int 'here' 1 local")
    client.cmd("set-func 'here' 'eval int 2' local")
    assert client.lines("%here") == ["* 2"]


# ---------------------------------------------------------------- input

@pytest.mark.parametrize("how, typed, shown", [
    ("", "some text", '"some text"'), ("string", "5", '"5"'), ("int", "42", "42"), ("int", "-7", "-7"),
    ("double", "2.5", "2.5"), ("double", "3", "3"), ("qualifier", "add", None), ("", "", '""'),
    ("", "  it's \"so\" ", '"  it\'s "so" "'), ("", 3000 * "x", '"' + 1024 * "x" + '"'),
])
@pytest.mark.parametrize("end", ["\n", "\r\n"])
def test_input(shared, how, typed, shown, end):
    shared.send(f"input 'name? ' 'v' {how}{end}")
    shared.recv_until("name? ")
    shared.send(typed + end)
    assert shared.recv_prompt() == b""
    if shown:
        assert shared.lines("%v") == ["* " + shown]
    else:
        assert shared.lines("eval int 1 2 %v") == ["* 3"]


def test_input_that_has_already_come(shared):
    shared.send("input 'name? ' 'v'\r\nEve\r\necho %v\r\n")
    shared.recv_until("name? ")
    assert shared.recv_prompt() == b""
    assert shared.recv_prompt() == b"Eve\r\n* 0\r\n"


def test_input_in_a_script_asks_the_user(server, client):
    server.write("s.cmd", ["input 'name? ' 'v' local", "echo 'hello '+v", "echo 'bye'"])
    client.send("~s\n")
    client.recv_until("name? ")
    client.send("Eve\n")
    assert client.recv_prompt() == b"hello Eve\r\nbye\r\n* 0\r\n"
    assert client.errors("%v") == ["! Undefined Variable 'v'", "* -1"]


def test_input_as_a_local_variable(client):
    client.send("input 'a? ' 'v' local int\n5\ninput 'b? ' 'v' int\n6\n%v\n")
    client.recv_until("b? ")
    client.recv_prompt()
    assert client.recv_prompt() == b"* 5\r\n"


# ---------------------------------------------------------------- eval

@pytest.mark.parametrize("line, reply", [
    ("eval int 5", ["* 5"]), ("eval int 5 7", ["* 5"]),
    ("eval int 7 2 add", ["* 9"]), ("eval int 7 2 sub", ["* 5"]), ("eval int 7 2 mult", ["* 14"]),
    ("eval int 7 2 div", ["* 3"]), ("eval int 7 2 mod", ["* 1"]), ("eval int (0-7) 2 mod", ["* -1"]),
    ("eval int 7 2 equal", ["* 0"]), ("eval int 7 7 equal", ["* 1"]), ("eval int 7 2 not-equal", ["* 1"]),
    ("eval int 7 0 add", ["* 7"]),
    ("eval int 5 add", ["! Need Optional Argument for basic maths", "* -1"]),
    ("eval int 5 add sub", ["! Need Optional Argument for basic maths", "* -1"]),
    ("eval int 1 2 add sub", ["! Can only do one off add/sub/mult/div/equal", "* -1"]),
    ("set-func 'v'", ["! Need both a variable name and a function", "* -1"]),
    ("eval int 2147483647 1 add", ["* -2147483648"]),
    ("eval double 7 2 add", ["* 9"]), ("eval double 7 2 div", ["* 3.5"]), ("eval double 7.5 2 sub", ["* 5.5"]),
    ("eval double 1.5 2 mult", ["* 3"]), ("eval double 1 0 div", ["* inf"]), ("eval double 1.5", ["* 1.5"]),
    ("eval string 'a'", ['* "a"']), ("eval string 'a' 'b' 'c' 'd' 'e' 'f' 'g' 'h'", ['* "abcdefgh"']),
    ("eval string '' '' 'x'", ['* "x"']),
    ("eval qualifier 'add'", ['* "add"']),
])
def test_eval(shared, line, reply):
    assert shared.lines(line) == reply


@pytest.mark.parametrize("line", ["eval int 1 0 div", "eval int 1 0 mod", "eval int 1<<31 (-1) div",
                                  "eval int 1<<31 (-1) mod"])
def test_a_quotient_that_does_not_exist_is_an_error(shared, line):
    lines = shared.lines(line)
    assert lines[0].startswith("! ") and lines[-1] == "* -1" or lines == ["* 0"] and "mod" in line


def test_joined_strings_leave_out_what_does_not_fit(client):
    for name, count in ("a", 600), ("b", 399), ("c", 400):
        client.cmd(f"set-string '{name}' '{name * count}'")
    assert client.lines("eval string %a %b") == [f'* "{"a" * 600}{"b" * 399}"']
    assert client.lines("eval string %a %b 'x'") == [f'* "{"a" * 600}{"b" * 399}"']
    assert client.lines("eval string %a %c 'x'") == [f'* "{"a" * 600}x"']
