// The list of what is saved.
#include "pulsar3/lib/paths/access.h"
#include "pulsar3/lib/registers/register_table.h"
#include "pulsar3/lib/saved/items.h"

#include <initializer_list>
#include <sched.h>

namespace kestrel {

namespace {

constexpr int gen3_global_words = 15, other_global_words = 32;
constexpr std::size_t word_bytes = 4, gain_bytes = 2;

static_assert(sizeof(ChannelDTC) == 72 && sizeof(ClockSetup) == 20 && sizeof(cpu_set_t) == 128);

// A file of a channel or a card.
struct file_row {
    saved_kind kind;
    const char *tail; // of its name
    std::size_t bytes;
};

class item_list {
  public:
    explicit item_list(const PLR3Path &path) : path_(path) {}

    // Each channel or card in turn with all its files of that group.
    void per_channel(std::initializer_list<file_row> rows) { per("chan", path_.num_chan, rows); }
    void per_card(std::initializer_list<file_row> rows) { per("card", path_.num_cards, rows); }
    void add(saved_kind kind, int number, int region, std::string file, std::size_t bytes) {
        items.push_back({kind, number, region, std::move(file), bytes});
    }

    std::vector<saved_item> items;

  private:
    void per(const char *what, int count, std::initializer_list<file_row> rows) {
        for (int number = 0; number < count; ++number)
            for (const file_row &row : rows)
                add(row.kind, number, 0, what + std::to_string(number) + row.tail, row.bytes);
    }

    const PLR3Path &path_;
};

// A row of the table that nobody could save.
bool memory_is_wrong(const block_memory &memory) {
    if (memory.words < 1)
        plr3_fail(plr3_failed, "plr3_save_settings: Cannot determine BRAM size for region number %d : %s",
                  memory.region, "the table of block memories has none");
    else if (memory.words > plr3_region_words)
        plr3_fail(plr3_failed,
                  "plr3_save_settings: CODING ERROR: BRAM size %d for region %d is > MAX size=%d",
                  memory.words, memory.region, plr3_region_words);
    return memory.words < 1 || memory.words > plr3_region_words;
}

bool add_regions(item_list &list, int chan) {
    const std::string start = "chan" + std::to_string(chan) + "_region";
    list.add(saved_kind::region, chan, 0, start + "0.dat", plr3_control_words * word_bytes);
    for (const block_memory &memory : plr3_block_memories()) {
        if (memory_is_wrong(memory))
            return false;
        const bool is_roi = std::string_view(memory.name) == "roi";
        list.add(is_roi ? saved_kind::roi : saved_kind::region, chan, memory.region,
                 start + std::to_string(memory.region) + ".dat",
                 is_roi ? sizeof(roi_table) : static_cast<std::size_t>(memory.words) * word_bytes);
    }
    return true;
}

} // namespace

std::vector<saved_item> plr3_saved_items(int path) {
    const PLR3Path &top = *plr3_path(path);
    item_list list(top);
    for (int chan = 0; chan < top.num_chan; ++chan)
        if (!add_regions(list, chan))
            return {};
    const int words = top.features.generation == PulsarGen3 ? gen3_global_words : other_global_words;
    list.per_card({{saved_kind::globals, "_global.dat", static_cast<std::size_t>(words) * word_bytes},
                   {saved_kind::terminations, "_term_flags.dat", 2 * word_bytes}});
    list.add(saved_kind::dead_times, 0, 0, "dtc_parameters2.dat",
             static_cast<std::size_t>(top.num_cards) * plr3_chans_per_card_max * sizeof(ChannelDTC));
    list.per_channel(
        {{saved_kind::gain, "_gain.dat", gain_bytes}, {saved_kind::offset, "_offset.dat", gain_bytes}});
    list.per_card({{saved_kind::clocks, "_clocks.dat", sizeof(ClockSetup)},
                   {saved_kind::scope_processors, "_scope_cpu_set.dat", sizeof(cpu_set_t)}});
    list.per_channel({{saved_kind::hist_processors, "_hist_cpu_set.dat", sizeof(cpu_set_t)}});
    list.add(saved_kind::sync_mode, 0, 0, "sync_mode.dat", word_bytes);
    return std::move(list.items);
}

} // namespace kestrel
