// server: ^C. The handler only counts; loops, waits and long commands poll the count.
#pragma once

#include <csignal>

namespace kestrel {

extern volatile std::sig_atomic_t sv_quit; // interrupts since the line began
extern void (*user_quit_handler)(int);     // called with 0 from the signal handler
void quit_handler(int signal);

// The count for a long command's loop: flushes every session's replies first, so that nobody waits for what
// is already known while the command runs on.
int sv_poll_quit(int cn);

enum class wait_result { ready, timeout, interrupted };

// Waits for poll events on a descriptor, at most timeout_ms (-1: for ever). An interrupt that came since the
// line began, or that comes meanwhile, ends the wait; none can slip in between.
wait_result sv_wait_fd(int fd, short events, int timeout_ms);

} // namespace kestrel
