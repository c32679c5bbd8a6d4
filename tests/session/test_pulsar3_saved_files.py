"""The files of saved settings that are not as they should be: each is told before a register is written."""
import os
import struct

import pytest
from kestrel_data import do, result
from saved_cards import (RECORD, configure, difference_lines, failed, folder, no_modules_left, play,  # noqa: F401
                         saved, writes_of)

FILES = ["chan0_region0.dat", "chan0_region1.dat", "chan0_region6.dat", "card0_global.dat", "card0_term_flags.dat",
         "dtc_parameters2.dat", "chan0_gain.dat", "chan0_offset.dat", "card0_scope_cpu_set.dat",
         "chan0_hist_cpu_set.dat", "sync_mode.dat"]


def spoil(path, how):
    data = path.read_bytes()
    path.unlink()
    if how == "short":
        path.write_bytes(data[:-1])
    elif how == "empty":
        path.write_bytes(b"")
    elif how == "long":
        path.write_bytes(data + b"\0")
    elif how == "directory":
        path.mkdir()
    elif how == "pipe":
        os.mkfifo(path)


@pytest.mark.parametrize("how", ["missing", "short", "empty", "long", "directory", "pipe"])
def test_a_file_that_cannot_be_right_is_told_before_anything_is_written(client, saved, folder, how):
    text = "Error reading" if how in ("short", "empty", "long") else "Cannot open"
    for name in FILES + ["card0_clocks.dat", "chan0_region7.dat"]:
        path = folder / name
        good = path.read_bytes()
        spoil(path, how)
        if how not in ("missing", "empty") or "region7" not in name:
            if name != "card0_clocks.dat" or how != "missing":
                line = failed(client, f"pulsar3 restore-settings 0 '{folder}' clock")
                assert line == f"! ERROR plr3_restore_settings: {text} input file {path}", name
                check = failed(client, f"pulsar3 check-settings 0 '{folder}' clock")
                assert check == f"! ERROR plr3_check_settings: {text} input file {path}"
        if path.is_dir():
            path.rmdir()
        else:
            path.unlink(missing_ok=True)
        path.write_bytes(good)
    assert writes_of(saved) == []
    do(client, f"pulsar3 restore-settings 0 '{folder}'")
    assert writes_of(saved) != []


def test_files_are_taken_in_their_order(client, play, folder):
    sim = play("-chans=2", "-kind=3v7", "-cards=2")
    configure(client, sim, 2)
    do(client, f"pulsar3 save-settings 0 '{folder}'")
    order = ["chan0_region0", "chan0_region6", "chan1_region0", "chan3_region6", "card0_global", "card0_term_flags",
             "card1_global", "card1_term_flags", "dtc_parameters2", "chan0_gain", "chan0_offset", "chan3_gain",
             "chan3_offset", "card0_clocks", "card0_scope_cpu_set", "card1_clocks", "card1_scope_cpu_set",
             "chan0_hist_cpu_set", "chan3_hist_cpu_set", "sync_mode", "card0_revision"]
    for name in reversed(order):
        (folder / f"{name}.dat").write_bytes(b"")
        line = failed(client, f"pulsar3 restore-settings 0 '{folder}' clock")
        assert line == f"! ERROR plr3_restore_settings: Error reading input file {folder}/{name}.dat"
        (folder / f"{name}.dat").unlink()
        (folder / f"{name}.dat").mkdir()
        line = failed(client, f"pulsar3 save-settings 0 '{folder}'")
        assert line == f"! ERROR plr3_save_settings: Cannot open output file {folder}/{name}.dat"
    no_folder = folder / "settings.txt"
    line = failed(client, f"pulsar3 restore-settings 0 '{no_folder}'")
    assert line == f"! ERROR plr3_restore_settings: Cannot open input file {no_folder}/chan0_region0.dat"


def test_who_restores_is_told_what_is_missing(server, client, saved, folder):
    path = folder / "chan0_region7.dat"
    path.unlink()
    other = server.client()
    for command in ("restore", "check"):
        assert result(other, f"pulsar3 {command}-settings 0 '{folder}'") == (
            0, [f"# Making null roi as file '{path}' is missing"])
    assert client.lines("1+1") == ["* 2"]


def test_values_that_cannot_be_are_told_before_anything_is_written(client, saved, folder):
    for name, data in [
            ("dtc_parameters2.dat", struct.pack("<i4x8d", 4, *[0] * 8)),
            ("dtc_parameters2.dat", struct.pack("<i4x8d", 0, *[0] * 7, float("nan"))),
            ("sync_mode.dat", struct.pack("<i", 4)), ("sync_mode.dat", struct.pack("<i", -1)),
            ("card0_clocks.dat", struct.pack("<5i", 3, 0, 0, 0, 0)),
            ("card0_clocks.dat", struct.pack("<5i", 0, 0, 0, 0, 256)),
            ("chan0_region7.dat", struct.pack("<I", 65)),
            ("chan0_region7.dat", struct.pack("<3I", 1, 5, 4)),
            ("chan0_region7.dat", struct.pack("<3I", 1, 5, 4096))]:
        path = folder / name
        good = path.read_bytes()
        path.write_bytes(data + good[len(data):])
        line = failed(client, f"pulsar3 restore-settings 0 '{folder}' clock")
        assert line == f"! ERROR plr3_restore_settings: Error reading input file {path}"
        path.write_bytes(good)
    assert writes_of(saved) == []


def test_regions_of_interest_are_a_table_that_may_be_missing(client, saved, folder):
    path = folder / "chan0_region7.dat"
    path.write_bytes(struct.pack("<7I", 3, 10, 12, 12, 13, 4095, 4095).ljust(516, b"\1"))  # what lies behind does not count
    do(client, f"pulsar3 restore-settings 0 '{folder}'")
    words = {bin: saved.do(f"card get-register 0 0 7 {bin}") for bin in (9, 10, 12, 13, 14, 4094, 4095)}
    assert words == {9: 0, 10: 1, 12: 1, 13: 2, 14: 0, 4094: 0, 4095: 3}
    assert difference_lines(client, folder) == []
    do(client, f"pulsar3 save-settings 0 '{folder}'")
    assert path.read_bytes()[:28] == struct.pack("<7I", 3, 10, 12, 12, 13, 4095, 4095)
    for how, text in [("missing", "missing"), ("empty", "Zero length")]:
        spoil(path, how)
        _, lines = result(client, f"pulsar3 restore-settings 0 '{folder}'")
        assert f"# Making null roi as file '{path}' is {text}" in lines
        assert saved.do("card get-register 0 0 7 10") == 0
        path.write_bytes(b"\0" * 516)


def test_the_older_dead_times_are_read_where_there_are_no_newer(client, saved, folder):
    (folder / "dtc_parameters2.dat").unlink()
    old = folder / "dtc_parameters.dat"
    old.write_bytes(b"".join(struct.pack("<i4x4d", 2, 1, 2, 3, chan) for chan in range(16)))
    do(client, "pulsar3 dtc set-params 0 0 9 9 9 9 all-rate-c 9.0")
    do(client, f"pulsar3 restore-settings 0 '{folder}'")
    do(client, f"pulsar3 save-settings 0 '{folder}'")
    records = (folder / "dtc_parameters2.dat").read_bytes()
    assert struct.unpack_from("<i4x8d", records, 0) == (2, 1, 2, 3, 0, 0, 0, 0, 0)
    assert struct.unpack_from("<i4x8d", records, 15 * RECORD) == (2, 1, 2, 3, 15, 0, 0, 0, 0)
    (folder / "dtc_parameters2.dat").unlink()
    for size in (0, 639, 641):
        old.write_bytes(bytes(size))
        line = failed(client, f"pulsar3 restore-settings 0 '{folder}'")
        assert line == f"! ERROR plr3_restore_settings: Error reading input file {old}"


def test_another_major_revision_is_refused_unless_forced(client, saved, folder):
    path = folder / "card0_revision.dat"
    assert path.read_bytes() == struct.pack("<I", 0x10011)
    path.write_bytes(struct.pack("<I", 0x1101F))
    line = failed(client, f"pulsar3 restore-settings 0 '{folder}'")
    assert line == ("! ERROR plr3_restore_settings: card 0 has major revision 16, the settings are of 17")
    assert writes_of(saved) == []
    do(client, f"pulsar3 restore-settings 0 '{folder}' force")
    path.write_bytes(struct.pack("<I", 0x1001F))  # another minor one is none of our business
    do(client, f"pulsar3 restore-settings 0 '{folder}'")
    path.write_bytes(b"abc")
    for words in ("", "force"):  # what is no revision cannot be forced
        line = failed(client, f"pulsar3 restore-settings 0 '{folder}' {words}")
        assert line == f"! ERROR plr3_restore_settings: Error reading input file {path}"
    path.unlink()
    do(client, f"pulsar3 restore-settings 0 '{folder}'")
