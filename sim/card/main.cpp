// sim/card: processing cards as a program: their control links, data links and readouts as threads of their own, and
// the session core with a command table that looks at them and makes them fail.
#include "parser/builtins.h"
#include "parser/help.h"
#include "parser/interpreter.h"
#include "parser/script.h"
#include "server/hooks.h"
#include "sim/card/commands.h"
#include "sim/card/control.h"
#include "sim/card/gate_link.h"
#include "sim/card/options.h"
#include "sim/card/timing.h"

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
    pt_row(row_radix),
    pt_row(row_retrieve_tree),
    pt_row(row_shutdown),
    pt_row(row_sleep),
    pt_row(row_status),
    pt_row(row_eval),
    pt_subtree("card", commands_state, "registers and memory of cards, what they saw"),
    pt_subtree("control", commands_control, "faults of the control link, power"),
    pt_subtree("events", commands_events, "what the detectors see, and what was made of it"),
    pt_subtree("packets", commands_packets, "the data link: faults, speed"),
    pt_subtree("gate", commands_gate, "the timing unit's gate (timing source 2)"),
    pt_subtree("frame", commands_frame, "the timing unit's time frames (timing source 2)"),
    pt_end(),
};

// The server took its options; then the cards start. Their threads leave signals to the command thread.
void start(int argc, char **argv) {
    if (argc > 1) {
        std::fprintf(stderr, "%s does not know the option %s\n", argv[0], argv[1]);
        std::exit(1);
    }
    sigset_t all, before;
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, &before);
    std::string why;
    const bool gated = gate_link_start(cards.gate_port, why);
    if (!gated || !control_start(why)) {
        gate_link_stop();
        std::fprintf(stderr, "%s: %s\n", argv[0], why.c_str());
        std::exit(1);
    }
    timing_start();
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace

} // namespace kestrel

int main(int argc, char **argv) {
    using namespace kestrel;
    std::vector<char *> given(argv, argv + argc + 1);
    std::string port = "-port=" + std::to_string(card_take_options(argc, given.data()));
    given.resize(static_cast<std::size_t>(argc));
    given.push_back(port.data());
    given.push_back(nullptr);
    pt_set_root(root);
    sv_hooks.service = user_service;
    sv_hooks.include_startup = include_startup;
    sv_hooks.complete = user_sv_ln_completion;
    sv_hooks.user_main = start;
    const int status = sv_main(argc + 1, given.data());
    gate_link_stop();
    timing_stop();
    control_stop();
    return status;
}
