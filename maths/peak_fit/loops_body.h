// maths/peak_fit: the loops of maths/peak_fit/loops.h. The files loops_*.cpp include this, each compiled for another
// kind of processor; internal linkage, and no inline function of anybody else (see maths/loops_body.h).
#pragma once

#include "maths/peak_fit/loops.h"

#include <cstdint>

namespace kestrel {

namespace {

constexpr std::size_t lanes = 8;

double dot(const double *a, const double *b, std::size_t count) {
    double part[lanes] = {}, sum = 0.0;
    const std::size_t whole = count - count % lanes;
    for (std::size_t i = 0; i < whole; i += lanes)
        for (std::size_t k = 0; k < lanes; ++k)
            part[k] += a[i + k] * b[i + k];
    for (std::size_t k = 0; k < lanes; ++k)
        sum += part[k];
    for (std::size_t i = whole; i < count; ++i)
        sum += a[i] * b[i];
    return sum;
}

void subtract(double *__restrict to, const double *__restrict from, double by, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        to[i] -= by * from[i];
}

void difference(double *__restrict to, const double *__restrict from, double by, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        to[i] = (to[i] - from[i]) * by;
}

void divide(double *x, double by, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        x[i] /= by;
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

// All lanes as one value: the compiler takes arrays apart here.
using lane_values = double __attribute__((vector_size(lanes * sizeof(double))));

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
