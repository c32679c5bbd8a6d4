// maths/peak_fit: the loops of maths/peak_fit/loops.h. The files loops_*.cpp include this, each compiled for another
// kind of processor; internal linkage, and no inline function of anybody else (see maths/loops_body.h).
#pragma once

#include "maths/peak_fit/loops.h"

#include <cstdint>

namespace kestrel {

namespace {

constexpr std::size_t lanes = 8;

// All lanes as one value: the compiler takes arrays apart here.
using lane_values = double __attribute__((vector_size(lanes * sizeof(double))));

// By reference: how such a value is returned depends on the processor.
void load_product(lane_values &to, std::size_t, const double *first) {
    __builtin_memcpy(&to, first, sizeof to);
}
template <class... More>
void load_product(lane_values &to, std::size_t at, const double *first, const More *...more) {
    load_product(to, at, first);
    const auto times = [&to, at](const double *next) {
        lane_values value;
        __builtin_memcpy(&value, next + at, sizeof value);
        to *= value;
    };
    (times(more), ...);
}

// Four runs of lanes side by side: each waits for its own last addition only.
template <class... More> double sum_of_products(std::size_t count, const double *first, const More *...more) {
    constexpr std::size_t runs = 4;
    lane_values part[runs] = {}, product;
    std::size_t i = 0;
    for (; i + runs * lanes <= count; i += runs * lanes)
        for (std::size_t run = 0; run < runs; ++run) {
            load_product(product, i + run * lanes, first + i + run * lanes, more...);
            part[run] += product;
        }
    for (; i + lanes <= count; i += lanes) {
        load_product(product, i, first + i, more...);
        part[0] += product;
    }
    double sum[lanes];
    const lane_values all = (part[0] + part[1]) + (part[2] + part[3]);
    __builtin_memcpy(sum, &all, sizeof sum);
    for (std::size_t half = lanes / 2; half > 0; half /= 2)
        for (std::size_t k = 0; k < half; ++k)
            sum[k] += sum[k + half];
    for (; i < count; ++i)
        sum[0] += (first[i] * ... * more[i]);
    return sum[0];
}

double dot(const double *a, const double *b, std::size_t count) {
    return sum_of_products(count, a, b);
}

double weighted_dot(const double *a, const double *b, const double *weights, std::size_t count) {
    return sum_of_products(count, a, b, weights);
}

void subtract(double *__restrict to, const double *__restrict from, double by, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        to[i] -= by * from[i];
}

void difference(double *__restrict to, const double *__restrict from, double by, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        to[i] = (to[i] - from[i]) * by;
}

// By a product where the inverse is a number.
void divide(double *x, double by, std::size_t count) {
    constexpr double least = 1e-300;
    if (by > least || by < -least) {
        const double part = 1.0 / by;
        for (std::size_t i = 0; i < count; ++i)
            x[i] *= part;
        return;
    }
    for (std::size_t i = 0; i < count; ++i)
        x[i] /= by;
}

void exchange(double *__restrict a, double *__restrict b, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const double kept = a[i];
        a[i] = b[i];
        b[i] = kept;
    }
}

// exp(x) for -700 < x < 700: x = n ln 2 + r with |r| < 0.35, and the series of exp(r), whose 14th term is below
// the last place (W. J. Cody & W. Waite, Software Manual for the Elementary Functions (1980), chapter 6).
double exp_of(double x) {
    constexpr double round = 0x1.8p52; // added, it leaves the nearest integer in the lowest bits
    constexpr double log2_e = 1.4426950408889634, ln2_high = 0.693145751953125,
                     ln2_low = 1.42860682030941723e-6;
    const double shifted = x * log2_e + round, n = shifted - round;
    const double r = x - n * ln2_high - n * ln2_low;
    constexpr double c[] = {1.0 / 6227020800,
                            1.0 / 479001600,
                            1.0 / 39916800,
                            1.0 / 3628800,
                            1.0 / 362880,
                            1.0 / 40320,
                            1.0 / 5040,
                            1.0 / 720,
                            1.0 / 120,
                            1.0 / 24,
                            1.0 / 6,
                            0.5,
                            1.0,
                            1.0};
    double sum = c[0];
    for (std::size_t k = 1; k < sizeof c / sizeof *c; ++k)
        sum = sum * r + c[k];
    const std::uint64_t power = (__builtin_bit_cast(std::uint64_t, shifted) + 1023) << 52;
    return sum * __builtin_bit_cast(double, power);
}

// exp(-d^2 by) at d + lanes is that at d, times exp(-(2 d + lanes) lanes by); and this factor falls by the same part,
// `fall`, at each such step: two products instead of an exponential. For as long as the roundings do not add up.
constexpr std::size_t gauss_run = 16 * lanes;

void gauss_steps(double *at, double d, double by, double fall, std::size_t count) {
    constexpr double step = static_cast<double>(lanes);
    double values[lanes], factors[lanes];
    for (std::size_t k = 0; k < lanes; ++k) {
        const double dk = d + static_cast<double>(static_cast<std::int32_t>(k));
        values[k] = exp_of(-(dk * dk) * by);
        factors[k] = exp_of(-(2.0 * dk + step) * step * by);
    }
    lane_values value, factor;
    __builtin_memcpy(&value, values, sizeof value);
    __builtin_memcpy(&factor, factors, sizeof factor);
    const std::size_t whole = count - count % lanes;
    for (std::size_t i = 0; i < whole; i += lanes) {
        __builtin_memcpy(at + i, &value, sizeof value);
        value *= factor;
        factor *= fall;
    }
    for (std::size_t k = 0; k < count - whole; ++k)
        at[whole + k] = value[k];
}

void gauss(double *at, double centre, double by, std::size_t first, std::size_t last) {
    constexpr double steepest =
        0.5; // a sigma of one channel; the steps of a narrower one have no exponential
    constexpr double step = static_cast<double>(lanes);
    const double fall = exp_of(-2.0 * step * step * by);
    for (std::size_t i = first; by <= steepest && i < last; i += gauss_run)
        gauss_steps(at + i, static_cast<double>(static_cast<std::int32_t>(i)) - centre, by, fall,
                    last - i < gauss_run ? last - i : gauss_run);
    if (by <= steepest)
        return;
    for (std::size_t i = first; i < last; ++i) {
        const double d = static_cast<double>(static_cast<std::int32_t>(i)) - centre;
        at[i] = exp_of(-(d * d) * by);
    }
}

void lorentz(double *at, double centre, double by, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        const double d = static_cast<double>(static_cast<std::int32_t>(i)) - centre;
        at[i] = 1.0 / (d * d * by + 1.0);
    }
}

} // namespace

} // namespace kestrel
