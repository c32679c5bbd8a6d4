// server: the line editor of a character-mode session. It changes the session's edit fields and appends what
// the terminal must be sent to `out`; it reads and writes no descriptor.
//
// What is sent (ESC is byte 27), all of it understood by any terminal of the VT100 family:
//   BEL               beep
//   CR                to the first column
//   CR LF             to the start of the next row
//   ESC [ n A / B     n rows up / down
//   ESC [ n C         n columns to the right
//   ESC [ J           erase from the cursor to the end of the screen
//   ESC [ H ESC [ 2 J to the top left corner, erase the screen
#pragma once

#include "server/session.h"

#include <string>
#include <string_view>

namespace kestrel {

// Empties the edited line.
void sv_ln_start(client_descriptor &c);
// The line is complete: it goes into the history, the cursor below it.
void sv_ln_finish(client_descriptor &c, std::string &out);

void sv_ln_insert(client_descriptor &c, char byte, std::string &out); // a full line beeps
void sv_ln_left(client_descriptor &c, std::string &out);
void sv_ln_right(client_descriptor &c, std::string &out);
void sv_ln_home(client_descriptor &c, std::string &out);
void sv_ln_end(client_descriptor &c, std::string &out);
void sv_ln_backspace(client_descriptor &c, std::string &out);
void sv_ln_delete(client_descriptor &c, std::string &out);
void sv_ln_delete_to_end(client_descriptor &c, std::string &out);
void sv_ln_delete_word(client_descriptor &c, std::string &out);
void sv_ln_clear(client_descriptor &c, std::string &out);
void sv_ln_swap(client_descriptor &c, std::string &out);
void sv_ln_clear_screen(client_descriptor &c, std::string &out);
void sv_ln_history_back(client_descriptor &c, std::string &out);
void sv_ln_history_forward(client_descriptor &c, std::string &out);

// Asks for candidates and shows the first; false after a beep when there is none.
bool sv_ln_complete(client_descriptor &c, std::string &out);
// Shows the next candidate; after the last one the line as typed, with a beep.
void sv_ln_complete_next(client_descriptor &c, std::string &out);
// Shows the line as typed.
void sv_ln_complete_cancel(client_descriptor &c, std::string &out);

// Draws prompt and line anew over what was shown before.
void sv_ln_refresh(client_descriptor &c, std::string &out);

} // namespace kestrel
