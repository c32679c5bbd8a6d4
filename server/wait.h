// server: waiting that ^C ends.
#pragma once

namespace kestrel {

// Sleeps that many seconds (not at all when negative or not a number), with nothing left unsent. 0, or -1 as
// soon as an interrupt has come.
int sv_sleep(int cn, double seconds);

} // namespace kestrel
