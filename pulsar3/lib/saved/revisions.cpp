#include "pulsar3/lib/saved/revisions.h"

#include "pulsar3/lib/paths/system.h"
#include "pulsar3/lib/registers/bits.h"
#include "pulsar3/lib/saved/item_access.h"

namespace kestrel {

namespace {

std::string name_of(const std::string &directory, int card) {
    return plr3_saved_name(directory, "card" + std::to_string(card) + "_revision.dat");
}

std::uint32_t revision_of(int path, int card) {
    return static_cast<std::uint32_t>(plr3_path(plr3_leaf(*plr3_path(path), path, card))->revision);
}

std::uint32_t major_of(std::uint32_t revision) {
    return plr3_bits(revision, 12, 23);
}

} // namespace

int plr3_save_revisions(int path, const std::string &directory) {
    for (int card = 0; card < plr3_path(path)->num_cards; ++card) {
        const std::uint32_t revision = revision_of(path, card);
        const int status = plr3_put_saved(name_of(directory, card), std::as_bytes(std::span(&revision, 1)));
        if (status != 0)
            return status;
    }
    return 0;
}

int plr3_compare_revisions(int path, const std::string &directory, bool force) {
    for (int card = 0; card < plr3_path(path)->num_cards; ++card) {
        const std::string name = name_of(directory, card);
        file_found found{};
        const saved_bytes bytes = plr3_get_saved(name, sizeof(std::uint32_t), found);
        if (found == file_found::missing)
            continue;
        if (found == file_found::unreadable)
            return plr3_fail(plr3_failed, "plr3_restore_settings: Cannot open input file %s", name.c_str());
        if (bytes.size() != sizeof(std::uint32_t))
            return plr3_fail(plr3_failed, "plr3_restore_settings: Error reading input file %s", name.c_str());
        const std::uint32_t saved = saved_value<std::uint32_t>(bytes), own = revision_of(path, card);
        if (!force && major_of(saved) != major_of(own))
            return plr3_fail(plr3_failed,
                             "plr3_restore_settings: card %d has major revision %u, the settings are of %u",
                             card, major_of(own), major_of(saved));
    }
    return 0;
}

} // namespace kestrel
