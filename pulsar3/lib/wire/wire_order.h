// pulsar3/lib/wire: items between memory and generation 1's wire, which is big-endian; the same either way.
#pragma once

#include "pulsar3/lib/wire/protocol.h"

#include <cstddef>
#include <span>

namespace kestrel {

// `to` is as long as the items, or the items' own place.
void to_wire_order(std::span<const std::byte> items, std::byte *to, protocol_data_width width);

} // namespace kestrel
