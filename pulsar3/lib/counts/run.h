// pulsar3/lib/counts: runs: start, arm, pause, continue, stop, and how a run's end is found. All return 0, or a negative
// status with its text kept. Card -1 means every card of the path.
//
// The cards of a system share the run line of card 0: it is started last, and what stops it stops them all.
#pragma once

#include "pulsar3/lib/paths/system.h"

#include <cstdint>
#include <optional>

namespace kestrel {

enum plr3_timing_source : int {
    plr3_timing_software = 0, // one time frame a run
    plr3_timing_pauses = 1,   // a pause ends a time frame
    plr3_timing_external = 2,
    plr3_timing_internal = 3,
};

int plr3_histogram_start(int path, int card);
int plr3_histogram_arm(int path, int card); // counting is enabled by continue
int plr3_histogram_start_count_enb(int path, int card, int enable);
int plr3_histogram_pause(int path, int card, bool force = false);
int plr3_histogram_continue(int path, int card, bool force = false);
// Ends the run and asks each card how many frames it has sent; does not wait for those under way.
int plr3_histogram_stop(int path, int card);

// The same without what a start of histograms does first: run bits as the run flags say.
int plr3_system_start(int path, int card);
int plr3_system_arm(int path, int card);

// A run was started and is not known to be over.
bool plr3_run_is_on(int path);
// Looks whether cards have ended their runs by themselves, or the run bits were cleared by another way.
int plr3_note_ended_runs(int path);
// True when each frame of the last run is accounted for.
bool plr3_run_settled(int path);

int plr3_histogram_is_busy(int path, int card);
int plr3_histogram_is_any_busy(int path);

// Timing: what each card's register says; a number below 0 stays as it is.
struct timing_request {
    int source = -1;
    std::int64_t fixed_ticks = -1; // length of an internal time frame
    std::int64_t frames = -1;      // how many of them; 0: until stopped
};
int plr3_set_timing(int path, int card, const timing_request &request);

struct run_progress {
    std::uint64_t reached = 0; // time frames that every used channel of the card has ended
    std::uint64_t asked = 0;
    bool running = false, counting = false;
};
// Of one card, by number.
int plr3_get_progress(int path, int card, run_progress &progress);

} // namespace kestrel
