"""The control socket and kestrelctl: what a server says of itself, and is told, while a command runs."""
import grp
import os
import pathlib
import random
import re
import shutil
import socket
import stat
import subprocess
import tempfile
import time

import pytest
from kestrel_session import KESTREL, SCALE, Process, free_port, wait_until

CONTROL = pathlib.Path(KESTREL).parent / "kestrelctl"


def ask(path, request, patience=20):
    """The whole answer to bytes sent as they are."""
    with socket.socket(socket.AF_UNIX) as s:
        s.settimeout(patience)
        s.connect(str(path))
        try:
            s.sendall(request)
            s.shutdown(socket.SHUT_WR)
        except (BrokenPipeError, OSError):
            pass  # answered and closed before all of it was sent
        answer = b""
        try:
            while block := s.recv(65536):
                answer += block
        except ConnectionResetError:
            pass  # what it did not read of a request that was too long
        return answer.decode()


def control(*arguments):
    done = subprocess.run([CONTROL, *arguments], capture_output=True, text=True, timeout=60)
    return done.returncode, done.stdout, done.stderr


@pytest.fixture
def folder():
    """A short path: the names of sockets are limited."""
    path = pathlib.Path(tempfile.mkdtemp())
    yield path
    shutil.rmtree(path)


@pytest.fixture
def path(folder):
    return folder / "control"


def busy(server, line):
    """A session whose line runs now."""
    client = server.client()
    client.send(line + "\n")
    wait_until(lambda: "running session" in control(f"-port={server.port}", "status")[1], "running line")
    return client


def stop(server, session, *words):
    """Interrupts the line that runs; a server that gets no processor within 100 ms takes the interrupt later."""
    answer = control(f"-port={server.port}", "stop", *words)
    assert answer in ((0, f"# The line of session {session} is interrupted\n", ""),
                      (1, "", f"! The line of session {session} takes no interrupt now\n")), answer


def test_status_tells_who_runs_what_and_for_how_long(server):
    server.client().lines("1+1")
    client = busy(server, "sleep 600")
    wait_until(lambda: "command sleep\n" in control(f"-port={server.port}", "status")[1], "command")
    code, out, _ = control(f"-port={server.port}", "status")
    when = r"since \d{4}-\d\d-\d\d \d\d:\d\d:\d\d"
    assert code == 0
    assert re.fullmatch(rf"server port {server.port} pid {server.process.pid}\nup \d+ s {when}\n"
                        rf"running session 1 of 127\.0\.0\.1:\d+ {when}, \d+\.\d{{3}} s\nline sleep 600\n"
                        rf"session 0 of 127\.0\.0\.1:\d+ {when}, 1 lines\nsession 1 of 127\.0\.0\.1:\d+ {when}, 1 lines\n"
                        r"threads \d+\ncommand sleep\nhandles 0\nmodules 0, 0 bytes\n", out), out
    stop(server, 1)
    client.recv_prompt()
    assert "running nothing\n" in control(f"-port={server.port}", "status")[1]


def test_status_hides_passwords_and_shows_progress(server):
    with socket.create_server(("127.0.0.1", 0)) as silent:
        busy(server, f"ftp get 'a' 'b' host '127.0.0.1:{silent.getsockname()[1]}' user 'u' password 'sesame'")
        shown = control(f"-port={server.port}", "status")[1]
    assert "password '******'\n" in shown
    wait_until(lambda: "running nothing" in control(f"-port={server.port}", "status")[1], "end")
    busy(server, "client connect 600 lux")
    wait_until(lambda: re.search(r"^progress \d of 600 'Connecting'$", control(f"-port={server.port}", "status")[1], re.M),
               "progress")
    control(f"-port={server.port}", "stop")


def computing(server):
    """A session that computes until it is stopped."""
    server.write("busy.cmd", ["do", "while 1"])
    return busy(server, "~busy")


def test_status_comes_within_100_ms_while_a_command_computes(server):
    client = computing(server)
    times, path = [], f"{os.environ['XDG_RUNTIME_DIR']}/kestrel-{server.port}.sock"
    for _ in range(50):
        begun = time.monotonic()
        assert "line ~busy" in ask(path, b"status\n")
        times.append(time.monotonic() - begun)
    assert sorted(times)[len(times) * 9 // 10] < 0.1 * SCALE, times
    begun = time.monotonic()
    stop(server, 0)
    assert b"! Include file aborted with ^C\r\n" in client.recv_prompt()
    assert time.monotonic() - begun < 2 * SCALE  # the program's start among it


def test_stop_of_a_session_leaves_the_lines_of_others_alone(server):
    client = computing(server)
    assert control(f"-port={server.port}", "stop", "5") == (1, "", "! Session 5 runs no line\n")
    stop(server, 0, "0")
    client.recv_prompt()
    assert control(f"-port={server.port}", "stop") == (1, "", "! No line runs\n")
    assert client.lines("1+1") == ["* 2"]
    for wrong in "-1", "339", "x", "1 2", "99999999999", " ":
        assert control(f"-port={server.port}", "stop", wrong)[:2] == (1, ""), wrong


def test_an_interrupt_never_reaches_the_next_line(server):
    """Stops that are aimed at lines as they end meet no line that another session began meanwhile."""
    patient, hasty = server.client(), server.client()
    for _ in range(40):
        hasty.send("sleep 0.002\n")
        patient.send("sleep 0.02\n")
        answer = control(f"-port={server.port}", "stop", "1")
        assert hasty.recv_prompt() in (b"* 0\r\n", b"* -1\r\n"), answer
        assert patient.recv_prompt() == b"* 0\r\n", answer


def test_watch_goes_on_until_it_is_ended(server):
    with subprocess.Popen([CONTROL, f"-port={server.port}", "watch"], stdout=subprocess.PIPE, text=True) as watch:
        lines = [watch.stdout.readline() for _ in range(10)]
        watch.kill()
    assert sum(line.startswith("server port") for line in lines) == 2, lines


def value(text, sample):
    return float(re.search(rf"^{re.escape(sample)} (\S+)$", text, re.M)[1])


def test_metrics_count_what_was_done(server):
    client = server.client()
    path = f"-port={server.port}"
    for line in ["1+1", "sleep 0.01", "close 7", "close 7", "no-such", "test open 4 4 1 long", "sleep 'x'"]:
        client.lines(line)
    text = control(path, "metrics")[1]
    assert value(text, 'kestrel_commands_total{command="sleep"}') == 2
    assert value(text, 'kestrel_command_failures_total{command="sleep"}') == 1
    assert value(text, 'kestrel_command_failures_total{command="close"}') == 2
    assert value(text, 'kestrel_commands_total{command="test open"}') == 1
    assert value(text, "kestrel_handles") == 1 and value(text, "kestrel_sessions") == 1
    assert value(text, "kestrel_line_seconds_count") == 7
    assert value(text, 'kestrel_line_seconds_bucket{le="+Inf"}') == 7
    assert 0.01 <= value(text, "kestrel_line_seconds_sum") < 1 * SCALE
    assert value(text, "kestrel_sent_bytes_total") > 50
    assert value(text, 'kestrel_link_up{link="kairo"}') == 0
    assert 'command="help"' not in text


# ---- the socket's place and its peers


def mode_of(path):
    return stat.S_IMODE(os.lstat(path).st_mode)


def test_the_socket_is_its_owners_and_goes_with_the_server(start, path):
    server = start(f"-control={path}")
    assert mode_of(path) == 0o600
    assert ask(path, b"status\n").startswith(f"server port {server.port} ")
    server.close()
    assert not path.exists()


def test_a_group_may_be_let_in(start, path):
    name = grp.getgrgid(os.getgid()).gr_name
    start(f"-control={path}", f"-control-group={name}")
    assert mode_of(path) == 0o660 and os.lstat(path).st_gid == os.getgid()


def test_what_a_killed_server_left_is_taken_over(start, path):
    first = start(f"-control={path}")
    first.process.kill()
    first.process.wait()
    first.process.returncode = 0
    assert path.is_socket()
    second = start(f"-control={path}")
    assert f"port {second.port} " in ask(path, b"status\n")


def make_link(path):
    (path.parent / "elsewhere").touch()
    path.symlink_to(path.parent / "elsewhere")
    return "is a symbolic link"


def make_file(path):
    path.write_text("precious")
    return "is there and no socket"


def make_foreign(path):
    with socket.socket(socket.AF_UNIX) as s:
        s.bind(str(path))
    os.chown(path, 12345, 12345)
    return "belongs to somebody else"


def make_open_folder(path):
    path.parent.chmod(0o777)
    return "belongs to others"


@pytest.mark.parametrize("prepare", [make_link, make_file, make_foreign, make_open_folder])
def test_a_place_that_is_not_ours_is_refused(start, path, prepare):
    why = prepare(path)
    before = os.lstat(path) if os.path.lexists(path) else None
    process = start(f"-port={free_port()}", f"-control={path}", kind=Process)
    assert process.wait_exit() == 1
    assert process.stderr.startswith("server: No control socket: ") and why in process.stderr
    assert (os.lstat(path) if os.path.lexists(path) else None) == before


@pytest.mark.parametrize("options, why", [
    (["-control=/tmp/" + "x" * 200], "is too long"), (["-control=/nonexistent/control"], "is no folder"),
    (["-control-group=no-such-group"], "there is no group no-such-group")])
def test_a_socket_that_cannot_be_had_ends_the_start(start, options, why):
    process = start(f"-port={free_port()}", *options, kind=Process)
    assert process.wait_exit() == 1 and why in process.stderr


def test_another_server_keeps_its_socket(start, path):
    first = start(f"-control={path}")
    second = start(f"-port={free_port()}", f"-control={path}", kind=Process)
    assert second.wait_exit() == 1 and "another server answers" in second.stderr
    assert f"port {first.port} " in ask(path, b"status\n")


def test_kestrelctl_explains_why_nobody_answers(folder):
    for setup, why in ((lambda p: None, "No such file"), (make_file, "is no socket"), (make_link, "is no socket")):
        path = folder / setup.__name__
        setup(path)
        code, out, err = control(f"-control={path}", "status")
        assert (code, out) == (1, "") and why in err, err
    for wrong in [], ["what"], ["-port=x", "status"], ["-port=70000", "status"], ["-x", "status"], ["status", "-port=1"]:
        assert control(*wrong)[0] == 2, wrong


def test_kestrelctl_trusts_no_folder_that_another_user_made(folder):
    """A user without a folder of its own, whose place in /tmp somebody has taken."""
    user = 54321
    place = pathlib.Path(f"/tmp/kestrel-{user}")
    program = shutil.copy(CONTROL, folder)
    folder.chmod(0o755)
    place.mkdir(0o755)
    try:
        with socket.socket(socket.AF_UNIX) as planted:
            planted.bind(str(place / "kestrel-1.sock"))
            os.chmod(place / "kestrel-1.sock", 0o777)
            planted.listen()
            done = subprocess.run([program, "-port=1", "status"], capture_output=True, text=True, timeout=60, user=user,
                                  env={})
    finally:
        shutil.rmtree(place)
    assert (done.returncode, done.stdout) == (1, "") and "its folder belongs to somebody else" in done.stderr


def malformed(random):
    """Bytes that are no request."""
    kind = random.randrange(5)
    if kind == 0:
        return random.randbytes(random.randrange(200))
    if kind == 1:
        return b"status" + b" " * random.randrange(1, 100) + b"\n"
    if kind == 2:
        return random.choice([b"STATUS\n", b"statu\n", b"\0\n", b"\n", b"stop\0\n", b"stopp\n", b"stop  1\n"])
    if kind == 3:
        return b"metrics"  # without its end
    return b"x" * random.randrange(64, 100000)


def test_malformed_requests_harm_nobody(start, path):
    server = start(f"-control={path}")
    client, luck = server.client(), random.Random(7)
    for _ in range(1000):
        answer = ask(path, malformed(luck))
        assert answer == "" or answer.startswith("! "), answer
    assert client.lines("1+1") == ["* 2"] and ask(path, b"status\n").startswith("server port")


def test_peers_that_say_nothing_do_not_keep_others_waiting_for_good(start, path):
    start(f"-control={path}")
    silent = []
    for _ in range(60):  # more than are served at a time; their time ends
        silent.append(socket.socket(socket.AF_UNIX))
        silent[-1].connect(str(path))
    begun = time.monotonic()
    assert ask(path, b"status\n", 60).startswith("server port")
    assert time.monotonic() - begun < 15 * SCALE
    for s in silent:
        s.close()
