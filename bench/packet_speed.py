#!/usr/bin/python3
"""How fast the card simulator sends frames, into a bare receiving loop:  bench/packet_speed.py [frames]

One stream of full 4096-bin frames (2 packets each) as fast as it goes, one held to 10 Gb/s, and four streams into four loops. Each row says what
was sent, what came, what the kernel dropped, and the processor time a gigabyte that sending and receiving took. With
two processors, four loops and the sender share them: the rates then say more of the machine than of the programs.
"""
import os
import pathlib
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT / "tools" / "session"), str(ROOT / "tests" / "sim")]
import cards

RECEIVER = str(pathlib.Path(cards.KESTREL).parent / "bare_receiver")
TICK = os.sysconf("SC_CLK_TCK")


def used(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(") ", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def run(program, streams, frames, limit=None):
    receivers = [subprocess.Popen([RECEIVER, program.host(), str(cards.DATA_PORT + 1 + s), program.card(),
                                   str(cards.DATA_PORT), "16"], stdout=subprocess.PIPE, text=True)
                 for s in range(streams)]
    for r in receivers:
        assert r.stdout.readline() == "ready\n"
    before = used(program.process.pid)
    rate = f"gigabits {float(limit)}" if limit else ""
    report, result = program.text.lines(f"packets blast 0 0 {frames} channels {streams} {rate}", 600)[-2:]
    sending = used(program.process.pid) - before
    said = [r.communicate()[0].split() for r in receivers]
    got, datagrams, dropped = (sum(int(s[i]) for s in said) for i in range(3))
    sent = int(report.split()[3])
    receiving = sum(float(s[4]) for s in said)
    print(f"{streams} stream{'s' if streams > 1 else ' '} {'limit ' + str(limit) if limit else 'no limit':9}"
          f"  sent {float(result[2:]):6.2f} Gb/s  came {100 * got / sent:6.2f} %  dropped {dropped:8}"
          f"  processor s/GB: sending {sending / sent * 1e9:5.3f}  receiving {receiving / max(got, 1) * 1e9:5.3f}",
          flush=True)


def main():
    frames = int(sys.argv[1]) if len(sys.argv) > 1 else 200000
    with tempfile.TemporaryDirectory() as scratch:
        program = cards.Program(scratch, "-generation=2", "-chans=4")
        host = cards.Host(program, channels=0)
        for _ in range(3):
            run(program, 1, frames)
            run(program, 1, frames, 10)
            run(program, 4, frames // 4)
        host.close()
        program.close()


if __name__ == "__main__":
    main()
