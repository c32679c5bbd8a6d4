"""Faults of the card simulator's data link, each against the same three frames of the known pattern."""
import time

import pytest
from cards import SCOPE, Host, pattern, words


@pytest.fixture(scope="module")
def host(tmp_path_factory):
    import cards
    program = cards.Program(tmp_path_factory.mktemp("card"), "-generation=2", "-chans=2")
    program.do("events kind pattern")
    host = Host(program, channels=2)
    host.link.write(2, 12, [(8192 + 8) // 8 - 127])  # two packets of 8192 bytes a frame
    yield host
    host.close()
    program.close()


def sent(host, chan=0, count=6):
    host.internal(3, 800)
    return " ".join(f"{p.frame}.{p.number}" + "S" * p.start + "E" * p.end + "P" * p.padded
                    + (f"+{len(p.payload)}" if len(p.payload) != 8192 else "") for p in host.packets(chan, count))


USUAL = "0.0S 0.1E 1.0S 1.1E 2.0S 2.1E"


@pytest.mark.parametrize("fault, expected", [
    ("lose frame 1 packet 0", "0.0S 0.1E 1.1E 2.0S 2.1E"),
    ("lose", "0.1E 1.0S 1.1E 2.0S 2.1E"),
    ("lose times 3", "1.1E 2.0S 2.1E"),
    ("repeat frame 1 packet 1", "0.0S 0.1E 1.0S 1.1E 1.1E 2.0S 2.1E"),
    ("swap frame 2", "0.0S 0.1E 1.0S 1.1E 2.1E 2.0S"),
    ("cut frame 0 packet 1 argument 8", "0.0S 0.1E+8184 1.0S 1.1E 2.0S 2.1E"),
    ("frame-number frame 1 packet 0 argument 5", "0.0S 0.1E 6.0S 1.1E 2.0S 2.1E"),
    ("packet-number frame 1 packet 0 argument 7", "0.0S 0.1E 1.7S 1.1E 2.0S 2.1E"),
    ("unmark frame 1 times 2", "0.0S 0.1E 1.0 1.1 2.0S 2.1E"),
    ("mark frame 1 packet 1", "0.0S 0.1E 1.0S 1.1SE 2.0S 2.1E"),
    ("lose-frame frame 1", "0.0S 0.1E 2.0S 2.1E"),
    ("lose-tail frame 2", "0.0S 0.1E 1.0S 1.1E 2.0S"),
    ("swap-frames frame 0", "1.0S 1.1E 0.0S 0.1E 2.0S 2.1E"),
    ("pad frame 1 packet 1 argument 3", "0.0S 0.1E 1.0S 1.1EP+8204 2.0S 2.1E"),
    ("delay frame 0 packet 1 argument 300", "0.0S 1.0S 1.1E 2.0S 2.1E 0.1E"),
    ("lose rate 1.0", ""),
])
def test_each_fault(host, fault, expected):
    program = host.program
    before = program.do("card count 0 withheld")
    program.do(f"packets fault 0 0 {fault}")
    assert sent(host, count=len(expected.split())) == expected
    assert host.program.do("packets waiting") == ("rate" in fault)
    program.do("packets no-faults")
    if "lose" in fault:
        assert program.do("card count 0 withheld") - before == 6 - len(expected.split())
    assert sent(host, 1, count=12).split()[-6:] == USUAL.split()  # the other channel never suffered
    host.packets(0, 6), host.packets(1)
    assert sent(host) == USUAL
    host.packets(1, 6)


def test_what_a_pad_and_a_cut_leave_of_the_payload(host):
    host.program.do("packets fault -1 1 pad packet 0 frame 0 argument 4")
    host.internal(1, 800)
    padded = host.packet(1)
    assert words(padded.payload) == pattern(0, 1, 0, 0, 2048) + [0, 0, 0, 4] and padded.padded
    host.packets(0), host.packets(1)


def test_a_part_of_the_packets_is_lost_by_the_seed(host):
    host.program.do("packets fault -1 -1 lose rate 0.25")
    host.internal(400, 80)
    host.program.do("packets no-faults")
    left = len(host.packets(0)) + len(host.packets(1))
    assert 1100 < left < 1300  # of 1600


def test_nonsense_and_foreign_datagrams(host):
    host.program.do("packets fault 0 0 junk frame 1 argument 20")
    host.internal(2, 800)
    raw = [p.payload for p in host.packets(0)]
    assert [len(p) for p in raw] == [8192, 8192, 12, 8192, 8192] and raw[2] == b"\x5a" * 12
    host.packets(1)
    assert host.program.do("packets foreign 0 0 100") == 1
    time.sleep(0.05)
    assert host.packets(0) == []  # a connected socket takes none of it


def test_scope_data_suffers_alone(host):
    host.link.order(3, 1, 0, 0, 8192, 8192)
    host.program.do(f"packets fault 0 {SCOPE} repeat")
    host.link.order(4, 1, 0, 1, 0)
    assert [host.packet(SCOPE).number for _ in range(2)] == [0, 0]


def test_a_dead_card_loses_its_run(host):
    host.set(3, 8_000_000)
    host.set(8, 0)
    host.start(3)
    host.program.do("control die 0")
    host.program.do("control live 0 keep")
    host.link = host.program.link(2)
    assert host.packets(0) == []
    host.stop()


@pytest.mark.parametrize("line, text", [
    ("packets fault 0 0", "! Please give one fault"), ("packets fault 0 17 lose", "! Stream 17 is not in -1..16"),
    ("packets fault 1 0 lose", "! Card 1 is not in 0..0"), ("control fault 0 drop stall", "! Please give one fault"),
    ("events set 0 2 rate 1.0", "! Channel 2 is not in 0..1"), ("card count 0", "! Please say which one count"),
    ("card peek 0 3", "! Please say what the address is of"), ("events kind", "! Please give spectrum or pattern"),
    ("card peek 0 3 registers", "! Nothing at address 0x3"), ("card poke 0 0 1 xadc", "! Address 0x0 takes nothing")])
def test_what_commands_refuse(host, line, text):
    assert host.program.text.lines(line)[0] == text
