"""Finding a command: words, errors with their place, "?" listings and help, the dump of the tree."""
import re

import pytest

# (name, argument format, help) in the order of the table; None is a prefix. Other rooms' rows lie in between.
ROOT = [
    ("chd", "%s = %d", "change current working directory"),
    ("cd", "%s = %d", "change current working directory"),
    ("chx", "%s = %d", "change current execution directory"),
    ("dir", "+%s = %d", "list current working directory"),
    ("ls", "+%s = %d", "list current working directory"),
    ("echo", "%s = %d", "echo the given string on the screen"),
    ("echo-on", "= %d", "switch server echo on"),
    ("echo-off", "= %d", "switch server echo off"),
    ("help", "= %d", "provide help with the user interface"),
    ("include", "%s + " + 32 * "%v " + "echo no-exit-error show-returns mask-cntrl-c cntrl-c-ret-neg = %d",
     "include a command file at this point"),
    ("port", "%d = %d", "set the client's data port"),
    ("quit", "", "quit this session (can also use ^D)"),
    ("radix", "+%d = %d", "get/set the output radix for blocks of ASCII"),
    ("rem", "+%s = %d", "ignored, does nothing"),
    ("retrieve-tree", "%d = %d", "retrieve the command tree (used only by 'orb' program)"),
    ("shutdown", "", "shutdown all sessions and exit the server"),
    ("status", "= %d", "display the status of the server"),
    ("system", "%s = %d", "execute an OS command on the local machine"),
    ("macro", "%s %s = %d", "define a macro to be inserted using @macro_name"),
    ("macro-list", "= %d", "list macros"),
    ("set-func", "+ %s %s local hide = %d", "Set Variable 'name' from return code of 'function'"),
    ("set-int", "%s %d local = %d", "Set variable to an integer"),
    ("set-double", "%s %g local = %d", "Set variable to an Double"),
    ("set-string", "%s %s local = %d", "Set variable to an string"),
    ("set-qualifier", "%s %s local = %d", "Set variable to a Qualifier"),
    ("input", "%s %s local int double string qualifier", "Promt user to input a value"),
    ("for", "%s %d %d + %d local global", "Start loop FOR name = first TO last STEP step"),
    ("for-each", "%s %s + " + 39 * "%s " + "local global = %d", "Start loop FOR name = each string in turn"),
    ("next", "", "Termination of both for command loops"),
    ("printf", "%s +" + 42 * "%v " + "direct file %s append = %s", "C printf function"),
    ("return", "+%d = %d", "Return integer value from script"),
    ("if", "%d %s = %d", "Perform command if value != 0"),
    ("do", "= %d", "Start do ... while loop"),
    ("while", "%d = %d", "Complete do ... while loop"),
    ("eval", None, "Evaluate various types, for set command"),
    ("sleep", "%g quiet = %d", "Sleep for a specifed time"),
    ("enc-password", "%s = %s", "BaSe64 encode password"),
    ("debug", "on off", "set debugging on or off"),
    ("ascii", None, "prefix for ASCII-specific functions"),
]
EVAL = [
    ("int", "%d + %d add sub mult div mod equal not-equal = %d"),
    ("double", "%g + %g add sub mult div = %g"),
    ("string", "%s + %s %s %s %s %s %s %s = %s"),
    ("qualifier", "%s = %q"),
]


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


def compiled(text):
    """What a format means, worked out here."""
    head, _, result = text.partition("=")
    types, quals, optional = [], [], None
    for item in re.findall(r"\+|%.|[\w-]+", head):
        if item == "+":
            optional = len(types)
        elif item[0] != "%":
            quals.append((item, 0))
        elif quals:
            quals[-1] = (quals[-1][0], ord(item[1]))
        else:
            types.append(ord(item[1]))
    return {"ARGT": types, "QUAL": quals, "RETN": ord(result.strip()[1]) if result else 0,
            "OPTS": len(types) if optional is None else optional}


def test_the_tree_holds_every_command_in_its_place(shared):
    rows = dump(shared)
    names = [row[0] for row in rows]
    assert [name for name in names if name in {r[0] for r in ROOT}] == [r[0] for r in ROOT]
    by_name = {row[0]: row for row in rows}
    for name, text, help_text in ROOT:
        row = by_name[name]
        assert row[1] == help_text
        if text is None:
            assert row[2]
        else:
            assert {k: v for k, v in row[3].items() if k != "AHLP"} == compiled(text), name
    assert by_name["system"][3]["AHLP"] == "full OS-9 command and arguments"
    assert by_name["printf"][3]["AHLP"] == ("Format string/Variable args" + 42 * "/" +
                                            "Print output directly aswell as returning string/"
                                            "Print output to file <name>/Append it")
    for row, (name, text) in zip(by_name["eval"][2], EVAL, strict=True):
        assert row[0] == name and {k: v for k, v in row[3].items() if k != "AHLP"} == compiled(text)
    (write,) = by_name["ascii"][2]
    (file,) = write[2]
    assert (write[0], file[0], file[1]) == (
        "write", "file", "write subsequent lines into an ASCII file, terminate with ':EOF'")


def test_every_argument_and_qualifier_has_its_help(shared):
    names = {row[0] for row in ROOT}
    for name, _, table, row in dump(shared):
        rows = [row] if table is None else [row for _, _, _, row in table if name == "eval"]
        for row in rows:
            pieces = row["AHLP"].split("/")
            count = len(row["ARGT"]) + len(row["QUAL"])
            assert name not in names or not count or (pieces[0] and len(pieces) <= count), (name, pieces)


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
