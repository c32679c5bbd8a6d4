#include "pulsar3/lib/saved/load.h"

#include "pulsar3/lib/paths/system.h"
#include "pulsar3/lib/saved/dead_time_records.h"

namespace kestrel {

namespace {

struct loader {
    const char *function;
    int message_to;
    std::string directory;

    int load(saved_item &item, saved_bytes &bytes) const {
        const std::string name = plr3_saved_name(directory, item.file);
        file_found found{};
        bytes = plr3_get_saved(name, item.bytes, found);
        if (found == file_found::missing && item.kind == saved_kind::dead_times)
            return load_old_dead_times(name, item, bytes);
        item.is_default = use_default(item, name, found, bytes);
        if (item.is_default)
            return 0;
        if (found != file_found::yes)
            return plr3_fail(plr3_failed, "%s: Cannot open input file %s", function, name.c_str());
        if (bytes.size() != item.bytes || !plr3_item_is_sound(item, bytes))
            return plr3_fail(plr3_failed, "%s: Error reading input file %s", function, name.c_str());
        return 0;
    }

    // No regions of interest, the internal clock: what zeros say.
    bool use_default(const saved_item &item, const std::string &name, file_found found,
                     saved_bytes &bytes) const {
        const bool missing = found == file_found::missing;
        if (item.kind == saved_kind::clocks && missing)
            plr3_message(message_to, "File %s is missing, falling back to default clock setup for PULSAR3\n",
                         name.c_str());
        else if (item.kind == saved_kind::roi && missing)
            plr3_message(message_to, "Making null roi as file '%s' is missing\n", name.c_str());
        else if (item.kind == saved_kind::roi && found == file_found::yes && bytes.empty())
            plr3_message(message_to, "Making null roi as file '%s' is Zero length\n", name.c_str());
        else
            return false;
        bytes.assign(item.bytes, std::byte{0});
        return true;
    }

    // `newer` is the name to tell when there is neither.
    int load_old_dead_times(const std::string &newer, const saved_item &item, saved_bytes &bytes) const {
        const std::size_t size = item.bytes / sizeof(ChannelDTC) * old_dead_time_bytes;
        const std::string name = plr3_saved_name(directory, "dtc_parameters.dat");
        file_found found{};
        const saved_bytes old = plr3_get_saved(name, size, found);
        if (found != file_found::yes)
            return plr3_fail(plr3_failed, "%s: Cannot open input file %s", function,
                             found == file_found::missing ? newer.c_str() : name.c_str());
        if (old.size() == size)
            bytes = renew_dead_times(old);
        if (old.size() != size || !plr3_item_is_sound(item, bytes))
            return plr3_fail(plr3_failed, "%s: Error reading input file %s", function, name.c_str());
        return 0;
    }
};

} // namespace

int plr3_load_items(const char *function, int path, const std::string &directory, bool clock,
                    std::vector<loaded_item> &items) {
    const loader loader{function, plr3_path(path)->message_to, directory};
    std::vector<saved_item> wanted = plr3_saved_items(path);
    if (wanted.empty())
        return plr3_failed; // the text is kept
    for (saved_item &item : wanted) {
        if (item.kind == saved_kind::clocks && !clock)
            continue;
        saved_bytes bytes;
        if (const int status = loader.load(item, bytes); status != 0)
            return status;
        items.push_back({std::move(item), std::move(bytes)});
    }
    return 0;
}

} // namespace kestrel
