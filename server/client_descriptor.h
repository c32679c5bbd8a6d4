// server: all that the server keeps of one session. Only this room looks in here; each part is explained and
// served by the header of its subject.
//
// The command thread owns every field. Because worker threads may print to a session, too, output_mutex
// guards the outbox and every change of `valid`, `out` and `is_socket` (see outbox.h).
#pragma once

#include "server/data_channel.h"
#include "server/include_level.h"
#include "server/input_machine.h"
#include "server/outbox.h"
#include "server/receive.h"
#include "server/session.h"
#include "support/owned_mutex.h"

#include <netinet/in.h>

namespace kestrel {

struct session_fields {
    int valid = 0;
    int in = -1;  // what input is read from: socket, terminal, or the running include file
    int out = -1; // what replies are written to
    sockaddr_in addr{};
    int radix = 10;
    bool met = false;       // its first bytes were looked at
    bool is_socket = false; // a network session: `in` and `out` are the same socket
    bool ended = false;     // direct mode: the session is over, its slot stays until the loop ends
    session_outbox outbox;
    receive_buffer received;
    session_script script;
    session_channel channel;
    input_machine machine;
};

struct client_descriptor : session_fields {
    owned_mutex output_mutex;
};

extern client_descriptor client[sv_max_clients];

// Fills a free slot for input and output on these descriptors and marks it valid.
void sv_fill_slot(int cn, int in, int out);

// Frees a slot without closing anything.
void sv_free_slot(int cn);

} // namespace kestrel
