// pulsar3/lib/counts: multiplying histograms by correction factors.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrel {

// corrected = counts x factor. The counts may be the last half of `corrected`, where a row was read to: each is used
// before it is written over.
void plr3_dtc_multiply(const std::uint32_t *counts, double *corrected, std::size_t count, double factor);

} // namespace kestrel
