// server: everything a handler writes to its session.
//
// Replies are gathered in the session and leave together: at the end of the line's turn, or earlier when a
// command is about to wait (sv_flush_all). A worker thread's output leaves at once. Nothing here fails
// towards the caller: a peer that is gone or takes nothing for 30 s makes its session `broken`.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string_view>

namespace kestrel {

// Writes the bytes, every LF as CR LF. A negative cn means standard output.
// Returns the count of bytes taken, or -1 when the session is gone.
int sv_writeln(int cn, const char *buffer, std::size_t length);

// Formats (at most 1223 characters) and writes; returns the formatted length.
int sv_printf(int cn, const char *format, ...) __attribute__((format(printf, 2, 3)));
// The same with at most 1047 characters.
int sv_vprintf(int cn, const char *format, va_list args) __attribute__((format(printf, 2, 0)));

// Writes a text of any length, logged like sv_printf; for replies that may be longer than its buffer.
int sv_print(int cn, std::string_view text);

// Writes the bytes unchanged. Returns the count, or `length` when cn is negative.
int sv_write(int cn, const void *buffer, std::size_t length);

// Sends what is gathered. sv_flush waits up to 30 s for the peer; sv_flush_all tries every session once and
// waits for the given one only. Call sv_flush_all before anything that may block or run long.
void sv_flush(int cn);
void sv_flush_all(int cn);

} // namespace kestrel
