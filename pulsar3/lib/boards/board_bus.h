// pulsar3/lib/boards: the boards of a card beside its processing channels: clocks, ADC boards, sensors, links to its
// neighbours. This file is how their devices are reached, by path and card; the others say what their words mean.
//
// All calls return 0, or a negative status with its text kept, which begins with the function's name that is passed in. A
// dummy keeps what is written to it.
#pragma once

#include "pulsar3/lib/paths/system.h"

#include <cstdint>
#include <span>

namespace kestrel {

enum class board_bus {
    card_spi,    // words
    channel_spi, // words; channel of the card << 8 | device
    i2c,         // bytes, one in a word each; register << 8 | device
    clock_block, // words, newer protocol only
    mgt,         // words of the transceivers, newer protocol only
    data_link,   // words
};

int plr3_board_write(const char *function, int path, int card, board_bus bus, std::uint32_t address,
                     std::span<const std::uint32_t> words);
int plr3_board_read(const char *function, int path, int card, board_bus bus, std::uint32_t address,
                    std::span<std::uint32_t> words);

inline int plr3_board_set(const char *function, int path, int card, board_bus bus, std::uint32_t address,
                          std::uint32_t word) {
    return plr3_board_write(function, path, card, bus, address, {&word, 1});
}

// A word of a device of one channel, by its number in the system.
int plr3_write_chan_spi(const char *function, int path, int chan, std::uint32_t device, std::uint32_t word);
int plr3_read_chan_spi(const char *function, int path, int chan, std::uint32_t device, std::uint32_t &word);

// step(card) for one card, or with -1 for every card of the path, up to the first that fails.
template <class F> int plr3_each_card(const char *function, int path, int card, F step) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    if (card < -1 || card >= p->num_cards)
        return plr3_fail(plr3_illegal_card, "%s: illegal card specified (%d)", function, card);
    const int first = card < 0 ? 0 : card, end = card < 0 ? p->num_cards : card + 1;
    for (int one = first; one < end; ++one)
        if (const int status = step(one); status != 0)
            return status;
    return 0;
}

} // namespace kestrel
