#include "sim/card/spectrum.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

namespace kestrel {

namespace {

constexpr double energies_of_lines = 4096;
constexpr double tails = 8;           // standard deviations of a line that count
constexpr double draw_by_event = 1e5; // events; above, one draw a bin is cheaper
constexpr double reset_seconds = 1e-5;

// The part of a line between two energies.
double between(double low, double high, double at, double sigma) {
    const double scale = 1.0 / (sigma * std::sqrt(2.0));
    return 0.5 * (std::erf((high - at) * scale) - std::erf((low - at) * scale));
}

void make_weights(channel_model &m, std::size_t energies) {
    double sum = 0;
    for (const spectrum_line &line : m.lines)
        sum += line.intensity;
    const double flat = sum > 0 ? std::clamp(m.background, 0.0, 1.0) : 1.0;
    m.weights.assign(energies, flat / static_cast<double>(energies));
    const double width = energies_of_lines / static_cast<double>(energies);
    for (const spectrum_line &line : m.lines) {
        const double sigma = std::sqrt(m.noise * m.noise + m.fano * std::max(line.bin, 0.0)) + 1e-9;
        const double first = std::floor(std::max(line.bin - tails * sigma, 0.0) / width);
        const double last =
            std::min(std::ceil((line.bin + tails * sigma) / width), static_cast<double>(energies));
        for (double bin = first; bin < last; ++bin)
            m.weights[static_cast<std::size_t>(bin)] +=
                (1 - flat) * line.intensity / sum * between(bin * width, (bin + 1) * width, line.bin, sigma);
    }
    // What a line has outside the spectrum is nobody's: the rest is all.
    const double all = std::accumulate(m.weights.begin(), m.weights.end(), 0.0);
    for (double &w : m.weights)
        w /= all;
}

// Walker's table: a draw is a column and a coin.
void make_alias(channel_model &m) {
    const std::size_t n = m.weights.size();
    std::vector<double> scaled(n);
    std::vector<std::uint32_t> small, large;
    for (std::size_t i = 0; i < n; ++i) {
        scaled[i] = m.weights[i] * static_cast<double>(n);
        (scaled[i] < 1 ? small : large).push_back(static_cast<std::uint32_t>(i));
    }
    m.keep.assign(n, 1.0f);
    m.alias.assign(n, 0);
    while (!small.empty() && !large.empty()) {
        const std::uint32_t s = small.back(), l = large.back();
        small.pop_back();
        m.keep[s] = static_cast<float>(scaled[s]);
        m.alias[s] = l;
        scaled[l] -= 1 - scaled[s];
        if (scaled[l] < 1) {
            large.pop_back();
            small.push_back(l);
        }
    }
}

std::uint32_t draw_energy(const channel_model &m, card_random &random) {
    const std::uint64_t bits = random();
    const auto column = static_cast<std::uint32_t>((bits >> 32) * m.weights.size() >> 32);
    const float coin = static_cast<float>(bits & 0xffffff) * 0x1p-24f;
    return coin < m.keep[column] ? column : m.alias[column];
}

std::uint64_t poisson(double mean, card_random &random) {
    if (!(mean > 0))
        return 0;
    return static_cast<std::uint64_t>(std::poisson_distribution<std::int64_t>(mean)(random));
}

// The ticks at which events were taken, with true events at random times and a dead time after each.
std::vector<std::uint32_t> taken_ticks(const channel_model &m, card_random &random, double live,
                                       double clock) {
    std::vector<std::uint32_t> ticks;
    double dead_until = 0;
    for (double now = 0; m.rate > 0;) {
        now -= std::log1p(-random.real()) / m.rate;
        if (now >= live)
            break;
        const bool seen = now >= dead_until;
        if (seen)
            ticks.push_back(static_cast<std::uint32_t>(static_cast<std::uint64_t>(now * clock)));
        if (seen || m.way == dead_time::paralysable)
            dead_until = now + m.tau;
    }
    return ticks;
}

struct frame_filler {
    channel_model &model;
    const channel_format &format;
    card_random &random;
    std::span<std::uint32_t> histogram;
    std::vector<channel_event> *events;

    void put_event(std::uint32_t tick) {
        const std::uint32_t energy = draw_energy(model, random);
        const auto auxiliary = static_cast<std::uint32_t>(
            format.auxiliaries > 1 ? (random() >> 32) * format.auxiliaries >> 32 : 0);
        ++histogram[auxiliary * format.energies + energy];
        if (events)
            events->push_back({tick, energy, auxiliary});
    }

    // Events at random times, in order of time only where somebody looks at them.
    void put_events(std::uint64_t count, std::uint64_t ticks) {
        std::vector<std::uint32_t> times(events ? count : 0);
        for (std::uint32_t &t : times)
            t = static_cast<std::uint32_t>(random.real() * static_cast<double>(ticks));
        std::sort(times.begin(), times.end());
        for (std::uint64_t i = 0; i < count; ++i)
            put_event(events ? times[i] : 0);
    }

    std::uint64_t put_bins(double mean) {
        std::uint64_t total = 0;
        const double share = 1.0 / static_cast<double>(format.auxiliaries);
        for (std::size_t i = 0; i < histogram.size(); ++i) {
            const std::uint64_t n = poisson(mean * model.weights[i % format.energies] * share, random);
            histogram[i] = static_cast<std::uint32_t>(n);
            total += n;
        }
        return total;
    }
};

struct counted {
    std::uint64_t seen, landed; // events seen at all, and in the spectrum
};

counted count_by_model(frame_filler &f, double live, std::uint64_t ticks) {
    const channel_model &m = f.model;
    const double x = m.rate;
    const double seen = x * live * std::exp(-x * (m.a + m.b * x));
    const double lands = x * live * std::exp(-2 * x * (m.c + m.d * x));
    counted n{};
    if (lands > draw_by_event && !f.events) {
        n.landed = f.put_bins(lands);
    } else {
        n.landed = poisson(lands, f.random);
        f.put_events(n.landed, ticks);
    }
    n.seen = seen >= lands ? n.landed + poisson(seen - lands, f.random) : poisson(seen, f.random);
    return n;
}

counted count_by_event(frame_filler &f, double live, double clock) {
    const std::vector<std::uint32_t> times = taken_ticks(f.model, f.random, live, clock);
    for (const std::uint32_t tick : times)
        f.put_event(tick);
    return {times.size(), times.size()};
}

// Events with 16-bit energies from `low` to `high`, over all auxiliary bins.
std::uint32_t events_within(const channel_format &format, std::span<const std::uint32_t> histogram,
                            std::uint32_t low, std::uint32_t high) {
    const int shift = 16 - format.energy_bits;
    const std::size_t first = (low + (1u << shift) - 1) >> shift, behind = std::size_t{high >> shift} + 1;
    std::uint32_t sum = 0;
    for (std::size_t row = 0; first < behind && row < format.auxiliaries; ++row) {
        const auto begin = histogram.begin() + static_cast<std::ptrdiff_t>(row * format.energies);
        sum = std::accumulate(begin + static_cast<std::ptrdiff_t>(std::min(first, format.energies)),
                              begin + static_cast<std::ptrdiff_t>(std::min(behind, format.energies)), sum);
    }
    return sum;
}

void sort_by_energy(const channel_format &format, std::span<const std::uint32_t> histogram,
                    channel_scalers &scalers) {
    const std::uint32_t below = format.good > 0 ? events_within(format, histogram, 0, format.good - 1) : 0;
    scalers[4] = scalers[3] > below ? scalers[3] - below : 0;
    scalers[5] = events_within(format, histogram, format.low[0], format.high[0]);
    scalers[6] = events_within(format, histogram, format.low[1], format.high[1]);
}

} // namespace

void spectrum_count(channel_model &model, const channel_format &format, card_random &random,
                    std::uint64_t ticks, double clock, std::span<std::uint32_t> histogram,
                    channel_scalers &scalers, std::vector<channel_event> *events) {
    if (model.weights.size() != format.energies) {
        make_weights(model, format.energies);
        make_alias(model);
    }
    const auto lost =
        static_cast<std::uint64_t>(static_cast<double>(ticks) * std::clamp(model.resets, 0.0, 1.0));
    const double live = static_cast<double>(ticks - lost) / clock;
    frame_filler filler = {model, format, random, histogram, events};
    const counted n = model.way == dead_time::model ? count_by_model(filler, live, ticks)
                                                    : count_by_event(filler, live, clock);
    scalers = {};
    scalers[0] = static_cast<std::uint32_t>(ticks);
    scalers[1] = static_cast<std::uint32_t>(lost);
    scalers[2] = static_cast<std::uint32_t>(static_cast<double>(lost) / clock / reset_seconds);
    scalers[3] = static_cast<std::uint32_t>(n.seen);
    scalers[7] = static_cast<std::uint32_t>(n.seen > n.landed ? n.seen - n.landed : 0); // piled up
    sort_by_energy(format, histogram, scalers);
}

} // namespace kestrel
