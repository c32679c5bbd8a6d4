// pulsar3/lib/config: the network addresses of a system's cards, made from one base address. All is arithmetic on
// texts: nothing is looked up.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace kestrel {

inline constexpr const char *plr3_default_ip = "192.168.0.1";
inline constexpr const char *plr3_default_mac = "02.00.00.00.00.00";
inline constexpr int plr3_default_port = 30123;
// The data ports of 16 channels lie behind the control port.
inline constexpr int plr3_highest_port = 65535 - 18;

using plr3_mac = std::array<std::uint8_t, 6>;

struct card_addresses {
    std::string femIPaddress;        // control link
    std::string host10GigeIPaddress; // the host's end of the data link
    std::string fem10GigeIPaddress;  // the card's
    plr3_mac femMAC{};
    std::string femMACaddress; // the same, as text
};

// Of card `card` of a system that begins with card `start` of the installation. Last octets wrap at 256. Each part
// of the bases is read as a decimal number; one that is missing or unreadable is 0.
card_addresses plr3_card_addresses(const char *base_ip, const char *base_mac, int start, int card);

// The six bytes of a MAC base. All zero: the system is used without its data link.
plr3_mac plr3_mac_base(const char *text);

} // namespace kestrel
