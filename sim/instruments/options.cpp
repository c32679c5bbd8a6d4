#include "sim/instruments/options.h"

#include "sim/instruments/instrument.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

namespace kestrel {

namespace {

constexpr int usual_text_port = 30300;
int text_port = usual_text_port;

template <class T> bool number(std::string_view text, T low, T high, T &out) {
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !(value >= low && value <= high))
        return false;
    out = value;
    return true;
}

bool port_of(std::string_view name, std::string_view text) {
    return number(text, 1, 65535, bench_find(name)->tcp_port);
}

bool take_address(std::string_view text) {
    in_addr address{};
    if (::inet_pton(AF_INET, std::string(text).c_str(), &address) != 1)
        return false;
    bench.address = ntohl(address.s_addr);
    return true;
}

struct option {
    std::string_view word, value, help;
    bool (*take)(std::string_view);
};

constexpr option options[] = {
    {"-text", "n", "port for commands (30300); 0: this terminal",
     [](std::string_view t) { return number(t, 0, 65535, text_port); }},
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
     [](std::string_view t) { return number(t, std::uint64_t{0}, ~std::uint64_t{0}, bench.seed); }},
    {"-speed", "x", "seconds of the instruments in a second (1)",
     [](std::string_view t) { return number(t, 1e-3, 1e6, bench.speed); }},
};

[[noreturn]] void usage(const char *program, std::string_view wrong) {
    std::fprintf(stderr, "Cannot understand %.*s\n", static_cast<int>(wrong.size()), wrong.data());
    std::fprintf(stderr, "Usage: %s, with any of\n", program);
    for (const option &o : options) {
        const std::string form = std::string(o.word) + "=<" + std::string(o.value) + ">";
        std::fprintf(stderr, "  %-20s %.*s\n", form.c_str(), static_cast<int>(o.help.size()), o.help.data());
    }
    std::fprintf(stderr, "and the options of the server (-server? lists them)\n");
    std::exit(1);
}

// Nothing when the option is not one of ours.
std::optional<bool> take(std::string_view argument) {
    for (const option &o : options) {
        if (argument.starts_with(o.word) && argument.substr(o.word.size()).starts_with('='))
            return o.take(argument.substr(o.word.size() + 1));
    }
    return std::nullopt;
}

} // namespace

int bench_take_options(int &argc, char **argv) {
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        const std::optional<bool> taken = take(argv[i]);
        if (!taken)
            argv[kept++] = argv[i];
        else if (!*taken)
            usage(argv[0], argv[i]);
    }
    argc = kept;
    argv[argc] = nullptr;
    return text_port;
}

} // namespace kestrel
