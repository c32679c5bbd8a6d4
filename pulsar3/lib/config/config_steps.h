// pulsar3/lib/config: the steps of a configuration, one file each. All return 0 (or what they say), or a negative
// status with its text kept.
#pragma once

#include "pulsar3/lib/config/addresses.h"
#include "pulsar3/lib/config/config.h"

#include <optional>
#include <vector>

namespace kestrel {

// A request made ready: no default is left open.
struct config_plan {
    plr3_request asked;
    bool data_link = true;
    int fem_port1 = 0,
        fem_port2 = 0; // control ports of the two protocols; the second is the data port as well
    std::vector<card_addresses> cards;
};

// saved.cpp: the open path of an identical configuration, or a refusal's status; nothing when there is none and the
// cards are free for this one.
std::optional<int> plr3_saved_path(const plr3_request &asked);
void plr3_save_config(const plr3_request &asked, int path);

// open.cpp: takes paths for the cards and connects them. The path.
int plr3_open_cards(const config_plan &plan);
// Closes a path and its cards without a word.
void plr3_discard(int path);

// readout_mode.cpp: settles what a mini model sends. Every other card is left alone.
int plr3_settle_readout_mode(PLR3Path &card, const plr3_request &asked);

// data_areas.cpp: the modules of a card, and that of the whole system for scope data; new ones stay when they are kept.
int plr3_check_frames(const PLR3Path &card);
void plr3_keep_data_areas(PLR3Path &path);
int plr3_make_data_areas(PLR3Path &card);
int plr3_make_scope_module(PLR3Path &top, const plr3_request &asked);

// udp.cpp: the data link of one card, and of every card that has one: scope data, a socket and a thread a channel for
// histograms, the readout of a mini model.
int plr3_config_udp(int path, int card, const card_addresses &addresses, int card_port, int host_port);
int plr3_set_up_data_link(int path, const config_plan &plan);

// defaults.cpp: what the cards' memory is laid out by, written before anything else; and registers and block memories
// of a system that is configured for the first time.
int plr3_write_frames(int path, int num_tf);
int plr3_write_defaults(int path);

} // namespace kestrel
