// maths: the `maths` commands. One family a file, all listed in table.cpp.
#pragma once

#include "parser/handler.h"
#include "parser/tree.h"

#include <span>

namespace kestrel {

extern const PARSE_TREE row_maths;
extern const PARSE_TREE row_peak_fit;

double umaths_accumulate(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2);
double umaths_measure_peak(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2,
                           const char *variable);
double umaths_measure_flood(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2,
                            const char *variable);
int umaths_search_outliers(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2,
                           const char *file);
int umaths_integrate(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2);
int umaths_weighted_sum(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2);
int umaths_centroid_old(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2);
int umaths_centroid(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2);
int umaths_rebin(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2);
int umaths_bin_op(int quals, int cn, int handle_a, int handle_b, std::span<const pt_value> volumes);
int leastsqr_fit_command(int quals, int cn, const char *module, int first, int last, int row,
                         const char *variable);
int umaths_stability(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2);
int umaths_measure_mask(int quals, int cn, int handle);
// Points first to last of a row, averaged over `width` points, into another row.
int umaths_smooth(int wrapped, int cn, const char *module, int first, int last, int row, int to_row,
                  int width);
int umaths_smooth2d(int quals, int cn, const char *from, const char *to, int width);
int umaths_mark_contour(int quals, int cn, const char *from, const char *to, int level, int value);
int umaths_histogram(int quals, int cn, const char *from, const char *to);

int peak_fit_module(int quals, int cn, const char *source, const char *result, int first, int last);
int peak_fit_unified(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2,
                     const char *result);
int peak_fit_set_debug(int quals, int cn, int level);
int peak_fit_set_max_threads(int quals, int cn, int threads);

} // namespace kestrel
