"""A publisher, a follower and a worker beside brokers that refuse, lie or hang, and modules that nobody should have written."""
import contextlib
import json
import os
import re
import signal
import socket
import subprocess
import threading
import time

import pytest
from broker import BUILD, Broker, BrokerError, Connection, Follower, Publisher
from fit_workers import Worker
from kestrel_data import Module, do
from kestrel_session import ROOT, SCALE, WAIT, wait_until
from test_control import ask
from test_peak_fit import noisy

CARD, CHANS, BINS, PLACES = 951, 2, 16, 8  # no card of any installation here
SHEET = {"begun": 0, "state": 1, "frames": 2, "channels": 3, "energies": 4, "auxiliaries": 5, "places": 6, "circular": 7,
         "clock": 8, "first": 9, "cards": 10}


@pytest.fixture
def broker(tmp_path):
    broker = Broker(tmp_path / "broker")
    yield broker
    broker.close()


class Card:
    """Modules of a card, as the readout library writes them."""

    def __init__(self, client, index=CARD, places=PLACES, bins=BINS):
        self.client, self.index, self.bins = client, index, bins
        shapes = {"hist": (bins, places, "", CHANS), "tf_status": (CHANS, places, "", 2),
                  "scalers": (9, CHANS, "", places), "scalar_tf_status": (CHANS, places, "", 2)}
        for kind, (x, y, element, t) in shapes.items():
            do(client, f"module create '{self.name(kind)}' {x} {y} header {element} num-t {t}")
        do(client, f"module create '{self.name('run')}' 16 {1 + CHANS} header double")
        self.sheet = Module(self.name("run")).data
        self.counts, self.status = Module(self.name("hist")).data, Module(self.name("tf_status")).data
        self.scalers, self.scaler_status = Module(self.name("scalers")).data, Module(self.name("scalar_tf_status")).data
        self.places = places

    def name(self, kind):
        return f"plr3_{kind}{self.index}"

    def begin(self, **words):
        self.sheet[0, 0] = 0
        self.status[:] = self.scaler_status[:] = 0
        row = {"state": 1, "frames": 0, "channels": CHANS, "energies": self.bins, "auxiliaries": 1, "places": self.places,
               "circular": 0, "clock": 1.25e-8, "first": 0, "cards": 1} | words
        for name, value in row.items():
            self.sheet[0, SHEET[name]] = value
        self.sheet[0, 0] = words.get("begun", time.time())

    def count(self, *frames):
        for frame in frames:
            self.counts[:, frame] = frame + 1
            self.status[0, frame] = 1

    def end(self, frames):
        self.sheet[0, SHEET["frames"]] = frames
        self.sheet[0, SHEET["state"]] = 0

    def remove(self):
        for kind in "run", "hist", "tf_status", "scalers", "scalar_tf_status":
            with contextlib.suppress(FileNotFoundError):
                os.unlink("/dev/shm/" + self.name(kind))


@pytest.fixture
def card(client):
    card = Card(client)
    yield card
    card.remove()


def run_of(broker, index=CARD, runs=1):
    """The newest of so many runs that have that card."""
    def look():
        found = [f["run"].decode() for _, f in broker.entries("kestrel:runs") if f.get("cards") == b"%d" % index]
        return len(dict.fromkeys(found)) == runs and found[-1]
    return wait_until(look, "run")


def in_state(broker, run, state):
    return wait_until(lambda: broker.meta(run).get("state") == state and broker.meta(run), f"run that is {state}")


def processor_time(process):
    words = open(f"/proc/{process.pid}/stat").read().rsplit(")", 1)[1].split()
    return (int(words[11]) + int(words[12])) / os.sysconf("SC_CLK_TCK")


def shares_of(processes, seconds=1.5):
    """The part of the time that each of them computes, however long the time turns out."""
    begin, before = time.monotonic(), [processor_time(p) for p in processes]
    time.sleep(seconds)
    after = [processor_time(p) for p in processes]
    return [(a - b) / (time.monotonic() - begin) for a, b in zip(after, before)]


def test_scalers_that_come_late_leave_a_run_sealed(broker, start, card):
    start("-site=" + broker.site, kind=Publisher)
    card.begin()
    card.count(0, 1)
    card.end(2)
    run = run_of(broker)
    in_state(broker, run, "sealed")
    card.scaler_status[0, :2] = 1
    wait_until(lambda: broker.meta(run).get("sent:scalers") == "2", "scalers")
    assert broker.meta(run)["state"] == "sealed"
    stops = [f for _, f in broker.entries("kestrel:runs") if f["event"] == b"stop" and f["run"].decode() == run]
    assert len(stops) == 1


def test_a_run_whose_modules_are_removed_is_sealed_with_what_they_had(broker, start, client, card):
    publisher = start("-site=" + broker.site, kind=Publisher)
    for runs, (frames, end) in enumerate([(3, "cut"), (PLACES, "whole")], 1):
        card.begin()
        card.count(*range(frames))
        run = run_of(broker, runs=runs)
        wait_until(lambda run=run: broker.meta(run).get("sent") == str(frames), "frames")
        if end == "whole":
            card.end(frames)
        card.remove()
        meta = in_state(broker, run, "sealed")
        assert (meta["frames"], meta["sent"], meta["end"]) == (str(frames), str(frames), end)
        held = os.listdir(f"/proc/{publisher.process.pid}/fd")
        assert not any("plr3_" in os.readlink(f"/proc/{publisher.process.pid}/fd/{fd}") and str(CARD) in
                       os.readlink(f"/proc/{publisher.process.pid}/fd/{fd}") for fd in held)
        card.__init__(client)


@pytest.mark.parametrize("words", [{"places": 1e9}, {"places": -1}, {"channels": float("nan")}, {"energies": float("inf")},
                                   {"channels": CHANS + 1}, {"auxiliaries": 2}, {"energies": 0}, {"circular": float("nan")},
                                   {"begun": -1.0}, {"begun": float("nan")}, {"begun": 1e300}, {"cards": 0}, {"cards": 2}],
                         ids=lambda words: "-".join(f"{k}={v}" for k, v in words.items()))
def test_a_sheet_that_makes_no_sense_is_no_run(words, broker, start, card):
    publisher = start("-site=" + broker.site, kind=Publisher)
    card.begin(**words)
    time.sleep(0.1)
    card.begin()  # the next one does
    card.count(0)
    run = run_of(broker)
    wait_until(lambda: broker.meta(run).get("sent") == "1", "frame")
    assert publisher.alive()
    assert len([f for _, f in broker.entries("kestrel:runs") if f.get("cards") == b"%d" % CARD]) == 1


def test_settings_are_json_whatever_the_sheet_has(broker, start, card):
    start("-site=" + broker.site, kind=Publisher)
    card.sheet[1:] = float("nan")
    card.begin(clock=float("inf"))
    settings = json.loads(broker.meta(run_of(broker))["settings"], parse_constant=lambda word: pytest.fail(word))
    assert settings["clock_period"] is None and settings["dead_time"][str(CARD)][0]["all_event"] is None


def test_entries_of_somebody_else_in_a_runs_stream_cost_frames_and_no_more(broker, start, card):
    publisher = start("-site=" + broker.site, kind=Publisher)
    card.begin()
    card.count(0)
    run = run_of(broker)
    wait_until(lambda: broker.meta(run).get("sent") == "1", "frame")
    broker("XADD", f"kestrel:{run}:f:{CARD}", "18446744073709551614-0", "lost", "0")
    card.count(*range(1, PLACES))
    card.end(PLACES)
    meta = in_state(broker, run, "sealed")
    assert (meta["frames"], meta["sent"], meta["lost"]) == (str(PLACES), "1", str(PLACES - 1))
    assert publisher.client().lines("show")[-1] == "* 0"


def test_frames_larger_than_the_budget_are_lost(broker, start, client):
    card = Card(client, CARD + 1, 12000)
    try:
        broker("CONFIG", "SET", "maxmemory", "6mb")
        start("-site=" + broker.site, "-budget=1", kind=Publisher)
        card.begin(energies=BINS, auxiliaries=10000, places=1, channels=CHANS)  # 1.28 MB
        card.status[0, 0] = 1
        card.end(1)
        meta = in_state(broker, run_of(broker, CARD + 1), "sealed")
        assert (meta["sent"], meta["lost"]) == ("0", "1") and broker.meta(run_of(broker, CARD + 1))["frames"] == "1"
    finally:
        card.remove()


def test_a_broker_that_others_have_filled_gets_the_run_when_there_is_room(broker, start, card):
    publisher = start("-site=" + broker.site, kind=Publisher)
    broker("CONFIG", "SET", "maxmemory", "1")
    card.begin()
    card.count(*range(PLACES))
    card.end(PLACES)
    wait_until(lambda: f"{PLACES} waiting" in "".join(publisher.client().lines("show")), "frames that wait")
    assert shares_of([publisher.process])[0] < 0.3
    broker("CONFIG", "SET", "maxmemory", "0")
    meta = in_state(broker, run_of(broker), "sealed")
    assert int(meta["sent"]) + int(meta["lost"]) == PLACES


class Answerer:
    """A broker that says PONG, and otherwise what `answer(words)` says, to each command."""

    def __init__(self, path, answer):
        self.site, self.answer, self.asked = f"unix:{path}", answer, 0
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(str(path))
        self.listener.listen()
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        with contextlib.suppress(OSError):
            while True:
                threading.Thread(target=self._talk, args=(self.listener.accept()[0],), daemon=True).start()

    def _talk(self, link):
        with contextlib.suppress(OSError, ValueError), link, link.makefile("rb") as lines:
            while head := lines.readline():
                words = []
                for _ in range(int(head[1:])):
                    words.append(lines.read(int(lines.readline()[1:]) + 2)[:-2])
                self.asked += 1
                for piece in [b"+PONG\r\n"] if words[0] == b"PING" else self.answer(words):
                    link.sendall(piece)

    def close(self):
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()


REFUSALS = ["LOADING Redis is loading the dataset in memory", "READONLY You can't write against a read only replica.",
            "NOAUTH Authentication required.", "MOVED 3999 127.0.0.1:6381", "OOM command not allowed when used memory > 'maxmemory'."]
ANSWERS = {refusal.split()[0]: lambda words, text=refusal.encode(): [b"-%b\r\n" % text] for refusal in REFUSALS}
ANSWERS |= {"nil": lambda words: [b"$-1\r\n"], "ok": lambda words: [b"+OK\r\n"], "empty": lambda words: [b"*0\r\n"],
            "deep": lambda words: [b"*1\r\n" * 50 + b":1\r\n"]}


@pytest.mark.parametrize("answer", ANSWERS)
def test_nobody_spins_or_floods_at_a_broker_that_does_nothing(answer, tmp_path, start, names, card):
    broker = Answerer(tmp_path / "b.sock", ANSWERS[answer])
    programs = [start("-site=" + broker.site, kind=Publisher),
                start("-site=" + broker.site, "-all", "-rename=" + names.prefix, kind=Follower)]
    worker = Worker(tmp_path / "worker", broker.site)
    try:
        card.begin()
        card.count(0)
        shown = ["1 waiting", ""]
        if answer in {r.split()[0] for r in REFUSALS}:
            shown = [answer, answer]
        for program, text in zip(programs, shown):
            wait_until(lambda program=program, text=text: text in "".join(program.client().lines("show")), text)
        everybody = [p.process for p in (*programs, worker)]
        begin, asked = time.monotonic(), broker.asked
        took = shares_of(everybody)
        questions = (broker.asked - asked) / (time.monotonic() - begin)
        assert max(took) < 0.33 and questions < 1000, (took, questions)
        assert all(p.poll() is None for p in everybody)
        assert len(worker.stdout.splitlines()) < 20, worker.stdout
        wait_until(lambda: "1 waiting" in "".join(programs[0].client().lines("show")), "frame that waits")
        worker.stop()
        assert worker.wait_exit() == 0
    finally:
        broker.close()
        worker.close()


def test_an_answer_that_trickles_keeps_no_program_from_ending(tmp_path, start):
    def trickle(words):
        yield b"$1000000\r\n"
        for _ in range(1000):
            yield b"x"
            time.sleep(0.5)

    broker = Answerer(tmp_path / "b.sock", trickle)
    try:
        publisher = start("-site=" + broker.site, kind=Publisher)
        wait_until(lambda: broker.asked > 1, "question")
        publisher.client().send("shutdown\n")
        publisher.process.wait(20 + 10 * SCALE)  # an answer has 20 s
    finally:
        broker.close()


def test_a_follower_loses_nothing_to_a_broker_that_refuses_for_a_while(broker, tmp_path, start, names, card):
    start("-site=" + broker.site, kind=Publisher)
    card.begin()
    card.count(*range(PLACES))
    card.end(PLACES)
    run = run_of(broker)
    in_state(broker, run, "sealed")
    broker("ACL", "SETUSER", "default", "-get")
    follower = start("-site=" + broker.site, "-all", "-rename=" + names.prefix, kind=Follower)
    wait_until(lambda: "NOPERM" in "".join(follower.client().lines("show")), "refusal")
    broker("ACL", "SETUSER", "default", "+get")
    follower.wait_stdout(f"run {run} ends: whole")
    assert f"{PLACES} received, 0 lost" in "".join(follower.client().lines("show"))


@pytest.mark.parametrize("shapes", ["1,17,1,252645136,1,0", "1,1,1,1,1", "x", "1,1,1,-1,1,0", ""])
def test_a_follower_makes_nothing_of_shapes_that_no_card_has(shapes, broker, start, names):
    follower = start("-site=" + broker.site, "-all", "-rename=" + names.prefix, kind=Follower)
    run = "20261122T070644.123456Z"
    broker("HSET", f"kestrel:{run}:meta", "state", "running")
    broker("XADD", "kestrel:runs", "*", "event", "start", "run", run, "cards", CARD, "shapes", shapes, "epoch", 1)
    assert follower.wait_stdout("shapes that no card has")
    assert not [name for name in os.listdir("/dev/shm") if name.startswith(names.prefix)]


@pytest.mark.parametrize("end", [os.unlink, lambda path: os.truncate(path, 0), lambda path: os.truncate(path, 560)], ids=["removed", "empty", "short"])
@pytest.mark.parametrize("kind", ["hist", "tf_status"])
def test_a_follower_whose_modules_go_makes_them_again(kind, end, broker, start, names, card):
    start("-site=" + broker.site, kind=Publisher)
    follower = start("-site=" + broker.site, "-all", "-rename=" + names.prefix, kind=Follower)
    card.begin()
    card.count(*range(3))
    wait_until(lambda: "3 received" in "".join(follower.client().lines("show")), "frames")
    end(f"/dev/shm/{names.prefix}{card.name(kind)}")
    card.count(*range(3, PLACES))
    card.end(PLACES)
    follower.wait_stdout("ends: whole")
    assert follower.stdout.count(f"card {CARD}: its modules were removed or cut short: made again") == 1
    assert (Module(names.prefix + card.name("hist")).data == card.counts).all()
    assert (Module(names.prefix + card.name("tf_status")).data[0] == 1).all()


def test_a_follower_that_can_make_no_modules_tries_again(broker, start, names, card):
    start("-site=" + broker.site, kind=Publisher)
    in_the_way = f"/dev/shm/{names.prefix}{card.name('hist')}"
    os.mkdir(in_the_way)
    try:
        follower = start("-site=" + broker.site, "-all", "-rename=" + names.prefix, kind=Follower)
        card.begin()
        card.count(*range(PLACES))
        card.end(PLACES)
        assert follower.wait_stdout(f"! ERROR: run {run_of(broker)}: no modules for it now")
    finally:
        os.rmdir(in_the_way)
    follower.wait_stdout("ends: whole")
    assert f"{PLACES} received, 0 lost" in "".join(follower.client().lines("show"))
    assert (Module(names.prefix + card.name("hist")).data == card.counts).all()


def test_scalers_that_are_damaged_are_told_and_not_taken(broker, start, names, card):
    start("-site=" + broker.site, kind=Publisher)
    card.scalers[:] = 7
    card.begin()
    card.count(0, 1)
    card.scaler_status[0, :2] = 1
    run = run_of(broker)
    wait_until(lambda: broker.meta(run).get("sent:scalers") == "2", "scalers")
    entries = broker.entries(f"kestrel:{run}:s")
    broker("DEL", f"kestrel:{run}:x")
    for number, (i, fields) in enumerate(entries):
        fields["crc32c"] = b"0" if number == 0 else fields["crc32c"]
        broker("XADD", f"kestrel:{run}:x", i, *(word for pair in fields.items() for word in pair))
    broker("RENAME", f"kestrel:{run}:x", f"kestrel:{run}:s")
    follower = start("-site=" + broker.site, "-all", "-rename=" + names.prefix, kind=Follower)
    follower.wait_stdout("! ERROR: the scalers of frame 0 are damaged")
    status = names.prefix + card.name("scalar_tf_status")
    wait_until(lambda: (Module(status).data[0, 1] == 1).all(), "scalers of frame 1")
    assert (Module(status).data[0, 0] == 0).all() and (Module(names.prefix + card.name("scalers")).data[1] == 7).all()


@pytest.mark.parametrize("shape", ["4 4 header", "4 4 header double num-t 2", f"{BINS} {PLACES} header num-t {CHANS}"])
def test_a_follower_takes_the_place_of_modules_of_another_shape(shape, broker, client, start, names, card):
    start("-site=" + broker.site, kind=Publisher)
    do(client, f"module create '{names('plr3_hist')}{CARD}' {shape}")
    old = Module(f"{names('plr3_hist')}{CARD}").data
    old[:] = 7
    follower = start("-site=" + broker.site, "-all", "-rename=" + names.prefix, kind=Follower)
    card.begin()
    card.count(*range(PLACES))
    card.end(PLACES)
    follower.wait_stdout("ends: whole")
    assert (Module(f"{names('plr3_hist')}{CARD}").data == card.counts).all()
    assert old.shape == card.counts.shape or (old == 7).all()  # who has the old one keeps it


def test_a_follower_does_not_spin_over_entries_of_somebody_else(broker, start, names):
    follower = start("-site=" + broker.site, "-all", "-rename=" + names.prefix, kind=Follower)
    run = "20261122T070644.123456Z"
    broker("HSET", f"kestrel:{run}:meta", "state", "running")
    broker("XADD", f"kestrel:{run}:f:{CARD}", "1-7", "a", "b")
    broker("XADD", "kestrel:runs", "*", "event", "start", "run", run, "cards", CARD, "shapes", "2,1,16,8,2,0", "epoch", 1)
    follower.wait_stdout("# run " + run)
    assert shares_of([follower.process])[0] < 0.27


def test_a_socket_whose_name_is_too_long_is_no_site(start, tmp_path):
    worker = subprocess.run([BUILD / "kestrel-worker", "unix:/" + "x" * 120], capture_output=True, text=True, timeout=20)
    assert worker.returncode == 2 and "is no site" in worker.stderr


def test_the_readers_of_the_manual_read_a_run_to_its_end(broker, start, card, capsys):
    python, shell = re.findall(r"```(?:python|sh)\n(.*?)```", (ROOT / "docs" / "stream-format.md").read_text(), re.DOTALL)
    start("-site=" + broker.site, kind=Publisher)
    card.begin()
    card.count(*range(PLACES))
    words = {"/run/redis/redis.sock": str(broker.socket), ":f:0": f":f:{CARD}", ":d:0:17": f":d:{CARD}:5",
             "redis-cli": f"redis-cli -s {broker.socket}"}
    for old, new in words.items():
        python, shell = python.replace(old, new), shell.replace(old, new)
    lines = [f"{frame} {float((frame + 1) * CHANS * BINS):g}" for frame in range(PLACES)]
    run = run_of(broker)
    for after in "its start", "its end":
        threading.Timer(0.3, card.end, [PLACES]).start()
        exec(python, {})
        assert capsys.readouterr().out.splitlines() == [line.removesuffix(".0") for line in lines], after
        in_state(broker, run, "sealed")
    told = subprocess.run(["sh", "-c", shell], capture_output=True, text=True, check=True).stdout.split()
    assert "sealed" in told and told[-10:] == ["6"] * 10


ROLES = "publisher", "follower", "fitter", "worker", "reader"
FORBIDDEN = {"publisher": [("FLUSHALL",), ("KEYS", "*"), ("SET", "other", 1), ("CONFIG", "GET", "*"), ("XGROUP", "CREATE", "kestrel:runs", "g", "0")],
             "follower": [("SET", "kestrel:x", 1), ("DEL", "kestrel:runs"), ("GET", "other"), ("XADD", "kestrel:runs", "*", "a", "b")],
             "fitter": [("SET", "kestrel:runs", 1), ("SCAN", 0), ("DBSIZE",), ("GET", "kestrel:r:meta"), ("FLUSHDB",), ("CLIENT", "LIST")],
             "worker": [("SET", "kestrel:fit:1:job", 1), ("SCAN", 0), ("DEL", "kestrel:fits:1"), ("GET", "kestrel:r:meta"), ("CLIENT", "LIST")],
             "reader": [("SET", "kestrel:x", 1), ("DEL", "kestrel:runs"), ("GET", "other"), ("KEYS", "*")]}


def test_the_roles_of_fits_may_do_what_they_need_and_no_role_more(client, tmp_path, start, names, server):
    rules = (ROOT / "packaging" / "broker.acl").read_text()
    (tmp_path / "acl").write_text(rules.replace("user default off", "user default on nopass ~* +@all"))
    for role in ROLES:
        (tmp_path / role).write_text(f"{role}:CHANGE-{role}\n")
    broker = Broker(tmp_path / "b", "--aclfile", tmp_path / "acl")
    workers = [Worker(tmp_path / f"w{i}", broker.site, env={"KESTREL_BROKER_AUTH": str(tmp_path / "worker")}) for i in range(2)]
    try:
        fitting = start(env={"KESTREL_BROKER_AUTH": str(tmp_path / "fitter")}).client()
        name, result = names("s"), names("r")
        do(fitting, f"module create '{name}' 1024 50 header")
        Module(name).data[:] = noisy(50, 3000, seed=2)
        handle = do(fitting, f"module open '{name}' header")
        assert do(fitting, f"peak-fit workers '{broker.site}' {handle} 0 0 0 1023 49 0 '{result}' x fe55 no-lor") >= 0
        workers[0].stop()
        assert workers[0].wait_exit() == 0
        time.sleep(0.3)
        assert all(worker.stdout.count("\n") == 1 for worker in workers) and broker("ACL", "LOG") == []
        for role, commands in FORBIDDEN.items():
            broker.connection = None
            broker("AUTH", role, "CHANGE-" + role)
            for words in commands:
                with pytest.raises(BrokerError, match="NOPERM"):
                    broker(*words)
        broker.connection = None
    finally:
        for worker in workers:
            if worker.process.poll() is None:
                worker.stop()
                worker.wait_exit()
            worker.close()
        broker.close()


def test_after_a_restart_the_oldest_payloads_of_all_cards_go_first(broker, start, client):
    cards = [Card(client, CARD + i, bins=16384) for i in (1, 2)]  # 128 KiB a frame
    try:
        begun = time.time()
        publisher = start("-site=" + broker.site, kind=Publisher)
        for card in cards:
            card.begin(cards=2, begun=begun)
        run = wait_until(lambda: broker.runs() and broker.runs()[-1], "run")
        for frame in range(PLACES - 1):
            for card in cards:
                card.count(frame)
            wait_until(lambda frame=frame: broker.meta(run).get("sent") == str(2 * frame + 2), "frame")
        publisher.process.kill()
        publisher.process.wait()
        publisher.process.returncode = 0  # as was meant
        start("-site=" + broker.site, "-budget=1", kind=Publisher)
        for card in cards:
            card.count(PLACES - 1)
            card.end(PLACES)
        in_state(broker, run, "sealed")
        kept = [[frame for frame in range(PLACES) if broker("EXISTS", f"kestrel:{run}:d:{card.index}:{frame}")] for card in cards]
        assert all(frames and frames == list(range(frames[0], PLACES)) for frames in kept), kept
        assert abs(kept[0][0] - kept[1][0]) <= 1, kept
    finally:
        for card in cards:
            card.remove()


@pytest.mark.parametrize("emptied", [False, True])
def test_two_publishers_of_one_machine_under_one_prefix_hold_the_account(emptied, broker, start, card):
    both = [start("-site=" + broker.site, kind=Publisher) for _ in range(2)]
    card.begin()
    run = run_of(broker)
    for frame in range(PLACES):
        card.count(frame)
        time.sleep(0.02)
        if emptied and frame == 3:
            broker("FLUSHALL")
    card.end(PLACES)
    meta = in_state(broker, run, "sealed")
    assert int(meta["sent"]) + int(meta["lost"]) == int(meta["frames"]) == PLACES and "shapes" in meta
    assert meta["lost"] == "0" or emptied  # what only one of them had told is gone for the other
    assert meta["epoch"] in ({"2", "3"} if emptied else {"1"})  # each may tell of what is gone
    for _, fields in broker.entries(f"kestrel:{run}:f:{CARD}"):
        assert broker("STRLEN", fields["key"]) == CHANS * BINS * 4
    told = ", 0 waiting" if emptied else f"{PLACES} sent, 0 lost, 0 waiting"
    wait_until(lambda: all(told in "".join(p.client().lines("show")) for p in both), "account")
    assert max(shares_of([p.process for p in both])) < 0.2


def test_a_prefix_is_one_machines(broker, start, card):
    broker("SET", "kestrel:publisher", "station2 1-1")
    publisher = start("-site=" + broker.site, kind=Publisher)
    card.begin()
    card.count(0)
    refused = "another machine's publisher writes under this prefix: station2"
    wait_until(lambda: refused in "".join(publisher.client().lines("show")), "refusal")
    assert not broker.runs() and broker("PTTL", "kestrel:publisher") == -1  # the other's word stands as long as it says
    broker("PEXPIRE", "kestrel:publisher", 1)
    run = run_of(broker)
    wait_until(lambda: broker.meta(run).get("sent") == "1", "frame")
    broker("SET", "kestrel:publisher", "station2 1-1")
    wait_until(lambda: refused in "".join(publisher.client().lines("show")), "refusal of one that had it")
    broker("SET", "kestrel:publisher", "", "PX", 1)
    card.end(1)
    assert in_state(broker, run, "sealed")["epoch"] == "1" and 0 < broker("PTTL", "kestrel:publisher") <= 10000


def is_whole(broker, run, gone=0):
    """Told of once more, sealed, and nothing there but what it says: all but the first frames."""
    meta, events = broker.meta(run), [f for _, f in broker.entries("kestrel:runs")]
    assert [meta.get(name) for name in ("state", "end", "frames", "sent", "lost")] == ["sealed", "whole", str(PLACES), str(PLACES), "0"]
    assert {"shapes", "settings", "cards", "begun"} <= set(meta)
    told = [f for f in events if f["event"] in (b"start", b"again")]
    assert told[-1]["epoch"].decode() == meta["epoch"] and events[-1]["event"] == b"stop"
    assert told[-1].get("gap", b"").decode() == (f"{CARD}:0..{gone - 1}" if gone else "")
    headers = broker.entries(f"kestrel:{run}:f:{CARD}")
    assert [i for i, _ in headers] == [f"{frame + 1}-0" for frame in range(gone, PLACES)]
    assert all(broker("STRLEN", f["key"]) == CHANS * BINS * 4 for _, f in headers)
    assert len(broker("KEYS", "*:d:*")) == len(headers)  # no counts whose header is gone
    return int(meta["epoch"])


META, FRAMES_KEY = "kestrel:{run}:meta", f"kestrel:{{run}}:f:{CARD}"
# What is done when so many frames have been told (None: when the run is sealed), and how many are gone then.
DONE_TO_A_RUN = [(("FLUSHALL",), 0, 0, 2), (("FLUSHALL",), 3, 3, 2), (("FLUSHALL",), PLACES, PLACES, 2), (("FLUSHALL",), None, PLACES, 2),
                 (("DEL", META), 3, 0, 2), (("RENAME", META, "kestrel:x"), None, 0, 2), (("SET", META, "x"), 3, 0, 2), (("HDEL", META, "shapes"), 3, 0, 2),
                 (("HSET", META, "state", "sealed", "end", "cut"), 3, 0, 1),  # as another machine's publisher does
                 (("DEL", FRAMES_KEY), 3, 3, 2), (("DEL", FRAMES_KEY), None, PLACES, 2), (("SET", FRAMES_KEY, "x"), 3, 3, 2),
                 (("SET", "kestrel:{run}:s", "x"), 3, 0, 1), (("DEL", "kestrel:runs"), 3, 0, 2), (("SET", "kestrel:runs", "x"), 3, 0, 2)]


@pytest.mark.parametrize("words, when, gone, epoch", DONE_TO_A_RUN, ids=lambda value: "-".join(value) if isinstance(value, tuple) else str(value))
def test_what_others_do_to_a_run_at_the_broker_is_mended_and_told(words, when, gone, epoch, broker, start, names, card):
    publisher = start("-site=" + broker.site, kind=Publisher)
    follower = start("-site=" + broker.site, "-all", "-rename=" + names.prefix, kind=Follower)
    card.begin()
    run = run_of(broker)
    card.count(*range(when or 0))
    wait_until(lambda: broker.meta(run).get("sent") == str(when or 0), "frames")
    if when is None:
        card.count(*range(PLACES))
        card.end(PLACES)
        in_state(broker, run, "sealed")
    follower.wait_stdout("# run " + run)
    broker(*(word.format(run=run) for word in words))
    card.count(*range(when or 0, PLACES))  # at once: nobody has seen it yet
    card.end(PLACES)

    def mended():
        with contextlib.suppress(AssertionError, BrokerError, IndexError):
            return is_whole(broker, run, gone) == epoch
    with contextlib.suppress(TimeoutError, AssertionError):
        wait_until(mended, "whole run")
    assert is_whole(broker, run, gone) == epoch
    told = ask(f"{os.environ['XDG_RUNTIME_DIR']}/kestrel-{publisher.port}.sock", b"metrics\n")
    assert f"kestrel_stream_epochs_total {epoch - 1}\n" in told
    follower.wait_stdout("ends: whole")
    late = start("-site=" + broker.site, "-all", f"-rename={names.prefix}late_", kind=Follower)
    late.wait_stdout(f"run {run} ends: whole")
    for one, most in (follower, PLACES), (late, gone):
        acquired, received, lost = map(int, re.search(r"(\d+) frames: (\d+) received, (\d+) lost", "".join(one.client().lines("show"))).groups())
        assert acquired == PLACES == received + lost and lost <= most
    assert ("# resync" in late.stdout) == (gone > 0)


def test_a_publisher_with_nothing_to_tell_sees_its_broker_go(broker, start, card):
    publisher = start("-site=" + broker.site, kind=Publisher)
    card.begin()
    run = run_of(broker)
    wait_until(lambda: f"{run}: running, epoch 1" in "".join(publisher.client().lines("show")), "run that the publisher knows as told")
    broker.restart()
    wait_until(lambda: broker.meta(run).get("epoch") == "2", "armed run in a new epoch")
    card.count(*range(PLACES))
    card.end(PLACES)
    in_state(broker, run, "sealed")
    broker("FLUSHALL")
    assert in_state(broker, run, "sealed")["epoch"] == "3"
    for _ in range(3):  # another connection is no other epoch, though the frames are gone
        broker("CLIENT", "KILL", "TYPE", "normal", "SKIPME", "yes")
        wait_until(lambda: len(broker("CLIENT", "LIST").splitlines()) == 2, "connection")
    assert broker.meta(run)["epoch"] == "3" and len(broker.entries("kestrel:runs")) == 2
    broker.kill()
    wait_until(lambda: ": connected" not in publisher.client().lines("show")[0], "word of a broker that has gone")


@pytest.mark.parametrize("frozen, how", [(False, "shutdown"), (True, "shutdown"), (False, "SIGTERM")])
def test_a_publisher_that_ends_says_what_it_has_first(frozen, how, broker, start, client):
    many = 48  # frames of 128 KiB: more than go out in a turn, where little may be kept
    card = Card(client, CARD + 1, places=many, bins=16384)
    try:
        publisher = start("-site=" + broker.site, "-budget=1", kind=Publisher)
        card.begin()
        run = run_of(broker, CARD + 1)
        broker.process.send_signal(signal.SIGSTOP)
        card.count(*range(many))
        wait_until(lambda: f" {many} frames" in "".join(publisher.client().lines("show")), "frames")
        begin = time.monotonic()
        if how == "shutdown":
            publisher.client().send("shutdown\n")
        else:
            publisher.process.send_signal(signal.SIGTERM)
        time.sleep(0.2)
        if not frozen:
            broker.process.send_signal(signal.SIGCONT)
        publisher.process.wait(10 * SCALE)
        assert time.monotonic() - begin < 5 * SCALE
        broker.process.send_signal(signal.SIGCONT)
        assert ("not told of" in publisher.stdout) == frozen
        assert frozen or broker.meta(run)["sent"] == str(many)
    finally:
        card.remove()


class Between(Answerer):
    """Passes a publisher's commands on to a broker; `refused(words)` may answer in its place, or raise OSError to cut."""

    def __init__(self, path, broker):
        super().__init__(path, self._pass)
        self.broker, self.links, self.refused = broker, threading.local(), lambda words: None

    @property
    def link(self):
        """To the broker, of the connection at hand: each has a thread."""
        if not hasattr(self.links, "here"):
            self.links.here = Connection(self.broker.socket)
        return self.links.here

    def _pass(self, words):
        return [self.refused(words) or self._coded(self._done(words))]

    def _done(self, words):
        try:
            return self.link(*words)
        except BrokerError as error:
            return error

    def _coded(self, reply):
        if isinstance(reply, list):
            return b"*%d\r\n" % len(reply) + b"".join(map(self._coded, reply))
        if isinstance(reply, BrokerError):
            return b"-%b\r\n" % str(reply).encode()
        if isinstance(reply, int):
            return b":%d\r\n" % reply
        return b"$-1\r\n" if reply is None else b"$%d\r\n%b\r\n" % (len(reply), reply)


def multi_is_refused(between, broker):
    return lambda words: words[0] == b"MULTI" and b"-NOPERM this user has no permissions to run the 'multi' command\r\n"


def nobody_says_what_was_told(between, broker):
    """The answer to EXEC is lost, and the questions after it are refused."""
    lost = []

    def refused(words):
        if words[0] == b"EXEC" and not lost:
            lost.append(between.link("EXEC"))
            raise OSError
        return words[0] == b"XRANGE" and b"-LOADING Redis is loading the dataset in memory\r\n"
    return refused


def what_was_told_counts_after_all(between, broker):
    """The connection is lost before EXEC is done, which it is when its payloads are sent again."""
    late = []

    def refused(words):
        if words[0] == b"EXEC" and not late:
            late.append(between.link)
            raise OSError
        if words[0] == b"SET" and len(late) == 1:
            late.append(late[0]("EXEC"))
    return refused


def nobody_says_what_there_is(between, broker):
    """To a publisher that begins anew."""
    return lambda words: words[0] == b"XRANGE" and b"-LOADING Redis is loading the dataset in memory\r\n"


def memory_ends_before_exec(between, broker):
    own = Connection(broker.socket)  # the test's has another thread

    def refused(words):
        if words[0] != b"EXEC":
            return None
        own("CONFIG", "SET", "maxmemory", "1")
        try:
            return between._coded(between._done(words))
        finally:
            own("CONFIG", "SET", "maxmemory", "0")
    return refused


@pytest.mark.parametrize("refusal", [multi_is_refused, nobody_says_what_was_told, what_was_told_counts_after_all,
                                     nobody_says_what_there_is, memory_ends_before_exec],
                         ids=lambda refusal: refusal.__name__)
def test_each_header_has_its_payload_whatever_was_refused(refusal, broker, tmp_path, start, card):
    between = Between(tmp_path / "between.sock", broker)
    publisher = start("-site=" + between.site, kind=Publisher)
    try:
        card.begin()
        card.count(0)
        run = run_of(broker)
        wait_until(lambda: broker.meta(run).get("sent") == "1", "frame")
        between.refused = refusal(between, broker)
        if refusal is nobody_says_what_there_is:
            publisher.process.kill()
            publisher.process.wait()
            publisher.process.returncode = 0  # as was meant
            publisher = start("-site=" + between.site, kind=Publisher)
        card.count(*range(1, PLACES - 1))
        time.sleep(0.5)
        between.refused = lambda words: None
        card.count(PLACES - 1)
        card.end(PLACES)
        meta = in_state(broker, run, "sealed")
        assert [meta[name] for name in ("frames", "sent", "lost", "epoch")] == [str(PLACES), str(PLACES), "0", "1"]
        headers = broker.entries(f"kestrel:{run}:f:{CARD}")
        assert [i for i, _ in headers] == [f"{frame + 1}-0" for frame in range(PLACES)]
        if refusal is memory_ends_before_exec:  # the oldest made room, and the connection is as good as it was
            assert broker("STRLEN", headers[-1][1]["key"]) == CHANS * BINS * 4
            told = ask(f"{os.environ['XDG_RUNTIME_DIR']}/kestrel-{publisher.port}.sock", b"metrics\n")
            assert "kestrel_stream_connections_total 1\n" in told
        else:
            assert {broker("STRLEN", fields["key"]) for _, fields in headers} == {CHANS * BINS * 4}
    finally:
        between.close()


def test_a_start_that_was_told_to_a_broker_that_goes_is_told_to_the_next(broker, tmp_path, start, names, card):
    between = Between(tmp_path / "between.sock", broker)
    start("-site=" + between.site, kind=Publisher)
    follower = start("-site=" + broker.site, "-all", "-rename=" + names.prefix, kind=Follower)
    gone = threading.Event()

    def refused(words):
        if words[0] == b"EXEC" and not gone.is_set():
            between.link("EXEC")
            follower.wait_stdout("# run ")
            broker.restart()
            gone.set()
            raise OSError  # the answer to EXEC
    between.refused = refused
    try:
        card.begin()
        assert gone.wait(WAIT)
        card.count(*range(PLACES))
        card.end(PLACES)
        meta = in_state(broker, run_of(broker), "sealed")
        assert [meta[name] for name in ("sent", "lost", "epoch")] == [str(PLACES), "0", "1"]
        follower.wait_stdout("ends: whole")
        assert f"{PLACES} received, 0 lost" in "".join(follower.client().lines("show"))
    finally:
        between.close()


def test_counts_in_doubt_that_the_ring_drops_do_not_stay_without_a_header(broker, tmp_path, start, client):
    between, places = Between(tmp_path / "between.sock", broker), 20
    card = Card(client, CARD + 1, places=places, bins=16384)  # 128 KiB a frame: the ring has room for eight
    try:
        publisher = start("-site=" + between.site, "-ring=1", kind=Publisher)
        card.begin()
        run = run_of(broker, CARD + 1)
        away = []

        def refused(words):
            if words[0] == b"EXEC" or away:
                away.append(words)
                raise OSError
        between.refused = refused
        card.count(0)
        wait_until(lambda: away, "connection that is cut")
        assert broker("EXISTS", f"kestrel:{run}:d:{card.index}:0")
        card.count(*range(1, places))
        wait_until(lambda: f" {places} frames" in "".join(publisher.client().lines("show")), "frames")
        between.refused = lambda words: None
        card.end(places)
        meta = in_state(broker, run, "sealed")
        kept = {f["key"] for _, f in broker.entries(f"kestrel:{run}:f:{card.index}") if f["lost"] == b"0"}
        assert int(meta["lost"]) == places - len(kept) > 8 and set(broker("KEYS", "*:d:*")) == kept
    finally:
        between.close()
        card.remove()
