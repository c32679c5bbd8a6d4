// sim/instruments: bench instruments as a program: a source-meter, a multimeter, a bench supply and a high-voltage
// supply on serial lines and TCP ports, and the session core with a command table that looks at them and makes them
// fail.
#include "parser/builtins.h"
#include "parser/help.h"
#include "parser/interpreter.h"
#include "parser/script.h"
#include "server/hooks.h"
#include "sim/instruments/commands.h"
#include "sim/instruments/options.h"
#include "sim/instruments/wires.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace kestrel {

namespace {

constinit const PARSE_TREE root[] = {
    pt_row(row_help),
    pt_row(row_echo),
    pt_row(row_include),
    pt_row(row_quit),
    pt_row(row_retrieve_tree),
    pt_row(row_radix),
    pt_row(row_shutdown),
    pt_row(row_sleep),
    pt_row(row_status),
    pt_row(row_eval),
    pt_subtree("wire", commands_wires, "serial lines and ports, what came over them, faults"),
    pt_subtree("ke2410", commands_ke2410, "the source-meter and its detector"),
    pt_subtree("ke2700", commands_ke2700, "the multimeter's inputs"),
    pt_subtree("tti", commands_tti, "the bench supply"),
    pt_subtree("iseg", commands_iseg, "the high-voltage supply and its detectors"),
    pt_end(),
};

// The server took its options; then the wires are made. Their thread leaves signals to the command thread.
void start(int argc, char **argv) {
    if (argc > 1) {
        std::fprintf(stderr, "%s does not know the option %s\n", argv[0], argv[1]);
        std::exit(1);
    }
    sigset_t all, before;
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, &before);
    std::string why;
    if (!wires_start(why)) {
        std::fprintf(stderr, "%s: %s\n", argv[0], why.c_str());
        std::exit(1);
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace

} // namespace kestrel

int main(int argc, char **argv) {
    using namespace kestrel;
    std::vector<char *> given(argv, argv + argc + 1);
    bench_find("tti")->tcp_port = 9221;
    std::string port = "-port=" + std::to_string(bench_take_options(argc, given.data()));
    given.resize(static_cast<std::size_t>(argc));
    given.push_back(port.data());
    given.push_back(nullptr);
    pt_set_root(root);
    sv_hooks.service = user_service;
    sv_hooks.include_startup = include_startup;
    sv_hooks.complete = user_sv_ln_completion;
    sv_hooks.user_main = start;
    const int status = sv_main(argc + 1, given.data());
    wires_stop();
    return status;
}
