#include "pulsar3/lib/counts/dead_time.h"

#include "pulsar3/lib/counts/rate_solver.h"
#include "support/dead_time.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

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

// 0, or a status after a text of this function's.
int check_channel(const char *function, int path, int chan, int least) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    if (chan < least || chan >= p->num_chan)
        return plr3_fail(plr3_out_of_range, "%s: chan=%d out of range %d..%d", function, chan, least,
                         p->num_chan - 1);
    return 0;
}

// set(channel's record) for a channel, or all of the path.
template <class F> int for_channels(const char *function, int path, int chan, F set) {
    if (const int status = check_channel(function, path, chan, -1); status != 0)
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
    if (const int status = check_channel(function, path, chan, 0); status != 0)
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

namespace {

// ---- one channel and frame

struct channel_counts {
    std::uint32_t all, reset, time;
    double ticks_live() const { return static_cast<double>(time) - static_cast<double>(reset); }
};

double rate_seen(const channel_counts &n, double clock_period) {
    return n.all / (n.ticks_live() * clock_period);
}

double factor_of(const channel_counts &n, double rate, double c, double d) {
    return n.time / n.ticks_live() * dead_time_loss(rate, c, d);
}

double estimate_of(const channel_counts &n, double rate, double clock_period) {
    return rate * n.time * clock_period;
}

// ---- all of them

struct channel_terms {
    bool omit = false;
    std::size_t all = plr3_scaler_all_event; // which scaler counts its events
    double clock_period = 0;
    dtc_terms terms;
};

double at_energy(double gradient, double offset, double energy) {
    return gradient == 0 || energy == 0 ? offset : gradient * energy + offset;
}

channel_terms terms_of(const ChannelDTC &p, double energy, double clock_period) {
    channel_terms t;
    t.omit = (p.flags & plr3_dtc_omit) != 0;
    t.all = (p.flags & plr3_dtc_use_good_event) != 0 ? plr3_scaler_all_good : plr3_scaler_all_event;
    t.clock_period = clock_period;
    t.terms = dtc_make_terms(
        at_energy(p.processDeadTimeAllEventGradient, p.processDeadTimeAllEventOffset, energy),
        at_energy(p.processDeadTimeAllEventRateGradient, p.processDeadTimeAllEventRateOffset, energy),
        at_energy(p.processDeadTimeInWindowGradient, p.processDeadTimeInWindowOffset, energy),
        at_energy(p.processDeadTimeInWindowRateGradient, p.processDeadTimeInWindowRateOffset, energy));
    return t;
}

int resolve_channels(int path, int first_chan, std::vector<channel_terms> &channels) {
    const double energy = plr3_path(path)->deadtimeEnergy;
    for (channel_terms &t : channels) {
        int card_path = 0, chan_of_card = 0;
        if (const int status = plr3_resolve_path(path, first_chan++, card_path, chan_of_card); status != 0)
            return status;
        const PLR3Path &card = Plr3Sys[static_cast<std::size_t>(card_path)];
        t = terms_of(card.dtc[static_cast<std::size_t>(chan_of_card)], energy, card.clock_period);
    }
    return 0;
}

// Frames of readings on their way to factors: a thread works on those of its own.
struct batch {
    std::span<const channel_terms> channels;
    std::span<const std::uint32_t> readings;
    std::span<double> factors, estimates; // estimates may be empty

    channel_counts counts(std::size_t value) const {
        const auto s = readings.subspan(value * plr3_nr_scalers, plr3_nr_scalers);
        return {s[channels[value % channels.size()].all], s[plr3_scaler_reset], s[plr3_scaler_time]};
    }
    void put(std::size_t value, double factor, double estimate) const {
        factors[value] = factor;
        if (!estimates.empty())
            estimates[value] = estimate;
    }
    void correct(std::size_t value, double rate) const;
    void run() const;
};

void batch::correct(std::size_t value, double rate) const {
    const channel_terms &t = channels[value % channels.size()];
    const channel_counts n = counts(value);
    const double factor = factor_of(n, rate, t.terms.c, t.terms.d);
    const double estimate = estimate_of(n, rate, t.clock_period);
    const bool is_number = std::isfinite(factor) && factor != std::numeric_limits<double>::max();
    put(value, is_number ? factor : 1.0, is_number && std::isfinite(estimate) ? estimate : n.all);
}

void batch::run() const {
    constexpr std::size_t at_once = 256;
    std::array<dtc_rate, at_once> rates{};
    std::array<std::size_t, at_once> place{};
    std::size_t used = 0;
    const auto finish = [&] {
        dtc_solve(std::span(rates).first(used));
        for (std::size_t i = 0; i < used; ++i)
            correct(place[i], rates[i].found);
        used = 0;
    };
    for (std::size_t value = 0; value < factors.size(); ++value) {
        const channel_terms &t = channels[value % channels.size()];
        if (t.omit) {
            put(value, 0, 0);
            continue;
        }
        place[used] = value;
        rates[used++] = {&t.terms, rate_seen(counts(value), t.clock_period)};
        if (used == at_once)
            finish();
    }
    finish();
}

// The frames first ... first + count - 1 of it.
batch part_of(const batch &all, std::size_t first, std::size_t count) {
    const std::size_t width = all.channels.size();
    batch part = all;
    part.readings = all.readings.subspan(first * width * plr3_nr_scalers, count * width * plr3_nr_scalers);
    part.factors = all.factors.subspan(first * width, count * width);
    if (!all.estimates.empty())
        part.estimates = all.estimates.subspan(first * width, count * width);
    return part;
}

void run_on_threads(const batch &all, std::size_t frames, unsigned threads) {
    std::vector<std::jthread> running; // joined at the end
    running.reserve(threads);
    std::size_t first = 0;
    for (unsigned left = std::max(threads, 1U); left > 1; --left) {
        const std::size_t count = (frames - first) / left;
        const batch part = part_of(all, first, count);
        try {
            running.emplace_back([part] { part.run(); });
        } catch (const std::system_error &) { // no more threads can be had: the rest is this one's
            break;
        }
        first += count;
    }
    part_of(all, first, frames - first).run();
}

// A thread costs about as much as a thousand values.
unsigned threads_worth(std::size_t values) {
    constexpr std::size_t values_each = 4096, most = 8;
    const std::size_t wanted = std::min(values / values_each, most);
    return static_cast<unsigned>(std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, wanted + 1));
}

} // namespace

double plr3_dtc(int path, std::uint32_t all, std::uint32_t reset, std::uint32_t time,
                double processDeadTimeAllEvent, double processDeadTimeAllEventRate,
                double processDeadTimeInWindow, double processDeadTimeInWindowRate, double *inpEst) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "plr3_dtc: invalid path %d", path);
    const channel_counts n{all, reset, time};
    const dtc_terms terms = dtc_make_terms(processDeadTimeAllEvent, processDeadTimeAllEventRate,
                                           processDeadTimeInWindow, processDeadTimeInWindowRate);
    const double rate = dtc_rate_by_bisection(terms, rate_seen(n, p->clock_period));
    if (inpEst)
        *inpEst = estimate_of(n, rate, p->clock_period);
    return factor_of(n, rate, terms.c, terms.d);
}

int plr3_calculateDeadtimeCorrectionFactors(int path, std::span<const std::uint32_t> hardwareScalerReadings,
                                            std::span<double> dtcFactors, std::span<double> inpEst,
                                            int num_tf, int first_chan, int num_chan, unsigned threads) {
    constexpr const char *name = "plr3_calculateDeadtimeCorrectionFactors";
    if (const int status = check_channel(name, path, first_chan, 0); status != 0)
        return status;
    if (num_tf < 1 || num_chan < 1 || num_chan > plr3_path(path)->num_chan - first_chan)
        return plr3_fail(plr3_out_of_range, "%s: %d channels from %d on, %d frames are out of range", name,
                         num_chan, first_chan, num_tf);
    const std::size_t frames = static_cast<std::size_t>(num_tf), width = static_cast<std::size_t>(num_chan);
    const std::size_t values = frames * width;
    if (hardwareScalerReadings.size() / plr3_nr_scalers < values || dtcFactors.size() < values ||
        (!inpEst.empty() && inpEst.size() < values))
        return plr3_fail(plr3_out_of_range, "%s: no room for %zu values", name, values);
    std::vector<channel_terms> channels(width);
    if (const int status = resolve_channels(path, first_chan, channels); status != 0)
        return status;
    const batch all{channels, hardwareScalerReadings.first(values * plr3_nr_scalers),
                    dtcFactors.first(values), inpEst.empty() ? inpEst : inpEst.first(values)};
    run_on_threads(all, frames, threads);
    return 0;
}

int plr3_calculateDeadtimeCorrectionFactors(int path, std::span<const std::uint32_t> hardwareScalerReadings,
                                            std::span<double> dtcFactors, std::span<double> inpEst,
                                            int num_tf, int first_chan, int num_chan) {
    const unsigned threads = threads_worth(dtcFactors.size());
    return plr3_calculateDeadtimeCorrectionFactors(path, hardwareScalerReadings, dtcFactors, inpEst, num_tf,
                                                   first_chan, num_chan, threads);
}

} // namespace kestrel
