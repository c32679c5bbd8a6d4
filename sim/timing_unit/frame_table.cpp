#include "sim/timing_unit/frame_table.h"

#include <algorithm>
#include <charconv>
#include <cstddef>

namespace kestrel {

namespace {

// Takes the next number off the line; false when there is none.
template <class T> bool take(std::string_view &line, T &value) {
    line.remove_prefix(std::min(line.find_first_not_of(" \t,"), line.size()));
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), value);
    if (error != std::errc())
        return false;
    line.remove_prefix(static_cast<std::size_t>(end - line.data()));
    return line.empty() || line.front() == ' ' || line.front() == '\t' || line.front() == ',';
}

bool is_time(double seconds) {
    return seconds >= 0.0 && seconds <= longest_time; // and no NaN
}
bool is_port(int value) {
    return value >= 0 && value <= 255;
}
bool is_bit(int value) {
    return value == 0 || value == 1;
}

} // namespace

bool add_group(frame_table &table, std::string_view line, int most, std::string &why) {
    int count = 0, dead_pause = 0, live_pause = 0;
    unit_frame frame;
    if (!take(line, count) || !take(line, frame.dead) || !take(line, frame.live) ||
        !take(line, frame.dead_port) || !take(line, frame.live_port) || !take(line, dead_pause) ||
        !take(line, live_pause) || line.find_first_not_of(" \t") != std::string_view::npos)
        why = "a group is seven numbers";
    else if (count < 1 || count > most - static_cast<int>(table.frames.size()))
        why = "the table holds 1 to " + std::to_string(most) + " frames";
    else if (!is_time(frame.dead) || !is_time(frame.live))
        why = "times are 0 to 1e6 seconds";
    else if (!is_port(frame.dead_port) || !is_port(frame.live_port))
        why = "port data are 0 to 255";
    else if (!is_bit(dead_pause) || !is_bit(live_pause))
        why = "pause bits are 0 or 1";
    else {
        frame.dead_pause = dead_pause != 0;
        frame.live_pause = live_pause != 0;
        table.frames.insert(table.frames.end(), static_cast<std::size_t>(count), frame);
        return true;
    }
    return false;
}

bool closes_table(std::string_view line) {
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    int first = 0;
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), first);
    return first < 0 || (error == std::errc::result_out_of_range && line.front() == '-');
}

void stretch_dead_times(frame_table &table) {
    for (unit_frame &frame : table.frames)
        frame.dead = std::max(frame.dead, least_dead_time);
}

} // namespace kestrel
