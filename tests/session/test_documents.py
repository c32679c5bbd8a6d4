"""Every session shown in the documents and examples runs just so.

A shown session is a block of "> command" lines, each with its reply. In a Markdown file it is a block fenced as
```session, and ```script NAME is a file that it uses; a file's blocks are one session. ```program build/NAME OPTIONS, or redis-server OPTIONS, is a
program that runs meanwhile; ```python run is a piece of a program, which may talk to the server (port 1972) and to these; the ports that its options name stand for free ones, there and behind it, but for the base
port of cards. Progress lines ("@") are the clock's and may be missing. A session may include the scripts of examples/.
In examples/, NAME.out is a session with the scripts beside it. "0x..." stands for any address; modules are called doc_..., and go with the test.
"""
import pathlib
import re
import shlex
import shutil
import subprocess
import sys

import pytest
from kestrel_session import KESTREL, ROOT, SCALE, Process, Server, free_port

sys.path.insert(0, str(ROOT / "python" / "src"))
DOCUMENTS = [path for path in sorted([ROOT / "README.md", *(ROOT / "docs").rglob("*.md")])
             if "```session" in path.read_text()]
SESSIONS = sorted(path for path in (ROOT / "examples").glob("*.out") if not path.with_suffix(".cmd").exists())
TYPED = sorted(path for path in (ROOT / "examples").glob("*.cmd") if path.with_suffix(".out").exists())


class Broker(Process):
    """A redis-server on the port that the document names."""

    def __init__(self, scratch, *options):
        super().__init__(scratch, *options, "--dir", "/tmp", program=shutil.which("redis-server"))
        self.wait_stdout("Ready to accept connections")


class Simulator(Server):
    """A program beside the server, which takes commands on a port of its own."""

    def __init__(self, scratch, *options, program):
        self.clients = []
        own = "-text=" if program == "sim_card" else "-port="
        if not any(option.startswith(own) for option in options):
            options = *options, own + str(free_port())
        self.port = int(next(option for option in options if option.startswith(own))[len(own):])
        Process.__init__(self, scratch, *options, program=pathlib.Path(KESTREL).parent / program)
        assert self.listens(), self.stderr


class Worker(Process):
    """A program that does its work where a broker says."""

    def __init__(self, scratch, *options):
        super().__init__(scratch, *options, program=pathlib.Path(KESTREL).parent / "kestrel-worker")
        self.wait_stdout("\n")


OTHER_KINDS = {"redis-server": Broker, "kestrel-worker": Worker}


def free_ports(program, ports):
    """The program's line with the ports that it names as `ports` has them; new ones are added there."""
    names = "text|gate" if program.startswith("sim_card") else "port|gate"
    for port in re.findall(rf"-(?:{names})[= ](\d+)", program):
        ports.setdefault(port, str(free_port()))
    return replace_ports(program, ports)


def replace_ports(text, ports):
    for shown, real in ports.items():
        text = re.sub(rf"\b{shown}\b", real, text)
    return text


def check(client, text):
    for part in re.split(r"^> ", text, flags=re.M)[1:]:
        command, *reply = part.splitlines()
        shown, reply = ([re.sub("0x[0-9A-F]+", "0x...", line) for line in lines if not line.startswith("@ ")]
                        for lines in (client.lines(command), reply))
        assert shown == reply, command


def check_tutorial(values):
    """What the pieces of the tutorial's program have found."""
    assert values["lost"] == 0 and pathlib.Path("spectrum.png").stat().st_size > 5000
    for seen, found, rate in zip(values["seen_rates"], values["true_rates"], values["RATES"]):
        assert seen < found and abs(found / rate - 1) < 0.03
    for name, (energy, _) in values["LINES"].items():
        assert abs(values["found"][name] - energy) < 0.004, name
    assert 1.2 < values["spectrum"].sum() / values["counts_of_5"].sum() < 1.6


def check_scan(values):
    """What the last point of the scan gave, after the methods that bluesky calls have been called."""
    detector = values["detector"]
    assert values["status"].success and values["status"].done
    called = []
    values["status"].add_callback(called.append)
    assert called == [values["status"]]
    detector.stage()
    (name, reading), (described, about) = *detector.read().items(), *detector.describe().items()
    assert name == described and [len(reading["value"])] == about["shape"] and min(reading["value"]) >= 0
    detector.k.disconnect()


CHECKS = {"tutorial.md": check_tutorial, "bluesky.md": check_scan}


@pytest.fixture(autouse=True)
def no_modules():
    yield
    for pattern in ("doc_*", "tutorial_*", "plr3_*", "kairo_times"):
        for module in pathlib.Path("/dev/shm").glob(pattern):
            module.unlink()


def with_examples(start):
    return start(prepare=lambda cwd: [shutil.copy(script, cwd) for script in (ROOT / "examples").glob("*.cmd")])


@pytest.mark.parametrize("path", DOCUMENTS, ids=lambda path: path.name)
def test_sessions_in_documents(start, path, tmp_path, monkeypatch):
    server = with_examples(start)
    client, ports = server.client(), {}
    blocks = re.findall(r"^```(session|python run|script (\S+)|program (.*?))\n(.*?)^```$", path.read_text(),
                        re.M | re.S)
    assert blocks
    monkeypatch.chdir(tmp_path)
    program_of = {"__name__": path.stem}
    for kind, script, program, text in blocks:
        if script:
            server.write(script, text)
        elif program:
            name, *options = shlex.split(free_ports(program.removeprefix("build/"), ports))
            if name in OTHER_KINDS:
                start(*options, kind=OTHER_KINDS[name])
            else:
                start(*options, kind=Simulator, program=name)
        elif kind == "python run":
            exec(compile(replace_ports(text, {**ports, "1972": str(server.port)}), path.name, "exec"), program_of)
        else:
            check(client, replace_ports(text, ports))
    CHECKS.get(path.name, lambda _: None)(program_of)


@pytest.mark.parametrize("path", SESSIONS, ids=lambda path: path.name)
def test_sessions_with_the_examples(start, path):
    check(with_examples(start).client(), path.read_text())


@pytest.mark.parametrize("path", TYPED, ids=lambda path: path.name)
def test_examples_that_are_typed(path):
    played = subprocess.run([ROOT / "tools" / "play_session", path], capture_output=True, text=True,
                            timeout=60 * SCALE, env={"KESTREL": KESTREL, "PATH": "/usr/bin:/bin"})
    assert played.stderr == "" and played.returncode == 0
    assert played.stdout == path.with_suffix(".out").read_text()
