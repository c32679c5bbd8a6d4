// Flow control without loops: `if` and `sleep`. Scripts and loops are in script.cpp and loops.cpp.
#include "parser/builtins.h"
#include "parser/interpreter.h"
#include "server/wait.h"

namespace kestrel {

namespace {

// Runs `function` as a command line; a line that is only a value (not a command) gives 0.
int if_command(int, int cn, int value, const char *function) {
    if (value == 0)
        return 0;
    int was_value = 0;
    const int result = user_service_script(cn, function, 0, nullptr, nullptr, &was_value);
    return was_value ? 0 : result;
}

int simple_sleep(int, int cn, double seconds) {
    return sv_sleep(cn, seconds);
}

} // namespace

constinit const PARSE_TREE row_if =
    pt_command<if_command>("if", "%d %s = %d", "Perform command if value != 0", "Value/Command line");
constinit const PARSE_TREE row_sleep = pt_command<simple_sleep>(
    "sleep", "%g quiet = %d", "Sleep for a specifed time", "Time in seconds/No messages");

} // namespace kestrel
