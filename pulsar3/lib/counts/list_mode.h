// pulsar3/lib/counts: writing a mini model's events to a file while it counts.
#pragma once

#include "pulsar3/lib/paths/system.h"

#include <cstdint>
#include <string>

namespace kestrel {

struct list_mode_account {
    std::string name;
    std::uint64_t records = 0, events = 0;
    int error = 0; // an errno: the file ends before the run did
};

// Every event that a card of the path sends from now on goes into a new file, too; one that was being written ends. The
// path's mini models must send event lists. 0, or a negative status with a text.
int plr3_list_mode_start(int path, const std::string &name);

// Ends the file and tells what it holds; plr3_failed where none is written.
int plr3_list_mode_stop(int path, list_mode_account &account);

} // namespace kestrel
