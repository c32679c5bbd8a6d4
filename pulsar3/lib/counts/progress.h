// pulsar3/lib/counts: the module in which anybody sees how far a run is: "plr3_progress%d", or the name in the
// environment variable PLR3PROGRESS. A row a card: frames reached, frames asked, running, seconds since the start.
#pragma once

namespace kestrel {

int plr3_make_progress(int path); // at configuration
// Of the cards as they are set up now. A failure to read a card leaves its row at 0.
void plr3_begin_progress(int path);
void plr3_end_progress(int path);

} // namespace kestrel
