// server: what a session has sent and nobody has taken yet. Every byte of the top-level input goes through
// the session's one receive buffer, whoever reads it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace kestrel {

struct client_descriptor;

struct receive_buffer {
    std::string bytes;     // read from the top-level input ...
    std::size_t taken = 0; // ... and not yet taken from this index on
};

// What is received and not yet taken.
std::string_view sv_received(const receive_buffer &buffer);
void sv_take(receive_buffer &buffer, std::size_t count);

// The descriptor of the session's top-level input, also inside include files.
int sv_input_fd(const client_descriptor &c);

// Appends one block to the session's buffer: the count, 0 at the end, -1 with errno.
ssize_t sv_receive(client_descriptor &c);

// The errors that mean that the peer is gone; any other is a fault of the server.
bool sv_peer_is_gone(int error);

} // namespace kestrel
