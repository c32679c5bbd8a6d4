// `motor`: the same command words on the motor server, with the numbers as evaluated here.
#include "instruments/links/clients.h"
#include "instruments/links/commands.h"

#include <string>

namespace kestrel::links {

namespace {

int two_numbers(int cn, const char *verb, int motor, int value) {
    return send_wait(cn, link_motors,
                     std::string("motor ") + verb + " " + std::to_string(motor) + " " +
                         std::to_string(value));
}

int one_number(int cn, const char *verb, int motor) {
    return send_wait(cn, link_motors, std::string("motor ") + verb + " " + std::to_string(motor));
}

int move_by(int, int cn, int motor, int steps) {
    return two_numbers(cn, "move-by", motor, steps);
}
int move_to(int, int cn, int motor, int position) {
    return two_numbers(cn, "move-to", motor, position);
}
int zero(int, int cn, int motor) {
    return one_number(cn, "zero", motor);
}
int get_posn(int, int cn, int motor) {
    return one_number(cn, "get-posn", motor);
}
int config_remote(int, int cn, const char *command) {
    return send_wait(cn, link_motors, command);
}

constinit const PARSE_TREE motor_config_tree[] = {
    pt_command<config_remote>("remote", "%s = %d", "send a configuration command to the motor server",
                              "Configuration command"),
    pt_end(),
};

} // namespace

constinit const PARSE_TREE motor_tree[] = {
    pt_command<move_by>("move-by", "%d %d = %d", "move a stepper motor by a number of steps",
                        "Motor number/Number of steps"),
    pt_command<move_to>("move-to", "%d %d = %d", "move a stepper motor to a position",
                        "Motor number/Position"),
    pt_command<zero>("zero", "%d = %d", "make the present position of a stepper motor its zero",
                     "Motor number"),
    pt_command<get_posn>("get-posn", "%d = %d", "get the position of a stepper motor", "Motor number"),
    pt_subtree("config", motor_config_tree, "prefix for stepper-motor configuration functions"),
    pt_end(),
};

} // namespace kestrel::links
