#!/usr/bin/python3
"""Peak fits: the command against one run a spectrum of other solvers, a solver run against scipy's, and threads against
one thread:  bench/peak_fit_speed.py

Needs python3-scipy, and the program build/peak_solver (tools/build release --target bench_programs). Both solvers
get the same spectra, regions, start values, model and tolerance; rounds alternate and the medians are compared.
"""
import os

for variable in "OMP_NUM_THREADS", "OPENBLAS_NUM_THREADS", "MKL_NUM_THREADS":
    os.environ[variable] = "1"
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np
from scipy.optimize import leastsq

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tools" / "session"))
import kestrel_data
import kestrel_session

SPECTRA, ROUNDS = 300, 5
SCAN = 1500
FITS, CHANNELS = 400, 490


def ours(path):
    shown = subprocess.run([ROOT / "build" / "peak_solver", str(SPECTRA), path], capture_output=True, text=True, check=True)
    seconds, calls, *sums = map(float, shown.stdout.split())
    return seconds, calls, sums


def model(p, x):
    return (p[1] * np.exp(-((x - p[0]) ** 2) / (2 * p[2] * p[2])) + p[4] * np.exp(-((x - p[3]) ** 2) / (2 * p[5] * p[5])))


def scipys(path):
    numbers = np.fromfile(path)
    first, count = int(numbers[0]), int(numbers[1])
    rows = numbers[2:].reshape(SPECTRA, 6 + count)
    x = np.arange(first, first + count, dtype=float)
    sums, calls = np.zeros(6), 0
    begin = time.perf_counter()
    for row in rows:
        data = row[6:]
        found, _, info, _, _ = leastsq(lambda p: data - model(p, x), row[:6], ftol=1e-6, xtol=1e-6, gtol=0.0,
                                       full_output=True)
        calls += info["nfev"]
        sums += found
    return time.perf_counter() - begin, calls, sums


def compare_solvers(scratch):
    path = scratch / "spectra"
    times = [], []
    for _ in range(ROUNDS):
        mine = ours(path)
        other = scipys(path)
        assert np.allclose(mine[2], other[2], rtol=1e-4), (mine, other)
        times[0].append(mine[0])
        times[1].append(other[0])
    ratio = statistics.median(b / a for a, b in zip(*times))
    print(f"solver run, two peaks, 4096 channels: {1e6 * statistics.median(times[0]) / SPECTRA:.0f} us, {mine[1] / SPECTRA:.0f} "
          f"calls; scipy {1e6 * statistics.median(times[1]) / SPECTRA:.0f} us, {other[1] / SPECTRA:.0f} calls: "
          f"{ratio:.1f} times as fast (goal 4)")


def fits_to_compare(path):
    """FITS spectra of two peaks, written for plain_fit with start values as a first look gives them; the true positions."""
    random, x = np.random.default_rng(3), np.arange(CHANNELS)
    spectra, starts, truth = [], [], []
    for _ in range(FITS):
        posn, sigma = 200 + random.uniform(-2, 2), random.uniform(8.5, 9.5)
        p = np.array([posn, 800 * random.uniform(0.8, 1.2), sigma, posn * 1.2, 300 * random.uniform(0.8, 1.2), sigma * 1.05])
        spectra.append(random.poisson(model(p, x)))
        top = float(np.argmax(spectra[-1]))
        starts.append([top, spectra[-1].max(), 9.0, top * 1.2, spectra[-1][int(top * 1.2)] + 1.0, 9.0])
        truth.append((p[0], p[3]))
    np.concatenate([[FITS, CHANNELS], np.hstack([starts, spectra]).ravel()]).astype("f8").tofile(path)
    return np.array(spectra), np.array(starts), np.array(truth)


def compare_command(scratch):
    """`peak-fit unified` (every pass, refinement, errors, results) on one thread against single runs of others."""
    spectra, starts, truth = fits_to_compare(scratch / "fits")
    program = scratch / "plain_fit"
    subprocess.run(["c++", "-O3", "-march=native", "-o", program, ROOT / "bench" / "plain_fit.cpp", "-lminpack"], check=True)
    x = np.arange(CHANNELS, dtype=float)

    def scipys_fits():
        for start, data in zip(starts, spectra):
            leastsq(lambda p: data - model(p, x), start, ftol=1e-6, xtol=1e-6, gtol=0.0)

    def plain_fits():
        return float(subprocess.run([program, scratch / "fits"], capture_output=True, text=True, check=True).stdout.split()[0])

    names, server = kestrel_data.Names(), kestrel_session.Server(scratch / "command")
    try:
        client = server.client()
        kestrel_data.do(client, f"module create '{names('s')}' {CHANNELS} {FITS} header")
        kestrel_data.Module(names("s")).data[:] = spectra
        handle = kestrel_data.do(client, f"module open '{names('s')}' header")
        line = (f"peak-fit unified {handle} 0 0 0 {CHANNELS - 1} {FITS - 1} 0 '{names('r')}' x peak0 10.0 peak1 12.0")
        kestrel_data.do(client, "peak-fit max-threads 1")

        def ours(words):
            begin = time.perf_counter()
            client.cmd(line + words, 300)
            return time.perf_counter() - begin

        for words in "", " no-lor":
            took = []
            for _ in range(ROUNDS):
                mine = ours(words)
                begin = time.perf_counter()
                scipys_fits()
                took.append((mine, time.perf_counter() - begin, plain_fits()))
            found = np.squeeze(kestrel_data.Module(names("r")).data)[:2].T
            error = np.sqrt(((found - truth) ** 2).mean(axis=0))
            print(f"peak-fit unified{words}, {FITS} spectra: {FITS / statistics.median(t[0] for t in took):.0f} fits/s; scipy "
                  f"{FITS / statistics.median(t[1] for t in took):.0f}: {statistics.median(t[1] / t[0] for t in took):.2f} times (goal 7); "
                  f"plain lmdif1 {FITS / statistics.median(t[2] for t in took):.0f}: {statistics.median(t[2] / t[0] for t in took):.2f} "
                  f"times (goal 2.5); positions off by {error[0]:.3f} and {error[1]:.3f} channels")
    finally:
        server.close()
        names.remove()


def compare_threads(scratch):
    names = kestrel_data.Names()
    server = kestrel_session.Server(scratch)
    try:
        client = server.client()
        x = np.arange(4096)
        mean = model((1179, 2000, 13, 1298.08, 268, 13.5), x)
        kestrel_data.do(client, f"module create '{names('s')}' 4096 {SCAN} header")
        kestrel_data.Module(names("s")).data[:] = np.random.default_rng(1).poisson(mean, (SCAN, 4096))
        times = {1: [], 2: []}
        for _ in range(ROUNDS):
            for threads in times:
                kestrel_data.do(client, f"peak-fit max-threads {threads}")
                begin = time.perf_counter()
                client.cmd(f"peak-fit module '{names('s')}' '{names('r')}' 0 {SCAN - 1} fe55 no-lor", 300)
                times[threads].append(time.perf_counter() - begin)
        ratio = statistics.median(a / b for a, b in zip(times[1], times[2]))
        print(f"{SCAN} spectra, all passes: {1e6 * statistics.median(times[1]) / SCAN:.0f} us a spectrum on one thread; two "
              f"threads: {ratio:.2f} times as fast (goal 1.7)")
    finally:
        server.close()
        names.remove()


def main():
    with tempfile.TemporaryDirectory() as scratch:
        compare_command(pathlib.Path(scratch))
        compare_solvers(pathlib.Path(scratch))
        compare_threads(pathlib.Path(scratch))


if __name__ == "__main__":
    main()
