// server: waiting that ^C ends.
#pragma once

namespace kestrel {

enum class wait_result { ready, timeout, interrupted };

// Waits for poll events on a descriptor, at most timeout_ms (-1: for ever). An interrupt that came since the
// line began, or that comes meanwhile, ends the wait; none can slip in between.
wait_result sv_wait_fd(int fd, short events, int timeout_ms);

// The same for a wait that interrupts do not end: only those beyond the first `seen` are told. A negative
// descriptor is waited for in vain.
wait_result sv_wait_fd_again(int fd, short events, int timeout_ms, int seen);

// Sleeps that many seconds (not at all when negative or not a number), with nothing left unsent. 0, or -1 as
// soon as an interrupt has come.
int sv_sleep(int cn, double seconds);

} // namespace kestrel
