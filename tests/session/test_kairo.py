"""The timing unit's commands: what is sent for each, and what is made of the answers; against a peer of the test's own."""
import pathlib
import re
import threading
import time

import numpy as np
import pytest
from kairo_peer import KairoPeer
from kestrel_data import Module, do, held, refused
from kestrel_session import WAIT

TIMES = pathlib.Path("/dev/shm/kairo_times")
NOT_CONFIGURED = ["! KAIRO 1 not supported", "* -1"]


@pytest.fixture(autouse=True)
def no_times():
    TIMES.unlink(missing_ok=True)
    yield
    TIMES.unlink(missing_ok=True)


@pytest.fixture
def unit(client):
    """unit(...) -> a peer that the client's server is configured for."""
    peers = []

    def begin(*options, **how):
        peers.append(KairoPeer(**how))
        reply = client.lines(f"kairo config 'dev' remote server '127.0.0.1' port {peers[-1].port} " + " ".join(options))
        assert reply[-1] == "* 0", reply
        peers[-1].lines.clear()
        return peers[-1]

    yield begin
    for peer in peers:
        peer.stop()


def rows(frames, count=4):
    return [[10.0 * row + x for x in range(frames)] for row in range(count)]


# Typed here, sent there.
FORWARDED = [
    ("options auto-disarm 1 auto-cont 0 signal 5", "options auto-disarm 1 auto-cont 0 signal 5"),
    ("options", "options"), ("init", "init"),
    ("setup-trig", "setup-trig"),
    ("setup-trig 3 vthres adc5 start debounce 1e-3 threshold 2.5 alternate 4",
     "setup-trig 3 start debounce 0.001 threshold 2.5 alternate 4 adc5 vthres"),
    ("setup-trig 16 threshold 2.0 debounce 1e-9", "setup-trig 16 debounce 1e-09 threshold 2.0"),
    ("setup-trig 0 help pause pause-dead falling now raw enb-level 1 beam-circ ttl0 lvds ctf3",
     "setup-trig 0 help pause pause-dead falling now raw enb-level 1 beam-circ ttl0 lvds ctf3"),
    ("setup-tfout lvds2-emberw 1 mask-width 7", "setup-tfout mask-width 7 lvds2-emberw 1"),
    ("setup-veto leds-on-lemos 1 veto0-inv 0 lvds-xfer-inv -1", "setup-veto veto0-inv 0 lvds-xfer-inv -1 leds-on-lemos 1"),
    ("alternate-veto", "alternate-veto"),
    ("alternate-veto xfer1-mem veto0-normal fzero0-dc", "alternate-veto veto0-normal fzero0-dc xfer1-mem"),
    ("setup-port 1+1 255 silent", "setup-port 2 255"),
    ("stop", "stop"), ("stop end-of-cycle pause", "stop pause end-of-cycle"),
    ("list-seq", "list-seq"), ("list-seq 'one two'", "list-seq 'one two'"),
    ("start no-init", "start no-init"), ("arm", "arm"), ("cont no-check", "cont"),
    ("wait stream34 timebar ignore-pause lux luy stream1 stream12 stream3",
     "wait ignore-pause timebar lux luy stream1 stream12 stream3 stream34"),
    ("clear-starts", "clear-starts"), ("read lap", "read lap"), ("read frame", "read frame"), ("read full", "read full"),
]


def test_what_is_sent_for_each_command(client, unit):
    peer = unit()
    for typed, sent in FORWARDED:
        assert client.lines("kairo " + typed)[-1] == "* 0", typed
        assert peer.lines == ["kairo " + sent], typed
        peer.lines.clear()


def test_results_come_back(client, unit):
    unit(answers={"kairo read lap": "* 7", "kairo read status": '* "RUNNING"', "kairo read progress": '* "3 of 4"',
                  "kairo init": "! dead\n* -5", "kairo start": "* -3", "kairo clear-starts": "* -1"})
    for typed, reply in [("read lap", ["* 7"]), ("read status show-armed", ['* "RUNNING"']),
                         ("read progress", ['* "3 of 4"']), ("init", ["! - dead", "* -5"]), ("start", ["* -1"]),
                         ("clear-starts", ["* 0"]), ("read starts", NOT_CONFIGURED), ("setup 'f'", NOT_CONFIGURED),
                         ("scale-times", ["* 0"]),
                         ("alternate-veto fzero1-normal fzero1-mem",
                          ["! Please specify only one of DC or port for output fzero1", "* -1"]),
                         ("list-seq \"it's\"",
                          ["! ERROR: a text with a quote or a line end cannot be sent to the KAIRO server", "* -1"])]:
        assert client.lines("kairo " + typed) == reply, typed


def test_nothing_works_before_a_configuration(client):
    for typed in ["setup help", "setup-groups help", "generate 1 1 1 1 0", "read starts", "scan motor 0 1 1 1 1"]:
        assert client.lines("kairo " + typed) == NOT_CONFIGURED, typed
    for typed, _ in FORWARDED:
        assert client.lines("kairo " + typed) == NOT_CONFIGURED, typed
    assert client.lines("kairo read status") == [NOT_CONFIGURED[0], "* (null)"]
    assert client.lines("kairo get-version") == [
        "! ERROR: KAIRO not configured yet. Use get-version after config", "* -1"]
    assert client.lines("kairo scale-times 3") == [
        "! KAIRO times module not in use, so no times file possible", "* 0"]


def test_a_local_unit_is_refused(client):
    for typed, line in [("kairo2 mrl-ikairo", "! ERROR: KAIRO2 is not supported under OS9000 (yet?)"),
                        ("mrl-ikairo", "! ERROR: MRLHIST IKAIRO is not supported under OS9000 (yet?)"),
                        ("", "! KAIRO 1 not supported")]:
        assert client.lines("kairo config '/dev' " + typed) == [line, "* -1"]


@pytest.mark.parametrize("options, sent, width, version", [
    ("", "", 1024, ["# REMOTE KAIRO1 Tallis", "* 101"]),
    ("max-frames 9", "", 1024, ["# REMOTE KAIRO1 Tallis", "* 101"]),
    ("kairo2", " kairo2", 32768, ["# REMOTE KAIRO2 Brecon", "* 102"]),
    ("max-frames 9 kairo2", " kairo2 max-frames 9", 9, ["# REMOTE KAIRO2 Brecon", "* 102"]),
    ("mrl-ikairo kairo2", " kairo2 mrl-ikairo", 65537, ["# REMOTE MERLOT IKAIRO", "* 150"])])
def test_the_kinds_of_units(client, options, sent, width, version):
    peer = KairoPeer(num_tf=5)  # without a module: the one that is made here stays
    reply = client.lines(f"kairo config '/tfg' {options} remote server '127.0.0.1' port {peer.port}")
    assert reply[-1] == "* 0" and peer.lines == [f"kairo config '/tfg'{sent}", "%num_tf"]
    module = Module("kairo_times")
    assert module.data.shape == (8, width) and module.data.dtype == np.float32 and not module.data.any()
    assert (module.head["x_label"], module.head["y_label"]) == (b"time_frame", b"Dead/Live")
    assert client.lines("kairo get-version") == version and client.lines("%num_tf") == ["* 5"]
    peer.stop()


def test_a_configuration_that_fails_leaves_what_was(client, unit):
    good = unit(times=rows(3), num_tf=3)
    for how, line in [({"answers": {"kairo config": "* -2"}}, "! ERROR sending 'kairo config 'x' kairo2' to remote KAIRO server"),
                      ({"answers": {"kairo config": None}}, "! ERROR sending 'kairo config 'x' kairo2' to remote KAIRO server"),
                      ({"num_tf": -1}, "* -1")]:
        bad = KairoPeer(**how)
        reply = client.lines(f"kairo config 'x' remote kairo2 server '127.0.0.1' port {bad.port}")
        assert reply[-1] == "* -1" and line in reply, reply
        assert Module("kairo_times").data.tolist() == rows(3) and client.lines("%num_tf") == ["* 3"]
        bad.stop()
    reply = client.lines("kairo config 'x' remote server '127.0.0.1' port 1")
    assert reply[-2:] == ["! ERROR: Cannot connect to remote KAIRO server", "* -1"]
    for options, line in [("port 0", "! ERROR: port should be 1..65535, not 0"),
                          ("kairo2 max-frames 0", "! ERROR: max-frames should be at least 1, not 0")]:
        assert client.lines("kairo config 'x' remote " + options) == [line, "* -1"]
    assert client.lines("kairo get-version")[-1] == "* 101"
    assert client.lines("kairo init")[-1] == "* 0" and good.lines == ["kairo init"]
    assert Module("kairo_times").data.tolist() == rows(3)


def test_a_first_configuration_that_fails_leaves_no_module(client):
    peer = KairoPeer(num_tf=-1)
    assert client.lines(f"kairo config 'x' remote server '127.0.0.1' port {peer.port}")[-1] == "* -1"
    assert not TIMES.exists()
    peer.stop()


def test_a_module_that_cannot_be_made_is_done_without(client, unit):
    do(client, "module create 'kairo_times' 2 2 header")
    peer = KairoPeer()
    reply = client.lines(f"kairo config 'dev' remote server '127.0.0.1' port {peer.port}")
    assert "# Cannot create kairo_times module, proceeding without" in reply and reply[-1] == "* 0"
    assert client.lines("kairo start") == ["! KAIRO times module not in use, so no times file possible", "* 0"]
    peer.stop()


def test_frame_times_are_the_remote_ones(client, unit):
    peer = unit(times=rows(4), num_tf=4)
    assert (Module("kairo_times").data == rows(4)).all() and client.lines("%num_tf") == ["* 4"]
    opened = do(client, "module open 'kairo_times' header")
    peer.times, peer.num_tf = rows(6, 8), 6  # another size: made anew, and who has the old one open keeps that
    assert client.lines("kairo generate 3 6 0.5 1 0 silent ext-start help ext-falling") == ["* 0"]
    assert peer.lines == ["kairo generate 3 6 0.5 1 0 help ext-start silent ext-falling", "%num_tf"]
    assert (Module("kairo_times").data == rows(6, 8)).all() and client.lines("%num_tf") == ["* 6"]
    assert do(client, f"unif-get-nx {opened}") == 4
    do(client, f"close {opened}")
    for starts in (1, 2):  # rows 2 and 3 are rows 0 and 1 times laps times starts
        assert client.lines("kairo start")[-1] == "* 0"
        assert (Module("kairo_times").data[2:4] == 3 * starts * np.array(rows(6))[:2]).all()
    assert peer.closed == 2


def test_starts_are_forgotten_when_data_are_cleared(client, unit, names):
    unit(times=rows(2), num_tf=2)
    do(client, f"module create '{names('m')}' 2 2 header float")
    handle = do(client, f"module open '{names('m')}' header")
    for clear in (f"clear {handle}", "kairo clear-starts"):
        do(client, "kairo start"), do(client, "kairo arm")
        assert Module("kairo_times").data[3, 1] == 2 * 11
        do(client, clear)
    do(client, "kairo start")
    assert Module("kairo_times").data[3, 1] == 11


@pytest.mark.parametrize("times, kind", [(rows(3, 3), 4), (rows(3), 3), (rows(3), -1)])
def test_a_remote_module_that_is_no_table_is_refused(client, unit, times, kind):
    peer = unit(times=rows(2), num_tf=2)
    peer.times, peer.kind = times, kind
    reply = client.lines("kairo generate 1 3 1 1 0")
    assert len(reply) == 2 and re.match(r"! ERROR: remote module 'kairo_times' \(3, \d\) of type -?\d is no table", reply[0])
    assert reply[1] == "* 0" and (Module("kairo_times").data == rows(2)).all() and peer.closed == 2


def test_generate_that_fails(client, unit):
    peer = unit(times=rows(2), num_tf=2, answers={"kairo generate": "! - no\n* -1"})
    assert client.lines("kairo generate 1 3 1 1 0")[-2:] == [
        "! ERROR performing 'kairo generate 1 3 1 1 0' command on remote KAIRO", "* -1"]
    peer.answers = {"%num_tf": "* -1"}
    assert client.lines("kairo generate 1 3 1 1 0") == ["* -1"]


# ---------------------------------------------------------------- groups

GROUPS = ["3 0.1 0.2 1 2 0 0", "2 1e-3 5 0 255 1 1"]
CLOSING = "-1 0 0 0 0 0 0"


def test_groups_from_a_file_and_from_the_session(server, client, unit):
    peer = unit(times=rows(5), num_tf=5)
    server.write("groups.txt", GROUPS[0] + "\r\n \n" + GROUPS[1] + "\n" + CLOSING + "\nnever read\n")
    words = "ext-start ext-inh cycles 4 no-min-20us silent sequence 'ab' auto-rearm ext-falling"
    assert client.lines(f"kairo setup-groups file 'groups.txt' {words}") == ["* 5"]
    assert peer.lines == ["kairo setup-groups " + words, *GROUPS, CLOSING, "%num_tf"]
    peer.lines.clear()
    assert client.lines("\n".join(["kairo setup-groups", *GROUPS, CLOSING])) == ["* 5"]
    assert peer.lines == ["kairo setup-groups", *GROUPS, CLOSING, "%num_tf"]
    server.write("script.cmd", ["kairo setup-groups", *GROUPS, CLOSING])
    assert client.lines("include 'script.cmd'")[-1] == "* 0" and len(peer.lines) == 10
    assert client.lines("kairo setup-groups help")[:2] == [
        "# File format is as follows:", "# num_frames dead_time live_time dead_port live_port dead_pause live_pause"]


def test_groups_that_end_too_soon(server, client, unit):
    peer = unit(times=rows(3), num_tf=3)
    server.write("short.txt", GROUPS)
    reply = client.lines("kairo setup-groups file 'short.txt'")
    assert reply == ["! Runout of KAIRO data at group 3 ", "* -1"]
    assert peer.lines == ["kairo setup-groups", *GROUPS, "-1"]
    server.write("long.txt", [GROUPS[0], "1 " + 2000 * "0"])
    assert client.lines("kairo setup-groups file 'long.txt'") == ["! ERROR: KAIRO group 2 is longer than 1024 characters", "* -1"]
    assert peer.lines[-1] == "-1"
    assert client.lines("kairo setup-groups file 'none.txt'") == ["! Couldn't open file none.txt for reading.", "* -1"]
    assert client.lines("\n".join(["kairo setup-groups", GROUPS[0], "1 " + 1023 * "0", GROUPS[1], CLOSING])) == [
        "! ERROR: KAIRO group 2 is longer than 1024 characters", "* -1"]
    assert peer.lines[-3:] == ["kairo setup-groups", GROUPS[0], "-1"]
    assert client.lines("kairo init") == ["* 0"]


def test_groups_that_the_unit_refuses_are_no_commands(client, unit):
    peer = unit(times=rows(3), num_tf=3, answers={"kairo setup-groups": "! busy\n* -1"})
    reply = client.lines("\n".join(["kairo setup-groups", *GROUPS, CLOSING]))
    assert "! - busy" in reply and reply[-1] == "* -1"
    client.expect_silence()
    assert client.lines("kairo init")[-1] == "* 0" and peer.lines[-1] == "kairo init"


# ---------------------------------------------------------------- scans

@pytest.fixture
def scan(client, unit):
    """A unit and motors: (unit, motors)."""
    motors = KairoPeer()
    do(client, f"client define '127.0.0.1' {motors.port} motor")
    yield unit(times=rows(4), num_tf=4), motors
    motors.stop()


def moves(motors):
    return [int(line.split()[-1]) for line in motors.lines]


@pytest.mark.parametrize("range_, positions", [("0 10 3", [0, 3, 6, 9]), ("5 5 1", [5]), ("4 -4 -4", [4, 0, -4])])
def test_a_scan_goes_from_position_to_position(client, scan, range_, positions):
    unit, motors = scan
    reply = client.lines(f"kairo scan motor {range_} 1.0 2")
    assert reply[-1] == "* 0" and [f"# Setting Scan variable to {p}" for p in positions] == [
        line for line in reply if "Scan variable" in line]
    assert motors.lines == [f"motor move-to 2 {p}" for p in positions]
    assert unit.lines == [f"kairo generate 1 {len(positions)} 2e-05 1 -1", "%num_tf", "kairo start", "kairo wait",
                          *(["kairo cont", "kairo wait"] * len(positions))]


def test_scans_without_steps_send_nothing(client, scan):
    unit, motors = scan
    for range_ in ("0 10 0", "10 0 1", "0 10 -1", "-2147483648 2147483647 1"):
        assert client.lines(f"kairo scan motor {range_} 1 2")[0].startswith("! ERROR: a scan from ")
    assert not unit.lines and not motors.lines


def test_the_memory_of_a_scan(client, scan, names):
    unit, _ = scan
    do(client, f"module create '{names('m')}' 3 1 header float num-t 3")
    handle = do(client, f"module open '{names('m')}' header")
    assert refused(client, f"kairo scan motor 0 3 1 0.1 2 mem {handle}") == [
        "! Insufficient memory for 4 steps, only enough for 3"]
    assert refused(client, "kairo scan motor 0 3 1 0.1 2 mem 19") == ["! ERROR: Determining size of memory system"]
    assert not unit.lines
    Module(names("m")).data[:] = 7
    do(client, f"kairo scan motor 1 2 1 0.1 2 mem {handle}")
    assert Module(names("m")).data[:, 0, 0].tolist() == [0, 0, 7]


def test_a_scan_goes_on_without_the_motor_but_not_without_the_unit(client, scan):
    unit, motors = scan
    motors.answers = {"motor move-to": "* -1"}
    reply = client.lines("kairo scan motor 0 1 1 0.1 2")
    assert reply.count("# Set function returned ERROR") == 2 and reply[-1] == "* 0"
    unit.answers = {"kairo cont": "* -1"}
    assert client.lines("kairo scan motor 0 1 1 0.1 2")[-2:] == ["! KAIRO cannot continue", "* -1"]
    assert unit.lines[-1] == "kairo cont"


def test_an_interrupt_stops_the_unit_as_well(server, client, scan):
    unit, _ = scan
    unit.answers["kairo wait"] = "never"  # no result, and no prompt would come after it
    reply = unit.reply
    waits = threading.Event()
    unit.reply = lambda line, *rest: (waits.set() or time.sleep(3600) if line == "kairo wait" else reply(line, *rest))
    client.send("kairo scan motor 0 1 1 0.1 2\n")
    assert waits.wait(WAIT)
    server.interrupt()
    said = client.recv_prompt().decode().splitlines()
    assert "! Scan Aborted by quit signal" in said and said[-1] == "* -1" and unit.lines[-1] == "kairo stop"


# ---------------------------------------------------------------- a unit that vanishes

@pytest.mark.parametrize("typed, word", [
    ("generate 1 1 1 1 0", "kairo generate"), ("generate 1 1 1 1 0", "%num_tf"), ("start", "kairo start"),
    ("wait", "kairo wait"), ("read status", "kairo read"), ("setup-groups file 'g'", "kairo setup-groups"),
    ("setup-groups file 'g'", "%num_tf"), ("scan motor 0 1 1 0.1 2", "kairo cont"), ("setup-trig 1 start", "kairo setup-trig")])
def test_a_unit_that_vanishes(server, client, scan, typed, word):
    unit, _ = scan
    server.write("g", [*GROUPS, CLOSING])
    descriptors = held(server)[0]
    unit.answers = {word: None}
    reply = client.lines("kairo " + typed)
    assert reply[-1] in ("* -1", "* (null)") and any(line.startswith("!") for line in reply), reply
    if "start" not in typed and "scan" not in typed:
        assert Module("kairo_times").data.tolist() == rows(4)
    assert held(server)[0] <= descriptors + 1  # the motors' link
    unit.answers = {}
    assert client.lines("kairo init")[-1] == "* 0"
