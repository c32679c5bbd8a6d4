#!/usr/bin/python3
"""How fast the maths commands are, as ratios measured in one run:  bench/maths_speed.py [rounds]

On a float module of 256 MiB (2048 x 2048 x 16) in shared memory, the server's command against numpy on the same
memory, both with one thread and sums in double precision, results in single. `accumulate` also against a plain
loop in C++ (plain_sum.cpp, compiled here). The two of a pair run in turn; processor time of each, which other
programs on the machine disturb less than the clock; medians. Results are compared, too. KESTREL names the program.
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

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tools" / "session"))
import kestrel_data
import kestrel_session
import numpy as np

NX, NY, NT = 2048, 2048, 16
REGION = f"0 0 0 {NX - 1} {NY - 1} {NT - 1}"
LONG = 600  # seconds before a reply is missed


class Bench:
    def __init__(self, scratch, rounds):
        self.rounds = rounds
        self.server = kestrel_session.Server(scratch)
        self.client = self.server.client()
        for name in "a", "b":
            self.run(f"module create 'kt_bench_{name}' {NX} {NY} header float num-t {NT}")
            random = np.random.default_rng(ord(name))
            for frame in self.module(name):
                frame[:] = random.random((NY, NX), dtype="f4") * 1000
            kestrel_data.do(self.client, f"module open 'kt_bench_{name}' header")  # handles 0 and 1

    def module(self, name):
        return kestrel_data.Module("kt_bench_" + name).data

    def run(self, line):
        reply = self.client.lines(line, LONG)[-1]
        assert reply.startswith("* ") and reply != "* -1", (line, reply)
        return float(reply[2:])

    def processor(self):
        """Nanoseconds that the server's command thread has run."""
        return int(pathlib.Path(f"/proc/{self.server.process.pid}/schedstat").read_text().split()[0])

    def ours(self, line):
        start = self.processor()
        result = self.run(line)
        return (self.processor() - start) * 1e-9, result

    def compare(self, name, line, against, other, goal):
        """`other` gives seconds and a result. Once unmeasured: modules are made and pages mapped."""
        self.run(line)
        other()
        mine, theirs = zip(*[(self.ours(line)[0], other()[0]) for _ in range(self.rounds)])
        mine, theirs = statistics.median(mine), statistics.median(theirs)
        ratio = theirs / mine
        print(f"{name:16} {mine * 1e3:7.1f} ms   {against:20} {theirs * 1e3:7.1f} ms   ratio {ratio:5.2f}"
              f"   (goal {goal})", flush=True)

    def close(self):
        for path in pathlib.Path("/dev/shm").glob("kt_bench_*"):
            path.unlink()
        self.server.close()


def timed(action):
    """Runs the action measured: a function that gives processor seconds and the result."""
    def measure():
        start = time.process_time()
        result = action()
        return time.process_time() - start, result
    return measure


class PlainLoop:
    def __init__(self, scratch, path, offset, count):
        program = pathlib.Path(scratch, "plain_sum")
        subprocess.run(["c++", "-O3", "-o", program, ROOT / "bench" / "plain_sum.cpp"], check=True)
        self.process = subprocess.Popen([program, path, str(offset), str(count)], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)

    def __call__(self):
        self.process.stdin.write("\n")
        self.process.stdin.flush()
        seconds, result = self.process.stdout.readline().split()
        return float(seconds), float(result)

    def close(self):
        self.process.stdin.close()
        self.process.wait()


def double_sum(array, axis):
    return array.sum(axis, dtype="f8").astype("f4")


def centroid(array, axis, weights):
    return (np.einsum(array, [0, 1, 2], weights, [axis], [i for i in range(3) if i != axis], dtype="f8")
            / array.sum(axis, dtype="f8")).astype("f4")


def centroid_plain(array, axis, weights):
    shape = [1, 1, 1]
    shape[axis] = -1
    return ((array * weights.reshape(shape)).sum(axis) / array.sum(axis, dtype="f8")).astype("f4")


def binned(array):
    return array.reshape(NT, NY // 2, 2, NX // 2, 2).sum((2, 4), dtype="f8").astype("f4")


def check(name, ours, theirs):
    assert np.allclose(np.squeeze(ours), theirs, rtol=1e-6), f"{name}: not what numpy gives"


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 7
    with tempfile.TemporaryDirectory() as scratch:
        bench = Bench(scratch, rounds)
        try:
            measure(bench, scratch)
        finally:
            bench.close()


def measure(bench, scratch):
    a, b = bench.module("a"), bench.module("b")
    sum_up = f"maths accumulate 0 {REGION}"
    bench.compare("accumulate", sum_up, "numpy", timed(lambda: a.sum(dtype="f8")), 2.5)
    loop = PlainLoop(scratch, "/dev/shm/kt_bench_a", 464, a.size)
    bench.compare("accumulate", sum_up, "plain loop", loop, 0.7)
    assert np.isclose(loop()[1], a.sum(dtype="f8"), rtol=1e-12) and np.isclose(bench.run(sum_up), loop()[1], rtol=1e-5)
    loop.close()

    for target, axes in ("t", (1, 2)), ("xy", 0):
        line = f"maths integrate 0 {REGION} {target} module 'kt_bench_{target}'"
        bench.compare(f"integrate {target}", line, "numpy", timed(lambda: double_sum(a, axes)), 1.2)
        check(line, bench.module(target), double_sum(a, axes))
        bench.compare(f"integrate {target}", line, "numpy in float", timed(lambda: a.sum(axes)), "none")

    for letter, axis in ("x", 2), ("t", 0):
        weights = np.arange(a.shape[axis]) + 0.5
        line = f"maths centroid 0 {REGION} {letter} module 'kt_bench_c{letter}'"
        bench.compare(f"centroid {letter}", line, "numpy", timed(lambda: centroid_plain(a, axis, weights)), 4)
        bench.compare(f"centroid {letter}", line, "numpy einsum", timed(lambda: centroid(a, axis, weights)), "none")
        check(line, bench.module("c" + letter), centroid(a, axis, weights))

    line = f"maths re-bin 0 {REGION} x 2 y 2 module 'kt_bench_r'"
    bench.compare("re-bin 2x2", line, "numpy", timed(lambda: binned(a)), 3)
    check(line, bench.module("r"), binned(a))

    line = "maths binary-op 0 1 add module 'kt_bench_s'"
    total = np.zeros_like(a)
    # A result that nobody has mapped yet costs pages on both sides; so does none when it is mapped already.
    bench.compare("binary-op add", line, "numpy a + b", timed(lambda: a + b), 1)
    bench.run("module open 'kt_bench_s' header")
    bench.compare("binary-op, open", line, "numpy out=", timed(lambda: np.add(a, b, out=total)), 1)
    assert np.array_equal(bench.module("s"), total)


if __name__ == "__main__":
    main()
