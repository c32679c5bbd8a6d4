// server: the control socket, a way in while a command runs. A thread of its own answers one request a connection with a
// text: "status", "metrics", "stop", "stop SESSION". It takes no lock that the command thread holds while it works.
#pragma once

namespace kestrel {

// Opens the socket that the options ask for (for `port` when they name no path) and starts the thread. A socket that was
// asked for and cannot be had ends the process; without the usual one the server goes on, after a line.
void sv_control_start(int port);

// Ends the thread and removes the socket.
void sv_control_stop();

} // namespace kestrel
