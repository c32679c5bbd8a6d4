// The bisection's candidates are compared with the root, not with the model: where a candidate lies clearly to one side
// of the root, what the model would say is certain, and needs no exponential. The few candidates so close that rounding
// decides are put to the model as the bisection has it. So: find the root by Newton's iteration, several lanes at a
// time; find two numbers below and above it where the model, with all errors taken into account, is certain; take the
// steps up to the first uncertain one in lanes; take the rest one by one.
#include "support/rate_solver.h"

#include "support/dead_time.h"
#include "support/rate_lanes.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <utility>

namespace kestrel {

namespace {

constexpr double inverse_e = 0.36787944117144233;

constexpr double exponent_most = 4.0;
constexpr double smallest = 0x1p-300, largest = 0x1p300;

bool is_usual(double value) {
    return value >= smallest && value <= largest;
}

// Whether the model rises from 0 and turns at most once up to the range's end.
bool is_one_rise(const dtc_terms &t) {
    return t.b >= 0 || 4 * -t.b * t.range <= t.a * (1 - 1e-9);
}

// What dtc_solve needs to know beforehand. The candidates may pass the range's end by a few roundings: 1e-13 covers
// that, too.
void prepare(dtc_terms &t) {
    const double u = t.range * (std::fabs(t.b) * t.range + std::fabs(t.a));
    t.is_plain = !t.is_limit && !t.depends_on_rate && t.a >= 0 && is_usual(t.range) && u <= exponent_most &&
                 is_one_rise(t);
    if (!t.is_plain)
        return;
    t.margin = dtc_margin(u);
    t.floor = dead_time_seen(t.range, t.a, t.b) * (1 - 1e-13);
    // Near the peak 1 - x / x_max follows from the curvature there; the rest of the guess makes it 0 at 0.
    const double curvature = 1 + 2 * t.b * t.range * t.range;
    t.start_p = 2 / std::max(curvature, 0.1);
    const double most = std::sqrt(t.start_p);
    t.start_c = (most - 1 - most / 3) / t.start_p;
}

} // namespace

dtc_terms dtc_make_terms(double a, double b, double c, double d) {
    dtc_terms t;
    t.a = a;
    t.b = b;
    t.c = c;
    t.d = d;
    t.is_limit = a == 0 && b == 0;
    const double square = a * a + 8 * b;
    if (b != 0 && square > 0) {
        t.range = (std::sqrt(square) - a) / (4 * b);
        t.peak = dead_time_seen(t.range, a, b);
    } else if (b != 0) {
        t.peak = inverse_e / a;
        t.depends_on_rate = true;
    } else {
        t.peak = inverse_e / a;
        t.range = 1 / a;
    }
    prepare(t);
    return t;
}

double dtc_rate_by_bisection(const dtc_terms &t, double seen) {
    if (seen < 0)
        return 0;
    if (t.is_limit)
        return seen;
    if (seen > t.peak && !t.depends_on_rate)
        return t.range;
    const double range = !t.depends_on_rate ? t.range : seen > t.peak ? 2 * seen : 1.8 / t.a;
    double x = 0, part = 1;
    for (int k = 1; k <= dtc_steps; ++k) {
        part *= 2;
        const double candidate = range / part + x;
        if (dead_time_seen(candidate, t.a, t.b) <= seen)
            x = candidate;
    }
    return x;
}

namespace {

// The steps that are left, by the model itself. One step of every value that has some left, then the next: an exponential
// does not wait for that of another value. Nothing branches on what a step comes to, which no processor can foresee.
void finish(dtc_lanes_block &s) {
    std::array<std::uint32_t, dtc_block> left;
    std::size_t count = 0;
    const auto keep = [&](std::size_t i) {
        left[count] = static_cast<std::uint32_t>(i);
        const bool moves = s.x[i] + s.step[i] != s.x[i]; // else none that follows does
        count += static_cast<std::size_t>(moves & (s.step[i] >= s.range[i] * 0x1p-56));
    };
    for (std::size_t i = 0; i < s.used; ++i)
        keep(i);
    while (count > 0) {
        const std::size_t before = std::exchange(count, 0);
        for (std::size_t n = 0; n < before; ++n) {
            const std::size_t i = left[n];
            const double candidate = s.x[i] + s.step[i];
            const bool is_below = dead_time_seen(candidate, s.a[i], s.b[i]) <= s.seen[i];
            s.x[i] = is_below ? candidate : s.x[i];
            s.step[i] *= 0.5;
            keep(i);
        }
    }
}

double first_guess(const dtc_terms &t, double seen) {
    const double square = std::max(t.start_p * (1 - seen / t.peak), 0.0);
    const double p = std::sqrt(square);
    return std::max(t.range * (1 - p / (1 + p / 3 + t.start_c * square)), seen);
}

void take(dtc_lanes_block &s, const dtc_rate &rate, std::size_t place) {
    const dtc_terms &t = *rate.terms;
    const std::size_t i = s.used++;
    s.seen[i] = rate.seen;
    s.a[i] = t.a;
    s.b[i] = t.b;
    s.range[i] = t.range;
    s.margin[i] = t.margin;
    s.floor[i] = t.floor;
    s.guess[i] = first_guess(t, rate.seen);
    s.place[i] = static_cast<std::uint32_t>(place);
}

void give_back(dtc_lanes_block &s, std::span<dtc_rate> rates, dtc_lanes width) {
    if (s.used == 0)
        return;
    dtc_solve_block(s, width);
    finish(s);
    for (std::size_t i = 0; i < s.used; ++i)
        rates[s.place[i]].found = s.x[i];
    s.used = 0;
}

} // namespace

dtc_lanes dtc_widest_lanes() {
#ifdef __x86_64__
    if (__builtin_cpu_supports("avx2"))
        return dtc_lanes::four;
#endif
    return dtc_lanes::two;
}

void dtc_solve(std::span<dtc_rate> rates, dtc_lanes width) {
    dtc_lanes_block s;
    for (; !rates.empty(); rates = rates.subspan(std::min(rates.size(), dtc_block))) {
        const std::span<dtc_rate> part = rates.first(std::min(rates.size(), dtc_block));
        for (std::size_t i = 0; i < part.size(); ++i) {
            dtc_rate &rate = part[i];
            const dtc_terms &t = *rate.terms;
            if (t.is_plain && !(rate.seen > 0)) // or no number: nothing compares with that
                rate.found = 0;
            else if (t.is_plain && rate.seen > t.peak)
                rate.found = t.range;
            else if (t.is_plain && is_usual(rate.seen))
                take(s, rate, i);
            else
                rate.found = dtc_rate_by_bisection(t, rate.seen);
        }
        give_back(s, part, width);
    }
}

void dtc_solve(std::span<dtc_rate> rates) {
    static const dtc_lanes widest = dtc_widest_lanes();
    dtc_solve(rates, widest);
}

} // namespace kestrel
