// server: the two loops. One of them runs for the life of the process, on the command thread.
#pragma once

namespace kestrel {

// Reads lines from the terminal (with editing and history) or from a pipe, until its end or `close_server`.
void direct_loop(const char *program);

// Listens on a port and serves the sessions, until `close_server`. Ends the process when it cannot listen.
void network_loop(const char *program, int port);

// The first lines on standard output: who is speaking, and what `mode` it is in.
void sv_print_banner(const char *program, const char *mode);

// Runs the start-up file on session 0, if one is asked for and can be opened.
void sv_run_startup_file();

} // namespace kestrel
