#include "pulsar3/lib/paths/roi.h"

#include "pulsar3/lib/paths/memories.h"

#include <algorithm>
#include <vector>

namespace kestrel {

namespace {

roi_table *table_of(int path, int chan) {
    int card_path = 0, chan_of_card = 0;
    if (plr3_resolve_path(path, chan, card_path, chan_of_card) != 0)
        return nullptr;
    return &Plr3Sys[static_cast<std::size_t>(card_path)].roi[static_cast<std::size_t>(chan_of_card)];
}

int check(const char *function, int path, int chan, int least) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    if (chan < least || chan >= p->num_chan)
        return plr3_fail(plr3_out_of_range, "%s: chan=%d out of range %d..%d", function, chan, least,
                         p->num_chan - 1);
    return 0;
}

// What the card looks a bin up in: the number of its region, from 1, or 0.
std::vector<std::uint32_t> look_up_words(const roi_table &table) {
    std::vector<std::uint32_t> words(plr3_roi_bins);
    for (std::uint32_t number = table.count; number > 0; --number) { // the first of two comes last
        const roi_region &region = table.regions[number - 1];
        std::fill(words.begin() + region.low, words.begin() + region.high + 1, number);
    }
    return words;
}

} // namespace

bool plr3_roi_is_sound(const roi_table &table) {
    if (table.count > static_cast<std::uint32_t>(plr3_max_roi))
        return false;
    return std::all_of(table.regions.begin(), table.regions.begin() + table.count,
                       [](const roi_region &r) { return r.low <= r.high && r.high < plr3_roi_bins; });
}

int plr3_set_roi(int path, int chan, std::span<const roi_region> regions) {
    if (const int status = check("plr3_set_roi", path, chan, -1); status != 0)
        return status;
    if (regions.size() > static_cast<std::size_t>(plr3_max_roi))
        return plr3_fail(plr3_out_of_range, "plr3_set_roi: %zu regions are more than %d", regions.size(),
                         plr3_max_roi);
    roi_table table;
    table.count = static_cast<std::uint32_t>(regions.size());
    std::ranges::copy(regions, table.regions.begin());
    if (!plr3_roi_is_sound(table))
        return plr3_fail(plr3_out_of_range, "plr3_set_roi: a region is not within bins 0..%u",
                         plr3_roi_bins - 1);
    const block_memory &memory = plr3_block_memory("roi");
    const std::vector<std::uint32_t> words = look_up_words(table);
    const int first = std::max(chan, 0), last = chan < 0 ? plr3_path(path)->num_chan - 1 : chan;
    for (int each = first; each <= last; ++each) {
        if (const int status = plr3_load_memory(path, each, memory, words); status != 0)
            return status;
        *table_of(path, each) = table;
    }
    return 0;
}

int plr3_get_roi(int path, int chan, roi_table &table) {
    if (const int status = check("plr3_get_roi", path, chan, 0); status != 0)
        return status;
    const roi_table *kept = table_of(path, chan);
    if (!kept)
        return plr3_illegal_sub_path; // the text is kept
    table = *kept;
    return 0;
}

} // namespace kestrel
