#include "pulsar3/lib/counts/dead_time.h"

#include "support/dead_time.h"
#include "support/rate_solver.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

namespace kestrel {

namespace {

// ---- one channel and frame

struct event_counts {
    std::uint32_t all, reset, time;
    double ticks_live() const { return static_cast<double>(time) - static_cast<double>(reset); }
};

double rate_seen(const event_counts &n, double clock_period) {
    return n.all / (n.ticks_live() * clock_period);
}

double factor_of(const event_counts &n, double rate, double c, double d) {
    return n.time / n.ticks_live() * dead_time_loss(rate, c, d);
}

double estimate_of(const event_counts &n, double rate, double clock_period) {
    return rate * n.time * clock_period;
}

// ---- all of them

struct channel_terms {
    bool omit = false;
    std::size_t all = plr3_scaler_all_event; // which scaler counts its events
    double clock_period = 0;
    dtc_terms terms;
};

channel_terms terms_of(const ChannelDTC &p, double energy, double clock_period) {
    channel_terms t;
    t.omit = (p.flags & plr3_dtc_omit) != 0;
    t.all = (p.flags & plr3_dtc_use_good_event) != 0 ? plr3_scaler_all_good : plr3_scaler_all_event;
    t.clock_period = clock_period;
    t.terms = dtc_make_terms(
        plr3_dtc_at_energy(p.processDeadTimeAllEventGradient, p.processDeadTimeAllEventOffset, energy),
        plr3_dtc_at_energy(p.processDeadTimeAllEventRateGradient, p.processDeadTimeAllEventRateOffset,
                           energy),
        plr3_dtc_at_energy(p.processDeadTimeInWindowGradient, p.processDeadTimeInWindowOffset, energy),
        plr3_dtc_at_energy(p.processDeadTimeInWindowRateGradient, p.processDeadTimeInWindowRateOffset,
                           energy));
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

    event_counts counts(std::size_t value) const {
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
    const event_counts n = counts(value);
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
    const event_counts n{all, reset, time};
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
    if (const int status = plr3_check_channel(name, path, first_chan, 0); status != 0)
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
