#include "pulsar3/lib/boards/b2b.h"

#include "pulsar3/lib/boards/board_bus.h"
#include "pulsar3/lib/registers/bits.h"

#include <algorithm>
#include <array>

namespace kestrel {

namespace {

// Words of a lane's transceiver: loopback; up 0 and corrected errors 16-31; error correction.
constexpr std::uint32_t lane_words = 0x400, loopback_word = 0, ecc_word = 2;

std::uint32_t lane_address(int lane, std::uint32_t word) {
    return static_cast<std::uint32_t>(lane) * lane_words + word;
}

int check_lane(const char *function, int path, int lane, int least) {
    if (!plr3_path(path)) // refused later, as itself
        return 0;
    if (lane < least || lane >= plr3_b2b_lanes)
        return plr3_fail(plr3_out_of_range, "%s: lane %d is out of range %d..%d", function, lane, least,
                         plr3_b2b_lanes - 1);
    return 0;
}

int write_lanes(const char *function, int path, int card, int lane, std::uint32_t word, std::uint32_t value) {
    if (const int status = check_lane(function, path, lane, -1); status != 0)
        return status;
    const int first = std::max(lane, 0), last = lane < 0 ? plr3_b2b_lanes - 1 : lane;
    return plr3_each_card(function, path, card, [&](int one) {
        for (int each = first; each <= last; ++each)
            if (const int status =
                    plr3_board_set(function, path, one, board_bus::mgt, lane_address(each, word), value);
                status != 0)
                return status;
        return 0;
    });
}

} // namespace

int plr3_setup_b2b_loopback(int path, int card, int lane, int mode) {
    constexpr std::array modes{plr3_b2b_normal, plr3_b2b_near_pcs, plr3_b2b_near_pma, plr3_b2b_far_pma,
                               plr3_b2b_far_pcs};
    if (plr3_path(path) && std::ranges::find(modes, mode) == modes.end())
        return plr3_fail(plr3_out_of_range, "plr3_setup_b2b_loopback: there is no loopback %d", mode);
    return write_lanes("plr3_setup_b2b_loopback", path, card, lane, loopback_word,
                       static_cast<std::uint32_t>(mode));
}

int plr3_set_b2b_ecc(int path, int card, int lane, bool on) {
    return write_lanes("plr3_set_b2b_ecc", path, card, lane, ecc_word, on ? 1 : 0);
}

int plr3_get_b2b_status(int path, int card, int lane, b2b_status &status) {
    constexpr const char *name = "plr3_get_b2b_status";
    if (const int refused = check_lane(name, path, lane, 0); refused != 0)
        return refused;
    std::array<std::uint32_t, 3> words{};
    if (const int failed =
            plr3_board_read(name, path, card, board_bus::mgt, lane_address(lane, loopback_word), words);
        failed != 0)
        return failed;
    status = {static_cast<int>(words[0]), plr3_bits(words[1], 0, 0) != 0, plr3_bits(words[2], 0, 0) != 0,
              plr3_bits(words[1], 16, 31)};
    return 0;
}

} // namespace kestrel
