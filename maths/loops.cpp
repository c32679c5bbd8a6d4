#include "maths/loops.h"

#ifdef __SSE2__
#include <xmmintrin.h>
#endif

namespace kestrel {

namespace {

const row_loops &best_loops() {
#ifdef __x86_64__
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl"))
        return loops_avx512;
    if (__builtin_cpu_supports("avx2"))
        return loops_avx2;
#endif
    return loops_plain;
}

} // namespace

const row_loops &umaths_loops() {
    static const row_loops &best = best_loops();
    return best;
}

void umaths_stores_done() {
#ifdef __SSE2__
    _mm_sfence();
#endif
}

} // namespace kestrel
