// instruments/bench: the command tables of this room, for a root table to list.
#pragma once

#include "parser/tree.h"

namespace kestrel::bench {

extern const PARSE_TREE ke2700_tree[];
extern const PARSE_TREE iseg_tree[];
extern const PARSE_TREE ke2410_tree[];

// The server ends: loggers stop, connections close, and every output stays as it is.
void bench_exit();

} // namespace kestrel::bench
