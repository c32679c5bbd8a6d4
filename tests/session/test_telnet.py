"""A telnet client: negotiation, and the line editor as the user's screen shows it."""
import fcntl
import os
import pty
import select
import struct
import subprocess
import termios

import pytest
from kestrel_session import DO, DONT, IAC, SB, SE, WAIT, WILL, WONT, Telnet

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


def test_the_server_asks_for_its_four_options_once(telnet):
    wanted = [(DONT, 34), (WILL, 1), (WILL, 3), (DO, 31)]
    assert enter(telnet, "7") == ["* 7"]
    assert telnet.options == wanted
    telnet.send(bytes([IAC, DO, 1, IAC, DO, 3, IAC, WONT, 34, IAC, DONT, 5, IAC, WILL, 24, IAC, 241]))
    assert enter(telnet, "8") == ["* 8"]
    assert telnet.options == wanted


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


def test_window_size_is_reported(server, telnet):
    telnet.window(132, 50)
    server.wait_stdout(r"NAWS \(132, 50\)\n")
    telnet.window(300, 256, screen=False)
    server.wait_stdout(r"NAWS \(300, 256\)\n")
    assert enter(telnet, "7") == ["* 7"]


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
    ("132" + LEFT + ctrl("T"), 123),
    ("1324" + 2 * LEFT + ctrl("T") + "\x7f\x7f23", 1234),  # it has moved right
    ("123" + ctrl("T"), 123),  # not at the end of the line
    ("123" + ctrl("A") + ctrl("T"), 123),
    ("123" + ctrl("L"), 123),
    ("12\x1b[Z\x1bOZ\x1b[9~3", 123),  # sequences of no meaning here
    ("", None),
])
def test_editing_keys(typing, keys, result):
    assert enter(typing, keys) == ([f"* {result}"] if result is not None else [])


def test_control_c_leaves_the_line(telnet):
    telnet.send("12" + ctrl("C"))
    telnet.expect_screen(["> 12"], (0, 4))
    assert enter(telnet, "3") == ["* 123"]


def test_control_d_on_an_empty_line_disconnects(server, telnet):
    telnet.send("1\x7f" + ctrl("D"))
    telnet.expect_closed()
    assert server.client().cmd("7") == b"* 7\r\n"


@pytest.mark.parametrize("end", ["\r\n", "\r\0", "\n", "\r"])
def test_each_kind_of_enter_is_one(telnet, end):
    for n in range(3):
        telnet.send(f"{n}{end}")
        telnet.recv_until(f"\r\n* {n}\r\n> ")
    telnet.expect_silence()


def test_history(telnet):
    for n in "1", "2", "3":
        enter(telnet, n)
    enter(telnet, "")
    assert enter(telnet, 2 * UP) in (["* 2"], ["* 3"])  # whether the empty line was kept is no matter
    assert enter(telnet, "4") == ["* 4"]
    assert enter(telnet, UP) == ["* 4"]
    assert enter(telnet, "5" + ctrl("P") + ctrl("N") + "6") == ["* 56"]  # the line being typed comes back
    assert enter(telnet, 500 * UP + 500 * DOWN + "7") == ["* 7"]
    assert enter(telnet, 500 * ctrl("P")) == ["* 1"]


def test_history_keeps_a_hundred_lines(telnet):
    for n in range(1, 151):
        enter(telnet, str(n))
    assert enter(telnet, 500 * UP) in (["* 51"], ["* 52"])


def test_history_is_the_session_s_own(server):
    first, second = server.client(Telnet), server.client(Telnet)
    enter(first, "111")
    assert enter(second, UP) == []


# ---------------------------------------------------------------- the screen

def test_the_line_is_drawn_as_it_is_edited(telnet):
    telnet.send("echo 'abd'")
    telnet.expect_screen(["> echo 'abd'"], (0, 12))
    telnet.send(2 * LEFT + "c")
    telnet.expect_screen(["> echo 'abcd'"], (0, 11))
    telnet.send(ctrl("A") + ctrl("K"))
    telnet.expect_screen([">"], (0, 2))
    telnet.send("7\r")
    telnet.expect_screen(["> 7", "* 7", ">"], (2, 2))


def test_control_l_clears_the_screen(telnet):
    enter(telnet, "7")
    telnet.send("12" + LEFT + ctrl("L"))
    telnet.expect_screen(["> 12"], (0, 3))
    assert telnet.screen.row == 0


@pytest.mark.parametrize("cols", [40, 80, 23, 300])
def test_a_long_line_is_drawn_over_several_rows(telnet, cols):
    if cols != 40:  # the width until the client tells its own
        telnet.window(cols)
    telnet.screen.cols = cols
    text = "'" + "".join(chr(97 + n % 26) for n in range(cols + cols // 2)) + "'"

    def rows(text):
        shown = "> " + text
        return [shown[i:i + cols] for i in range(0, len(shown), cols)] + ([""] if len(shown) % cols == 0 else [])

    telnet.send(text)
    telnet.expect_screen(rows(text), divmod(2 + len(text), cols))
    telnet.send(HOME + 3 * RIGHT + "XYZ")  # the rest moves on
    text = text[:3] + "XYZ" + text[3:]
    telnet.expect_screen(rows(text), (0, 8))
    telnet.send(END + (len(text) - cols) * "\x7f")  # the lower rows go
    text = text[:cols]
    telnet.expect_screen(rows(text), divmod(2 + cols, cols))
    telnet.send("\x7f\x7f")
    telnet.expect_screen(rows(text[:-2]), (1, 0))
    telnet.send(ctrl("U") + "7\r")
    telnet.expect_screen(["> 7", "* 7", ">"], (2, 2))


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


def test_another_key_takes_the_candidate(telnet):
    telnet.send("set-\t\t 'n' 5\r")
    telnet.expect_screen(["> set-int 'n' 5", "* 0", ">"], (2, 2))


def test_completion_walks_the_tree(telnet):
    assert enter(telnet, "EVAL i\t 7") == ["* 7"]
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
    telnet.send("abd\x7fc\r")
    telnet.recv_until("> ")
    assert enter(telnet, "echo %v") == ["abc", "* 0"]
