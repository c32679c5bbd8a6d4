// server: whole-file advisory write locks, with a line to the session when one cannot be had.
#pragma once

namespace kestrel {

// Locks / unlocks the file open on the descriptor: 0, or -1 after a line to the session. With `wait` the lock
// is waited for, until ^C.
int sv_signal(int cn, int descriptor, int wait);
int sv_release(int cn, int descriptor);

} // namespace kestrel
