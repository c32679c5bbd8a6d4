// server: the line editor of a character-mode session. It changes the edited line and appends what the
// terminal must be sent to `out`; it reads and writes no descriptor.
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
#include <vector>

namespace kestrel {

inline constexpr int sv_history_max = 100;
inline constexpr int sv_default_cols = 40;
inline constexpr std::string_view sv_prompt_text = "> ";

// A session's line on the way, and its history. Plain lines are gathered here, too.
struct line_edit {
    char input[sv_line_max + 1] = {}; // the line being assembled; input[len] is always NUL
    char saved_input[sv_line_max + 1] = {};
    int saved_len = 0;
    int saved_pos = 0;
    int completion_index = 0;
    std::vector<std::string> lc; // completion candidates: whole lines
    std::string_view prompt = sv_prompt_text;
    std::size_t plen = sv_prompt_text.size();
    std::size_t pos = 0;
    std::size_t oldpos = 0;
    std::size_t len = 0;
    std::size_t cols = sv_default_cols;
    std::size_t maxrows = 0;
    int history_index = 0;
    int history_max_len = sv_history_max;
    int history_len = 0;
    bool history_open = false;
    char seq[3] = {};                 // what follows ESC in the sequence of a key that is being read
    std::vector<std::string> history; // oldest first; while history_open, the last is the line being edited
};

// Empties the edited line.
void sv_ln_start(line_edit &e);
// The line is complete: it goes into the history, the cursor below it.
void sv_ln_finish(line_edit &e, std::string &out);

void sv_ln_insert(line_edit &e, char byte, std::string &out); // a full line beeps
void sv_ln_left(line_edit &e, std::string &out);
void sv_ln_right(line_edit &e, std::string &out);
void sv_ln_home(line_edit &e, std::string &out);
void sv_ln_end(line_edit &e, std::string &out);
void sv_ln_backspace(line_edit &e, std::string &out);
void sv_ln_delete(line_edit &e, std::string &out);
void sv_ln_delete_to_end(line_edit &e, std::string &out);
void sv_ln_delete_word(line_edit &e, std::string &out);
void sv_ln_clear(line_edit &e, std::string &out);
void sv_ln_swap(line_edit &e, std::string &out);
void sv_ln_clear_screen(line_edit &e, std::string &out);
void sv_ln_history_back(line_edit &e, std::string &out);
void sv_ln_history_forward(line_edit &e, std::string &out);

// Asks for candidates and shows the first; false after a beep when there is none.
bool sv_ln_complete(line_edit &e, std::string &out);
// Shows the next candidate; after the last one the line as typed, with a beep.
void sv_ln_complete_next(line_edit &e, std::string &out);
// Shows the line as typed.
void sv_ln_complete_cancel(line_edit &e, std::string &out);

// Draws prompt and line anew over what was shown before.
void sv_ln_refresh(line_edit &e, std::string &out);

} // namespace kestrel
