// server: ^C. The handler only counts; loops, waits and long commands poll the count.
#pragma once

#include "server/wait.h" // waits that it ends

#include <csignal>

namespace kestrel {

extern volatile std::sig_atomic_t sv_quit; // interrupts since the line began
extern void (*user_quit_handler)(int);     // called with 0 from the signal handler
void quit_handler(int signal);

// Sends the command thread the interrupt that ^C sends, and waits until it has come (at most 100 ms). Any other thread.
bool sv_interrupt_command_thread();

// True on the thread that runs the loop and every command.
bool sv_on_command_thread();

// The count for a long command's loop: flushes every session's replies first, so that nobody waits for what
// is already known while the command runs on.
int sv_poll_quit(int cn);

} // namespace kestrel
