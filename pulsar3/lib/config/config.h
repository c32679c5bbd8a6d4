// pulsar3/lib/config: opening a system of cards and closing it: where the library's parts meet. A configuration that
// fails closes all that it opened; what is configured is remembered, and asking for the same again returns its path
// without touching the cards.
#pragma once

#include "pulsar3/lib/paths/system.h"

#include <array>
#include <string>

namespace kestrel {

// What to configure. Empty texts and 0 stand for the defaults.
struct plr3_request {
    int ncards = 0;
    int num_tf = 0;             // time frames of spectra of 4096 bins
    std::string baseIPaddress;  // 192.168.0.1
    int basePort = 0;           // 30123
    std::string baseMACaddress; // 02.00.00.00.00.00; all zero: no data link is set up
    int num_chan = 0;           // all
    int create_module = 0;      // for scope data,
    std::string modname;        // of this name: "plr3_scope%d"
    int debug = 0;              // 0..2
    int card_index = 0;         // the first card in the installation; -1 is 0
    int do_init = 1;            // the cards' registers are set to defaults
    Plr3mReadoutMode readout_mode = Plr3mRd_Auto;
    PulsarDummy dummy_system = PulsarReal;
    int message_to = -1; // who asks; not compared
};

// The path, or a negative status with its text kept.
int plr3_config_init(const plr3_request &request);
// Real cards, first initialisation, the cards' own readout mode.
int plr3_config(plr3_request request);

// The receive buffers of a card's sockets, all cards' with -1: the least that the system gives; now, the least there is.
// Or a negative status.
int plr3_set_udp_buffer_size(int path, int card, int bytes);
int plr3_get_udp_buffer_size(int path, int card);

// Closes a path and, of a node, its cards, and forgets every saved configuration. A path that is closed already is 0;
// a card that a node uses is refused.
int plr3_close(int path);
void plr3_close_all();

// Messages about paths of this session go to standard output from now on.
void plr3_session_ended(int message_to);

// Configurations that succeeded, until a path is closed.
struct Pulsar3SavedConfig {
    plr3_request asked; // texts cut to 16, 18 and 100 characters
    int path = -1;
};
inline constexpr int plr3_max_saved = 10;
extern std::array<Pulsar3SavedConfig, plr3_max_saved> pulsar3_saved_config;
extern int configNo; // how many of them are in use

} // namespace kestrel
