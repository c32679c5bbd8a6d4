// The bisection's candidates are compared with the root, not with the model: where a candidate lies clearly to one side
// of the root, what the model would say is certain, and needs no exponential. The few candidates so close that rounding
// decides are put to the model as the bisection has it. So: find the root by Newton's iteration, several lanes at a
// time; find two numbers below and above it where the model, with all errors taken into account, is certain; take the
// steps up to the first uncertain one in lanes; take the rest one by one.
#include "pulsar3/lib/counts/rate_solver.h"

#include "support/dead_time.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>

namespace kestrel {

namespace {

constexpr double inverse_e = 0.36787944117144233;
constexpr double infinity = std::numeric_limits<double>::infinity();

// Relative errors. A rate by std::exp: 2 units in the last place for the exponential (glibc: below 1), one for the
// product, and what the exponent's three roundings make of it, 3 units times the exponent. A rate by lanes_exp has 6 for
// the exponential. Together, for exponents up to `u`:
constexpr double unit = 0x1p-53;
constexpr double margin_of(double u) {
    return (14.0 + 6.2 * u) * unit;
}
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
    t.margin = margin_of(u);
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

// ---- lanes

constexpr std::size_t block = 64; // values; a multiple of every width

// Values on their way through the lanes, each member an array.
struct lanes_block {
    using row = std::array<double, block>;
    alignas(64) row seen, a, b, range, margin, floor;
    alignas(64) row guess;
    alignas(64) row x, step; // results: where the bisection stands, and its next step
    std::array<std::uint32_t, block> place;
    std::size_t used = 0;
};

// Functions of vectors must become part of ones that are compiled for several targets.
#define KESTREL_LANES inline __attribute__((always_inline))

// V: a vector of doubles, I: of as many 64-bit integers. Each operation is on four vectors: one would wait for its own
// results most of the time.
template <class V, class I> struct lanes {
    static constexpr std::size_t ways = 4, width = ways * sizeof(V) / sizeof(double);
    struct values {
        V way[ways];
    };

    static KESTREL_LANES void load(values &to, const double *from) { std::memcpy(&to, from, sizeof to); }
    static KESTREL_LANES void store(double *to, const values &from) { std::memcpy(to, &from, sizeof from); }

    // exp(u) for |u| <= 8 to some 2 units in the last place: the exponent's whole powers of 2 by its bits, Taylor's
    // series for the rest.
    static KESTREL_LANES void exp(values &u) {
        constexpr double shift = 0x1.8p52, log2e = 0x1.71547652b82fep0;
        constexpr double ln2_high = 0x1.62e42fefa38p-1, ln2_low = 0x1.ef35793c7673p-45;
        constexpr double series[] = {1.0 / 479001600.0,
                                     1.0 / 39916800.0,
                                     1.0 / 3628800.0,
                                     1.0 / 362880.0,
                                     1.0 / 40320.0,
                                     1.0 / 5040.0,
                                     1.0 / 720.0,
                                     1.0 / 120.0,
                                     1.0 / 24.0,
                                     1.0 / 6.0,
                                     0.5};
        values z, p;
        I bits[ways];
        for (std::size_t w = 0; w < ways; ++w) {
            const V shifted = u.way[w] * log2e + shift;
            const V n = shifted - shift;
            z.way[w] = (u.way[w] - n * ln2_high) - n * ln2_low;
            p.way[w] = z.way[w] * (1.0 / 6227020800.0);
            bits[w] = (__builtin_bit_cast(I, shifted) << 52) + std::int64_t{0x3ff0000000000000};
        }
        for (const double term : series)
            for (std::size_t w = 0; w < ways; ++w)
                p.way[w] = (p.way[w] + term) * z.way[w];
        for (std::size_t w = 0; w < ways; ++w)
            u.way[w] = ((p.way[w] * z.way[w] + z.way[w]) + 1.0) * __builtin_bit_cast(V, bits[w]);
    }

    struct model {
        values seen, a, b, range;
    };

    static KESTREL_LANES void seen_at(const values &x, const model &m, values &to) {
        for (std::size_t w = 0; w < ways; ++w)
            to.way[w] = -x.way[w] * (m.b.way[w] * x.way[w] + m.a.way[w]);
        exp(to);
        for (std::size_t w = 0; w < ways; ++w)
            to.way[w] = to.way[w] * x.way[w];
    }

    static KESTREL_LANES void slope_at(const V &x, const model &m, std::size_t w, V &to) {
        const V slope = 1.0 - x * (m.a.way[w] + 2.0 * m.b.way[w] * x);
        const V least = V{} + 1e-8;
        to = slope > least ? slope : least;
    }

    // Newton's iteration for ln x - x (b x + a) = ln r, the logarithm of x over its estimate e by the first term of its
    // series in (x - e) / (x + e).
    static KESTREL_LANES void iterate(values &x, const model &m) {
        values e;
        for (std::size_t w = 0; w < ways; ++w)
            e.way[w] = x.way[w] * (m.b.way[w] * x.way[w] + m.a.way[w]);
        exp(e);
        for (std::size_t w = 0; w < ways; ++w) {
            const V old = x.way[w], other = e.way[w] * m.seen.way[w];
            V slope;
            slope_at(old, m, w, slope);
            const V improved = old - old * (2.0 * (old - other)) / ((old + other) * slope);
            const V upper = improved > m.seen.way[w] ? improved : m.seen.way[w];
            x.way[w] = upper < m.range.way[w] ? upper : m.range.way[w];
        }
    }

    // Up to `low` the model gives at most r, from `high` on more than r, whatever is rounded: shown by the model, not by
    // the iteration, which may have ended anywhere.
    static KESTREL_LANES void enclose(const values &x, const model &m, const values &margin,
                                      const values &floor, values &low, values &high) {
        const V zero{}, never = zero + infinity, slight = zero + 1e-9;
        values low_rate, high_rate;
        for (std::size_t w = 0; w < ways; ++w) {
            V slope;
            slope_at(x.way[w], m, w, slope);
            const V reach = 1.3 * margin.way[w] / slope + 2 * unit;
            low.way[w] = x.way[w] - x.way[w] * reach;
            high.way[w] = x.way[w] + x.way[w] * reach;
        }
        seen_at(low, m, low_rate);
        seen_at(high, m, high_rate);
        for (std::size_t w = 0; w < ways; ++w) {
            const V r = m.seen.way[w];
            const V rising = 1.0 - low.way[w] * (m.a.way[w] + 2.0 * m.b.way[w] * low.way[w]);
            const V most = low_rate.way[w] * (1.0 + margin.way[w]);
            const V least = high_rate.way[w] * (1.0 - margin.way[w]);
            low.way[w] = most <= r ? low.way[w] : zero;
            low.way[w] = rising > slight ? low.way[w] : zero;
            high.way[w] = least > r ? high.way[w] : never;
            high.way[w] = floor.way[w] > r ? high.way[w] : never;
        }
    }

    // Takes the steps up to the first whose outcome is not certain; that one's length is left in `next`.
    static KESTREL_LANES void bisect(const values &range, const values &low, const values &high, values &root,
                                     values &next) {
        const V zero{}, never = zero + infinity;
        values stop, step; // nothing shorter than `stop` is taken
        for (std::size_t w = 0; w < ways; ++w) {
            root.way[w] = stop.way[w] = zero;
            next.way[w] = step.way[w] = range.way[w] * 0.5;
        }
        for (int k = 1; k <= dtc_steps; ++k) {
            for (std::size_t w = 0; w < ways; ++w) {
                const V length = step.way[w];
                const V candidate = root.way[w] + (length > stop.way[w] ? length : never);
                const V uncertain = candidate < high.way[w] ? never : stop.way[w];
                stop.way[w] = candidate <= low.way[w] ? stop.way[w] : uncertain;
                root.way[w] = candidate <= low.way[w] ? candidate : root.way[w];
                step.way[w] = length * 0.5;
                next.way[w] = length > stop.way[w] ? step.way[w] : next.way[w];
            }
        }
    }

    static KESTREL_LANES void solve(lanes_block &s) {
        for (std::size_t at = 0; at < s.used; at += width) {
            model m;
            values margin, floor, x, low, high, root, next;
            load(m.seen, &s.seen[at]);
            load(m.a, &s.a[at]);
            load(m.b, &s.b[at]);
            load(m.range, &s.range[at]);
            load(margin, &s.margin[at]);
            load(floor, &s.floor[at]);
            load(x, &s.guess[at]);
            for (int i = 0; i < 4; ++i)
                iterate(x, m);
            enclose(x, m, margin, floor, low, high);
            bisect(m.range, low, high, root, next);
            store(&s.x[at], root);
            store(&s.step[at], next);
        }
    }
};

#undef KESTREL_LANES

using reals2 = double __attribute__((vector_size(16)));
using reals4 = double __attribute__((vector_size(32)));
using integers2 = std::int64_t __attribute__((vector_size(16)));
using integers4 = std::int64_t __attribute__((vector_size(32)));
constexpr std::size_t widest = 16; // lanes

void solve_lanes2(lanes_block &s) {
    lanes<reals2, integers2>::solve(s);
}
#ifdef __x86_64__
__attribute__((target("avx2"))) void solve_lanes4(lanes_block &s) {
    lanes<reals4, integers4>::solve(s);
}
#endif

// Lanes without a value do the last one's work again.
void fill_up(lanes_block &s) {
    static constexpr lanes_block::row lanes_block::*rows[] = {
        &lanes_block::seen,   &lanes_block::a,     &lanes_block::b,    &lanes_block::range,
        &lanes_block::margin, &lanes_block::floor, &lanes_block::guess};
    for (std::size_t i = s.used; i % widest != 0; ++i)
        for (lanes_block::row lanes_block::*row : rows)
            (s.*row)[i] = (s.*row)[s.used - 1];
}

void solve_block(lanes_block &s, dtc_lanes width) {
    fill_up(s);
#ifdef __x86_64__
    if (width == dtc_lanes::four)
        return solve_lanes4(s);
#endif
    solve_lanes2(s);
}

// The steps that are left, by the model itself. One step of every value that has some left, then the next: an exponential
// does not wait for that of another value. Nothing branches on what a step comes to, which no processor can foresee.
void finish(lanes_block &s) {
    std::array<std::uint32_t, block> left;
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

void take(lanes_block &s, const dtc_rate &rate, std::size_t place) {
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

void give_back(lanes_block &s, std::span<dtc_rate> rates, dtc_lanes width) {
    if (s.used == 0)
        return;
    solve_block(s, width);
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
    lanes_block s;
    for (; !rates.empty(); rates = rates.subspan(std::min(rates.size(), block))) {
        const std::span<dtc_rate> part = rates.first(std::min(rates.size(), block));
        for (std::size_t i = 0; i < part.size(); ++i) {
            dtc_rate &rate = part[i];
            const dtc_terms &t = *rate.terms;
            if (rate.seen == 0 && t.is_plain)
                rate.found = 0;
            else if (t.is_plain && is_usual(rate.seen) && rate.seen <= t.peak)
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
