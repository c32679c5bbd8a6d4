#!/usr/bin/python3
"""How fast the maths commands are, as ratios measured in one run:  bench/maths_speed.py [rounds [row ...]]

Commands typed into a running server, on modules of 256 MiB (2048 x 2048 x 16 floats), which no cache holds, in shared
memory; against the fastest that numpy has for the same memory, on one thread, and against bare loops in C++
(bare_maths.cpp, compiled here with -O3 -march=native) on as many threads as the server may use: all processors, and
then one. Clock time, the three in turn; medians. "new": the result module is made by each command, otherwise it exists, but
nobody has it mapped. Results are compared, too. KESTREL names the server.
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
DATA = 464  # where a module's elements begin
MODULES = pathlib.Path("/dev/shm")


def module(name):
    return kestrel_data.Module("kt_bench_" + name).data


def seconds(action):
    start = time.perf_counter()
    action()
    return time.perf_counter() - start


class Bench:
    def __init__(self, scratch, rounds, wanted):
        self.rounds, self.wanted = rounds, wanted
        self.processors = sorted(os.sched_getaffinity(0))
        self.server = kestrel_session.Server(scratch)
        self.client = self.server.client()
        for name, kind in ("a", "float"), ("b", "float"), ("l", ""):
            self.run(f"module create 'kt_bench_{name}' {NX} {NY} header {kind} num-t {NT}")
            random = np.random.default_rng(ord(name))
            for frame in module(name):
                frame[:] = (random.random((NY, NX), dtype="f4") * 1000).astype(frame.dtype)
            kestrel_data.do(self.client, f"module open 'kt_bench_{name}' header")  # handles 0, 1 and 2
        program = pathlib.Path(scratch, "bare_maths")
        subprocess.run(["c++", "-std=c++20", "-O3", "-march=native", "-o", program, ROOT / "bench" / "bare_maths.cpp",
                        "-lpthread"], check=True)
        self.bare = [subprocess.Popen([program, MODULES / f"kt_bench_{name}", MODULES / "kt_bench_b", str(DATA), str(NX),
                                       str(NY), str(NT)], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
                     for name in "al"]

    def run(self, line):
        reply = self.client.lines(line, LONG)[-1]
        assert reply.startswith("* ") and reply != "* -1", (line, reply)
        return float(reply[2:])

    def bare_loop(self, name, threads):
        process = self.bare[name == "accumulate-long"]
        process.stdin.write(f"{name} {threads}\n")
        process.stdin.flush()
        return float(process.stdout.readline())

    def place(self, processors):
        """The server and the bare loops on these."""
        for pid in [self.server.process.pid, *(process.pid for process in self.bare)]:
            for thread in os.listdir(f"/proc/{pid}/task"):
                os.sched_setaffinity(int(thread), processors)

    def compare(self, name, line, numpy, bare, goals=(None, None), result=None, check=None):
        """`numpy` does the same as the command `line`, whose result module `result` is made anew in a second row."""
        if self.wanted and not any(word in name for word in self.wanted):
            return
        for new in (False, True) if result else (False,):
            for count in sorted({len(self.processors), 1}, reverse=True):
                self.place(set(self.processors[:count]))
                self.measure(name + (" new" if new else ""), line, numpy, bare, count,
                             goals if count > 1 and not new else (None, None), result if new else None)
        if check:
            assert np.allclose(np.squeeze(module(result)), check(), rtol=1e-6), f"{name}: not what numpy gives"

    def measure(self, name, line, numpy, bare, threads, goals, remove):
        def ours():
            if remove:
                (MODULES / f"kt_bench_{remove}").unlink(missing_ok=True)
            return seconds(lambda: self.run(line))

        ours(), numpy()
        took = [(ours(), seconds(numpy), self.bare_loop(bare, threads)) for _ in range(self.rounds)]
        mine, theirs, loops = map(statistics.median, zip(*took))
        ratios = [statistics.median(other / first for first, other in pairs)
                  for pairs in ([(t[0], t[1]) for t in took], [(t[0], t[2]) for t in took])]
        shown = [f"{ratio:5.2f}" + (f" (goal {goal})" if goal else "") for ratio, goal in zip(ratios, goals)]
        print(f"{name:18} {threads} processors {mine * 1e3:7.1f} ms   numpy {theirs * 1e3:7.1f} ms {shown[0]:16}"
              f"  bare {loops * 1e3:7.1f} ms {shown[1]}", flush=True)

    def close(self):
        for process in self.bare:
            process.stdin.close()
            process.wait()
        for path in MODULES.glob("kt_bench_*"):
            path.unlink()
        self.server.close()


def binned(a, out):
    np.add(a[:, 0::2, 0::2], a[:, 0::2, 1::2], out=out)
    out += a[:, 1::2, 0::2]
    out += a[:, 1::2, 1::2]
    return out


def measure(bench):
    a, b, counts = module("a"), module("b"), module("l")
    weights = np.arange(NX, dtype="f4") + np.float32(0.5)
    plane, lines = np.zeros((NY, NX), "f4"), np.zeros((NT, NY), "f4")
    bins, all_of = np.zeros((NT, NY // 2, NX // 2), "f4"), np.zeros_like(a)
    bench.compare("accumulate", f"maths accumulate 0 {REGION}", lambda: a.sum(dtype="f8"), "accumulate", (4.5, 0.85))
    bench.compare("accumulate long", f"maths accumulate 2 {REGION}", lambda: counts.sum(dtype="u8"), "accumulate-long",
                  (2, 0.85))
    bench.compare("integrate t", f"maths integrate 0 {REGION} t module 'kt_bench_t'", lambda: a.sum(axis=(1, 2)),
                  "integrate-t", (3, 0.85), "t", lambda: a.sum(axis=(1, 2), dtype="f8"))
    bench.compare("integrate xy", f"maths integrate 0 {REGION} xy module 'kt_bench_xy'", lambda: a.sum(axis=0, out=plane),
                  "integrate-xy", (2.2, 0.8), "xy", lambda: a.sum(axis=0, dtype="f8"))
    bench.compare("centroid x", f"maths centroid 0 {REGION} x module 'kt_bench_c'",
                  lambda: np.divide(a @ weights, a.sum(axis=2), out=lines), "centroid-x", (5, 0.8), "c",
                  lambda: a.astype("f8") @ weights.astype("f8") / a.sum(axis=2, dtype="f8"))
    bench.compare("re-bin 2x2", f"maths re-bin 0 {REGION} x 2 y 2 module 'kt_bench_r'", lambda: binned(a, bins), "re-bin",
                  (4, 0.7), "r", lambda: binned(a, bins))
    bench.compare("binary-op add", "maths binary-op 0 1 add module 'kt_bench_s'", lambda: np.add(a, b, out=all_of), "add",
                  (1.8, 0.8), "s", lambda: a + b)


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 9
    with tempfile.TemporaryDirectory() as scratch:
        bench = Bench(scratch, rounds, sys.argv[2:])
        try:
            measure(bench)
        finally:
            bench.close()


if __name__ == "__main__":
    main()
