"""Systems of cards over real sockets: what reaches which card, what faults of the cards look like, what is left open."""
import pathlib
import socket
import sys
import time

import pytest
from kestrel_data import do, held, result
from kestrel_session import SCALE, wait_until
from test_pulsar3_dummy import no_modules_left  # noqa: F401 (a fixture)

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "sim"))
import cards


@pytest.fixture
def play(tmp_path):
    running = []

    def begin(*options):
        running.append(cards.Program(tmp_path / f"cards{len(running)}", *options))
        return running[-1]

    yield begin
    for program in running:
        program.close()


def all_closed(sim, count):
    """The cards have noticed that their connections are closed."""
    wait_until(lambda: all(sim.do(f"card count {card} open") == 0 for card in range(count)), "closed connections")


KINDS = ["-kind=3", "-kind=3v7 -generation=1", "-kind=3v7 -generation=2", "-kind=4", "-kind=3mini"]


@pytest.mark.parametrize("kind", KINDS)
def test_every_card_gets_its_own(server, client, play, kind):
    sim = play("-cards=3", "-chans=2", *kind.split())
    warm = held(server)
    assert do(client, f"pulsar3 config 3 4 0 baseIP '{sim.net}1'") == 0
    assert client.lines("%pulsar3_num_chan") == ["* 6"]
    assert [sim.do(f"card get-global {card} 9") for card in range(3)] == [4, 4, 4]
    do(client, "pulsar3 set-window 0 -1 1 16 $1234")
    do(client, "pulsar3 set-window 0 3 1 17 $1234")
    for card in range(3):
        for chan in range(2):
            low = 17 if (card, chan) == (1, 1) else 16
            assert sim.do(f"card get-register {card} {chan} 0 25") == 0x12340000 + low
            assert do(client, f"pulsar3 dma read-chan-reg 0 {2 * card + chan} 0 25") == 0x12340000 + low
    do(client, "pulsar3 dma write-glob-reg 0 1 8 77")
    do(client, "pulsar3 dma write-glob-reg 0 -1 3 5")
    assert [sim.do(f"card get-global {card} 8") for card in range(3)] == [0, 77, 0]
    assert [do(client, f"pulsar3 dma read-glob-reg 0 {card} 3") for card in range(3)] == [5] * 3
    # The same again touches nothing.
    before = [sim.do(f"card count {card} transactions") for card in range(3)]
    assert do(client, f"pulsar3 config 3 4 0 baseIP '{sim.net}1'") == 0
    assert [sim.do(f"card count {card} transactions") for card in range(3)] == before
    links = 2 if "mini" in kind else 1  # a mini model's readout
    wait_until(lambda: [sim.do(f"card count {card} connections") for card in range(3)] == [links] * 3, "links")
    assert [sim.do(f"card count {card} connections") for card in range(3)] == [links] * 3
    do(client, "pulsar3 close 0")
    assert held(server) == warm
    all_closed(sim, 3)


def test_the_data_link_of_each_card_is_set_up(client, play):
    sim = play("-cards=2", "-index=5", "-kind=4")
    do(client, f"pulsar3 config 2 1 5 baseIP '{sim.net}1' baseMAC '2.17.34.51.68.0'")
    a, b = (int(part) for part in sim.net.split(".")[1:3])
    for card in range(2):
        host, fem, mac = 1 + 4 * 5 + 64 + 4 * card, 1 + 4 * 5 + 65 + 4 * card, (5 + card) * 2
        words = {0: 0x33221102, 1: mac << 8 | 68, 2: 0, 4: 0xDB00001C, 6: 0xDEAD | 127 << 16 | a << 24,
                 7: b | host << 8 | 127 << 16 | a << 24, 8: b | fem << 8 | socket.htons(30124) << 16,
                 9: 0x80000 | socket.htons(30124), 11: 0xB300, 12: 998, 13: 10, 14: 0xAA, 15: 1}
        for register, word in words.items():
            value = sim.do(f"card peek {card} {register} rdma") & 0xFFFFFFFF
            assert value == word, (register, hex(value), hex(word))


@pytest.mark.parametrize("words", ["no-udp", "no-init"])
def test_what_may_be_left_out(client, play, words):
    sim = play("-kind=4")
    sim.do("card set-global 0 3 99")
    value, lines = result(client, f"pulsar3 config 1 1 0 baseIP '{sim.net}1' {words}")
    assert value == 0
    assert "# Warning omitting UDP (or Pulsar3mini active readout TCP) setup" in lines
    assert sim.do("card peek 0 15 rdma") == 0
    assert sim.do("card get-global 0 3") == (99 if words == "no-init" else 0)
    assert ("# Initialising hardware registers" in lines) == (words != "no-init")


@pytest.mark.parametrize("words, mode", [("", 5), ("passive", 256), ("send-scalars send-hist-frames", 3)])
def test_a_mini_model_is_told_what_to_send(client, play, words, mode):
    sim = play("-kind=3mini")
    do(client, f"pulsar3 config 1 1 0 baseIP '{sim.net}1' {words}")
    assert sim.do("card peek 0 0 readout-mode") == mode


def test_cards_that_are_not_there_close_what_was_opened(server, client, play):
    sim = play("-cards=2", "-kind=4")
    warm = held(server)
    for line in (f"3 1 0 baseIP '{sim.net}1'", f"1 1 7 baseIP '{sim.net}1'", "2 1 0 baseIP '127.255.255.1'"):
        before = client.lines(f"pulsar3 config {line}")
        assert before[-2].startswith("! ERROR plr3_config: Cannot initialise Fem 127."), before
        assert before[-2].endswith(" on port 30123") and before[-1] == "* -1"
        assert held(server) == warm
    all_closed(sim, 2)
    assert do(client, f"pulsar3 config 2 1 0 baseIP '{sim.net}1'") == 0


def test_a_card_that_dies_and_comes_back(client, play):
    sim = play("-cards=2", "-kind=4")
    do(client, f"pulsar3 config 2 1 0 baseIP '{sim.net}1'")
    do(client, "pulsar3 dma write-chan-reg 0 17 1 5 321")
    sim.do("control die 1")
    for _ in range(2):
        value, lines = result(client, "pulsar3 dma read-chan-reg 0 17 1 5")
        assert value < 0 and lines[-1].startswith("! ERROR plr3_read_reg: at offset 0x5 array of values: returns -")
    assert do(client, "pulsar3 dma read-chan-reg 0 1 1 5") == 0  # the other card works on
    sim.do("control live 1 keep")
    assert do(client, "pulsar3 dma read-chan-reg 0 17 1 5") == 321
    assert result(client, "pulsar3 close 0")[0] == 0


def test_a_card_without_what_is_asked(client, play):
    sim = play("-kind=3v7", "-generation=1")
    do(client, f"pulsar3 config 1 1 0 baseIP '{sim.net}1'")
    assert client.lines("pulsar3 dma read-adc-temp 0 0") == ["* 41"]
    assert client.lines("pulsar3 dma read-mid-plane-temp 0 0") == ["* 31"]
    lines = client.lines("pulsar3 dma read-fpga-temp 0 0")
    assert lines[0].startswith("! ERROR ") and lines[-1].startswith("* -")


def test_configuring_ends_with_the_server(start, play):
    sim = play("-kind=4")
    server = start()
    do(server.client(), f"pulsar3 config 1 1 0 baseIP '{sim.net}1'")
    assert sim.do("card count 0 open") == 1
    server.close()
    all_closed(sim, 1)


@pytest.mark.parametrize("fault", ["refuse bus 0 times 100000", "refuse bus 1 after 40 times 100000"])
def test_a_card_that_refuses_what_it_is_configured_with(server, client, play, fault):
    sim = play("-cards=3", "-kind=4")
    warm = held(server)
    sim.do(f"control fault 0 {fault}")
    value, lines = result(client, f"pulsar3 config 3 4 0 baseIP '{sim.net}1'")
    assert value == -5 and lines[-1].startswith("! ERROR plr3_config: plr"), lines
    assert held(server) == warm and not list(pathlib.Path("/dev/shm").glob("plr3_*"))
    sim.do("control no-faults")
    do(client, f"pulsar3 config 3 4 0 baseIP '{sim.net}1'")


def test_cards_of_one_system_are_of_one_generation(server, client, play):
    old = play("-kind=3")
    a, b = old.net.split(".")[1:3]
    play("-kind=4", f"-base={old.net}1", "-index=1")
    warm = held(server)
    line = f"pulsar3 config 2 1 0 baseIP '{old.net}1'"
    assert client.lines(line)[-2:] == ["! ERROR plr3_do_config: card 1 is of generation 3, the first of 0", "* -1"]
    assert held(server) == warm


@pytest.mark.parametrize("generation", [1, 2])
def test_a_refused_channel_does_not_keep_the_others_from_being_written(client, play, generation):
    sim = play("-chans=4", f"-generation={generation}", "-kind=3v7")
    assert do(client, f"pulsar3 config 1 4 0 baseIP '{sim.net}1'") == 0
    bus = 3 if generation == 1 else 1
    sim.do(f"control fault 0 refuse bus {bus} after 1")
    assert client.lines("pulsar3 set-good-thres 0 -1 77") == [
        "# plr3_write_reg: at offset 0x1a array of values: returns -5 for channel 1", "* 0"]
    assert [sim.do(f"card get-register 0 {chan} 0 26") for chan in range(4)] == [77, 0, 77, 77]
    sim.do(f"control fault 0 refuse bus {bus} after 3")
    assert client.lines("pulsar3 set-good-thres 0 -1 78") == [
        "! ERROR plr3_write_reg: at offset 0x1a array of values: returns -5", "* -5"]
    assert [sim.do(f"card get-register 0 {chan} 0 26") for chan in range(4)] == [78, 78, 78, 77]


def test_receive_buffers_are_set_card_by_card(client, play):
    sim = play("-cards=2", "-chans=2", "-kind=4")
    do(client, f"pulsar3 config 2 4 0 baseIP '{sim.net}1'")
    given = do(client, "pulsar3 dma set-udp-buffers 0 1 100000")
    assert given == do(client, "pulsar3 dma get-udp-buffers 0 1") == 100000
    assert do(client, "pulsar3 dma get-udp-buffers 0 0") > 100000
    assert do(client, "pulsar3 dma get-udp-buffers 0 -1") == 100000
    for bad in ("0 1 8999", "0 2 100000", "5 0 100000"):
        assert client.lines(f"pulsar3 dma set-udp-buffers {bad}")[0].startswith("! ERROR plr3_set_udp_buffer_size: ")


def test_an_interrupt_ends_a_configuration_between_cards(server, client, play):
    sim = play("-cards=3", "-kind=4")
    warm = held(server)
    sim.do("control fault 1 drop times -1")
    client.send(f"pulsar3 config 3 4 0 baseIP '{sim.net}1'\n")
    wait_until(lambda: sim.do("card count 1 connections"), "link to the silent card")
    begun = time.monotonic()
    server.interrupt()
    client.recv_match(rb"! ERROR [^\n]*\r?\n\* -\d\r?\n")
    assert time.monotonic() - begun < 7 + SCALE
    assert held(server) == warm and not list(pathlib.Path("/dev/shm").glob("plr3_*"))


def test_a_foreign_module_of_the_scopes_name_is_left_alone(client, play, names):
    sim = play("-kind=4")
    name = names("scope")
    do(client, f"module create '{name}' 100 3 header")
    before = pathlib.Path(f"/dev/shm/{name}").stat()
    value, lines = result(client, f"pulsar3 config 1 4 0 baseIP '{sim.net}1' modname '{name}'")
    assert value < 0 and lines[-1].startswith("! ERROR "), lines
    after = pathlib.Path(f"/dev/shm/{name}").stat()
    assert (before.st_ino, before.st_size) == (after.st_ino, after.st_size)
    assert not list(pathlib.Path("/dev/shm").glob("plr3_*"))
