#!/usr/bin/python3
"""What a publisher costs the server:  bench/stream_cost.py [rounds]

Each round counts 400 frames of 5 ms of 4 channels four times: without a publisher, and with one whose broker runs, is away,
or is frozen. A row says the server's processor time a frame and the median time of a command's round trip meanwhile, as
medians of the rounds and as ratios to those without.
"""
import pathlib
import statistics
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT / "tools" / "session"), str(ROOT / "tests" / "sim")]
import cards
import signal
from broker import Broker, Publisher
from kestrel_session import Server

FRAMES = 400


def used(pid):
    tasks = pathlib.Path(f"/proc/{pid}/task").iterdir()
    return sum(int((task / "schedstat").read_text().split()[0]) for task in tasks) * 1e-9


def count(server, client):
    """Processor seconds a frame, seconds a round trip."""
    client.lines(f"pulsar3 setup-timing 0 internal time 0.05 frames {FRAMES}")
    before = used(server.process.pid)
    assert client.lines("pulsar3 hist start 0")[-1] == "* 0"
    begun, trips = time.monotonic(), []
    while time.monotonic() < begun + FRAMES * 0.005:
        sent = time.perf_counter()
        client.lines("eval int 1+2")
        trips.append(time.perf_counter() - sent)
        time.sleep(0.005)
    seconds = used(server.process.pid) - before
    assert client.lines("pulsar3 hist stop 0")[-1] == "* 0"
    assert client.lines("pulsar3 hist loss 0")[-1] == "* 0"
    return seconds / FRAMES, statistics.median(trips)


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    found = {}
    with tempfile.TemporaryDirectory() as scratch:
        scratch = pathlib.Path(scratch)
        program = cards.Program(scratch / "cards", "-kind=4", "-chans=4", "-speed=10")
        server = Server(scratch / "server")
        client = server.client()
        assert client.lines(f"pulsar3 config 1 {FRAMES} 0 baseIP '{program.net}1'")[-1] == "* 0"
        broker = Broker(scratch / "broker")
        for number in range(4 * rounds):
            how = ("no publisher", "broker runs", "broker away", "broker frozen")[number % 4]
            publisher = how != "no publisher" and Publisher(scratch / f"publisher{number}", "-site=" + broker.site)
            if publisher:
                time.sleep(0.3)
            if how == "broker away":
                broker.kill()
            if how == "broker frozen":
                broker.process.send_signal(signal.SIGSTOP)
            found.setdefault(how, []).append(count(server, client))
            if how == "broker away":
                broker.restart()
            broker.process.send_signal(signal.SIGCONT)
            if publisher:
                publisher.close()
        client.lines("pulsar3 close 0")
        for process in server, program:
            process.close()
        broker.close()
    plain = found["no publisher"]
    for how, values in found.items():
        ratios = [statistics.median(v[i] / p[i] for v, p in zip(values, plain)) for i in range(2)]
        print(f"{how:14} {1e6 * statistics.median(v[0] for v in values):7.1f} us a frame ({ratios[0]:.3f})"
              f"  {1e6 * statistics.median(v[1] for v in values):7.1f} us a round trip ({ratios[1]:.3f})")


if __name__ == "__main__":
    main()
