// The phases of the clocks behind a card's generator.
#include "pulsar3/lib/boards/board_map.h"
#include "pulsar3/lib/boards/clocks.h"
#include "pulsar3/lib/boards/wait_lock.h"
#include "pulsar3/lib/paths/access.h"
#include "pulsar3/lib/registers/bits.h"

namespace kestrel {

namespace {

int reset_card(int path, int card) {
    constexpr const char *name = "plr3_reset_adc_mmcm";
    for (const std::uint32_t level : {1U, 0U})
        if (const int status =
                plr3_board_set(name, path, card, board_bus::card_spi, board_map::mmcm_reset, level);
            status != 0)
            return status;
    return plr3_wait_lock(name, path, card, board_bus::card_spi, board_map::mmcm_status, false);
}

} // namespace

int plr3_setup_adc_mmcm(int path, int card, int adc_clk_delay, int fpga_clk_delay) {
    constexpr const char *name = "plr3_setup_adc_mmcm";
    ClockSetup delays_only;
    delays_only.adc_clk_delay = adc_clk_delay;
    delays_only.fpga_clk_delay = fpga_clk_delay;
    if (plr3_path(path))
        if (const int status = plr3_check_clock_setup(name, delays_only); status != 0)
            return status;
    return plr3_each_card(name, path, card, [&](int one) {
        const std::uint32_t delays[] = {static_cast<std::uint32_t>(adc_clk_delay),
                                        static_cast<std::uint32_t>(fpga_clk_delay)};
        const int status =
            plr3_board_write(name, path, one, board_bus::card_spi, board_map::mmcm_delays, delays);
        if (status != 0)
            return status;
        ClockSetup &kept = plr3_path(plr3_leaf(*plr3_path(path), path, one))->clock_setup;
        kept.adc_clk_delay = adc_clk_delay;
        kept.fpga_clk_delay = fpga_clk_delay;
        return 0;
    });
}

int plr3_reset_adc_mmcm(int path, int card) {
    return plr3_each_card("plr3_reset_adc_mmcm", path, card, [&](int one) { return reset_card(path, one); });
}

int plr3_read_adc_clk(int path, int card, adc_clock_state &state) {
    std::uint32_t word = 0;
    const int status = plr3_board_read("plr3_read_adc_clk", path, card, board_bus::card_spi,
                                       board_map::mmcm_status, {&word, 1});
    if (status == 0)
        state = {plr3_bits(word, 0, 0) != 0, static_cast<int>(plr3_bits(word, 8, 15)),
                 static_cast<int>(plr3_bits(word, 16, 23))};
    return status;
}

} // namespace kestrel
