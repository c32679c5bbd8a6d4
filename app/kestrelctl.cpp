// app: kestrelctl, which asks a running server over its control socket what it does, and interrupts it. It uses
// support/ only.
#include "support/control_client.h"

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr int default_port = 1972;
constexpr std::chrono::milliseconds patience{3000};
constexpr std::chrono::seconds watch_every{1};

constexpr const char *usage_text =
    "Usage: kestrelctl [-port=<nn>] [-control=<path>] COMMAND\n"
    "  status           what the server does: sessions, the line that runs, its progress\n"
    "  watch            the same every second, until ^C\n"
    "  stop [SESSION]   interrupts the line that runs (only when it is that session's), as ^C does\n"
    "  metrics          counts in the text form of Prometheus\n"
    "Without -control, the server on that port is asked (default: 1972).\n";

[[noreturn]] void usage() {
    std::fputs(usage_text, stderr);
    std::exit(2);
}

struct call {
    std::string path = control_path(default_port);
    std::string request;
};

void take_option(call &c, std::string_view option) {
    constexpr std::string_view port_word = "-port=", control_word = "-control=";
    if (option.starts_with(control_word)) {
        c.path = option.substr(control_word.size());
        return;
    }
    int port = 0;
    const char *const end = option.data() + option.size();
    if (!option.starts_with(port_word))
        usage();
    const auto [at, error] = std::from_chars(option.data() + port_word.size(), end, port);
    if (error != std::errc() || at != end || port < 0 || port > 65535)
        usage();
    c.path = control_path(port);
}

call take_arguments(int argc, char **argv) {
    call c;
    int at = 1;
    for (; at < argc && argv[at][0] == '-'; ++at)
        take_option(c, argv[at]);
    for (; at < argc; ++at)
        c.request += (c.request.empty() ? "" : " ") + std::string(argv[at]);
    const bool known = c.request == "status" || c.request == "watch" || c.request == "metrics" ||
                       c.request == "stop" || c.request.starts_with("stop ");
    if (!known)
        usage();
    return c;
}

// 0, or 1 when the server gives no answer or an error.
int ask(const call &c, std::string_view request) {
    std::string answer;
    if (!control_ask(c.path, request, patience, answer)) {
        std::fprintf(stderr, "kestrelctl: %s\n", answer.c_str());
        return 1;
    }
    const bool refused = answer.starts_with('!');
    std::fputs(answer.c_str(), refused ? stderr : stdout);
    std::fflush(stdout);
    return refused || std::ferror(stdout) ? 1 : 0;
}

// A terminal shows the newest only; elsewhere one status follows the other, an empty line between them.
int watch(const call &c) {
    const char *const before = ::isatty(STDOUT_FILENO) ? "\033[H\033[J" : "";
    const char *const after = ::isatty(STDOUT_FILENO) ? "" : "\n";
    for (;;) {
        std::fputs(before, stdout);
        if (ask(c, "status") != 0)
            return 1;
        std::fputs(after, stdout);
        std::this_thread::sleep_for(watch_every);
    }
}

} // namespace

} // namespace kestrel

int main(int argc, char **argv) {
    const kestrel::call call = kestrel::take_arguments(argc, argv);
    return call.request == "watch" ? kestrel::watch(call) : kestrel::ask(call, call.request);
}
