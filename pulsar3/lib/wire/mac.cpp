#include "pulsar3/lib/wire/mac.h"

#include "support/file_io.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <memory>
#include <optional>
#include <string>

namespace kestrel {

namespace {

struct free_interfaces {
    void operator()(ifaddrs *list) const { ::freeifaddrs(list); }
};
using interface_list = std::unique_ptr<ifaddrs, free_interfaces>;

interface_list all_interfaces() {
    ifaddrs *list = nullptr;
    return interface_list(::getifaddrs(&list) == 0 ? list : nullptr);
}

const char *owner_of(const ifaddrs *list, const in_addr &address) {
    for (; list; list = list->ifa_next) {
        const sockaddr *a = list->ifa_addr;
        if (a && a->sa_family == AF_INET &&
            reinterpret_cast<const sockaddr_in *>(a)->sin_addr.s_addr == address.s_addr)
            return list->ifa_name;
    }
    return nullptr;
}

std::optional<mac_address> mac_of(const ifaddrs *list, std::string_view name) {
    for (; list; list = list->ifa_next) {
        const sockaddr *a = list->ifa_addr;
        if (!a || a->sa_family != AF_PACKET || name != list->ifa_name)
            continue;
        const auto *link = reinterpret_cast<const sockaddr_ll *>(a);
        mac_address mac{};
        if (link->sll_halen != mac.size())
            return {};
        std::memcpy(mac.data(), link->sll_addr, mac.size());
        return mac;
    }
    return {};
}

std::string neighbour_table() {
    std::string text;
    const unique_file file(std::fopen("/proc/net/arp", "re"));
    char block[4096];
    for (std::size_t n = 1; file && n > 0;) {
        n = std::fread(block, 1, sizeof block, file.get());
        text.append(block, n);
    }
    return text;
}

} // namespace

// A row: address, hardware type, flags, hardware address, mask, device.
mac_address neighbour_mac(std::string_view table, std::string_view address) {
    for (std::size_t at = 0; at < table.size();) {
        const std::size_t end = std::min(table.find('\n', at), table.size());
        const std::string row(table.substr(at, end - at));
        at = end + 1;
        char who[64];
        mac_address m{};
        if (std::sscanf(row.c_str(), "%63s %*s %*s %2hhx:%2hhx:%2hhx:%2hhx:%2hhx:%2hhx", who, &m[0], &m[1],
                        &m[2], &m[3], &m[4], &m[5]) == 7 &&
            who == address)
            return m;
    }
    return {};
}

mac_address plr3_host_mac(const in_addr &address) {
    const interface_list list = all_interfaces();
    if (const char *name = owner_of(list.get(), address))
        return mac_of(list.get(), name).value_or(mac_address{});
    char text[INET_ADDRSTRLEN];
    ::inet_ntop(AF_INET, &address, text, sizeof text);
    return neighbour_mac(neighbour_table(), text);
}

} // namespace kestrel
