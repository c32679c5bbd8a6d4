// What is saved, put into the system; and what of it can be put there.
#include "pulsar3/lib/boards/adc_board.h"
#include "pulsar3/lib/boards/clocks.h"
#include "pulsar3/lib/paths/settings.h"
#include "pulsar3/lib/saved/dead_time_records.h"
#include "pulsar3/lib/saved/item_access.h"

#include <algorithm>

namespace kestrel {

namespace {

using bytes_in = std::span<const std::byte>;

constexpr std::size_t timing_a = 2, num_tf = 9; // words of the globals
constexpr int clock_control = 0;                // the same, of all but generation 4
constexpr std::uint32_t run_bits = 1U << 28 | 1U << 29 | 1U << 31;
constexpr int own_first = 1,
              own_last = plr3_control_words - plr3_feature_words; // what the card lets be written

PLR3Path &card_of(int path, int card) {
    return *plr3_path(plr3_leaf(*plr3_path(path), path, card));
}

int write_region(int path, const saved_item &item, bytes_in bytes) {
    std::vector<std::uint32_t> words = saved_words(bytes);
    const bool control = item.region == 0;
    if (control)
        words = {words.begin() + own_first, words.begin() + own_last};
    const int status = plr3_write_reg(path, item.number, item.region, control ? own_first : 0, words);
    return status == 0 ? 0
                       : plr3_fail(status, "plr3_restore_settings: Cannot write chan %d region %d:%s",
                                   item.number, item.region, plr3_get_error_message());
}

int write_roi(int path, const saved_item &item, bytes_in bytes) {
    const auto table = saved_value<roi_table>(bytes);
    const int status = plr3_set_roi(path, item.number, std::span(table.regions).first(table.count));
    return status == 0 ? 0
                       : plr3_fail(status, "plr3_restore_settings: Cannot write chan %d region %d:%s",
                                   item.number, item.region, plr3_get_error_message());
}

int write_globals(int path, const saved_item &item, bytes_in bytes) {
    std::vector<std::uint32_t> words = saved_words(bytes);
    words[timing_a] &= ~run_bits;
    words[num_tf] = plr3_path(path)->hist_frames_num_tf;
    const int status = plr3_write_card_reg(path, item.number, 0, words);
    return status == 0 ? 0
                       : plr3_fail(status, "plr3_restore_settings: Error writing Global registers %s",
                                   plr3_get_error_message());
}

int write_terminations(int path, const saved_item &item, bytes_in bytes) {
    int status = plr3_set_trig_in_term(path, item.number, saved_value<std::uint32_t>(bytes));
    if (status == 0)
        status = plr3_set_trig_out_term(path, item.number, saved_value<std::uint32_t>(bytes, 4));
    return status == 0 ? 0
                       : plr3_fail(status, "plr3_restore_settings: Error writing terminations : %s",
                                   plr3_get_error_message());
}

int write_dead_times(int path, const saved_item &, bytes_in bytes) {
    for (int card = 0; card < plr3_path(path)->num_cards; ++card)
        for (int chan = 0; chan < plr3_chans_per_card_max; ++chan)
            card_of(path, card).dtc[static_cast<std::size_t>(chan)] =
                get_dead_times(bytes, card * plr3_chans_per_card_max + chan);
    return 0;
}

int write_spi(int path, const saved_item &item, bytes_in bytes) {
    const bool is_gain = item.kind == saved_kind::gain;
    const auto word = saved_value<std::uint16_t>(bytes);
    const int status = is_gain ? plr3_write_gain_word(path, item.number, word)
                               : plr3_write_offset_word(path, item.number, word);
    return status == 0 ? 0
                       : plr3_fail(status, "plr3_restore_settings: Error writing ADC board SPI %s : %s",
                                   is_gain ? "gain" : "offset", plr3_get_error_message());
}

// Generation 4 has the clock control register elsewhere than the globals that are saved.
bool saves_clock_control(int path) {
    return plr3_path(path)->features.generation != PulsarGen4;
}

// A set-up writes its source and test pulse into the clock control register: what was saved of that stays.
int set_clocks_up(int path, const saved_item &item, const ClockSetup &setup) {
    const bool keeps_control = saves_clock_control(path) && !item.is_default;
    std::uint32_t before = 0, after = 0;
    int status = keeps_control ? plr3_read_card_reg(path, item.number, clock_control, {&before, 1}) : 0;
    if (status == 0)
        status = plr3_clocks_setup(path, item.number, setup.clk_src, setup.flags, setup.tp_type);
    if (status == 0 && keeps_control)
        status = plr3_read_card_reg(path, item.number, clock_control, {&after, 1});
    return status != 0 || before == after
               ? status
               : plr3_write_card_reg(path, item.number, clock_control, {&before, 1});
}

int write_clocks(int path, const saved_item &item, bytes_in bytes) {
    const auto setup = saved_value<ClockSetup>(bytes);
    ClockSetup &kept = card_of(path, item.number).clock_setup;
    kept.adc_clk_delay = setup.adc_clk_delay;
    kept.fpga_clk_delay = setup.fpga_clk_delay;
    const int status = set_clocks_up(path, item, setup);
    return status == 0 ? 0
                       : plr3_fail(status, "plr3_restore_settings_and_clock: Cannot setup clocks : %s",
                                   plr3_get_error_message());
}

int write_scope_processors(int path, const saved_item &item, bytes_in bytes) {
    card_of(path, item.number).scope_cpu_set = saved_value<cpu_set_t>(bytes);
    return 0;
}

int write_hist_processors(int path, const saved_item &item, bytes_in bytes) {
    int card_path = 0, chan = 0;
    if (const int status = plr3_resolve_path(path, item.number, card_path, chan); status != 0)
        return status;
    Histogram &h = *plr3_path(card_path)->histogram[static_cast<std::size_t>(chan)];
    const int status = plr3_histogram_set_processors(h, saved_value<cpu_set_t>(bytes));
    return status == 0 ? 0
                       : plr3_fail(status, "plr3_restore_settings: Error setting hists thread affinity %s",
                                   plr3_get_error_message());
}

// Cards that differed when they were saved have each their own again, in the register that is restored before.
int write_sync_mode(int path, const saved_item &, bytes_in bytes) {
    const int mode = saved_value<int>(bytes);
    sync_state state;
    int status = plr3_get_sync_mode(path, state);
    if (status == 0 && state.cards_differ && saves_clock_control(path))
        plr3_path(path)->sync_mode = mode;
    else if (status == 0)
        status = plr3_set_sync_mode(path, mode);
    return status == 0 ? 0
                       : plr3_fail(status, "plr3_restore_settings: Error writing Global registers %s",
                                   plr3_get_error_message());
}

// In the order of saved_kind.
constexpr int (*writers[])(int path, const saved_item &item, bytes_in bytes) = {
    write_region, write_roi,    write_globals,          write_terminations,    write_dead_times, write_spi,
    write_spi,    write_clocks, write_scope_processors, write_hist_processors, write_sync_mode,
};

} // namespace

int plr3_write_item(int path, const saved_item &item, bytes_in bytes) {
    return writers[static_cast<std::size_t>(item.kind)](path, item, bytes);
}

bool plr3_item_is_sound(const saved_item &item, bytes_in bytes) {
    constexpr const char *name = "plr3_restore_settings";
    switch (item.kind) {
    case saved_kind::roi:
        return plr3_roi_is_sound(saved_value<roi_table>(bytes));
    case saved_kind::dead_times:
        return dead_times_are_sound(bytes);
    case saved_kind::clocks:
        return plr3_check_clock_setup(name, saved_value<ClockSetup>(bytes)) == 0;
    case saved_kind::sync_mode:
        return plr3_check_field(name,
                                {plr3_register_field("clock-control", "sync"), saved_value<int>(bytes)}) == 0;
    default:
        return true;
    }
}

namespace {

void keep_globals(std::span<std::byte> bytes) {
    std::vector<std::uint32_t> words = saved_words(bytes);
    words[timing_a] &= ~run_bits;
    words[num_tf] = 0;
    save_words(bytes, words);
}

void keep_control(std::span<std::byte> bytes) {
    std::vector<std::uint32_t> words = saved_words(bytes);
    std::fill_n(words.begin(), own_first, 0U);
    std::fill(words.begin() + own_last, words.end(), 0U);
    save_words(bytes, words);
}

void keep_roi(std::span<std::byte> bytes) {
    auto table = saved_value<roi_table>(bytes);
    std::fill(table.regions.begin() + table.count, table.regions.end(), roi_region{});
    save_value(bytes, table);
}

} // namespace

void plr3_keep_restored(const saved_item &item, std::span<std::byte> bytes) {
    if (item.kind == saved_kind::globals)
        keep_globals(bytes);
    else if (item.kind == saved_kind::region && item.region == 0)
        keep_control(bytes);
    else if (item.kind == saved_kind::roi)
        keep_roi(bytes);
    else if (item.kind == saved_kind::dead_times)
        clear_dead_time_gaps(bytes);
}

} // namespace kestrel
