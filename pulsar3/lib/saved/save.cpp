#include "pulsar3/lib/paths/system.h"
#include "pulsar3/lib/registers/bits.h"
#include "pulsar3/lib/saved/item_access.h"
#include "pulsar3/lib/saved/revisions.h"
#include "pulsar3/lib/saved/saved.h"

#include <cstdio>

namespace kestrel {

namespace {

int save_item(int path, const std::string &directory, const saved_item &item) {
    saved_bytes bytes;
    const int status = plr3_read_item(path, item, bytes);
    return status != 0 ? status : plr3_put_saved(plr3_saved_name(directory, item.file), bytes);
}

// For people; the same for two saves of the same state.
std::string describe(int path) {
    const PLR3Path &top = *plr3_path(path);
    std::string text = "kestrel " KESTREL_VERSION "\ncards " + std::to_string(top.num_cards) + "\nchannels " +
                       std::to_string(top.num_chan) + "\n";
    for (int card = 0; card < top.num_cards; ++card) {
        const PLR3Path &leaf = *plr3_path(plr3_leaf(top, path, card));
        const auto word = static_cast<std::uint32_t>(leaf.revision);
        char line[96];
        std::snprintf(line, sizeof line, "card %d: revision 0x%08X, version %u.%u, %d channels\n", card, word,
                      plr3_bits(word, 12, 23), plr3_bits(word, 0, 3), leaf.num_chan);
        text += line;
    }
    return text;
}

} // namespace

int plr3_save_settings(int path, const std::string &directory) {
    if (!plr3_path(path))
        return plr3_fail(plr3_invalid_path, "plr3_save_settings: invalid path %d", path);
    const std::vector<saved_item> items = plr3_saved_items(path);
    if (items.empty())
        return plr3_failed; // the text is kept
    for (const saved_item &item : items) {
        if (plr3_interrupted())
            return plr3_fail(plr3_failed, "plr3_save_settings: interrupted");
        if (const int status = save_item(path, directory, item); status != 0)
            return status;
    }
    if (const int status = plr3_save_revisions(path, directory); status != 0)
        return status;
    const std::string text = describe(path);
    return plr3_put_saved(plr3_saved_name(directory, "settings.txt"), std::as_bytes(std::span(text)));
}

} // namespace kestrel
