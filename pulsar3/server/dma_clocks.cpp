// `pulsar3 dma`: the clocks of a card: phases, frequencies, period.
#include "parser/qualifiers.h"
#include "pulsar3/lib/boards/clocks.h"
#include "pulsar3/server/commands.h"
#include "server/output.h"

namespace kestrel {

namespace {

constexpr pt_format read_adc_clk_format("%d %d = %d");

// The result is 1 while the clocks are locked.
int pulsar3_dma_read_adc_clk(int, int cn, int path, int card) {
    adc_clock_state state;
    if (const int status = plr3_read_adc_clk(path, card, state); status != 0)
        return pulsar3_status(cn, status);
    sv_printf(cn, "# Card %d: %s, ADC clock delay %d, FPGA clock delay %d\n", card,
              state.locked ? "locked" : "not locked", state.adc_clk_delay, state.fpga_clk_delay);
    return state.locked ? 1 : 0;
}

constexpr pt_format setup_adc_mmcm_format("%d %d %d %d = %d");

int pulsar3_dma_setup_adc_mmcm(int, int cn, int path, int card, int adc_delay, int fpga_delay) {
    return pulsar3_status(cn, plr3_setup_adc_mmcm(path, card, adc_delay, fpga_delay));
}

constexpr pt_format reset_adc_mmcm_format("%d %d = %d");

int pulsar3_dma_reset_adc_mmcm(int, int cn, int path, int card) {
    return pulsar3_status(cn, plr3_reset_adc_mmcm(path, card));
}

void print_frequency(int cn, int clock, double hertz) {
    sv_printf(cn, "# clock %d (%s): %.6f MHz\n", clock, plr3_clock_names[static_cast<std::size_t>(clock)],
              hertz / 1e6);
}

constexpr pt_format measure_freq_format("%d %d + %d all = %g");

// Hertz; the status after an error line. Of all: the processing clock's.
double pulsar3_dma_measure_freq(int quals, int cn, int path, int card, int clock) {
    std::array<double, plr3_nr_clocks> hertz{};
    if (pt_qualifiers<measure_freq_format>(quals).given("all")) {
        if (const int status = plr3_measure_clock_frequency_all(path, card, hertz); status != 0)
            return pulsar3_status(cn, status);
        for (int one = 0; one < plr3_nr_clocks; ++one)
            print_frequency(cn, one, hertz[static_cast<std::size_t>(one)]);
        return hertz[0];
    }
    if (const int status = plr3_measure_clock_frequency(path, card, clock, hertz[0]); status != 0)
        return pulsar3_status(cn, status);
    print_frequency(cn, clock, hertz[0]);
    return hertz[0];
}

constexpr pt_format get_clock_period_format("%d + %d = %g");

double pulsar3_dma_get_clock_period(int, int cn, int path, int card) {
    const double period = plr3_get_clock_period(path, card);
    return period > 0 ? period : pulsar3_status(cn, static_cast<int>(period));
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_dma_read_adc_clk = pt_command<pulsar3_dma_read_adc_clk>(
    "read-adc-clk", read_adc_clk_format, "Read the phases of a card's clocks", "Path/Card");

extern constinit const PARSE_TREE row_pulsar3_dma_setup_adc_mmcm = pt_command<pulsar3_dma_setup_adc_mmcm>(
    "setup-adc-mmcm", setup_adc_mmcm_format, "Set the phases of a card's clocks, for the next reset of them",
    "Path/Card, -1 for all/Delay of the ADC clock, 0 to 255/Delay of the FPGA clock, 0 to 255");

extern constinit const PARSE_TREE row_pulsar3_dma_reset_adc_mmcm = pt_command<pulsar3_dma_reset_adc_mmcm>(
    "reset-adc-mmcm", reset_adc_mmcm_format, "Start the phases of a card's clocks anew",
    "Path/Card, -1 for all");

extern constinit const PARSE_TREE row_pulsar3_dma_measure_freq = pt_command<pulsar3_dma_measure_freq>(
    "measure-freq", measure_freq_format, "Measure the frequency of a clock, hertz",
    "Path/Card/Clock, 0 processing, 1 ADC, 2 data link, 3 control/List all of them");

extern constinit const PARSE_TREE row_pulsar3_dma_get_clock_period = pt_command<pulsar3_dma_get_clock_period>(
    "get-clock-period", get_clock_period_format, "Get the period of the processing clock, seconds",
    "Path/Card, 0 if not given");

} // namespace kestrel
