#include "sim/card/kinds.h"

namespace kestrel {

namespace {

constexpr std::uint32_t at(std::uint32_t value, int bit) {
    return value << bit;
}

constexpr std::uint32_t processing(std::uint32_t trigger_b, std::uint32_t trigger_c) {
    return at(2, 0) | at(3, 4) | at(1, 8) | at(1, 12) | at(1, 14) | at(1, 16) | at(1, 18) | at(1, 20) |
           at(trigger_b, 22) | at(trigger_c, 25) | at(1, 28); // data sources, corrections, triggers
}

constexpr std::uint32_t output(std::uint32_t format) {
    return at(1, 0) | at(1, 4) | at(1, 7) | at(1, 10) | at(1, 12) | at(format, 16); // servo to output format
}

constexpr std::uint32_t streams(bool farm, std::uint32_t scope_dma, std::uint32_t playback) {
    return at(1, 0) | at(1, 4) | at(1, 8) | (farm ? card_farm_mode : 0) | at(scope_dma, 16) |
           at(playback, 20) | at(7, 24) | at(8, 28); // timing, scope, dma streams; 8 bits of energy or more
}

constexpr std::uint32_t fraction(std::uint32_t send_mode) {
    return at(4, 0) | at(send_mode, 8);
}

constexpr card_kind kinds[] = {
    {"3", 0, 1, true, 9, {processing(1, 1), output(0), streams(false, 2, 2), fraction(0)}, false, false},
    {"3v7", 1, 1, true, 10, {processing(2, 2), output(4), streams(true, 4, 2), fraction(0)}, false, false},
    {"3mini", 2, 2, false, 2, {processing(2, 2), output(1), streams(false, 2, 1), fraction(7)}, false, true},
    {"4", 3, 2, false, 16, {processing(3, 3), output(4), streams(true, 8, 4), fraction(0)}, true, false},
};

} // namespace

const card_kind *card_find_kind(std::string_view name) {
    for (const card_kind &kind : kinds) {
        if (kind.name == name)
            return &kind;
    }
    return nullptr;
}

} // namespace kestrel
