// server: operating-system commands run for a session. One at a time: their output goes through one file.
#pragma once

namespace kestrel {

// Runs a shell command and sends its output, each line behind "# ". Returns the command's exit status.
int sv_fork_command(int cn, const char *command);

} // namespace kestrel
