"""A telnet client: negotiation, and the line editor as the user's screen shows it."""
import fcntl
import os
import pty
import random
import re
import select
import struct
import subprocess
import termios
import time

import pytest
from kestrel_session import DO, DONT, IAC, NAWS, SB, SE, WAIT, WILL, WONT, Telnet

UP, DOWN, RIGHT, LEFT = "\x1b[A", "\x1b[B", "\x1b[C", "\x1b[D"
HOME, END, DELETE = "\x1b[H", "\x1b[F", "\x1b[3~"


def ctrl(letter):
    return chr(ord(letter) - 64)


@pytest.fixture
def telnet(server):
    return server.client(Telnet)


@pytest.fixture
def typing(shared_server):
    telnet = shared_server.client(Telnet)
    yield telnet
    telnet.close()


def enter(telnet, keys):
    """Types the keys and ENTER; the lines of the reply that follows the edited line."""
    telnet.send(keys + "\r")
    telnet.recv_until("\r\n")
    return telnet.recv_prompt().decode("latin-1").split("\r\n")[:-1]


def test_the_server_asks_for_its_four_options_once(server, telnet):
    wanted = [(DONT, 34), (WILL, 1), (WILL, 3), (DO, 31)]
    assert enter(telnet, "7") == ["* 7"]
    assert telnet.options == wanted
    telnet.send(bytes([IAC, DO, 1, IAC, DO, 3, IAC, WONT, 34, IAC, DONT, 5, IAC, WILL, 24, IAC, 241]))
    assert enter(telnet, "8") == ["* 8"]
    assert telnet.options == wanted
    server.wait_stdout("Sending don't line mode, will echo, will supress-go-ahead, do_naws\n"
                       "Rcv: DO 01\nRcv: DO 03\nRcv: WONT 22\nRcv: DONT 05\n")


def test_negotiation_may_come_in_pieces_and_inside_a_line(telnet):
    for byte in b"1\xff\xfd\x012\xff\xfa\x1f\x00\x50\x00\x18\xff\xf03":
        telnet.send(bytes([byte]))
    assert enter(telnet, "") == ["* 123"]


def test_the_session_before_negotiation_is_a_plain_one(server):
    client = server.client()
    assert client.cmd("7") == b"* 7\r\n"
    client.send(bytes([IAC, WILL, 31]))
    assert client.recv_until(bytes([IAC, DO, 31])) == bytes([IAC, DONT, 34, IAC, WILL, 1, IAC, WILL, 3, IAC, DO, 31])
    client.send("7\r\n")
    client.recv_until("\r\n* 7\r\n> ")


@pytest.mark.parametrize("report, shown", [
    (b"\0\x50\0\x18", "(80, 24)"), (b"\x01\x02\x03\x04", "(258, 772)"), (b"\0\xff\xff\0\x10", "(255, 16)"),
    (b"\xff\xff\xff\xff\0\x10", "(65535, 16)"), (b"\0\x50\0\xf0", "(80, 240)"),  # 240 as a height is no end
    (b"\0\x50", None),  # cut short
])
def test_window_size_is_reported(server, telnet, report, shown):
    telnet.send(bytes([IAC, SB, NAWS]) + report + bytes([IAC, SE]))
    assert enter(telnet, "7") == ["* 7"]
    assert re.findall(r"^NAWS (.*)$", server.stdout, re.M) == ([shown] if shown else [])


def test_the_telnet_program_edits_in_the_server(server):
    master, slave = pty.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 60, 0, 0))
    telnet = subprocess.Popen(["telnet", "--", "localhost", f"-{server.port}"], stdin=slave, stdout=slave, stderr=slave)
    os.close(slave)
    server.wait_stdout(r"NAWS \(60, 24\)\n")
    os.write(master, b"eval i\t 13" + b"\x02" + b"2\r")
    seen = b""
    while b"\r\n* 123\r\n> " not in seen:
        assert select.select([master], [], [], WAIT)[0], seen
        seen += os.read(master, 4096)
    os.write(master, b"quit\r")
    telnet.wait(WAIT)
    os.close(master)


@pytest.mark.parametrize("piece", [100, 1])
@pytest.mark.parametrize("keys, result", [
    ("23" + ctrl("A") + "1", 123),
    ("23" + HOME + "1", 123),
    ("23\x1bOH1", 123),
    ("12" + ctrl("A") + ctrl("E") + "3", 123),
    ("12" + ctrl("A") + END + "3", 123),
    ("12" + ctrl("A") + "\x1bOF3", 123),
    ("13" + ctrl("B") + "2", 123),
    ("13" + LEFT + "2", 123),
    ("23" + 9 * ctrl("B") + "1", 123),
    ("12" + ctrl("A") + 2 * ctrl("F") + "3", 123),
    ("12" + ctrl("A") + 9 * RIGHT + "3", 123),
    ("129\x7f3", 123),
    ("129" + ctrl("H") + "3", 123),
    ("1293" + LEFT + "\x7f", 123),
    (5 * "\x7f" + "123", 123),
    ("9123" + ctrl("A") + ctrl("D"), 123),
    ("1923" + ctrl("A") + RIGHT + DELETE, 123),
    ("123" + DELETE + ctrl("D"), 123),  # nothing under the cursor
    ("12399" + 2 * LEFT + ctrl("K"), 123),
    ("999" + ctrl("U") + "123", 123),
    ("99" + LEFT + ctrl("U") + "123", 123),
    ("zz" + ctrl("W") + "123", 123),
    ("zz  zz " + 2 * ctrl("W") + "123", 123),
    ("123" + ctrl("A") + ctrl("W"), 123),
    ("132" + LEFT + ctrl("T"), 123),
    ("1324" + 2 * LEFT + ctrl("T") + "\x7f\x7f23", 1234),  # it has moved right
    ("123" + ctrl("T"), 123),  # not at the end of the line
    ("123" + ctrl("A") + ctrl("T"), 123),
    ("123" + ctrl("L"), 123),
    ("12\x1b[Z\x1bOZ\x1b[9~\x1b[1;5C\x1b[15~3", 123),  # sequences of no meaning here
    ("1\x1b3\x1b" + LEFT + "2", 123),  # a lone escape
    ("1\x07\x16\x1d2" + ctrl("C") + "3", 123),  # control bytes that are no text
    ("'\xc3\xa4'", '"\xc3\xa4"'), ("1\xff\xff\x7f23", 123),  # high bytes are; 255 comes twice
    ("1\xff\xf12\xff\xfa\x18\x1fxterm\x1f\xff\xf0\xff\xfc\x223", 123),  # telnet commands in between
    ("", None),
    # completion
    ("EVAL i\t 7", 7), ("eval \t\t 7", 7), ("radi\t", 10),
    ("ev\t int 7", 7), ("ev\t\t\t int 7", 7),  # a single candidate, the line as typed, the candidate again
    ("eval i\t\x1bnt 7", 7), ("eval i\t" + LEFT + RIGHT + "nt 7", 7),  # the line as typed
    ("ev\t\x1bO=7", 7), ("'12'\t\x1b" + ctrl("A") + "\x1bOF+'3'", '"123"'),
    ("eval i\t\x7ft 7", 7), ("eval i 7" + 2 * LEFT + "\t", 7), ("eval i\t\xff\xf1 7", 7),
])
def test_editing_keys(typing, keys, result, piece):
    for at in range(0, len(keys), piece):
        typing.send(keys[at:at + piece])
        time.sleep(0 if piece > 1 else 0.001)
    assert enter(typing, "") == ([f"* {result}"] if result is not None else [])


def test_a_candidate_that_would_not_fit_is_not_offered(telnet):
    assert enter(telnet, "rad" + 1021 * " " + HOME + 3 * RIGHT + "\t")[-1] == "* -1"


def test_control_d_on_an_empty_line_disconnects(server, telnet):
    telnet.send("1\x7f" + ctrl("D"))
    telnet.expect_closed()
    assert server.client().cmd("7") == b"* 7\r\n"


@pytest.mark.parametrize("end", ["\r\n", "\r\0", "\n", "\r", "\n\r"])
def test_each_kind_of_enter_is_one(telnet, end):
    for n in range(3):
        telnet.send(f"{n}{end}")
        telnet.recv_until(f"\r\n* {n}\r\n> ")
    telnet.expect_silence()


def test_history(server, telnet):
    for n in "1", "2", "3":
        enter(telnet, n)
    enter(telnet, "")
    assert enter(telnet, 2 * UP) in (["* 2"], ["* 3"])  # whether the empty line was kept is no matter
    assert enter(telnet, "4") == ["* 4"]
    assert enter(telnet, UP) == ["* 4"]
    assert enter(telnet, "5" + ctrl("P") + ctrl("N") + "6") == ["* 56"]  # the line being typed comes back
    assert enter(telnet, 500 * UP + 500 * DOWN + "7") == ["* 7"]
    assert enter(telnet, 500 * ctrl("P")) == ["* 1"]
    assert enter(server.client(Telnet), UP) == [], "another session has its own"


def test_history_keeps_a_hundred_lines(telnet):
    for n in range(1, 151):
        enter(telnet, str(n))
    assert enter(telnet, 500 * UP) in (["* 51"], ["* 52"])


def test_the_line_before_negotiation_and_its_history_are_kept(server):
    client = server.client()
    assert client.lines("7") == ["* 7"]
    client.send("8\xff\xf19\r")
    client.recv_until("\r\n* 89\r\n> ")
    client.send(UP + "\r")
    client.recv_until("\r\n* 89\r\n> ")


# ---------------------------------------------------------------- the screen

class Line:
    """What keys make of a line and its cursor, with the lines before it."""

    def __init__(self):
        self.text, self.at, self.history, self.back, self.typed = "", 0, [], 0, ""

    def go_back(self, steps):
        if not 0 <= self.back + steps <= len(self.history):
            return
        if self.back == 0:
            self.typed = self.text
        self.back += steps
        self.text = self.history[-self.back] if self.back else self.typed
        self.at = len(self.text)

    def press(self, key):
        text, at = self.text, self.at
        left, right = max(at - 1, 0), min(at + 1, len(text))
        word = text.rfind(" ", 0, len(text[:at].rstrip())) + 1
        swapped = text[:left] + text[at:right] + text[left:at] + text[right:]
        if key in (UP, ctrl("P")):
            self.go_back(1)
        elif key in (DOWN, ctrl("N")):
            self.go_back(-1)
        elif key == "\r":
            self.history = [*self.history, text][-100:]
            self.text, self.at, self.back = "", 0, 0
        else:
            self.text, self.at = {
                ctrl("A"): (text, 0), ctrl("E"): (text, len(text)), ctrl("L"): (text, at),
                ctrl("B"): (text, left), LEFT: (text, left), ctrl("F"): (text, right), RIGHT: (text, right),
                ctrl("H"): (text[:left] + text[at:], left), DELETE: (text[:at] + text[right:], at),
                ctrl("K"): (text[:at], at), ctrl("U"): ("", 0), ctrl("W"): (text[:word] + text[at:], word),
                ctrl("T"): (swapped, right) if 0 < at < len(text) else (text, at),
            }.get(key, (text[:at] + key + text[at:], at + 1))


KEYS = [*"ab ", *map(ctrl, "ABEFHLPNTWUK"), UP, DOWN, LEFT, RIGHT, DELETE, "\r"]


@pytest.mark.parametrize("cols", [3, 5, 10, 40, 80, 300])
def test_the_screen_stays_true_under_random_keys(server, telnet, cols):
    chance, line, top = random.Random(cols), Line(), 0
    telnet.screen.cols = cols
    if cols != 40:  # the width until the client tells its own
        telnet.window(cols)
    for i in range(3000):
        # First a line of several rows; then letters are likelier, that lines grow again.
        key = chance.choice(KEYS[:3] if i < 2 * cols or chance.random() < 0.6 else KEYS)
        telnet.buffer = b""
        telnet.send(key)
        line.press(key)
        if key == "\r":
            telnet.recv_prompt()
            top = telnet.screen.row
        elif key == ctrl("L"):
            telnet.recv_until("\x1b[2J")
            top = 0
        shown, cursor = "> " + line.text, divmod(2 + line.at, cols)
        rows = [shown[i:i + cols].rstrip() for i in range(0, len(shown) + 1, cols)]
        while len(rows) > cursor[0] + 1 and not rows[-1]:
            rows.pop()
        telnet.expect_screen(rows, cursor)
        assert telnet.screen.row - cursor[0] == top


def test_a_typed_password_shows_as_stars(telnet):
    telnet.send("ftp password 'secrex\bt' x" + ctrl("A") + RIGHT)
    telnet.expect_screen(["> ftp password '******' x"], (0, 3))
    assert b"sec" not in telnet.buffer


def test_a_line_that_is_executed_from_its_first_row_keeps_its_rows(telnet):
    telnet.send("'" + 50 * "x" + "'" + HOME + "\r")
    telnet.screen.cols = 40
    telnet.expect_screen(["> '" + 37 * "x", 13 * "x" + "'", '* "' + 37 * "x", 13 * "x" + '"', ">"], (4, 2))


def test_a_width_of_nothing_keeps_the_old_one(telnet):
    telnet.window(30)
    telnet.window(0, screen=False)
    telnet.send("'" + 40 * "x")
    telnet.expect_screen(["> '" + 27 * "x", 13 * "x"], (1, 13))


def test_a_full_line_beeps(telnet):
    telnet.window(80)
    text = "'" + 1023 * "x"
    telnet.send(text + "y" + "\x7f'\r")
    telnet.recv_until('* "' + 1022 * "x" + '"\r\n> ')
    assert telnet.screen.bells == 1


# ---------------------------------------------------------------- completion

def test_tab_offers_each_candidate_in_turn(telnet):
    telnet.send("SET-\t")
    for name in "set-func", "set-int", "set-double", "set-string", "set-qualifier":
        telnet.expect_screen([f"> {name}"], (0, 2 + len(name)))
        assert telnet.screen.bells == 0
        telnet.send("\t")
    telnet.expect_screen(["> SET-"], (0, 6), bells=1)  # as typed
    telnet.send("\t\t")
    telnet.expect_screen(["> set-int"])
    telnet.send("\x1b")
    telnet.expect_screen(["> SET-"], (0, 6))


def test_completion_walks_the_tree(telnet):
    telnet.send("eval \t")
    telnet.expect_screen(["> eval int"])
    telnet.send(ctrl("U") + "eval int \t")  # a command has been reached
    telnet.expect_screen(["> eval int"], (0, 11), bells=1)
    telnet.send(ctrl("U") + "zzz\t")
    telnet.expect_screen(["> zzz"], (0, 5), bells=2)
    telnet.send(ctrl("U") + "\t")  # nothing typed: the first of all
    telnet.expect_screen(["> chd"])


# ---------------------------------------------------------------- echo-on, input

def test_echo_on_measures_the_terminal(server):
    client = server.client()
    client.send("echo-on\n")
    client.recv_until("\x1b[6n")
    client.send("\x1b[5;1R")
    client.recv_until("\x1b[999C")
    client.recv_until("\x1b[6n")
    client.send("\x1b[5;61R")
    client.recv_match(rb"\x1b\[\d+D")
    client.recv_until("* 0\r\n> ")
    client.send("7\r")
    client.recv_until("\r\n* 7\r\n> ")


def test_echo_on_gives_up_on_a_terminal_that_does_not_answer(server):
    client = server.client()
    client.send("echo-on\n")
    client.recv_until("* 0\r\n> ")
    client.send("echo-off\r")
    client.recv_until("* 0\r\n> ")
    assert client.cmd("7") == b"* 7\r\n"


def test_input_echoes_what_a_telnet_user_types(telnet):
    telnet.send("input 'name? ' 'v'\r")
    telnet.recv_until("\r\nname? ")
    telnet.send("\x7f\x7fab\xff\xf1d\x7f")
    telnet.recv_until("abd\b \b")
    telnet.send("c\r")
    telnet.recv_until("> ")
    assert enter(telnet, "echo %v") == ["abc", "* 0"]
