#include "pulsar3/lib/boards/clocks.h"

#include "pulsar3/lib/boards/board_bus.h"
#include "pulsar3/lib/boards/board_map.h"
#include "pulsar3/lib/boards/wait_lock.h"
#include "pulsar3/lib/paths/access.h"
#include "pulsar3/lib/paths/settings.h"

namespace kestrel {

namespace {

constexpr double meter_gate = 0.01; // seconds

std::uint32_t word(int value) {
    return static_cast<std::uint32_t>(value);
}

std::uint32_t drives(const ClockSetup &setup) {
    return (setup.flags & plr3_clock_drive) != 0 ? 1 : 0;
}

// Source and test pulse in the card's clock control register; its other fields stay.
int write_clock_control(int path, int card, const ClockSetup &setup) {
    const field_value fields[] = {{plr3_register_field("clock-control", "source"), setup.clk_src},
                                  {plr3_register_field("clock-control", "test-pulse"), setup.tp_type}};
    return plr3_change_fields("plr3_clocks_setup", path, card, fields);
}

int program_generator(int path, int card, const ClockSetup &setup) {
    switch (plr3_path(path)->features.generation) {
    case PulsarGen4:
        return plr4_clocks_setup_int(path, card, setup);
    case PulsarGen3Mini:
        return plr3m_clocks_setup_int(path, card, setup);
    default:
        return plr3_clocks_setup_int(path, card, setup);
    }
}

// The internal source has the period that everybody counts with; another may have any.
int find_period(int path, int card, const ClockSetup &setup, double &period) {
    period = plr3_default_clock_period;
    if (setup.clk_src == plr3_clock_internal)
        return 0;
    double hertz = 0;
    const int status = plr3_measure_clock_frequency(path, card, 0, hertz);
    if (status == 0 && hertz > 0)
        period = 1 / hertz;
    return status;
}

// Of the card, and of every path whose first card it is.
void keep_period(int leaf_path, double period) {
    for (int each = 0; each < plr3_max_paths; ++each)
        if (PLR3Path *p = plr3_path(each); p && plr3_leaf(*p, each, 0) == leaf_path)
            p->clock_period = period;
}

int set_up_card(int path, int card, ClockSetup setup) {
    const int leaf_path = plr3_card_path("plr3_clocks_setup", path, card);
    if (leaf_path < 0)
        return leaf_path;
    PLR3Path &leaf = *plr3_path(leaf_path);
    setup.adc_clk_delay = leaf.clock_setup.adc_clk_delay;
    setup.fpga_clk_delay = leaf.clock_setup.fpga_clk_delay;
    if (const int status = program_generator(path, card, setup); status != 0)
        return status;
    if (const int status = write_clock_control(path, card, setup); status != 0)
        return status;
    int status = plr3_setup_adc_mmcm(path, card, setup.adc_clk_delay, setup.fpga_clk_delay);
    if (status == 0 && (setup.flags & plr3_clock_no_check) == 0)
        status = plr3_reset_adc_mmcm(path, card);
    double period = 0;
    if (status == 0)
        status = find_period(path, card, setup, period);
    if (status != 0)
        return status;
    leaf.clock_setup = setup;
    keep_period(leaf_path, period);
    return 0;
}

} // namespace

int plr3_check_clock_setup(const char *function, const ClockSetup &s) {
    const struct {
        const char *what;
        int value, highest;
    } limits[] = {
        {"clock source", s.clk_src, plr3_clock_sources - 1},
        {"flags", s.flags, plr3_clock_flags},
        {"test pulse", s.tp_type, plr3_test_pulses},
        {"ADC clock delay", s.adc_clk_delay, plr3_delay_max},
        {"FPGA clock delay", s.fpga_clk_delay, plr3_delay_max},
    };
    for (const auto &[what, value, highest] : limits)
        if (value < 0 || value > highest)
            return plr3_fail(plr3_out_of_range, "%s: %s %d is out of range 0..%d", function, what, value,
                             highest);
    return 0;
}

int plr3_clocks_setup_int(int path, int card, const ClockSetup &setup) {
    constexpr const char *name = "plr3_clocks_setup_int";
    namespace map = board_map;
    const std::uint32_t control = word(setup.clk_src) | word(setup.tp_type) << 4 | drives(setup) << 8;
    for (const auto &[address, value] :
         {std::pair{map::generator_hold, 1U}, {map::generator_control, control}, {map::generator_hold, 0U}})
        if (const int status = plr3_board_set(name, path, card, board_bus::card_spi, address, value);
            status != 0)
            return status;
    return plr3_wait_lock(name, path, card, board_bus::card_spi, map::generator_status,
                          (setup.flags & plr3_clock_no_check) != 0);
}

int plr4_clocks_setup_int(int path, int card, const ClockSetup &setup) {
    constexpr const char *name = "plr4_clocks_setup_int";
    namespace map = board_map;
    const std::uint32_t control[] = {word(setup.clk_src), word(setup.tp_type), drives(setup)};
    int status = plr3_board_write(name, path, card, board_bus::i2c,
                                  map::chip_control << 8 | map::generator_device, control);
    if (status == 0)
        status =
            plr3_board_set(name, path, card, board_bus::i2c, map::chip_apply << 8 | map::generator_device, 1);
    if (status != 0)
        return status;
    return plr3_wait_lock(name, path, card, board_bus::i2c, map::chip_status << 8 | map::generator_device,
                          (setup.flags & plr3_clock_no_check) != 0);
}

int plr3m_clocks_setup_int(int path, int card, const ClockSetup &setup) {
    constexpr const char *name = "plr3m_clocks_setup_int";
    const std::uint32_t control[] = {word(setup.clk_src), word(setup.tp_type), drives(setup), 1};
    if (const int status =
            plr3_board_write(name, path, card, board_bus::clock_block, board_map::block_control, control);
        status != 0)
        return status;
    return plr3_wait_lock(name, path, card, board_bus::clock_block, board_map::block_status,
                          (setup.flags & plr3_clock_no_check) != 0);
}

int plr3_clocks_setup(int path, int card, int clk_src, int flags, int tp_type) {
    ClockSetup setup;
    setup.clk_src = clk_src;
    setup.flags = flags;
    setup.tp_type = tp_type;
    if (plr3_path(path))
        if (const int status = plr3_check_clock_setup("plr3_clocks_setup", setup); status != 0)
            return status;
    return plr3_each_card("plr3_clocks_setup", path, card,
                          [&](int one) { return set_up_card(path, one, setup); });
}

double plr3_get_clock_period(int path, int card) {
    const int leaf = plr3_card_path("plr3_get_clock_period", path, card);
    return leaf < 0 ? leaf : plr3_path(leaf)->clock_period;
}

int plr3_measure_clock_frequency(int path, int card, int clock, double &hertz) {
    constexpr const char *name = "plr3_measure_clock_frequency";
    if (plr3_path(path) && (clock < 0 || clock >= plr3_nr_clocks))
        return plr3_fail(plr3_out_of_range, "%s: clock %d is out of range 0..%d", name, clock,
                         plr3_nr_clocks - 1);
    std::uint32_t edges = 0;
    const int status = plr3_board_read(name, path, card, board_bus::card_spi,
                                       board_map::clock_meter + word(clock), {&edges, 1});
    if (status == 0)
        hertz = edges / meter_gate;
    return status;
}

int plr3_measure_clock_frequency_all(int path, int card, std::span<double, plr3_nr_clocks> hertz) {
    for (int clock = 0; clock < plr3_nr_clocks; ++clock)
        if (const int status =
                plr3_measure_clock_frequency(path, card, clock, hertz[static_cast<std::size_t>(clock)]);
            status != 0)
            return status;
    return 0;
}

} // namespace kestrel
