"""Low-level commands: the DMA engine, clocks, sensors, links, ADC boards; what these cards have no way to."""
import pytest
from kestrel_data import do, result
from kestrel_session import wait_until
from saved_cards import INDEX, configure, failed, no_modules_left, play  # noqa: F401 (fixtures)


KINDS = ["-kind=3 -generation=1", "-kind=3v7 -generation=2", "-kind=4", "-kind=3mini"]


def shown(client, line):
    """The result and the lines of a command."""
    value, lines = result(client, "pulsar3 " + line)
    return value, [text for text in lines if not text.startswith("*")]


def real(client, line):
    """The result of a command that gives a real number, and the lines."""
    *lines, last = client.lines("pulsar3 " + line)
    return float(last.removeprefix("* ")), lines


@pytest.fixture
def system(client, play):
    def begin(kind, count=1, words=""):
        sim = play(f"-cards={count}", "-chans=2", *kind.split())
        configure(client, sim, count, words)
        return sim
    return begin


@pytest.mark.parametrize("kind", ["-kind=3 -generation=1", "-kind=3v7 -generation=2"])
def test_descriptors_are_built_sent_checked_and_printed(client, system, kind):
    sim = system(kind)
    do(client, "pulsar3 dma build-test-pat 0 0 0 0 32768 $100 3")
    assert [sim.do(f"card peek 0 {4 * word} memory") for word in (0, 1, 4096)] == [0x100, 0x103, 0x100 + 3 * 4096]
    assert do(client, "pulsar3 dma get-desc-status 0 0 0 0") == 0
    do(client, "pulsar3 read-scope-data 0")
    assert do(client, "pulsar3 dma get-desc-status 0 0 0 0") == 2
    assert shown(client, "dma check-desc 0 0 1 0 1") == (0, ["# stream 1: 1 descriptors of 0x4000 bytes, 0 faults"])
    assert shown(client, "dma print-scope 0 1 4090 100") == (6, [
        "#  4090: " + " ".join(f"{0x100 + 3 * word:08X}" for word in range(8186, 8192))])
    assert shown(client, "dma print-scope 0 0")[0] == 64
    value, lines = shown(client, "dma read-status 0 0 1")
    assert value == 2
    assert lines == [
        "# stream 1: state 2, base 0x00004000, sends, descriptor 0 of 1 (1 defined), data 0x4000 bytes from 0x4000 in "
        "blocks of 0x4000", "# stream 1: transfer of 1 from descriptor 0, 1 frames, frame rule 0"]
    _, block = shown(client, "dma read-status-block 0 0")
    assert len(block) == 8 + 2 * 8 and block[0] == "# status 0: 0x00000008" and block[10:12] == lines
    do(client, "pulsar3 dma reset 0 0 0")
    assert do(client, "pulsar3 dma get-desc-status 0 0 0 0") == 1
    for command in ("print-data", "print-desc"):
        do(client, f"pulsar3 dma {command} 0 0 0 0 1 7")
    for line, text in [
            ("reset 0 0 8", "plr3_dma_reset: invalid dma stream number 8"),
            ("print-desc 0 0 -1 0 1", "plr3_dma_print_desc: invalid dma stream number -1"),
            ("read-status 0 0 8", "plr3_dma_read_status: invalid dma stream number 8"),
            ("build-test-pat 0 0 0 2 8 0 0", "plr3_dma_build_test_pat: Error writing stream 0x1: return code -5")]:
        value, lines = shown(client, "dma " + line)
        assert value < 0 and lines == ["! ERROR " + text]
    for line in ("0 0 4096", "0 0 -1", "0 0 0 -1", "0 2", "1 0"):
        value, lines = shown(client, "dma print-scope " + line)
        assert value < 0 and len(lines) == 1, line


@pytest.mark.parametrize("kind", KINDS)
def test_clocks_are_set_up_measured_and_lock_where_their_source_is(client, system, kind):
    sim = system(kind, 2)
    mini, gen4 = "mini" in kind, "kind=4" in kind

    def generator(card):
        """Source, test pulse, drive, as the card's generator has them."""
        if gen4:
            return [sim.do(f"card peek {card} {0x10058 | reg << 8} i2c") for reg in (0x10, 0x11, 0x12)]
        if mini:
            return [sim.do(f"card peek {card} {4 * word} dma-block") for word in (0x100, 0x101, 0x102)]
        word = sim.do(f"card peek {card} 1 spi")
        return [word & 3, word >> 4 & 3, word >> 8]

    control = 0x100000 if gen4 else 0
    do(client, f"pulsar3 dma write-glob-reg 0 -1 {control} $3E00")
    assert real(client, "dma get-clock-period 0") == (1.25e-8, [])
    do(client, "pulsar3 setup-clocks 0 1 mid-plane test-pulse 3")
    assert [generator(0), generator(1)] == [[0, 0, 0], [2, 3, 0]]
    assert [sim.do(f"card get-global {card} {control}") for card in (0, 1)] == [0x3E00, 0x3E32]
    function = "plr4_clocks_setup_int" if gen4 else "plr3m_clocks_setup_int" if mini else "plr3_clocks_setup_int"
    line = failed(client, "pulsar3 setup-clocks 0 0 external")
    assert line == f"! ERROR {function}: the clock of card 0 does not lock"
    do(client, "pulsar3 setup-clocks 0 0 external no-check drive")
    assert generator(0) == [1, 0, 1]
    value, lines = shown(client, "dma read-adc-clk 0 0")
    assert lines == ["# Card 0: locked, ADC clock delay 0, FPGA clock delay 0"]  # nobody has reset the phases
    for card in (0, 1):
        sim.do(f"card poke {card} 8 7 spi")
        sim.do(f"card poke {card} 9 1000000 spi")
    do(client, "pulsar3 setup-clocks 0 -1 external")
    assert [real(client, f"dma get-clock-period 0 {card}")[0] for card in (0, 1)] == [1e-8, 1e-8]
    assert real(client, "dma measure-freq 0 1 all") == (1e8, [
        "# clock 0 (processing): 100.000000 MHz", "# clock 1 (adc): 100.000000 MHz",
        "# clock 2 (data-link): 156.250000 MHz", "# clock 3 (control): 125.000000 MHz"])
    assert real(client, "dma measure-freq 0 0 3") == (1.25e8, ["# clock 3 (control): 125.000000 MHz"])
    # A time of seconds is given to the card in ticks of that clock.
    do(client, "pulsar3 setup-timing 0 internal time 1.0e-3 frames 1")
    assert sim.do("card get-global 0 3") == 100000
    # Each card has its own, by whichever path it was set up.
    do(client, "pulsar3 setup-clocks 1")
    do(client, "pulsar3 setup-timing 0 internal time 1.0e-3 frames 1")
    assert sim.do("card get-global 0 3") == 80000
    do(client, "pulsar3 set-trigger-b 0 -1 0 0 0 19 0 0 0 0 0 0")
    _, lines = result(client, "pulsar3 dtc from-trigger 0 first 1 last 2")
    assert lines == ["# Channel 1: all events 2.5e-07 s, in window 2.5e-07 s",
                     "# Channel 2: all events 2e-07 s, in window 2e-07 s"]
    do(client, "pulsar3 setup-clocks 0")
    assert real(client, "dma get-clock-period 0") == (1.25e-8, [])
    assert [sim.do(f"card get-global {card} {control}") for card in (0, 1)] == [0x3E00, 0x3E00]


def test_an_interrupt_ends_the_wait_for_a_clock_and_says_so(server, client, system):
    sim = system("-kind=3v7 -generation=2", 2)
    client.send("pulsar3 setup-clocks 0 -1 external\n")
    wait_until(lambda: sim.do("card peek 0 1 spi") & 3 == 1, "choice of a clock that is not there")
    server.interrupt()
    assert client.recv_prompt() == b"! ERROR plr3_clocks_setup_int: interrupted\r\n* -1\r\n"


def test_the_phases_of_clocks_take_effect_with_a_reset(client, system):
    system("-kind=4", 2)
    do(client, "pulsar3 dma setup-adc-mmcm 0 -1 255 1")
    assert shown(client, "dma read-adc-clk 0 1") == (1, ["# Card 1: locked, ADC clock delay 0, FPGA clock delay 0"])
    do(client, "pulsar3 dma reset-adc-mmcm 0 1")
    assert shown(client, "dma read-adc-clk 0 1") == (1, ["# Card 1: locked, ADC clock delay 255, FPGA clock delay 1"])
    assert shown(client, "dma read-adc-clk 0 0") == (1, ["# Card 0: locked, ADC clock delay 0, FPGA clock delay 0"])


def test_sensors_are_listed_and_keep_a_limit(client, system):
    sim = system("-kind=3v7 -generation=1")
    do(client, "pulsar3 dma set-adc-temp 0 -1 70")
    assert shown(client, "dma read-lm82-regs 0 0 2") == (0, [
        "# Card 0: sensor of the ADC board", "# 0x00 local temperature  41 C", "# 0x01 remote temperature 44 C",
        "# 0x02 status             0x00", "# 0x03 configuration      0x00", "# 0x05 local high limit   70 C",
        "# 0x07 remote high limit  127 C", "# 0x42 critical limit     127 C", "# 0xFE maker              0x01",
        "# 0xFF revision           0x00"])
    for line in ("set-adc-temp 0 0 126", "set-adc-temp 0 0 -1", "read-lm82-regs 0 0 4", "read-lm82-regs 0 0 -1"):
        assert shown(client, "dma " + line)[0] == -6


@pytest.mark.parametrize("kind", KINDS)
def test_links_between_cards_are_looped_back(client, system, kind):
    sim = system(kind, 2)
    if "generation=1" in kind:
        for line in ("setup-b2b-loopback 0 0 0", "show-b2b-status 0 0", "set-b2b-ecc 0 -1 -1"):
            value, lines = shown(client, "dma " + line)
            assert value < 0 and len(lines) == 1 and "MGT DRP" in lines[0], lines
        return
    do(client, "pulsar3 dma setup-b2b-loopback 0 1 2 far-pma")
    do(client, "pulsar3 dma set-b2b-ecc 0 1 -1")
    do(client, "pulsar3 dma set-b2b-ecc 0 1 0 off")
    state = "error correction {}, 0 errors corrected"
    assert shown(client, "dma show-b2b-status 0 1") == (1, [
        f"# lane 0: down, loopback 0, {state.format('off')}", f"# lane 1: down, loopback 0, {state.format('on')}",
        f"# lane 2: up, loopback 4, {state.format('on')}", f"# lane 3: down, loopback 0, {state.format('on')}"])
    assert do(client, "pulsar3 dma show-b2b-status 0 0") == 0
    do(client, "pulsar3 dma setup-b2b-loopback 0 -1 -1")
    assert do(client, "pulsar3 dma show-b2b-status 0 1") == 0
    assert shown(client, "dma setup-b2b-loopback 0 0 0 near-pcs far-pcs") == (
        -1, ["! ERROR: Please specify at most one loopback"])
    for line in ("setup-b2b-loopback 0 0 4", "set-b2b-ecc 0 0 -2", "set-b2b-ecc 0 2 0"):
        assert shown(client, "dma " + line)[0] in (-3, -6)


def test_a_cards_end_of_the_data_link_is_shown_and_switched(client, system):
    sim = system("-kind=4", 2, "baseMAC '2.17.34.51.68.0'")
    do(client, "pulsar3 dma set-int-pack-gap 0 1 65535")
    mac = f"{2 * (INDEX + 1):02x}"
    value, lines = shown(client, "dma ethernet-status 0 1")
    assert value == 1
    assert lines == [f"# Card 1: {sim.card(INDEX + 1)} port 30124, MAC 02:11:22:33:44:{mac}",
                     f"# sends to {sim.host(INDEX + 1)} port 30124, MAC 00:00:00:00:00:00",
                     "# enabled, gap between packets 65535"]
    sim.do("card forget 1")
    do(client, "pulsar3 dma toggle-enb 0 1")
    writes = [line for line in sim.text.lines("card seen 1 10") if " address 0xf " in line]
    assert [line.split(" first ")[1].split()[0] for line in writes] == ["0x0", "0x1"]
    for gap in (-1, 65536):
        assert shown(client, f"dma set-int-pack-gap 0 0 {gap}")[0] == -6
    assert do(client, "pulsar3 dma read-time-stat-a 0 0") == 0
    do(client, "pulsar3 setup-timing 0 internal time 1.0e-4 frames 3")
    do(client, "pulsar3 hist start 0")
    do(client, "pulsar3 check-progress 0 num-t 3")
    assert shown(client, "dma read-time-stat-a 0 0") == (3, ["# Card 0: 3 time frames"])


@pytest.mark.parametrize("kind", KINDS)
def test_adc_boards_have_gains_offsets_terminations_and_power(client, system, kind):
    sim = system(kind, 2)
    for line in ("set-gain 0 -1 1 2", "set-gain 0 2 15 3", "set-offset 0 -1 7", "set-offset 0 3 65535",
                 "set-term 0 -1 1 2", "set-term 0 1 $FFFFFFFF 0", "ignore-over-temp 0 -1", "ignore-over-temp 0 0 off"):
        do(client, "pulsar3 adc-board " + line)
    assert [sim.do(f"card peek {card} {chan << 8} chan-spi") for card in (0, 1) for chan in (0, 1)] == [
        0x21, 0x21, 0x3F, 0x21]
    assert [sim.do(f"card peek {card} {chan << 8 | 1} chan-spi") for card in (0, 1) for chan in (0, 1)] == [
        7, 7, 7, 65535]
    assert shown(client, "adc-board get-gain 0 2") == (63, ["# Channel 2: gain of stage 1 15, of stage 2 3"])
    assert do(client, "pulsar3 adc-board get-offset 0 3") == 65535
    assert shown(client, "adc-board get-term 0 1") == (
        0, ["# Card 1: terminations of inputs 0xFFFFFFFF, of outputs 0x0"])
    assert [sim.do(f"card peek {card} {0x22} spi") for card in (0, 1)] == [0, 1]
    assert do(client, "pulsar3 adc-board get-revision 0 1") == 3
    sim.do(f"card poke 1 {0x24} $60007 spi")
    assert shown(client, "adc-board read-psu 0 1") == (1, ["# Card 1: power supplies on 0x07, good 0x06"])
    for line in ("set-gain 0 0 16 0", "set-gain 0 0 0 -1", "set-gain 0 4 0 0", "set-gain 0 -2 0 0", "set-offset 0 0 65536",
                 "get-gain 0 -1", "get-offset 0 4"):
        value, lines = shown(client, "adc-board " + line)
        assert value == -6 and len(lines) == 1, line
    for line in ("get-term 0 -1", "get-revision 0 2", "read-psu 0 2", "set-term 0 2 0 0"):
        assert shown(client, "adc-board " + line)[0] == -3, line


@pytest.mark.parametrize("line, function", [
    ("mdio-set-conn 0 0 1", "plr3_mdio_set_conn"), ("read-mdio 0 0 1 2", "plr3_read_mdio"),
    ("write-mdio 0 0 1 2 3", "plr3_write_mdio"), ("set-ppc-debuglevel 0 0 1", "plr3_set_ppc_debuglevel")])
def test_what_these_cards_have_no_way_to_is_refused_with_a_line(client, line, function):
    value, lines = shown(client, "dma " + line)
    assert value == -1 and len(lines) == 1
    assert lines[0].startswith(f"! ERROR {function}: the control link of these cards does not reach ")


@pytest.mark.parametrize("line", [
    "setup-clocks 9", "dma reset 9 0 0", "dma read-adc-clk 9 0", "dma setup-adc-mmcm 9 0 0 0", "dma reset-adc-mmcm 9 0",
    "dma read-lm82-regs 9 0 0", "dma read-lm82-regs 9 0 7", "dma set-adc-temp 9 0 0", "dma set-int-pack-gap 9 0 0", "dma show-b2b-status 9 0",
    "dma ethernet-status 9 0", "dma toggle-enb 9 0", "dma read-time-stat-a 9 0", "dma print-scope 9 0",
    "dma read-status-block 9 0", "adc-board get-gain 9 0", "adc-board set-gain 9 -1 0 0", "adc-board read-psu 9 0"])
def test_a_path_that_is_not_open_is_refused(client, line):
    value, lines = shown(client, line)
    assert value == -2 and len(lines) == 1 and "invalid path 9" in lines[0], lines


def test_a_real_number_that_cannot_be_read_is_the_status(client, system):
    sim = system("-kind=3v7 -generation=1", 2)
    for line in ("get-clock-period", "measure-freq", "read-adc-temp", "read-mid-plane-temp", "read-fpga-temp"):
        for place, status, text in (("9 0", -2, "invalid path 9"), ("0 2", -3, "illegal card specified (2)")):
            value, lines = real(client, f"dma {line} {place}")
            assert value == status and len(lines) == 1 and text in lines[0], (line, place, value, lines)
    sim.do("control fault 0 refuse times 3")
    for line in ("measure-freq 0 0", "measure-freq 0 0 all", "read-adc-temp 0 0"):
        assert real(client, f"dma {line}")[0] == -5, line


def test_a_card_that_refuses_is_told_with_the_functions_name(client, system):
    sim = system("-kind=3v7 -generation=2")
    for line, function in [("setup-clocks 0", "plr3_clocks_setup_int"), ("dma read-adc-clk 0 0", "plr3_read_adc_clk"),
                           ("adc-board set-gain 0 0 1 1", "plr3_set_gain"), ("dma toggle-enb 0 0", "plr3_toggle_enb"),
                           ("dma show-b2b-status 0 0", "plr3_get_b2b_status"),
                           ("dma set-adc-temp 0 0 50", "plr3_set_adc_temp")]:
        sim.do("control fault 0 refuse")
        value, lines = shown(client, line)
        assert value == -5 and len(lines) == 1 and lines[0].startswith(f"! ERROR {function}: "), lines
