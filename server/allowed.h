// server: who may connect, and where the server listens: the options -allow and -listen. IPv4, as the sessions are.
#pragma once

#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

// The addresses whose first `bits` bits are those of `address`; both in the host's byte order.
struct ip_network {
    std::uint32_t address = 0;
    int bits = 32;
};

// "NETWORK[,NETWORK]", each a dotted address with "/bits" behind it or without (that one address). Nothing of the list
// is taken when one of them is not; an empty list is none.
bool sv_parse_networks(std::string_view text, std::vector<ip_network> &networks);

// A dotted address; false for anything else.
bool sv_parse_address(std::string_view text, in_addr &address);

// Tells standard output and the logs that this peer was refused. Any thread.
void sv_log_refused(in_addr peer);
// The same, of one that is not allowed; returns the line that it gets.
std::string sv_refusal(in_addr peer);

// Whether these are the first bytes of a browser's request. Any page that somebody has open can make one and choose what
// stands below its first line: as a session it would give commands.
bool sv_is_from_browser(std::string_view first);

// Without networks everybody may.
bool sv_is_allowed(const std::vector<ip_network> &networks, in_addr peer);

} // namespace kestrel
