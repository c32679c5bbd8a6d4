#include "pulsar3/lib/boards/adc_board.h"

#include "pulsar3/lib/boards/board_bus.h"
#include "pulsar3/lib/boards/board_map.h"
#include "pulsar3/lib/registers/bits.h"

namespace kestrel {

namespace {

int check_channels(const char *function, int path, int first, int number) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    if (first < 0 || number < 1 || first >= p->num_chan || number > p->num_chan - first)
        return plr3_fail(plr3_out_of_range, "%s: channels %d for %d are out of range 0..%d", function, first,
                         number, p->num_chan - 1);
    return 0;
}

// The same word to a device of each of these channels.
int write_channels(const char *function, int path, int first, int number, std::uint32_t device,
                   std::uint32_t word) {
    if (const int status = check_channels(function, path, first, number); status != 0)
        return status;
    for (int chan = first; chan < first + number; ++chan)
        if (const int status = plr3_write_chan_spi(function, path, chan, device, word); status != 0)
            return status;
    return 0;
}

int read_word(const char *function, int path, int chan, std::uint32_t device, std::uint16_t &word) {
    std::uint32_t whole = 0;
    const int status = plr3_read_chan_spi(function, path, chan, device, whole);
    if (status == 0)
        word = static_cast<std::uint16_t>(whole);
    return status;
}

int set_card_word(const char *function, int path, int card, std::uint32_t address, std::uint32_t word) {
    return plr3_each_card(function, path, card, [&](int one) {
        return plr3_board_set(function, path, one, board_bus::card_spi, address, word);
    });
}

int get_card_word(const char *function, int path, int card, std::uint32_t address, std::uint32_t &word) {
    return plr3_board_read(function, path, card, board_bus::card_spi, address, {&word, 1});
}

} // namespace

int plr3_set_gain(int path, int first_chan, int num_chan, int stage1, int stage2) {
    if (plr3_path(path))
        for (const int stage : {stage1, stage2})
            if (stage < 0 || stage > plr3_gain_max)
                return plr3_fail(plr3_out_of_range, "plr3_set_gain: a gain of %d is out of range 0..%d",
                                 stage, plr3_gain_max);
    const auto word = static_cast<std::uint32_t>(stage1 | stage2 << 4);
    return write_channels("plr3_set_gain", path, first_chan, num_chan, board_map::chan_gain, word);
}

int plr3_get_gain(int path, int first_chan, std::span<int> stage1, std::span<int> stage2) {
    if (const int status = check_channels("plr3_get_gain", path, first_chan, static_cast<int>(stage1.size()));
        status != 0)
        return status;
    for (std::size_t i = 0; i < stage1.size(); ++i) {
        std::uint16_t word = 0;
        if (const int status = plr3_read_gain_word(path, first_chan + static_cast<int>(i), word); status != 0)
            return status;
        stage1[i] = static_cast<int>(plr3_bits(word, 0, 3));
        stage2[i] = static_cast<int>(plr3_bits(word, 4, 7));
    }
    return 0;
}

int plr3_set_offset(int path, int first_chan, int num_chan, int offset) {
    if (plr3_path(path) && (offset < 0 || offset > 65535))
        return plr3_fail(plr3_out_of_range, "plr3_set_offset: an offset of %d is out of range 0..65535",
                         offset);
    return write_channels("plr3_set_offset", path, first_chan, num_chan, board_map::chan_offset,
                          static_cast<std::uint32_t>(offset));
}

int plr3_get_offset(int path, int first_chan, std::span<int> offset) {
    if (const int status =
            check_channels("plr3_get_offset", path, first_chan, static_cast<int>(offset.size()));
        status != 0)
        return status;
    for (std::size_t i = 0; i < offset.size(); ++i) {
        std::uint16_t word = 0;
        if (const int status = plr3_read_offset_word(path, first_chan + static_cast<int>(i), word);
            status != 0)
            return status;
        offset[i] = word;
    }
    return 0;
}

int plr3_write_gain_word(int path, int chan, std::uint16_t word) {
    return plr3_write_chan_spi("plr3_write_gain_word", path, chan, board_map::chan_gain, word);
}
int plr3_read_gain_word(int path, int chan, std::uint16_t &word) {
    return read_word("plr3_read_gain_word", path, chan, board_map::chan_gain, word);
}
int plr3_write_offset_word(int path, int chan, std::uint16_t word) {
    return plr3_write_chan_spi("plr3_write_offset_word", path, chan, board_map::chan_offset, word);
}
int plr3_read_offset_word(int path, int chan, std::uint16_t &word) {
    return read_word("plr3_read_offset_word", path, chan, board_map::chan_offset, word);
}

int plr3_set_trig_in_term(int path, int card, std::uint32_t flags) {
    return set_card_word("plr3_set_trig_in_term", path, card, board_map::trig_in_term, flags);
}
int plr3_get_trig_in_term(int path, int card, std::uint32_t &flags) {
    return get_card_word("plr3_get_trig_in_term", path, card, board_map::trig_in_term, flags);
}
int plr3_set_trig_out_term(int path, int card, std::uint32_t flags) {
    return set_card_word("plr3_set_trig_out_term", path, card, board_map::trig_out_term, flags);
}
int plr3_get_trig_out_term(int path, int card, std::uint32_t &flags) {
    return get_card_word("plr3_get_trig_out_term", path, card, board_map::trig_out_term, flags);
}

int plr3_set_ignore_over_temp(int path, int card, bool ignore) {
    return set_card_word("plr3_set_ignore_over_temp", path, card, board_map::ignore_over_temp,
                         ignore ? 1 : 0);
}

int plr3_read_adc_revision(int path, int card, std::uint32_t &revision) {
    return get_card_word("plr3_read_adc_revision", path, card, board_map::adc_revision, revision);
}

int plr3_read_psu_cont(int path, int card, psu_state &state) {
    std::uint32_t word = 0;
    const int status = get_card_word("plr3_read_psu_cont", path, card, board_map::psu_cont, word);
    if (status == 0)
        state = {plr3_bits(word, 0, 7), plr3_bits(word, 16, 23)};
    return status;
}

} // namespace kestrel
