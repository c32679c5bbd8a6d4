// display: kestrel-display, the image display of link 7 and the live page. A server of our own kind with a table of its
// own on port 1970, and a web server beside it.
#include "display/root_table.h"
#include "display/web.h"
#include "parser/command_counts.h"
#include "parser/help.h"
#include "parser/interpreter.h"
#include "parser/script.h"
#include "server/allowed.h"
#include "server/hooks.h"
#include "server/options.h"
#include "support/control_client.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>

namespace kestrel::display {

namespace {

constexpr int link_port = 1970;
constexpr int server_port = 1972;

web_options options{.address = {htonl(INADDR_LOOPBACK)}, .server_path = control_path(server_port)};

std::optional<int> port_number(std::string_view text) {
    int port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    const bool good = error == std::errc() && end == text.data() + text.size() && port >= 0 && port <= 65535;
    return good ? std::optional(port) : std::nullopt;
}

bool take_http(std::string_view text) {
    const std::size_t colon = text.rfind(':');
    const std::optional<int> port = port_number(text.substr(colon == text.npos ? 0 : colon + 1));
    options.port = port.value_or(0);
    return port && (colon == text.npos || sv_parse_address(text.substr(0, colon), options.address));
}

bool take_server(std::string_view text) {
    const std::optional<int> port = port_number(text);
    options.server_path = port ? control_path(*port) : std::string(text);
    return !text.empty();
}

bool take_name(std::string_view text) {
    options.names.emplace_back(text);
    return !text.empty();
}

struct display_option {
    std::string_view word;
    const char *value, *help;
    bool (*take)(std::string_view);
};
constexpr display_option words[] = {
    {"-http=", "[address:]port", "Serve the page there (default: 127.0.0.1:8970)", take_http},
    {"-server=", "port or path", "Watch the server on that port, or with that control socket (default: 1972)",
     take_server},
    {"-name=", "name", "The page may be asked for by this name of the machine, too", take_name},
};

[[noreturn]] void usage(const char *program) {
    std::fprintf(stderr, "%s\nUsage:\n\t%s [-options]\nOptions:\n", sv_credit, program);
    for (const display_option &o : words)
        std::fprintf(stderr, "  %.*s<%s>  %s\n", static_cast<int>(o.word.size()), o.word.data(), o.value,
                     o.help);
    std::fprintf(stderr, "and the options of the server (-server? lists them)\n");
    std::exit(1);
}

bool take_option(std::string_view argument) {
    for (const display_option &o : words)
        if (argument.starts_with(o.word))
            return o.take(argument.substr(o.word.size()));
    return false;
}

void user_main(int argc, char **argv) {
    for (int i = 1; i < argc; ++i)
        if (!take_option(argv[i]))
            usage(argv[0]);
    if (sv_options.port == 0)
        sv_options.port = link_port;
    if (!web_start(options))
        std::exit(1);
}

} // namespace

} // namespace kestrel::display

int main(int argc, char **argv) {
    using namespace kestrel;
    user_default_port = display::link_port;
    pt_set_root(display::root_table);
    sv_hooks.service = user_service;
    sv_hooks.include_startup = include_startup;
    sv_hooks.complete = user_sv_ln_completion;
    sv_hooks.user_main = display::user_main;
    sv_hooks.user_exit = display::web_stop;
    sv_hooks.status = pt_commands_status;
    sv_hooks.metrics = pt_commands_metrics;
    return sv_main(argc, argv);
}
