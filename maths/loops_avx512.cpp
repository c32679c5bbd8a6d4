// maths: the loops for processors with AVX-512 (F, BW, DQ and VL).
#include "maths/loops_body.h"

namespace kestrel {

constinit const row_loops loops_avx512 = make_row_loops("avx512");

} // namespace kestrel
