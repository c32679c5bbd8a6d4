// server: what the sessions have been told and have not taken yet. Any thread may append and flush; nobody
// sleeps while holding a session's output_mutex.
#pragma once

#include "server/session.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <string_view>

namespace kestrel {

// A peer that takes nothing for this long is given up (a variable for the tests).
extern std::chrono::milliseconds sv_patience;

// More than this is not gathered during a command.
inline constexpr std::size_t outbox_limit = 64 * 1024;

enum class outbox_status { empty, waiting, gone };

// Appends the bytes to the session's outbox, with `crlf` every LF as CR LF, and on the terminal below an open
// progress line with `below_timebar`. Flushes when the outbox grows too long, and always on a worker thread.
// Out of memory sends the bytes piece by piece instead. Returns what is unsent then, nothing when the session
// is closed or broken.
struct outbox_form {
    bool crlf = false;
    bool below_timebar = false;
    bool opens_timebar = false;
};
std::optional<std::size_t> outbox_append(int cn, std::string_view bytes, outbox_form form);

// Sends what the peer takes without waiting.
outbox_status outbox_try(int cn);

// Sends everything, waiting for the peer; breaks the session when its patience ends.
void outbox_flush(int cn);

// outbox_try for every session that has got bytes since the last try. Costs one load when none has.
void outbox_try_all();

// False: no session has unsent output or is broken. True: ask outbox_look about each.
bool outbox_attention();

struct outbox_view {
    std::size_t unsent = 0;
    bool broken = false;
    int error = 0;
};
// Also breaks the session whose peer has taken nothing for too long.
outbox_view outbox_look(int cn);

// Makes a fresh slot's outbox ready. std::bad_alloc passes through.
void outbox_open(client_descriptor &c);

// Drops what is unsent and settles the counts; the caller holds output_mutex and resets the slot.
void outbox_discard(client_descriptor &c);

} // namespace kestrel
