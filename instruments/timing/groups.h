// instruments/timing: frame tables as groups, one a line: "num_frames dead_time live_time dead_port live_port dead_pause
// live_pause", closed by a line whose first number is negative. What the numbers are worth is for the unit to say.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

// The integer that the text begins with, within the limits of int; 0 where it begins with none.
int group_first_integer(std::string_view text);

enum class groups_end {
    closed,   // the closing line was handed on
    run_out,  // the lines ended first
    too_long, // a line that no server would take; it and what followed were not handed on
};

struct groups_read {
    groups_end end = groups_end::run_out;
    int group = 1;                   // that was read last, from 1
    std::vector<std::string> groups; // as handed on, without the closing line
};

// Takes line after line from `next` (false at the end), which may have CR and LF at its end, up to the closing one, and
// hands them on without those; lines of blanks are left out.
groups_read read_groups(const std::function<bool(std::string &line)> &next,
                        const std::function<void(const std::string &line)> &hand_on);

} // namespace kestrel
