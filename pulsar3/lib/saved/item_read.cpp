// What the system has now, as it is saved.
#include "pulsar3/lib/boards/adc_board.h"
#include "pulsar3/lib/paths/access.h"
#include "pulsar3/lib/paths/settings.h"
#include "pulsar3/lib/saved/dead_time_records.h"
#include "pulsar3/lib/saved/item_access.h"

namespace kestrel {

namespace {

using bytes_out = std::span<std::byte>;

const PLR3Path &card_of(int path, int card) {
    return *plr3_path(plr3_leaf(*plr3_path(path), path, card));
}

int read_region(int path, const saved_item &item, bytes_out bytes) {
    std::vector<std::uint32_t> words(bytes.size() / sizeof(std::uint32_t));
    const int status = plr3_read_reg(path, item.number, item.region, 0, words);
    if (status != 0)
        return plr3_fail(status, "plr3_save_settings: Cannot read chan %d region %d:%s", item.number,
                         item.region, plr3_get_error_message());
    save_words(bytes, words);
    return 0;
}

int read_roi(int path, const saved_item &item, bytes_out bytes) {
    roi_table table;
    const int status = plr3_get_roi(path, item.number, table);
    if (status == 0)
        save_value(bytes, table);
    return status;
}

int read_globals(int path, const saved_item &item, bytes_out bytes) {
    std::vector<std::uint32_t> words(bytes.size() / sizeof(std::uint32_t));
    const int status = plr3_read_card_reg(path, item.number, 0, words);
    if (status != 0)
        return plr3_fail(status, "plr3_save_settings: Error reading Global registers %s",
                         plr3_get_error_message());
    save_words(bytes, words);
    return 0;
}

int read_terminations(int path, const saved_item &item, bytes_out bytes) {
    std::uint32_t in = 0, out = 0;
    if (const int status = plr3_get_trig_in_term(path, item.number, in); status != 0)
        return plr3_fail(status, "plr3_save_settings: Error reading user input termination : %s",
                         plr3_get_error_message());
    if (const int status = plr3_get_trig_out_term(path, item.number, out); status != 0)
        return plr3_fail(status, "plr3_save_settings: Error reading user output termination : %s",
                         plr3_get_error_message());
    save_value(bytes, in);
    save_value(bytes, out, sizeof in);
    return 0;
}

int read_dead_times(int path, const saved_item &, bytes_out bytes) {
    for (int card = 0; card < plr3_path(path)->num_cards; ++card)
        for (int chan = 0; chan < plr3_chans_per_card_max; ++chan)
            put_dead_times(bytes, card * plr3_chans_per_card_max + chan,
                           card_of(path, card).dtc[static_cast<std::size_t>(chan)]);
    return 0;
}

int read_spi(int path, const saved_item &item, bytes_out bytes) {
    const bool is_gain = item.kind == saved_kind::gain;
    std::uint16_t word = 0;
    const int status = is_gain ? plr3_read_gain_word(path, item.number, word)
                               : plr3_read_offset_word(path, item.number, word);
    if (status != 0)
        return plr3_fail(status, "plr3_save_settings: Error reading ADC board SPI %s : %s",
                         is_gain ? "gain" : "offset", plr3_get_error_message());
    save_value(bytes, word);
    return 0;
}

int read_clocks(int path, const saved_item &item, bytes_out bytes) {
    save_value(bytes, card_of(path, item.number).clock_setup);
    return 0;
}

int read_scope_processors(int path, const saved_item &item, bytes_out bytes) {
    save_value(bytes, card_of(path, item.number).scope_cpu_set);
    return 0;
}

int read_hist_processors(int path, const saved_item &item, bytes_out bytes) {
    int card_path = 0, chan = 0;
    if (const int status = plr3_resolve_path(path, item.number, card_path, chan); status != 0)
        return status;
    save_value(bytes, plr3_path(card_path)->histogram[static_cast<std::size_t>(chan)]->cpu_set);
    return 0;
}

int read_sync_mode(int path, const saved_item &, bytes_out bytes) {
    sync_state state;
    if (const int status = plr3_get_sync_mode(path, state); status != 0)
        return plr3_fail(status, "plr3_save_settings: Error reading Global registers %s",
                         plr3_get_error_message());
    save_value(bytes, state.mode);
    return 0;
}

// In the order of saved_kind.
constexpr int (*readers[])(int path, const saved_item &item, bytes_out bytes) = {
    read_region, read_roi,    read_globals,          read_terminations,    read_dead_times, read_spi,
    read_spi,    read_clocks, read_scope_processors, read_hist_processors, read_sync_mode,
};

} // namespace

int plr3_read_item(int path, const saved_item &item, saved_bytes &bytes) {
    bytes.assign(item.bytes, std::byte{0});
    return readers[static_cast<std::size_t>(item.kind)](path, item, bytes);
}

} // namespace kestrel
