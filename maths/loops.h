// maths: the loops over whole rows that large regions spend their time in, in versions for what processors
// can do. Plain pointers, no session. Each version gives the same bits: a sum adds the same numbers in the same
// order (sixteen partial sums, then those in order, then the tail), and nothing is contracted.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrel {

// Elements with a coordinate: the sum of them, and of each times its coordinate.
struct moment {
    double f = 0.0;
    double fc = 0.0;
};

// Rows come by fours where reading in several places at once gets more out of the memory; `rows` are addresses of
// four rows of `count` elements of type T, whose sums have type S.
template <class T, class S> struct loops_of {
    // totals[r] = the total of rows[r]
    void (*totals)(const T *const *rows, std::size_t count, S *totals);
    // sums[i] += rows[0][i], then rows[1][i], ...
    void (*add)(const T *const *rows, std::size_t count, S *sums);
    // of[r]: of rows[r], whose first element has the coordinate `first`
    void (*moments)(const T *const *rows, std::size_t count, double first, moment *of);
    // f[i] += rows[0][i], ..., fc[i] += rows[0][i] * c, rows[1][i] * (c + 1), ...
    void (*add_moments)(const T *const *rows, std::size_t count, double c, double *f, double *fc);
    // out[j] = the sum of elements j * factor ... j * factor + factor - 1 of all rows, of which there are
    // `number`; stored past the cache on request.
    void (*bin)(const T *const *rows, std::size_t number, std::size_t factor, std::size_t bins, T *out,
                bool past_cache);
};

enum binary_operator : int { bin_add, bin_sub, bin_mult, bin_div };

struct binary_operation {
    binary_operator code = bin_add;
    float threshold = 1.0F; // a divisor up to this gives 0; at most 0: no test
    float scale = 0.0F;     // 0: no scaling
};

// out[i] = a[i] and b[i] combined, in float; stored past the cache on request.
using combine_loop = void (*)(const void *a, const void *b, float *out, std::size_t count,
                              const binary_operation &o, bool past_cache);

struct row_loops {
    const char *name;
    loops_of<float, double> of_float;
    loops_of<std::uint32_t, std::uint64_t> of_long;
    void (*totals_of_double)(const double *const *rows, std::size_t count, double *totals);
    combine_loop combine[9]; // by type of A + 3 x type of B, with 0 long, 1 float, 2 double
};

extern const row_loops loops_plain;
#ifdef __x86_64__
extern const row_loops loops_avx2;
extern const row_loops loops_avx512;
#endif

// The version for this processor.
const row_loops &umaths_loops();

template <class T> const auto &umaths_loops_of(const row_loops &loops);
template <> inline const auto &umaths_loops_of<float>(const row_loops &loops) {
    return loops.of_float;
}
template <> inline const auto &umaths_loops_of<std::uint32_t>(const row_loops &loops) {
    return loops.of_long;
}

// What was stored past the cache is to be seen by other threads from here on.
void umaths_stores_done();

} // namespace kestrel
