// pulsar3/lib/boards: a card's clocks: the generator that the processing clock comes from, the phases of the clocks behind
// it, and the meter that counts them.
//
// Every generation has its generator elsewhere: 3 and 3V7 on the card's SPI, mini in the clock block, 4 at an I2C device.
// What follows it is the same on all.
#pragma once

#include "pulsar3/lib/paths/system.h"

#include <array>
#include <cstdint>
#include <span>

namespace kestrel {

enum plr3_clock_source : int {
    plr3_clock_internal = 0,
    plr3_clock_external = 1,
    plr3_clock_mid_plane = 2, // what another card drives there
};
enum plr3_clock_flag : int {
    plr3_clock_no_check = 1, // a generator that does not lock is no failure
    plr3_clock_drive = 2,    // this card drives its clock onto the mid-plane
};
inline constexpr int plr3_clock_sources = 3, plr3_clock_flags = 3,
                     plr3_test_pulses = 3; // the last two: highest
inline constexpr int plr3_delay_max = 255;

// 0, or plr3_out_of_range with a text that begins with the function's name.
int plr3_check_clock_setup(const char *function, const ClockSetup &setup);

// Programs the generator of a card, or of each (-1), waits until it has locked (at most a second), starts the phases anew
// with the delays of the card's record, and notes all that and the clock's period: 1.25e-8 s of the internal source, what
// is measured of the others. 0, or a negative status with its text kept.
int plr3_clocks_setup(int path, int card, int clk_src, int flags, int tp_type);
// The generator alone, of one card of that generation, by number.
int plr3_clocks_setup_int(int path, int card, const ClockSetup &setup);
int plr4_clocks_setup_int(int path, int card, const ClockSetup &setup);
int plr3m_clocks_setup_int(int path, int card, const ClockSetup &setup);

// Seconds a tick of the processing clock, or a negative status.
double plr3_get_clock_period(int path, int card);

// The clocks that can be measured.
inline constexpr std::array plr3_clock_names{"processing", "adc", "data-link", "control"};
inline constexpr int plr3_nr_clocks = static_cast<int>(plr3_clock_names.size());
// Hertz, to 100 Hz; 0: it stands still.
int plr3_measure_clock_frequency(int path, int card, int clock, double &hertz);
int plr3_measure_clock_frequency_all(int path, int card, std::span<double, plr3_nr_clocks> hertz);

// The phases of the ADC's and the processing clock: delays in steps, 0..255, of a card or of each (-1).
int plr3_setup_adc_mmcm(int path, int card, int adc_clk_delay, int fpga_clk_delay);
// Starts them anew with the delays that are set, and waits until they have locked.
int plr3_reset_adc_mmcm(int path, int card);

struct adc_clock_state {
    bool locked = false;
    int adc_clk_delay = 0, fpga_clk_delay = 0; // in effect
};
int plr3_read_adc_clk(int path, int card, adc_clock_state &state);

} // namespace kestrel
