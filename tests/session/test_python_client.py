"""The Python package against a real server: every kind of command, connections that are cut anywhere, data, modules."""
import asyncio
import gc
import inspect
import os
import pathlib
import signal
import socket
import subprocess
import sys
import threading
import time

import numpy
import pytest

from kestrel_session import SCALE, WAIT, wait_until

PYTHON = pathlib.Path(__file__).resolve().parents[2] / "python"
sys.path.insert(0, str(PYTHON / "src"))
import kestrel
import kestrel.aio
from kestrel._reply import ReplyReader, parse_result


@pytest.fixture(autouse=True)
def patience(monkeypatch):
    """With a slow server the client is as patient as the tests are, and asks as often."""
    monkeypatch.setattr(kestrel._control, "PATIENCE", kestrel._control.PATIENCE * SCALE)
    monkeypatch.setattr(kestrel._control, "STOPS", int(kestrel._control.STOPS * SCALE))


@pytest.fixture
def k(server):
    with kestrel.connect("127.0.0.1", server.port) as connection:
        yield connection


class Proxy(threading.Thread):
    """Passes bytes on to the server, the server's in pieces of `piece`, and closes after `cut` of them."""

    def __init__(self, port, piece=1, cut=None):
        super().__init__(daemon=True)
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port, self.to, self.piece, self.cut = self.listener.getsockname()[1], port, piece, cut
        self.start()

    def run(self):
        here, _ = self.listener.accept()
        there = socket.create_connection(("127.0.0.1", self.to))
        threading.Thread(target=self.forward, args=(here, there, 1 << 16, None), daemon=True).start()
        self.forward(there, here, self.piece, self.cut)
        self.listener.close()

    @staticmethod
    def forward(source, sink, piece, cut):
        sent = 0
        try:
            while data := source.recv(1 << 16):
                for at in range(0, len(data), piece):
                    block = data[at:at + piece] if cut is None else data[at:min(at + piece, at + cut - sent)]
                    sink.sendall(block)
                    sent += len(block)
                    if sent == cut:
                        return
        except OSError:
            pass
        finally:
            for each in (source, sink):
                try:
                    each.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass
                each.close()


def test_the_servers_commands_are_methods_with_help_and_typed_results(k, tmp_path):
    assert k.set_int("n", -5) == 0 and k.command("%n").result == -5
    assert k.eval.double(2.5) == 2.5 and isinstance(k.eval.double(3.0), float)
    assert k.eval.string("it's") == "it's" and k.eval.string('say "x"') == 'say "x"'
    assert k.eval.int(numpy.int16(7)) == 7
    assert "module" in dir(k) and "create" in dir(k.module) and "The server's command 'module create'" in \
        k.module.create.__doc__
    assert list(inspect.signature(k.set_int).parameters)
    assert repr(k.set_int).startswith("<command set-int(")
    (tmp_path / "some file").write_text("")
    assert "some file" in (k.dir(tmp_path) or "") + "".join(k.notes)
    assert k.system("echo out; exit 3") == 3
    for wrong, error in ((lambda: k.set_int("n"), TypeError), (lambda: k.set_int("n", 2**31), ValueError),
                         (lambda: k.set_int("n", 1.5), TypeError), (lambda: k.set_double("n", float("nan")), ValueError),
                         (lambda: k.set_string("s", "a'b\"c"), ValueError), (lambda: k.set_string("s", "a\nb"), ValueError),
                         (lambda: k.set_string("s", "x" * 1100), ValueError), (lambda: k.set_int("n", 1, nowhere=1), TypeError),
                         (lambda: k.command("a\nb"), ValueError), (lambda: k.no_such, AttributeError),
                         (lambda: k.module.no_such, AttributeError)):
        with pytest.raises(error):
            wrong()
    assert k.command("%n").result == -5  # nothing was sent, or all is well again


def test_errors_carry_the_servers_lines_and_the_session_goes_on(k, names):
    with pytest.raises(kestrel.CommandError) as caught:
        k.module.create("x", 10, 1)
    assert caught.value.errors == ["You must supply one of 'header' or 'size xxx'"] and caught.value.result == -1
    assert caught.value.line == "module create 'x' 10 1"
    with pytest.raises(kestrel.CommandError):
        k.command("no-such-command")
    handle = k.test.open(40, 30, 20, float=True)
    seen = []
    k.on_progress = seen.append
    k.command(f"read 0 0 0 40 30 1 from {handle} to-module '{names('to')}'")
    assert seen and seen[-1] == (30, 30, "Outputing Data") and k.notes[-1] == "Finished write"
    k.close(handle)
    for _ in range(2):
        with pytest.raises(kestrel.ConnectionLost):
            k.quit()


def test_boxes_come_as_arrays_of_their_elements(k):
    handle = k.test.open(50, 40, 30, double=True)
    whole = k.read(handle)
    assert whole.shape == (30, 40, 50) and whole.dtype == "<f8" and len(numpy.unique(whole)) > 10
    for dtype in ("float32", "float64", "uint32"):
        part = k.read(handle, (3, 4, 5, 6, 7, 8), dtype)
        assert part.dtype == dtype and (part == whole[5:13, 4:11, 3:9].astype(dtype)).all()
    for box in ((0, 0, 0, 51, 1, 1), (-1, 0, 0, 1, 1, 1)):
        with pytest.raises(kestrel.CommandError):
            k.read(handle, box)
    for bad, error in (((0, 0, 0, 0, 1, 1), "at least one element"), ((0, 0, 0, 1, 1), "not 5 numbers")):
        with pytest.raises(ValueError, match=error):
            k.read(handle, bad)
    with pytest.raises(TypeError):
        k.read(handle, (0, 0, 0, 1, 1, 1), "int8")
    with pytest.raises(ValueError, match="is handle 17 open"):
        k.read(17)
    assert k.read(handle, (1, 2, 3, 1, 1, 1))[0, 0, 0] == whole[3, 2, 1]
    big = k.test.open(1 << 20, 4, 2, long=True)
    assert k.read(big).nbytes == (4 << 23)


def test_modules_are_the_servers_memory(k, names):
    flat, deep = names("flat"), names("deep")
    k.module.create(flat, 8, 2, "channel", "detector", header=True)
    k.module.create(deep, 4, 3, header=True, float=True, num_t=2)
    view = kestrel.module(flat)
    assert view.data.shape == (2, 8) and view.data.dtype == "u4" and (view.x_label, view.y_label) == ("channel", "detector")
    assert not view.data.flags.writeable
    writable = kestrel.module(flat, writable=True)
    writable.data[1, 3] = 77
    assert view.data[1, 3] == 77
    assert k.module.get_point(flat, 3, 1, "v") == 0 and k.command("%v").result == 77
    stack = kestrel.module(deep)
    assert stack.data.shape == (2, 3, 4) and numpy.asarray(stack).sum() == 0
    assert view.is_current()
    os.unlink("/dev/shm/" + flat)
    assert not view.is_current() and view.data[1, 3] == 77  # what is mapped stays
    kept = stack.data
    del stack
    gc.collect()
    assert kept.sum() == 0
    for name in ("", "a/b", "../etc/passwd"):
        with pytest.raises(ValueError):
            kestrel.module(name)
    with pytest.raises(FileNotFoundError):
        kestrel.module(names("none"))


def test_headers_that_lie_are_refused(names):
    def header(**values):
        head = numpy.zeros(1, kestrel.modules._HEAD3D)[0]
        fields = dict(data_type=1, disp_type=0x10003, num_x=2, num_y=2, num_t=2, labels_num=0, data_offset=464)
        for field, value in {**fields, **values}.items():
            head[field] = value
        return head.tobytes()

    name = names("lies")
    for content in (b"", bytes(359), bytes(400), header(data_type=9) + bytes(32), header(disp_type=0x20003) + bytes(32),
                    header(data_offset=463) + bytes(32), header(data_offset=465) + bytes(32),
                    header(data_offset=-4) + bytes(32), header(data_offset=1 << 30) + bytes(32), header() + bytes(31),
                    header(num_x=1 << 31) + bytes(32), header(num_x=2**31 - 1, num_y=2**31 - 1) + bytes(32),
                    header()[:400]):
        pathlib.Path("/dev/shm", name).write_bytes(content)
        with pytest.raises(kestrel.ModuleError):
            kestrel.module(name)
    pathlib.Path("/dev/shm", name).write_bytes(header(labels_num=1 << 20) + bytes(32))
    assert kestrel.module(name).labels == []
    labels = numpy.array([480, 484], "i4").tobytes() + bytes(8) + b"one\0two\0" + bytes(24)
    pathlib.Path("/dev/shm", name).write_bytes(header(labels_num=2, data_offset=512) + labels + bytes(32))
    assert kestrel.module(name).labels == ["one", "two"] and kestrel.module(name).data.shape == (2, 2, 2)


def test_replies_come_together_from_any_pieces(server, k, monkeypatch):
    monkeypatch.setattr(kestrel._blocking, "SETTLE", 5 * SCALE)  # nothing but whole replies here, in however many pieces
    for piece in (1, 2, 7):
        with kestrel.connect("127.0.0.1", Proxy(server.port, piece).port) as far:
            assert far.eval.string("> * 5") == "> * 5"
            assert far.command("echo '* 5'").texts == ["* 5"]
            assert far.command("echo '> '").texts == ["> "]
            assert far.eval.int(3) == 3


@pytest.mark.parametrize("line", ["%n", "read"])
def test_a_connection_that_is_cut_anywhere_is_lost_and_nothing_else(server, k, line):
    k.set_int("n", 1)
    handle = k.test.open(10, 10, 1, float=True)
    before = len(os.listdir("/proc/self/fd"))
    dump = len("\r\n".join(["> "] + k.command("retrieve-tree 510").texts)) + 2
    for cut in [1, 2, 3, dump // 3, dump - 3, dump + 1, dump + 2, dump + 8]:
        proxy = Proxy(server.port, 1 << 16, cut)
        with pytest.raises((kestrel.KestrelError, OSError, ValueError)):
            with kestrel.connect("127.0.0.1", proxy.port, timeout=5) as far:
                for _ in range(50):
                    far.read(handle) if line == "read" else far.command(line)
        proxy.join(5)
    assert k.command("%n").result == 1
    gc.collect()
    wait_until(lambda: len(os.listdir("/proc/self/fd")) <= before + 1, "end of the proxies")


def test_many_commands_leave_nothing_behind(server):
    def work():
        with kestrel.connect("127.0.0.1", server.port) as each:
            for i in range(200):
                each.set_int("i", i)

    work()
    before = len(os.listdir("/proc/self/fd")), len(os.listdir(f"/proc/{server.process.pid}/fd"))
    threads = [threading.Thread(target=work) for _ in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    gc.collect()
    assert len(os.listdir("/proc/self/fd")) <= before[0]
    with kestrel.connect("127.0.0.1", server.port) as last:
        assert last.eval.int(1) == 1
        wait_until(lambda: len(os.listdir(f"/proc/{server.process.pid}/fd")) <= before[1] + 1, "end of the sessions")


def test_threads_share_a_connection_and_tasks_too(server, k):
    wrong = []

    def ask(number):
        for _ in range(100):
            if k.eval.int(number) != number:
                wrong.append(number)

    threads = [threading.Thread(target=ask, args=(n,)) for n in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert wrong == []

    async def many():
        async with await kestrel.aio.connect("127.0.0.1", server.port, timeout=WAIT) as far:
            assert await asyncio.gather(*(far.eval.int(n) for n in range(100))) == list(range(100))
            handle = await far.test.open(5, 3, 2, float=True)
            box = await far.read(handle)
            assert box.shape == (2, 3, 5) and (box == k.read(handle)).all()
            with pytest.raises(kestrel.CommandError):
                await far.read(handle, (0, 0, 0, 9, 9, 9))
            assert (await far.read(handle, (0, 0, 0, 1, 1, 1), "float64")).dtype == "<f8"
            with pytest.raises(kestrel.CommandError):
                await far.command("no-such-command")
            assert (await far.command("echo 'x'")).texts == ["x"]

    asyncio.run(many())


def test_an_interrupt_stops_the_servers_command_and_gives_the_prompt_back(server, tmp_path):
    script = tmp_path / "client.py"
    script.write_text(f"""import sys, kestrel
k = kestrel.connect("127.0.0.1", {server.port})
other = kestrel.connect("127.0.0.1", {server.port})
print("ready", flush=True)
try:
    k.sleep(60)
except KeyboardInterrupt:
    print("stopped", k.eval.int(5), other.eval.int(6))
far = kestrel.connect("127.0.0.1", {server.port}, control="/nowhere")
print("again", flush=True)
try:
    far.sleep({3 * SCALE})
except KeyboardInterrupt:
    try:
        far.eval.int(7)
    except kestrel.ConnectionLost:
        print("closed", k.eval.int(8))
""")
    program = subprocess.Popen([sys.executable, script], stdout=subprocess.PIPE, text=True,
                               env={**os.environ, "PYTHONPATH": str(PYTHON / "src")}, preexec_fn=lambda: signal.signal(
                                   signal.SIGINT, signal.default_int_handler))
    control = kestrel._control.usual_path(server.port)
    for shown in ("ready\n", "again\n"):
        while (line := program.stdout.readline()) != shown:
            assert line, program.wait()
            assert line == "stopped 5 6\n"
        wait_until(lambda: any(line.startswith("line sleep") for line in kestrel._control.ask(control, "status")), "sleep")
        program.send_signal(signal.SIGINT)
    assert program.stdout.read() == "closed 8\n" and program.wait() == 0


def test_a_cancelled_task_stops_its_command_too(server):
    async def main():
        async with await kestrel.aio.connect("127.0.0.1", server.port, timeout=WAIT) as far:
            with pytest.raises(asyncio.TimeoutError):
                await asyncio.wait_for(far.sleep(60.0), 0.3)
            assert await far.eval.int(5) == 5

    asyncio.run(main())


@pytest.mark.parametrize("text,value", [("5", 5), ("-5", -5), ("$FFFFFFFF", -1), ("#101", 5), ("1e-07", 1e-07), ("inf", float("inf")),
                                        ('"a"', "a"), ('""', ""), ("(null)", None)])
def test_results_are_read_in_each_of_their_forms(text, value):
    assert parse_result(text) == value


def test_what_threads_say_between_two_commands_is_a_note_of_the_next():
    reader = ReplyReader()
    reader.feed(b"> ")
    reader.feed(b"# said meanwhile\r\n")
    reader.begin()
    reader.feed(b"# own\r\n* 4\r\n> ")
    assert reader.certain and reader.finish().result == 4 and reader.reply.notes == ["own"]
    reader.begin()
    reader.feed(b"> # late\r\n* 5\r\n> ")
    assert reader.finish().result == 5 and reader.reply.notes == ["late"]
    reader.begin()
    reader.feed(b"! asks\r\n~ Retry (Y/N)\r\n")
    assert reader.asked and not reader.at_prompt


def test_types_hold(tmp_path):
    def check(*what):
        return subprocess.run(["mypy", "--strict", "--cache-dir=/dev/null", *what], capture_output=True, text=True,
                              env={**os.environ, "MYPYPATH": str(PYTHON / "src")})

    checked = check(PYTHON / "src")
    assert checked.returncode == 0, checked.stdout + checked.stderr
    program = tmp_path / "use.py"
    program.write_text("""import kestrel, numpy, pathlib
k = kestrel.connect()
n: int = k.module.create("m", numpy.int64(4), 1, header=True)
k.sleep(numpy.float32(0.1))
k.dir(pathlib.Path("folder"))
x: float = k.eval.double(n)
k.set_int("n", "x")
k.module.create("m", 1.5, 1)
""")
    assert [line.split(":")[1] for line in check(program).stdout.splitlines() if "error:" in line] == ["7", "8"]


def test_pip_installs_it_without_any_network(tmp_path):
    environment = {**os.environ, "PIP_NO_INDEX": "1", "PIP_ROOT_USER_ACTION": "ignore"}
    installed = subprocess.run([sys.executable, "-m", "pip", "install", "--no-deps", "--target", tmp_path, str(PYTHON)],
                               capture_output=True, text=True, env=environment)
    assert installed.returncode == 0, installed.stderr
    said = subprocess.run([sys.executable, "-c", "import kestrel; print(kestrel.__version__, kestrel.__file__)"], text=True,
                          capture_output=True, cwd=tmp_path, env={**environment, "PYTHONPATH": str(tmp_path)})
    assert said.stdout == f"1.0 {tmp_path}/kestrel/__init__.py\n", said.stderr
    shown = subprocess.run([sys.executable, "-m", "pip", "list", "--path", tmp_path], capture_output=True, text=True)
    assert "kestrel-client 1.0" in shown.stdout
