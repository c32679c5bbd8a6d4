#include "pulsar3/lib/paths/memories.h"

#include "pulsar3/lib/paths/roi.h"
#include "pulsar3/lib/paths/settings.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace kestrel {

namespace {

std::vector<std::uint32_t> empty_table(const block_memory &memory) {
    return std::vector<std::uint32_t>(static_cast<std::size_t>(memory.words));
}

// step(channel) for the channel, or for each of the path: the status of the first that is refused.
template <class F> int each_channel(const char *function, int path, int chan, F step) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    if (chan != -1)
        return step(chan);
    for (int each = 0; each < p->num_chan; ++each)
        if (const int status = step(each); status != 0)
            return status;
    return 0;
}

} // namespace

const block_memory &plr3_block_memory(std::string_view name) {
    for (const block_memory &memory : plr3_block_memories())
        if (memory.name == name)
            return memory;
    std::fprintf(stderr, "pulsar3: no block memory %.*s\n", static_cast<int>(name.size()), name.data());
    std::abort();
}

int plr3_load_memory(int path, int chan, const block_memory &memory, std::span<const std::uint32_t> words) {
    if (words.size() > static_cast<std::size_t>(memory.words))
        return plr3_fail(plr3_out_of_range, "plr3_load_memory: %zu words do not fit into the %d of %s",
                         words.size(), memory.words, memory.name);
    std::vector<std::uint32_t> table = empty_table(memory);
    std::ranges::copy(words, table.begin());
    return plr3_write_reg(path, chan, memory.region, 0, table);
}

int plr3_init_brams(int path, int chan) {
    for (const block_memory &memory : plr3_block_memories()) {
        const auto clear = [&](int each) {
            return std::string_view(memory.name) == "roi" ? plr3_set_roi(path, each, {})
                                                          : plr3_load_memory(path, each, memory, {});
        };
        if (const int status = each_channel("plr3_init_brams", path, chan, clear); status != 0)
            return status;
    }
    return 0;
}

int plr3_init_event_tail(int path, int chan, double ticks) {
    constexpr double highest = 65535; // of a word's fraction
    if (!(ticks > 0) || !std::isfinite(ticks))
        return plr3_fail(plr3_out_of_range, "plr3_init_event_tail: a decay of %g ticks is not above 0",
                         ticks);
    const block_memory &memory = plr3_block_memory("event-tail");
    std::vector<std::uint32_t> table = empty_table(memory);
    for (std::size_t t = 0; t < table.size(); ++t) {
        const double part = std::exp(-static_cast<double>(t) / ticks);
        table[t] = static_cast<std::uint32_t>(std::min(std::lround(65536 * part), std::lround(highest)));
    }
    return plr3_load_memory(path, chan, memory, table);
}

int plr3_init_xtk_map(int path, int chan) {
    const block_memory &memory = plr3_block_memory("xtk-map");
    return each_channel("plr3_init_xtk_map", path, chan, [&](int each) {
        int card_path = 0, chan_of_card = 0;
        if (const int status = plr3_resolve_path(path, each, card_path, chan_of_card); status != 0)
            return status;
        std::vector<std::uint32_t> table = empty_table(memory);
        for (const int neighbour : {chan_of_card - 1, chan_of_card + 1})
            if (neighbour >= 0 && neighbour < plr3_path(card_path)->max_num_chan)
                table[static_cast<std::size_t>(neighbour)] = 1;
        return plr3_load_memory(path, each, memory, table);
    });
}

int plr3_set_by_width(int path, int chan, const block_memory &memory, bool by_width) {
    const std::string_view name = memory.name;
    if (name != "event-lead" && name != "event-tail")
        return plr3_fail(plr3_failed, "plr3_set_by_width: %s is not addressed by width", memory.name);
    const char *field = name == "event-lead" ? "lead-by-width" : "tail-by-width";
    const field_value bit[] = {{plr3_register_field("chan-cont2", field), by_width ? 1 : 0}};
    return plr3_change_fields("plr3_set_by_width", path, chan, bit);
}

} // namespace kestrel
