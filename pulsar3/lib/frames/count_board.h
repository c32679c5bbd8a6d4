// pulsar3/lib/frames: the counts of all channels, for those who ask from a thread that knows nothing of paths. A
// channel is on the board from when it is made until it goes; reading them holds up nobody for longer than it takes.
#pragma once

#include <string>

namespace kestrel {

struct Histogram;

void plr3_board_add(const Histogram &channel);
void plr3_board_remove(const Histogram &channel);

// The channels' frames and losses of the last run as samples of metrics, and a line of them all. Any thread.
void plr3_board_metrics(std::string &out);
void plr3_board_status(std::string &out);

} // namespace kestrel
