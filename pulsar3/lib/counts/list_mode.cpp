#include "pulsar3/lib/counts/list_mode.h"

#include "pulsar3/lib/frames/list_mode.h"

#include <algorithm>
#include <cstring>
#include <utility>

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

// The cards write there from now on (null: nowhere). What the files hold that they wrote until then, each once.
std::vector<list_mode_account> hand_over(int path, const std::shared_ptr<list_mode_file> &file) {
    std::vector<std::shared_ptr<list_mode_file>> before;
    each_sender(path, [&](PLR3Path &leaf) {
        plr3_readout_quiet(*leaf.readout); // what was sent before belongs to the file before
        const std::lock_guard guard(leaf.readout->mutex);
        leaf.readout->first_chan = static_cast<std::uint32_t>(leaf.chan_of_system);
        auto old = std::exchange(leaf.readout->list_mode_fd, file);
        if (old && std::ranges::find(before, old) == before.end())
            before.push_back(std::move(old));
    });
    std::vector<list_mode_account> accounts;
    for (const auto &old : before) {
        const std::lock_guard guard(old->mutex);
        accounts.push_back({old->name, old->records, old->events, old->error});
    }
    return accounts;
}

} // namespace

int plr3_list_mode_start(int path, const std::string &name, std::vector<list_mode_account> &ended) {
    if (!plr3_path(path))
        return plr3_fail(plr3_invalid_path, "plr3_list_mode_start: invalid path %d", path);
    if (each_sender(path, [](PLR3Path &) {}) == 0)
        return plr3_fail(plr3_failed, "plr3_list_mode_start: no card of path %d sends event lists", path);
    const auto file = std::make_shared<list_mode_file>();
    if (const int error = plr3_list_mode_create(*file, name); error != 0)
        return plr3_fail(plr3_failed, "plr3_list_mode_start: Cannot make file %s: %s", name.c_str(),
                         std::strerror(error));
    ended = hand_over(path, file);
    return 0;
}

int plr3_list_mode_stop(int path, std::vector<list_mode_account> &ended) {
    if (!plr3_path(path))
        return plr3_fail(plr3_invalid_path, "plr3_list_mode_stop: invalid path %d", path);
    ended = hand_over(path, nullptr);
    return !ended.empty() ? 0
                          : plr3_fail(plr3_failed,
                                      "plr3_list_mode_stop: no list-mode file is written for path %d", path);
}

} // namespace kestrel
