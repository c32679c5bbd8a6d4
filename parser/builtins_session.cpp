// The session's own settings, and what ends it.
#include "parser/builtins.h"
#include "parser/call.h"
#include "parser/qualifiers.h"
#include "server/data_channel.h"
#include "server/host_names.h"
#include "server/input.h"
#include "server/output.h"
#include "server/session.h"

#include <string>

namespace kestrel {

int server_debug = 0;

namespace {

int simple_do_echo(int, int cn, const char *text) {
    sv_print(cn, std::string(text) + "\n");
    return 0;
}

int simple_do_echo_on(int, int cn) {
    sv_set_echo(cn, 1);
    return 0;
}

int simple_do_echo_off(int, int cn) {
    sv_set_echo(cn, 0);
    return 0;
}

constexpr const char *help_notes[] = {
    "# Help notes:\n",
    "# 1. Strings. All strings need to be quoted with either \" or ' characters.\n",
    "# 2. Integers. These may be specified in binary, decimal or hex format, eg.\n",
    "#      #11110000  240  $F0\n",
    "# Arguments to commands can now be full expressions with no SPACES\n",
    "# The following functions are supported on integer and double types:\n",
    "# \t*, / ; +, - ; <, >, <=, >= ; ==, != ; ?\n",
    "# The following Binary funtions are supported on ints:\n",
    "# \t& ; ^ ; |\n",
    "# And the Logical Functions (Deal with 0 and !=0)\n",
    "# \t&& ; ||\n",
    "# String Functions\tare provided\n",
    "# \t+ Concatenate,\n",
    "# \t==, !=\tComparision\n",
    "# Variables can be set using\n",
    "# \tvarname=expr\n",
    "# Type conversion is supported using the casts\n",
    "# \t(int) , (double) and (string)\n",
    "# Conversion to/from strings use \"1234\" <-> 1234\t(Not ASCII codes)\n",
    "# \tVaraiables can be used in expresions optionally preceeded by a %, unless\n",
    "# \tat begining of an expression.\n",
    "# To get help within a command at any point, type the partial command followed\n",
    "# by a space and a '?'.\n",
};

int simple_do_help(int, int cn) {
    for (const char *line : help_notes)
        sv_print(cn, line);
    return 0;
}

constexpr int port_max = 65535;

int simple_do_port(int, int cn, int port) {
    if (port < 1 || port > port_max) {
        sv_printf(cn, "! Port should be 1..%d not %d\n", port_max, port);
        return -1;
    }
    sv_data_setport(cn, port);
    return 0;
}

int simple_do_quit(int, int cn) {
    sv_disconnect_client(cn);
    return 0;
}

// Without a value the reply is the radix itself, printed in decimal: in its own radix it would always be "10".
// It is printed, too, where a script or another command keeps its results to itself.
int simple_do_radix(int, int cn, int radix) {
    if (radix < 1) {
        if (!ResultIsPrinted)
            sv_printf(cn, "* %d\n", sv_get_radix(cn));
        ResultRadix = 10;
        return sv_get_radix(cn);
    }
    sv_set_radix(cn, radix);
    return 0;
}

int simple_do_rem(int, int, const char *) {
    return 0;
}

int simple_do_shutdown(int, int) {
    sv_stop_server();
    return 0;
}

int simple_do_status(int, int cn) {
    sv_display_server_status(cn);
    return 0;
}

constexpr pt_format debug_format("on off");

int do_debug(int quals, int cn) {
    const pt_qualifiers<debug_format> q(quals);
    if (q.given("on") && q.given("off")) {
        sv_printf(cn, "! Debugging cannot be both on and off.\n");
        return -1;
    }
    if (q.none())
        sv_printf(cn, "# Debugging is currently %s.\n", server_debug ? "on" : "off");
    else
        server_debug = q.given("on");
    return 0;
}

} // namespace

constinit const PARSE_TREE row_echo =
    pt_command<simple_do_echo>("echo", "%s = %d", "echo the given string on the screen", "string");
constinit const PARSE_TREE row_echo_on =
    pt_command<simple_do_echo_on>("echo-on", "= %d", "switch server echo on", "");
constinit const PARSE_TREE row_echo_off =
    pt_command<simple_do_echo_off>("echo-off", "= %d", "switch server echo off", "");
constinit const PARSE_TREE row_help =
    pt_command<simple_do_help>("help", "= %d", "provide help with the user interface", "");
constinit const PARSE_TREE row_port =
    pt_command<simple_do_port>("port", "%d = %d", "set the client's data port", "port number");
constinit const PARSE_TREE row_quit =
    pt_command<simple_do_quit>("quit", "", "quit this session (can also use ^D)", "");
constinit const PARSE_TREE row_radix =
    pt_command<simple_do_radix>("radix", "+%d = %d", "get/set the output radix for blocks of ASCII", "radix");
constinit const PARSE_TREE row_rem =
    pt_command<simple_do_rem>("rem", "+%s = %d", "ignored, does nothing", "comment");
constinit const PARSE_TREE row_shutdown =
    pt_command<simple_do_shutdown>("shutdown", "", "shutdown all sessions and exit the server", "");
constinit const PARSE_TREE row_status =
    pt_command<simple_do_status>("status", "= %d", "display the status of the server", "");
constinit const PARSE_TREE row_debug =
    pt_command<do_debug>("debug", debug_format, "set debugging on or off", "switch on/switch off");

} // namespace kestrel
