// parser: scripts (include files): running one, their levels of local variables, and how they end.
#pragma once

#include "parser/handler.h"
#include "server/script_file.h"

#include <span>

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

int simple_do_include(int quals, int cn, const char *includefile, std::span<const pt_value> args);
int simple_return_command(int quals, int cn, int value);

// The start-up file, already opened, on session `cn`.
void include_startup(int cn, const char *name, int fd);

} // namespace kestrel
