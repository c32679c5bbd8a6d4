// support: reversing the bytes of every element of a buffer, in place. Uses nothing.
// The buffers need no alignment.
#pragma once

#include <bit>
#include <cstddef>

namespace kestrel {

inline constexpr bool machine_is_intel = std::endian::native == std::endian::little;

void unif_swab_s(void *buffer, std::size_t elements);  // 16 bits each
void unif_swab_l(void *buffer, std::size_t elements);  // 32 bits each
void unif_swab_i4(void *buffer, std::size_t elements); // 48-bit elements as a 16-bit and a 32-bit part,
                                                       // each part swapped where it stands
void unif_swab_i6(void *buffer, std::size_t elements); // 48 bits each
void unif_swab_d(void *buffer, std::size_t elements);  // 64 bits each

// The one that suits an element type; byte elements stay as they are.
void swap_elements(void *buffer, std::size_t elements, int type);

} // namespace kestrel
