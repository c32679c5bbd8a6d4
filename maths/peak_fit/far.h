// maths/peak_fit: the hook for fits on other machines. This room knows no network: whoever has one fills it in.
#pragma once

#include "maths/peak_fit/job.h"

#include <string>

namespace kestrel {

struct peak_fit_far_hooks {
    // Whether `site` can be reached now; false after a line.
    bool (*reach)(int cn, const std::string &site) = nullptr;
    // What peak_fit_fit_part does, by the workers of request.site, with the same numbers in `output`.
    peak_fit_counts (*fit_part)(const peak_fit_request &request, const peak_fit_part &part,
                                const result_module &output, int done, int total) = nullptr;
};
extern peak_fit_far_hooks peak_fit_far;

} // namespace kestrel
