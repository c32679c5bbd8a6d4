"""Every item is an expression: its value as the result line shows it, or the lines of its errors."""
import re
import time

import pytest


@pytest.mark.parametrize("text, result", [
    # constants
    ("42", "42"), ("$F0", "240"), ("$f0", "240"), ("#11110000", "240"), ("007", "7"), ("2147483647", "2147483647"),
    ("$FFFFFFFF", "-1"), ("#" + 32 * "1", "-1"), ("$80000000", "-2147483648"), ("$0000000001", "1"),
    ("2.5", "2.5"), ("1e3", "1000"), ("1.5e-3", "0.0015"), ("1E+2", "100"), ("1.", "1"), (".5", "0.5"),
    ("3.0", "3"), ("1234567.0", "1.23457e+06"),
    ("'ab'", '"ab"'), ('"ab"', '"ab"'), ("''", '""'), ("'a b  c'", '"a b  c"'), ("'a\"b'", '"a"b"'),
    ('"a\'b"', '"a\'b"'), (r"'a\n\'", r'"a\n\"'), ("'%d # ? @ ~'", '"%d # ? @ ~"'),
    # operators
    ("1+2", "3"), ("1+2.5", "3.5"), ("7/2", "3"), ("7/2.0", "3.5"), ("0-7/2", "-3"), ("5-2-1", "2"),
    ("2.5*2", "5"), ("16/4/2", "2"), ("2+3*4", "14"), ("(2+3)*4", "20"), ("'ab'+'cd'", '"abcd"'),
    ("'a'+'b'+'c'", '"abc"'),
    ("1<<4", "16"), ("256>>4", "16"), ("1<<2<<3", "32"), ("1+1<<2", "8"), ("1<<0", "1"),
    ("1<2", "1"), ("2<1", "0"), ("2<=2", "1"), ("3>=4", "0"), ("1<1.5", "1"), ("2.5>2.5", "0"), ("1<<1<3", "1"),
    ("1==1", "1"), ("1!=1", "0"), ("1==1.0", "1"), ("0.5!=0.25", "1"), ("'a'=='a'", "1"), ("'a'!='a'", "0"),
    ("'a'=='A'", "0"), ("'a'=='ab'", "0"), ("1<2==1", "1"), ("2==2>1", "0"),
    ("12&10", "8"), ("12^10", "6"), ("12|10", "14"), ("1|6^2&3", "5"), ("1==1&3", "1"), ("4|1==1", "5"),
    ("1&&0", "0"), ("2||0", "1"), ("5&&7", "1"), ("0||0", "0"), ("1||0&&0", "1"), ("2|1&&1", "1"),
    ("1?2:3", "2"), ("0?2:3", "3"), ("1?'a':2.5", '"a"'), ("0?1:0?2:3", "3"), ("1?0?4:5:6", "5"), ("1||0?7:8", "7"),
    ("1?7:(1/0)", "7"), ("0?(1/0):7", "7"),  # only the branch taken is worked out
    # unary operators bind loosest
    ("-5", "-5"), ("-2.5", "-2.5"), ("-1+2", "-3"), ("2*-3+4", "-14"), ("~0", "-1"), ("~5+1", "-7"), ("!5", "0"),
    ("!0", "1"), ("!0+1", "0"), ("!!7", "1"), ("(-1)+2", "1"), ("--5", "5"), ("-1?2:3", "-2"), ("5--3", "8"),
    ("~~7", "7"), ("-~0", "1"),
    # 32 bits
    ("2147483647+1", "-2147483648"), ("65536*65536", "0"), ("(1<<31)-1", "2147483647"), ("-(1<<31)", "-2147483648"),
    ("46341*46341", "-2147479015"), ("$7FFFFFFF<<1", "-2"), ("1<<31", "-2147483648"), ("(0-8)>>1", "-4"),
    ("-2147483648", "-2147483648"), ("1-2147483648", "-2147483647"), ("1e-400", "0"), ("0-1e-310", "-1e-310"),
    ("1.0/0", "inf"), ("0-1/0.0", "-inf"), ("1e308*10", "inf"),
    # casts
    ("(int)'1234'", "1234"), ("(int)3.7", "3"), ("(int)(0-3.7)", "-3"), ("(int)3.7+0.5", "3.5"), ("(int)5", "5"),
    ("(int)' 12'", "12"), ("(int)'-7'", "-7"),
    ("(double)3/2", "1.5"), ("(double)'2.5'*2", "5"), ("(double)'1e3'", "1000"), ("(double)2.5", "2.5"),
    ("(string)5", '"5"'), ("(string)5+'x'", '"5x"'), ("(string)2.5", '"2.5"'), ("(string)'x'", '"x"'),
    ("(string'%5.2f')3.14159", '" 3.14"'), ("(string'%05d')42", '"00042"'),
    ("(string'%x')255", '"ff"'), ("(string'%X')255", '"FF"'), ("(string'%d')2.9", '"2"'), ("(string'%g')3", '"3"'),
    ("(string'%-6s')'x'", '"x     "'), ("(string'no %d')5", '"no 5"'), ("(string'%%%d')5", '"%5"'),
    ("(string'%s')5", '"5"'), ("(string'%5s')2.5", '"  2.5"'), ("(int)(string)42", "42"), ("(int)'12'+3", "15"), ("(string)(qualifier)'long'", '"long"'),
    # functions
    ("sin(0)", "0"), ("cos(0)", "1"), ("cos(0.0)", "1"), ("tan(0)", "0"), ("exp(0)", "1"), ("log(1)", "0"),
    ("log(exp(2))", "2"), ("log10(1000)", "3"), ("2*sin(0)+1", "1"), ("sin(1)*sin(1)+cos(1)*cos(1)", "1"),
    ("log2(8)", "3"), ("log2(8)/2", "1"), ("log2(8.0)/2", "1.5"), ("log2(6)", "3"), ("log2(5)", "2"), ("log2(1)", "0"),
    ("log2(0.5)", "-1"), ("(int)log10(100)+1", "3"),
])
def test_values(shared, text, result):
    # a line that begins with "~" would be a script's
    assert shared.lines("eval int " + text if text[0] == "~" else text) == ["* " + result]


ERRORS = [
    ("'a'-'b'", "Cannot sub type 4 and 4"), ("'a'*2", "Cannot mult type 4 and 1"), ("2.5/'a'", "Cannot div type 2 and 4"),
    ("'a'+1", "Cannot add type 4 and 1"), ("1+'a'", "Cannot add type 1 and 4"),
    ("'a'<'b'", "Cannot compare type 4 and 4"), ("1=='a'", "Cannot compare type 1 and 4"),
    ("'a'!=2.0", "Cannot compare type 4 and 2"),
    ("1.0&&1", "Cannot perfrom integer only operation on type 2 and 1"),
    ("1|2.5", "Cannot perfrom integer only operation on type 1 and 2"),
    ("'a'<<1", "Cannot perfrom integer only operation on type 4 and 1"),
    ("1^'a'", "Cannot perfrom integer only operation on type 1 and 4"),
    ("1.5?2:3", "Control type for ternay must be integer, not 2"),
    ("'a'?2:3", "Control type for ternay must be integer, not 4"),
    ("-'a'", "Cannot negate type 4"),
    ("(foo)1", "Cannot recognise cast (foo), expect (int), (double) or (string)"),
    ("(string'%q')5", "ERROR in cast to string with format string. Expected last character of format string to be "
                      "diouxX eEfFgG or s not 'q'"),
    ("(string'%f')'x'", "ERROR in cast to string with format string: Cannot convert string to string via a double format"),
    ("(foo)~1", "Cannot recognise cast (foo), expect (int), (double) or (string)"),
    ("foo(1)", "Cannot find function foo"),
    ("sin('a')", "Illegal Function argument type 4 passed to function 'sin'"),
    ("log2(0)", "Illegal Function argument 0 passed to function 'log2'"),
    ("(int)'abc'", "Cannot convert type 4 to int"), ("(int)'12abc'", "Cannot convert type 4 to int"),
    ("(int)1e10", "Cannot convert type 2 to int"), ("(double)'x'", "Cannot convert type 4 to double"),
    ("(qualifier)1", "Cannot convert type 1 to qualifier"),
    ("5/0", "Integer division by zero"), ("$80000000/(-1)", "Integer quotient does not fit in 32 bits"),
    ("1<<32", "Shift count should be 0..31 not 32"), ("1>>(0-1)", "Shift count should be 0..31 not -1"),
]


@pytest.mark.parametrize("text, error", ERRORS)
def test_errors(shared, text, error):
    assert shared.errors(text) == ["! " + error, "! Unexpected character in input", "* -1"]
    assert shared.errors("set-int 'n' " + text) == [
        "! " + error, "! Unknown character found in the arguments", "* -1"]


NOPE = "Cannot find variable nope"


@pytest.mark.parametrize("text, errors", [  # an error is a value of type 0
    ("1+%nope", [NOPE, "Cannot add type 1 and 0"]), ("-%nope", [NOPE, "Cannot negate type 0"]),
    ("(string)(1/0)", ["Integer division by zero", "Cannot convert type 0 to string"]),
    ("sin(nope)", [NOPE, "Illegal Function argument type 0 passed to function 'sin'"]),
    ("(nope)?(s=1):(s=2)", [NOPE, "Control type for ternay must be integer, not 0"]),
    ("(1+nope)||(s=3)", [NOPE, "Cannot add type 1 and 0", "Cannot perfrom integer only operation on type 0 and 1"]),
    ("s=nope", [NOPE]), ("(foo)-3", ["Cannot recognise cast (foo), expect (int), (double) or (string)",
                                     "Cannot sub type 0 and 1"]),
    ("1+(2*(3-'a'))", ["Cannot sub type 1 and 4", "Cannot mult type 1 and 0", "Cannot add type 1 and 0"]),
])
def test_errors_go_on_to_the_end_of_the_expression(client, text, errors):
    client.cmd("s=0")
    assert client.errors(text) == ["! " + error for error in errors] + ["! Unexpected character in input", "* -1"]
    assert client.lines("%s") == ["* 3" if "s=3" in text else "* 0"]


@pytest.mark.parametrize("text", [
    "1<<(-1)", "1>>32", "2147483648", "99999999999999999999", "$100000000",
    "#" + 33 * "1", "0&&(1/0)", "1||(1/0)",  # both sides are worked out
    "1+", "*2", "(1", "1)", "1?2", "1?2:", "1:2", "'open", '"open', "''x", "1..2", "1e", "$", "$G", "#2", "#", "%", "()",
    "1++", "1 +", "sin(", "sin()", "sin(1", "sin(1,2)", "(string'%n')5", "(string'%*d')5", "(string'%d%d')5",
    "(string'%s%d')5", "(string'')5", "(string'%')5", "(string'%s%s')'x'", "&&", "1=2", "1==", "'a'='b'",
    "5!", "~1.5", "~'a'", "!'a'", "1x", "(int)", "(int'%d')5", "@", "=5",
])
def test_what_has_no_value_is_refused(shared, text):
    errors = shared.errors("set-int 'n' " + text)
    assert errors[-1] == "* -1" and errors[0].startswith("! "), errors
    assert shared.lines("7") == ["* 7"]


@pytest.mark.parametrize("text", ["1+nope", "1+%nope", "(nope)", "-nope", "1?nope:2"])
def test_a_variable_that_does_not_exist(shared, text):
    errors = shared.errors("set-int 'n' " + text)
    assert errors[0] in ("! Cannot find variable nope", "! Undefined Variable 'nope'") and errors[-1] == "* -1"


def test_variables_in_expressions(client):
    for line in "set-int 'n' 5", "set-double 'd' 2.5", "set-string 's' 'ab'", "set-int '1' 7", "set-int 'r.x_y' 9":
        assert client.lines(line) == ["* 0"]
    for text, result in [("%n", "5"), ("%n+1", "6"), ("1+n", "6"), ("1+%n", "6"), ("(n)", "5"), ("(n+1)*2", "12"),
                         ("(n)-1", "4"), ("-n", "-5"), ("%n*%d", "12.5"), ("%s+'c'", '"abc"'), ("%1+%1", "14"),
                         ("%r.x_y+1", "10"), ("1+r.x_y", "10"), ("%n==5?'yes':'no'", '"yes"'), ("log2(n+3)", "3"),
                         ("(string)n+s", '"5ab"'), ("1?n:0", "5")]:
        assert client.lines(text) == ["* " + result], text
    assert client.lines("echo %s+'c'") == ["abc", "* 0"]
    assert client.errors("%N") == ["! Undefined Variable 'N'", "* -1"]  # names keep their case


def test_assignment(client):
    for text, result in [("n=5", "5"), ("n=%n+1", "6"), ("n=n*2", "12"), ("%n", "12"), ("n='text'", '"text"'),
                         ("%n+'s'", '"texts"'), ("n=2.5", "2.5"), ("n=-1", "-1"), ("%n", "-1"), ("n=1==1", "1"),
                         ("1+(v=4)*2+v", "13")]:
        assert client.lines(text) == ["* " + result], text
    assert client.lines("eval int k=4 %k+1 add") == ["* 9"]  # items are worked out from the left
    assert client.lines("eval int j=8 'x'")[-1] == "* -1"
    assert client.lines("%j") == ["* 8"]  # an error later in the line leaves it


def test_a_string_cannot_grow_without_end(client):
    client.cmd("s='0123456789'")
    replies = [client.errors("set-string 's' %s+%s") for _ in range(20)]
    assert replies[15] == ["* 0"]
    assert replies[16] == ["! String longer than 1048576 characters",
                           "! Unknown character found in the arguments", "* -1"]


def test_time_is_the_time_of_day(shared):
    before = time.time()
    (line,) = shared.lines("(string'%.6f')time(0)")
    now = float(re.fullmatch(r'\* "(\d+\.\d{6})"', line)[1])
    assert before - 1 <= now <= time.time() + 1


@pytest.mark.parametrize("open_, close", [("(", ")"), ("-", ""), ("(int)", ""), ("sin(", ")"), ("1?", ":2"), ("!", "")])
def test_nesting_is_deep_but_bounded(shared, open_, close):
    def nested(depth):
        return open_ * depth + "1" + close * depth
    (line,) = shared.lines(nested(199))
    assert line.startswith("* ")
    last = shared.lines(nested(min(1015 // len(open_ + close), 600)))[-1]
    assert last.startswith("* ") if open_ != "(" else last == "* -1"
    assert shared.lines("7") == ["* 7"]
