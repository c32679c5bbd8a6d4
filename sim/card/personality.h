// sim/card: the messages to a card's DMA engine. Both protocols bring them here, under the system's lock.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace kestrel {

struct card;

// Codes 10, 13 and 16 are questions, the others orders.
bool personality_is_question(std::uint32_t code);

// An order; false when the card refuses it (no such code, too few arguments, descriptors that are not there).
bool personality_order(card &c, std::uint32_t code, std::uint32_t mask,
                       std::span<const std::uint32_t> arguments);

// A question; nothing when the card refuses it.
std::vector<std::uint32_t> personality_question(card &c, std::uint32_t code, std::uint32_t mask,
                                                std::span<const std::uint32_t> arguments);

} // namespace kestrel
