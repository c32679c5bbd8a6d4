// `maths accumulate`: the sum of a region.
#include "maths/row_groups.h"
#include "parser/tree.h"
#include "support/element.h"

namespace kestrel {

namespace {

double as_summand(double total) {
    return total;
}
// Each row of counts counts as the signed 32-bit number that its sum leaves: a row beyond 2^31 - 1 wraps, as
// it always has.
double as_summand(std::uint64_t total) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(total));
}

template <class T> bool sum_rows(int cn, UMaths &reader, double &sum) {
    return umaths_row_totals<T>(cn, reader, [&sum](sum_of<T> total, int, int) { sum += as_summand(total); });
}

double umaths_accumulate(int, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2) {
    UMaths reader;
    if (umaths_start(cn, umaths_make_region(x1, y1, t1, x2, y2, t2), handle, reader, 0) != 0)
        return -1.0;
    double sum = 0.0;
    const bool read = reader.utype == el_long    ? sum_rows<std::uint32_t>(cn, reader, sum)
                      : reader.utype == el_float ? sum_rows<float>(cn, reader, sum)
                                                 : sum_rows<double>(cn, reader, sum);
    return read ? sum : umaths_read_error(cn, reader);
}

} // namespace

extern constinit const PARSE_TREE row_maths_accumulate =
    pt_command<umaths_accumulate>("accumulate", "%d %d %d %d %d %d %d = %g",
                                  "integrate all (counts) in volume", "Unified handle/x1/y1/t1/x2/y2/t2");

} // namespace kestrel
