#include "pulsar3/lib/registers/register_table.h"

#include "pulsar3/lib/registers/bits.h"
#include "pulsar3/lib/wire/error.h"

#include <cstdio>
#include <cstdlib>

namespace kestrel {

namespace {

constexpr auto chan = register_scope::channel;
constexpr auto card = register_scope::card;

constexpr register_field fields[] = {
    {chan, "window0", 24, "low", 0, 15, 0, 65535, "energy bins of 16 bits", "set-window", on_every},
    {chan, "window0", 24, "high", 16, 31, 0, 65535, "energy bins of 16 bits", "set-window", on_every},
    {chan, "window1", 25, "low", 0, 15, 0, 65535, "energy bins of 16 bits", "set-window", on_every},
    {chan, "window1", 25, "high", 16, 31, 0, 65535, "energy bins of 16 bits", "set-window", on_every},
    {chan, "good-thres", 26, "threshold", 0, 15, 0, 65535, "energy bins of 16 bits", "set-good-thres",
     on_every},
    {chan, "format", 28, "nbits-eng", 0, 4, 1, 16, "bits", "format-run", on_every},
    {chan, "format", 28, "nbits-aux1", 8, 11, 0, 15, "bits", "format-run", on_every},
    {chan, "format", 28, "nbits-aux2", 12, 15, 0, 15, "bits", "format-run", on_every},
    {chan, "format", 28, "aux1-mode", 16, 19, 0, 15, "", "format-run", on_every},
    {chan, "format", 28, "aux2-mode", 20, 23, 0, 15, "", "format-run", on_every},
    {card, "timing-a", 2, "source", 0, 2, 0, 3, "", "set-timing", on_every},
    {card, "timing-a", 2, "hist-run", 28, 28, 0, 1, "", "start", on_every},
    {card, "timing-a", 2, "count-enable", 29, 29, 0, 1, "", "start", on_every},
    {card, "timing-a", 2, "scaler-run", 31, 31, 0, 1, "", "start", on_every},
    {card, "num-tf", 9, "frames", 0, 31, 1, 2147483647, "time frames", "config", on_every},
};

constexpr block_memory memories[] = {
    {1, "event-lead", 1024, "correction of events by what leads them"},
    {2, "event-tail", 1024, "correction of events by what they follow"},
    {3, "xtk-shape", 512, "shape of cross-talk between channels"},
    {4, "xtk-map", 256, "channels that talk into this one"},
    {5, "width-time", 256, "pile-up: width against time"},
    {6, "servo-tail", 1024, "servo: tail of an event"},
    {7, "roi", 4096, "region-of-interest table"},
};

} // namespace

std::span<const register_field> plr3_register_fields() {
    return fields;
}
std::span<const block_memory> plr3_block_memories() {
    return memories;
}

const register_field &plr3_register_field(std::string_view reg, std::string_view field) {
    for (const register_field &row : fields)
        if (row.reg == reg && row.field == field)
            return row;
    std::fprintf(stderr, "pulsar3: no register field %.*s of %.*s\n", static_cast<int>(field.size()),
                 field.data(), static_cast<int>(reg.size()), reg.data());
    std::abort();
}

int plr3_pack_fields(const char *function, std::span<const field_value> values, std::uint32_t &word) {
    word = 0;
    for (const auto &[field, value] : values) {
        if (value < field.lowest || value > field.highest)
            return plr3_fail(plr3_out_of_range, "%s: %s %s=%d is out of range %d..%d", function, field.reg,
                             field.field, value, field.lowest, field.highest);
        word |=
            static_cast<std::uint32_t>(value) << field.first_bit & plr3_mask(field.first_bit, field.last_bit);
    }
    return 0;
}

} // namespace kestrel
