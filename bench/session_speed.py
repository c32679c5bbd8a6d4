#!/usr/bin/python3
"""How fast the server answers lines and runs scripts, as ratios measured in one run:  bench/session_speed.py

  one line    `eval int 1+2`, one session, the next line when the reply is there: against redis-server's inline
              PING, and against a bare select-receive-send echo of the same line
  1000 lines  the same, sent at once: against 1000 inline PINGs sent at once
  1000 other  the same with a number in each line that no other has, so that nothing is known of a line
  loop        a million passes of a three-line script loop: against Lua that compiles these three lines anew with
              load in each pass; processor time of both
  300 idle    one line at a time again, beside 300 sessions that say nothing; and what a session takes of memory

tools/install_packages bench/packages.txt and tools/build release --target bench_programs come first.
Client and servers stay on one processor, and for `one line` then on two: left to itself the scheduler puts some pairs
on one and some on two, tenfold apart in rate, and the ratio is its doing. KESTREL names the server, whose folder has the
other programs.
"""
import os
import pathlib
import socket
import statistics
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tools" / "session"))
import kestrel_session

PROGRAMS = pathlib.Path(kestrel_session.KESTREL).resolve().parent
IDLE = 300
PASSES = 1_000_000
KESTREL = "> ", "eval int 1+2\n", "* 3\r\n> "
DIFFERENT = "> ", "eval int 0+@\n", "* @\r\n> "
REDIS = "", "PING\r\n", "+PONG\r\n"
ECHO = "", KESTREL[1], KESTREL[1]

SCRIPT = f"for 'i' 1 {PASSES}", "set-int 'x' %i*2+1", "next"
LUA = f"""
local lines = "for i = k, k do\\nx = i * 2 + 1\\nend"
for pass = 1, {PASSES} do
    k = pass
    load(lines)()
end
assert(x == {PASSES} * 2 + 1)
io.write(os.clock())
"""


class Peer:
    """A server that is not ours, as a process that listens on `port`."""

    def __init__(self, *command):
        self.port = kestrel_session.free_port()
        self.process = subprocess.Popen([str(part).format(port=self.port) for part in command], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        kestrel_session.wait_until(self.listens, f"{command[0]} on its port")

    def listens(self):
        assert self.process.poll() is None, "the peer has ended"
        with socket.socket() as s:
            return s.connect_ex(("127.0.0.1", self.port)) == 0

    def close(self):
        self.process.terminate()
        self.process.wait()


def measure(rounds, lines, at_once, *peers):
    """[(lines a second, ratio to the first)] of peers (port, (greeting, line, reply))."""
    arguments = [str(word) for port, talk in peers for word in (port, *talk)]
    output = subprocess.run([PROGRAMS / "line_client", str(rounds), str(lines), str(at_once), *arguments],
                            check=True, capture_output=True, text=True, timeout=300).stdout
    return [tuple(map(float, line.split())) for line in output.splitlines()]


def report(name, ours, against, theirs, ratio, goal=None):
    verdict = "" if goal is None else f"   goal {goal:4.2f}   {'met' if ratio >= goal else 'MISSED'}"
    print(f"{name:10} {ours:12,.0f}/s   {against:16} {theirs:12,.0f}/s   ratio {ratio:6.2f}{verdict}", flush=True)


def place(servers, processor):
    """Keeps every thread of these on one processor; this process, and so its clients, are on the first one."""
    for server in servers:
        for thread in os.listdir(f"/proc/{server.process.pid}/task"):
            os.sched_setaffinity(int(thread), {processor})


def one_line(server, redis, echo, rounds):
    ours, pings, echoes = measure(rounds, 2000, 1, (server.port, KESTREL), (redis.port, REDIS), (echo.port, ECHO))
    report("one line", ours[0], "redis PING", pings[0], 1 / pings[1], 1.1)
    report("one line", ours[0], "echo", echoes[0], 1 / echoes[1], 0.97)


def lines(server, redis, echo):
    first, *others = sorted(os.sched_getaffinity(0))
    os.sched_setaffinity(0, {first})
    if others:
        print("on two processors:")
        place((server, redis, echo), others[0])
        one_line(server, redis, echo, 30)
    print("on one processor:")
    place((server, redis, echo), first)
    one_line(server, redis, echo, 150)
    ours, pings = measure(150, 20_000, 1000, (server.port, KESTREL), (redis.port, REDIS))
    report("1000 lines", ours[0], "redis PING", pings[0], 1 / pings[1], 3.0)
    ours, pings = measure(150, 20_000, 1000, (server.port, DIFFERENT), (redis.port, REDIS))
    report("1000 other", ours[0], "redis PING", pings[0], 1 / pings[1])


def processor_seconds(server):
    """Time that the server's command thread has run."""
    return int(pathlib.Path(f"/proc/{server.process.pid}/schedstat").read_text().split()[0]) * 1e-9


def loop(server):
    server.write("loop.cmd", SCRIPT)
    client = server.client()

    def ours():
        start = processor_seconds(server)
        assert client.lines("include 'loop.cmd'", 300) == ["* 0"]
        assert client.lines("eval int %x") == [f"* {PASSES * 2 + 1}"]
        return processor_seconds(server) - start

    def lua():
        return float(subprocess.run(["lua5.4", "-"], input=LUA, check=True, capture_output=True, text=True).stdout)

    pairs = [(ours(), lua()) for _ in range(3)]
    mine, theirs = (statistics.median(column) for column in zip(*pairs))
    report("loop", PASSES / mine, "lua with load", PASSES / theirs,
           statistics.median(theirs / mine for mine, theirs in pairs), 10.0)


def resident(server):
    status = pathlib.Path(f"/proc/{server.process.pid}/status").read_text()
    return int(status.split("VmRSS:")[1].split()[0])


def idle(alone, redis, scratch):
    crowded = kestrel_session.Server(scratch)
    crowded_echo = Peer(PROGRAMS / "echo_server", "{port}", "epoll")
    silent = []
    try:
        crowded.client().lines("eval int 1+2")
        before = resident(crowded)
        clients = [crowded.client() for _ in range(IDLE)]
        fresh = (resident(crowded) - before) / IDLE
        for client in clients:
            client.lines("eval int 1+2")
        used = (resident(crowded) - before) / IDLE
        place((crowded, crowded_echo), min(os.sched_getaffinity(0)))
        silent = [socket.create_connection(("127.0.0.1", peer.port)) for _ in range(IDLE) for peer in (crowded_echo, redis)]
        ours, quiet, echoes, pings = measure(60, 1000, 1, (crowded.port, KESTREL), (alone.port, KESTREL),
                                             (crowded_echo.port, ECHO), (redis.port, REDIS))
        report(f"{IDLE} idle", ours[0], "without them", quiet[0], 1 / quiet[1])
        report(f"{IDLE} idle", ours[0], "epoll echo", echoes[0], 1 / echoes[1], 0.9)
        report(f"{IDLE} idle", ours[0], "redis with them", pings[0], 1 / pings[1], 1.0)
        print(f"memory a session: {fresh:.1f} KiB when it opens, {used:.1f} KiB when it has said something", flush=True)
    finally:
        for connection in silent:
            connection.close()
        crowded_echo.close()
        crowded.close()


def main():
    with tempfile.TemporaryDirectory() as scratch:
        scratch = pathlib.Path(scratch)
        running = []
        try:
            running.append(server := kestrel_session.Server(scratch / "alone"))
            running.append(redis := Peer("redis-server", "--port", "{port}", "--bind", "127.0.0.1", "--save", "",
                                         "--appendonly", "no", "--dir", scratch))
            running.append(echo := Peer(PROGRAMS / "echo_server", "{port}"))
            lines(server, redis, echo)
            loop(server)
            idle(server, redis, scratch / "crowded")
        finally:
            for process in running:
                process.close()


if __name__ == "__main__":
    main()
