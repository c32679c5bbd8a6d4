#include "maths/loops.h"

#include "support/processor.h"

#ifdef __SSE2__
#include <xmmintrin.h>
#endif

namespace kestrel {

namespace {

const row_loops &best_loops() {
#ifdef __x86_64__
    if (processor_has_avx512())
        return loops_avx512;
    if (processor_has_avx2())
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
