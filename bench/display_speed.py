#!/usr/bin/python3
"""The display under load:  bench/display_speed.py [SECONDS]

48 channels of 4096 bins change ten times a second; 20 clients look at all of them at a screen's width. Prints the age of
what arrives (from its writing into the module to its arrival), and the part of one processor that the display takes.
The bar: 99 % below 150 ms, below 30 %.
"""
import multiprocessing
import os
import pathlib
import selectors
import sys
import tempfile
import time

import numpy as np

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tools" / "session"))
from display import Display, Socket, View
from kestrel_data import Module
from kestrel_session import Server

CHANNELS, BINS, CLIENTS, WIDTH, RATE = 48, 4096, 20, 1200, 10
STAMP = 1 << 22  # the time in ms modulo this, as a float keeps it, stands in the first bin


def stamp():
    return int(time.time() * 1000) % STAMP


def write(name, until):
    """Changes the module at its rate."""
    data = Module(name).data
    rng = np.random.default_rng(0)
    fresh = [rng.poisson(100, data.shape).astype("u4") for _ in range(8)]
    number, due = 0, time.monotonic()
    while time.time() < until:
        data[:] = fresh[number % len(fresh)]
        data[0, 0] = stamp()
        number, due = number + 1, due + 1 / RATE
        time.sleep(max(0, due - time.monotonic()))


def watch(port_of, name, until, found):
    """All clients in one process; the ages of what arrived."""
    selector, ages, lost = selectors.DefaultSelector(), [], [0] * CLIENTS
    for number in range(CLIENTS):
        page = Socket(port_of)
        page.send(f"view 0 {name} 0 {BINS - 1} 0 {CHANNELS - 1} 0 0 {WIDTH} {CHANNELS}")
        selector.register(page.sock, selectors.EVENT_READ, (number, page))
    begun = time.time() + 2
    while time.time() < until:
        for key, _ in selector.select(0.5):
            number, page = key.data
            opcode, payload = page.frame()
            if opcode == 2 and time.time() > begun:
                view = View(payload)
                lost[number] = view.lost
                ages.append((stamp() - int(view.rows[0, 0])) % STAMP)
    found.put((ages, sum(lost)))


def processor_time(pid):
    fields = open(f"/proc/{pid}/stat").read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 20.0
    name = f"kestrel_bench_{os.getpid()}"
    folder = pathlib.Path(tempfile.mkdtemp())
    server, display = Server(folder / "server"), Display(folder / "display")
    try:
        server.client().lines(f"module create '{name}' {BINS} {CHANNELS} header")
        found, until = multiprocessing.Queue(), time.time() + seconds + 2
        tasks = [multiprocessing.Process(target=write, args=(name, until)),
                 multiprocessing.Process(target=watch, args=(display, name, until, found))]
        for task in tasks:
            task.start()
        time.sleep(2)
        before, begun = processor_time(display.process.pid), time.monotonic()
        time.sleep(seconds - 1)
        part = (processor_time(display.process.pid) - before) / (time.monotonic() - begun)
        ages, lost = found.get()
        ages.sort()
        for task in tasks:
            task.join()
        print(f"{CLIENTS} clients, {CHANNELS} channels of {BINS} bins at {RATE} Hz: {len(ages)} updates, {lost} skipped")
        print(f"age in ms: median {ages[len(ages) // 2]}, 99 % {ages[len(ages) * 99 // 100]}, highest {ages[-1]}; bar 150")
        print(f"the display takes {100 * part:.1f} % of one processor; bar 30")
    finally:
        os.unlink(f"/dev/shm/{name}")
        display.close()
        server.close()


if __name__ == "__main__":
    main()
