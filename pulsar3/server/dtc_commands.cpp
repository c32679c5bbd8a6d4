// `pulsar3 dtc`: the parameters of dead-time correction.
#include "parser/call.h"
#include "parser/qualifiers.h"
#include "pulsar3/lib/counts/dead_time.h"
#include "pulsar3/server/commands.h"
#include "server/output.h"

#include <string>

namespace kestrel {

namespace {

constexpr pt_format energy_format("%d %g = %d");

int pulsar3_dtc_energy(int, int cn, int path, double energy) {
    return pulsar3_status(cn, plr3_setDeadtimeCalculationEnergy(path, energy));
}

constexpr pt_format
    set_params_format("%d %d %g %g %g %g omit-chan use-good-event all-rate-c %g all-rate-m %g "
                      "win-rate-c %g win-rate-m %g = %d");

int pulsar3_dtc_set_params(int quals, int cn, int path, int chan, double all_m, double all_c, double win_m,
                           double win_c) {
    const pt_qualifiers<set_params_format> q(quals);
    const int flags = (q.given("omit-chan") ? plr3_dtc_omit : 0) |
                      (q.given("use-good-event") ? plr3_dtc_use_good_event : 0);
    if (q.count({"all-rate-c", "all-rate-m", "win-rate-c", "win-rate-m"}) == 0)
        return pulsar3_status(
            cn, plr3_setDeadtimeCorrectionParameters(path, chan, flags, all_m, all_c, win_c, win_m));
    ChannelDTC p;
    p.flags = flags;
    p.processDeadTimeAllEventGradient = all_m;
    p.processDeadTimeAllEventOffset = all_c;
    p.processDeadTimeInWindowGradient = win_m;
    p.processDeadTimeInWindowOffset = win_c;
    p.processDeadTimeAllEventRateOffset = q.real("all-rate-c");
    p.processDeadTimeAllEventRateGradient = q.real("all-rate-m");
    p.processDeadTimeInWindowRateOffset = q.real("win-rate-c");
    p.processDeadTimeInWindowRateGradient = q.real("win-rate-m");
    return pulsar3_status(cn, plr3_setDeadtimeCorrectionParameters2(path, chan, p));
}

struct column {
    const char *name;
    double ChannelDTC::*value;
};
constexpr column columns[] = {
    {"all-m", &ChannelDTC::processDeadTimeAllEventGradient},
    {"all-c", &ChannelDTC::processDeadTimeAllEventOffset},
    {"win-m", &ChannelDTC::processDeadTimeInWindowGradient},
    {"win-c", &ChannelDTC::processDeadTimeInWindowOffset},
    {"all-rate-m", &ChannelDTC::processDeadTimeAllEventRateGradient},
    {"all-rate-c", &ChannelDTC::processDeadTimeAllEventRateOffset},
    {"win-rate-m", &ChannelDTC::processDeadTimeInWindowRateGradient},
    {"win-rate-c", &ChannelDTC::processDeadTimeInWindowRateOffset},
};

// A cell of the table, as wide as the others.
std::string cell(const char *text) {
    char padded[32];
    std::snprintf(padded, sizeof padded, " %12s", text);
    return padded;
}

std::string cell(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return cell(text);
}

int list_channel(int cn, int path, int chan) {
    ChannelDTC p;
    if (const int status = plr3_getDeadtimeCorrectionParameters2(path, chan, p); status != 0)
        return pulsar3_status(cn, status);
    std::string line;
    for (const column &c : columns)
        line += cell(p.*c.value);
    line += (p.flags & plr3_dtc_omit) != 0 ? " omit-chan" : "";
    line += (p.flags & plr3_dtc_use_good_event) != 0 ? " use-good-event" : "";
    sv_printf(cn, "# %4d%s\n", chan, line.c_str());
    return 0;
}

constexpr pt_format list_format("%d + %d %d = %d");

int pulsar3_dtc_list(int, int cn, int path, int first, int last) {
    double energy = 0;
    if (const int status = plr3_getDeadtimeCalculationEnergy(path, energy); status != 0)
        return pulsar3_status(cn, status);
    if (OptionalArgumentCount < 2)
        last = plr3_get_num_chan(path) - 1;
    if (first < 0 || last < first || last >= plr3_get_num_chan(path)) {
        sv_printf(cn, "! ERROR: channels %d to %d are out of range 0..%d\n", first, last,
                  plr3_get_num_chan(path) - 1);
        return plr3_out_of_range;
    }
    sv_printf(cn, "# Energy %g\n", energy);
    std::string title;
    for (const column &c : columns)
        title += cell(c.name);
    sv_printf(cn, "# chan%s flags\n", title.c_str());
    for (int chan = first; chan <= last; ++chan)
        if (const int status = list_channel(cn, path, chan); status != 0)
            return status;
    return 0;
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_dtc_energy =
    pt_command<pulsar3_dtc_energy>("energy", energy_format, "Set the energy that dead times are taken at",
                                   "Path/Energy, in the unit that the gradients are given by");

extern constinit const PARSE_TREE row_pulsar3_dtc_set_params = pt_command<pulsar3_dtc_set_params>(
    "set-params", set_params_format, "Set the dead times of a channel",
    "Path/Channel, -1 for all/all-event gradient (seconds per unit of energy)/"
    "all-event offset (seconds - fixed or at 0 energy)/in-window gradient (seconds per unit of energy)/"
    "in-window offset (seconds - fixed or at 0 energy)/Omit the channel from corrected data/"
    "Take the good events for all events/all-event rate constant (seconds squared)/"
    "all-event rate gradient (seconds squared per unit of energy)/in-window rate constant (seconds squared)/"
    "in-window rate gradient (seconds squared per unit of energy)");

extern constinit const PARSE_TREE row_pulsar3_dtc_list = pt_command<pulsar3_dtc_list>(
    "list", list_format, "List the dead times of channels",
    "Path/First channel, 0 if not given/Last channel, that of the path if not given");

} // namespace kestrel
