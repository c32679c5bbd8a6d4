#include "maths/peak_fit/loops.h"

#include "support/processor.h"

namespace kestrel {

const peak_fit_loops &peak_fit_best_loops() {
#ifdef __x86_64__
    static const peak_fit_loops &best = processor_has_avx512() ? peak_fit_loops_avx512
                                        : processor_has_avx2() ? peak_fit_loops_avx2
                                                               : peak_fit_loops_plain;
    return best;
#else
    return peak_fit_loops_plain;
#endif
}

} // namespace kestrel
