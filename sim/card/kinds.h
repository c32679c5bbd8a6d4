// sim/card: the kinds of card that can be played, and what each says of itself.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace kestrel {

struct card_kind {
    std::string_view name;
    std::uint32_t generation; // bits 4..7 of the revision word
    int protocol;             // 1 or 2, unless an option says otherwise
    bool both_protocols;      // it can be told which of the two it speaks
    int channels;
    std::array<std::uint32_t, 4> features; // channel 0, region 0, words 60 to 63
    bool local_globals;                    // globals lie on the local bus
    bool mini;
};

// Null when no kind has this name.
const card_kind *card_find_kind(std::string_view name);

inline constexpr int card_max_channels = 16;
inline constexpr std::uint32_t card_first_feature = 60;
inline constexpr std::uint32_t card_farm_mode = 1u << 12; // of feature word 62

} // namespace kestrel
