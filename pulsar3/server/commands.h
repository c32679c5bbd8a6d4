// pulsar3/server: the `pulsar3` commands, thin over the readout library. A row stands beside its handler; table.cpp
// lists them. Every command takes the path first; what the library refuses is printed with the library's text.
#pragma once

#include "parser/tree.h"

namespace kestrel {

extern const PARSE_TREE row_pulsar3; // the subtree, for a root table

// The library's messages, ^C and the end of sessions and server; called once, at the start.
void pulsar3_init();
void pulsar3_connection_lost(int cn);
void pulsar3_exit();
// Prints what the library's threads have said meanwhile; a command that waits calls this now and then.
void pulsar3_say();

// The card of a command whose second argument it is; one that is omitted means all.
int pulsar3_card(int card);

// The library's status as a command's result; a failure prints "! ERROR " and the library's text first.
int pulsar3_status(int cn, int status);

} // namespace kestrel
