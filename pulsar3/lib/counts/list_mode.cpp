#include "pulsar3/lib/counts/list_mode.h"

#include "pulsar3/lib/frames/list_mode.h"

#include <cstring>

namespace kestrel {

namespace {

// action(readout) of every card that sends events.
template <class F> int each_sender(int path, F action) {
    const PLR3Path &top = *plr3_path(path);
    int senders = 0;
    for (int card = 0; card < top.num_cards; ++card) {
        PLR3Path *leaf = plr3_path(plr3_leaf(top, path, card));
        if (!leaf || !leaf->readout || (leaf->readout->mode & Plr3mRd_SendHistList) == 0)
            continue;
        action(*leaf);
        ++senders;
    }
    return senders;
}

void hand_over(int path, const std::shared_ptr<list_mode_file> &file) {
    each_sender(path, [&](PLR3Path &leaf) {
        const std::lock_guard guard(leaf.readout->mutex);
        leaf.readout->list_mode_fd = file;
        leaf.readout->first_chan = static_cast<std::uint32_t>(leaf.chan_of_system);
    });
}

} // namespace

int plr3_list_mode_start(int path, const std::string &name) {
    if (!plr3_path(path))
        return plr3_fail(plr3_invalid_path, "plr3_list_mode_start: invalid path %d", path);
    if (each_sender(path, [](PLR3Path &) {}) == 0)
        return plr3_fail(plr3_failed, "plr3_list_mode_start: no card of path %d sends event lists", path);
    const auto file = std::make_shared<list_mode_file>();
    if (const int error = plr3_list_mode_create(*file, name); error != 0)
        return plr3_fail(plr3_failed, "plr3_list_mode_start: Cannot make file %s: %s", name.c_str(),
                         std::strerror(error));
    hand_over(path, file);
    return 0;
}

int plr3_list_mode_stop(int path, list_mode_account &account) {
    if (!plr3_path(path))
        return plr3_fail(plr3_invalid_path, "plr3_list_mode_stop: invalid path %d", path);
    std::shared_ptr<list_mode_file> file;
    each_sender(path, [&](PLR3Path &leaf) {
        plr3_readout_quiet(*leaf.readout); // what was sent before belongs to the file
        const std::lock_guard guard(leaf.readout->mutex);
        file = leaf.readout->list_mode_fd;
    });
    if (!file)
        return plr3_fail(plr3_failed, "plr3_list_mode_stop: no list-mode file is written for path %d", path);
    hand_over(path, nullptr);
    const std::lock_guard guard(file->mutex);
    account = {file->name, file->records, file->events, file->error};
    return 0;
}

} // namespace kestrel
