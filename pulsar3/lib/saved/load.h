// pulsar3/lib/saved: a directory of settings, read and checked as a whole.
#pragma once

#include "pulsar3/lib/saved/items.h"

namespace kestrel {

struct loaded_item {
    saved_item item;
    saved_bytes bytes;
};

// Every item of the path, the clocks only when they are asked for. What may be missing and is has a default; that is told
// to whom the path tells. 0, or a negative status with a text that begins with the function's name.
int plr3_load_items(const char *function, int path, const std::string &directory, bool clock,
                    std::vector<loaded_item> &items);

} // namespace kestrel
