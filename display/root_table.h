// display: the commands of the display, for its main.
#pragma once

#include "parser/tree.h"

namespace kestrel::display {

extern const PARSE_TREE root_table[];

} // namespace kestrel::display
