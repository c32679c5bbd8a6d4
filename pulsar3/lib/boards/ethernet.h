// pulsar3/lib/boards: the card's end of the data link: its UDP engine. All return 0, or a negative status with its text
// kept.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace kestrel {

struct ethernet_state {
    std::array<std::uint8_t, 6> card_mac{}, host_mac{};
    std::array<std::uint8_t, 4> card_ip{}, host_ip{};
    int card_port = 0, host_port = 0;
    std::uint32_t gap = 0; // between packets
    bool enabled = false;
};
int plr3_ethernet_status(int path, int card, ethernet_state &state);

// Between packets, in ticks of the link's clock, 0..65535; card -1 for all.
int plr3_set_int_pack_gap(int path, int card, int gap);

// Switches the engine off and on again; card -1 for all.
int plr3_toggle_enb(int path, int card);

} // namespace kestrel
