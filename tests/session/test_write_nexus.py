"""Runs as NeXus files: what stands in them, who can read them, and what is left when something ends too early."""
import datetime
import os
import pathlib
import signal

import h5py
import numpy
import pytest
from kestrel_data import Module, do, result
from kestrel_session import SCALE, wait_until
from test_pulsar3_cards import play  # noqa: F401 (a fixture)
from test_pulsar3_counting import BINS, CHANS, configured, count, sent
from test_pulsar3_dummy import fails, no_modules_left  # noqa: F401 (a fixture)

CARDS, FRAMES = 2, 6
SHAPE = FRAMES, CHANS, BINS


def begin(client, play, milliseconds=5, cards=CARDS):
    sim = configured(client, play, "-kind=4", ncards=cards, frames=FRAMES)
    assert do(client, "pulsar3 open-mca 0") == 0
    assert do(client, "pulsar3 open-scalers 0") == 1
    assert do(client, f"pulsar3 setup-timing 0 internal time {milliseconds / 1000.0} frames {FRAMES}") == 0
    return sim


def run(client):
    count(client, FRAMES)
    wait_until(lambda: all(f" {FRAMES} " in line for line in client.lines("pulsar3 hist loss 0")[1:-1]), "end of the run")


@pytest.fixture
def written(server, client, play):
    """The path of a whole file of a run, with dead times, scalers and a calibration."""
    begin(client, play)
    do(client, "pulsar3 dtc set-params 0 1 1e-8 4e-7 0.0 3e-7")
    do(client, "pulsar3 dtc energy 0 5.9")
    run(client)
    assert do(client, "file write-nexus 'run.nxs' 0 1 eng-offset (-0.5) eng-gain 0.01 title 'Copper'") == 0
    yield server.cwd / "run.nxs"
    assert list(server.cwd.glob("*.part")) == []


def nx_class(thing):
    return thing.attrs.get("NX_class")


def check_rules(file):
    """The rules of NeXus that the file claims to keep: each group has a class and members that fit it, defaults lead to
    a plot, axes fit their signal, links name where the data were put."""
    classes = {"NXroot": {"NXentry"}, "NXentry": {"NXinstrument", "NXdata", "NXnote"},
               "NXinstrument": {"NXdetector", "NXcollection"}, "NXdetector": {"NXcollection"}, "NXdata": set(),
               "NXnote": set(), "NXcollection": set()}

    def walk(group):
        for name, thing in group.items():
            if isinstance(thing, h5py.Group):
                assert nx_class(thing) in classes[nx_class(group)], thing.name
                walk(thing)
            elif "target" in thing.attrs:
                assert file[thing.attrs["target"]] == thing
            if name.endswith("_time") and nx_class(group) == "NXentry":
                datetime.datetime.fromisoformat(thing[()].decode().replace("Z", "+00:00"))

    assert nx_class(file) == "NXroot"
    walk(file)
    entry = file[file.attrs["default"]]
    plots = [thing for thing in entry.values() if nx_class(thing) == "NXdata"]
    assert entry[entry.attrs["default"]] in plots
    for plot in plots:
        signal_of = plot[plot.attrs["signal"]]
        axes = [plot[name] for name in plot.attrs["axes"]]
        assert [len(axis) for axis in axes] == list(signal_of.shape)
    return entry


def test_a_file_has_all_of_the_run(written):
    with h5py.File(written) as file:
        entry = check_rules(file)
        assert entry["title"][()] == b"Copper" and entry["start_time"][()] < entry["end_time"][()]
        assert 0 < entry["duration"][0] < 20 * SCALE and "script" not in entry
        for card in range(CARDS):
            detector = entry[f"instrument/card{card}"]
            counts = detector["counts"]
            assert counts.shape == SHAPE and counts.dtype == "u4" and counts.attrs["units"] == "counts"
            assert counts.compression == "gzip" and counts.chunks == (1, CHANS, BINS)
            for frame in range(FRAMES):
                for chan in range(CHANS):
                    assert (counts[frame, chan] == sent(card, chan, frame)).all()
            assert (detector["status"][()] == 1).all() and (detector["packets_missing"][()] == 0).all()
            assert list(detector["frame"]) == list(range(FRAMES))
            assert list(detector["channel"]) == [CHANS * card, CHANS * card + 1]
            energy = detector["energy"]
            assert energy.attrs["units"] == "keV" and numpy.allclose(energy, -0.5 + 0.01 * numpy.arange(BINS))
            assert list(detector["loss/sent"]) == list(detector["loss/whole"]) == [FRAMES] * CHANS
            assert list(detector["loss/missing"]) == [0] * CHANS
            assert detector["dead_time/all_event_offset"].attrs["units"] == "s"
            assert list(detector["dead_time/all_event_offset"]) == ([0, 4e-7] if card == 0 else [0, 0])
            assert detector["dead_time/calculation_energy"][0] == 5.9
            assert detector["settings/channel_registers"].shape == (CHANS, 64)
            assert detector["settings/card_registers"][8] == FRAMES


def test_scalers_are_those_of_the_handles(server, client, play):
    begin(client, play)
    do(client, "pulsar3 dtc set-params 0 -1 0.0 4e-7 0.0 3e-7")
    run(client)
    assert do(client, "pulsar3 open-scalers 0 dtc") == 2
    assert do(client, "file write-nexus 'run.nxs' 0 1") == 0
    for handle, kind, name in ((1, "u4", "counted"), (2, "f8", "corrected")):
        do(client, f"read 0 0 0 9 {2 * CHANS} {FRAMES} from {handle} to-local-file 'words' raw")
        want = numpy.fromfile(server.cwd / "words", kind).reshape(FRAMES, 2 * CHANS, 9)
        with h5py.File(server.cwd / "run.nxs") as file:
            for card in range(CARDS):
                scalers = file[f"entry/instrument/card{card}/scalers"]
                assert numpy.array_equal(scalers[name], want[:, CHANS * card:CHANS * (card + 1)])
                assert list(scalers[name].attrs["scalers"])[3] == "all_event"
                assert scalers["dead_time_factor"].shape == (FRAMES, CHANS)
            assert "units" not in file["entry/card0/energy"].attrs  # bins, without a calibration


def test_silx_finds_the_plot(written):
    silx_nxdata = pytest.importorskip("silx.io.nxdata")
    import silx.io
    with silx.io.open(str(written)) as file:
        plot = silx_nxdata.get_default(file)
        assert plot.is_valid and plot.signal.shape == SHAPE
        assert plot.axes_names == ["frame", "channel", "Energy (keV)"] and len(plot.axes[2]) == BINS
        assert (plot.signal[3, 1] == sent(0, 1, 3)).all()


def test_pymca_opens_it(written):
    source = pytest.importorskip("PyMca5.PyMcaCore.NexusDataSource")
    from PyMca5.PyMcaCore import NexusTools
    data = source.NexusDataSource(str(written))
    assert data.getSourceInfo()["KeyList"] == ["1.1"]
    file = data._sourceObjectList[0]
    assert [group.name for group in NexusTools.getNXClassGroups(file, "/entry", ["NXdata"])] == [
        f"/entry/card{card}" for card in range(CARDS)]
    assert (numpy.asarray(file["/entry/card1/counts"])[2, 0] == sent(1, 0, 2)).all()


def test_file_open_reads_it_back(client, written):
    handle = do(client, "file open 'run.nxs' tessera")
    assert client.lines(f"unif-get-nx {handle}") == [f"* {BINS}"]
    do(client, f"read 0 0 0 {BINS} {CHANS} {FRAMES} from {handle} to-local-file 'words' raw")
    words = numpy.fromfile(written.parent / "words", "u4").reshape(SHAPE)
    assert (words[5, 1] == sent(0, 1, 5)).all()
    other = do(client, "file open 'run.nxs' tessera dataset '/entry/card1/counts'")
    do(client, f"read 0 0 0 {BINS} {CHANS} {FRAMES} from {other} to-local-file 'words' raw")
    assert (numpy.fromfile(written.parent / "words", "u4").reshape(SHAPE)[5, 1] == sent(1, 1, 5)).all()
    assert fails(client, "file open 'run.nxs' tessera dataset '/entry/title'") == [
        "! ERROR: file 'run.nxs': has no 2-D or 3-D numeric dataset '/entry/title'"]
    assert fails(client, "file open 'run.nxs' raw nx 1 byte dataset '/x'") == [
        "! ERROR: file 'run.nxs': only an HDF5 file has datasets"]
    do(client, "close-all")


def test_what_cannot_be_written(server, client, play):
    begin(client, play)
    assert fails(client, "file write-nexus 'x' 0") == ["! ERROR: no time frame has been counted"]
    do(client, "pulsar3 setup-timing 0 software")
    do(client, "pulsar3 hist start 0")
    for handles in "0", "0 1":  # the first has not ended
        assert fails(client, f"file write-nexus 'x' {handles}") == ["! ERROR: no time frame has been counted"]
    do(client, "pulsar3 hist stop 0")
    run(client)
    do(client, "test open 2 2 1 byte")
    server.write("old", "kept")
    server.write("other.part", "kept")
    for line, text in (("'x' 9", "! Invalid handle 9"),
                       ("'x' 2", "! ERROR: handle 2 is not of a path of the pulse processor"),
                       ("'x' 1", "! ERROR: handle 1 has no histograms"),
                       ("'x' 0 0", "! ERROR: handle 0 has no scalers of this run"),
                       ("'old' 0", "! ERROR: file 'old' exists"),
                       ("'other' 0", "! ERROR: file 'other.part' exists"),
                       ("'' 0", "! ERROR: a NeXus file needs a name without control characters"),
                       ("'x' 0 eng-gain 0.0", "! ERROR: eng-offset and eng-gain must be finite, and eng-gain not 0"),
                       ("'none/x' 0", "! ERROR: cannot write NeXus file 'none/x': 'none/x.part': No such file or "
                                      "directory")):
        assert fails(client, f"file write-nexus {line}") == [text]
    assert (server.cwd / "old").read_text() == (server.cwd / "other.part").read_text() == "kept"
    assert sorted(os.listdir(server.cwd)) == ["old", "other.part"]


def test_the_script_that_runs_stands_in_the_file(server, client, play):
    begin(client, play)
    run(client)
    text = "# writes it\nfile write-nexus 'run.nxs' 0\n"
    script = server.write("write.cmd", text)
    assert do(client, "~write.cmd") == 0
    with h5py.File(server.cwd / "run.nxs") as file:
        note = check_rules(file)["script"]
        assert note["data"][()].decode() == text and note["file_name"][()].decode() == str(script)


def test_lost_frames_and_live_times_are_told(server, client, play):
    sim = begin(client, play, cards=1)
    times = pathlib.Path("/dev/shm/kairo_times")
    if times.exists():
        pytest.skip("somebody's frame times stand there")
    try:
        do(client, f"module create 'kairo_times' {FRAMES} 4 header")
        rows = Module("kairo_times").data
        rows[0], rows[1] = 2, 10 + numpy.arange(FRAMES)
        sim.do("packets fault 0 1 lose packet 1")
        run(client)
        assert do(client, "file write-nexus 'run.nxs' 0") == 0
    finally:
        times.unlink(missing_ok=True)
    with h5py.File(server.cwd / "run.nxs") as file:
        entry = check_rules(file)
        detector = entry["instrument/card0"]
        frame = int(numpy.flatnonzero(detector["status"][:, 1] == 2)[0])
        assert (detector["status"][:, 0] == 1).all() and not detector["counts"][frame, 1].any()
        assert detector["packets_missing"][frame, 1] == 1
        assert list(detector["loss/incomplete"]) == [0, 1] and "scalers" not in detector
        live = entry["instrument/timing/live_time"]
        assert list(live) == [10 + frame for frame in range(FRAMES)] and live.attrs["units"] == "s"


def test_no_space_leaves_nothing(server, client, play, small_disk):
    begin(client, play, cards=1)
    run(client)
    (small_disk / "filler").write_bytes(b"x" * 220 * 1024)
    assert fails(client, f"file write-nexus '{small_disk}/run' 0 1") == [
        f"! ERROR: cannot write NeXus file '{small_disk}/run': No space left on device"]
    assert os.listdir(small_disk) == ["filler"]


def helper_of(server):
    """The process that writes."""
    for pid in (int(name) for name in os.listdir("/proc") if name.isdigit()):
        try:
            status = pathlib.Path(f"/proc/{pid}/stat").read_text()
        except OSError:
            continue
        if "(kestrel-nexus)" in status and int(status.rsplit(")", 1)[1].split()[1]) == server.process.pid:
            return pid
    return None


def has_ended(pid):
    try:
        return ") Z " in pathlib.Path(f"/proc/{pid}/stat").read_text()
    except OSError:
        return True


def follow(client, play, milliseconds=3000):
    """A tenth of that passes, and more where all is slow: what a test does next meets a run that goes on."""
    sim = begin(client, play, milliseconds * SCALE)
    assert do(client, "pulsar3 hist start 0") == 0
    assert do(client, "file write-nexus 'run.nxs' 0 1 follow") == 0
    return sim


def said(client, of="NeXus"):
    return wait_until(lambda: [line for line in client.lines("sleep 0.01") if of in line], "line of the file")


def test_a_run_is_followed_to_its_end(server, client, play):
    follow(client, play)
    assert (server.cwd / "run.nxs.part").exists()
    assert fails(client, "file write-nexus 'run.nxs' 0 follow") == ["! ERROR: file 'run.nxs.part' exists"]
    assert said(client) == [f"# NeXus file 'run.nxs' is whole: {FRAMES} frames"]
    assert helper_of(server) is None and os.listdir(server.cwd) == ["run.nxs"]
    with h5py.File(server.cwd / "run.nxs") as file:
        detector = check_rules(file)["instrument/card1"]
        assert detector["counts"].shape == SHAPE and (detector["status"][()] == 1).all()
        assert (detector["counts"][4, 1] == sent(1, 1, 4)).all()
        assert list(detector["loss/whole"]) == [FRAMES] * CHANS and (detector["scalers/counted"][:, :, 0] > 0).all()


def test_a_run_that_is_stopped_has_the_frames_that_it_came_to(server, client, play):
    follow(client, play)
    wait_until(lambda: do(client, "pulsar3 check-progress 0 once") >= 2, "two frames")
    do(client, "pulsar3 hist stop 0")
    frames = int(said(client)[0].split()[-2])
    assert 3 <= frames < FRAMES
    with h5py.File(server.cwd / "run.nxs") as file:
        assert check_rules(file)["card0/counts"].shape == (frames, CHANS, BINS)


@pytest.mark.parametrize("line, why", [
    ("pulsar3 hist start 0", "another run began before it was whole"),
    ("close 0", "a handle was closed before the run was over")])
def test_what_ends_the_following_leaves_the_part(server, client, play, line, why):
    follow(client, play)
    do(client, line)
    assert said(client) == [f"! ERROR: NeXus file 'run.nxs': {why}; what there is stays as 'run.nxs.part'"]
    with h5py.File(server.cwd / "run.nxs.part"):
        assert os.listdir(server.cwd) == ["run.nxs.part"]


def test_a_helper_that_is_killed_harms_nobody(server, client, play):
    follow(client, play)
    os.kill(wait_until(lambda: helper_of(server), "helper"), signal.SIGKILL)
    assert said(client) == [
        "! ERROR: cannot write NeXus file 'run.nxs': kestrel-nexus was ended by a signal: Killed"]
    assert os.listdir(server.cwd) == []
    wait_until(lambda: do(client, "pulsar3 check-progress 0 once") == FRAMES, "end of the run")
    assert do(client, "file write-nexus 'run.nxs' 0 1") == 0


def test_a_server_that_is_killed_leaves_the_frames_so_far(start, play):
    server = start()
    client = server.client()
    follow(client, play)
    wait_until(lambda: do(client, "pulsar3 check-progress 0 once") >= 3, "three frames")
    helper = helper_of(server)
    wait_until(lambda: (server.cwd / "run.nxs.part").stat().st_size > 30000, "frames in the file")
    server.process.kill()
    server.process.wait()
    server.process.returncode = 0  # as it was meant
    wait_until(lambda: has_ended(helper), "end of the helper")
    assert os.listdir(server.cwd) == ["run.nxs.part"]
    with h5py.File(server.cwd / "run.nxs.part") as file:
        counts = file["entry/card0/counts"]
        assert 2 <= len(counts) < FRAMES and (counts[1, 0] == sent(0, 0, 1)).all()


def test_an_orderly_end_of_the_server_leaves_the_frames_so_far(start, play):
    server = start()
    follow(server.client(), play)
    server.close()
    with h5py.File(server.cwd / "run.nxs.part") as file:
        assert "entry/card0/counts" in file


def test_a_session_that_ends_takes_its_file_along(server, client, play):
    follow(client, play)
    client.close()
    other = server.client()
    wait_until(lambda: other.lines("sleep 0.01") and helper_of(server) is None, "end of the helper")
    wait_until(lambda: other.lines("sleep 0.01") and "a handle was closed" in server.stdout, "line on standard output")
    assert os.listdir(server.cwd) == ["run.nxs.part"]
