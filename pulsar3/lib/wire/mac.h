// pulsar3/lib/wire: the hardware address that frames for an Internet address of this side go to.
#pragma once

#include <array>
#include <cstdint>
#include <netinet/in.h>
#include <string_view>

namespace kestrel {

using mac_address = std::array<std::uint8_t, 6>;

// That of the interface that owns the address, else the neighbour table's; zeros when neither knows one (loop-back).
mac_address plr3_host_mac(const in_addr &address);

// The entry of an address in the text of the kernel's neighbour table (/proc/net/arp); zeros when there is none.
mac_address neighbour_mac(std::string_view table, std::string_view address);

} // namespace kestrel
