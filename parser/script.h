// parser: scripts (include files): running one, their levels of local variables, and how they end. The rows
// of `include` and `return` are in parser/builtins.h.
#pragma once

#include "server/script_file.h"

namespace kestrel {

inline constexpr int include_depth_max = 8; // nested include files a session

struct include_options {
    bool echo = false;               // show each line before it runs
    bool exit_on_error = true;       // a result of -1 stops the file
    bool show_returns = false;       // print each command's result line
    bool mask_interrupt = false;     // ^C does not end the script
    bool negative_interrupt = false; // an interrupted script returns -1
};

// How a file ended.
enum class include_end { refused, finished, interrupted };

// Runs the lines of an opened file on the session.
include_end sv_include_file(int cn, script_file &file, const include_options &options);

// The start-up file, already opened, on session `cn`.
void include_startup(int cn, const char *name, int fd);

} // namespace kestrel
