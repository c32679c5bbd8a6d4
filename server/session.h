// server: the sessions as the other rooms know them. A session is a slot; slot 0 is the terminal in direct
// mode. What the server keeps of each is in server/client_descriptor.h; outside the server functions answer.
#pragma once

#include <cstddef>

namespace kestrel {

inline constexpr int sv_max_clients = 339;
inline constexpr std::size_t sv_line_max = 1024; // characters of one command line, without its end

struct client_descriptor;

// The session's slot; cn must be 0 .. sv_max_clients - 1.
client_descriptor *sv_get_descriptor(int cn);

// True while the session is open: a handler that may have lost it asks before it goes on.
bool sv_is_valid(int cn);

// True once the session is over, also in direct mode, where its slot stays when its input has ended: a script
// goes no further.
bool sv_is_ended(int cn);

// Closes the session (direct mode: ends the server). Safe to call from inside a command of that session:
// the slot stays free until the loop's next turn.
void sv_disconnect_client(int cn);

// The radix of the session's integer results.
void sv_set_radix(int cn, int radix); // only 2, 10 and 16 are taken
int sv_get_radix(int cn);

// Process-wide state.
extern int use_network; // 1 in network mode
extern int listen_socket;
extern int nr_conns;
extern int close_server; // ends the loop at its next turn
void sv_stop_server();

// Ends the process at once, logs and standard output flushed; other threads may be running.
[[noreturn]] void sv_die(int status);

} // namespace kestrel
