// How the library meets the server: its messages, ^C, sessions that end and the server's end.
#include "pulsar3/lib/config/config.h"
#include "pulsar3/server/commands.h"
#include "server/interrupt.h"
#include "server/output.h"
#include "server/session.h"

#include <string>

namespace kestrel {

namespace {

// Any thread may call this. Every line is one of information; without its session it goes to standard output.
void message(int to, std::string_view text) {
    std::string line = "# " + std::string(text);
    if (line.back() != '\n')
        line += '\n';
    sv_writeln(to >= 0 && sv_is_valid(to) ? to : -1, line.data(), line.size());
}

bool interrupted() {
    return sv_quit > 0;
}

} // namespace

void pulsar3_init() {
    plr3_message_hook = message;
    plr3_interrupt_hook = interrupted;
}

void pulsar3_connection_lost(int cn) {
    plr3_session_ended(cn);
}

void pulsar3_exit() {
    plr3_close_all();
}

int pulsar3_status(int cn, int status) {
    if (status < 0)
        sv_print(cn, std::string("! ERROR ") + plr3_get_error_message() + "\n");
    return status;
}

} // namespace kestrel
