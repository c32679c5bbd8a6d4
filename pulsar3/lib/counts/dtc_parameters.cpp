// The parameters of dead-time correction, channel by channel.
#include "pulsar3/lib/counts/dead_time.h"

#include <algorithm>
#include <cmath>

namespace kestrel {

namespace {

constexpr double ChannelDTC::*all_parameters[] = {
    &ChannelDTC::processDeadTimeAllEventGradient,     &ChannelDTC::processDeadTimeAllEventOffset,
    &ChannelDTC::processDeadTimeInWindowOffset,       &ChannelDTC::processDeadTimeInWindowGradient,
    &ChannelDTC::processDeadTimeAllEventRateGradient, &ChannelDTC::processDeadTimeAllEventRateOffset,
    &ChannelDTC::processDeadTimeInWindowRateOffset,   &ChannelDTC::processDeadTimeInWindowRateGradient,
};

int check_parameters(const char *function, const ChannelDTC &p) {
    if (p.flags < 0 || p.flags > (plr3_dtc_omit | plr3_dtc_use_good_event))
        return plr3_fail(plr3_out_of_range, "%s: flags %d are out of range 0..3", function, p.flags);
    for (double ChannelDTC::*const parameter : all_parameters)
        if (!std::isfinite(p.*parameter))
            return plr3_fail(plr3_out_of_range, "%s: a dead time of %g cannot be", function, p.*parameter);
    return 0;
}

ChannelDTC *channel_of(int path, int chan) {
    int card_path = 0, chan_of_card = 0;
    if (plr3_resolve_path(path, chan, card_path, chan_of_card) != 0)
        return nullptr;
    return &Plr3Sys[static_cast<std::size_t>(card_path)].dtc[static_cast<std::size_t>(chan_of_card)];
}

// set(channel's record) for a channel, or all of the path.
template <class F> int for_channels(const char *function, int path, int chan, F set) {
    if (const int status = plr3_check_channel(function, path, chan, -1); status != 0)
        return status;
    const int first = std::max(chan, 0), last = chan < 0 ? plr3_path(path)->num_chan - 1 : chan;
    for (int each = first; each <= last; ++each) {
        ChannelDTC *record = channel_of(path, each);
        if (!record)
            return plr3_illegal_sub_path; // the text is kept
        set(*record);
    }
    return 0;
}

int get_parameters(const char *function, int path, int chan, ChannelDTC &parameters) {
    if (const int status = plr3_check_channel(function, path, chan, 0); status != 0)
        return status;
    const ChannelDTC *record = channel_of(path, chan);
    if (!record)
        return plr3_illegal_sub_path;
    parameters = *record;
    return 0;
}

void copy_without_rates(const ChannelDTC &from, ChannelDTC &to) {
    to.flags = from.flags;
    for (std::size_t i = 0; i < 4; ++i)
        to.*all_parameters[i] = from.*all_parameters[i];
}

} // namespace

int plr3_check_channel(const char *function, int path, int chan, int least) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    if (chan < least || chan >= p->num_chan)
        return plr3_fail(plr3_out_of_range, "%s: chan=%d out of range %d..%d", function, chan, least,
                         p->num_chan - 1);
    return 0;
}

int plr3_setDeadtimeCorrectionParameters(int path, int chan, int flags,
                                         double processDeadTimeAllEventGradient,
                                         double processDeadTimeAllEventOffset,
                                         double processDeadTimeInWindowOffset,
                                         double processDeadTimeInWindowGradient) {
    constexpr const char *name = "plr3_setDeadtimeCorrectionParameters";
    ChannelDTC given;
    given.flags = flags;
    given.processDeadTimeAllEventGradient = processDeadTimeAllEventGradient;
    given.processDeadTimeAllEventOffset = processDeadTimeAllEventOffset;
    given.processDeadTimeInWindowOffset = processDeadTimeInWindowOffset;
    given.processDeadTimeInWindowGradient = processDeadTimeInWindowGradient;
    if (const int status = check_parameters(name, given); status != 0)
        return status;
    return for_channels(name, path, chan,
                        [&given](ChannelDTC &record) { copy_without_rates(given, record); });
}

int plr3_setDeadtimeCorrectionParameters2(int path, int chan, const ChannelDTC &parameters) {
    constexpr const char *name = "plr3_setDeadtimeCorrectionParameters2";
    if (const int status = check_parameters(name, parameters); status != 0)
        return status;
    return for_channels(name, path, chan, [&parameters](ChannelDTC &record) { record = parameters; });
}

int plr3_getDeadtimeCorrectionParameters(int path, int chan, ChannelDTC &parameters) {
    ChannelDTC all;
    const int status = get_parameters("plr3_getDeadtimeCorrectionParameters", path, chan, all);
    if (status == 0)
        copy_without_rates(all, parameters);
    return status;
}

int plr3_getDeadtimeCorrectionParameters2(int path, int chan, ChannelDTC &parameters) {
    return get_parameters("plr3_getDeadtimeCorrectionParameters2", path, chan, parameters);
}

int plr3_getDeadtimeCorrectionFlags(int path, int chan, int &flags) {
    ChannelDTC all;
    const int status = get_parameters("plr3_getDeadtimeCorrectionFlags", path, chan, all);
    if (status == 0)
        flags = all.flags;
    return status;
}

int plr3_setDeadtimeCalculationEnergy(int path, double energy) {
    constexpr const char *name = "plr3_setDeadtimeCalculationEnergy";
    PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", name, path);
    if (!std::isfinite(energy))
        return plr3_fail(plr3_out_of_range, "%s: an energy of %g cannot be", name, energy);
    p->deadtimeEnergy = energy;
    for (int card = 0; card < p->num_cards; ++card)
        if (PLR3Path *leaf = plr3_path(plr3_leaf(*p, path, card)))
            leaf->deadtimeEnergy = energy;
    return 0;
}

int plr3_getDeadtimeCalculationEnergy(int path, double &energy) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "plr3_getDeadtimeCalculationEnergy: invalid path %d", path);
    energy = p->deadtimeEnergy;
    return 0;
}

} // namespace kestrel
