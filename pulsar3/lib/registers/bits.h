// pulsar3/lib/registers: fields of 32-bit register words, named by their first and last bit.
#pragma once

#include <cstdint>

namespace kestrel {

constexpr std::uint32_t plr3_mask(int first, int last) {
    return (last - first >= 31 ? ~0U : (1U << (last - first + 1)) - 1) << first;
}
constexpr std::uint32_t plr3_bits(std::uint32_t word, int first, int last) {
    return (word & plr3_mask(first, last)) >> first;
}

} // namespace kestrel
