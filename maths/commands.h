// maths: the rows of the root table that this room provides.
#pragma once

#include "parser/tree.h"

namespace kestrel {

extern const PARSE_TREE row_maths;    // table.cpp
extern const PARSE_TREE row_peak_fit; // peak_fit_commands.cpp

} // namespace kestrel
