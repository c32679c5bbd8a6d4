#include "server/allowed.h"

#include "server/logs.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstdio>

namespace kestrel {

namespace {

constexpr int address_bits = 32;

// The bits that the addresses of a network share.
std::uint32_t mask_of(int bits) {
    return bits == 0 ? 0 : ~std::uint32_t{0} << (address_bits - bits);
}

bool parse_network(std::string_view text, ip_network &network) {
    const std::size_t slash = text.find('/');
    in_addr address{};
    if (!sv_parse_address(text.substr(0, slash), address))
        return false;
    network = {ntohl(address.s_addr), address_bits};
    if (slash == std::string_view::npos)
        return true;
    const char *const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data() + slash + 1, last, network.bits);
    return error == std::errc() && end == last && network.bits >= 0 && network.bits <= address_bits;
}

std::string dotted(in_addr address) {
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

} // namespace

bool sv_parse_address(std::string_view text, in_addr &address) {
    return ::inet_pton(AF_INET, std::string(text).c_str(), &address) == 1 && text.find('\0') == text.npos;
}

bool sv_parse_networks(std::string_view text, std::vector<ip_network> &networks) {
    std::vector<ip_network> parsed;
    for (;;) {
        const std::size_t comma = text.find(',');
        ip_network network;
        if (!parse_network(text.substr(0, comma), network))
            return false;
        parsed.push_back(network);
        if (comma == std::string_view::npos)
            break;
        text.remove_prefix(comma + 1);
    }
    networks = std::move(parsed);
    return true;
}

bool sv_is_allowed(const std::vector<ip_network> &networks, in_addr peer) {
    const std::uint32_t address = ntohl(peer.s_addr);
    return networks.empty() || std::any_of(networks.begin(), networks.end(), [&](const ip_network &n) {
               return ((address ^ n.address) & mask_of(n.bits)) == 0;
           });
}

void sv_log_refused(in_addr peer) {
    const std::string entry = "Connection from " + dotted(peer) + " refused\n";
    std::fputs(entry.c_str(), stdout);
    for (std::FILE *log : {log_file, vlog_file}) {
        if (log && log != stdout)
            sv_log(log, entry);
    }
}

std::string sv_refusal(in_addr peer) {
    sv_log_refused(peer);
    return "! Connections from " + dotted(peer) + " are not allowed\r\n";
}

bool sv_is_from_browser(std::string_view first) {
    // What browsers send unasked for; of a line that has not ended yet the beginning decides.
    static constexpr std::string_view methods[] = {"GET /", "HEAD /", "POST /", "OPTIONS /"};
    const std::string_view line = first.substr(0, first.find('\n'));
    const bool whole = line.size() < first.size();
    const bool request = std::any_of(std::begin(methods), std::end(methods),
                                     [line](std::string_view method) { return line.starts_with(method); });
    const bool tls = first.size() > 2 && first.starts_with("\x16\x03") && first[2] >= 0 && first[2] <= 4;
    return tls || (request && (!whole || line.find(" HTTP/") != line.npos));
}

} // namespace kestrel
