// maths: the loops for any processor.
#include "maths/loops_body.h"

namespace kestrel {

constinit const row_loops loops_plain = make_row_loops("plain");

} // namespace kestrel
