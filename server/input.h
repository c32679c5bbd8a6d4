// server: reading from a session's top-level input, for the loops and for commands that ask for a line. Every
// byte goes through the session's one receive buffer, whoever reads it.
#pragma once

#include "server/session.h"

#include <string>
#include <string_view>
#include <sys/types.h>

namespace kestrel {

// The descriptor of the session's top-level input, also inside include files.
int sv_input_fd(const client_descriptor &c);

// Appends one block to c.received: the count, 0 at the end, -1 with errno.
ssize_t sv_receive(client_descriptor &c);

// What is received and not yet taken.
std::string_view sv_received(const client_descriptor &c);
void sv_take(client_descriptor &c, std::size_t count);

// The errors that mean that the peer is gone; any other is a fault of the server.
bool sv_peer_is_gone(int error);

enum class read_status { done, end, interrupted, gone };

// Reads one line of any length, waiting for it. At the end of the input `line` holds what had come of it.
read_status sv_read_line(int cn, std::string &line);

} // namespace kestrel
