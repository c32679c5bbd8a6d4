// The card's end of the data link: the registers of its UDP engine.
#include "pulsar3/lib/wire/error.h"
#include "pulsar3/lib/wire/fem.h"
#include "pulsar3/lib/wire/mac.h"

#include <arpa/inet.h>
#include <array>

namespace kestrel {

namespace {

constexpr std::uint32_t host_port_register = 9;
constexpr std::uint32_t packet_size_register = 12;
constexpr std::uint32_t frame_counter_register = 16;
constexpr std::uint32_t host_port_base = 0x80000;
constexpr int packet_size_offset = 127; // the register holds the packet's words of 8 bytes less these
constexpr int packet_max = 9000;

struct register_value {
    std::uint32_t address, value;
};

bool is_port(int port) {
    return port >= 0 && port <= 0xFFFF;
}

std::uint32_t port_value(int port) {
    return htons(static_cast<std::uint16_t>(port));
}

// Two bytes of an address, the first of them in bits 0..7.
constexpr std::uint32_t pair(const std::uint8_t *bytes) {
    return bytes[0] | static_cast<std::uint32_t>(bytes[1]) << 8;
}

constexpr std::uint32_t both(std::uint32_t low, std::uint32_t high) {
    return low | high << 16;
}

std::array<std::uint8_t, 4> bytes_of(const in_addr &address) {
    return std::bit_cast<std::array<std::uint8_t, 4>>(address.s_addr);
}

} // namespace

int pulsar3FemConfigUDP(FemHandle &h, const std::uint8_t *card_mac, const char *card_ip, int card_port,
                        const char *host_ip, int host_port) {
    in_addr card_address{}, host_address{};
    if (::inet_pton(AF_INET, card_ip, &card_address) != 1 ||
        ::inet_pton(AF_INET, host_ip, &host_address) != 1)
        return plr3_fail(plr3_failed, "pulsar3FemConfigUDP: addresses '%s' and '%s' must be numeric", card_ip,
                         host_ip);
    if (!is_port(card_port) || !is_port(host_port))
        return plr3_fail(plr3_failed, "pulsar3FemConfigUDP: ports %d and %d must be in 0..65535", card_port,
                         host_port);
    const mac_address host_mac = plr3_host_mac(host_address);
    const auto card = bytes_of(card_address), host = bytes_of(host_address);
    const std::array settings{
        register_value{0, both(pair(card_mac), pair(card_mac + 2))},
        register_value{1, both(pair(card_mac + 4), pair(&host_mac[0]))},
        register_value{2, both(pair(&host_mac[2]), pair(&host_mac[4]))},
        register_value{4, 0xDB00001C},
        register_value{6, both(0xDEAD, pair(&host[0]))},
        register_value{7, both(pair(&host[2]), pair(&card[0]))},
        register_value{8, both(pair(&card[2]), port_value(card_port))},
        register_value{host_port_register, host_port_base + port_value(host_port)},
        register_value{11, 0xB300},
        register_value{packet_size_register, packet_max / 8 - packet_size_offset},
        register_value{13, 10}, // inter-packet gap
        register_value{14, 0xAA},
        register_value{15, 1}, // enable
    };
    for (const auto &[address, value] : settings)
        if (const int rc = pulsar3FemRDMAWrite(h, address, {&value, 1}))
            return rc;
    return 0;
}

int pulsar3FemSetHostPort(FemHandle &h, int port) {
    if (!is_port(port))
        return plr3_fail(plr3_failed, "pulsar3FemSetHostPort: port %d must be in 0..65535", port);
    const std::uint32_t value = host_port_base + port_value(port);
    return pulsar3FemRDMAWrite(h, host_port_register, {&value, 1});
}

int pulsar3FemSetPacketSize(FemHandle &h, int bytes) {
    constexpr int least = 8 * packet_size_offset;
    if (bytes < least || bytes > packet_max || bytes % 8 != 0)
        return plr3_fail(plr3_failed, "pulsar3FemSetPacketSize: %d bytes, must be a multiple of 8 in %d..%d",
                         bytes, least, packet_max);
    const auto value = static_cast<std::uint32_t>(bytes / 8 - packet_size_offset);
    return pulsar3FemRDMAWrite(h, packet_size_register, {&value, 1});
}

int pulsar3FemResetFrameCounter(FemHandle &h, int value) {
    const auto word = static_cast<std::uint32_t>(value);
    return pulsar3FemRDMAWrite(h, frame_counter_register, {&word, 1});
}

} // namespace kestrel
