// parser: loops in scripts. They work by seeking the include file back to the line after the loop's head; one
// stack for the whole server. The rows of their commands are in parser/builtins.h.
#pragma once

namespace kestrel {

inline constexpr int loop_stack_max = 29;

// True while any loop is open: the lines that are read now may come again.
bool loops_are_open();

// Drops the loops that the script at this include level left open, each with a note.
void loopstack_finish_script(int cn, int level);

} // namespace kestrel
