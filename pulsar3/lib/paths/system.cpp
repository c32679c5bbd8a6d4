#include "pulsar3/lib/paths/system.h"

#include <algorithm>
#include <memory>

namespace kestrel {

std::array<PLR3Path, plr3_max_paths> Plr3Sys;

void plr3_reset(PLR3Path &path) {
    std::destroy_at(&path);
    std::construct_at(&path);
}

PLR3Path *plr3_path(int path) {
    if (path < 0 || path >= plr3_max_paths)
        return nullptr;
    PLR3Path &p = Plr3Sys[static_cast<std::size_t>(path)];
    return p.valid ? &p : nullptr;
}

int plr3_leaf(const PLR3Path &top, int path, int card) {
    if (card < 0 || card >= top.num_cards)
        return -1;
    return top.type == 1 ? top.sub_path[static_cast<std::size_t>(card)] : path;
}

namespace {

int invalid(const char *function, int path) {
    return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
}

int field(const char *function, int path, int PLR3Path::*member) {
    const PLR3Path *p = plr3_path(path);
    return p ? p->*member : invalid(function, path);
}

// Runs on the path's own record and on those of its cards.
template <class F> void for_path_and_cards(PLR3Path &top, int path, F f) {
    f(top);
    for (int card = 0; top.type == 1 && card < top.num_cards; ++card)
        if (PLR3Path *leaf = plr3_path(plr3_leaf(top, path, card)))
            f(*leaf);
}

} // namespace

int plr3_resolve_path_chan_card(int path, int chan, int &card_path, int &chan_of_card, int &card) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return invalid("plr3_resolve_path", path);
    if (chan < 0 || chan >= p->num_chan)
        return plr3_fail(plr3_out_of_range, "plr3_resolve_path: chan=%d out of range 0..%d", chan,
                         p->num_chan - 1);
    if (p->type != 1) {
        if (chan > p->max_num_chan)
            return plr3_fail(plr3_failed, "plr3_resolve_path: illegal channel (%d) on single device path",
                             chan);
        card_path = path;
        chan_of_card = chan;
        card = 0;
        return 0;
    }
    int rest = chan;
    for (card = 0; card < p->num_cards; ++card) {
        card_path = plr3_leaf(*p, path, card);
        const PLR3Path *leaf = plr3_path(card_path);
        if (!leaf)
            return plr3_fail(plr3_illegal_sub_path, "plr3_resolve_path: resolved illegal sub path (path=%d)",
                             card_path);
        if (rest < leaf->num_chan) {
            chan_of_card = rest;
            return 0;
        }
        rest -= leaf->num_chan;
    }
    return plr3_fail(plr3_out_of_range, "plr3_resolve_path: chan=%d out of range 0..%d", chan,
                     p->num_chan - 1);
}

int plr3_resolve_path(int path, int chan, int &card_path, int &chan_of_card) {
    int card = 0;
    return plr3_resolve_path_chan_card(path, chan, card_path, chan_of_card, card);
}

int plr3_get_revision(int path) {
    return field("plr3_get_revision", path, &PLR3Path::revision);
}
int plr3_get_num_chan(int path) {
    return field("plr3_get_num_chan", path, &PLR3Path::num_chan);
}
int plr3_get_num_cards(int path) {
    return field("plr3_get_num_cards", path, &PLR3Path::num_cards);
}
int plr3_get_chans_per_card(int path) {
    return field("plr3_get_chans_per_card", path, &PLR3Path::chans_per_card);
}
int plr3_get_max_num_chan(int path) {
    return field("plr3_get_max_num_chan", path, &PLR3Path::max_num_chan);
}
int plr3_get_num_chan_used(int path) {
    return field("plr3_get_num_chan_used", path, &PLR3Path::num_chan);
}
int plr3_get_first_card(int path) {
    return field("plr3_get_first_card", path, &PLR3Path::startingCard);
}
int plr3_get_run_flags(int path) {
    return field("plr3_get_run_flags", path, &PLR3Path::run_flags);
}
int plr3_get_disable_threading(int path) {
    return field("plr3_get_disable_threading", path, &PLR3Path::disable_multi_thread);
}
int plr3_get_bins_per_mca(int path) {
    return plr3_path(path) ? plr3_default_bins : invalid("plr3_get_bins_per_mca", path);
}

int plr3_set_num_chan(int path, int channels) {
    PLR3Path *p = plr3_path(path);
    if (!p)
        return invalid("plr3_set_num_chan", path);
    if (channels < 1 || channels > p->max_num_chan)
        return plr3_fail(plr3_out_of_range, "plr3_set_num_chan: number of channels %d is out of range 1..%d",
                         channels, p->max_num_chan);
    p->num_chan = channels;
    int rest = channels;
    for (int card = 0; p->type == 1 && card < p->num_cards; ++card) {
        if (PLR3Path *leaf = plr3_path(plr3_leaf(*p, path, card))) {
            leaf->num_chan = std::min(rest, leaf->max_num_chan);
            rest -= leaf->num_chan;
        }
    }
    return 0;
}

int plr3_set_run_flags(int path, int flags) {
    PLR3Path *p = plr3_path(path);
    if (!p)
        return invalid("plr3_set_run_flags", path);
    const int format = p->features.output_format;
    if ((flags & plr3_run_circular) != 0 && format != 1 && format != 3 && format != 4)
        return plr3_fail(plr3_failed,
                         "plr3_set_run_flags: path %d, flags=%08X, Circulr buffer mode only available with "
                         "64 bit event list mode or Pulsar3Mini with 64 bit time frame.",
                         path, static_cast<unsigned>(flags));
    for_path_and_cards(*p, path, [flags](PLR3Path &one) { one.run_flags = flags; });
    return 0;
}

int plr3_set_debug(int path, int level, int burst) {
    PLR3Path *p = plr3_path(path);
    if (!p)
        return invalid("plr3_set_debug", path);
    if (level < 0 || level > 2)
        return plr3_fail(plr3_out_of_range, "plr3_set_debug: level %d is out of range 0..2", level);
    if (burst < 0)
        return plr3_fail(plr3_out_of_range, "plr3_set_debug: burst %d is below 0", burst);
    for_path_and_cards(*p, path, [level, burst](PLR3Path &one) {
        one.debug = level;
        for (const auto &channel : one.histogram)
            if (channel)
                channel->debug_burst = burst;
    });
    return 0;
}

int plr3_set_disable_threading(int path, int value) {
    PLR3Path *p = plr3_path(path);
    if (!p)
        return invalid("plr3_set_disable_threading", path);
    for_path_and_cards(*p, path, [value](PLR3Path &one) { one.disable_multi_thread = value; });
    return 0;
}

} // namespace kestrel
