#include "pulsar3/lib/boards/ethernet.h"

#include "pulsar3/lib/boards/board_bus.h"

namespace kestrel {

namespace {

constexpr std::uint32_t gap_register = 13, enable_register = 15;
constexpr std::size_t registers = 16;
constexpr int gap_max = 65535;

using engine_words = std::array<std::uint32_t, registers>;

// Bytes of the engine's registers, the first in bits 0..7 of register 0.
template <std::size_t N> std::array<std::uint8_t, N> bytes_at(const engine_words &words, std::size_t first) {
    std::array<std::uint8_t, N> bytes{};
    for (std::size_t i = 0; i < N; ++i)
        bytes[i] = static_cast<std::uint8_t>(words[(first + i) / 4] >> 8 * ((first + i) % 4));
    return bytes;
}

int port_at(const engine_words &words, std::size_t first) {
    const auto bytes = bytes_at<2>(words, first);
    return bytes[0] << 8 | bytes[1];
}

} // namespace

int plr3_ethernet_status(int path, int card, ethernet_state &state) {
    engine_words words{};
    const int status = plr3_board_read("plr3_ethernet_status", path, card, board_bus::data_link, 0, words);
    if (status != 0)
        return status;
    state.card_mac = bytes_at<6>(words, 0);
    state.host_mac = bytes_at<6>(words, 6);
    state.host_ip = bytes_at<4>(words, 26);
    state.card_ip = bytes_at<4>(words, 30);
    state.card_port = port_at(words, 34);
    state.host_port = port_at(words, 36);
    state.gap = words[gap_register];
    state.enabled = (words[enable_register] & 1) != 0;
    return 0;
}

int plr3_set_int_pack_gap(int path, int card, int gap) {
    constexpr const char *name = "plr3_set_int_pack_gap";
    if (plr3_path(path) && (gap < 0 || gap > gap_max))
        return plr3_fail(plr3_out_of_range, "%s: a gap of %d is out of range 0..%d", name, gap, gap_max);
    return plr3_each_card(name, path, card, [&](int one) {
        return plr3_board_set(name, path, one, board_bus::data_link, gap_register,
                              static_cast<std::uint32_t>(gap));
    });
}

int plr3_toggle_enb(int path, int card) {
    constexpr const char *name = "plr3_toggle_enb";
    return plr3_each_card(name, path, card, [&](int one) {
        for (const std::uint32_t enable : {0U, 1U})
            if (const int status =
                    plr3_board_set(name, path, one, board_bus::data_link, enable_register, enable);
                status != 0)
                return status;
        return 0;
    });
}

} // namespace kestrel
