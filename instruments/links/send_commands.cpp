// `send <link>`: a command line typed here and run there.
#include "instruments/links/clients.h"
#include "instruments/links/commands.h"
#include "parser/qualifiers.h"
#include "parser/variables.h"
#include "server/output.h"

#include <string>

namespace kestrel::links {

namespace {

constexpr pt_format send_format("%s int %s double %s string %s global = %d");

int store_double(int cn, int link, const char *command, const std::string &name, bool global) {
    double value = 0.0;
    if (send_wait_double(cn, link, value, command) != 0)
        return -1;
    return set_double_variable(cn, name, value, global);
}

int store_string(int cn, int link, const char *command, const std::string &name, bool global) {
    const std::optional<std::string> text = send_wait_string(cn, link, command);
    return text ? set_string_variable(cn, name, *text, global) : -1;
}

int store_int(int cn, int link, const char *command, const std::string &name, bool global) {
    const std::optional<remote_result> result = send_exchange(cn, link, command);
    if (!result)
        return -1;
    const int code = cln_integer(*result);
    return set_int_variable(cn, name, code, global) == 0 ? code : -1;
}

// What comes back goes where the keyword says: the command's own result, or a variable of that type.
template <int Link> int send_command(int quals, int cn, const char *command) {
    const pt_qualifiers<send_format> q(quals);
    const bool global = q.given("global");
    if (q.count({"int", "double", "string"}) > 1) {
        sv_printf(cn, "! Please specify at most 1 data type\n");
        return -1;
    }
    if (q.given("int"))
        return store_int(cn, Link, command, q.text("int"), global);
    if (q.given("double"))
        return store_double(cn, Link, command, q.text("double"), global);
    if (q.given("string"))
        return store_string(cn, Link, command, q.text("string"), global);
    return send_wait(cn, Link, command);
}

template <int Link> constexpr PARSE_TREE row(const char *name, const char *help) {
    return pt_command<send_command<Link>>(name, send_format, help,
                                          "Command/Store the result in integer variable <name>/"
                                          "Store the result in double variable <name>/"
                                          "Store the result in string variable <name>/Set global variable");
}

} // namespace

constinit const PARSE_TREE send_tree[] = {
    row<link_adcx>("adcx", "send command (enclosed in '' quotes) to ADC boards for X"),
    row<link_adcy>("adcy", "send command (enclosed in '' quotes) to ADC boards for Y"),
    row<link_corr>("corr", "send command (enclosed in '' quotes) to correlator"),
    row<link_lux>("lux", "send command (enclosed in '' quotes) to look-up board for X"),
    row<link_luy>("luy", "send command (enclosed in '' quotes) to look-up board for Y"),
    row<link_motors>("motors", "send command (enclosed in '' quotes) to stepper motors"),
    row<link_pgen>("pgen", "send command (enclosed in '' quotes) to pulse generator"),
    row<link_emberw0>("emberw0", "send command (enclosed in '' quotes) to EMBERW 0"),
    row<link_emberw1>("emberw1", "send command (enclosed in '' quotes) to EMBERW 1"),
    row<link_imgd>("imgd", "send command (enclosed in '' quotes) to image displayer"),
    row<link_user1>("user1", "send command (enclosed in '' quotes) to User server 1"),
    row<link_user2>("user2", "send command (enclosed in '' quotes) to User server 2"),
    row<link_kairo>("kairo", "send command (enclosed in '' quotes) to User server 2"),
    pt_end(),
};

} // namespace kestrel::links
