// pulsar3/lib/boards: which word of which device is what, for the files of this folder only. The manual has the same list.
#pragma once

#include <cstdint>

namespace kestrel::board_map {

// Clock generator of generations 3 and 3V7: words of the card's SPI.
inline constexpr std::uint32_t generator_hold = 0x00;    // 1: held, may be programmed
inline constexpr std::uint32_t generator_control = 0x01; // source 0-1, test pulse 4-5, drive 8
inline constexpr std::uint32_t generator_status = 0x02;  // bit 0 locked
// Of generation 4: bytes of an I2C device.
inline constexpr std::uint32_t generator_device = 0x58;
inline constexpr std::uint32_t chip_control = 0x10; // source, test pulse, drive: three bytes
inline constexpr std::uint32_t chip_apply = 0x13;   // 1: takes what was written
inline constexpr std::uint32_t chip_status = 0x14;  // bit 0 locked
// Of the mini model: words of the clock block.
inline constexpr std::uint32_t block_control = 0x100; // source, test pulse, drive, start: four words
inline constexpr std::uint32_t block_status = 0x104;  // bit 0 locked

// Words of the card's SPI, every generation.
inline constexpr std::uint32_t trig_in_term = 0x20;
inline constexpr std::uint32_t trig_out_term = 0x21;
inline constexpr std::uint32_t ignore_over_temp = 0x22; // bit 0
inline constexpr std::uint32_t adc_revision = 0x23;
inline constexpr std::uint32_t psu_cont = 0x24;    // supplies switched on 0-7, good 16-23
inline constexpr std::uint32_t mmcm_delays = 0x30; // ADC, processing: two words
inline constexpr std::uint32_t mmcm_reset = 0x32;  // bit 0
inline constexpr std::uint32_t mmcm_status = 0x33; // locked 0, delays in effect 8-15 and 16-23
inline constexpr std::uint32_t clock_meter = 0x40; // edges in 10 ms, a word a clock

// Words of a channel's SPI.
inline constexpr std::uint32_t chan_gain = 0; // stage 1 0-3, stage 2 4-7
inline constexpr std::uint32_t chan_offset = 1;

} // namespace kestrel::board_map
