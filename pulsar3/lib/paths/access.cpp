#include "pulsar3/lib/paths/access.h"

#include <algorithm>
#include <array>

namespace kestrel {

namespace {

using words_in = std::span<const std::uint32_t>;
using words_out = std::span<std::uint32_t>;

// A path that is not open is refused later, as itself.
int check_range(const char *function, int path, int region, int offset, std::size_t words) {
    if (!plr3_path(path))
        return 0;
    if (region < 0 || region >= plr3_max_regions)
        return plr3_fail(plr3_out_of_range, "%s: region %d is out of range 0..%d", function, region,
                         plr3_max_regions - 1);
    if (offset < 0 || offset >= plr3_region_words ||
        words > static_cast<std::size_t>(plr3_region_words - offset))
        return plr3_fail(plr3_out_of_range, "%s: %zu words at offset 0x%x reach past the region's %d",
                         function, words, static_cast<unsigned>(offset), plr3_region_words);
    return 0;
}

// ---- one card

int write_card(PLR3Path &card, int chan, int region, int offset, words_in values) {
    if (card.femHandle)
        return pulsar3FemSetIntArray(*card.femHandle, chan, region, offset, values);
    card.dummy.write(dummy_space::registers, dummy_register(chan, region, offset), values);
    return 0;
}

int read_card(PLR3Path &card, int chan, int region, int offset, words_out values) {
    if (card.femHandle)
        return pulsar3FemGetIntArray(*card.femHandle, chan, region, offset, values);
    card.dummy.read(dummy_space::registers, dummy_register(chan, region, offset), values);
    return 0;
}

int rmw_dummy(PLR3Path &card, dummy_space space, std::uint32_t address, std::uint32_t mask,
              std::uint32_t value, std::uint32_t &result) {
    card.dummy.read(space, address, {&result, 1});
    result = (result & mask) | value;
    card.dummy.write(space, address, {&result, 1});
    return 0;
}

int rmw_card(PLR3Path &card, int chan, int region, int offset, std::uint32_t mask, std::uint32_t value,
             std::uint32_t &result) {
    if (card.femHandle)
        return pulsar3FemRMW(*card.femHandle, chan, region, offset, mask, value, result);
    return rmw_dummy(card, dummy_space::registers, dummy_register(chan, region, offset), mask, value, result);
}

int write_local(PLR3Path &card, int offset, words_in values) {
    if (card.femHandle)
        return pulsar3FemLocalWrite(*card.femHandle, offset, values);
    card.dummy.write(dummy_space::local, static_cast<std::uint32_t>(offset), values);
    return 0;
}

int read_local(PLR3Path &card, int offset, words_out values) {
    if (card.femHandle)
        return pulsar3FemLocalRead(*card.femHandle, offset, values);
    card.dummy.read(dummy_space::local, static_cast<std::uint32_t>(offset), values);
    return 0;
}

int rmw_local(PLR3Path &card, int offset, std::uint32_t mask, std::uint32_t value, std::uint32_t &result) {
    if (card.femHandle)
        return pulsar3FemLocalRMW(*card.femHandle, offset, mask, value, result);
    return rmw_dummy(card, dummy_space::local, static_cast<std::uint32_t>(offset), mask, value, result);
}

// ---- one channel, or all of a path

int told(const char *function, int offset, int status) {
    if (status == 0)
        return 0;
    return plr3_fail(status, "%s: at offset 0x%x array of values: returns %d", function,
                     static_cast<unsigned>(offset), status);
}

// access(card's record, channel on it)
template <class F> int for_channel(const char *function, int path, int chan, int offset, F access) {
    int card_path = 0, chan_of_card = 0;
    if (const int status = plr3_resolve_path(path, chan, card_path, chan_of_card); status != 0)
        return status;
    return told(function, offset, access(Plr3Sys[static_cast<std::size_t>(card_path)], chan_of_card));
}

template <class F> int for_channels(const char *function, int path, int chan, int offset, F access) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    if (chan < -1 || chan >= p->num_chan)
        return plr3_fail(plr3_failed, "%s: illegal channel specified (%d)", function, chan);
    if (chan >= 0)
        return for_channel(function, path, chan, offset, access);
    int status = 0;
    for (int each = 0; each < p->num_chan; ++each) {
        status = for_channel(function, path, each, offset, access);
        if (status != 0 && plr3_interrupted()) // each of them may be waited for
            return status;
        if (each < p->num_chan - 1)
            plr3_tell_failure(path, status, "channel", each);
    }
    return status;
}

// Every channel of a card: the status of the last. One that is refused before is told, and the next is written.
int write_channels_of(int path, int card, int region, int offset, words_in values) {
    const PLR3Path &top = *plr3_path(path);
    PLR3Path &leaf = *plr3_path(plr3_leaf(top, path, card));
    const bool is_last = leaf.chan_of_system - top.chan_of_system + leaf.num_chan >= top.num_chan;
    std::array<int, fem_max_chan> statuses{};
    const int status =
        told("plr3_write_reg", offset,
             pulsar3FemSetIntChans(*leaf.femHandle, 0, leaf.num_chan, region, offset, values, statuses));
    if (status != 0 && !is_last)
        plr3_tell_failure(path, status, "card", card);
    if (status != 0)
        return status;
    int of_last = 0;
    for (int chan = 0; chan < leaf.num_chan; ++chan) {
        of_last = told("plr3_write_reg", offset, statuses[static_cast<std::size_t>(chan)]);
        if (!is_last || chan < leaf.num_chan - 1)
            plr3_tell_failure(path, of_last, "channel", leaf.chan_of_system + chan);
    }
    return of_last;
}

// The writes to a card are on their way together.
int write_all_channels(int path, int region, int offset, words_in values) {
    const PLR3Path &top = *plr3_path(path);
    int status = 0;
    for (int card = 0; card < top.num_cards; ++card) {
        PLR3Path *leaf = plr3_path(plr3_leaf(top, path, card));
        if (!leaf || leaf->num_chan == 0)
            continue;
        if (leaf->femHandle) {
            status = write_channels_of(path, card, region, offset, values);
            continue;
        }
        for (int chan = 0; chan < leaf->num_chan; ++chan)
            status = write_card(*leaf, chan, region, offset, values);
    }
    return status;
}

// ---- one card, or all of a path

// access(card's record)
template <class F>
int for_cards(const char *function, int path, int card, int offset, bool generation4, F access) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    if ((p->features.generation == PulsarGen4) != generation4)
        return plr3_fail(plr3_invalid_path, "%s: Called on None Pulsar%d generation system at offset %d",
                         function, generation4 ? 4 : 3, offset);
    if (card < -1 || card >= p->num_cards)
        return plr3_fail(plr3_illegal_card, "%s: illegal card specified (%d)", function, card);
    int status = 0;
    const int first = std::max(card, 0), last = card < 0 ? p->num_cards - 1 : card;
    for (int each = first; each <= last; ++each) {
        const int leaf = plr3_leaf(*p, path, each);
        if (leaf < 0)
            return plr3_fail(plr3_illegal_sub_path, "%s: resolved illegal sub path (path=%d)", function,
                             leaf);
        status = told(function, offset, access(Plr3Sys[static_cast<std::size_t>(leaf)]));
        if (status != 0 && plr3_interrupted())
            return status;
        if (each < last)
            plr3_tell_failure(path, status, "card", each);
    }
    return status;
}

bool is_generation4(int path) {
    const PLR3Path *p = plr3_path(path);
    return p && p->features.generation == PulsarGen4;
}

// The local bus of a generation-4 card has more words than a region.
constexpr int local_words = 1 << 24;

int check_local(const char *function, int path, int offset, std::size_t words) {
    if (!plr3_path(path))
        return 0;
    if (offset >= 0 && offset < local_words && words <= static_cast<std::size_t>(local_words - offset))
        return 0;
    return plr3_fail(plr3_out_of_range, "%s: %zu words at offset 0x%x reach past the card's %d", function,
                     words, static_cast<unsigned>(offset), local_words);
}

} // namespace

void plr3_tell_failure(int path, int status, const char *unit, int number) {
    if (status != 0)
        plr3_message(plr3_path(path)->message_to, "%s for %s %d\n", plr3_get_error_message(), unit, number);
}

int plr3_write_reg(int path, int chan, int region, int offset, words_in values) {
    constexpr const char *name = "plr3_write_reg";
    if (const int status = check_range(name, path, region, offset, values.size()); status != 0)
        return status;
    if (chan == -1 && plr3_path(path))
        return write_all_channels(path, region, offset, values);
    return for_channels(name, path, chan, offset, [&](PLR3Path &card, int chan_of_card) {
        return write_card(card, chan_of_card, region, offset, values);
    });
}

int plr3_read_reg(int path, int chan, int region, int offset, words_out values) {
    constexpr const char *name = "plr3_read_reg";
    if (const int status = check_range(name, path, region, offset, values.size()); status != 0)
        return status;
    return for_channels(name, path, chan, offset, [&](PLR3Path &card, int chan_of_card) {
        return read_card(card, chan_of_card, region, offset, values);
    });
}

int plr3_rmw_chan_reg(int path, int chan, int offset, std::uint32_t mask, std::uint32_t value,
                      std::uint32_t &result) {
    constexpr const char *name = "plr3_rmw_chan_reg";
    if (const int status = check_range(name, path, 0, offset, 1); status != 0)
        return status;
    return for_channels(name, path, chan, offset, [&](PLR3Path &card, int chan_of_card) {
        return rmw_card(card, chan_of_card, 0, offset, mask, value, result);
    });
}

int plr3_write_glob_reg(int path, int card, int offset, words_in values) {
    constexpr const char *name = "plr3_write_glob_reg";
    if (const int status = check_range(name, path, 0, offset, values.size()); status != 0)
        return status;
    return for_cards(name, path, card, offset, false, [&](PLR3Path &leaf) {
        return write_card(leaf, plr3_global_chan, plr3_global_region, offset, values);
    });
}

int plr3_read_glob_reg(int path, int card, int offset, words_out values) {
    constexpr const char *name = "plr3_read_glob_reg";
    if (const int status = check_range(name, path, 0, offset, values.size()); status != 0)
        return status;
    return for_cards(name, path, card, offset, false, [&](PLR3Path &leaf) {
        return read_card(leaf, plr3_global_chan, plr3_global_region, offset, values);
    });
}

int plr3_rmw_glob_reg(int path, int card, int offset, std::uint32_t mask, std::uint32_t value,
                      std::uint32_t &result) {
    constexpr const char *name = "plr3_rmw_glob_reg";
    if (const int status = check_range(name, path, 0, offset, 1); status != 0)
        return status;
    return for_cards(name, path, card, offset, false, [&](PLR3Path &leaf) {
        return rmw_card(leaf, plr3_global_chan, plr3_global_region, offset, mask, value, result);
    });
}

int plr4_write_glob_reg(int path, int card, int offset, words_in values) {
    constexpr const char *name = "plr4_write_glob_reg";
    if (const int status = check_local(name, path, offset, values.size()); status != 0)
        return status;
    return for_cards(name, path, card, offset, true,
                     [&](PLR3Path &leaf) { return write_local(leaf, offset, values); });
}

int plr4_read_glob_reg(int path, int card, int offset, words_out values) {
    constexpr const char *name = "plr4_read_glob_reg";
    if (const int status = check_local(name, path, offset, values.size()); status != 0)
        return status;
    return for_cards(name, path, card, offset, true,
                     [&](PLR3Path &leaf) { return read_local(leaf, offset, values); });
}

int plr4_rmw_glob_reg(int path, int card, int offset, std::uint32_t mask, std::uint32_t value,
                      std::uint32_t &result) {
    constexpr const char *name = "plr4_rmw_glob_reg";
    if (const int status = check_local(name, path, offset, 1); status != 0)
        return status;
    return for_cards(name, path, card, offset, true,
                     [&](PLR3Path &leaf) { return rmw_local(leaf, offset, mask, value, result); });
}

int plr3_write_card_reg(int path, int card, int offset, words_in values) {
    return is_generation4(path) ? plr4_write_glob_reg(path, card, offset, values)
                                : plr3_write_glob_reg(path, card, offset, values);
}

int plr3_read_card_reg(int path, int card, int offset, words_out values) {
    return is_generation4(path) ? plr4_read_glob_reg(path, card, offset, values)
                                : plr3_read_glob_reg(path, card, offset, values);
}

int plr3_rmw_card_reg(int path, int card, int offset, std::uint32_t mask, std::uint32_t value,
                      std::uint32_t &result) {
    return is_generation4(path) ? plr4_rmw_glob_reg(path, card, offset, mask, value, result)
                                : plr3_rmw_glob_reg(path, card, offset, mask, value, result);
}

int plr3_card_path(const char *function, int path, int card) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    if (card < 0 || card >= p->num_cards)
        return plr3_fail(plr3_illegal_card, "%s: illegal card specified (%d)", function, card);
    const int leaf = plr3_leaf(*p, path, card);
    if (leaf < 0)
        return plr3_fail(plr3_illegal_sub_path, "%s: resolved illegal sub path (path=%d)", function, leaf);
    return leaf;
}

} // namespace kestrel
