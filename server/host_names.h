// server: who the sessions' peers are.
#pragma once

#include <string>

namespace kestrel {

// The dotted address of the session's peer; empty when the session is closed.
std::string sv_get_address(int cn);

// The host name of the session's peer (reverse lookup, else the dotted address).
std::string sv_get_hostname(int cn);

// Tells the session which slots are open, and to whom.
void sv_display_server_status(int cn);

} // namespace kestrel
