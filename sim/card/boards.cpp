#include "sim/card/boards.h"

#include "sim/card/card.h"

namespace kestrel {

namespace {

// Words of the card's SPI.
constexpr std::uint32_t hold = 0x00, control = 0x01, status = 0x02; // generator of generations 3 and 3V7
constexpr std::uint32_t references = 0x08;                          // present: a bit a source
constexpr std::uint32_t reference_edges = 0x09; // of the two that are not internal, in 10 ms
constexpr std::uint32_t adc_revision = 0x23, psu_cont = 0x24;
constexpr std::uint32_t mmcm_delays = 0x30, mmcm_reset = 0x32, mmcm_status = 0x33;
constexpr std::uint32_t meter = 0x40; // edges in 10 ms: processing, ADC, data link, control

// Generation 4's generator: bytes of the chip.
constexpr std::uint32_t chip = 0x58, chip_control = 0x10, chip_apply = 0x13, chip_status = 0x14;
// The mini model's: words of the clock block.
constexpr std::uint32_t block_control = 0x100, block_start = 0x103, block_status = 0x104;

// Sensors' registers that are read elsewhere than they are written.
constexpr struct {
    std::size_t written, read;
} sensor_registers[] = {{0x09, 0x03}, {0x0b, 0x05}, {0x0d, 0x07}, {0x5a, 0x42}};
constexpr std::uint8_t limit_at_first = 127;

constexpr std::uint32_t lanes = 4, lane_words = 0x400; // of transceivers: loopback, state

std::uint32_t edges_of_own() {
    return static_cast<std::uint32_t>(cards.clock / 100);
}

// The generator runs from this source, if that is there.
void run_generator(card &c, std::uint32_t source) {
    sparse_words &spi = c.words(card_target::spi);
    const bool locked = source < 3 && (spi.get(references) >> source & 1) != 0;
    spi.set(status, locked ? 1 : 0);
    c.i2c[chip][chip_status] = locked ? 1 : 0;
    c.words(card_target::dma_block).set(block_status, locked ? 1 : 0);
    const std::uint32_t edges = !locked ? 0 : source == 0 ? edges_of_own() : spi.get(reference_edges);
    spi.set(meter, edges);
    spi.set(meter + 1, edges);
}

void reset_phases(card &c) {
    sparse_words &spi = c.words(card_target::spi);
    const bool locked = spi.get(status) != 0 && (spi.get(mmcm_reset) & 1) == 0;
    spi.set(mmcm_status,
            (locked ? 1u : 0u) | (spi.get(mmcm_delays) & 255) << 8 | (spi.get(mmcm_delays + 1) & 255) << 16);
}

void spi_written(card &c, std::uint32_t first, std::size_t items) {
    const auto holds = [&](std::uint32_t word) { return word >= first && word < first + items; };
    sparse_words &spi = c.words(card_target::spi);
    const bool own = !c.kind->local_globals && !c.kind->mini;
    if (own && holds(hold) && spi.get(hold) == 0)
        run_generator(c, spi.get(control) & 3);
    if (holds(mmcm_reset))
        reset_phases(c);
}

// The run's first byte goes to the register in bits 8 to 15.
void i2c_written(card &c, std::uint32_t address, std::size_t items) {
    const std::uint32_t device = address & 255, first = address >> 8 & 255;
    std::array<std::uint8_t, 256> &registers = c.i2c[device];
    if (device == chip) {
        if (c.kind->local_globals && first <= chip_apply && chip_apply < first + items &&
            registers[chip_apply] != 0)
            run_generator(c, registers[chip_control]);
        return;
    }
    for (const auto &[written, read] : sensor_registers)
        if (first <= written && written < first + items)
            registers[read] = registers[written];
}

} // namespace

void boards_power_up(card &c) {
    sparse_words &spi = c.words(card_target::spi);
    spi.set(references, 0b101); // nothing at the external input
    spi.set(reference_edges, edges_of_own());
    spi.set(adc_revision, 3);
    spi.set(psu_cont, 0x000f000f);
    spi.set(meter + 2, 1562500);
    spi.set(meter + 3, 1250000);
    run_generator(c, 0);
    reset_phases(c);
    for (auto &[device, registers] : c.i2c)
        if (device != chip)
            registers[0x05] = registers[0x07] = registers[0x42] = limit_at_first;
}

void boards_written(card &c, card_target target, std::uint32_t address, std::size_t items) {
    switch (target) {
    case card_target::spi:
        return spi_written(c, address, items);
    case card_target::i2c:
        if ((address & card_i2c_with_register) != 0)
            i2c_written(c, address, items);
        return;
    case card_target::dma_block: {
        const std::uint32_t first = address / 4;
        sparse_words &block = c.words(target);
        if (c.kind->mini && first <= block_start && block_start < first + items &&
            block.get(block_start) != 0)
            run_generator(c, block.get(block_control));
        return;
    }
    case card_target::mgt_drp: // nobody is at the other end: a lane is up that hears itself
        for (std::uint32_t lane = 0; lane < lanes; ++lane) {
            sparse_words &words = c.words(target);
            words.set(lane * lane_words + 1, words.get(lane * lane_words) != 0 ? 1 : 0);
        }
        return;
    default:
        return;
    }
}

} // namespace kestrel
