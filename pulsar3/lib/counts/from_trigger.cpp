#include "pulsar3/lib/counts/from_trigger.h"

#include "pulsar3/lib/paths/access.h"
#include "pulsar3/lib/registers/register_table.h"

#include <algorithm>
#include <array>

namespace kestrel {

namespace {

// The first registers of a channel, up to the last of trigger B.
using register_words = std::array<std::uint32_t, 23>;

int value(const register_words &words, const char *reg, const char *field) {
    const register_field &f = plr3_register_field(reg, field);
    return static_cast<int>(plr3_field_value(f, words[static_cast<std::size_t>(f.offset)]));
}

// Ticks in which a second pulse is not told from the first.
int trigger_ticks(const register_words &words) {
    const bool only_c =
        value(words, "chan-cont", "trigger-c") != 0 && value(words, "chan-cont", "trigger-b") == 0;
    const char *reg = only_c ? "trigger-c-a" : "trigger-b-a";
    const int rise = (1 << value(words, reg, "average")) + value(words, reg, "separation");
    return only_c ? std::max(rise, value(words, "trigger-c-b", "hold"))
                  : std::max(rise + value(words, "trigger-b-b", "over"), value(words, "trigger-b-b", "hold"));
}

} // namespace

int plr3_dead_times_from_trigger(int path, int chan, double plus, trigger_dead_times &times) {
    register_words words{};
    if (const int status = plr3_read_reg(path, chan, 0, 0, words); status != 0)
        return status;
    int card_path = 0, chan_of_card = 0;
    if (const int status = plr3_resolve_path(path, chan, card_path, chan_of_card); status != 0)
        return status;
    const double tick = plr3_path(card_path)->clock_period;
    const int energy = value(words, "trigger-b-e", "eng-min") + value(words, "trigger-b-d", "eng-gap");
    const int trigger = trigger_ticks(words);
    times.all_event = (trigger + plus) * tick;
    times.in_window = (std::max(energy, trigger) + plus) * tick;
    return 0;
}

} // namespace kestrel
