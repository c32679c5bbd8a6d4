#include "maths/peak_fit/scan.h"

#include "server/output.h"

namespace kestrel {

namespace {

bool same_module(int cn, const char *result, const void *owner) {
    const module_link link(result);
    if (!link || link.head() != owner)
        return false;
    sv_printf(cn, "! The result module must not be the source\n");
    return true;
}

} // namespace

int peak_fit_open_results(const peak_fit_request &request, const char *result, int nq, int ns,
                          result_module &out) {
    if (peak_fit_start_output(request.cn, result, nq, ns, request.lines.num_peaks, out) != 0)
        return -1;
    peak_fit_clear(out, nq, ns, request.lines.num_peaks);
    return 0;
}

int peak_fit_fit_rows(const peak_fit_request &request, const peak_spectra &spectra, int q1, int q2,
                      const void *owner, const char *result) {
    const int nq = q2 - q1 + 1, total = nq * spectra.ns;
    result_module output;
    if (same_module(request.cn, result, owner) ||
        peak_fit_open_results(request, result, nq, spectra.ns, output) != 0)
        return -1;
    const peak_fit_part part{&spectra, q1, q2, 0, 0, nq, q1};
    return peak_fit_close(request.cn, peak_fit_fit_part(request, part, output, 0, total), total);
}

} // namespace kestrel
