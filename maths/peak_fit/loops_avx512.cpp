// maths/peak_fit: the loops for processors with AVX-512 (F, BW, DQ and VL).
#include "maths/peak_fit/loops_body.h"

namespace kestrel {

constinit const peak_fit_loops peak_fit_loops_avx512{dot,    weighted_dot, subtract, difference,
                                                     divide, exchange,     gauss,    lorentz};

} // namespace kestrel
