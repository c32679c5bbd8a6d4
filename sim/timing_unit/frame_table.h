// sim/timing_unit: the frames that a unit makes, and the lines and numbers that they come from. Uses nothing of the rest.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

struct unit_frame {
    double dead = 0.0, live = 0.0; // seconds
    int dead_port = 0, live_port = 0;
    bool dead_pause = false, live_pause = false; // before that part begins
};

struct frame_table {
    std::vector<unit_frame> frames;
    int laps = 1;
    bool ext_start = false;  // start waits for the trigger
    bool auto_rearm = false; // waits for another trigger after each run
    std::string sequence;    // a name
};

inline constexpr double least_dead_time = 2e-5; // seconds, in which scalers copy their data
inline constexpr double longest_time = 1e6;     // seconds of a frame's part

// Adds the frames of one line, "num_frames dead_time live_time dead_port live_port dead_pause live_pause". False, with
// the reason and the table as it was, when the line is not like that or the table would have more frames than `most`.
bool add_group(frame_table &table, std::string_view line, int most, std::string &why);

// True for the line that closes a table: its first number is negative.
bool closes_table(std::string_view line);

// No dead time is shorter than scalers need.
void stretch_dead_times(frame_table &table);

} // namespace kestrel
