// sim/timing_unit: the unit itself: a thread that goes through the frame table in real time and gates the cards. The
// functions below are called by the command thread.
#pragma once

#include "sim/timing_unit/frame_table.h"

#include <string>

namespace kestrel {

enum class unit_state { idle, armed, running, paused };

// A look at the unit.
struct unit_view {
    unit_state state = unit_state::idle;
    int lap = 0, frame = 0; // from 0; where it is, or was when it stopped
    bool live = false;
    int laps = 0, frames = 0;       // of the table
    long long halves = 0;           // dead and live parts that have ended since the start
    double done = 0.0, total = 0.0; // seconds of the run, pauses left out
};

void unit_start_thread();
void unit_stop_thread();

// Whether a unit has been configured, and the frames that it holds at most; 0 before.
void unit_configure(int max_frames);
int unit_max_frames();

// Puts a table in. False while the unit runs or waits for its trigger.
bool unit_load(const frame_table &table);
frame_table unit_table();
void unit_auto_continue(bool on); // pauses are passed by

unit_view unit_look();

// Each is false when the unit is in no state for it.
bool unit_start(); // waits for the trigger where the table says so
bool unit_arm();   // waits for the trigger
bool unit_trigger();
bool unit_continue(); // behind a pause

enum class unit_stop_how { now, pause_next_frame, end_of_lap };
void unit_stop(unit_stop_how how);

// Runs since they were cleared.
int unit_starts();
void unit_clear_starts();

const char *unit_state_name(unit_state state);

} // namespace kestrel
