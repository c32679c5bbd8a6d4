"""Saving a system's state and bringing it back: every word; full disks, cards that die, clocks, threads, dummies."""
import contextlib
import os
import struct
import time

import pytest
from kestrel_data import do, result
from kestrel_session import SCALE
from saved_cards import (INDEX, KINDS, RECORD, REGIONS, configure, difference_lines, failed, folder,  # noqa: F401
                         no_modules_left, play, saved, wires)


@pytest.mark.parametrize("words", ["", "clock"])
@pytest.mark.parametrize("kind", KINDS)
def test_a_restore_into_new_cards_and_a_new_server_brings_every_word_back(start, play, folder, kind, words):
    sim = play("-cards=3", "-chans=2", *kind.split())
    first = start()
    client = first.client()
    configure(client, sim, 3)
    do(client, "pulsar3 dtc set-params 0 -1 1 2 3 4 all-rate-c 5.0 win-rate-m 6.0")
    do(client, "pulsar3 dtc set-params 0 3 1e-9 2e-7 3 4 use-good-event")
    do(client, "pulsar3 set-sync-mode 0 2")
    with wires(sim, kind, 3, 2) as all_cards:
        for number, card in enumerate(all_cards):
            card.fill(number)
        do(client, f"pulsar3 save-settings 0 '{folder}'")
        assert difference_lines(client, folder) == []
        before = [card.state() for card in all_cards]
        listed = client.lines("pulsar3 dtc list 0")
    first.close()
    for card in range(3):
        sim.do(f"control die {card}")
        sim.do(f"control live {card}")
    client = start().client()
    configure(client, sim, 3)
    assert len(difference_lines(client, folder)) > 1000
    began = time.monotonic()
    do(client, f"pulsar3 restore-settings 0 '{folder}' {words}")
    assert time.monotonic() - began < 10 * SCALE
    with wires(sim, kind, 3, 2) as all_cards:
        after = [card.state() for card in all_cards]
    for old, new in zip(before, after):
        for name in old:
            assert old[name] == new[name], name
    assert difference_lines(client, folder, words) == []
    assert client.lines("pulsar3 dtc list 0") == listed


def test_a_new_server_saves_the_mode_that_the_cards_have(start, play, folder):
    sim = play("-cards=2", "-chans=2", "-kind=4")
    for line in ("set-sync-mode 0 2", f"save-settings 0 '{folder}'"):
        server = start()
        client = server.client()
        configure(client, sim, 2)
        do(client, "pulsar3 " + line)
        server.close()
    assert (folder / "sync_mode.dat").read_bytes() == struct.pack("<i", 2)


def test_the_files_are_those_of_the_manual_and_the_same_twice(client, play, folder, tmp_path):
    sim = play("-cards=2", "-chans=2", "-kind=3")
    configure(client, sim, 2)
    do(client, "pulsar3 dtc set-params 0 2 0.5 2 3 4 omit-chan all-rate-m 7.0")
    do(client, f"pulsar3 save-settings 0 '{folder}'")
    sizes = {"dtc_parameters2.dat": 2 * 16 * RECORD, "sync_mode.dat": 4}
    for card in range(2):
        sizes |= {f"card{card}_{name}.dat": size for name, size in
                  [("global", 60), ("term_flags", 8), ("clocks", 20), ("scope_cpu_set", 128), ("revision", 4)]}
    for chan in range(4):
        sizes |= {f"chan{chan}_region{region}.dat": 4 * count for region, count in {0: 64, **REGIONS}.items()}
        sizes |= {f"chan{chan}_{name}.dat": size for name, size in
                  [("region7", 516), ("gain", 2), ("offset", 2), ("hist_cpu_set", 128)]}
    assert {path.name: path.stat().st_size for path in folder.glob("*.dat")} == sizes
    records = (folder / "dtc_parameters2.dat").read_bytes()
    assert struct.unpack_from("<i4x8d", records, 16 * RECORD) == (1, 0.5, 2, 4, 3, 7, 0, 0, 0)
    assert (folder / "settings.txt").read_text() == (
        "kestrel 1.0\ncards 2\nchannels 4\n"
        "card 0: revision 0x00010001, version 16.1, 2 channels\ncard 1: revision 0x00010001, version 16.1, 2 channels\n")
    again = tmp_path / "again"
    again.mkdir()
    do(client, f"pulsar3 save-settings 0 '{again}'")
    assert {p.name: p.read_bytes() for p in folder.iterdir()} == {p.name: p.read_bytes() for p in again.iterdir()}


def test_a_restore_starts_no_run_and_keeps_the_number_of_time_frames(client, saved, folder):
    path = folder / "card0_global.dat"
    words = list(struct.unpack("<32I", path.read_bytes()))
    words[2], words[9] = 0xB0000003, 77
    path.write_bytes(struct.pack("<32I", *words))
    do(client, f"pulsar3 restore-settings 0 '{folder}'")
    assert saved.do("card get-global 0 2") == 3
    assert saved.do("card get-global 0 9") == 4
    assert difference_lines(client, folder) == []
    do(client, "pulsar3 set-timing 0 -1 0")
    do(client, "pulsar3 hist start 0")
    line = failed(client, f"pulsar3 restore-settings 0 '{folder}'")
    assert line == "! ERROR plr3_restore_settings: path 0 is counting"
    do(client, "pulsar3 hist stop 0")


def test_a_restored_format_has_its_modules(client, saved, folder):
    do(client, "pulsar3 format-run 0 -1 nbits-eng 10")
    do(client, f"pulsar3 save-settings 0 '{folder}'")
    do(client, "pulsar3 format-run 0 -1 nbits-eng 12")
    do(client, f"pulsar3 restore-settings 0 '{folder}'")
    handle = do(client, "pulsar3 open-mca 0")
    assert do(client, f"unif-get-nx {handle}") == 1024


SOURCES = {"adc": 0, "alt": 1, "mux": 2, "pb0": 3, "pb1": 4, "pb-chan": 5, "PB-CHAN": 5, "grst": 6, "GRST": 6}


@pytest.mark.parametrize("value", [*SOURCES, "pb2", ""])
def test_the_environment_chooses_where_samples_come_from(start, play, folder, value):
    sim = play("-chans=2", "-kind=3v7")
    client = start(env={"PLR3PLAYBACK": value}).client()
    configure(client, sim)
    do(client, "pulsar3 dma write-chan-reg 0 -1 0 2 $123F")
    do(client, f"pulsar3 save-settings 0 '{folder}'")
    do(client, "pulsar3 dma write-chan-reg 0 -1 0 2 0")
    _, lines = result(client, f"pulsar3 restore-settings 0 '{folder}'")
    known = value in SOURCES
    told = ("# plr3_restore_settings: Overriding channel control register on basis of environment variable "
            f"PLR3PLAYBACK={value}" if known else
            f"# Cannot understand setting '{value}'. Please choose one of adc, alt, mux, pb0, pb1, pb-chan, grst.")
    assert lines[:1] == [told]
    for chan in range(2):
        assert sim.do(f"card get-register 0 {chan} 0 2") == (0x1238 | SOURCES[value] if known else 0x123F)


def test_a_save_that_cannot_write_leaves_nothing_half_done(client, saved, folder, tmp_path, small_disk):
    nowhere = tmp_path / "nowhere"
    line = failed(client, f"pulsar3 save-settings 0 '{nowhere}'")
    assert line == f"! ERROR plr3_save_settings: Cannot open output file {nowhere}/chan0_region0.dat"
    # A place that cannot be taken: the files before it stay, the old ones behind it as well.
    taken = folder / "card0_global.dat"
    old = (folder / "dtc_parameters2.dat").read_bytes()
    taken.unlink()
    taken.mkdir()
    do(client, "pulsar3 dtc set-params 0 0 9 9 9 9")
    do(client, "pulsar3 dma write-chan-reg 0 0 1 5 77")
    line = failed(client, f"pulsar3 save-settings 0 '{folder}'")
    assert line == f"! ERROR plr3_save_settings: Cannot open output file {taken}"
    assert struct.unpack_from("<I", (folder / "chan0_region1.dat").read_bytes(), 20) == (77,)
    assert (folder / "dtc_parameters2.dat").read_bytes() == old
    assert not list(folder.glob("*.new"))
    # Pipes and devices are not replaced by files.
    pipe = folder / "chan0_region2.dat"
    pipe.unlink()
    os.mkfifo(pipe)
    line = failed(client, f"pulsar3 save-settings 0 '{folder}'")
    assert line == f"! ERROR plr3_save_settings: Cannot open output file {pipe}"
    assert pipe.is_fifo() and not list(folder.glob("*.new"))
    # A disk that is full: of one file it is the old one or the new one that stands there.
    (small_disk / "chan0_region6.dat").write_bytes(b"old" * 100)
    with contextlib.suppress(OSError), open(small_disk / "ballast", "wb") as ballast:
        ballast.write(bytes(240 * 1024))
    line = failed(client, f"pulsar3 save-settings 0 '{small_disk}'")
    written = [path for path in small_disk.iterdir() if path.name.startswith("chan0_region")]
    assert line.startswith(f"! ERROR plr3_save_settings: Error writing output file {small_disk}/chan0_region")
    for path in written:
        region = int(path.stem[-1])
        if path.read_bytes() != b"old" * 100:
            assert path.stat().st_size == 4 * {0: 64, **REGIONS}[region]
    assert not list(small_disk.glob("*.new"))


def test_a_card_that_dies_ends_a_save_and_a_restore_with_a_line(client, saved, folder):
    for after in (1, 5, 8, 9):
        saved.do(f"control fault 0 close after {after}")
        line = failed(client, f"pulsar3 save-settings 0 '{folder}'", status=-4)
        assert line.startswith("! ERROR plr3_save_settings: "), line
        do(client, "pulsar3 dma get-revision 0")
        result(client, "pulsar3 dma read-chan-reg 0 0 0 0")
        assert all(path.stat().st_size > 0 for path in folder.iterdir())
    do(client, f"pulsar3 save-settings 0 '{folder}'")
    for after in (1, 5, 9, 12):
        saved.do(f"control fault 0 close after {after}")
        line = failed(client, f"pulsar3 restore-settings 0 '{folder}'", status=-4)
        assert line.startswith("! ERROR plr3_restore_settings: "), line
    do(client, f"pulsar3 restore-settings 0 '{folder}'")
    saved.do("control die 0")
    value, lines = result(client, f"pulsar3 restore-settings 0 '{folder}'")
    assert value < 0 and len([text for text in lines if text.startswith("!")]) == 1
    saved.do("control live 0")
    for _ in range(2):  # the first access may find the dead connection
        value, _ = result(client, f"pulsar3 restore-settings 0 '{folder}'")
    assert value == 0
    assert difference_lines(client, folder) == []


def slow(sim, seconds=0.05):
    """Every answer of the card comes late."""
    sim.do(f"control fault 0 stall times -1 argument {int(1000 * seconds)}")


@pytest.mark.parametrize("command", ["save", "restore", "check"])
def test_an_interrupt_ends_it_with_a_line(server, client, saved, folder, command):
    before = {path.name: path.read_bytes() for path in folder.iterdir()}
    slow(saved)
    client.send(f"pulsar3 {command}-settings 0 '{folder}'\n")
    server.wait_until_busy()
    server.interrupt()
    assert client.recv_prompt() == f"! ERROR plr3_{command}_settings: interrupted\r\n* -1\r\n".encode()
    assert {path.name: path.read_bytes() for path in folder.iterdir()} == before
    saved.do("control no-faults")
    do(client, f"pulsar3 restore-settings 0 '{folder}'")
    assert difference_lines(client, folder) == []


@pytest.mark.parametrize("command", ["save", "restore", "check"])
def test_a_card_that_falls_silent_ends_it_after_its_time(client, saved, folder, command):
    before = {path.name: path.read_bytes() for path in folder.iterdir()}
    saved.do("control fault 0 drop after 6 times -1")
    began = time.monotonic()
    line = failed(client, f"pulsar3 {command}-settings 0 '{folder}'", status=-4)
    assert 4.5 < time.monotonic() - began < max(9.9, 8 * SCALE)
    assert line.startswith(f"! ERROR plr3_{command}_settings: ") and line.endswith("returns -4"), line
    assert {path.name: path.read_bytes() for path in folder.iterdir()} == before
    saved.do("control no-faults")
    do(client, f"pulsar3 restore-settings 0 '{folder}'")
    assert difference_lines(client, folder) == []


def test_a_check_lists_each_word_that_differs(client, saved, folder):
    do(client, "pulsar3 dma write-chan-reg 0 0 4 17 5")
    do(client, "pulsar3 dma write-chan-reg 0 0 4 18 6")
    do(client, "pulsar3 dma write-glob-reg 0 0 3 $ABC")
    do(client, "pulsar3 dtc set-params 0 0 0 0.25 0 0 omit-chan")
    do(client, "pulsar3 adc-board set-gain 0 0 3 4")
    do(client, "pulsar3 set-sync-mode 0 1")
    assert difference_lines(client, folder) == [
        "# chan0_region4.dat word 17 is 0x5, saved 0x0", "# chan0_region4.dat word 18 is 0x6, saved 0x0",
        "# card0_global.dat word 0 is 0x1000, saved 0x0", "# card0_global.dat word 3 is 0xABC, saved 0x0",
        "# dtc_parameters2.dat word 0 is 1, saved 0", "# dtc_parameters2.dat word 2 is 0.25, saved 0",
        "# chan0_gain.dat word 0 is 0x43, saved 0x0", "# sync_mode.dat word 0 is 0x1, saved 0x0"]


def test_clocks_come_back_when_they_are_asked_for(client, saved, folder):
    saved.do("card poke 0 8 7 spi")  # something at the external input
    do(client, "pulsar3 dma setup-adc-mmcm 0 0 17 99")
    do(client, "pulsar3 setup-clocks 0 -1 external test-pulse 2 drive")
    do(client, f"pulsar3 save-settings 0 '{folder}'")
    assert struct.unpack("<5i", (folder / "card0_clocks.dat").read_bytes()) == (1, 2, 2, 17, 99)
    do(client, "pulsar3 dma setup-adc-mmcm 0 0 0 0")
    do(client, "pulsar3 setup-clocks 0")
    assert difference_lines(client, folder) == ["# card0_global.dat word 0 is 0x0, saved 0x21"]
    assert len(difference_lines(client, folder, "clock")) == 6
    do(client, f"pulsar3 restore-settings 0 '{folder}' clock")
    assert difference_lines(client, folder, "clock") == []
    assert saved.do("card peek 0 1 spi") == 0x121
    assert result(client, "pulsar3 dma read-adc-clk 0 0") == (
        1, ["# Card 0: locked, ADC clock delay 17, FPGA clock delay 99"])
    saved.do("card poke 0 8 5 spi")
    line = failed(client, f"pulsar3 restore-settings 0 '{folder}' clock")
    assert line == ("! ERROR plr3_restore_settings_and_clock: Cannot setup clocks : plr3_clocks_setup_int: the clock of "
                    "card 0 does not lock")
    path = folder / "card0_clocks.dat"
    path.unlink()
    _, lines = result(client, f"pulsar3 restore-settings 0 '{folder}' clock")
    assert lines[:1] == [f"# File {path} is missing, falling back to default clock setup for PULSAR3"]
    assert saved.do("card peek 0 1 spi") == 0


def test_threads_get_their_processors_back(client, saved, folder):
    path = folder / "chan0_hist_cpu_set.dat"
    path.write_bytes((1).to_bytes(128, "little"))
    do(client, f"pulsar3 restore-settings 0 '{folder}'")
    do(client, f"pulsar3 save-settings 0 '{folder}'")
    assert path.read_bytes() == (1).to_bytes(128, "little")
    path.write_bytes((1 << 1023).to_bytes(128, "little"))  # no machine has that one
    line = failed(client, f"pulsar3 restore-settings 0 '{folder}'")
    assert line.startswith("! ERROR plr3_restore_settings: Error setting hists thread affinity ")
    path.write_bytes(bytes(128))
    do(client, f"pulsar3 restore-settings 0 '{folder}'")


@pytest.mark.parametrize("kind", ["dummy3", "dummy3m", "dummy4"])
def test_a_dummy_is_saved_and_restored_as_well(client, folder, kind):
    assert do(client, f"pulsar3 config 2 2 {INDEX} {kind}") == 0
    for line in ("dma write-chan-reg 0 1 3 7 99", "dma write-glob-reg 0 1 3 5", "adc-board set-gain 0 -1 1 2",
                 "adc-board set-offset 0 1 1234", "adc-board set-term 0 1 5 6"):
        do(client, "pulsar3 " + line)
    do(client, f"pulsar3 save-settings 0 '{folder}'")
    do(client, "pulsar3 dma write-chan-reg 0 -1 3 7 0")
    do(client, "pulsar3 adc-board set-gain 0 -1 0 0")
    do(client, "pulsar3 adc-board set-term 0 -1 0 0")
    do(client, f"pulsar3 restore-settings 0 '{folder}' clock")
    assert difference_lines(client, folder, "clock") == []
    assert do(client, "pulsar3 dma read-chan-reg 0 1 3 7") == 99
    assert do(client, "pulsar3 adc-board get-gain 0 1") == 33
    assert do(client, "pulsar3 adc-board get-offset 0 1") == 1234
    assert client.lines("pulsar3 adc-board get-term 0 1")[0].endswith("inputs 0x5, of outputs 0x6")


def test_what_is_not_open_is_neither_saved_nor_restored(client, folder):
    for command in ("save-settings", "restore-settings", "check-settings"):
        function = command.replace("-", "_")
        assert failed(client, f"pulsar3 {command} 3 '{folder}'", -2) == f"! ERROR plr3_{function}: invalid path 3"


def test_sixteen_channels_a_card_are_restored_in_time(start, play, folder):
    sim = play("-cards=3", "-kind=4")
    client = start().client()
    configure(client, sim, 3)
    do(client, "pulsar3 dma write-chan-reg 0 -1 1 5 77")
    do(client, f"pulsar3 save-settings 0 '{folder}'")
    began = time.monotonic()
    do(client, f"pulsar3 restore-settings 0 '{folder}' clock")
    assert time.monotonic() - began < 10 * SCALE
