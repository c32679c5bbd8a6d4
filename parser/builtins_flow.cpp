// Scripts, macros and flow control: the rows of what script.h, macros.h and loops.h do, and `if` and `sleep`.
#include "parser/builtins.h"
#include "parser/interpreter.h"
#include "parser/loops.h"
#include "parser/macros.h"
#include "parser/script.h"
#include "server/wait.h"

namespace kestrel {

namespace {

// Runs `function` as a command line; a bare value there is no result.
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

const PARSE_TREE row_include = pt_command<simple_do_include>(
    "include",
    "%s + %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v "
    "echo no-exit-error show-returns mask-cntrl-c cntrl-c-ret-neg = %d",
    "include a command file at this point",
    "File name/Arguments///////////////////////////////"
    "/Show each line/Go on after errors/Show the result of each command/^C does not end the script/"
    "Return -1 when ended by ^C");
const PARSE_TREE row_macro = pt_command<simple_macro_command>(
    "macro", "%s %s = %d", "define a macro to be inserted using @macro_name", "Macro name/Text");
const PARSE_TREE row_macro_list = pt_command<simple_macro_list>("macro-list", "= %d", "list macros", "");
const PARSE_TREE row_for = pt_command<for_command>(
    "for", "%s %d %d + %d local global", "Start loop FOR name = first TO last STEP step",
    "Variable name/First/Last/Step/Set local variable (default)/Set global variable");
const PARSE_TREE row_for_each = pt_command<foreach_command>(
    "for-each",
    "%s %s + %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s %s "
    "%s %s "
    "%s %s %s %s %s local global = %d",
    "Start loop FOR name = each string in turn",
    "Variable name/First string/Next strings//////////////////////////////////////"
    "/Set local variable (default)/Set global variable");
const PARSE_TREE row_next = pt_command<next_command>("next", "", "Termination of both for command loops", "");
const PARSE_TREE row_return =
    pt_command<simple_return_command>("return", "+%d = %d", "Return integer value from script", "Value");
const PARSE_TREE row_if =
    pt_command<if_command>("if", "%d %s = %d", "Perform command if value != 0", "Value/Command line");
const PARSE_TREE row_do = pt_command<do_command>("do", "= %d", "Start do ... while loop", "");
const PARSE_TREE row_while =
    pt_command<while_command>("while", "%d = %d", "Complete do ... while loop", "Value");
const PARSE_TREE row_sleep = pt_command<simple_sleep>("sleep", "%g quiet = %d", "Sleep for a specifed time",
                                                      "Time in seconds/No messages");

} // namespace kestrel
