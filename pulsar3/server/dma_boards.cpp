// `pulsar3 dma`: sensors of a card, its links to neighbours and its end of the data link.
#include "parser/qualifiers.h"
#include "pulsar3/lib/boards/b2b.h"
#include "pulsar3/lib/boards/ethernet.h"
#include "pulsar3/lib/boards/sensors.h"
#include "pulsar3/lib/paths/access.h"
#include "pulsar3/server/commands.h"
#include "server/output.h"

namespace kestrel {

namespace {

constexpr pt_format read_lm82_regs_format("%d %d %d = %d");

int pulsar3_dma_read_lm82_regs(int, int cn, int path, int card, int sensor) {
    std::array<std::uint8_t, lm82_registers.size()> bytes{};
    if (const int status = plr3_read_lm82_regs(path, card, sensor, bytes); status != 0)
        return pulsar3_status(cn, status);
    sv_printf(cn, "# Card %d: sensor of the %s\n", card,
              board_sensors[static_cast<std::size_t>(sensor)].name);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const lm82_register &r = lm82_registers[i];
        sv_printf(cn, r.is_temperature ? "# 0x%02X %-18s %d C\n" : "# 0x%02X %-18s 0x%02X\n",
                  static_cast<unsigned>(r.number), r.name,
                  r.is_temperature ? static_cast<std::int8_t>(bytes[i]) : bytes[i]);
    }
    return 0;
}

constexpr pt_format card_and_number_format("%d %d %d = %d");

int pulsar3_dma_set_adc_temp(int, int cn, int path, int card, int degrees) {
    return pulsar3_status(cn, plr3_set_adc_temp(path, card, degrees));
}

int pulsar3_dma_set_int_pack_gap(int, int cn, int path, int card, int gap) {
    return pulsar3_status(cn, plr3_set_int_pack_gap(path, card, gap));
}

// ---- links between cards

constexpr pt_format setup_b2b_loopback_format("%d %d %d near-pcs near-pma far-pma far-pcs = %d");
using loopback_quals = pt_qualifiers<setup_b2b_loopback_format>;
constexpr loopback_quals::choice<int> loopbacks[] = {
    {"near-pcs", plr3_b2b_near_pcs},
    {"near-pma", plr3_b2b_near_pma},
    {"far-pma", plr3_b2b_far_pma},
    {"far-pcs", plr3_b2b_far_pcs},
};

int pulsar3_dma_setup_b2b_loopback(int quals, int cn, int path, int card, int lane) {
    const loopback_quals q(quals);
    if (q.count({"near-pcs", "near-pma", "far-pma", "far-pcs"}) > 1) {
        sv_printf(cn, "! ERROR: Please specify at most one loopback\n");
        return plr3_failed;
    }
    const int mode = q.only(loopbacks).value_or(plr3_b2b_normal);
    return pulsar3_status(cn, plr3_setup_b2b_loopback(path, card, lane, mode));
}

constexpr pt_format show_b2b_status_format("%d %d = %d");

// The result is the number of lanes that are up.
int pulsar3_dma_show_b2b_status(int, int cn, int path, int card) {
    int up = 0;
    for (int lane = 0; lane < plr3_b2b_lanes; ++lane) {
        b2b_status state;
        if (const int status = plr3_get_b2b_status(path, card, lane, state); status != 0)
            return pulsar3_status(cn, status);
        sv_printf(cn, "# lane %d: %s, loopback %d, error correction %s, %u errors corrected\n", lane,
                  state.up ? "up" : "down", state.loopback, state.ecc ? "on" : "off", state.corrected);
        up += state.up ? 1 : 0;
    }
    return up;
}

constexpr pt_format set_b2b_ecc_format("%d %d %d off = %d");

int pulsar3_dma_set_b2b_ecc(int quals, int cn, int path, int card, int lane) {
    const bool on = !pt_qualifiers<set_b2b_ecc_format>(quals).given("off");
    return pulsar3_status(cn, plr3_set_b2b_ecc(path, card, lane, on));
}

// ---- the data link, and time

constexpr pt_format card_format("%d %d = %d");

// The result is 1 while the engine is enabled.
int pulsar3_dma_ethernet_status(int, int cn, int path, int card) {
    ethernet_state s;
    if (const int status = plr3_ethernet_status(path, card, s); status != 0)
        return pulsar3_status(cn, status);
    const auto &c = s.card_mac, &h = s.host_mac;
    sv_printf(cn, "# Card %d: %u.%u.%u.%u port %d, MAC %02x:%02x:%02x:%02x:%02x:%02x\n", card, s.card_ip[0],
              s.card_ip[1], s.card_ip[2], s.card_ip[3], s.card_port, c[0], c[1], c[2], c[3], c[4], c[5]);
    sv_printf(cn, "# sends to %u.%u.%u.%u port %d, MAC %02x:%02x:%02x:%02x:%02x:%02x\n", s.host_ip[0],
              s.host_ip[1], s.host_ip[2], s.host_ip[3], s.host_port, h[0], h[1], h[2], h[3], h[4], h[5]);
    sv_printf(cn, "# %s, gap between packets %u\n", s.enabled ? "enabled" : "not enabled", s.gap);
    return s.enabled ? 1 : 0;
}

int pulsar3_dma_toggle_enb(int, int cn, int path, int card) {
    return pulsar3_status(cn, plr3_toggle_enb(path, card));
}

int pulsar3_dma_read_time_stat_a(int, int cn, int path, int card) {
    constexpr int time_status_a = 34;
    std::uint32_t word = 0;
    if (const int status = plr3_read_card_reg(path, card, time_status_a, {&word, 1}); status != 0)
        return pulsar3_status(cn, status);
    sv_printf(cn, "# Card %d: %u time frames\n", card, word);
    return static_cast<int>(word);
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_dma_read_lm82_regs = pt_command<pulsar3_dma_read_lm82_regs>(
    "read-lm82-regs", read_lm82_regs_format, "List the registers of a card's temperature sensor",
    "Path/Card/Sensor, 0 processing FPGA, 1 mid-plane, 2 ADC board, 3 link FPGA");

extern constinit const PARSE_TREE row_pulsar3_dma_set_adc_temp = pt_command<pulsar3_dma_set_adc_temp>(
    "set-adc-temp", card_and_number_format, "Set the temperature at which the ADC board's sensor warns",
    "Path/Card, -1 for all/Degrees Celsius, 0 to 125");

extern constinit const PARSE_TREE row_pulsar3_dma_set_int_pack_gap = pt_command<pulsar3_dma_set_int_pack_gap>(
    "set-int-pack-gap", card_and_number_format, "Set the gap between packets of the data link",
    "Path/Card, -1 for all/Gap, 0 to 65535");

extern constinit const PARSE_TREE row_pulsar3_dma_setup_b2b_loopback = pt_command<
    pulsar3_dma_setup_b2b_loopback>(
    "setup-b2b-loopback", setup_b2b_loopback_format, "Loop the links between cards back, or not",
    "Path/Card, -1 for all/Lane, 0 to 3, -1 for all/At this card, digital part/At this card, analogue part/"
    "At the neighbour, analogue part/At the neighbour, digital part");

extern constinit const PARSE_TREE row_pulsar3_dma_show_b2b_status = pt_command<pulsar3_dma_show_b2b_status>(
    "show-b2b-status", show_b2b_status_format, "List the state of the links between cards", "Path/Card");

extern constinit const PARSE_TREE row_pulsar3_dma_set_b2b_ecc = pt_command<pulsar3_dma_set_b2b_ecc>(
    "set-b2b-ecc", set_b2b_ecc_format, "Correct errors on the links between cards",
    "Path/Card, -1 for all/Lane, 0 to 3, -1 for all/Do not");

extern constinit const PARSE_TREE row_pulsar3_dma_ethernet_status = pt_command<pulsar3_dma_ethernet_status>(
    "ethernet-status", card_format, "List a card's end of the data link", "Path/Card");

extern constinit const PARSE_TREE row_pulsar3_dma_toggle_enb = pt_command<pulsar3_dma_toggle_enb>(
    "toggle-enb", card_format, "Switch a card's end of the data link off and on", "Path/Card, -1 for all");

extern constinit const PARSE_TREE row_pulsar3_dma_read_time_stat_a = pt_command<pulsar3_dma_read_time_stat_a>(
    "read-time-stat-a", card_format, "Read how many time frames a card has ended", "Path/Card");

} // namespace kestrel
