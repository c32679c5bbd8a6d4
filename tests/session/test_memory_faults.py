"""A server in which one allocation fails, each in turn: a line ends in an error or works, a session ends at most, and
nothing is left behind. Runs build/kestrel_faults (tests/faults), whose memory obeys a file that this test maps."""
import mmap
import os
import re
import socket
import struct
import time

import kestrel_data
import kestrel_session
import pytest
from kairo_peer import KairoPeer
from kestrel_data import do
from kestrel_session import Client, Telnet, wait_until

PROGRAM = os.environ.get("KESTREL_WITH_FAULTS", str(kestrel_session.ROOT / "build" / "kestrel_faults"))


class Memory:
    """The file that says which allocation fails: (allocations left, failures so far)."""

    def __init__(self, path):
        path.write_bytes(bytes(4096))
        with open(path, "r+b") as file:
            self.map = mmap.mmap(file.fileno(), 4096)

    def fail(self, number):
        """The allocation with this number from now on fails; 0: none."""
        self.map[:8] = struct.pack("q", number)

    def failures(self):
        return struct.unpack("q", self.map[8:16])[0]


@pytest.fixture
def memory(tmp_path):
    return Memory(tmp_path / "faults")


@pytest.fixture
def server(start, memory, tmp_path):
    return start(program=PROGRAM, env={"KESTREL_FAULTS": str(tmp_path / "faults")})


# Each try has a number of its own in place of N, so that what a line makes is always new; M is a module's name,
# MODULE, SOURCE one that exists, and HANDLE a handle on it. A line may leave what the lines behind it take away.
LINES = {
    "expression": ["eval int (1+2*(3-4))*7"],
    "text": ["echo 'a'+'b'+(string)17+'a longer text that needs memory of its own'"],
    "value": ["'a longer text that needs memory of its own'+'x'"],
    "unknown word": ["a_word_that_is_no_command_at_all_and_is_long 5"],
    "undefined variable": ["echo a_variable_that_is_not_there_and_is_long"],
    "help": ["module create ?"],
    "choices": ["module ?"],
    "set-int": ["set-int 'a_variable_with_a_long_name_N' 5+N"],
    "set-double": ["set-double 'a_variable_with_a_long_name_N' 2.5*N"],
    "set-string": ["set-string 'a_variable_with_a_long_name_N' 'a longer text that needs memory of its own N'"],
    "set-qualifier": ["set-qualifier 'a_variable_with_a_long_name_N' 'header_of_a_longer_name_than_others'"],
    "assignment": ["a_variable_with_a_long_name_N='a longer text that needs memory of its own N'+'!'"],
    "set-func": ["set-func 'a_variable_with_a_long_name_N' 'eval string \"a longer text than others\" \"N\"'"],
    "macro": ["macro 'a_macro_with_a_long_name_N' 'echo \"what the macro does is to say this\"'"],
    "macro call": ["@said "],
    "macro-list": ["macro-list"],
    "for": ["include 'for.cmd'"],
    "while": ["include 'while.cmd'"],
    "for-each": ["include 'each.cmd'"],
    "include": ["include 'arguments.cmd' 1 2.5 'a longer text that needs memory of its own' show-returns echo"],
    "short include": ["~arguments 'a' 'b'"],
    "if": ["if N+1 'echo \"the text of a line within a line\"'"],
    "printf": ["printf '%d %s %g and more of what makes a text long' N 'a longer text than others' 2.5 direct"],
    "printf to a file": ["printf 'a longer text that needs memory of its own %d' N file 'printed' append"],
    "password": ["enc-password 'a longer text that needs memory'"],
    "system": ["system 'echo hello hello hello hello hello hello hello'"],
    "status": ["status"],
    "ustatus": ["ustatus"],
    "test open": ["test open 4 4 1 long", "close-all"],
    "module create": ["module create 'M' 5 4 'a label that is not short' header"],
    "module create in 3-d": ["module create 'M' 5 4 header double num-t 3"],
    "module open": ["module open 'SOURCE' header", "close-all"],
    "module copy": ["module copy 'SOURCE' 'M'"],
    "module resize": ["module resize 'SOURCE' 8 6"],
    "module points": ["module set-point 'SOURCE' 1 1 5"],
    "module save": ["module save 'SOURCE' 'saved_N'"],
    "module load": ["module load 'rows' 'M' open-quals 'ascii'"],
    "file open": ["file open 'rows' ascii", "close-all"],
    "next index": ["file get-next-index 'N_folder'"],
    "kiln header": ["file write-kiln-header 'N_folder' 5 'a comment that is not short' saxs-x 8 first 'A' var 'v'"],
    "kiln query": ["file write-kiln-header 'N_folder' 0 first 'A' query"],
    "read to nobody": ["read 0 0 0 8 6 1 from HANDLE"],
    "read to a file": ["read 0 0 0 8 6 1 from HANDLE float motorola to-local-file 'out_N'"],
    "read as rows": ["read 0 0 0 8 6 1 from HANDLE to-local-file 'out_N'"],
    "read as columns": ["read 0 0 0 8 6 1 from HANDLE asc-col to-local-file 'out_N'"],
    "read to a module": ["read 0 0 0 8 6 1 from HANDLE to-module 'M'"],
    "read as gel": ["read 0 0 0 8 6 1 from HANDLE gel to-local-file 'out_N'"],
    "clear": ["clear HANDLE 0 0 0 2 2 1"],
    "sizes": ["unif-get-nx HANDLE"],
    "correction": ["unif-set-correction HANDLE 'SOURCE' mult1d"],
    "accumulate": ["maths accumulate HANDLE 0 0 0 7 5 0"],
    "integrate": ["maths integrate HANDLE 0 0 0 7 5 0 x module 'M'"],
    "centroid": ["maths centroid HANDLE 0 0 0 7 5 0 x module 'M'"],
    "re-bin": ["maths re-bin HANDLE 0 0 0 7 5 0 x 2 y 2 module 'M'"],
    "binary-op": ["maths binary-op HANDLE HANDLE 0 0 0 7 5 0 add module 'M'"],
    "measure-peak": ["maths measure-peak HANDLE 0 0 0 7 5 0 'a_variable_with_a_long_name_N' x"],
    "client": ["client status"],
    "links": ["client define '127.0.0.1' 9 user1"],
    "send": ["send user1 'echo 1'"],
}

# Makes a whole module first; one that could not be filled then stays.
FILLED = {"module load"}
REFUSED = {"unknown word", "undefined variable", "help", "choices", "send", "read to nobody"}

SCRIPTS = {
    "for.cmd": ["for 'i' 1 3", "set-int 'n' %i*2", "set-string 't' 'a longer text that needs memory '+(string)%i",
                "next"],
    "while.cmd": ["set-int 'n' 0", "do", "set-int 'n' %n+1", "while (%n<3)"],
    "each.cmd": ["for-each 's' 'one' 'two and some more letters than fit' 'three'", "echo %s", "next"],
    "arguments.cmd": ["echo (string)%nargs+' arguments of a script'", "set-int 'local_of_the_script' 5", "return 7"],
}


@pytest.fixture
def prepared(server, names):
    """Source module, its handle, scripts; and what the lines may use."""
    for name, lines in SCRIPTS.items():
        server.write(name, lines)
    server.write("rows", "1 2 3\n4 5 6\n")
    client = server.client()
    do(client, f"module create '{names('source')}' 8 6 header")
    handle = do(client, f"module open '{names('source')}' header")
    do(client, "macro 'said' 'echo \"what the macro does is to say this\"'")
    do(client, "client define '127.0.0.1' 9 user1")
    return {"SOURCE": names("source"), "HANDLE": str(handle)}


@pytest.mark.parametrize("kind", LINES)
def test_each_allocation_of_a_line_fails_in_turn(server, memory, prepared, names, kind):
    line, *after = LINES[kind]
    other, client = server.client(), server.client()
    module = names("made")
    # Libraries and tables keep what they make once: the first time is not counted. (A command's format is compiled
    # at its first use, and no memory for that ends the server.)
    for attempt in range(-1, 2000):
        text = line
        for word, value in {**prepared, "M'": module + "'", "N": str(max(attempt, 0))}.items():
            text = text.replace(word, value)
        if "N_folder" in line and attempt >= 0:
            (server.cwd / f"{attempt}_folder").mkdir(exist_ok=True)
        memory.fail(max(attempt, 0))
        failed = memory.failures()
        reply = client.lines(text)
        memory.fail(0)
        failed = memory.failures() > failed
        if failed and reply[-1:] == ["* -1"]:
            assert any("!" in text for text in reply), (attempt, reply)
            if os.path.exists("/dev/shm/" + module):
                assert kind in FILLED, (attempt, reply)
                client.lines(f"close {do(client, f'module open {chr(39)}{module}{chr(39)} header')}")
        if attempt > 0 and not failed:
            assert reply[-1] != "* -1" or kind in REFUSED, reply
            assert "ut of memory" not in str(reply) and "allocat" not in str(reply), reply
            break
        for text in after:
            client.lines(text)
        if os.path.exists("/dev/shm/" + module):
            os.unlink("/dev/shm/" + module)
        assert client.lines("1+1") == ["* 2"], attempt
        assert other.lines("eval string 'a' 'b'") == ['* "ab"'], attempt
        if attempt == -1:
            before = kestrel_data.held(server)
        assert kestrel_data.held(server) == before, attempt
    else:
        pytest.fail("every attempt met a failure")
    assert not [name for name in os.listdir(server.cwd) if name.endswith(("~", ".tmp")) or "dummy" in name]


class Attempt:
    """One try: within `with attempt:` one allocation fails."""

    def __init__(self, memory, number):
        self.memory, self.number = memory, number
        self.before = memory.failures()

    def __enter__(self):
        self.memory.fail(self.number)

    def __exit__(self, *_):
        self.memory.fail(0)

    def failed(self):
        return self.memory.failures() > self.before


def each_failure(memory, action, step=1):
    """Calls action(attempt) with each allocation (or one in `step`) failing in turn, until none does any more; says how
    many did.

    The first call has all the memory: a command's format is compiled then, and none for that ends the server."""
    action(Attempt(memory, 0))
    for number in range(1, 1000, step):
        attempt = Attempt(memory, number)
        action(attempt)
        if not attempt.failed():
            return number - 1
    raise AssertionError("every attempt met a failure")


def comes(client, pattern):
    """Waits for a match or for the end of the session; true for a match."""
    while not re.search(pattern, client.buffer, re.S):
        try:
            if not client._fill(time.monotonic() + kestrel_session.WAIT):
                return False
        except ConnectionResetError:
            return False
    return True


def test_a_new_session_without_memory_is_refused_and_the_others_go_on(server, memory):
    other, clients = server.client(), []

    def action(attempt):
        with attempt:
            client = Client(server.port, prompt=False)
            comes(client, b"> $")
        if attempt.failed():
            assert client.expect_closed() == b"! Out of memory, no session can be opened\r\n"
        clients.append(client)  # stays open: a slot that was used before keeps its memory
        assert other.lines("1+1") == ["* 2"]

    assert each_failure(memory, action) >= 1
    for client in clients:
        client.close()
    assert "server: Out of memory, connection 2 refused\n" in server.stderr


# What is sent to a session, and the number of prompts that answer it.
EXCHANGES = {
    "a long line": (b"rem '" + b"x" * 1000 + b"'\n", 1),
    "many lines": (b"1+1\n" * 50, 50),
    "a long reply": (b"status\n", 1),
    "an answer": (b"input 'a_variable_with_a_long_name' 'what is it? '\n" + b"answer" * 100 + b"\n2+2\n", 2),
    "echo-on": (b"echo-on\n\x1b[1;1R\x1b[1;81R", 1),
}


@pytest.mark.parametrize("kind", EXCHANGES)
def test_a_session_without_memory_ends_at_most(server, memory, kind):
    other = server.client()
    sent, prompts = EXCHANGES[kind]

    def action(attempt):
        client = server.client()
        with attempt:
            client.send(sent)
            while open_still := comes(client, b"> $"):
                if client.buffer.count(b"> ") >= prompts:
                    break
                client.buffer += b" "  # waits for more
        if open_still:
            client.send("\n6*7\n" if kind == "echo-on" else "6*7\n")
            assert comes(client, rb"\* 42\r\n> $")
        else:
            assert attempt.failed() and b"! Out of memory, this session is closed\r\n" in client.buffer
        client.close()
        assert other.lines("1+1") == ["* 2"]

    assert each_failure(memory, action) >= 1


def test_names_of_peers_without_memory(server, memory):
    """Each listing has to ask for the name of a peer that it has not seen: on a thread of its own."""
    client = server.client()
    peers = (f"127.0.{a}.{b}" for a in range(1, 9) for b in range(1, 255))

    def action(attempt):
        address = next(peers)
        peer = socket.create_connection(("127.0.0.1", server.port), source_address=(address, 0))
        peer.recv(2)
        with attempt:
            client.lines("status")
        assert any(f":{peer.getsockname()[1]}" in line for line in client.lines("status"))
        peer.close()
        wait_until(lambda: sum("Open" in line for line in client.lines("status")) == 1, "end of the peer")

    assert each_failure(memory, action) >= 3


def test_editing_without_memory_ends_the_session_at_most(server, memory):
    other = server.client()

    def action(attempt):
        client = Telnet(server.port)
        client.window(80)
        client.send(b"echo 'a longer text that needs memory'\r\n")
        client.recv_until("memory\r\n* 0\r\n> ")
        with attempt:
            client.send(b"\x10\x10\x01\x06mod\t\t\x1b\x15set-i\t 'n' 5\r")
            open_still = comes(client, rb"\* (0|-1)\r\n> $")
        assert open_still or attempt.failed()
        client.close()
        assert other.lines("1+1") == ["* 2"]

    assert each_failure(memory, action) >= 5


def test_logs_without_memory(start, memory, tmp_path):
    server = start("-log=c.log", "-vlog=v.log", program=PROGRAM, env={"KESTREL_FAULTS": str(tmp_path / "faults")})
    other = server.client()

    def action(attempt):
        client = server.client()
        with attempt:
            client.send("eval string 'a longer text that needs memory' 'and more of it'\n")
            open_still = comes(client, rb"\* [^\n]*\r\n(! [^\n]*\r\n)?> $")
        assert open_still or attempt.failed()
        client.close()
        assert other.lines("1+1")[-1] == "* 2"

    assert each_failure(memory, action) >= 5


@pytest.mark.parametrize("line", ["config 'x' remote kairo2 max-frames 4", "setup-groups file 'groups'"])
def test_the_timing_unit_without_memory(server, memory, line):
    """The link may be closed, but the next command opens it, and the frame times are whole. Every sixth allocation
    fails: a link that fails is tried again a second later."""
    times = [[1.0, 2.0, 3.0]] * 4
    peer = KairoPeer(times=times, num_tf=3, answers={"kairo read": '* "a longer text that needs memory of its own"'})
    server.write("groups", "3 1 2 0 0 0 0\n-1\n")
    client, other = server.client(), server.client()
    do(client, f"kairo config 'x' remote server '127.0.0.1' port {peer.port}")

    def action(attempt):
        with attempt:
            reply = client.lines("kairo " + line)
        assert reply[-1] not in ("* -1", "* (null)") or attempt.failed() and any("!" in text for text in reply), reply
        assert client.lines("kairo init")[-1] == "* 0" and other.lines("1+1") == ["* 2"]
        assert not os.path.exists("/dev/shm/kairo_times") or kestrel_data.Module("kairo_times").data.shape[1] == 3

    try:
        assert each_failure(memory, action, step=6) >= 10
    finally:
        peer.stop()
        if os.path.exists("/dev/shm/kairo_times"):
            os.unlink("/dev/shm/kairo_times")
