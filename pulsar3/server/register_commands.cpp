// The `pulsar3` commands that set registers of channels, by the table of fields.
#include "parser/qualifiers.h"
#include "pulsar3/lib/paths/settings.h"
#include "pulsar3/server/commands.h"

namespace kestrel {

namespace {

constexpr pt_format set_window_format("%d %d %d %d %d = %d");

int pulsar3_set_window(int, int cn, int path, int chan, int win, int low, int high) {
    return pulsar3_status(cn, plr3_set_window(path, chan, win, low, high));
}

constexpr pt_format set_good_thres_format("%d %d %d = %d");

int pulsar3_set_good_thres(int, int cn, int path, int chan, int threshold) {
    return pulsar3_status(cn, plr3_set_good_thres(path, chan, threshold));
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_set_window = pt_command<pulsar3_set_window>(
    "set-window", set_window_format, "Set the thresholds of a scaler window",
    "Path/Channel, -1 for all/Window, 0 or 1/Low threshold, bins of 16 bits/High threshold, bins of 16 bits");

extern constinit const PARSE_TREE row_pulsar3_set_good_thres = pt_command<pulsar3_set_good_thres>(
    "set-good-thres", set_good_thres_format, "Set the threshold of good events",
    "Path/Channel, -1 for all/Threshold, bins of 16 bits");

} // namespace kestrel
