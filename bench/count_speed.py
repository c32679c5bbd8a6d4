#!/usr/bin/python3
"""48 channels of three cards at once:  bench/count_speed.py

Each row counts two seconds of 4096-bin frames at one rate of time frames, without and with a viewer that copies all
histograms about ten times a second: what was reached, whether anything was lost, processor time a second.
"""
import pathlib
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT / "tools" / "session"), str(ROOT / "tests" / "sim")]
import cards
from kestrel_session import Server

CHANNELS, FRAME_BYTES = 48, 16384


def used(process):
    """Processor seconds of a process."""
    tasks = pathlib.Path(f"/proc/{process.pid}/task").iterdir()
    return sum(int((task / "schedstat").read_text().split()[0]) for task in tasks) * 1e-9


def row(program, server, client, milliseconds, viewer):
    frames = int(2000 / milliseconds)
    client.lines(f"pulsar3 setup-timing 0 internal time {milliseconds / 1000} frames {frames}")
    begun, before = time.monotonic(), [used(p.process) for p in (server, program)]
    client.lines("pulsar3 hist start 0")
    while int(client.lines("pulsar3 check-progress 0 once")[-1][2:]) < frames:
        time.sleep(0.1 if viewer else 0.02)
        for card in range(3 * viewer):
            pathlib.Path(f"/dev/shm/plr3_hist{card}").read_bytes()
    seconds = time.monotonic() - begun
    lost = client.lines("pulsar3 hist loss 0")[-1][2:]
    client.lines("pulsar3 hist stop 0")
    busy = [(used(p.process) - b) / seconds for p, b in zip((server, program), before)]
    print(f"{frames / seconds:5.0f} time frames a second of {1000 / milliseconds:5.0f}{' with viewer' if viewer else '':12}"
          f"  {frames * CHANNELS * FRAME_BYTES * 8e-9 / seconds:5.2f} Gb/s  lost {lost}"
          f"  processor: server {busy[0]:.2f}, simulator {busy[1]:.2f}", flush=True)


def main():
    with tempfile.TemporaryDirectory() as scratch:
        program = cards.Program(scratch, "-cards=3", "-kind=4", "-chans=16")
        program.do("events kind pattern")
        program.do("events keep 0")
        server = Server(pathlib.Path(scratch))
        client = server.client()
        assert client.lines(f"pulsar3 config 3 200 0 baseIP '{program.net}1'")[-1] == "* 0"
        for milliseconds in (4.0, 2.0, 1.5, 1.0, 0.7):
            for viewer in (False, True):
                row(program, server, client, milliseconds, viewer)
        client.lines("pulsar3 close 0")
        server.close()
        program.close()


if __name__ == "__main__":
    main()
