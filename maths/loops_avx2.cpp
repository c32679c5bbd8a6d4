// maths: the loops for processors with AVX2.
#include "maths/loops_body.h"

namespace kestrel {

constinit const row_loops loops_avx2 = make_row_loops("avx2");

} // namespace kestrel
