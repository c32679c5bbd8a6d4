// maths/peak_fit: the loops over channels that fits spend their time in, in versions for what processors can do.
// Plain pointers. Each version gives the same bits: four times eight partial sums, then those by halves, then the tail,
// and nothing contracted.
#pragma once

#include <cstddef>

namespace kestrel {

struct peak_fit_loops {
    // The sum of a[i] * b[i].
    double (*dot)(const double *a, const double *b, std::size_t count);
    // The sum of a[i] * b[i] * weights[i].
    double (*weighted_dot)(const double *a, const double *b, const double *weights, std::size_t count);
    // to[i] -= by * from[i]
    void (*subtract)(double *to, const double *from, double by, std::size_t count);
    // to[i] = (to[i] - from[i]) * by
    void (*difference)(double *to, const double *from, double by, std::size_t count);
    void (*divide)(double *x, double by, std::size_t count);   // good to the last place but one
    void (*exchange)(double *a, double *b, std::size_t count); // which do not overlap
    // at[i] = exp(-(i - centre)^2 * by), good to 1e-13 of it where that is above 1e-18
    void (*gauss)(double *at, double centre, double by, std::size_t first, std::size_t last);
    // at[i] = 1 / ((i - centre)^2 * by + 1)
    void (*lorentz)(double *at, double centre, double by, std::size_t count);
};

extern const peak_fit_loops peak_fit_loops_plain;
#ifdef __x86_64__
extern const peak_fit_loops peak_fit_loops_avx2;
extern const peak_fit_loops peak_fit_loops_avx512;
#endif

// The version for this processor.
const peak_fit_loops &peak_fit_best_loops();

} // namespace kestrel
