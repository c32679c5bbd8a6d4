// pulsar3/lib/counts: writing a mini model's events to a file while it counts.
#pragma once

#include "pulsar3/lib/paths/system.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel {

struct list_mode_account {
    std::string name;
    std::uint64_t records = 0, events = 0;
    int error = 0; // an errno: the file ends before the run did
};

// Every event that a card of the path sends from now on goes into a new file, too; what its cards wrote until then ends for
// them, and is told in `ended`. The path's mini models must send event lists. 0, or a negative status with a text.
int plr3_list_mode_start(int path, const std::string &name, std::vector<list_mode_account> &ended);

// Ends the files of the path's cards and tells what they hold, another card may go on with one of them; plr3_failed where
// none is written.
int plr3_list_mode_stop(int path, std::vector<list_mode_account> &ended);

} // namespace kestrel
