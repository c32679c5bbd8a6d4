"""From the rest of a line to a handler's arguments, and from its result to the last line of the reply."""
import pytest


@pytest.mark.parametrize("line, place, error", [
    ("set-int n 5", 8, "Found an identifier when we were expecting arguments"),
    ("set-int 'n' five", 12, "Found an identifier when we were expecting arguments"),
    ("set-int 'n'", 11, "Unexpected end of line in input"),
    ("set-int", 7, "Unexpected end of line in input"),
    ("set-int 'n' 'x'", 12, "Argument 2 should be of type '%d'"),
    ("set-int 'n' 2.5", 12, "Argument 2 should be of type '%d'"),
    ("set-int 7 5", 8, "Argument 1 should be of type '%s'"),
    ("set-double 'x' 'y'", 15, "Argument 2 should be of type '%g'"),
    ("sleep 'x'", 6, "Argument 1 should be of type '%g'"),
    ("radix 2.0", 6, "Argument 1 should be of type '%d'"),
    ("echo %nope", 5, "Undefined Variable 'nope'"),
    ("set-int 'n' 5 foo", 14, "Qualifier foo not found."),
    ("set-int 'n' 5 loca", 14, "Qualifier loca not found."),
    ("set-int 'n' 5 locals", 14, "Qualifier locals not found."),
    ("set-int 'n' 5 local foo", 20, "Qualifier foo not found."),
    ("radix foo", 6, "Qualifier foo not found."),  # an optional argument may be left out
    ("help foo", 5, "Qualifier foo not found."),
    ("set-int 'n' 5 6", 14, "Unexpected character when reading qualifiers"),
    ("set-int 'n' 5 local 'x'", 20, "Unexpected character when reading qualifiers"),
    ("quit 5", 5, "Unexpected character when reading qualifiers"),
    ("printf 'x' file 5", 16, "This qualifier takes an argument of type '%s'"),
    ("printf 'x' file append", 16, "This qualifier takes an argument of type '%s'"),
    ("printf 'x' file", 15, "This qualifier takes an argument of type '%s'"),
    ("set-int 'n' 5 %nope", 14, "Unexpected character when reading qualifiers"),
    ("ustatus of %nope", 11, "This qualifier takes an argument of type '%d'"),
    (f"printf 'x' file '{256 * 'f'}'", 16, "The text of a qualifier can have 255 characters at most"),
    ("module create 'm' 1 1 num-t 2.0", 28, "This qualifier takes an argument of type '%d'"),
    ("maths measure-peak 0 0 0 0 0 0 0 threshold 2", 43, "This qualifier takes an argument of type '%g'"),
])
def test_errors_and_their_places(shared, line, place, error):
    assert shared.lines(line) == ["# " + place * " " + "^", "! " + error, "* -1"]


@pytest.mark.parametrize("line, error", [
    ("echo ]", "Unknown character found in the arguments"),
    ("echo 'open", "Unknown character found in the arguments"),
    ("set-int 'n' 1+", "Unknown character found in the arguments"),
    ("set-int 'n' 'a'-'b'", "Unknown character found in the arguments"),
    ("set-int 'n' 5 ]", "Unexpected character when reading qualifiers"),
])
def test_what_is_no_item_at_all(shared, line, error):
    errors = shared.errors(line)
    assert errors[-2:] == ["! " + error, "* -1"]
    assert all(text.startswith("! ") for text in errors[:-1])


def test_a_failed_line_changes_nothing(shared):
    shared.cmd("set-int 'kept' 5")
    for line in "set-int 'kept' 6 foo", "set-int 'kept' 'x'", "set-int 'kept' 7 8", "set-int 'kept' 7 ?":
        assert shared.lines(line)[-1] == "* -1"
        assert shared.lines("%kept") == ["* 5"]


@pytest.mark.parametrize("line, result", [
    ("eval double 3", "3"),  # an integer where a double is expected
    ("eval   int\t7   2  add ", "9"),
    ("eval int 7 2 ADD", "9"),
    ("eval int 7 2 add add", "9"),  # the same qualifier again
    ("printf '%d %g %s' 1 2.5 'x'", '"1 2.5 x"'),
    ("printf '%s' \"it's\"", '"it\'s"'),
    ("printf 'x' append file 'one' file 'two'", '"x"'),  # in any order, the last value wins
    ("eval qualifier 'add'", '"add"'),
    ("eval double 0.1", "0.1"),
    ("eval double 1e10 1 mult", "1e+10"),
    ("eval double 1 3 div", "0.333333"),
])
def test_conversions_and_results(shared, line, result):
    assert shared.lines(line) == ["* " + result]


def test_the_last_value_of_a_qualifier_wins_and_comes_whole_or_not_at_all(server, client):
    long, longest = 256 * "f", 255 * "f"
    assert client.lines(f"printf 'x' file '{long}' file 'two'") == ['* "x"']
    assert client.lines(f"printf 'x' file '{longest}'") == ['* "x"']
    assert client.lines(f"printf 'x' file 'three' file '{long}'")[-1] == "* -1"
    assert sorted(path.name for path in server.cwd.iterdir()) == [longest, "two"]


def test_a_variable_of_qualifier_type_stands_for_a_qualifier(client):
    client.cmd("set-qualifier 'how' 'MULT'")
    assert client.lines("eval int 6 7 %how") == ["* 42"]
    client.cmd("set-qualifier 'how' 'multiply'")
    assert client.lines("eval int 6 7 %how")[1:] == ["! Qualifier multiply not found.", "* -1"]


RADIX = [  # value, decimal, hexadecimal, binary
    ("0", "0", "$0", "#" + 32 * "0"),
    ("255", "255", "$ff", "#" + 24 * "0" + 8 * "1"),
    ("0-1", "-1", "$ffffffff", "#" + 32 * "1"),
    ("1<<31", "-2147483648", "$80000000", "#1" + 31 * "0"),
    ("1.5", "1.5", "1.5", "1.5"),
    ("'x'", '"x"', '"x"', '"x"'),
]


def test_results_follow_the_radix(server):
    for column, radix in enumerate((10, 16, 2), 1):
        client = server.client()
        client.cmd(f"radix {radix}")
        for row in RADIX:
            assert client.lines(row[0]) == ["* " + row[column]]
        assert client.lines("radix") == [f"* {radix}"]  # one line, and decimal in every radix
        assert client.lines("radix 0") == [f"* {radix}"]


def test_other_radixes_are_passed_over(client):
    for radix in 1, 3, 8, 9, 11, 17, 1000:
        assert client.lines(f"radix {radix}") == ["* 0"]
        assert client.lines("255") == ["* 255"]


def test_the_longest_forms_are_served(shared):
    words = " ".join(f"'{n}'" for n in range(40))
    assert shared.lines(f"for-each 'x' {words}")[-1] == "* -1"  # counted well, but no script to loop in
    assert "! Unexpected character when reading qualifiers" in shared.lines(f"for-each 'x' {words} '40'")
    numbers = " ".join(str(n) for n in range(42))
    assert shared.lines(f"printf '{'%d,' * 42}' {numbers}") == ['* "' + "".join(f"{n}," for n in range(42)) + '"']
    assert "! Unexpected character when reading qualifiers" in shared.lines(f"printf '' {numbers} 42")
