// app: the commands that a session can type.
#pragma once

#include "parser/tree.h"

namespace kestrel {

extern const PARSE_TREE main_parse_tree[];

} // namespace kestrel
