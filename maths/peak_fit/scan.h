// maths/peak_fit: fits the spectra of one request and keeps the results, from the result module's making to
// the closing line.
#pragma once

#include "maths/peak_fit/job.h"

namespace kestrel {

// Links or makes the result module for nq x ns points, none of them fitted yet: 0, or -1 after a line.
int peak_fit_open_results(const peak_fit_request &request, const char *result, int nq, int ns,
                          result_module &out);

// Points q1..q2 of spectra in memory, which lie in the mapping that starts at `owner`. The command's result:
// -1 after a line, else the number of warnings.
int peak_fit_fit_rows(const peak_fit_request &request, const peak_spectra &spectra, int q1, int q2,
                      const void *owner, const char *result);

} // namespace kestrel
