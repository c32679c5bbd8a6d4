#!/usr/bin/python3
"""The display for a long time:  bench/display_soak.py [MINUTES]

Cards count on a server; four pages of one browser look on, a fifth in a browser of its own is frozen. Each minute the
resident memory of server, display and browser is printed, in MB; at the end, what each grew by after the first tenth.
"""
import os
import pathlib
import signal
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(ROOT / "tools" / "session"), str(ROOT / "tests" / "sim")]
import cards
from display import Browser, Display
from kestrel_session import Server


def resident(*pids):
    """MB; a process that has gone counts nothing."""
    total = 0
    for pid in pids:
        try:
            total += int(pathlib.Path(f"/proc/{pid}/statm").read_text().split()[1])
        except OSError:
            pass
    return total * os.sysconf("SC_PAGE_SIZE") / 1e6


def count_for_ever(client, sim):
    for line in (f"pulsar3 config 1 16 0 baseIP '{sim.net}1'", "pulsar3 set-run-mode 0 circ-buffer",
                 "pulsar3 setup-timing 0 internal time 0.2 frames 0", "pulsar3 hist start 0"):
        print(line, client.lines(line)[-1])


def main():
    minutes = float(sys.argv[1]) if len(sys.argv) > 1 else 30.0
    folder = pathlib.Path(tempfile.mkdtemp())
    sim, server = cards.Program(folder / "cards", "-cards=1", "-chans=4"), Server(folder / "server")
    display = Display(folder / "display", server_port=server.port)
    client = server.client()
    count_for_ever(client, sim)
    browser, frozen = Browser(display.url), Browser(display.url)
    try:
        for tab in ("overview", "image", "rates"):
            browser.driver.switch_to.new_window("window")
            browser.driver.get(display.url)
            browser.wait("!!display.named('plr3_hist0')")
            browser.run("display.choose('plr3_hist0', arguments[0])", tab)
        browser.run("document.getElementById('frames').value = 'newest'")
        stopped = frozen.processes()
        for pid in stopped:
            os.kill(pid, signal.SIGSTOP)
        seen, end = [], time.monotonic() + 60 * minutes
        while time.monotonic() < end:
            time.sleep(60)
            seen.append((resident(server.process.pid), resident(display.process.pid),
                         resident(*browser.processes())))
            print("server %.1f  display %.1f  browser %.1f MB" % seen[-1], flush=True)
        first = seen[len(seen) // 10]
        print("grown by: server %.1f  display %.1f  browser %.1f MB" % tuple(b - a for a, b in zip(first, seen[-1])))
    finally:
        for pid in stopped:
            os.kill(pid, signal.SIGCONT)
        frozen.close()
        browser.close()
        display.close()
        client.lines("pulsar3 hist stop 0")
        client.lines("pulsar3 close 0")
        server.close()
        sim.close()


if __name__ == "__main__":
    main()
