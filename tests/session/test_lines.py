"""From bytes to command lines in a plain session: line ends, dropped bytes, lengths, pieces."""
import time

import pytest


@pytest.mark.parametrize("sent, texts", [
    ("echo 'a'\necho 'b'\n", "ab"),
    ("echo 'a'\r\necho 'b'\r\n", "ab"),
    ("echo 'a'\n\recho 'b'\n\r", "ab"),
    ("echo 'a'\recho 'b'\r", "ab"),
    ("echo 'a'\r\necho 'b'\n", "ab"),  # no empty line between them
    ("echo 'a'\n\recho 'b'\r", "ab"),
    ("echo 'a'\n\necho 'b'\n", "a-b"),
    ("echo 'a'\r\recho 'b'\r", "a-b"),
    ("echo 'a'\r\n\r\necho 'b'\r\n", "a-b"),
    ("echo 'a'\n\r\n\recho 'b'\n", "a-b"),
    ("\r\n\r\necho 'a'\r\n", "--a"),
    ("  \t \necho 'a'\n", "-a"),  # blanks only: an empty command
])
def test_a_pair_of_cr_and_lf_ends_one_line(shared, sent, texts):
    shared.send(sent)
    for text in texts:
        assert shared.recv_prompt() == (b"" if text == "-" else b"%c\r\n* 0\r\n" % ord(text))
    shared.expect_silence(0.05)


def test_the_second_half_of_a_pair_may_come_late(shared):
    for end, late in ("\r", "\n"), ("\n", "\r"):
        shared.send("echo 'a'" + end)
        assert shared.recv_prompt() == b"a\r\n* 0\r\n"
        shared.send(late)
        shared.expect_silence(0.05)
        assert shared.cmd("7") == b"* 7\r\n"


@pytest.mark.parametrize("sent, reply", [
    (b"\0ec\0ho\0 'a'\0\n\0", b"a\r\n* 0\r\n"),
    (b"echp\x08o 'a'\n", b"a\r\n* 0\r\n"),
    (b"echp\x7fo 'a'\n", b"a\r\n* 0\r\n"),
    (b"\x08\x7f\x08echo 'a'\n", b"a\r\n* 0\r\n"),  # nothing to remove
    (b"nonsense" + 10 * b"\x7f" + b"7\n", b"* 7\r\n"),
    (b"echo 'caf\xc3\xa9 \xfe'\n", b"caf\xc3\xa9 \xfe\r\n* 0\r\n"),
    (b"echo 'a\tb'\n", b"a\tb\r\n* 0\r\n"),
])
def test_bytes_that_are_dropped_or_remove_others(shared, sent, reply):
    shared.send(sent)
    assert shared.recv_prompt() == reply


def test_a_line_may_come_byte_by_byte(shared):
    for byte in "echo 'slow'\r\n":
        shared.send(byte)
        time.sleep(0.002)
    assert shared.recv_prompt() == b"slow\r\n* 0\r\n"


def test_a_line_of_1024_characters_is_served(client):
    text = "x" * (1024 - len("echo ''"))
    assert client.lines(f"echo '{text}'") == [text, "* 0"]
    # characters that were removed again do not count
    client.send(b"y" * 1024 + b"\x7f" * 1024)
    assert client.lines(f"echo '{text}'") == [text, "* 0"]


def test_a_line_of_1025_characters_ends_the_server(server):
    other, client = server.client(), server.client()
    client.send("x" * 1025)
    assert server.wait_exit() == 1
    assert server.stderr == "server: Client input line is longer than 1024 chars\n"
    client.expect_closed()
    other.expect_closed()


def test_many_lines_sent_at_once_are_answered_in_order(shared):
    shared.send("".join(f"eval int {i}\n" for i in range(2000)))
    for i in range(2000):
        assert shared.recv_prompt() == b"* %d\r\n" % i


def test_sessions_take_turns_line_by_line(server):
    first, many, one = server.client(), server.client(), server.client()
    first.send("system 'until test -e go; do sleep 0.01; done'\n")
    server.wait_until_busy()
    many.send("sleep 0.02\n" * 99 + "system 'touch last'\n")
    one.send("system 'test -e last'\n")
    server.write("go", "")
    assert one.recv_prompt() == b"* 1\r\n"  # does not wait for all hundred
    for _ in range(100):
        assert many.recv_prompt() == b"* 0\r\n"
