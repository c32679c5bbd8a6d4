"""Finding a command: words, errors with their place, "?" listings and help, the dump of the tree."""
import re

import pytest

def dump(client):
    """The tree as `retrieve-tree 510` tells it: [(name, help, None or sub-table, fields)]."""
    lines = client.lines("retrieve-tree 510")
    assert lines.pop() == "* 0"
    items = [re.fullmatch(r'\* "(....) (.*)"', line).groups() for line in lines]
    items.reverse()

    def take(tag):
        assert items[-1][0] == tag, items[-1]
        return items.pop()[1]

    def table():
        rows = []
        for _ in range(int(take("SIZE"))):
            kind, name = items.pop()
            text = take("HELP")
            if kind == "SUBT":
                rows.append((name, text, table(), None))
                continue
            assert kind == "COMM"
            row = {"AHLP": take("AHLP")}
            row["ARGT"] = [int(take("ARGT")) for _ in range(int(take("ARGC")))]
            row["QUAL"] = [(take("QUAL"), int(take("QUAT"))) for _ in range(int(take("QUAC")))]
            row["RETN"], row["OPTS"] = int(take("RETN")), int(take("OPTS"))
            rows.append((name, text, None, row))
        return rows

    rows = table()
    assert not items
    return rows


def test_the_dump_tells_all_of_a_command(shared):
    """What every command takes is pinned by the reference in docs/, which is made from the dump."""
    rows = {name: (text, table, row) for name, text, table, row in dump(shared)}
    assert rows["system"] == ("execute an OS command on the local machine", None, {
        "AHLP": "full OS-9 command and arguments", "ARGT": [ord("s")], "QUAL": [], "RETN": ord("d"), "OPTS": 1})
    text, _, printf = rows["printf"]
    assert text == "C printf function" and printf == {
        "AHLP": "Format string/Variable args" + 42 * "/" + "Print output directly aswell as returning string/"
                "Print output to file <name>/Append it",
        "ARGT": [ord("s"), *42 * [ord("v")]], "QUAL": [("direct", 0), ("file", ord("s")), ("append", 0)],
        "RETN": ord("s"), "OPTS": 1}
    (double,) = (row for name, _, _, row in rows["eval"][1] if name == "double")
    assert double["ARGT"] == 2 * [ord("g")] and double["RETN"] == ord("g")
    ((write, _, ((file, _, _, _),), _),) = rows["ascii"][1]
    assert (write, file) == ("write", "file")


def test_every_argument_and_qualifier_has_its_help(shared):
    for name, _, table, row in dump(shared):
        count = 0 if table else len(row["ARGT"]) + len(row["QUAL"])
        pieces = row["AHLP"].split("/") if count else []
        assert not count or pieces[0] and len(pieces) <= count, (name, pieces)


def test_other_codes_dump_nothing(shared):
    for code in "0", "509", "-510":
        assert not [line for line in shared.lines(f"retrieve-tree {code}") if '"' in line]


@pytest.mark.parametrize("line, place, word", [
    ("nonsense", 0, None), ("  nonsense 'x'", 2, None), ("mod create", 0, None), ("set-in 'n' 5", 0, None),
    ("set-intt 'n' 5", 0, None), ("eval foo", 5, "eval"), ("EVAL  in 5", 6, "eval"), ("n", 0, None),
])
def test_an_unknown_word_shows_its_place_and_the_choices(shared, line, place, word):
    rows = dump(shared)
    table = next(row[2] for row in rows if row[0] == word) if word else rows
    assert shared.lines(line) == [
        "# " + place * " " + "^",
        "! Unexpected identifier, or non-existent command",
        "# Choices at this point are:",
        "#  " + "".join(row[0] + " " for row in table),
        "# Type partial command followed by '?' for more help",
        "* -1"]


@pytest.mark.parametrize("line, word", [("?", None), ("  ?", None), ("eval ?", "eval"), ("Eval ? more", "eval")])
def test_a_question_mark_lists_the_table(shared, line, word):
    rows = dump(shared)
    table = next(row[2] for row in rows if row[0] == word) if word else rows
    assert shared.lines(line) == (["# Choices at this point are:"] +
                                  ["#%16s %s" % row[:2] for row in table] +
                                  ["# Type partial command and '?' for more help", "* -1"])


TYPES = {"d": "<int>    ", "g": "<real>   ", "f": "<real>   ", "s": "<string> "}


def type_name(code):
    return TYPES.get(chr(code), "<?>      ")


def help_of(name, text, row):
    pieces = row["AHLP"].split("/") + 100 * [""]
    lines = [f"# The {name} command function is :", f"# {text}"]
    if row["ARGT"]:
        lines.append("# And expects arguments of the following types:")
    else:
        lines.append("# There are no arguments to this command.")
    for i, code in enumerate(row["ARGT"]):
        if i == row["OPTS"]:
            lines.append("# Optional arguments")
        lines.append(f"# {type_name(code)} {pieces.pop(0)}")
    if row["QUAL"]:
        lines.append("# Zero or more of the following qualifiers may appear after the arguments:")
    else:
        lines.append("# No qualifiers can be added at the end of this command.")
    for word, code in row["QUAL"]:
        lines.append(f"# {word:<10} {type_name(code) + ' ' if code else ' ' * 10}{pieces.pop(0)}")
    if row["RETN"]:
        lines.append(f"# This command returns {type_name(row['RETN'])}.")
    return lines + ["* -1"]


def test_help_of_every_command(shared):
    def walk(rows, words):
        for name, text, table, row in rows:
            if table is not None:
                walk(table, words + [name])
            else:
                assert shared.lines(" ".join(words + [name, "?"])) == help_of(name, text, row)
    walk(dump(shared), [])


def test_help_after_some_arguments_and_qualifiers(shared):
    whole = shared.lines("set-int ?")
    for line in "set-int 'n' ?", "set-int 'n' 5 ?", "set-int 'n' 5 local ?", "SET-INT ?":
        assert shared.lines(line) == whole
    assert "! Undefined Variable 'n'" in shared.lines("echo %n")  # none of them ran


@pytest.mark.parametrize("line", ["MODULE", "eval", "ascii write", "  eval  "])
def test_a_line_that_ends_in_a_prefix(shared, line):
    if line == "MODULE":
        line = "ASCII"
    assert shared.errors(line) == ["! Line of input finished unexpectedly", "* -1"]


@pytest.mark.parametrize("line", ["eval 42", "eval 4.5", "eval 'int'", "ascii write 1+2"])
def test_a_value_where_a_word_must_stand(shared, line):
    assert shared.errors(line) == ["! Expected a command name here", "* -1"]


@pytest.mark.parametrize("line", ["", " ", "\t  \t"])
def test_an_empty_line_says_nothing(shared, line):
    assert shared.cmd(line) == b""


@pytest.mark.parametrize("line", ["SET-INT 'n' 5 LOCAL", "Eval Int 0", "ECHO-off", "sEt-FuNc"])
def test_words_match_in_any_case(shared, line):
    assert shared.lines(line)[-1] == "* 0"


def test_a_variable_that_does_not_exist(shared):
    assert shared.errors("%nope") == ["! Undefined Variable 'nope'", "* -1"]
    assert shared.errors("eval %nope") == ["! Undefined Variable 'nope'", "* -1"]


@pytest.mark.parametrize("line", ["]", "eval ]", ")", "\\", "eval \x01"])
def test_a_character_of_no_meaning(shared, line):
    errors = shared.errors(line)
    assert errors[-2:] == ["! Unexpected character in input", "* -1"]
    assert all(text.startswith("! ") for text in errors[:-1])


def test_lookup_errors_stop_a_script_unless_told_otherwise(server, client):
    for line in "nonsense", "eval", "eval 42", "]", "%nope", "?", "set-int ?", "echo nope", "set-int 'n'", "-1+]":
        server.write("s.cmd", [line, "echo 'on'"])
        assert "on" not in client.lines("~s"), line
        assert "on" in client.lines("include 's.cmd' no-exit-error"), line
