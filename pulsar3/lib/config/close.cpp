// Closing paths.
#include "pulsar3/lib/config/config_steps.h"

#include <algorithm>

namespace kestrel {

namespace {

// Calls f(path) for the cards of a node and then for the path itself.
template <class F> void cards_first(int path, F f) {
    const PLR3Path &top = Plr3Sys[static_cast<std::size_t>(path)];
    for (int card = 0; top.type == 1 && card < top.num_cards; ++card)
        f(plr3_leaf(top, path, card));
    f(path);
}

void release(int path) {
    PLR3Path &p = Plr3Sys[static_cast<std::size_t>(path)];
    pulsar3FemClose(std::move(p.femHandle));
    plr3_reset(p);
}

// What is to be said goes to standard output from now on.
void forget_session(PLR3Path &p) {
    p.message_to = -1;
    for (const auto &channel : p.histogram)
        if (channel)
            channel->message_to = -1;
    if (p.readout)
        p.readout->message_to = -1;
}

// The node that a card belongs to, or -1.
int node_of(int path) {
    for (int node = 0; node < plr3_max_paths; ++node) {
        const PLR3Path *p = plr3_path(node);
        if (p && p->type == 1 && std::ranges::find(p->sub_path, path) != p->sub_path.end())
            return node;
    }
    return -1;
}

} // namespace

void plr3_discard(int path) {
    cards_first(path, release);
}

int plr3_close(int path) {
    if (path < 0 || path >= plr3_max_paths)
        return plr3_fail(plr3_invalid_path, "plr3_close: Invalid Path");
    if (!plr3_path(path))
        return 0;
    if (const int node = node_of(path); node >= 0)
        return plr3_fail(plr3_failed, "plr3_close: path %d is a card of path %d", path, node);
    cards_first(path, [](int one) {
        plr3_message(Plr3Sys[static_cast<std::size_t>(one)].message_to, "closing path %d\n", one);
        release(one);
    });
    configNo = 0;
    return 0;
}

void plr3_close_all() {
    for (int path = 0; path < plr3_max_paths; ++path)
        if (plr3_path(path) && node_of(path) < 0)
            plr3_close(path);
}

void plr3_session_ended(int message_to) {
    for (PLR3Path &p : Plr3Sys)
        if (p.message_to == message_to)
            forget_session(p);
}

} // namespace kestrel
