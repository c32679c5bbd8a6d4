#include "pulsar3/lib/paths/settings.h"

namespace kestrel {

int plr3_set_register(const char *function, int path, int chan_or_card, std::span<const field_value> values) {
    std::uint32_t word = 0;
    if (const int status = plr3_pack_fields(function, values, word); status != 0)
        return status;
    const register_field &first = values.front().field;
    return first.scope == register_scope::card
               ? plr3_write_card_reg(path, chan_or_card, first.offset, {&word, 1})
               : plr3_write_reg(path, chan_or_card, 0, first.offset, {&word, 1});
}

int plr3_set_window(int path, int chan, int window, int low, int high) {
    if (!plr3_path(path))
        return plr3_fail(plr3_invalid_path, "plr3_set_window: invalid path %d", path);
    if (window != 0 && window != 1)
        return plr3_fail(plr3_out_of_range, "plr3_set_window: window %d is out of range 0..1", window);
    if (low > high)
        return plr3_fail(plr3_out_of_range, "plr3_set_window: low %d is above high %d", low, high);
    const char *reg = window == 0 ? "window0" : "window1";
    const field_value values[] = {{plr3_register_field(reg, "low"), low},
                                  {plr3_register_field(reg, "high"), high}};
    return plr3_set_register("plr3_set_window", path, chan, values);
}

int plr3_set_good_thres(int path, int chan, int threshold) {
    const field_value values[] = {{plr3_register_field("good-thres", "threshold"), threshold}};
    return plr3_set_register("plr3_set_good_thres", path, chan, values);
}

} // namespace kestrel
