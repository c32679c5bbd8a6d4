"""The control link of the card simulator: both protocols byte by byte, what it refuses, each fault of an answer."""
import socket
import struct
import time

import pytest
from cards import BASE_PORT, Link1, Link2, global_register, register
from kestrel_session import wait_until


@pytest.fixture(params=[1, 2])
def link(request, play):
    program = play(f"-generation={request.param}", "-kind=3v7", "-chans=10")
    with program.link(request.param) as link:
        link.program, link.protocol = program, request.param
        yield link


def test_the_bytes_of_generation_1(play):
    program = play("-generation=1", "-kind=3v7")
    with program.link(1) as link:
        link.sock.sendall(bytes.fromhex("deadbeef 01030302 a0000008 00000008 00000001 fedcba98"))
        assert link.recv(20) == bytes.fromhex("deadbeef 01030322 a0000008 00000004 00000002")
        link.sock.sendall(bytes.fromhex("deadbeef 01030301 a000000c 00000004 00000001"))
        assert link.recv(24) == bytes.fromhex("deadbeef 01030321 a000000c 00000008 00000001 fedcba98")
        link.sock.sendall(bytes.fromhex("deadbeef 01090301 00000000 00000004 00000001"))
        assert link.recv(20) == bytes.fromhex("deadbeef 01090341 00000000 00000004 00000000")
        # two requests at once, the second in pieces: answered in order
        link.sock.sendall(bytes.fromhex("deadbeef 01040202 00000003 00000002 1234 deadbeef 0104"))
        time.sleep(0.02)
        link.sock.sendall(bytes.fromhex("0201 00000003 00000004 00000001"))
        assert link.recv(20 + 22) == bytes.fromhex("deadbeef 01040222 00000003 00000004 00000001"
                                                   "deadbeef 01040221 00000003 00000006 00000001 1234")


def test_the_bytes_of_generation_2(play):
    program = play("-generation=2", "-kind=3v7")
    with program.link(2) as link:
        link.sock.sendall(bytes.fromhex("efbeadde 05000000 03010300 08000000 02000000 01000000 98badcfe"
                                        "00000000 00000000"))
        assert link.recv(36) == bytes.fromhex("efbeadde 05000000 03010320 08000000 02000000 00000000 00000000"
                                              "00000000 00000000")
        link.sock.sendall(bytes.fromhex("efbeadde 06000000 01010300 0c000000 01000000 04000000 00000000"
                                        "00000000 00000000"))
        assert link.recv(40) == bytes.fromhex("efbeadde 06000000 01010320 0c000000 01000000 04000000 00000000"
                                              "00000000 00000000 98badcfe")
        link.sock.sendall(bytes.fromhex("efbeadde 07000000 04010300 0c000000 01000000 0000ffff 34120000"
                                        "00000000 00000000"))
        assert link.recv(40) == bytes.fromhex("efbeadde 07000000 04010320 0c000000 01000000 04000000 00000000"
                                              "00000000 00000000 3412dcfe")
        assert link.refused(1, 99, 0, 1, 4) and link.refused(9, 1, 0, 1)


def test_registers_of_channels_and_globals(link):
    assert link.read(link.REGISTERS, register(link, 9, 0, 0), 1) == [16 << 12 | 1 << 4 | 1]
    assert link.read(link.REGISTERS, register(link, 10, 0, 0), 1) == [0]  # no such channel
    link.write(link.REGISTERS, register(link, 3, 2, 65530), list(range(100, 112)))  # across the end of a region
    assert link.read(link.REGISTERS, register(link, 3, 2, 65534), 4) == [104, 105, 106, 107]
    assert link.read(link.REGISTERS, register(link, 3, 3, 0), 2) == [106, 107]
    assert link.read(link.REGISTERS, register(link, 4, 2, 65530), 1) == [0]
    assert link.modify(link.REGISTERS, global_register(link, 12), 0, 0xABCD) == 0xABCD
    assert link.modify(link.REGISTERS, global_register(link, 12), 0xFF00, 5) == 0xAB05
    assert link.program.do("card get-global 0 12") == 0xAB05
    link.write(link.REGISTERS, register(link, 2, 0, 0), [0])  # what the card says of itself stays
    assert link.read(link.REGISTERS, register(link, 2, 0, 0), 1) != [0]
    link.write(link.REGISTERS, register(link, 1, 0, 8), [0x1234, 0x5678], width=2)  # halves of one word
    assert link.read(link.REGISTERS, register(link, 1, 0, 8), 1) == [0x56781234]


@pytest.mark.parametrize("bus1, bus2, address", [(4, 2, 9), (7, 19, 3), (8, 20, 100), (1, 16, 5), (5, 18, 0x1004)])
def test_word_addressed_targets(link, bus1, bus2, address):
    bus = bus1 if link.protocol == 1 else bus2
    link.write(bus, address, [11, 22, 33])
    assert link.read(bus, address + 1, 2) == [22, 33]


def test_channel_spi_and_devices(link):
    if link.protocol == 1:
        link.write(5, 0x2000 + (3 << 8), [70, 80])
        i2c = 2
    else:
        link.write(22, 3 << 8, [70, 80])
        i2c = 17
    assert link.program.do("card peek 0 769 chan-spi") == 80
    assert link.read(i2c, 0x10000 | 0x48, 2, width=1) == [41, 44]
    link.write(i2c, 0x48, [5, 9, 8], width=1)  # the first byte is the register
    link.write(i2c, 0x48, [5], width=1)
    assert link.read(i2c, 0x48, 2, width=1) == [9, 8]
    before = link.program.do("card count 0 refused")
    args = (1, i2c, 1, 1, 0x77, struct.pack(">I", 1)) if link.protocol == 1 else (1, i2c, 0x77, 1, 1, b"", 1)
    assert link.refused(*args)  # no such device
    assert link.program.do("card count 0 refused") == before + 1


def test_card_memory(link):
    scalers = 0x80000000
    link.write(link.MEMORY, scalers, list(range(1, 201)))
    assert link.read(link.MEMORY, scalers + 4 * 190, 12) == [*range(191, 201), 0, 0]
    if link.protocol == 2:
        link.zero(link.MEMORY, scalers + 4, 100000)
        assert link.read(link.MEMORY, scalers, 3) == [1, 0, 0]
        link.write(4, 0x100, [1, 2, 3, 4, 5])
        assert link.program.do("card peek 0 272 dram") == 5
    else:
        link.write(6, 0xC0000100, [1, 2])
        assert link.program.do("card peek 0 260 dram") == 2


def test_what_generation_1_refuses(play):
    program = play("-generation=1")
    with program.link(1) as link:
        one = struct.pack(">I", 1)
        for request in [(1, 3, 0, 1, 0xA0000000, one), (1, 3, 3, 1, 0xA0000002, one), (1, 3, 3, 5, 0xA0000000, one),
                        (1, 3, 3, 1, 0xA0000000, one + one), (1, 3, 3, 1, 0xA0000000, struct.pack(">I", 256)),
                        (1, 6, 3, 2, 0, bytes(1028)), (1, 4, 3, 1, 256, one), (2, 3, 3, 1, 0xA0000000, one),
                        (4, 0, 3, 2, 5, one), (4, 0, 3, 2, 10, one), (4, 0, 3, 1, 4, one), (4, 0, 3, 2, 4, b"")]:
            assert link.refused(*request), request
        assert program.do("card count 0 refused") == 12
        link.sock.sendall(b"GET / HTTP/1.0\r\n\r\n")
        assert link.closed()


def test_what_generation_2_refuses(play):
    program = play("-generation=2")
    with program.link(2) as link:
        for request in [(1, 1, 0, 4, 12), (1, 1, 2, 1, 4), (1, 1, 0, 16385, 65540), (2, 1, 0, 3, 8, bytes(8)),
                        (3, 1, 0, 5, 0, bytes(16)), (3, 23, 0, 1, 0, bytes(4)), (1, 0, 0, 1, 4), (1, 6, 0, 1, 4),
                        (1, 21, 0, 1, 4), (8, 2, 250, 7), (4, 1, 0, 2, 0, bytes(8)), (5, 0, 10, 3, 0, bytes(4))]:
            assert link.refused(*request), request
        assert link.read(1, register(link, 0, 0, 0), 16384)[0] == 16 << 12 | 1 << 4 | 1


def test_generation_4_globals_and_the_mini_model(play):
    four, mini = play("-kind=4"), play("-kind=3mini")
    with four.link(2) as link:
        link.write(0, 4 * 0x100000, [0x123])
        link.write(0, 4 * 9, [50])
        assert link.read(0, 4 * 0x100000, 1) == [0x123] and four.do("card get-global 0 9") == 50
        assert link.read(1, register(link, 15, 0, 0), 1) == [16 << 12 | 3 << 4 | 1]
        assert link.refused(1, 24, 0, 1, 4)  # no readout mode
    with mini.link(2) as link:
        link.write(24, 0, [256])
        link.write(6, 64, [7])
        assert link.read(24, 0, 1) == [256] and link.read(100, 64, 1) == [7]
        assert link.read(1, register(link, 0, 0, 63), 1)[0] >> 8 & 7 == 7


def test_messages_to_the_dma_engine(link):
    link.order(3, 0b10, 1, 0x1000, 1000, 400)
    assert link.question(13, 0b10, 0, 3, 0, words=3) == [3, 1000, 0]
    assert link.question(16, 0b10, 2, words=1) == [1]
    status = link.question(10, 0b10, words=112)
    assert status[0] == 8 and status[8 + 13:8 + 26] == [1, 0x1000, 1, 0, 3, 0x1000, 1000, 400, 3, 0, 0, 0, 0]
    link.order(6, 1, 0x1000, 16, 5, 3)
    assert link.read(link.MEMORY, 0x1000, 4) == [5, 8, 11, 14]
    link.order(1, 0xFF)


def test_several_cards_and_several_hosts(play):
    program = play("-cards=3", "-index=5", "-generation=2")
    for position in range(3):
        with program.link(2, 5 + position) as one, program.link(2, 5 + position) as two:
            one.write(1, register(one, 0, 0, 2), [100 + position])
            assert two.read(1, register(two, 0, 0, 2), 1) == [100 + position]
            assert program.do(f"card count {position} open") == 2
    assert [program.do(f"card get-register {p} 0 0 2") for p in range(3)] == [100, 101, 102]
    program.text.cmd("card forget 1")
    with program.link(2, 6) as link:
        link.write(2, 9, [4])
        link.modify(1, register(link, 1, 0, 5), 15, 16)
    assert program.text.lines("card seen 1")[:-1] == [
        "# command 3 bus 2 width 3 state 0 address 0x9 items 1 first 0x4 sequence 8",
        "# command 4 bus 1 width 3 state 0 address 0x400014 items 1 first 0xf sequence 9"]


@pytest.mark.parametrize("fault", ["magic", "command", "count", "state argument 39", "size argument 77", "sequence"])
def test_a_spoilt_answer_differs_in_its_field_alone(link, fault):
    if fault == "sequence" and link.protocol == 1:
        return  # it has none
    place = {"magic": (0, 0), "sequence": (4, 4), "command": (4, 8), "state": (7, 11), "size": (12, 20),
             "count": (16, 16)}[fault.split()[0]][link.protocol - 1]

    def answer():
        if link.protocol == 1:
            return link.exchange(1, 4, 3, 1, 9, struct.pack(">I", 2), 28)
        return link.exchange(Link2.header(1, 1, 2, 3, 0, 9, 2, 8), 44)
    good = answer()
    name, _, argument = fault.partition(" ")
    link.program.do(f"control fault 0 {name} {argument} after 1")
    assert answer() == good  # one was to be left alone
    bad = answer()
    differ = [i for i in range(len(good)) if good[i] != bad[i]]
    width = 1 if name in ("command", "state") else 4
    assert differ and place <= differ[0] and differ[-1] < place + width
    assert answer() == good and link.program.do("control waiting") == 0


def test_refused_late_missing_and_broken_answers(link):
    program, address = link.program, register(link, 1, 0, 2)
    bus = link.REGISTERS
    program.do(f"control fault 0 refuse bus {bus}")
    if link.protocol == 1:
        assert link.refused(1, bus, 3, 2, address, struct.pack(">I", 5))
    else:
        assert link.refused(3, bus, address, 1, 0, struct.pack("<I", 5))
    assert program.do("card get-register 0 1 0 2") == 0  # and did nothing

    program.do("control fault 0 stall argument 150")
    before = time.monotonic()
    link.write(bus, address, [6])
    assert time.monotonic() - before >= 0.15

    program.do("control fault 0 split")
    assert link.read(bus, address, 1) == [6]

    program.do("control fault 0 stale argument 9")
    assert link.read(bus, address, 1) == [6] and link.recv(9) == b"\x5a" * 9

    program.do("control fault 0 drop")
    link.sock.settimeout(0.2)
    with pytest.raises(TimeoutError):
        link.write(bus, address, [7])
    assert program.do("card get-register 0 1 0 2") == 7  # done, and not said

    for fault, left in ("cut", 7), ("close", 0):
        with program.link(link.protocol) as other:
            program.do(f"control fault -1 {fault}")
            with pytest.raises(AssertionError, match="closed after"):
                other.read(bus, address, 1)
    with program.link(link.protocol) as other:
        assert other.read(bus, address, 1) == [7]


def test_a_card_dies_and_comes_back(link):
    program, protocol = link.program, link.protocol
    address = program.control(), BASE_PORT + protocol - 1
    link.write(link.REGISTERS, register(link, 0, 0, 4), [9])
    program.do("control die 0")
    assert link.closed()
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection(address, 1)
    program.do("control live 0 keep")
    with program.link(protocol) as again:
        assert again.read(again.REGISTERS, register(again, 0, 0, 4), 1) == [9]
    program.do("control die 0")
    program.do("control live 0")
    with program.link(protocol) as again:
        assert again.read(again.REGISTERS, register(again, 0, 0, 4), 1) == [0]
        assert again.read(again.REGISTERS, register(again, 0, 0, 28), 1) == [12]
    wait_until(lambda: program.do("card count 0 open") == 0, "end of the connections", 5)


@pytest.mark.parametrize("options, text", [
    (("-kind=5",), "-kind=5"), (("-cards=0",), "-cards=0"), (("-base=localhost",), "-base=localhost"),
    (("-kind=3mini", "-generation=1"), "-generation=1"), (("-index=60", "-cards=4"), "index above 62")])
def test_options_that_make_no_sense(tmp_path, options, text):
    from cards import PROGRAM
    from kestrel_session import Process
    process = Process(tmp_path / "x", *options, program=PROGRAM)
    assert process.wait_exit() == 1 and text in process.stderr and "Usage:" in process.stderr
