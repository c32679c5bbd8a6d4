// maths/peak_fit: the loops for processors with AVX2.
#include "maths/peak_fit/loops_body.h"

namespace kestrel {

constinit const peak_fit_loops peak_fit_loops_avx2{dot,    weighted_dot, subtract, difference,
                                                   divide, exchange,     gauss,    lorentz};

} // namespace kestrel
