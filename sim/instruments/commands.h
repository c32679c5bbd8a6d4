// sim/instruments: the commands of the text port, one table a file. Command thread.
#pragma once

#include "parser/tree.h"

namespace kestrel {

extern const PARSE_TREE commands_wires[]; // of every instrument: its wires, what it saw, its faults
extern const PARSE_TREE commands_ke2410[];
extern const PARSE_TREE commands_ke2700[];
extern const PARSE_TREE commands_tti[];
extern const PARSE_TREE commands_iseg[];

} // namespace kestrel
