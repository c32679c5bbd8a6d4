#include "sim/card/packets.h"
namespace kestrel {
void packets_queue_scope(card &, std::uint32_t, std::uint32_t, std::uint32_t) {}
} // namespace kestrel
