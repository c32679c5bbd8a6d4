// `maths accumulate`: the sum of a region.
#include "maths/commands.h"
#include "maths/kernels.h"
#include "maths/reader.h"
#include "support/element.h"

namespace kestrel {

namespace {

double row_sum(std::span<const float> row) {
    return row_total(row);
}
double row_sum(std::span<const double> row) {
    return row_total(row);
}
// Each row of counts is summed in 32-bit arithmetic: a row beyond 2^31 - 1 wraps, as it always has.
double row_sum(std::span<const std::uint32_t> row) {
    return row_total_wrapped(row);
}

template <class T> bool sum_rows(int cn, UMaths &reader, double &sum) {
    for (int plane = 0; plane < reader.dt; ++plane)
        for (int row = 0; row < reader.dy; ++row) {
            const std::span<const T> line = umaths_row<T>(cn, row, plane, reader);
            if (line.empty())
                return false;
            sum += row_sum(line);
        }
    return true;
}

} // namespace

double umaths_accumulate(int, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2) {
    UMaths reader;
    if (umaths_start(cn, umaths_make_region(x1, y1, t1, x2, y2, t2), handle, reader, 0) != 0)
        return -1.0;
    double sum = 0.0;
    const bool read = reader.utype == el_long    ? sum_rows<std::uint32_t>(cn, reader, sum)
                      : reader.utype == el_float ? sum_rows<float>(cn, reader, sum)
                                                 : sum_rows<double>(cn, reader, sum);
    return read ? sum : umaths_read_error(cn);
}

} // namespace kestrel
