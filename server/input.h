// server: a line or a byte from a session, for the commands that ask for one and for direct mode. Waits; ^C
// ends every wait.
#pragma once

#include <cstddef>
#include <string>

namespace kestrel {

// Reads one line into buffer, cut to len - 1 characters. Null when the session ended or ^C came.
// sv_getline_top reads the top-level input even inside include files.
char *sv_getline(int cn, char *buffer, std::size_t len);
char *sv_getline_top(int cn, char *buffer, std::size_t len);
int sv_getc(int cn); // one byte, -1 at the end

// Asks "~ Retry (Y/N)" and waits: 1 yes, 0 no, -1 when reading failed or ^C came.
int sv_wait_retry(int cn);

// Switches the session's echo and editing; switching on measures the width of its terminal.
void sv_set_echo(int cn, int on);

enum class read_status { done, end, interrupted, gone };

// Reads one line of any length from the top-level input. At the end of the input `line` holds what had come
// of it.
read_status sv_read_line(int cn, std::string &line);

} // namespace kestrel
