#include "pulsar3/lib/config/addresses.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>

namespace kestrel {

namespace {

// The numbers between the dots; only the low byte of each is kept.
template <std::size_t Parts> std::array<std::uint8_t, Parts> split(std::string_view text) {
    std::array<std::uint8_t, Parts> parts{};
    for (std::uint8_t &part : parts) {
        const std::string_view piece = text.substr(0, text.find('.'));
        unsigned number = 0;
        if (std::from_chars(piece.data(), piece.data() + piece.size(), number).ec == std::errc())
            part = static_cast<std::uint8_t>(number);
        text.remove_prefix(std::min(text.size(), piece.size() + 1));
    }
    return parts;
}

std::string dotted(const std::array<std::uint8_t, 4> &base, int add) {
    char text[16];
    const unsigned last = (base[3] + static_cast<unsigned>(add)) & 0xFF;
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", base[0], base[1], base[2], last);
    return text;
}

} // namespace

plr3_mac plr3_mac_base(const char *text) {
    return split<6>(text);
}

card_addresses plr3_card_addresses(const char *base_ip, const char *base_mac, int start, int card) {
    const std::array<std::uint8_t, 4> ip = split<4>(base_ip);
    card_addresses a;
    a.femIPaddress = dotted(ip, start + 1 + card);
    a.host10GigeIPaddress = dotted(ip, 4 * start + 64 + 4 * card);
    a.fem10GigeIPaddress = dotted(ip, 4 * start + 64 + 4 * card + 1);
    a.femMAC = plr3_mac_base(base_mac);
    a.femMAC[5] = static_cast<std::uint8_t>((start + card) * 2);
    char text[18];
    std::snprintf(text, sizeof text, "%02X.%02X.%02X.%02X.%02X.%02X", a.femMAC[0], a.femMAC[1], a.femMAC[2],
                  a.femMAC[3], a.femMAC[4], a.femMAC[5]);
    a.femMACaddress = text;
    return a;
}

} // namespace kestrel
