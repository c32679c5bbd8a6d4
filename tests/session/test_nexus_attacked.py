"""NeXus files while handles, folders, disks and processes are taken away, and as corrupt files that are opened again."""
import os
import random
import resource
import signal
import time

import h5py
import numpy
import pytest
from kestrel_data import do
from kestrel_session import SCALE, wait_until
from test_pulsar3_cards import play  # noqa: F401 (a fixture)
from test_pulsar3_counting import histograms, module, statuses
from test_pulsar3_dummy import fails, no_modules_left  # noqa: F401 (a fixture)
from test_write_nexus import CHANS, FRAMES, begin, check_rules, follow, helper_of, run, said


def test_another_folder_of_the_server_does_not_mislead_it(server, client, play):
    follow(client, play)
    (server.cwd / "sub").mkdir()
    kept = server.write("sub/run.nxs.part", "kept")
    do(client, "cd 'sub'")
    os.kill(wait_until(lambda: helper_of(server), "helper"), signal.SIGKILL)
    assert "ended by a signal: Killed" in said(client)[0]
    assert kept.read_text() == "kept" and not (server.cwd / "run.nxs.part").exists()


def test_every_number_is_the_modules_own(server, client, play):
    sim = begin(client, play)
    sim.do("packets fault 0 1 lose packet 1")
    sim.do("packets fault 1 0 lose packet 0")
    run(client)
    assert do(client, "file write-nexus 'run.nxs' 0 1") == 0
    with h5py.File(server.cwd / "run.nxs") as file:
        for card in range(2):
            detector = check_rules(file)[f"instrument/card{card}"]
            status = statuses(card, frames=FRAMES)
            assert numpy.array_equal(detector["counts"], histograms(card, frames=FRAMES).swapaxes(0, 1))
            assert numpy.array_equal(detector["status"], status[0]) and (status[0] == 2).sum() == 1
            assert numpy.array_equal(detector["packets_missing"], status[1])


def test_rows_are_channels_by_auxiliary_bins(server, client, play):
    begin(client, play)
    assert do(client, "pulsar3 format-run 0 -1 nbits-eng 10 nbits-aux1 2") == 0
    run(client)
    assert do(client, "file write-nexus 'run.nxs' 0 eng-offset -1.5 eng-gain 0.5") == 0
    with h5py.File(server.cwd / "run.nxs") as file:
        for card in range(2):
            detector = check_rules(file)[f"instrument/card{card}"]
            words = module(f"plr3_hist{card}", CHANS, FRAMES, 4, 1024)
            assert words.any()
            assert numpy.array_equal(detector["counts"], words.swapaxes(0, 1).reshape(FRAMES, 4 * CHANS, 1024))
            assert list(detector["auxiliary_bin"]) == [0, 1, 2, 3] * CHANS
            assert list(detector["channel"]) == [card * CHANS + row // 4 for row in range(4 * CHANS)]
            assert detector["energy"][0] == -1.5 and detector["energy"][1023] == -1.5 + 0.5 * 1023


def test_a_disk_that_fills_while_a_run_is_followed(server, client, play, small_disk):
    begin(client, play, 3000 * SCALE)
    assert do(client, "pulsar3 hist start 0") == 0
    assert do(client, f"file write-nexus '{small_disk}/run' 0 1 follow") == 0
    (small_disk / "filler").write_bytes(b"x" * 220 * 1024)
    assert said(client) == [f"! ERROR: cannot write NeXus file '{small_disk}/run': No space left on device"]
    assert os.listdir(small_disk) == ["filler"] and helper_of(server) is None
    wait_until(lambda: do(client, "pulsar3 check-progress 0 once") == FRAMES, "end of the run")
    assert do(client, "file write-nexus 'run.nxs' 0 1") == 0


def test_a_limit_of_size_is_a_full_disk(server, client, play):
    begin(client, play)
    run(client)
    for size in 30000, 80000:  # of what is told to the helper, of what it writes
        resource.prlimit(server.process.pid, resource.RLIMIT_FSIZE, (size, resource.RLIM_INFINITY))
        assert fails(client, "file write-nexus 'run.nxs' 0 1") == [
            "! ERROR: cannot write NeXus file 'run.nxs': File too large"]
        assert os.listdir(server.cwd) == [] and helper_of(server) is None
    assert fails(client, "module create 'plr3_large' 100000 1 header") != []
    assert do(client, "system 'head -c 90000 /dev/zero >f'") == 128 + signal.SIGXFSZ  # as everywhere else
    resource.prlimit(server.process.pid, resource.RLIMIT_FSIZE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
    assert do(client, "file write-nexus 'run.nxs' 0 1") == 0


def test_cards_that_are_closed_end_the_following(server, client, play):
    follow(client, play)
    wait_until(lambda: do(client, "pulsar3 check-progress 0 once") >= 2, "two frames")
    lines = [line for command in ("close-all", "pulsar3 close 0") for line in client.lines(command)]
    told = [line for line in lines if "NeXus" in line] or said(client)
    assert "what there is stays as 'run.nxs.part'" in told[0]
    with h5py.File(server.cwd / "run.nxs.part") as file:
        assert len(file["entry/card0/counts"]) >= 1


def test_another_file_under_the_name_is_not_written_over(server, client, play):
    follow(client, play)
    other = server.write("run.nxs", "another's")
    assert said(client) == ["! ERROR: cannot write NeXus file 'run.nxs': cannot be renamed: File exists"]
    assert other.read_text() == "another's" and os.listdir(server.cwd) == ["run.nxs"]


def test_a_helper_that_hangs_holds_up_nobody(server, client, play):
    follow(client, play)
    helper = wait_until(lambda: helper_of(server), "helper")
    os.kill(helper, signal.SIGSTOP)
    wait_until(lambda: do(client, "pulsar3 check-progress 0 once") == FRAMES, "end of the run")
    start = time.monotonic()
    for _ in range(20):
        assert do(client, "sleep 0.0") == 0
    assert time.monotonic() - start < 2 * SCALE
    os.kill(helper, signal.SIGCONT)
    assert said(client) == [f"# NeXus file 'run.nxs' is whole: {FRAMES} frames"]
    with h5py.File(server.cwd / "run.nxs") as file:
        assert (check_rules(file)["instrument/card1/status"][()] == 1).all()


def test_titles_of_any_bytes(server, client, play):
    begin(client, play, cards=1)
    run(client)
    for number, title in enumerate((b"", b"Fe \xc3\xbc \xe2\x82\xac", b"latin \xfc", b"%s%n\\")):
        client.send(b"file write-nexus 'run%d.nxs' 0 title '%s'\n" % (number, title))
        client.recv_until("* 0\r\n> ")
        with h5py.File(server.cwd / f"run{number}.nxs") as file:
            assert check_rules(file)["title"][()] == title


def test_corrupt_files_are_refused_or_read(server, client, play):
    begin(client, play, cards=1)
    run(client)
    assert do(client, "file write-nexus 'run.nxs' 0 1") == 0
    good = (server.cwd / "run.nxs").read_bytes()
    dice = random.Random(4)
    step = max(len(good) // 60, 1)
    for number, at in enumerate(range(0, len(good), step)):
        bad = bytearray(good)
        for place in range(at, min(at + step, len(bad)), 3):
            bad[place] = dice.choice((0, 255, bad[place] ^ 1 << dice.randrange(8)))
        (server.cwd / "bad.nxs").write_bytes(bad[:at] if number % 5 == 4 else bad)
        line = client.lines("file open 'bad.nxs' tessera")
        if line[-1] != "* -1":
            handle = int(line[-1][2:])
            client.lines(f"read 0 0 0 100 {CHANS} 1 from {handle} to-local-file 'words' raw")
            do(client, f"close {handle}")
        else:
            assert line[0].startswith("! ERROR: file 'bad.nxs'"), line
    assert do(client, "file open 'run.nxs' tessera") >= 0
    do(client, "close-all")
