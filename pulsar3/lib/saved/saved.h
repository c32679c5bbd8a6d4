// pulsar3/lib/saved: the whole state of a system's cards in a directory, a file an item, so that a restart of the server
// finds them as they were. Numbers in the names count from 0 over the path's cards and channels.
//
// A file is written aside and renamed by itself: none is ever half written. The first failure ends a save or restore;
// what was written before stays. All return 0 or more, or a negative status with its text kept; ^C ends them.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace kestrel {

// The directory must be there.
int plr3_save_settings(int path, const std::string &directory);

// Reads and checks every file before it writes the first register. Refused while a run is on, and, unless forced, to
// cards of another major revision than that of the save. Starts no run: run bits are written as 0, the number of time
// frames stays that of the configuration. Clocks stay as they are.
int plr3_restore_settings(int path, const std::string &directory, bool force);
// The same, and sets the clocks up.
int plr3_restore_settings_and_clock(int path, const std::string &directory, bool force);

// Reads all back and says each word that differs from the directory's in a line, without its end: how many there are.
// Clocks are compared when they are asked for.
int plr3_check_settings(int path, const std::string &directory, bool clock,
                        const std::function<void(std::string_view)> &say);

} // namespace kestrel
