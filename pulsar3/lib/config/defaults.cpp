// What registers and block memories hold after a first configuration: whole spectra of 4096 bins, nothing running,
// every event counted, no correction.
#include "pulsar3/lib/config/config_steps.h"
#include "pulsar3/lib/paths/memories.h"
#include "pulsar3/lib/paths/settings.h"

namespace kestrel {

namespace {

constexpr int default_energy_bits = 12;
constexpr int sub_frames_offset = 48;
constexpr int timing_a_offset = 2, fixed_time_offset = 3, internal_frames_offset = 8;
constexpr int chan_cont_offset = 2, chan_cont2_offset = 56;

// Every step takes the path of one card.

// step(channel) for every channel in use, up to the first that is refused.
template <class F> int each_channel(int path, F step) {
    for (int chan = 0; chan < plr3_path(path)->num_chan; ++chan)
        if (const int status = step(chan); status != 0)
            return status;
    return 0;
}

int write_channels(int path, int offset, std::uint32_t word) {
    return each_channel(path, [&](int chan) { return plr3_write_reg(path, chan, 0, offset, {&word, 1}); });
}

int write_card(int path, int offset, std::uint32_t word) {
    return plr3_write_card_reg(path, 0, offset, {&word, 1});
}

int write_windows(int path) {
    const int highest = plr3_register_field("window0", "high").highest;
    return each_channel(path, [&](int chan) {
        for (const int window : {0, 1})
            if (const int status = plr3_set_window(path, chan, window, 0, highest); status != 0)
                return status;
        return plr3_set_good_thres(path, chan, 0);
    });
}

int write_registers(int path) {
    for (const int offset : {timing_a_offset, fixed_time_offset, internal_frames_offset})
        if (const int status = write_card(path, offset, 0); status != 0)
            return status;
    for (const int offset : {chan_cont_offset, chan_cont2_offset})
        if (const int status = write_channels(path, offset, 0); status != 0)
            return status;
    return write_windows(path);
}

int clear_memories(int path) {
    return plr3_init_brams(path, -1);
}

int write_format(int path) {
    const field_value bits[] = {{plr3_register_field("format", "nbits-eng"), default_energy_bits}};
    return each_channel(path, [&](int chan) { return plr3_set_register("plr3_config", path, chan, bits); });
}

int write_sub_frames(int path) {
    return write_channels(path, sub_frames_offset, 1);
}

// step(path of a card) for each card, up to the first that fails; ^C ends it between two.
template <class F> int each_card(int path, F step) {
    const PLR3Path &top = *plr3_path(path);
    for (int card = 0; card < top.num_cards; ++card) {
        if (plr3_interrupted())
            return plr3_fail(plr3_failed, "interrupted");
        if (const int status = step(plr3_leaf(top, path, card)); status != 0)
            return status;
    }
    return 0;
}

} // namespace

int plr3_write_frames(int path, int num_tf) {
    const register_field &frames = plr3_register_field("num-tf", "frames");
    const int status = each_card(
        path, [&](int card) { return write_card(card, frames.offset, static_cast<std::uint32_t>(num_tf)); });
    return status == 0 ? 0 : plr3_fail(status, "plr3_config: %s", plr3_get_error_message());
}

int plr3_write_defaults(int path) {
    static constexpr struct {
        const char *told;
        int (*step)(int path);
    } steps[] = {
        {"Initialising hardware registers\n", write_registers},
        {"Initialising hardware BRAM\n", clear_memories},
        {"Setting default format_run\n", write_format},
        {"Configuring Firmware scalars\n", write_sub_frames},
    };
    for (const auto &[told, step] : steps) {
        plr3_message(plr3_path(path)->message_to, "%s", told);
        if (const int status = each_card(path, step); status != 0)
            return status;
    }
    return 0;
}

} // namespace kestrel
