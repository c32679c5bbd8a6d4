// parser: loops in scripts. They work by seeking the include file back to the line after the loop's head; one
// stack for the whole server.
#pragma once

#include "parser/handler.h"

#include <span>

namespace kestrel {

inline constexpr int loop_stack_max = 29;

int for_command(int quals, int cn, const char *name, int first, int last, int step);
int foreach_command(int quals, int cn, const char *name, std::span<const pt_value> strings);
int next_command(int quals, int cn);
int do_command(int quals, int cn);
int while_command(int quals, int cn, int value);

// True while any loop is open: the lines that are read now may come again.
bool loops_are_open();

// Drops the loops that the script at this include level left open, each with a note.
void loopstack_finish_script(int cn, int level);

} // namespace kestrel
