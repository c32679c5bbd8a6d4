"""Peak fits by workers over a broker: the bits of local ones, whatever ends, comes or lies meanwhile."""
import itertools
import pathlib
import random
import struct
import threading
import time

import numpy as np
import pytest
from broker import BrokerError
from fit_workers import WORKER, Site, Worker
from kestrel_data import Module, do, refused
from kestrel_session import SCALE, Process, wait_until
from test_peak_fit import noisy

CHANNELS = 1024


def many(count):
    """So many points, or fewer where fits are slow."""
    return int(count / SCALE)


def hard(*args, **how):
    """Spectra ten times as noisy as counts: every pass is tried, so that a job takes its time."""
    return 10 * noisy(*args, **how)


@pytest.fixture
def broker():
    site = Site()
    yield site
    site.close()


@pytest.fixture
def workers(tmp_path, broker):
    """workers(n) starts so many more; what still runs at the end must end well."""
    running = []

    def begin(count):
        for _ in range(count):
            running.append(Worker(tmp_path / f"worker{len(running)}", broker.site))
        return running

    yield begin
    living = [worker for worker in running if worker.process.returncode is None]
    for worker in living:
        worker.stop()
    for worker in living:
        assert worker.wait_exit() == 0
        worker.close()


@pytest.fixture
def scan(client, names):
    """scan(array) -> fit(words, site="") -> (result, lines, bytes of the module), over the array's rows or frames of rows."""
    count = itertools.count()

    def of(array, kind=""):
        name = names(f"s{next(count)}")
        frames = f"num-t {array.shape[0]}" if array.ndim == 3 else ""
        do(client, f"module create '{name}' {array.shape[-1]} {array.shape[-2]} header {kind} {frames}")
        Module(name).data[:] = array
        handle = do(client, f"module open '{name}' header")
        nt = array.shape[0] if array.ndim == 3 else 1

        def fit(words, site=""):
            command = f"workers '{site}'" if site else "unified"
            *lines, last = client.lines(f"peak-fit {command} {handle} 0 0 0 {array.shape[-1] - 1} {array.shape[-2] - 1} "
                                        f"{nt - 1} '{names('r')}' {words}", 60 * SCALE)
            return int(last[2:]), [line for line in lines if line[0] != "@"], Module(names("r")).data.tobytes()
        return fit
    return of


def nothing_is_left(broker):
    """Of a job; the stream stays, empty, for an hour, and who was there."""
    stream = broker.fit_stream()
    assert set(broker.keys()) <= {stream, stream + ":workers"} and broker("XLEN", stream) == 0
    assert broker("XPENDING", stream, "workers")[0] == 0 and 0 < broker("PTTL", stream) <= 3600000


def consume(broker, name="lost"):
    """Takes a block as a worker does: its entry and its bytes, or nothing within a second."""
    stream = broker.fit_stream()
    try:
        reply = broker("XREADGROUP", "GROUP", "workers", name, "COUNT", 1, "BLOCK", 1000, "STREAMS", stream, ">")
    except BrokerError:  # the group is not there yet
        return None
    if not reply:
        return None
    entry, fields = reply[0][1][0]
    return entry.decode(), fields[1].decode(), fields[3]


def in_background(fit, *arguments):
    """The fit on a thread: a function that waits for its outcome."""
    outcome = []
    thread = threading.Thread(target=lambda: outcome.append(fit(*arguments)))
    thread.start()

    def wait():
        thread.join(90 * SCALE)
        assert outcome, "the fit has not ended"
        return outcome[0]
    return wait


@pytest.mark.parametrize("count", [1, 2, 4])
def test_workers_give_the_bits_of_threads_here(broker, workers, scan, count):
    workers(count)
    rows = many(150)
    spectra = noisy(3 * rows, 3000, seed=2)
    spectra[::7] = noisy(1, 20, seed=3)  # poor ones
    fit = scan(spectra.reshape(3, rows, CHANNELS))
    for words in "x fe55", "x width 14.0 peak0 5.895 peak1 6.49 no-lor", "x fe55 by-top-sum":
        here = fit(words)
        assert fit(words, broker.site) == here, words
    nothing_is_left(broker)


@pytest.mark.parametrize("kind", ["float", "double"])
def test_any_axis_and_what_cannot_be_a_number(broker, workers, scan, kind):
    workers(2)
    spectra = np.array(noisy(80, 1e4), np.float64).reshape(8, 10, CHANNELS)
    spectra[3, 4, 5], spectra[4, 4, 5] = np.nan, np.inf
    for axis, order in (("x", (0, 1, 2)), ("t", (2, 0, 1))):
        fit = scan(spectra.transpose(order), kind)
        here = fit(f"{axis} fe55 by-top-sum")
        there = fit(f"{axis} fe55 by-top-sum", broker.site)
        assert (here[0], here[1][-1], here[2]) == (there[0], there[1][-1], there[2])
        assert here[0] == -1


def test_workers_are_waited_for_come_and_go(client, broker, workers, scan):
    fit = scan(hard(many(3000), 1e4))
    here = fit("x fe55")
    there = in_background(fit, "x fe55", broker.site)
    wait_until(lambda: b"waiting, ^C ends\r\n" in client.buffer, "line that nobody answers")
    first = workers(1)[0]
    wait_until(lambda: broker("ZCARD", broker.fit_stream() + ":workers") == 1, "worker")
    second = workers(1)[1]
    first.close()  # in good order: after its block
    assert second.process.poll() is None
    value, lines, data = there()
    assert (value, data) == (here[0], here[2])
    assert lines[0] == f"# No worker of this build answers at {broker.site}: waiting, ^C ends"
    assert lines[1].startswith(f"# Workers at {broker.site}: ") and len(lines) == 2
    nothing_is_left(broker)


def test_workers_that_are_killed_at_random_lose_nothing(client, broker, workers, scan):
    """Some 50 blocks, more on a slower one."""
    do(client, "peak-fit max-threads 2")
    fit = scan(hard(many(6000), 1e5, seed=9))
    here = fit("x fe55")
    running = workers(3)
    there = in_background(fit, "x fe55", broker.site)
    rng = random.Random(4)
    for _ in range(5):
        time.sleep(rng.uniform(0.05, 0.6))
        victim = rng.choice([worker for worker in running if worker.process.returncode is None])
        victim.kill()
        workers(1)
    assert there() == (here[0], here[1], here[2])
    nothing_is_left(broker)


def test_a_block_that_ends_three_workers_is_named_and_the_rest_is_fitted(broker, scan, workers):
    fit = scan(noisy(300, 1e4))
    here = np.frombuffer(fit("x fe55 no-lor")[2])
    there = in_background(fit, "x fe55 no-lor", broker.site)
    poison = wait_until(lambda: consume(broker, "victim"), "block")[2]
    deaths, stream = 1, broker.fit_stream()

    def again():
        taken = consume(broker, "victim")
        if taken and taken[2] != poison:  # goes back as it was
            broker("XADD", stream, "*", "job", taken[1], "block", taken[2])
            broker("XACK", stream, "workers", taken[0])
            broker("XDEL", stream, taken[0])
        return taken and taken[2] == poison

    while deaths < 3:  # it comes when its last worker has said nothing for a second
        deaths += bool(wait_until(again, "the block again"))
    wait_until(lambda: not broker("XPENDING", stream, "workers", "-", "+", 10, "victim"), "end of its third worker")
    workers(1)
    value, lines, data = there()
    lines = [line for line in lines if line[0] == "!"]
    assert value == -1 and lines[0] == "! Points 0..3 are given up: 3 workers failed on them"
    assert lines[-1].startswith("! ERROR : Number of points with Errors=4, ")
    frames = np.frombuffer(data).reshape(-1, 300)
    assert (frames[0, :4] == -1).all() and np.array_equal(frames[:, 4:], here.reshape(-1, 300)[:, 4:])


def test_an_interrupt_ends_the_job_and_leaves_nothing(server, client, broker, workers, scan):
    fit = scan(hard(4000, 1e5))
    for count in 0, 2:
        workers(count)
        there = in_background(fit, "x fe55", broker.site)
        wait_until(broker.job_key, "job")
        time.sleep(0.5)
        begin = time.monotonic()
        server.interrupt()
        value, lines, _ = there()
        assert value == -1 and lines[-1] == "! Fitting terminated by ^C" and time.monotonic() - begin < 5 * SCALE
        wait_until(lambda: broker("XLEN", broker.fit_stream()) == 0, "block left by the workers")
        nothing_is_left(broker)
    assert client.cmd("7") == b"* 7\r\n"


def test_a_broker_that_is_killed_and_comes_back_empty(broker, workers, scan):
    workers(2)
    fit = scan(hard(many(4000), 1e4))
    here = fit("x fe55")
    there = in_background(fit, "x fe55", broker.site)
    wait_until(broker.job_key, "job")
    for pause in 0.0, 0.7:
        time.sleep(0.4)
        broker.kill()
        time.sleep(pause)
        broker.start()
    value, lines, data = there()
    assert (value, data) == (here[0], here[2])
    assert lines[0].startswith(f"# The broker {broker.site} is away (") and f"# The broker {broker.site} is back" in lines
    nothing_is_left(broker)


def test_a_broker_that_forgets_and_one_that_stands_still(broker, workers, scan):
    workers(2)
    fit = scan(hard(many(4000), 1e4))
    here = fit("x fe55")
    there = in_background(fit, "x fe55", broker.site)
    wait_until(broker.job_key, "job")
    time.sleep(0.3)
    broker("FLUSHALL")
    time.sleep(0.3)
    broker.freeze(2.5)
    time.sleep(0.2)
    broker("DEL", broker.fit_stream())  # as a broker does that evicts
    value, _, data = there()
    assert (value, data) == (here[0], here[2])
    nothing_is_left(broker)


def head(kind, size, job, version=2):
    return struct.pack("<4sHHQQ", b"KFIT", version, kind, size, int(job, 16))


def lie(broker, job, number, bytes_):
    front = f"t:fit:{job}"
    broker("HSET", f"{front}:results", number, bytes_)
    broker("RPUSH", f"{front}:done", number)


def test_answers_that_cannot_be_are_refused_and_the_points_fitted_again(broker, scan, workers):
    fit = scan(noisy(60, 1e4))
    here = fit("x fe55 no-lor")
    there = in_background(fit, "x fe55 no-lor", broker.site)
    _, job, block = wait_until(lambda: consume(broker, "liar"), "block")
    number, = struct.unpack_from("<i", block, 24)
    points = 4
    values = len(here[2]) // 8 // 60

    body = struct.pack("<iiii", number, points, values, 1000)
    body += points * (struct.pack("<IBBH", 0, 0, 0, 0) + values * struct.pack("<d", 0.0))
    lie(broker, job, number, b"")
    wait_until(lambda: (taken := consume(broker, "liar")) and taken[2] == block, "block again")
    lie(broker, job, number, head(3, 24 + len(body), job, version=3) + body)
    for nonsense in (99999, -1, "abc", 2 ** 40):  # blocks that nobody sent
        broker("RPUSH", f"t:fit:{job}:done", nonsense)
    workers(2)
    value, lines, data = there()
    assert (value, data) == (here[0], here[2])
    lines = [line for line in lines if line[0] == "!"]  # that nobody works may be said before them
    assert lines[0] == "! What a worker says of points 0..3 is refused: 0 bytes are too few"
    assert lines[1] == "! What a worker says of points 0..3 is refused: its version is 3, not 2"


@pytest.mark.parametrize("what", ["values", "length", "points"])
def test_a_site_that_only_lies_ends_the_block_not_the_server(broker, scan, what):
    """One block, which is answered wrongly three times."""
    fit = scan(noisy(3, 1e4))
    values = len(fit("x fe55 no-lor")[2]) // 8 // 3
    there = in_background(fit, "x fe55 no-lor", broker.site)
    for _ in range(3):
        job = wait_until(lambda: consume(broker, "liar"), "block")[1]
        points = 2 ** 31 - 1 if what == "points" else 3
        body = struct.pack("<iiii", 0, points, values, 1000)
        body += 3 * (struct.pack("<IBBH", 0, 0, 0, 0) + values * struct.pack("<d", np.nan if what == "values" else 1.0))
        body += b"x" if what == "length" else b""
        lie(broker, job, 0, head(3, 24 + len(body), job) + body)
    value, lines, data = there()
    lines = [line for line in lines if line[0] == "!"]
    why = {"values": "a fitted value is not a finite number"}.get(what, "it is not of the block's points")
    assert lines[:3] == [f"! What a worker says of points 0..2 is refused: {why}"] * 3
    assert value == -1 and lines[3] == "! Points 0..2 are given up: 3 workers failed on them"
    assert (np.frombuffer(data).reshape(-1, 3)[0] == -1).all()


def test_a_worker_survives_what_lies_in_the_stream(broker, workers, scan):
    worker = workers(1)[0]
    stream = broker.fit_stream()
    job = "00000000000000aa"
    broker("XADD", stream, "*", "nothing", "1")
    broker("XADD", stream, "*", "job", "xyz", "block", "1")
    broker("XADD", stream, "*", "job", job, "block", "of a job that is gone")
    wait_until(lambda: broker("XLEN", stream) == 0, "empty stream")
    for said in b"nonsense", head(1, 196, job) + b"\xff" * 172:
        broker("SET", f"t:fit:{job}:job", said)
        broker("XADD", stream, "*", "job", job, "block", b"\0" * 100)
        wait_until(lambda: broker("XLEN", stream) == 0, "empty stream")
    broker("DEL", f"t:fit:{job}:job")
    assert worker.stdout.count(" is refused: ") == 4, worker.stdout
    fit = scan(noisy(30, 1e4))
    assert fit("x fe55 no-lor", broker.site) == fit("x fe55 no-lor")[:1] + ([],) + fit("x fe55 no-lor")[2:]


def test_the_broker_s_own_refusals_end_the_command(broker, scan):
    fit = scan(noisy(100, 1e4))
    broker("CONFIG", "SET", "maxmemory", 1)
    value, lines, _ = fit("x fe55", broker.site)
    assert value == -1 and lines[0].startswith(f"! The broker {broker.site} refuses: OOM "), lines


def test_sites_that_cannot_be(client, names, scan, broker):
    fit = scan(noisy(3, 1e4))
    assert fit("x fe55")[0] == 0
    pathlib.Path("/dev/shm", names("r")).unlink()
    for site, text in (("", "! Cannot use workers: '' is no site: HOST:PORT or unix:/PATH, and #PREFIX"),
                       ("unix:/nowhere", "! Cannot reach the broker unix:/nowhere#kestrel: No such file or directory"),
                       ("127.0.0.1:1", "! Cannot reach the broker 127.0.0.1:1#kestrel: Connection refused")):
        assert refused(client, f"peak-fit workers '{site}' 0 0 0 0 1023 2 0 '{names('r')}' x fe55") == [text]
    assert not pathlib.Path("/dev/shm", names("r")).exists()


@pytest.mark.parametrize("options", [[], ["a", "b"], ["-help"], ["host:0"], ["unix:relative"]])
def test_the_worker_s_usage(tmp_path, options):
    worker = Process(tmp_path, *options, program=WORKER)
    assert worker.wait_exit() == 2 and worker.stdout == "" and len(worker.stderr.splitlines()) == 1
