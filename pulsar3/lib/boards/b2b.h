// pulsar3/lib/boards: the links from a card to its neighbours: four lanes of transceivers, newer protocol only. All return
// 0, or a negative status with its text kept. Lane -1 and card -1: all.
#pragma once

#include <cstdint>

namespace kestrel {

inline constexpr int plr3_b2b_lanes = 4;

// As the transceivers number them (Xilinx UG476, LOOPBACK); the numbers between do not exist.
enum plr3_b2b_loopback : int {
    plr3_b2b_normal = 0,
    plr3_b2b_near_pcs = 1,
    plr3_b2b_near_pma = 2,
    plr3_b2b_far_pma = 4,
    plr3_b2b_far_pcs = 6,
};

struct b2b_status {
    int loopback = 0;
    bool up = false, ecc = false;
    std::uint32_t corrected = 0; // errors
};

int plr3_setup_b2b_loopback(int path, int card, int lane, int mode);
int plr3_set_b2b_ecc(int path, int card, int lane, bool on);
int plr3_get_b2b_status(int path, int card, int lane, b2b_status &status); // one card, one lane

} // namespace kestrel
