#include "sim/card/card.h"

#include "sim/card/boards.h"

#include <arpa/inet.h>

namespace kestrel {

card_system cards;

namespace {

constexpr std::uint32_t default_format = 12; // 4096 energy bins, nothing auxiliary

// Temperature sensors: degrees of the board in register 0, of a remote diode in register 1.
struct sensor {
    std::uint32_t device;
    std::uint8_t board, diode;
};
constexpr sensor sensors[] = {
    {0x18, 38, 52}, // processing FPGA
    {0x29, 31, 33}, // mid-plane
    {0x48, 41, 44}, // ADC board
    {0x4c, 36, 49}, // link FPGA
};
constexpr std::uint8_t sensor_maker = 1; // register 0xfe
constexpr std::uint32_t clock_chip = 0x58;

void power_up_devices(card &c) {
    c.i2c.clear();
    c.i2c_pointer.clear();
    for (const sensor &s : sensors) {
        std::array<std::uint8_t, 256> &registers = c.i2c[s.device];
        registers.fill(0);
        registers[0] = s.board;
        registers[1] = s.diode;
        registers[0xfe] = sensor_maker;
    }
    c.i2c[clock_chip].fill(0);
    sparse_words &xadc = c.words(card_target::xadc); // 16-bit readings: degrees, core and auxiliary volts
    xadc.set(0, 41372);                              // 45 C
    xadc.set(1, 21845);                              // 1.0 V
    xadc.set(2, 39322);                              // 1.8 V
    sparse_words &fan = c.words(card_target::fan);
    fan.set(0, 50);   // per cent
    fan.set(1, 4200); // turns a minute
}

} // namespace

std::uint32_t card::global(std::uint32_t offset) {
    return kind->local_globals ? words(card_target::local).get(offset)
                               : words(card_target::registers).get(global_block | offset);
}

void card::set_global(std::uint32_t offset, std::uint32_t value) {
    if (kind->local_globals)
        words(card_target::local).set(offset, value);
    else
        words(card_target::registers).set(global_block | offset, value);
}

std::uint32_t card::chan_register(int chan, std::uint32_t offset) {
    return words(card_target::registers).get(static_cast<std::uint32_t>(chan) << 20 | offset);
}

void card_put_constants(card &c) {
    sparse_words &registers = c.words(card_target::registers);
    for (std::uint32_t chan = 0; chan < static_cast<std::uint32_t>(c.channels); ++chan)
        registers.set(chan << 20, c.revision);
    registers.write(card_first_feature, c.features);
}

void card_power_up(card &c) {
    for (sparse_words &s : c.store)
        s.clear();
    c.dma = {};
    c.next_frame = c.frames_ended = 0;
    power_up_devices(c);
    boards_power_up(c);
    card_put_constants(c);
    for (std::uint32_t chan = 0; chan < static_cast<std::uint32_t>(c.channels); ++chan)
        c.words(card_target::registers).set(chan << 20 | chan_format, default_format);
}

std::uint32_t card_address(int last) {
    const auto part = [](int i) {
        return static_cast<std::uint32_t>(cards.base[static_cast<std::size_t>(i)]) & 255;
    };
    return htonl(part(0) << 24 | part(1) << 16 | part(2) << 8 |
                 ((part(3) + static_cast<std::uint32_t>(last)) & 255));
}

} // namespace kestrel
