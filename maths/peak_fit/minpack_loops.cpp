// maths/peak_fit: three of MINPACK's inner routines, in vector form. MINPACK's own callers find these before the
// library's, because a program's symbols come first. The algorithms are the library's (J. J. More, B. S. Garbow & K. E.
// Hillstrom, User Guide for MINPACK-1, ANL-80-74): only the order in which sums are added differs, and that
// derivatives and columns are multiplied by an inverse.
#include "maths/peak_fit/loops.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <minpack.h>

namespace {

using kestrel::peak_fit_best_loops;

// The norm of numbers whose squares overflow or vanish.
double scaled_norm(const double *x, std::size_t count) {
    double largest = 0.0, sum = 0.0;
    for (std::size_t i = 0; i < count; ++i)
        largest = std::max(largest, std::fabs(x[i]));
    if (!(largest > 0.0 && std::isfinite(largest)))
        return largest;
    for (std::size_t i = 0; i < count; ++i)
        sum += (x[i] / largest) * (x[i] / largest);
    return largest * std::sqrt(sum);
}

double norm(const double *x, std::size_t count) {
    constexpr double least = 1e-280, most = 1e280;
    const double square = peak_fit_best_loops().dot(x, x, count);
    return square > least && square < most ? std::sqrt(square) : scaled_norm(x, count);
}

// A matrix by columns, and what the factorisation keeps of them.
struct columns {
    double *a;
    std::size_t rows, apart;
    double *norms, *first_norms; // of what is left of each, and of that when it was last summed
    double *at(std::size_t column) const { return a + column * apart; }
};

void exchange(const columns &c, std::size_t j, std::size_t k, int *pivots) {
    peak_fit_best_loops().exchange(c.at(j), c.at(k), c.rows);
    c.norms[k] = c.norms[j];
    c.first_norms[k] = c.first_norms[j];
    std::swap(pivots[j], pivots[k]);
}

// Applies column j's transformation to column k, and takes what it took away from k's norm.
void reflect(const columns &c, std::size_t j, std::size_t k, bool pivot) {
    constexpr double recompute = 0.05;
    const std::size_t left = c.rows - j;
    const double *from = c.at(j) + j;
    double *to = c.at(k) + j;
    peak_fit_best_loops().subtract(to, from, peak_fit_best_loops().dot(from, to, left) / from[0], left);
    if (!pivot || c.norms[k] == 0.0)
        return;
    const double part = to[0] / c.norms[k];
    c.norms[k] *= std::sqrt(std::max(0.0, 1.0 - part * part));
    const double rest = c.norms[k] / c.first_norms[k];
    if (recompute * rest * rest > std::numeric_limits<double>::epsilon())
        return;
    c.norms[k] = c.first_norms[k] = norm(to + 1, left - 1);
}

} // namespace

extern "C" {

[[gnu::visibility("default")]] double enorm_(int *n, double *x) {
    return norm(x, static_cast<std::size_t>(*n));
}

// The Jacobian by forward differences: x is stepped by the root of what the function is good to.
[[gnu::visibility("default")]] void fdjac2_(void (*function)(int *, int *, double *, double *, int *), int *m,
                                            int *n, double *x, double *fvec, double *fjac, int *ldfjac,
                                            int *iflag, double *epsfcn, double *) {
    const double part = std::sqrt(std::max(*epsfcn, std::numeric_limits<double>::epsilon()));
    for (int j = 0; j < *n; ++j) {
        double *const column = fjac + static_cast<std::ptrdiff_t>(j) * *ldfjac;
        const double old = x[j], step = old == 0.0 ? part : part * std::fabs(old);
        x[j] = old + step;
        function(m, n, x, column, iflag);
        x[j] = old;
        if (*iflag < 0)
            return;
        peak_fit_best_loops().difference(column, fvec, 1.0 / step, static_cast<std::size_t>(*m));
    }
}

[[gnu::visibility("default")]] void qrfac_(int *m, int *n, double *a, int *lda, int *pivot, int *ipvt, int *,
                                           double *rdiag, double *acnorm, double *wa) {
    const std::size_t rows = static_cast<std::size_t>(*m), count = static_cast<std::size_t>(*n);
    const columns c{a, rows, static_cast<std::size_t>(*lda), rdiag, wa};
    for (std::size_t j = 0; j < count; ++j) {
        rdiag[j] = wa[j] = acnorm[j] = norm(c.at(j), rows);
        if (*pivot)
            ipvt[j] = static_cast<int>(j) + 1;
    }
    for (std::size_t j = 0; j < std::min(rows, count); ++j) {
        const auto largest = static_cast<std::size_t>(std::max_element(rdiag + j, rdiag + count) - rdiag);
        if (*pivot && largest != j)
            exchange(c, j, largest, ipvt);
        double *const column = c.at(j) + j;
        double length = norm(column, rows - j);
        if (length != 0.0) {
            length = column[0] < 0.0 ? -length : length;
            peak_fit_best_loops().divide(column, length, rows - j);
            column[0] += 1.0;
            for (std::size_t k = j + 1; k < count; ++k)
                reflect(c, j, k, *pivot != 0);
        }
        rdiag[j] = -length;
    }
}
}
