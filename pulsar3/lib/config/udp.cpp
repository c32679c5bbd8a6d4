// The data link of each card: the host's end is a socket, the card's end its UDP engine; for each channel a socket and
// a thread more. A mini model has a connection for its readout instead.
#include "pulsar3/lib/config/config_steps.h"
#include "pulsar3/lib/counts/shape.h"
#include "pulsar3/lib/paths/access.h"
#include "pulsar3/lib/wire/resolve.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <sched.h>
#include <vector>

namespace kestrel {

namespace {

constexpr std::uint32_t engine_register = 15, gap_register = 13;
constexpr std::uint32_t inter_packet_gap = 10;
constexpr int readout_port = 2; // behind the control port

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

// The processors that the environment names ("2-5,8") for receive threads, in order; none when it names none. What
// cannot be read is told to the session `to`.
std::vector<std::size_t> thread_processors(int to) {
    std::vector<std::size_t> processors;
    const char *whole = std::getenv("PLR3CPUS"), *text = whole;
    while (text && *text) {
        char *end = nullptr;
        const long first = std::strtol(text, &end, 10);
        long last = first;
        if (end != text && *end == '-')
            last = std::strtol(text = end + 1, &end, 10);
        if (end == text || (*end != ',' && *end != 0) || first < 0 || last < first || last >= CPU_SETSIZE) {
            plr3_message(to, "PLR3CPUS=%s cannot be read from '%s' on\n", whole, text);
            break;
        }
        for (long one = first; one <= last; ++one)
            processors.push_back(static_cast<std::size_t>(one));
        text = *end == ',' ? end + 1 : "";
    }
    return processors;
}

// Channel c's stream comes to the port behind the scope data's and c more.
int plr3_config_histogram_threads(int path, PLR3Path &card, const card_addresses &addresses, int port) {
    const std::vector<std::size_t> processors = thread_processors(card.message_to);
    for (int chan = 0; chan < card.chans_per_card; ++chan) {
        Histogram &h = *card.histogram[static_cast<std::size_t>(chan)];
        if (!processors.empty())
            CPU_SET(processors[static_cast<std::size_t>(h.chan_of_system) % processors.size()], &h.cpu_set);
        if (card.debug)
            plr3_message(card.message_to, "Starting Histogram Thread for top path %d, channel=%d .... \n",
                         path, h.chan_of_system);
        h.udpsock.recvBuf = hist_socket_buffer;
        if (const int rc = plr3_udp_init(h.udpsock, addresses.host10GigeIPaddress.c_str(), port + 1 + chan,
                                         addresses.fem10GigeIPaddress.c_str(), port);
            rc != 0)
            return plr3_fail(rc, "plr3_config_histogram_threads: %s on port %d", plr3_get_error_message(),
                             port + 1 + chan);
        if (const int rc = plr3_histogram_thread_start(h); rc != 0)
            return rc;
    }
    return 0;
}

int set_up_udp(int path, int card, PLR3Path &leaf, const card_addresses &addresses, const config_plan &plan) {
    const int port = plan.fem_port2;
    if (const int status = plr3_config_udp(path, card, addresses, port, port); status != 0)
        return status;
    return plr3_config_histogram_threads(path, leaf, addresses, port);
}

int set_up_readout(PLR3Path &card, const card_addresses &addresses, const config_plan &plan) {
    if (card.readout_mode == Plr3mRd_Passive) {
        plr3_message(card.message_to, "Is Pulsar3mini without active readout, so no extra TCP setup\n");
        return 0;
    }
    if (!card.femHandle)
        return 0;
    const auto address = plr3_resolve(addresses.femIPaddress.c_str());
    if (!address)
        return plr3_fail(plr3_failed, "Unable to resolve server name %s!", addresses.femIPaddress.c_str());
    card.readout = std::make_unique<mini_readout>();
    mini_readout &r = *card.readout;
    r.address = *address;
    r.port = plan.fem_port1 + readout_port;
    r.mode = static_cast<std::uint32_t>(card.readout_mode);
    r.message_to = card.message_to;
    for (int chan = 0; chan < card.chans_per_card; ++chan)
        r.channels.push_back(card.histogram[static_cast<std::size_t>(chan)].get());
    plr3_place_scalers(card);
    return plr3_readout_start(r);
}

// One line for all sockets.
void tell_small_buffers(int path) {
    const PLR3Path &top = *plr3_path(path);
    const PLR3Path &first = *plr3_path(plr3_leaf(top, path, 0));
    const Histogram &h = *first.histogram.front();
    if (h.udpsock.socket && h.udpsock.recvBuf < hist_socket_buffer)
        plr3_message(top.message_to,
                     "Receive buffers have %d bytes of %d, raise the sysctl net.core.rmem_max against loss\n",
                     h.udpsock.recvBuf, hist_socket_buffer);
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

namespace {

// size(descriptor) of each socket of the cards that are meant: the least.
template <class F> int least_buffer(const char *function, int path, int card, F size) {
    const PLR3Path *top = plr3_path(path);
    if (!top)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    if (card < -1 || card >= top->num_cards)
        return plr3_fail(plr3_illegal_card, "%s: illegal card specified (%d)", function, card);
    int least = INT_MAX;
    for (int one = std::max(card, 0); one < (card < 0 ? top->num_cards : card + 1); ++one) {
        PLR3Path &leaf = *plr3_path(plr3_leaf(*top, path, one));
        if (!leaf.udpsock.socket)
            return plr3_fail(plr3_failed, "%s: card %d of path %d has no data link", function, one, path);
        least = std::min(least, size(leaf.udpsock));
        for (int chan = 0; chan < leaf.chans_per_card; ++chan)
            least = std::min(least, size(leaf.histogram[static_cast<std::size_t>(chan)]->udpsock));
    }
    return least;
}

} // namespace

int plr3_set_udp_buffer_size(int path, int card, int bytes) {
    if (bytes < udp_packet_max)
        return plr3_fail(plr3_out_of_range, "plr3_set_udp_buffer_size: %d bytes do not hold a packet of %d",
                         bytes, udp_packet_max);
    return least_buffer("plr3_set_udp_buffer_size", path, card, [bytes](UDPconnection &c) {
        return c.recvBuf = plr3_udp_set_buffer(c.socket.get(), bytes);
    });
}

int plr3_get_udp_buffer_size(int path, int card) {
    return least_buffer("plr3_get_udp_buffer_size", path, card,
                        [](UDPconnection &c) { return plr3_udp_get_buffer(c.socket.get()); });
}

int plr3_set_up_data_link(int path, const config_plan &plan) {
    for (int card = 0; card < static_cast<int>(plan.cards.size()); ++card) {
        PLR3Path &leaf = *plr3_path(plr3_leaf(*plr3_path(path), path, card));
        const card_addresses &addresses = plan.cards[static_cast<std::size_t>(card)];
        const int status = leaf.features.generation == PulsarGen3Mini ? set_up_readout(leaf, addresses, plan)
                           : leaf.femHandle ? set_up_udp(path, card, leaf, addresses, plan)
                                            : 0;
        if (status != 0)
            return plr3_fail(status, "plr3_do_config: %s", plr3_get_error_message());
    }
    tell_small_buffers(path);
    return 0;
}

} // namespace kestrel
