#include "stream/common.h"

#include "parser/command_counts.h"
#include "parser/help.h"
#include "parser/interpreter.h"
#include "parser/script.h"
#include "server/hooks.h"
#include "server/options.h"
#include "server/session.h"
#include "support/fd.h"

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/select.h>
#include <sys/signalfd.h>

namespace kestrel::stream {

namespace {

std::optional<broker_site> site;
const server_program *running = nullptr;

[[noreturn]] void usage(const char *program, std::span<const program_option> options) {
    std::fprintf(stderr, "%s\nUsage:\n\t%s [-options]\nOptions:\n", sv_credit, program);
    for (const program_option &o : options)
        std::fprintf(stderr, "  %.*s%s  %s\n", static_cast<int>(o.word.size()), o.word.data(), o.value,
                     o.help);
    std::fprintf(stderr, "and the options of the server (-server? lists them)\n");
    std::exit(1);
}

bool take_option(std::string_view argument, std::span<const program_option> options) {
    for (const program_option &o : options)
        if (o.word.ends_with('=') ? argument.starts_with(o.word) : argument == o.word)
            return o.take(argument.substr(o.word.size()));
    return false;
}

// SIGTERM, with which services are stopped, ends the program like `shutdown`. All threads leave it to this descriptor.
unique_fd take_termination() {
    sigset_t ends;
    ::sigemptyset(&ends);
    ::sigaddset(&ends, SIGTERM);
    unique_fd fd(::signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK));
    if (fd)
        ::pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    return fd;
}

unique_fd termination;

int select_add(fd_set *set, int highest) {
    FD_SET(termination.get(), set);
    return std::max(highest, termination.get());
}

void select_test(const fd_set *set) {
    if (FD_ISSET(termination.get(), set))
        close_server = 1;
}

void user_main(int argc, char **argv) {
    std::signal(SIGPIPE, SIG_IGN); // before there are threads that write to the broker
    running->begin(argc, argv);
    if (sv_options.port == 0)
        sv_options.port = running->port;
}

void status(std::string &out) {
    pt_commands_status(out);
    running->status(out);
}

void metrics(std::string &out) {
    pt_commands_metrics(out);
    running->metrics(out);
}

} // namespace

const program_option site_option = {"-site=", "<site>", "The broker: HOST:PORT or unix:/PATH, and #PREFIX",
                                    take_site};

bool take_site(std::string_view text) {
    std::string cause;
    site = broker_site_of(text, cause);
    if (!site)
        std::fprintf(stderr, "! ERROR: %s\n", cause.c_str());
    return site.has_value();
}

const broker_site &chosen_site() {
    if (!site) {
        std::fprintf(stderr, "! ERROR: no site is named: -site=HOST:PORT or -site=unix:/PATH\n");
        std::exit(1);
    }
    return *site;
}

void take_options(int argc, char **argv, std::span<const program_option> options) {
    for (int i = 1; i < argc; ++i)
        if (!take_option(argv[i], options))
            usage(argv[0], options);
}

std::optional<long long> whole_number(std::string_view text) {
    long long number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

int run_server(const server_program &program, int argc, char **argv) {
    running = &program;
    termination = take_termination();
    if (termination) {
        user_select_add = select_add;
        user_select_test = select_test;
    }
    user_default_port = program.port;
    pt_set_root(program.root);
    sv_hooks.service = user_service;
    sv_hooks.include_startup = include_startup;
    sv_hooks.complete = user_sv_ln_completion;
    sv_hooks.user_main = user_main;
    sv_hooks.user_exit = program.end;
    sv_hooks.status = status;
    sv_hooks.metrics = metrics;
    return sv_main(argc, argv);
}

} // namespace kestrel::stream
