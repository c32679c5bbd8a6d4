"""The Python package against interrupts at any time, threads that close, and peers that do not keep to the rules."""
import asyncio
import os
import pathlib
import pickle
import resource
import signal
import socket
import sys
import threading
import time

import numpy
import pytest

from kestrel_session import SCALE, WAIT, wait_until

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "python" / "src"))
import kestrel
import kestrel.aio
from kestrel._reply import ReplyReader
from kestrel._sockets import readable

TREE = b'* "SIZE 0"\r\n* "DONE"\r\n* 0\r\n'


@pytest.fixture(autouse=True)
def patience(monkeypatch):
    """With a slow server the client is as patient as the tests are, and asks as often."""
    monkeypatch.setattr(kestrel._control, "PATIENCE", kestrel._control.PATIENCE * SCALE)
    monkeypatch.setattr(kestrel._control, "STOPS", int(kestrel._control.STOPS * SCALE))


@pytest.fixture
def k(server):
    with kestrel.connect("127.0.0.1", server.port) as connection:
        yield connection


@pytest.fixture
def filled(k, names):
    """filled(x, y, t) -> (name, elements) of a module: reading it calculates nothing, which no interrupt might reach."""
    def make(*size):
        name = names("filled")
        k.module.create(name, *size[:2], header=True, float=True, num_t=size[2])
        data = kestrel.module(name, writable=True).data
        data[:] = numpy.arange(data.size).reshape(data.shape)
        return name, data
    return make


@pytest.fixture
def peer():
    """peer(reply, ...): a server of this test's own; it answers a line with each of the replies, and closes. A reply that
    is a tuple comes in parts, 0.2 s apart."""
    with socket.create_server(("127.0.0.1", 0)) as listener:
        def begin(*replies, close=True):
            def serve():
                connection, _ = listener.accept()
                connection.sendall(b"> ")
                for reply in replies:
                    if not connection.recv(4096):
                        break
                    first, *others = reply if isinstance(reply, tuple) else (reply,)
                    connection.sendall(first)
                    for part in others:
                        time.sleep(0.2)
                        connection.sendall(part)
                while not close and connection.recv(4096):
                    pass
                connection.close()

            threading.Thread(target=serve, daemon=True).start()
            return listener.getsockname()[1]
        yield begin


@pytest.fixture
def alarm():
    """alarm(seconds): a KeyboardInterrupt then."""
    before = signal.signal(signal.SIGALRM, signal.default_int_handler)
    yield lambda seconds: signal.setitimer(signal.ITIMER_REAL, seconds)
    signal.setitimer(signal.ITIMER_REAL, 0)
    signal.signal(signal.SIGALRM, before)


def test_an_interrupt_between_any_two_steps_leaves_the_session_usable(k, alarm):
    caught = 0
    for i in range(100):
        try:
            alarm(0.001 + 0.0001 * i)
            while True:
                assert k.eval.int(i) == i
        except KeyboardInterrupt:
            caught += 1
        assert [k.eval.int(n) for n in range(3)] == [0, 1, 2]
    assert caught == 100


def test_an_interrupted_box_is_not_taken_for_the_next(k, alarm, filled):
    name, want = filled(2048, 256, 4)
    handle = k.module.open(name, header=True)
    assert (k.read(handle) == want).all()
    for i in range(20):
        try:
            alarm(0.001 + 0.002 * i)
            while True:
                k.read(handle)
        except KeyboardInterrupt:
            pass
        assert (k.read(handle, (1, 2, 3, 5, 4, 1))[0] == want[3, 2:6, 1:6]).all()


def test_a_box_whose_line_the_server_had_not_begun_is_interrupted_too(server, k, alarm, filled):
    name, want = filled(2048, 2048, 4)  # more than the kernel keeps for who does not read
    handle = k.module.open(name, header=True)
    assert (k.read(handle) == want).all()
    server.write("busy.cmd", ["do", "while 1"])
    server.client().send("~busy\n")  # until ^C at the terminal no other session's line begins
    wait_until(lambda: "line ~busy" in kestrel._control.ask(k._control, "status"), "line that runs")
    threading.Timer(1, server.interrupt).start()
    alarm(0.5)
    with pytest.raises(KeyboardInterrupt):
        k.read(handle, (0, 0, 0, 2048, 2048, 4), numpy.float32)
    assert (k.read(handle) == want).all()


def test_a_task_that_is_cancelled_at_any_time_leaves_the_session_usable(server, filled):
    name, want = filled(1024, 256, 4)

    async def main():
        async with await kestrel.aio.connect("127.0.0.1", server.port, timeout=WAIT) as far:
            handle = await far.module.open(name, header=True)
            assert (await far.read(handle) == want).all()

            async def work():
                while True:
                    await far.eval.int(1)
                    await far.read(handle)

            for i in range(30):
                task = asyncio.ensure_future(work())
                await asyncio.sleep(0.001 + 0.0007 * i)
                task.cancel()
                with pytest.raises(asyncio.CancelledError):
                    await task
                assert [await far.eval.int(n) for n in range(3)] == [0, 1, 2]
                assert (await far.read(handle, (i, 2, 3, 5, 4, 1)) == want[3:4, 2:6, i:i + 5]).all()

    asyncio.run(main())


def test_a_client_that_is_slow_between_note_and_data_gets_its_box(k, monkeypatch):
    take = k._take_block

    def late():
        time.sleep(0.05)
        take()

    handle = k.test.open(20, 10, 2, float=True)
    want = k.read(handle)
    monkeypatch.setattr(k, "_take_block", late)
    monkeypatch.setattr(kestrel._blocking, "readable", lambda seconds, *socks: (
        readable(seconds, *socks) if seconds is not None else readable(seconds, *socks[::-1][:1])))
    for x in range(3):  # the reply is looked at first, and holds the prompt already
        assert (k.read(handle, (x, 0, 0, 2, 10, 2)) == want[:, :, x:x + 2]).all()


def test_bytes_of_others_are_in_no_box(server, k):
    def intrude(connection):
        thief = socket.create_connection(connection._listener.getsockname(), source_address=("127.0.0.2", 0))
        thief.sendall(bytes(4096))
        return thief

    handle = k.test.open(20, 10, 2, float=True)
    want = k.read(handle)
    with intrude(k):
        assert (k.read(handle) == want).all() and want.any()

    async def main():
        async with await kestrel.aio.connect("127.0.0.1", server.port, timeout=WAIT) as far:
            own = await far.test.open(20, 10, 2, float=True)
            await far.read(own)
            with intrude(far):
                assert (await far.read(own) == want).all()

    asyncio.run(main())


def test_a_connection_that_is_closed_by_another_thread_or_task_does_not_wait_on(server):
    told = []

    def wait():
        try:
            k.sleep(4.0)
        except kestrel.ConnectionLost as lost:
            told.append(lost)

    k = kestrel.connect("127.0.0.1", server.port)
    thread = threading.Thread(target=wait)
    thread.start()
    time.sleep(0.2)
    k.disconnect()
    thread.join(3.5)
    assert told and not thread.is_alive() and repr(k) == "<kestrel connection closed>"

    async def main():
        far = await kestrel.aio.connect("127.0.0.1", server.port, timeout=WAIT)
        task = asyncio.ensure_future(far.sleep(4.0))
        await asyncio.sleep(0.2)
        far.disconnect()
        with pytest.raises(kestrel.ConnectionLost):
            await asyncio.wait_for(task, 3.5)
        with pytest.raises(kestrel.ConnectionLost):
            await far.command("echo 'x'")

    asyncio.run(main())


def test_a_progress_that_raises_ends_its_command_only(server, k, names):
    def fail(progress):
        raise RuntimeError(progress.label)

    line = "read 0 0 0 200 3000 1 from {} to-module '{}'"
    k.on_progress = fail
    with pytest.raises(RuntimeError, match="Outputing Data"):
        k.command(line.format(k.test.open(200, 3000, 1, float=True), names("to")))
    assert [k.eval.int(n) for n in range(3)] == [0, 1, 2]
    k.on_progress = lambda progress: k.eval.int(1)
    with pytest.raises(RuntimeError, match="cannot run commands"):
        k.command(line.format(k.test.open(200, 3000, 1, float=True), names("again")))
    assert [k.eval.int(n) for n in range(3)] == [0, 1, 2]

    async def main():
        async with await kestrel.aio.connect("127.0.0.1", server.port, timeout=WAIT) as far:
            far.on_progress = fail
            with pytest.raises(RuntimeError, match="Outputing Data"):
                await far.command(line.format(await far.test.open(200, 3000, 1, float=True), names("far")))
            assert [await far.eval.int(n) for n in range(3)] == [0, 1, 2]

    asyncio.run(main())


def test_errors_go_between_processes(k):
    with pytest.raises(kestrel.CommandError) as caught:
        k.command("no-such-command")
    there = pickle.loads(pickle.dumps(caught.value))
    assert (str(there), there.line, there.errors) == (str(caught.value), "no-such-command", caught.value.errors)


def test_a_program_with_many_files_has_connections_too(server):
    limits = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(4096, limits[1]), limits[1]))
    files = [os.open("/dev/null", os.O_RDONLY) for _ in range(1100)]
    try:
        with kestrel.connect("127.0.0.1", server.port) as k:
            assert k.command("echo 'x'").texts == ["x"] and k.read(k.test.open(3, 2, 1, float=True)).shape == (1, 2, 3)
    finally:
        for fd in files:
            os.close(fd)
        resource.setrlimit(resource.RLIMIT_NOFILE, limits)


def test_a_peer_that_goes_or_falls_silent(peer):
    for replies in ((), (b"* 4\r\n",), (b"* 4\r\n>",), (b"\xff\xfe\0odd\r\r\n!\r\n#\r\n@\r\n~\r\n*\r\n* x\r\n* $G\r\n",)):
        with kestrel.connect("127.0.0.1", peer(TREE + b"> ", *replies)) as k:
            with pytest.raises(kestrel.ConnectionLost):
                for _ in range(9):
                    k.command("any")
            with pytest.raises(kestrel.ConnectionLost):
                k.command("any")
            assert repr(k) == "<kestrel connection closed>"
    with pytest.raises(OSError):  # in the middle of its tree
        kestrel.connect("127.0.0.1", peer(TREE, close=False), timeout=0.3)


def test_parts_that_come_late_are_of_their_own_reply(peer, monkeypatch):
    monkeypatch.setattr(kestrel._blocking, "SETTLE", 5 * SCALE)
    parts = (b"> ", b"\r\n* 4\r\n> "), (b"* 5\r", b"\n>", b" "), (b"a\r\n> ", b"b\r\n* 6", b"\r\n> "), b"* 7\r\n> "
    with kestrel.connect("127.0.0.1", peer(TREE + b"> ", *parts)) as k:
        assert [k.command("any").result for _ in parts] == [4, 5, 6, 7]


@pytest.mark.parametrize("line", [b"# of a thread\r\n", b"# of a thread\r\n@ 1 2 'x'\r\n# more\r\n"])
@pytest.mark.parametrize("result", [b"* 4\r\n", b""])
@pytest.mark.parametrize("cut", [1, 5, 100])
def test_a_line_right_behind_the_prompt_ends_no_reply_late(peer, line, result, cut):
    text = result + b"> " + line
    reader = ReplyReader()
    reader.feed(b"> ")
    reader.begin()
    for at in range(0, len(text), cut):
        reader.feed(text[at:at + cut])
    assert reader.at_prompt and reader.certain == bool(result)
    assert reader.finish().result == (4 if result else None) and reader.reply.notes[0] == "of a thread"
    with kestrel.connect("127.0.0.1", peer(TREE + b"> ", text, b"* 5\r\n> ")) as k:
        assert k.command("any").result == (4 if result else None)
        assert k.command("any").result == 5


def test_a_line_without_an_end_costs_no_more_than_its_bytes():
    def feed(blocks):
        reader = ReplyReader()
        reader.begin()
        begun = time.process_time()
        for _ in range(blocks):
            reader.feed(b"x" * 4096)
        return time.process_time() - begun

    assert feed(8000) < 1


def test_words_of_numpy_and_bytes_that_no_line_may_have(k, names):
    name = names("words")
    assert k.module.create(name, numpy.int64(4), numpy.uint8(2), header=numpy.bool_(True), float=numpy.bool_(False)) == 0
    assert kestrel.module(name).data.shape == (2, 4)
    for line in "echo 'a\udcffb'", "echo 'a\0b'", "echo 'a'\recho 'b'":
        with pytest.raises(ValueError):
            k.command(line)
    for wrong in "3", b"3", None, 3j:
        with pytest.raises(TypeError):
            k.set_double("d", wrong)
    with pytest.raises(ValueError):
        k.eval.string("\udcff")  # would begin a telnet command
    for text in "a\\", "\\'", "%s%n", "' ; quit", "ü€𝄞", "\udce9", "@m", "~f", "# note", "! error", "* 5", "> ":
        assert k.eval.string(text) == text


def test_what_is_no_module(names):
    name = names("pipe")
    os.mkfifo("/dev/shm/" + name)
    with pytest.raises(kestrel.ModuleError):
        kestrel.module(name)


def test_a_copy_of_a_module_is_one(k, names):
    name = names("copied")
    k.module.create(name, 4, 2, header=True)
    view = kestrel.module(name, writable=True)
    copy, same = view.__array__(copy=True), view.__array__()
    view.data[0, 0] = 5
    assert copy[0, 0] == 0 and same[0, 0] == 5


def test_pixels_of_the_image_display_are_words(k, names):
    name = names("pixels")
    k.module.create(name, 4, 2, header=True)
    with open("/dev/shm/" + name, "r+b") as file:
        for kind, dtype in ((32, "u2"), (33, "u2"), (40, "u4"), (47, "u4")):
            file.seek(0)
            file.write(kind.to_bytes(4, "little"))
            file.flush()
            assert kestrel.module(name).data.dtype == dtype
