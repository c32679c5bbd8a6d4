// server: what the sessions have been told and have not taken yet. Any thread may append and flush; nobody
// sleeps while holding a session's output_mutex.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kestrel {

// Replies that are not sent yet.
struct session_outbox {
    std::string pending;
    std::size_t sent = 0;                                // this many bytes of `pending` are gone
    std::chrono::steady_clock::time_point progress_at{}; // when the peer last took something
    bool broken = false;  // the peer is gone or does not read: output is dropped, the loop closes it
    int error = 0;        // why
    bool untried = false; // holds bytes that no send was tried for
    bool counted = false; // counted among the sessions that need the loop's attention
};

// A peer that takes nothing for this long is given up (a variable for the tests).
extern std::chrono::milliseconds sv_patience;

// More than this is not gathered during a command.
inline constexpr std::size_t outbox_limit = 64 * 1024;

enum class outbox_status { empty, waiting, gone };

struct outbox_form {
    bool crlf = false; // every LF as CR LF
    // A flag, guarded by the session's lock, that its last line stands open: bytes that find it set begin a
    // new line and clear it; those that redraw the open line set it. Null: they go where the last ended.
    int *open_line = nullptr;
    bool redraws = false;
};

// Appends the bytes to the session's outbox. Flushes when the outbox grows too long, and always on a worker
// thread. Out of memory sends the bytes piece by piece instead. Returns what is unsent then, nothing when the
// session is closed or broken.
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
void outbox_open(session_outbox &box);

// Drops what is unsent and settles the counts; the caller holds output_mutex and resets the slot.
void outbox_discard(session_outbox &box);

} // namespace kestrel
