#!/usr/bin/python3
"""Peak fits by two workers, of one processor each, against two threads of the server:  bench/fit_workers_speed.py

Needs redis-server. The broker, the command and both workers are on this machine, so that the broker's and the command's
own time is in the figures. Rounds alternate; the medians of their ratios are given.
"""
import pathlib
import statistics
import sys
import tempfile
import time

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tools" / "session"))
import kestrel_data
import kestrel_session
from fit_workers import Site, Worker

ROUNDS, CHANNELS = 7, 4096


def spectra(count):
    x = np.arange(CHANNELS)
    mean = sum(height * np.exp(-((x - posn) ** 2) / (2 * 13.0**2)) for posn, height in ((1179, 2000), (1298.08, 268)))
    return np.random.default_rng(1).poisson(mean, (count, CHANNELS))


def compare(client, names, broker, words, count):
    name = names(f"s{count}")
    kestrel_data.do(client, f"module create '{name}' {CHANNELS} {count} header")
    kestrel_data.Module(name).data[:] = spectra(count)
    handle = kestrel_data.do(client, f"module open '{name}' header")
    times = [], []
    for _ in range(ROUNDS):
        for taken, how, result in (times[0], "unified", "here"), (times[1], f"workers '{broker.site}'", "there"):
            begin = time.perf_counter()
            line = f"peak-fit {how} {handle} 0 0 0 {CHANNELS - 1} {count - 1} 0 '{names(result + str(count))}' x {words}"
            reply = client.lines(line, 600)
            taken.append(time.perf_counter() - begin)
            assert reply[-1] == "* 0", reply
    assert np.array_equal(*(kestrel_data.Module(names(result + str(count))).data for result in ("here", "there")))
    ratio = statistics.median(here / there for here, there in zip(*times))
    print(f"{words}, {count} spectra: two threads {count / statistics.median(times[0]):.0f} fits/s, two workers "
          f"{count / statistics.median(times[1]):.0f}: {ratio:.2f} times (goal 0.9)", flush=True)


def main():
    names, broker = kestrel_data.Names(), Site()
    with tempfile.TemporaryDirectory() as scratch:
        scratch = pathlib.Path(scratch)
        server = kestrel_session.Server(scratch / "server")
        workers = [Worker(scratch / f"worker{i}", broker.site) for i in range(2)]
        try:
            client = server.client()
            kestrel_data.do(client, "peak-fit max-threads 2")
            compare(client, names, broker, "fe55", 6000)
            compare(client, names, broker, "fe55 no-lor", 12000)
        finally:
            for process in (*workers, server):
                process.close()
            broker.close()
            names.remove()


if __name__ == "__main__":
    main()
