// sim: a stepper-motor server. The session core and the command language with a table of its own: all that
// another server of our kind needs. It can be told to be slow, to fail, and to die.
#include "parser/builtins.h"
#include "parser/help.h"
#include "parser/interpreter.h"
#include "parser/script.h"
#include "server/hooks.h"
#include "server/options.h"
#include "server/output.h"
#include "server/timebar.h"
#include "server/wait.h"

#include <cstdio>
#include <cstdlib>

namespace kestrel {

namespace {

constexpr int motors = 32;
constexpr int moves_shown = 4; // progress lines of a slow move

int position[motors];
double seconds_a_move = 0.0;
int failures_left = 0;
int commands_left = -1; // before it dies; -1 for ever

// Every motor command: known motor, no failure asked for, and alive.
bool ready(int cn, int motor) {
    if (commands_left == 0)
        std::_Exit(3); // the connection breaks with the command unanswered
    if (commands_left > 0)
        --commands_left;
    if (motor < 0 || motor >= motors) {
        sv_printf(cn, "! Motor should be 0..%d not %d\n", motors - 1, motor);
        return false;
    }
    if (failures_left > 0) {
        --failures_left;
        sv_printf(cn, "! Motor %d does not move\n", motor);
        return false;
    }
    return true;
}

int move(int cn, int motor, int to) {
    sv_printf(cn, "# Motor %d moves from %d to %d\n", motor, position[motor], to);
    for (int step = 0; seconds_a_move > 0.0 && step < moves_shown; ++step) {
        sv_timebar(cn, step, moves_shown, "moving");
        if (sv_sleep(cn, seconds_a_move / moves_shown) != 0)
            return -1;
    }
    position[motor] = to;
    return 0;
}

int move_by(int, int cn, int motor, int steps) {
    return ready(cn, motor)
               ? move(cn, motor,
                      static_cast<int>(static_cast<unsigned>(position[motor]) + static_cast<unsigned>(steps)))
               : -1;
}

int move_to(int, int cn, int motor, int to) {
    return ready(cn, motor) ? move(cn, motor, to) : -1;
}

int zero(int, int cn, int motor) {
    if (!ready(cn, motor))
        return -1;
    position[motor] = 0;
    return 0;
}

int get_posn(int, int cn, int motor) {
    return ready(cn, motor) ? position[motor] : -1;
}

int config_slow(int, int, double seconds) {
    seconds_a_move = seconds;
    return 0;
}

int config_fail(int, int, int times) {
    failures_left = times;
    return 0;
}

int config_die(int, int, int commands) {
    commands_left = commands;
    return 0;
}

constinit const PARSE_TREE config_tree[] = {
    pt_command<config_slow>("slow", "%g = %d", "let every move take a time", "Seconds"),
    pt_command<config_fail>("fail", "%d = %d", "let the next commands fail", "Number of commands"),
    pt_command<config_die>("die", "%d = %d", "end the server in the middle of a command",
                           "Commands before that"),
    pt_end(),
};

constinit const PARSE_TREE motor_tree[] = {
    pt_command<move_by>("move-by", "%d %d = %d", "move a stepper motor by a number of steps",
                        "Motor number/Number of steps"),
    pt_command<move_to>("move-to", "%d %d = %d", "move a stepper motor to a position",
                        "Motor number/Position"),
    pt_command<zero>("zero", "%d = %d", "make the present position of a stepper motor its zero",
                     "Motor number"),
    pt_command<get_posn>("get-posn", "%d = %d", "get the position of a stepper motor", "Motor number"),
    pt_subtree("config", config_tree, "prefix for configuration functions"),
    pt_end(),
};

constinit const PARSE_TREE root[] = {
    pt_row(row_help),
    pt_row(row_echo),
    pt_row(row_quit),
    pt_row(row_retrieve_tree),
    pt_row(row_shutdown),
    pt_row(row_status),
    pt_subtree("motor", motor_tree, "stepper motors"),
    pt_end(),
};

void user_main(int argc, char **argv) {
    if (argc <= 1)
        return;
    std::fprintf(stderr, "Usage: %s -port[=<nn>]\n", argv[0]);
    std::exit(1);
}

} // namespace

} // namespace kestrel

int main(int argc, char **argv) {
    using namespace kestrel;
    pt_set_root(root);
    sv_hooks.service = user_service;
    sv_hooks.include_startup = include_startup;
    sv_hooks.complete = user_sv_ln_completion;
    sv_hooks.user_main = user_main;
    return sv_main(argc, argv);
}
