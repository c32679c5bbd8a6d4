// sim/card: frames cut into packets and sent over the data link as the card's registers say. Under the system's lock.
#pragma once

#include <cstdint>

namespace kestrel {

struct card;

// Has the timing thread send so many bytes of the card's memory as one frame of scope data.
void packets_queue_scope(card &c, std::uint32_t address, std::uint32_t bytes, std::uint32_t frame);

} // namespace kestrel
