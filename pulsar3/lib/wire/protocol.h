// pulsar3/lib/wire: the two control protocols of a card, as they lie on the wire. Generation 1 is big-endian,
// generation 2 little-endian.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrel {

enum ProtocolGeneration : int { ProtocolFEM1 = 0, ProtocolFEM2 = 1 };

inline constexpr std::uint32_t protocol_magic = 0xDEADBEEF;

} // namespace kestrel
