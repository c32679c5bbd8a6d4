#include "support/rate_lanes.h"

#include <cstring>
#include <limits>

namespace kestrel {

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

// V: a vector of doubles, I: of as many 64-bit integers. Each operation is on four vectors: one would wait for its own
// results most of the time. All become part of functions that are compiled for one target each.
template <class V, class I> struct lanes {
    static constexpr std::size_t ways = 4, width = ways * sizeof(V) / sizeof(double);
    struct values {
        V way[ways];
    };

    [[gnu::always_inline]] static void load(values &to, const double *from) {
        std::memcpy(&to, from, sizeof to);
    }
    [[gnu::always_inline]] static void store(double *to, const values &from) {
        std::memcpy(to, &from, sizeof from);
    }

    // exp(u) for |u| <= 8 to some 2 units in the last place: the exponent's whole powers of 2 by its bits, Taylor's
    // series for the rest.
    [[gnu::always_inline]] static void exp(values &u) {
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

    [[gnu::always_inline]] static void seen_at(const values &x, const model &m, values &to) {
        for (std::size_t w = 0; w < ways; ++w)
            to.way[w] = -x.way[w] * (m.b.way[w] * x.way[w] + m.a.way[w]);
        exp(to);
        for (std::size_t w = 0; w < ways; ++w)
            to.way[w] = to.way[w] * x.way[w];
    }

    [[gnu::always_inline]] static void slope_at(const V &x, const model &m, std::size_t w, V &to) {
        const V slope = 1.0 - x * (m.a.way[w] + 2.0 * m.b.way[w] * x);
        const V least = V{} + 1e-8;
        to = slope > least ? slope : least;
    }

    // Newton's iteration for ln x - x (b x + a) = ln r, the logarithm of x over its estimate e by the first term of its
    // series in (x - e) / (x + e).
    [[gnu::always_inline]] static void iterate(values &x, const model &m) {
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
    [[gnu::always_inline]] static void enclose(const values &x, const model &m, const values &margin,
                                               const values &floor, values &low, values &high) {
        const V zero{}, never = zero + infinity, slight = zero + 1e-9;
        values low_rate, high_rate;
        for (std::size_t w = 0; w < ways; ++w) {
            V slope;
            slope_at(x.way[w], m, w, slope);
            const V reach = 1.3 * margin.way[w] / slope + 2 * dtc_unit;
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
    [[gnu::always_inline]] static void bisect(const values &range, const values &low, const values &high,
                                              values &root, values &next) {
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

    [[gnu::always_inline]] static void solve(dtc_lanes_block &s) {
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

using reals2 = double __attribute__((vector_size(16)));
using reals4 = double __attribute__((vector_size(32)));
using integers2 = std::int64_t __attribute__((vector_size(16)));
using integers4 = std::int64_t __attribute__((vector_size(32)));
constexpr std::size_t widest = 16; // lanes

void solve_lanes2(dtc_lanes_block &s) {
    lanes<reals2, integers2>::solve(s);
}
#ifdef __x86_64__
__attribute__((target("avx2"))) void solve_lanes4(dtc_lanes_block &s) {
    lanes<reals4, integers4>::solve(s);
}
#endif

// Lanes without a value do the last one's work again.
void fill_up(dtc_lanes_block &s) {
    static constexpr dtc_lanes_block::row dtc_lanes_block::*rows[] = {
        &dtc_lanes_block::seen,   &dtc_lanes_block::a,     &dtc_lanes_block::b,    &dtc_lanes_block::range,
        &dtc_lanes_block::margin, &dtc_lanes_block::floor, &dtc_lanes_block::guess};
    for (std::size_t i = s.used; i % widest != 0; ++i)
        for (dtc_lanes_block::row dtc_lanes_block::*row : rows)
            (s.*row)[i] = (s.*row)[s.used - 1];
}

} // namespace

void dtc_solve_block(dtc_lanes_block &s, dtc_lanes width) {
    fill_up(s);
#ifdef __x86_64__
    if (width == dtc_lanes::four)
        return solve_lanes4(s);
#endif
    solve_lanes2(s);
}

} // namespace kestrel
