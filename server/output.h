// server: everything a handler writes to its session, and what it reads back from it.
//
// Replies are gathered in the session and leave together: at the end of the line's turn, or earlier when a
// command is about to wait (sv_flush_all). A worker thread's output leaves at once. Nothing here fails
// towards the caller: a peer that is gone or takes nothing for 30 s makes its session `broken`.
#pragma once

#include "server/session.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string>
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

void sv_set_radix(int cn, int radix); // only 2, 10 and 16 are taken
int sv_get_radix(int cn);
void sv_set_echo(int cn, int on);

// Reads one line into buffer, cut to len - 1 characters. Null when the session ended or ^C came.
// sv_getline_top reads the top-level input even inside include files.
char *sv_getline(int cn, char *buffer, std::size_t len);
char *sv_getline_top(int cn, char *buffer, std::size_t len);
int sv_getc(int cn); // one byte, -1 at the end

// Asks "~ Retry (Y/N)" and waits: 1 yes, 0 no, -1 when reading failed or ^C came.
int sv_wait_retry(int cn);

// Shows progress; label may be null.
void sv_timebar(int cn, int done, int total, const char *label);

// Runs a shell command and sends its output, each line behind "# ". Returns the command's exit status.
int sv_fork_command(int cn, const char *command);

void sv_display_server_status(int cn);

// The host name of the session's peer (reverse lookup, else the dotted address).
std::string sv_get_hostname(int cn);

// Whole-file advisory write lock on a descriptor; 0, or -1 after a line to the session.
int sv_signal(int cn, int descriptor, int wait);
int sv_release(int cn, int descriptor);

// Writes to one of the two logs, at once and whole. What a full disk or a broken pipe loses is told by
// sv_tell_lost_logs.
void sv_log(std::FILE *log, std::string_view text);
// The log has lost text for this reason, an errno value; 0: it has not.
void sv_log_lost(std::FILE *log, int error);
// One "!" line to the session for each log that has begun to lose text since the last call.
void sv_tell_lost_logs(int cn);
// Closes the log unless it is standard output; null afterwards.
void sv_close_log(std::FILE *&log);

// What a log or an echo may show of a line: the quoted value after the word `password` becomes '*'.
std::string sv_masked(std::string_view line);

extern std::FILE *log_file;  // null unless -log
extern std::FILE *vlog_file; // null unless -vlog
extern int timebar_on;       // 1 while a progress line is open on the terminal

} // namespace kestrel
