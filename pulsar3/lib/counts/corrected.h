// pulsar3/lib/counts: counts as they would be without dead time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrel {

// Factors and corrected scalers of frames of all channels of the path, from their scalers; `corrected` is as large as
// `readings`, `factors` has one each.
int plr3_dtc_correct(int path, std::span<const std::uint32_t> readings, std::span<double> factors,
                     std::span<double> corrected, int num_tf);

// corrected = counts x factor. The counts may be the last half of `corrected`, where a row was read to: each is used
// before it is written over.
void plr3_dtc_multiply(const std::uint32_t *counts, double *corrected, std::size_t count, double factor);

} // namespace kestrel
