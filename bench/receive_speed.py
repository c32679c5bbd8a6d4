#!/usr/bin/python3
"""Frames received by the server against a bare loop of the same datagrams:  bench/receive_speed.py [frames] [rounds]

Each round sends the same frames of 4096 bins (2 packets each) to the bare loop (build/bare_receiver: recvmmsg with GRO
into memory as large as a channel's) and to the server, whose path counts into a circular buffer: one stream, without a
limit and held to 10 Gb/s, then four streams. A row says what the simulator sent a second, how much of it came whole,
and the processor time a packet of the receiver; the ratio of the last is what the goals are about, since two
processors are shared by all that runs.
"""
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT / "tools" / "session"), str(ROOT / "tests" / "sim")]
import cards
from kestrel_session import Server

RECEIVER = str(pathlib.Path(cards.KESTREL).parent / "bare_receiver")
TICK = os.sysconf("SC_CLK_TCK")
FRAMES_HELD = 1024  # 16 MiB a channel
CIRCULAR = 3 << 16  # feature word 61: an output format that has circular buffers


def used(pid):
    """Processor seconds of a process, exactly."""
    total = 0
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        total += int((task / "schedstat").read_text().split()[0])
    return total * 1e-9


def blast(program, streams, frames, limit):
    rate = f"gigabits {float(limit)}" if limit else ""
    report, result = program.text.lines(f"packets blast 0 0 {frames} channels {streams} {rate}", 600)[-2:]
    return float(result[2:]), int(report.split()[3])


def bare(program, streams, frames, limit):
    receivers = [subprocess.Popen([RECEIVER, program.host(), str(cards.DATA_PORT + 1 + s), program.card(),
                                   str(cards.DATA_PORT), "16"], stdout=subprocess.PIPE, text=True)
                 for s in range(streams)]
    for r in receivers:
        assert r.stdout.readline() == "ready\n"
    gigabits, _ = blast(program, streams, frames, limit)
    said = [r.communicate()[0].split() for r in receivers]
    packets = sum(int(s[1]) for s in said)
    return gigabits, packets / (2 * frames * streams), sum(float(s[4]) for s in said) / packets


def served(program, server, client, streams, frames, limit):
    assert client.lines("pulsar3 hist start 0")[-1] == "* 0"
    before = used(server.process.pid)
    gigabits, _ = blast(program, streams, frames, limit)
    client.lines("sleep 0.3")
    seconds = used(server.process.pid) - before
    rows = [[int(n) for n in line[1:].replace("|", " ").split()] for line in client.lines("pulsar3 hist loss 0")
            if line.startswith("#") and len(line.split()) > 8 and line.split()[1].isdigit()]
    whole = sum(row[2] for row in rows)
    client.lines("pulsar3 hist stop 0")
    return gigabits, whole / (frames * streams), seconds / max(2 * whole, 1)


def main():
    frames = int(sys.argv[1]) if len(sys.argv) > 1 else 100000
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 3
    with tempfile.TemporaryDirectory() as scratch:
        program = cards.Program(scratch, "-generation=2", "-chans=4", f"-feature=61:{CIRCULAR}")
        ratios = {}
        for _ in range(rounds):
            for streams, limit in ((1, None), (1, 10), (4, None), (4, 8)):
                count = frames // streams
                host = cards.Host(program, channels=0)
                host.close()
                b = bare(program, streams, count, limit)
                server = Server(pathlib.Path(scratch))
                client = server.client()
                for line in (f"pulsar3 config 1 {FRAMES_HELD} 0 baseIP '{program.net}1'",
                             "pulsar3 set-run-mode 0 circ-buffer"):
                    assert client.lines(line)[-1] == "* 0"
                s = served(program, server, client, streams, count, limit)
                client.lines("pulsar3 close 0")
                server.close()
                ratios.setdefault((streams, limit), []).append((s[2] / b[2], s[1] * s[0] / (b[1] * b[0])))
                for name, r in (("bare loop", b), ("server", s)):
                    print(f"{streams} stream{'s' if streams > 1 else ' '} {'limit ' + str(limit) if limit else 'no limit':9}"
                          f" {name:9}  sent {r[0]:6.2f} Gb/s  came {100 * r[1]:6.2f} %"
                          f"  {1e6 * r[2]:6.3f} us a packet", flush=True)
        for (streams, limit), both in ratios.items():
            print(f"{streams} x {limit or 'no limit'}: processor time a packet {statistics.median(r[0] for r in both):.2f}"
                  f" of the bare loop's, what came a second {statistics.median(r[1] for r in both):.2f}")
        program.close()


if __name__ == "__main__":
    main()
