// maths/peak_fit: the loops for any processor.
#include "maths/peak_fit/loops_body.h"

namespace kestrel {

constinit const peak_fit_loops peak_fit_loops_plain{dot,    weighted_dot, subtract, difference,
                                                    divide, exchange,     gauss,    lorentz};

} // namespace kestrel
