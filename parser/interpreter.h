// parser: one line in, one result out. Used by the session loop, by scripts and by handlers that run
// commands.
#pragma once

#include "parser/scanner.h"
#include "parser/variables.h"

#include <cstdio>
#include <string>
#include <string_view>

namespace kestrel {

// Lines within lines (`if`, `set-func`, macros that run themselves) may go this deep.
inline constexpr int line_nesting_max = 100;

// The program's check that nothing from outside spoiled a command's work, as when another process cuts short a
// data module that the command reads. Called with `begins` before the command of each typed line, so that what
// was spoiled between two lines is not held against the next; and without it after every command. Then true
// means spoiled: the check has told the session why, and the command's result becomes that of a failure. May
// be null.
extern bool (*user_command_spoiled)(int cn, bool begins);

// Interprets one line and returns its integer result (-1 for every error).
//   result_out    when given, takes the typed result, which is then not printed; when the line gave none,
//                 its type stays as it was
//   print_result  1 prints the "* " result line
//   log, vlog     command logs, or null
//   status_out    when given: 1 if the line was a bare value, else 0
int service_line(int cn, scanned_line &line, Variable *result_out, int print_result, std::FILE *log,
                 std::FILE *vlog, int *status_out);

// The same for a line as it was typed: "@" macros and "~" include short forms are expanded first.
int user_service(int cn, std::string_view line, int print_result, std::FILE *log, std::FILE *vlog);
int user_service_script(int cn, std::string_view line, int print_result, std::FILE *log, std::FILE *vlog,
                        int *status_out);
// ... and with the typed result stored instead of printed.
int user_service_result(int cn, const char *line, Variable *result_out, int *status_out);

// A text as an argument of a command line that is run: between single quotes, or double ones when it has a
// single one itself. (The language has no way to write a text with both.)
std::string pt_quoted(std::string_view text);

} // namespace kestrel
