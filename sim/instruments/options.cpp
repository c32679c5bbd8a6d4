#include "sim/instruments/options.h"

#include "sim/instruments/instrument.h"
#include "sim/options.h"

#include <arpa/inet.h>
#include <string>

namespace kestrel {

namespace {

constexpr int usual_text_port = 30300;
int text_port = usual_text_port;

bool port_of(std::string_view name, std::string_view text) {
    return sim_number(text, 1, 65535, bench_find(name)->tcp_port);
}

bool take_address(std::string_view text) {
    in_addr address{};
    if (::inet_pton(AF_INET, std::string(text).c_str(), &address) != 1)
        return false;
    bench.address = ntohl(address.s_addr);
    return true;
}

constexpr sim_option options[] = {
    {"-text", "n", "port for commands (30300); 0: this terminal",
     [](std::string_view t) { return sim_number(t, 0, 65535, text_port); }},
    {"-address", "a.b.c.d", "where the TCP ports of the instruments listen (127.0.0.1)", take_address},
    {"-ke2410", "n", "TCP port of the source-meter (any)",
     [](std::string_view t) { return port_of("ke2410", t); }},
    {"-ke2700", "n", "TCP port of the multimeter (any)",
     [](std::string_view t) { return port_of("ke2700", t); }},
    {"-tti", "n", "TCP port of the bench supply (9221)",
     [](std::string_view t) { return port_of("tti", t); }},
    {"-links", "folder", "where links to the serial lines are made (nowhere)",
     [](std::string_view t) { return !(bench.links = t).empty(); }},
    {"-seed", "n", "seed of all that is random (1)",
     [](std::string_view t) { return sim_number(t, std::uint64_t{0}, ~std::uint64_t{0}, bench.seed); }},
    {"-speed", "x", "seconds of the instruments in a second (1)",
     [](std::string_view t) { return sim_number(t, 1e-3, 1e6, bench.speed); }},
};

} // namespace

int bench_take_options(int &argc, char **argv) {
    sim_take_options(argc, argv, options);
    return text_port;
}

} // namespace kestrel
