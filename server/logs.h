// server: the two command logs, and what they may show. Any thread may write to them.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace kestrel {

extern std::FILE *log_file;  // null unless -log
extern std::FILE *vlog_file; // null unless -vlog

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

} // namespace kestrel
