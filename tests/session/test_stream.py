"""Runs on a broker: what a publisher tells of them, and that the account is exact whatever becomes of the broker."""
import contextlib
import os
import random
import signal
import socket
import threading
import time

import numpy
import pytest
from broker import Broker, Follower, Proxy, Publisher
from kestrel_data import Module, do
from kestrel_session import ROOT, SCALE, wait_until
from test_control import ask
from test_pulsar3_cards import play  # noqa: F401 (a fixture)
from test_pulsar3_counting import BINS, CHANS, configured, count, sent
from test_pulsar3_dummy import no_modules_left  # noqa: F401 (a fixture)

FRAMES = 40


@pytest.fixture
def broker(tmp_path):
    broker = Broker(tmp_path / "broker")
    yield broker
    broker.close()


@pytest.fixture
def publisher(start, broker, no_modules_left):
    return start("-site=" + broker.site, kind=Publisher)


def begin(client, frames=FRAMES, milliseconds=5):
    assert do(client, f"pulsar3 setup-timing 0 internal time {milliseconds / 1000} frames {frames}") == 0
    assert do(client, "pulsar3 hist start 0") == 0


def end(client, frames=FRAMES):
    assert do(client, f"pulsar3 check-progress 0 num-t {frames}") == frames
    assert do(client, "pulsar3 hist stop 0") == 0


def sealed(broker, runs=1, frames=FRAMES, cards=1):
    """The newest of so many runs, once it is sealed; its account holds, and the streams hold what it says."""
    def look():
        found = broker.runs()
        return len(found) == runs and broker.meta(found[-1]).get("state") == "sealed" and found[-1]

    run = wait_until(look, "sealed run")
    meta = {k: int(v) for k, v in broker.meta(run).items() if k.split(":")[0] in ("frames", "sent", "lost", "epoch")}
    assert meta["frames"] == frames * cards == meta["sent"] + meta["lost"]
    return run, meta


def stored(broker, run, card=0):
    """Frame -> its counts, or None where they are lost."""
    found = {}
    for i, fields in broker.entries(f"kestrel:{run}:f:{card}"):
        payload = broker("GET", fields["key"]) if fields["lost"] == b"0" else None
        found[int(i.split("-")[0]) - 1] = payload and numpy.frombuffer(payload, "<u4").reshape(CHANS, BINS)
    return found


def test_every_frame_of_every_card_is_there(client, play, broker, publisher):
    configured(client, play, "-kind=4", ncards=2, frames=FRAMES)
    begin(client)
    end(client)
    run, meta = sealed(broker, cards=2)
    assert meta["lost"] == 0 and broker.meta(run)["end"] == "whole"
    for card in range(2):
        frames = stored(broker, run, card)
        assert list(frames) == list(range(FRAMES))
        for frame, counts in frames.items():
            for chan in range(CHANS):
                assert (counts[chan] == sent(card, chan, frame)).all()
    start, stop = broker.entries("kestrel:runs")
    assert start[1]["event"] == b"start" and stop[1]["event"] == b"stop" and stop[1]["frames"] == b"%d" % (2 * FRAMES)
    # The next is another run, and knows nothing of it.
    begin(client, 3)
    end(client, 3)
    assert sealed(broker, 2, 3, 2)[1]["sent"] == 6


LONG = 200  # frames of 5 ms: the cards' clocks run ten times as fast as they say
SLOW = 200 * SCALE  # milliseconds of a frame, of which a tenth passes: what is done meanwhile meets a run that goes on


def empty(broker):
    broker("FLUSHALL")


def freeze(broker):
    broker.freeze(5)


def pause(broker):
    broker("CLIENT", "PAUSE", 3000)
    broker.connection = None
    time.sleep(3.2)


def kill_clients(broker):
    for _ in range(20):
        broker("CLIENT", "KILL", "TYPE", "normal", "SKIPME", "yes")
        time.sleep(0.02)


@pytest.mark.parametrize("disturb, new_epoch", [(Broker.restart, True), (empty, True), (freeze, False), (pause, False), (kill_clients, False)],
                         ids=["killed", "emptied", "stopped", "paused", "clients-killed"])
def test_the_account_is_exact_whatever_the_broker_does(client, play, broker, publisher, disturb, new_epoch):
    configured(client, play, "-kind=4", frames=LONG)
    begin(client, LONG, 50)
    wait_until(lambda: broker.runs() and int(broker.meta(broker.runs()[0])["sent"]) > 20, "frames")
    meta = broker.meta(broker.runs()[0])
    assert int(meta["frames"]) == int(meta["sent"]) + int(meta["lost"]) == int(meta["frames:0"])  # of a run that goes on
    disturb(broker)
    end(client, LONG)
    run, meta = sealed(broker, frames=LONG)
    assert meta["epoch"] == (2 if new_epoch else 1) and meta["lost"] == 0
    there = stored(broker, run)
    if new_epoch:
        again = next(f for _, f in broker.entries("kestrel:runs") if f["event"] == b"again")
        first, last = (int(n) for n in again["gap"].decode().removeprefix("0:").split(".."))
        assert first == 0 and last >= 20 and list(there) == list(range(last + 1, LONG))
    else:
        assert list(there) == list(range(LONG))
    assert all((counts[0] == sent(0, 0, frame)).all() for frame, counts in there.items())
    assert publisher.client().lines("show")[-1] == "* 0"


def test_a_ring_that_is_full_costs_payloads_and_no_headers(client, play, broker, start):
    publisher = start("-site=" + broker.site, "-ring=1", kind=Publisher)  # 32 frames
    configured(client, play, "-kind=4", frames=LONG)
    begin(client, LONG, SLOW)
    wait_until(lambda: broker.runs() and int(broker.meta(broker.runs()[0])["sent"]) > 20, "frames")
    broker.process.send_signal(signal.SIGSTOP)
    end(client, LONG)
    wait_until(lambda: f" {LONG} frames" in "".join(publisher.client().lines("show")), "frames that wait")
    broker.process.send_signal(signal.SIGCONT)
    run, meta = sealed(broker, frames=LONG)
    there = stored(broker, run)
    lost = [frame for frame, counts in there.items() if counts is None]
    assert list(there) == list(range(LONG)) and len(lost) == meta["lost"] > 20
    assert lost == list(range(lost[0], lost[-1] + 1)) and lost[-1] < LONG - 20  # the newest were kept
    assert f"{meta['sent']} sent, {meta['lost']} lost, 0 waiting" in "".join(publisher.client().lines("show"))
    told = ask(f"{os.environ['XDG_RUNTIME_DIR']}/kestrel-{publisher.port}.sock", b"metrics\n")
    counts = {line.split()[0]: int(line.split()[1]) for line in told.splitlines() if line.startswith("kestrel_stream_")}
    assert counts["kestrel_stream_lost_frames_total"] == meta["lost"]
    assert counts["kestrel_stream_acquired_frames_total"] == LONG == meta["lost"] + counts["kestrel_stream_sent_frames_total"]
    assert counts["kestrel_stream_waiting_frames"] == counts["kestrel_stream_ring_bytes"] == 0


def test_a_broker_of_8_megabytes_keeps_what_fits_and_evicts_nothing(client, play, tmp_path, start, no_modules_left):
    broker = Broker(tmp_path / "small", "--maxmemory", "8mb")
    try:
        start("-site=" + broker.site, kind=Publisher)
        configured(client, play, "-kind=4", frames=LONG)
        for runs in 1, 2, 3:
            begin(client, LONG, 20)
            end(client, LONG)
            run, meta = sealed(broker, runs, LONG)
            kept = [frame for frame, counts in stored(broker, run).items() if counts is not None]
            assert meta["lost"] == 0 and kept == list(range(LONG - len(kept), LONG)) and len(kept) > 60
        info = dict(line.split(":", 1) for line in broker("INFO").decode().splitlines() if ":" in line)
        assert info["evicted_keys"] == "0" and int(info["used_memory_dataset"]) < 0.6 * 8 * 2**20
    finally:
        broker.close()


def test_a_connection_cut_anywhere_costs_nothing(client, play, broker, start, tmp_path, no_modules_left):
    proxy = Proxy(tmp_path, broker.socket)
    try:
        # In the midst of the first questions, of a payload, of headers, of answers.
        proxy.cut_next(*[(up, None) for up in (1, 20, 100, 300, 700, 1500, 5000, 40000, 66500, 67500, 200000)],
                       *[(None, down) for down in (1, 5, 8, 100, 8000, 9000, 9100, 9200, 9300, 9600, 10000)])
        start("-site=" + proxy.site, kind=Publisher)
        configured(client, play, "-kind=4", frames=LONG)
        begin(client, LONG, 50)
        end(client, LONG)
        run, meta = sealed(broker, frames=LONG)
        assert proxy.made > 10 and meta["lost"] == 0
        there = stored(broker, run)
        assert list(there) == list(range(LONG))
        assert all((counts[0] == sent(0, 0, frame)).all() for frame, counts in there.items())
    finally:
        proxy.close()


def test_a_publisher_that_was_killed_goes_on_where_it_was(client, play, broker, start, no_modules_left):
    configured(client, play, "-kind=4", frames=LONG)
    for frames in LONG, 5:  # once during a run, once between two
        publisher = start("-site=" + broker.site, kind=Publisher)
        before = len(broker.runs())
        begin(client, frames, 50)
        wait_until(lambda: len(broker.runs()) > before, "run")
        publisher.process.kill()
        publisher.process.wait()
        publisher.process.returncode = 0  # as was meant
        end(client, frames)
    start("-site=" + broker.site, kind=Publisher)
    run, meta = sealed(broker, 2, 5)
    assert meta["lost"] == 0 and list(stored(broker, run)) == list(range(5))
    first = broker.runs()[0]
    wait_until(lambda: broker.meta(first)["state"] == "sealed", "end of the run before")
    meta = broker.meta(first)
    assert int(meta["frames"]) == int(meta["sent"]) + int(meta["lost"])
    assert list(stored(broker, first)) == list(range(int(meta["frames"])))


def followed(follower, what):
    """The follower's account, once its lines match."""
    follower.wait_stdout(what)
    line = next(text for text in follower.client().lines("show") if " frames: " in text)
    return [int(word) for word in line.replace(";", "").replace(",", "").split() if word.isdigit()][:4]


def test_a_follower_has_the_same_modules(server, client, play, broker, publisher, start, names):
    follower = start("-site=" + broker.site, "-all", "-rename=" + names.prefix, kind=Follower)
    configured(client, play, "-kind=4", ncards=2, frames=FRAMES)
    do(client, "pulsar3 dtc set-params 0 -1 0.0 4e-7 0.0 3e-7")
    assert do(client, "pulsar3 open-scalers 0 dtc") == 0
    for runs in 1, 2:
        begin(client)
        end(client)
        sealed(broker, runs, cards=2)
        assert followed(follower, f"(?s)(run .* ends: whole.*){{{runs}}}") == [80 * runs, 80 * runs, 0, 0]
        for card in range(2):
            for kind in "hist", "tf_status":
                assert (Module(f"{names.prefix}plr3_{kind}{card}").data == Module(f"plr3_{kind}{card}").data).all()
    # Scalers go out when they are read.
    do(client, f"read 0 0 0 9 {2 * CHANS} {FRAMES} from 0 to-local-file 'words' raw")
    run = broker.runs()[-1]
    wait_until(lambda: len(broker.entries(f"kestrel:{run}:s")) == FRAMES, "scalers")
    assert do(client, "pulsar3 open-scalers 0") == 1
    do(client, f"read 0 0 0 9 {2 * CHANS} {FRAMES} from 1 to-local-file 'raw' raw")
    factors = [numpy.frombuffer(fields["factors"], "<f8") for _, fields in broker.entries(f"kestrel:{run}:s")]
    counted, corrected = (numpy.fromfile(server.cwd / name, kind).reshape(FRAMES, 2 * CHANS, 9)
                          for name, kind in (("raw", "<u4"), ("words", "<f8")))
    assert numpy.array_equal(corrected[:, :, 5], counted[:, :, 5] * factors) and (numpy.array(factors) != 1).all()
    wait_until(lambda: Module(f"{names.prefix}plr3_scalar_tf_status1").data[0].all(), "scalers of the follower")
    for card in range(2):
        assert (Module(f"{names.prefix}plr3_scalers{card}").data == Module(f"plr3_scalers{card}").data).all()


def test_a_follower_names_what_is_gone_and_says_resync(client, play, broker, publisher, start, names):
    configured(client, play, "-kind=4", frames=LONG)
    follower = start("-site=" + broker.site, "-all", "-rename=" + names.prefix, kind=Follower)
    begin(client, LONG, SLOW)
    wait_until(lambda: broker.runs() and int(broker.meta(broker.runs()[0])["sent"]) > 20, "frames")
    follower.process.send_signal(signal.SIGSTOP)
    run = broker.runs()[0]
    behind = int(broker.meta(run)["sent"])
    wait_until(lambda: int(broker.meta(run)["sent"]) > behind + 20, "frames that it does not see")
    broker.restart()  # with them, and without its files
    wait_until(lambda: broker.runs() and broker.meta(run), "run in a new epoch")
    deleted = int(broker.meta(run)["sent"]) + 3
    wait_until(lambda: int(broker.meta(run)["sent"]) > deleted, "more frames")
    broker("DEL", f"kestrel:{run}:d:0:{deleted}")
    follower.process.send_signal(signal.SIGCONT)
    end(client, LONG)
    acquired, received, lost, skipped = followed(follower, f"run {run} ends: whole")
    assert acquired == LONG == received + lost and skipped == 0 and lost > 20
    assert "# resync: card 0 goes on at frame" in follower.stdout and f"# card 0 lost {deleted}..{deleted}" in follower.stdout
    status = Module(f"{names.prefix}plr3_tf_status0").data
    assert (status[0, :, 0] == 1).sum() == received and (status[0, :, 0] == 2).sum() == lost
    here = Module(f"{names.prefix}plr3_hist0").data[0]
    assert all((here[frame] == sent(0, 0, frame)).all() for frame in range(LONG) if status[0, frame, 0] == 1)


def test_a_follower_of_the_newest_skips_and_one_that_was_killed_comes_back(client, play, broker, publisher, start, names):
    configured(client, play, "-kind=4", frames=LONG)
    begin(client, LONG, 50)
    first = start("-site=" + broker.site, "-live", "-rename=" + names.prefix, kind=Follower)
    wait_until(lambda: os.path.exists(f"/dev/shm/{names.prefix}plr3_tf_status0"), "modules")
    first.process.kill()
    first.process.wait()
    first.process.returncode = 0
    end(client, LONG)
    run, _ = sealed(broker, frames=LONG)
    again = start("-site=" + broker.site, "-live", "-rename=" + names.prefix, kind=Follower)
    assert followed(again, f"run {run} ends: whole") == [LONG, 1, 0, LONG - 1]
    assert (Module(f"{names.prefix}plr3_hist0").data[0, LONG - 1] == sent(0, 0, LONG - 1)).all()
    every = start("-site=" + broker.site, "-all", "-rename=" + names.prefix, kind=Follower)
    assert followed(every, f"run {run} ends: whole") == [LONG, LONG, 0, 0]
    # On the machine that counts, its own modules are nobody else's.
    own = start("-site=" + broker.site, "-all", kind=Follower)
    assert own.wait_stdout("card 0 is one of this machine's own: -rename=PREFIX")


def test_the_roles_of_the_example_may_do_what_they_need(client, play, tmp_path, start, names, no_modules_left):
    rules = (ROOT / "packaging" / "broker.acl").read_text()
    (tmp_path / "acl").write_text(rules.replace("user default off", "user default on nopass ~* +@all"))
    for role in "publisher", "follower":
        (tmp_path / role).write_text(f"{role}:CHANGE-{role}\n")
    broker = Broker(tmp_path / "broker", "--aclfile", tmp_path / "acl")
    try:
        as_role = {role: {"KESTREL_BROKER_AUTH": str(tmp_path / role)} for role in ("publisher", "follower")}
        start("-site=" + broker.site, "-budget=1", kind=Publisher, env=as_role["publisher"])  # so that it removes, too
        follower = start("-site=" + broker.site, "-all", "-rename=" + names.prefix, kind=Follower, env=as_role["follower"])
        configured(client, play, "-kind=4", frames=FRAMES)
        begin(client)
        end(client)
        first, _ = sealed(broker)
        acquired, received, lost, _ = followed(follower, "ends: whole")
        assert acquired == FRAMES == received + lost
        begin(client)
        end(client)
        wait_until(lambda: any(run != first and broker.meta(run).get("state") == "sealed" for run in broker.runs()), "second run")
        assert [line for line in broker("ACL", "LOG")] == []
        # One that nobody knows is told so, and goes on trying.
        stranger = start("-site=" + broker.site, kind=Publisher, env={"KESTREL_BROKER_AUTH": str(tmp_path / "nobody")},
                         prepare=lambda _: (tmp_path / "nobody").write_text("publisher:wrong\n"))
        wait_until(lambda: "refuses us" in stranger.client().lines("show")[0], "refusal")
    finally:
        broker.close()


NONSENSE = [b"+PONG\r\n", b":7\r\n", b"$-1\r\n", b"*-1\r\n", b"$3\r\nabc\r\n", b"-ERR no\r\n", b"*2\r\n:1\r\n$-1\r\n",
            b"*1\r\n*2\r\n$3\r\n1-0\r\n*2\r\n$3\r\nrun\r\n$-1\r\n", b"*1\r\n*2\r\n$3\r\n9-0\r\n*4\r\n$4\r\nlost\r\n:0\r\n$3\r\nkey\r\n:1\r\n",
            b"*1\r\n*2\r\n$20\r\n18446744073709551615\r\n*0\r\n", b"*6\r\n$5\r\nepoch\r\n$2\r\n-5\r\n$5\r\nstate\r\n:1\r\n$5\r\ncards\r\n$3\r\n0 x\r\n",
            b"$99999999999\r\n", b"*1000000\r\n", b"junk\r\n", b""]


def test_a_broker_that_answers_nonsense_does_no_harm(client, play, tmp_path, start, names, no_modules_left):
    path, answers = tmp_path / "nonsense.sock", random.Random(1)
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(str(path))
    listener.listen()
    asked = []

    def answer(link):
        with contextlib.suppress(OSError):
            while data := link.recv(65536):
                asked.append(data)
                count = max(1, data.count(b"\r\n$4\r\n"))
                link.sendall(b"+PONG\r\n" if b"PING" in data else b"".join(answers.choices(NONSENSE, k=count)))
        link.close()

    def accept():
        with contextlib.suppress(OSError):
            while True:
                threading.Thread(target=answer, args=(listener.accept()[0],), daemon=True).start()

    threading.Thread(target=accept, daemon=True).start()
    publisher = start(f"-site=unix:{path}", kind=Publisher)
    follower = start(f"-site=unix:{path}", "-all", "-rename=" + names.prefix, kind=Follower)
    configured(client, play, "-kind=4", frames=FRAMES)
    begin(client)
    end(client)
    wait_until(lambda: len(asked) > 60, "questions")
    listener.shutdown(socket.SHUT_RDWR)
    listener.close()
    for program in publisher, follower:
        assert program.client().lines("eval") and program.alive()
    wait_until(lambda: f" {FRAMES} frames" in "".join(publisher.client().lines("show")), "frames that wait")
