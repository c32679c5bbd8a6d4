// sim/card: the address spaces behind a card's control link, the same for both protocols. Called under the system's
// lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrel {

struct card;

enum class card_target : std::uint8_t {
    registers, // byte address 4 x (chan << 20 | region << 16 | offset)
    local,     // generation-4 globals
    rdma,
    memory, // histograms, scalers, scope data
    dram,   // playback
    i2c,
    spi,
    chan_spi,
    fan,
    config,
    xadc,
    readout_mode,
    dma_block,
    mgt_drp,
    raw,
    eeprom,
};
inline constexpr std::size_t card_targets = 16;

// A run of items of 1, 2 or 4 bytes from an address on.
struct card_run {
    card_target target;
    std::uint32_t width;
    std::uint32_t address;
};

// Each refuses (false, and nothing has happened) what the target does not take: an item out of range or across a
// boundary, an I2C device that is not there, a write to what can only be read.
bool card_read(card &c, card_run run, std::span<std::uint32_t> items);
bool card_write(card &c, card_run run, std::span<const std::uint32_t> items);
bool card_zero(card &c, card_run run, std::uint32_t items);

inline constexpr std::uint32_t card_i2c_with_register = 0x10000;

} // namespace kestrel
