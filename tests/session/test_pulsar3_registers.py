"""Commands that set registers: every field of the table at its limits, as the card holds it; tables of block memories."""
import collections
import os
import pathlib
import struct
import sys

import pytest
from ftp_server import ftp  # noqa: F401 (a fixture)
from kestrel_data import Module, do, result
from test_pulsar3_cards import play  # noqa: F401 (a fixture)
from test_pulsar3_dummy import fails, no_modules_left  # noqa: F401 (a fixture)

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "sim"))
import cards

Field = collections.namedtuple("Field", "scope reg offset field first last low high command form generations help")
OWN_HANDLER = {"setup-clocks", "set-window", "format-run", "set-timing", "start", "config", "set-sync-mode", "load-event-lead",
               "load-event-tail"}
PATTERN = 0x5A5A5A5A
BRAM = {"event-lead": (1, 1024), "event-tail": (2, 1024), "xtk-shape": (3, 512), "xtk-map": (4, 256),
        "width-time": (5, 256), "servo-tail": (6, 1024), "roi": (7, 4096)}


def table(client):
    rows = []
    for line in client.lines("pulsar3 dma list-fields")[:-1]:
        parts = line.removeprefix("# ").split("\t")
        rows.append(Field(*[int(p) if p.lstrip("-").isdigit() else p for p in parts]))
    return rows


def bits(field):
    return (1 << field.last + 1) - (1 << field.first)


def place(field, value):
    return value << field.first & bits(field)


class Words:
    """A card's registers, over a control connection of the test's own."""

    def __init__(self, sim, kind):
        self.link = cards.Link2(sim.control())
        self.local = kind == "4"

    def address(self, field):
        if field.scope == "channel":
            return self.link.REGISTERS, cards.register(self.link, 1, 0, field.offset)
        if not self.local:
            return self.link.REGISTERS, cards.global_register(self.link, field.offset)
        return 0, 4 * {0: 0x100000, 10: 13}.get(field.offset, field.offset)

    def get(self, field):
        return self.link.read(*self.address(field), 1)[0]

    def put(self, field, word):
        self.link.write(*self.address(field), [word])


@pytest.mark.parametrize("kind,generation", [("3", 1), ("3v7", 2), ("3mini", 4), ("4", 8)])
def test_every_field_reaches_its_bits_and_no_others(client, play, kind, generation):
    sim = play("-chans=2", f"-kind={kind}", "-generation=2")
    do(client, f"pulsar3 config 1 2 0 baseIP '{sim.net}1'")
    rows = table(client)
    commands = collections.defaultdict(list)
    for row in rows:
        if row.command not in OWN_HANDLER:
            commands[row.command].append(row)
    users = collections.defaultdict(set)
    for row in rows:
        users[row.scope, row.offset].add(row.command)
    words = Words(sim, kind)
    for command, fields in commands.items():
        numbers = [f for f in fields if f.form == "number"]
        switches = [f for f in fields if f.form == "keyword"]
        unit = 1 if fields[0].scope == "channel" else 0

        def line(values, on=()):
            return " ".join([f"pulsar3 {command} 0 {unit}", *(str(values[f.field]) for f in numbers), *on])

        middle = {f.field: (f.low + f.high) // 2 for f in numbers}
        if not generation & fields[0].generations:
            assert "cards of this generation have no" in fails(client, line(middle), -2)[0]
            continue

        def check(values, on=()):
            for f in fields:
                words.put(f, PATTERN)
            assert result(client, line(values, on)) == (0, []), command
            for offset in {f.offset for f in fields}:
                mine = [f for f in fields if f.offset == offset]
                shared = users[mine[0].scope, offset] != {command}
                expected = PATTERN & ~sum(map(bits, mine)) if shared else 0
                for f in mine:
                    expected |= place(f, values[f.field] if f.form == "number" else int(f.field in on))
                assert words.get(mine[0]) == expected, (command, mine[0].reg, values, on)

        for f in numbers:
            check({**middle, f.field: f.low})
            check({**middle, f.field: f.high})
            before = [words.get(g) for g in fields]
            for value in (f.low - 1, f.high + 1):
                [text] = fails(client, line({**middle, f.field: value}), -6)
                assert text.endswith(f"{f.reg} {f.field}={value} is out of range {f.low}..{f.high}"), text
            assert [words.get(g) for g in fields] == before
        for f in switches:
            check(middle, (f.field,))
        check(middle, tuple(f.field for f in reversed(switches)))


def test_all_channels_and_cards_at_once_and_one_transfer_for_neighbouring_words(client, play):
    sim = play("-cards=2", "-chans=2", "-kind=3", "-generation=2")
    do(client, f"pulsar3 config 2 2 0 baseIP '{sim.net}1'")
    highest = 2**31 - 1
    do(client, f"pulsar3 set-timing 0 -1 3 fixed-time {highest} frames 0")
    for words, text in (("-1 fixed-time 1", "timing-a source=-1 is out of range 0..3"),
                        ("4", "timing-a source=4 is out of range 0..3"),
                        ("0 fixed-time -1", f"fixed-time ticks=-1 is out of range 0..{highest}"),
                        ("0 frames -1", f"internal-frames frames=-1 is out of range 0..{highest}")):
        assert fails(client, f"pulsar3 set-timing 0 -1 {words}", -6) == [f"! ERROR plr3_set_timing: {text}"]
    do(client, "pulsar3 setup-timing 0 internal time 30.0")
    _, lines = result(client, "pulsar3 dma print-regs 0 1 card")
    assert [line for line in lines if line[1:5] in ("   2", "   3", "   8")] == [
        "#   2 0x00000003 timing-a: source 3, hist-run 0, count-enable 0, scaler-run 0",
        "#   3 0x8F0D1800 fixed-time: ticks 2400000000", "#   8 0x00000000 internal-frames: frames 0"]
    assert "#  48 0x00000001 sub-frames: number 1" in result(client, "pulsar3 dma print-regs 0 0")[1]
    before = [sim.do(f"card count {card} transactions") for card in range(2)]
    do(client, "pulsar3 set-servo 0 -1 1 2 -3 4 5")
    assert [sim.do(f"card count {card} transactions") for card in range(2)] == [n + 2 for n in before]
    do(client, "pulsar3 set-diff-baseline 0 -1 3 5 -1")
    do(client, "pulsar3 enable-diff-baseline 0 -1 1")
    do(client, "pulsar3 set-reset-det 0 -1 9 8 7 rising")
    do(client, "pulsar3 set-mwd-multiplier 0 3 6")
    do(client, "pulsar3 set-user-tsync 0 -1 5")
    do(client, "pulsar3 set-sync-mode 0 2")
    for card in range(2):
        assert sim.do(f"card get-global {card} 0") == 5 << 9 | 2 << 12
        for chan in range(2):
            read = [sim.do(f"card get-register {card} {chan} 0 {offset}") for offset in (17, 18, 19, 4, 5, 6)]
            assert read == [1 | 2 << 16, 4 << 16 | 0xFFFD, 5, 9 | 1 << 14 | (6 << 16 if (card, chan) == (1, 1) else 0),
                            8 | 3 << 8 | 5 << 12 | 0xFFF << 16 | 1 << 28, 7]
    _, lines = result(client, "pulsar3 dma print-regs 0 3")
    assert "#   4 0x00064009 reset-det-a: threshold 9, rising 1, mwd-multiplier 6" in lines
    assert "#   5 0x1FFF5308 reset-det-b: before 8, fast-shift 3, slow-shift 5, offset -1, enable-diff 1, " \
        "enable-magic 0" in lines
    _, lines = result(client, "pulsar3 dma print-regs 0 1 card")
    assert "#   0 0x00002A00 clock-control: source 0, test-pulse 0, tsync 5, sync 2" in lines
    for line, words in (("set-trigger-regs-b 0 1 $f1 2 3 4 -5", {10: 0xf1, 11: 2, 12: 3, 21: 4, 22: 0xFFFFFFFB}),
                        ("set-trigger-regs-c 0 1 6 7", {13: 6, 14: 7}), ("set-glitch-reg 0 1 8 9", {7: 8, 8: 9}),
                        ("set-reset-reg 0 1 1 2 3", {4: 1, 5: 2, 6: 3}), ("set-servo-regs 0 1 3 2 1",
                                                                         {17: 3, 18: 2, 19: 1})):
        do(client, f"pulsar3 dma {line}")
        assert {offset: sim.do(f"card get-register 0 1 0 {offset}") & 0xFFFFFFFF for offset in words} == words
    do(client, "pulsar3 set-debug 0 1")
    assert "# plr3_set_scaling: channel 1 offset 27 = 0xFFFF8000 scaling: multiplier 32768, offset -1" in \
        client.lines("pulsar3 set-scaling 0 1 32768 -1")


def test_a_dead_card_is_told_and_bad_places_are_refused(client, play):
    sim = play("-chans=2", "-kind=3mini")
    do(client, f"pulsar3 config 1 2 0 baseIP '{sim.net}1'")
    for line, status, text in (
            ("set-servo 1 0 1 2 3 4 5", -2, "plr3_set_servo: invalid path 1"),
            ("set-servo -1 0 1 2 3 4 5", -2, "plr3_set_servo: invalid path -1"),
            ("set-servo 0 2 1 2 3 4 5", -1, "plr3_write_reg: illegal channel specified (2)"),
            ("set-glitch 0 -2 1 2 3 4", -1, "plr3_read_reg: illegal channel specified (-2)"),
            ("set-c2c 0 1 5", -3, "plr3_write_glob_reg: illegal card specified (1)"),
            ("set-sync-mode 0 4", -6, "plr3_set_sync_mode: clock-control sync=4 is out of range 0..3")):
        assert fails(client, f"pulsar3 {line}", status) == [f"! ERROR {text}"]
    sim.close()
    for line in ("set-glitch 0 -1 1 2 3 4", "set-user-tsync 0 -1 1", "load-xtk-map 0 0 zero", "dma print-regs 0 0"):
        value, lines = result(client, f"pulsar3 {line}")
        assert value < 0 and lines[-1].startswith("! ERROR plr3_"), (line, lines)


def test_a_dead_card_among_others_is_told_to_who_gave_the_command(server, client, play):
    sim = play("-cards=3", "-chans=2", "-kind=3v7", "-generation=2")
    do(client, f"pulsar3 config 3 2 0 baseIP '{sim.net}1'")
    other = server.client()
    sim.do("control die 0")
    for line, of in (("set-window 0 -1 0 1 2", "card 0"), ("load-xtk-map 0 -1 zero", "card 0"),
                     ("set-good-thres 0 -1 9", "card 0"), ("set-adc-mux 0 -1 0 1 2 3", "card 0"),
                     ("set-user-tsync 0 -1 3", "card 0"), ("set-mwd-multiplier 0 -1 5", "channel 0,channel 1"),
                     ("set-glitch 0 -1 0 1 2 3", "channel 0,channel 1"), ("dma write-glob-reg 0 -1 14 5", "card 0"),
                     ("dma set-trigger-regs-c 0 -1 1 2", "card 0"), ("dma write-chan-reg 0 -1 3 2 1", "card 0")):
        value, lines = result(other, f"pulsar3 {line}")
        assert value == 0 and [text.split(" for ")[-1] for text in lines] == of.split(","), (line, lines)
        assert all(text.startswith("# plr3_") and " returns -" in text for text in lines), lines
    assert client.lines("1+1") == ["* 2"]
    assert sim.do("card get-register 2 1 0 26") == 9 and sim.do("card get-global 2 14") == 5


def test_block_memories_take_tables_from_wherever_they_are(client, play, tmp_path, names, ftp):
    sim = play("-chans=2", "-kind=3", "-generation=2")
    do(client, f"pulsar3 config 1 2 0 baseIP '{sim.net}1'")
    link = cards.Link2(sim.control())

    def memory(name, chan=0):
        region, size = BRAM[name]
        return link.read(link.REGISTERS, cards.register(link, chan, region, 0), size)

    def load(name, *words):
        assert result(client, f"pulsar3 load-{name} 0 " + " ".join(words)) == (0, [])

    text = tmp_path / "table.txt"
    text.write_text("a title\nTABLE 2 of 3\n1 2,\t-3 # a comment\n\n0xfFffFff0 4294967295 -2147483648")
    binary = tmp_path / "table.bin"
    for name, (region, size) in BRAM.items():
        if name == "roi":
            continue
        load(name, "-1", f"from-local-file '{text}' header 'TABLE'")
        expected = [1, 2, 0xFFFFFFFD, 0xFFFFFFF0, 0xFFFFFFFF, 0x80000000] + [0] * (size - 6)
        assert memory(name, 0) == memory(name, 1) == expected
        full = [(k * 2654435761) & 0xFFFFFFFF for k in range(size)]
        binary.write_bytes(struct.pack(f">{size}I", *full))
        load(name, f"1 from-local-file '{binary}' binary swap")
        assert memory(name, 0) == expected and memory(name, 1) == full
        binary.write_bytes(struct.pack(f"<{size + 1}I", *full, 1))
        [line] = fails(client, f"pulsar3 load-{name} 0 0 from-local-file '{binary}' binary", -6)
        assert line == f"! ERROR plr3_load_memory: {size + 1} words do not fit into the {size} of {name}"
        assert memory(name, 0) == expected
        binary.write_bytes(b"")  # a table of no words
        load(name, f"0 from-local-file '{binary}' binary")
        assert memory(name, 0) == [0] * size
        load(name, "1 zero")
        assert memory(name, 1) == [0] * size
    name = names("table")
    do(client, f"module create '{name}' 4 3 header double")
    Module(name).data[:] = [[1, 2, 3, 4], [5, 6, 7, 8], [9, 2**32 - 1, -1, -2**31]]
    load("xtk-map", f"0 from-module '{name}'")
    assert memory("xtk-map")[:13] == [*range(1, 10), 2**32 - 1, 2**32 - 1, 2**31, 0]
    Module(name).data[1, 1] = 0.5
    assert fails(client, f"pulsar3 load-xtk-map 0 0 from-module '{name}'") == [
        f"! ERROR: Cannot use table '{name}': it holds what is no 32-bit number"]
    address, folder = ftp()
    (folder / "map").write_text("5 4 3")
    load("xtk-map", f"0 from-remote-file 'map' on '{address}' user 'probe' password 's3cret word'")
    assert memory("xtk-map")[:4] == [5, 4, 3, 0]
    assert fails(client, f"pulsar3 load-xtk-map 0 0 from-remote-file 'map' on '{address}' user 'probe' password 'x'") == [
        f"! ERROR: Cannot fetch table 'map' from '{address}', user 'probe': login refused"]
    load("event-lead", "0 by-width zero")
    assert link.read(link.REGISTERS, cards.register(link, 0, 0, 56), 1) == [1 << 8]
    load("event-tail", "0 by-width zero")
    load("event-lead", "0 zero")
    assert link.read(link.REGISTERS, cards.register(link, 0, 0, 56), 1) == [1 << 9]
    do(client, "pulsar3 init-event-tail 0 1 100.0")
    tail = memory("event-tail", 1)
    assert (tail[0], tail[100], tail[1023]) == (65535, 24109, 2)
    do(client, "pulsar3 dma init-xtk-map 0 -1")
    assert memory("xtk-map", 0)[:3] == [0, 1, 0] and memory("xtk-map", 1)[:3] == [1, 0, 0]
    do(client, "pulsar3 init-brams 0 -1")
    assert not any(memory("event-tail", 1)) and not any(memory("xtk-map", 0))

    # Regions of interest: the first that has a bin counts; the table goes with the memories.
    do(client, "pulsar3 set-roi 0 -1 100 200")
    do(client, "pulsar3 set-roi 0 1 150 300 add")
    assert memory("roi", 0) == [0] * 100 + [1] * 101 + [0] * 3895
    assert memory("roi", 1) == [0] * 100 + [1] * 101 + [2] * 100 + [0] * 3795
    assert result(client, "pulsar3 set-roi 0 1 list") == (2, ["# Region 1: bins 100 to 200", "# Region 2: bins 150 to 300"])
    for line, status in (("1 5 4", -6), ("1 0 4096", -6), ("1 -1 4", -6), ("2 0 4", -6), ("2 0 4 add", -6), ("1 5", -1)):
        assert len(fails(client, f"pulsar3 set-roi 0 {line}", status)) == 1
    assert do(client, "pulsar3 set-roi 0 1 list") == 2
    for first in range(2, 64):
        do(client, f"pulsar3 set-roi 0 1 {first} {first} add")
    assert len(fails(client, "pulsar3 set-roi 0 -1 7 8 add", -6)) == 1  # one that is full keeps all as they are
    assert do(client, "pulsar3 set-roi 0 0 list") == 1 and do(client, "pulsar3 set-roi 0 1 list") == 64
    do(client, "pulsar3 set-roi 0 0")
    do(client, "pulsar3 init-brams 0 1")
    assert do(client, "pulsar3 set-roi 0 0 list") == do(client, "pulsar3 set-roi 0 1 list") == 0
    assert not any(memory("roi", 0)) and not any(memory("roi", 1))


def test_tables_that_are_none_change_nothing(client, play, tmp_path):
    do(client, "pulsar3 config 1 2 0 dummy3")
    good = tmp_path / "good"
    good.write_text("1 2 3")
    bad = tmp_path / "bad"
    for content, text in (("1\n2 x", "line 2 has something that is no 32-bit number"),
                          ("4294967296", "line 1 has something that is no 32-bit number"),
                          ("1.5", "line 1 has something that is no 32-bit number"),
                          ("0x", "line 1 has something that is no 32-bit number")):
        bad.write_text(content)
        assert fails(client, f"pulsar3 load-xtk-map 0 0 from-local-file '{bad}'") == [
            f"! ERROR: Cannot use table '{bad}': {text}"]
    bad.write_bytes(b"12345")
    for words, text in (
            (f"from-local-file '{bad}' binary", f"Cannot use table '{bad}': a binary table has four bytes a word"),
            (f"from-local-file '{good}' header 'TABLE'", f"Cannot use table '{good}': no line begins with the header"),
            (f"from-local-file '{tmp_path}/none'", f"Cannot use table '{tmp_path}/none': No such file or directory"),
            ("from-local-file '/dev/zero'", "Cannot use table '/dev/zero': Operation not supported"),
            ("from-module 'plr3_none'", "Cannot use table 'plr3_none': there is no such module"),
            ("", "please give one of from-local-file, from-remote-file, from-module and zero"),
            (f"zero from-local-file '{good}'",
             "please give one of from-local-file, from-remote-file, from-module and zero"),
            (f"from-local-file '{good}' swap", "swap is of binary files"),
            ("zero binary", "binary, swap and header are of files"),
            ("zero password 'x'", "on, user and password are of a remote file"),
            ("from-remote-file 'x'", "please say on which machine the remote file is"),
            ("zero by-width", "table xtk-map is not addressed by width")):
        assert fails(client, f"pulsar3 load-xtk-map 0 0 {words}") == [f"! ERROR: {text}"], words
    [line] = fails(client, "pulsar3 load-xtk-map 0 0 from-remote-file 'x' on '127.0.0.1:1' user 'me' password 'secret'")
    assert line.startswith("! ERROR: Cannot fetch table 'x' from '127.0.0.1:1', user 'me': ") and "secret" not in line
    for ticks in ("0.0", "-1.0", "(0.0/0.0)"):
        value, lines = result(client, f"pulsar3 init-event-tail 0 0 {ticks}")
        assert value != 0 and lines
    assert do(client, "pulsar3 dma read-chan-reg 0 0 4 0") == 0


def test_dead_times_follow_the_trigger_that_is_in_use(client, play, tmp_path):
    sim = play("-chans=2", "-kind=3", "-generation=2")
    do(client, f"pulsar3 config 1 2 0 baseIP '{sim.net}1'")
    tick = 1.25e-8
    script = tmp_path / "dead-times.cmd"

    def times(words=""):
        _, lines = result(client, f"pulsar3 dtc list 0 {words}")
        return [[float(row.split()[k]) for k in (3, 5)] for row in lines[2:]]

    def close(got, ticks):
        return all(abs(a - b * tick) < 1e-5 * b * tick for a, b in zip(got, ticks, strict=True))

    # averages of 2^3, 5 apart, 7 above; energies of at least 30 with 9 between
    do(client, "pulsar3 set-trigger-b 0 0 100 3 5 12 7 1 9 60 9 30")
    do(client, "pulsar3 set-trigger-b 0 1 100 3 5 50 7 1 9 60 9 30")  # held for 50
    do(client, "pulsar3 dtc from-trigger 0")
    assert close(times()[0], (21, 40)) and close(times()[1], (51, 51))
    do(client, f"pulsar3 dtc from-trigger 0 '{script}' plus-half use-good-event first 1 last 1")
    assert close(times()[0], (21, 40)) and close(times()[1], (50.5, 50.5))
    do(client, "pulsar3 set-trigger-c 0 1 100 2 3 0 6")
    do(client, "pulsar3 set-chan-cont 0 1 0 trigger-c")
    do(client, "pulsar3 dtc from-trigger 0 first 1 omit-chan")
    assert close(times()[1], (8, 40))
    assert client.lines("pulsar3 dtc list 0 1")[-2].endswith("omit-chan")
    assert do(client, f"include '{script}'") == 0
    assert close(times()[1], (50.5, 50.5)) and client.lines("pulsar3 dtc list 0 1")[-2].endswith("use-good-event")
    # A script sets the same numbers again, to the last bit.
    do(client, "pulsar3 set-trigger-b 0 0 100 3 5 50 7 1 9 60 9 30")
    do(client, f"pulsar3 dtc from-trigger 0 '{script}'")
    (tmp_path / "saved").mkdir()
    do(client, f"pulsar3 save-settings 0 '{tmp_path}/saved'")
    do(client, "pulsar3 dtc set-params 0 -1 0 0 0 0")
    assert do(client, f"include '{script}'") == 0
    assert result(client, f"pulsar3 check-settings 0 '{tmp_path}/saved'") == (0, [])
    before = times()
    assert fails(client, "pulsar3 dtc from-trigger 0 first 1 last 2", -6) == [
        "! ERROR: channels 1 to 2 are out of range 0..1"]
    assert fails(client, f"pulsar3 dtc from-trigger 0 '{tmp_path}/no/file'") == [
        f"! ERROR: Cannot write script '{tmp_path}/no/file': No such file or directory"]
    os.mkfifo(tmp_path / "pipe")
    assert fails(client, f"pulsar3 dtc from-trigger 0 '{tmp_path}/pipe'") == [
        f"! ERROR: Cannot write script '{tmp_path}/pipe': Operation not supported"]
    assert (tmp_path / "pipe").is_fifo() and not (tmp_path / "pipe.new").exists()
    sim.close()
    assert result(client, f"pulsar3 dtc from-trigger 0 '{tmp_path}/new'")[0] < 0
    assert times() == before and not (tmp_path / "new").exists()
