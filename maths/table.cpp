// The `maths` commands, in the order of their list. Each row stands below its handler: a new command is a
// file with both, and its name twice in here.
#include "maths/commands.h"

namespace kestrel {

extern const PARSE_TREE row_maths_accumulate, row_maths_measure_peak, row_maths_measure_flood,
    row_maths_search_outliers, row_maths_integrate, row_maths_weighted_sum, row_maths_binary_op,
    row_maths_centroid_old, row_maths_centroid, row_maths_rebin, row_maths_leastsqr_fit, row_maths_stability,
    row_maths_measure_mask, row_maths_smooth, row_maths_smooth2d, row_maths_mark_contour, row_maths_histogram,
    row_maths_pulsar_dtc;

namespace {

constinit const PARSE_TREE maths_table[] = {
    pt_row(row_maths_accumulate),
    pt_row(row_maths_measure_peak),
    pt_row(row_maths_measure_flood),
    pt_row(row_maths_search_outliers),
    pt_row(row_maths_integrate),
    pt_row(row_maths_weighted_sum),
    pt_row(row_maths_binary_op),
    pt_row(row_maths_centroid_old),
    pt_row(row_maths_centroid),
    pt_row(row_maths_rebin),
    pt_row(row_maths_leastsqr_fit),
    pt_row(row_maths_stability),
    pt_row(row_maths_measure_mask),
    pt_row(row_maths_smooth),
    pt_row(row_maths_smooth2d),
    pt_row(row_maths_mark_contour),
    pt_row(row_maths_histogram),
    pt_row(row_maths_pulsar_dtc),
    pt_end(),
};

} // namespace

constinit const PARSE_TREE row_maths =
    pt_subtree("maths", maths_table, "Functions to perform maths on unified data objects");

} // namespace kestrel
