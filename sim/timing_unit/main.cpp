// sim/timing_unit: a timing frame generator as a program: the unit as a thread of its own, which gates simulated cards,
// and the session core with the unit's commands. It can take the place of the server that drives a real one.
#include "parser/builtins.h"
#include "parser/help.h"
#include "parser/interpreter.h"
#include "parser/script.h"
#include "server/hooks.h"
#include "sim/timing_unit/commands.h"
#include "sim/timing_unit/gates.h"
#include "sim/timing_unit/unit.h"

#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace kestrel {

namespace {

constinit const PARSE_TREE kairo_table[] = {
    pt_row(row_config),
    pt_row(row_setup_groups),
    pt_row(row_options),
    pt_row(row_generate),
    pt_row(row_init),
    pt_row(row_setup_trig),
    pt_row(row_setup_tfout),
    pt_row(row_setup_veto),
    pt_row(row_alternate_veto),
    pt_row(row_setup_port),
    pt_row(row_stop),
    pt_row(row_list_seq),
    pt_row(row_start),
    pt_row(row_arm),
    pt_row(row_cont),
    pt_row(row_wait),
    pt_row(row_clear_starts),
    pt_subtree("read", commands_read, "where the unit is"),
    pt_end(),
};

constinit const PARSE_TREE root[] = {
    pt_row(row_help),
    pt_row(row_echo),
    pt_row(row_port),
    pt_row(row_retrieve_tree),
    pt_row(row_quit),
    pt_row(row_radix),
    pt_row(row_shutdown),
    pt_row(row_sleep),
    pt_row(row_status),
    pt_row(row_eval),
    pt_subtree("kairo", kairo_table, "the timing unit"),
    pt_row(row_trigger),
    pt_subtree("module", commands_module, "the frame times as a module"),
    pt_row(row_get_nx),
    pt_row(row_get_ny),
    pt_row(row_get_nt),
    pt_row(row_get_type),
    pt_row(row_read_times),
    pt_end(),
};

[[noreturn]] void usage(const char *program, const std::string &why) {
    std::fprintf(stderr, "%s: %s\n", program, why.c_str());
    std::fprintf(stderr,
                 "Usage: %s, with any of\n  -gate=<n>   gate port of a card simulator; may be repeated\n",
                 program);
    std::fprintf(stderr, "and the options of the server (-server? lists them)\n");
    std::exit(1);
}

void take_option(const char *program, std::string_view option) {
    constexpr std::string_view gate = "-gate=";
    int port = 0;
    const bool is_gate = option.starts_with(gate);
    const auto [end, error] =
        std::from_chars(option.data() + (is_gate ? gate.size() : 0), option.data() + option.size(), port);
    if (!is_gate || error != std::errc() || end != option.data() + option.size() || port < 1 || port > 65535)
        usage(program, "cannot understand " + std::string(option));
    if (std::string why; !gates_connect(port, why))
        usage(program, why);
}

// The server took its options. The unit's thread leaves signals to the command thread.
void start(int argc, char **argv) {
    for (int i = 1; i < argc; ++i)
        take_option(argv[0], argv[i]);
    sigset_t all, before;
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, &before);
    unit_start_thread();
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace

} // namespace kestrel

int main(int argc, char **argv) {
    using namespace kestrel;
    pt_set_root(root);
    sv_hooks.service = user_service;
    sv_hooks.include_startup = include_startup;
    sv_hooks.complete = user_sv_ln_completion;
    sv_hooks.user_main = start;
    const int status = sv_main(argc, argv);
    unit_stop_thread();
    return status;
}
