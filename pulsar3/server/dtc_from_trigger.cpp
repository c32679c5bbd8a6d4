// `pulsar3 dtc from-trigger`: dead times as the triggers are set, and a script that sets them again.
#include "parser/call.h"
#include "parser/qualifiers.h"
#include "pulsar3/lib/counts/dead_time.h"
#include "pulsar3/lib/counts/from_trigger.h"
#include "pulsar3/server/commands.h"
#include "server/output.h"
#include "support/replace_file.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string>
#include <vector>

namespace kestrel {

namespace {

constexpr pt_format from_trigger_format("%d + %s first %d last %d omit-chan use-good-event plus-half = %d");
using from_trigger_quals = pt_qualifiers<from_trigger_format>;

struct estimate {
    int chan;
    trigger_dead_times times;
};

int estimate_channels(int path, int first, int last, double plus, std::vector<estimate> &estimates) {
    for (int chan = first; chan <= last; ++chan) {
        estimates.push_back({chan, {}});
        if (const int status = plr3_dead_times_from_trigger(path, chan, plus, estimates.back().times);
            status != 0)
            return status;
    }
    return 0;
}

// The shortest text that is read as the same number again.
std::string exact(double value) {
    char text[32];
    return {text, std::to_chars(text, text + sizeof text, value).ptr};
}

// Lines that `include` takes.
std::string script_of(int path, const std::vector<estimate> &estimates, int flags) {
    std::string text;
    for (const auto &[chan, times] : estimates) {
        text += "pulsar3 dtc set-params " + std::to_string(path) + " " + std::to_string(chan) + " 0 " +
                exact(times.all_event) + " 0 " + exact(times.in_window);
        text += (flags & plr3_dtc_omit) != 0 ? " omit-chan" : "";
        text += (flags & plr3_dtc_use_good_event) != 0 ? " use-good-event" : "";
        text += "\n";
    }
    return text;
}

int set_channels(int path, const std::vector<estimate> &estimates, int flags) {
    for (const auto &[chan, times] : estimates)
        if (const int status = plr3_setDeadtimeCorrectionParameters(path, chan, flags, 0, times.all_event,
                                                                    times.in_window, 0);
            status != 0)
            return status;
    return 0;
}

int dtc_from_trigger(int quals, int cn, int path, const char *file) {
    const from_trigger_quals q(quals);
    const int channels = plr3_get_num_chan(path);
    if (channels < 0)
        return pulsar3_status(cn, channels);
    const int first = q.number("first", 0), last = q.number("last", channels - 1);
    if (first < 0 || last < first || last >= channels) {
        sv_printf(cn, "! ERROR: channels %d to %d are out of range 0..%d\n", first, last, channels - 1);
        return plr3_out_of_range;
    }
    const int flags = (q.given("omit-chan") ? plr3_dtc_omit : 0) |
                      (q.given("use-good-event") ? plr3_dtc_use_good_event : 0);
    std::vector<estimate> estimates;
    int status = estimate_channels(path, first, last, q.given("plus-half") ? 0.5 : 1.0, estimates);
    if (status != 0)
        return pulsar3_status(cn, status);
    for (const auto &[chan, times] : estimates)
        sv_printf(cn, "# Channel %d: all events %g s, in window %g s\n", chan, times.all_event,
                  times.in_window);
    if (OptionalArgumentCount > 0 &&
        replace_file(file, script_of(path, estimates, flags), 0666) != replace_step::none) {
        sv_printf(cn, "! ERROR: Cannot write script '%s': %s\n", file, std::strerror(errno));
        return plr3_failed;
    }
    return pulsar3_status(cn, set_channels(path, estimates, flags));
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_dtc_from_trigger = pt_command<dtc_from_trigger>(
    "from-trigger", from_trigger_format, "Estimate dead times from the settings of the triggers",
    "Path/Script to write, which sets them again/First channel, 0 if not given/"
    "Last channel, that of the path if not given/Omit the channels from corrected data/"
    "Take the good events for all events/Count half a tick for the clock's grain, not a whole one");

} // namespace kestrel
