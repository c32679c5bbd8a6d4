// The data link of each card: the host's end is a socket, the card's end its UDP engine.
#include "pulsar3/lib/config/config_steps.h"
#include "pulsar3/lib/paths/access.h"

namespace kestrel {

namespace {

constexpr std::uint32_t engine_register = 15, gap_register = 13;
constexpr std::uint32_t inter_packet_gap = 10;

int set_gap(FemHandle &fem) {
    std::uint32_t engine = 0;
    if (const int rc = pulsar3FemRDMARead(fem, engine_register, {&engine, 1}); rc != 0)
        return plr3_fail(rc, "plr3_config_udp: Error reading RDMA Reg 15: %s rc=%d", plr3_get_error_message(),
                         rc);
    if (const int rc = pulsar3FemRDMAWrite(fem, engine_register, {&engine, 1}); rc != 0)
        return plr3_fail(rc, "plr3_config_udp: Error writing RDMA Reg 15: %s rc=%d", plr3_get_error_message(),
                         rc);
    if (const int rc = pulsar3FemRDMAWrite(fem, gap_register, {&inter_packet_gap, 1}); rc != 0)
        return plr3_fail(rc, "plr3_config_udp: Error writing inter-packet gap, RDMA Reg 13: %s rc=%d",
                         plr3_get_error_message(), rc);
    return 0;
}

} // namespace

int plr3_config_udp(int path, int card, const card_addresses &addresses, int card_port, int host_port) {
    const PLR3Path *top = plr3_path(path);
    if (!top)
        return plr3_fail(plr3_invalid_path, "plr3_config_udp: Invalid Path %d", path);
    const int leaf_path = plr3_card_path("plr3_config_udp", path, card);
    if (leaf_path < 0)
        return leaf_path;
    PLR3Path &leaf = *plr3_path(leaf_path);
    const char *host = addresses.host10GigeIPaddress.c_str(), *fem = addresses.fem10GigeIPaddress.c_str();
    if (leaf.debug)
        plr3_message(leaf.message_to, "plr3_config_udp: host %s port %d fem %s port %d\n", host, host_port,
                     fem, card_port);
    if (const int rc = plr3_udp_init(leaf.udpsock, host, host_port, fem, card_port); rc != 0)
        return plr3_fail(rc, "plr3_config_udp: plr3_udp_init: %s on port %d", plr3_get_error_message(),
                         host_port);
    if (const int rc =
            pulsar3FemConfigUDP(*leaf.femHandle, addresses.femMAC.data(), fem, card_port, host, host_port);
        rc != 0)
        return plr3_fail(rc, "plr3_config_udp: pulsar3FemConfigUDP : '%s' returned %d",
                         plr3_get_error_message(), rc);
    return set_gap(*leaf.femHandle);
}

int plr3_set_up_data_link(int path, const config_plan &plan) {
    for (int card = 0; card < static_cast<int>(plan.cards.size()); ++card) {
        const PLR3Path &leaf = *plr3_path(plr3_leaf(*plr3_path(path), path, card));
        if (leaf.features.generation == PulsarGen3Mini)
            continue;
        const int status = plr3_config_udp(path, card, plan.cards[static_cast<std::size_t>(card)],
                                           plan.fem_port2, plan.fem_port2);
        if (status != 0)
            return plr3_fail(status, "plr3_do_config: %s", plr3_get_error_message());
    }
    return 0;
}

} // namespace kestrel
