#!/usr/bin/python3
"""How fast data leave the server, as ratios measured in one run:  bench/read_speed.py [MiB]

  file    a raw box of a module to a file on a memory file system, against bare write() calls of the same bytes
  socket  the same to the data connection, against bare send() calls of the same bytes, and against an iperf3 stream
          on loopback, with its own block of 128 KiB and with the one of 1 MiB that suits it best (it sends one block,
          which stays in the cache, again and again)
  rows    ASCII rows of long and of float elements, against numpy.savetxt of the same array (bytes compared);
          processor time of both, which other programs on the machine disturb less

Each pair is measured in turn, several times; medians are shown, the ratio is that of the pairs. KESTREL names the program.
"""
import json
import os
import pathlib
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tools" / "session"))
import kestrel_data
import kestrel_session
import numpy as np

ROUNDS = 10
LONG = 600  # seconds before a reply is missed


def both(measure, other):
    """Both in turn; the median seconds of each, and the median of the ratios."""
    times = [(measure(), other()) for _ in range(ROUNDS)]
    return (*(statistics.median(side) for side in zip(*times)), statistics.median(b / a for a, b in times))


def seconds(action):
    start = time.perf_counter()
    action()
    return time.perf_counter() - start


def command(client, line):
    assert client.lines(line, LONG)[-1] == "* 0", line


def report(name, ours, theirs, ratio, size, unit, against, goal):
    print(f"{name:12} {size / ours:9.1f} {unit}   {against:16} {size / theirs:9.1f} {unit}   ratio {ratio:6.2f}"
          f"   (goal {goal})", flush=True)


def to_file(client, module, mib):
    read = f"read 0 0 0 {module.data.shape[1]} {module.data.shape[0]} 1 from 0 raw to-local-file '/dev/shm/kt_bench_out'"
    block = 8 << 20
    view = memoryview(module.raw)[360:]

    def bare():
        fd = os.open("/dev/shm/kt_bench_out", os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o666)
        for at in range(0, len(view), block):
            os.write(fd, view[at:at + block])
        os.close(fd)

    def fresh():
        if os.path.exists("/dev/shm/kt_bench_out"):
            os.unlink("/dev/shm/kt_bench_out")

    def timed(action):
        fresh()
        return seconds(action)

    ours, theirs, ratio = both(lambda: timed(lambda: command(client, read)), lambda: timed(bare))
    fresh()
    report("raw to file", ours, theirs, ratio, mib, "MiB/s", "write()", 0.9)


def to_socket(client, module, mib):
    listener = socket.create_server(("127.0.0.1", 0))
    client.lines(f"port {listener.getsockname()[1]}")
    read = f"read 0 0 0 {module.data.shape[1]} {module.data.shape[0]} 1 from 0 raw"
    buffer = bytearray(1 << 20)

    def receive():
        with listener.accept()[0] as connection:
            while connection.recv_into(buffer):
                pass

    def received(action):
        thread = threading.Thread(target=receive)
        thread.start()
        return seconds(lambda: (action(), thread.join()))

    def ours():
        return received(lambda: command(client, read))

    def bare():
        view = memoryview(module.raw)[360:]
        with socket.create_connection(listener.getsockname()) as connection:
            for at in range(0, len(view), 1 << 20):
                connection.sendall(view[at:at + (1 << 20)])

    def by_page():
        with socket.create_connection(listener.getsockname()) as connection, open(module.raw.filename, "rb") as file:
            at, end = 360, 360 + module.data.nbytes
            while at < end:
                at += os.sendfile(connection.fileno(), file.fileno(), at, min(end - at, 1 << 30))

    mine, theirs, ratio = both(ours, lambda: received(bare))
    report("raw to socket", mine, theirs, ratio, mib, "MiB/s", "send()", 0.9)
    report("raw to socket", *both(ours, lambda: received(by_page)), mib, "MiB/s", "sendfile()", 1.0)

    port = str(kestrel_session.free_port())
    server = subprocess.Popen(["iperf3", "-s", "-p", port], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
    time.sleep(0.5)

    def iperf(*options):
        out = subprocess.run(["iperf3", "-c", "127.0.0.1", "-p", port, "-n", f"{mib}M", "-J", *options],
                             capture_output=True, check=True).stdout
        return json.loads(out)["end"]["sum_received"]["seconds"]

    report("raw to socket", *both(ours, iperf), mib, "MiB/s", "iperf3", 0.9)
    report("raw to socket", *both(ours, lambda: iperf("-l", "1M")), mib, "MiB/s", "iperf3 -l 1M", 0.9)
    server.terminate()
    server.wait()


def elements(what, shape):
    random = np.random.default_rng(1)
    if what == "32 bit":  # any value: nine or ten digits nearly all
        return random.integers(0, 1 << 32, shape, "u4")
    counts = (10 ** random.uniform(0, 7, shape)).astype("u4")  # over seven decades
    return counts if what == "counts" else (counts / random.integers(1, 100000, shape)).astype("f4")


def rows(client, what, word, fmt, goal):
    folder = pathlib.Path("/dev/shm")
    ny, nx = 2000, 2000
    values = elements(what, (ny, nx))
    name = f"kt_bench_{what.replace(' ', '_')}"
    command(client, f"module create '{name}' {nx} {ny} header {word}")
    kestrel_data.Module(name).data[:] = values
    handle = kestrel_data.do(client, f"module open '{name}' header")
    read = f"read 0 0 0 {nx} {ny} 1 from {handle} to-local-file '/dev/shm/kt_bench_rows'"
    separator = " " if word == "float" else "\t"
    ours, theirs, ratio = both(lambda: seconds(lambda: command(client, read)),
                               lambda: seconds(lambda: np.savetxt(folder / "kt_bench_numpy", values, fmt, separator, separator + "\n")))
    assert (folder / "kt_bench_rows").read_bytes() == (folder / "kt_bench_numpy").read_bytes(), "not the bytes of printf"
    report(f"rows {what}", ours, theirs, ratio, nx * ny / 1e6, "M/s  ", "numpy.savetxt", goal)


def main():
    mib = int(sys.argv[1]) if len(sys.argv) > 1 else 256
    with tempfile.TemporaryDirectory() as scratch:
        server = kestrel_session.Server(scratch)
        try:
            client = server.client()
            command(client, f"module create 'kt_bench' 65536 {mib * 4} header")
            module = kestrel_data.Module("kt_bench")
            module.data[:] = np.arange(65536, dtype="u4")
            assert kestrel_data.do(client, "module open 'kt_bench' header") == 0
            to_file(client, module, mib)
            to_socket(client, module, mib)
            rows(client, "counts", "", "%u", 20)
            rows(client, "32 bit", "", "%u", 20)
            rows(client, "float", "float", "%.8g", 18)
        finally:
            for path in pathlib.Path("/dev/shm").glob("kt_bench*"):
                path.unlink()
            server.close()


if __name__ == "__main__":
    main()
