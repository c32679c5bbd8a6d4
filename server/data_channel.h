// server: the data channel, a second connection that the server opens to the port its client announced.
// Used by the thread that runs the command only.
#pragma once

#include <cstddef>
#include <sys/types.h>

namespace kestrel {

struct session_channel {
    int data_port = -1; // the client's, -1 before it has announced one
    int data = -1;      // the socket, -1 while none is connected
};

// Shuts the socket down and closes it, if there is one: false, with errno, when the shutting down failed.
bool sv_channel_close(session_channel &channel);

void sv_data_setport(int cn, int port);
// The connected socket, or negative with errno set. One that was kept is used again unless the client has
// closed its end (or half of it); then a new one is connected.
int sv_data_open(int cn);
// Sends all of it / receives up to len bytes: the count, or -1 with errno set. Without progress for 30 s they
// give up (ETIMEDOUT), ^C ends them (EINTR).
ssize_t sv_data_write(int cn, const void *buffer, std::size_t len);
ssize_t sv_data_read(int cn, void *buffer, std::size_t len);
void sv_data_close(int cn);
void sv_data_abort(int cn);
int sv_get_data_sock(int cn);

} // namespace kestrel
