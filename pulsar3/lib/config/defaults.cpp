// What registers and block memories hold after a first configuration: whole spectra of 4096 bins, nothing running,
// every event counted, no correction.
#include "pulsar3/lib/config/config_steps.h"
#include "pulsar3/lib/paths/settings.h"

#include <vector>

namespace kestrel {

namespace {

constexpr int default_energy_bits = 12;
constexpr int sub_frames_offset = 48;
constexpr int timing_a_offset = 2, fixed_time_offset = 3, internal_frames_offset = 8;
constexpr int chan_cont_offset = 2, chan_cont2_offset = 56;

int write_channels(int path, int offset, std::uint32_t word) {
    return plr3_write_reg(path, -1, 0, offset, {&word, 1});
}

int write_cards(int path, int offset, std::uint32_t word) {
    return plr3_write_card_reg(path, -1, offset, {&word, 1});
}

int write_windows(int path) {
    const int highest = plr3_register_field("window0", "high").highest;
    for (const int window : {0, 1})
        if (const int status = plr3_set_window(path, -1, window, 0, highest); status != 0)
            return status;
    return plr3_set_good_thres(path, -1, 0);
}

int write_registers(int path) {
    for (const int offset : {timing_a_offset, fixed_time_offset, internal_frames_offset})
        if (const int status = write_cards(path, offset, 0); status != 0)
            return status;
    for (const int offset : {chan_cont_offset, chan_cont2_offset})
        if (const int status = write_channels(path, offset, 0); status != 0)
            return status;
    return write_windows(path);
}

int clear_memories(int path) {
    for (const block_memory &memory : plr3_block_memories()) {
        const std::vector<std::uint32_t> zeros(static_cast<std::size_t>(memory.words));
        if (const int status = plr3_write_reg(path, -1, memory.region, 0, zeros); status != 0)
            return status;
    }
    return 0;
}

int write_format(int path) {
    const field_value bits[] = {{plr3_register_field("format", "nbits-eng"), default_energy_bits}};
    return plr3_set_register("plr3_config", path, -1, bits);
}

} // namespace

int plr3_write_frames(int path, int num_tf) {
    const register_field &frames = plr3_register_field("num-tf", "frames");
    if (const int status = write_cards(path, frames.offset, static_cast<std::uint32_t>(num_tf)); status != 0)
        return plr3_fail(status, "plr3_config: %s", plr3_get_error_message());
    return 0;
}

int plr3_write_defaults(int path) {
    const int to = plr3_path(path)->message_to;
    plr3_message(to, "Initialising hardware registers\n");
    if (const int status = write_registers(path); status != 0)
        return status;
    plr3_message(to, "Initialising hardware BRAM\n");
    if (const int status = clear_memories(path); status != 0)
        return status;
    plr3_message(to, "Setting default format_run\n");
    if (const int status = write_format(path); status != 0)
        return status;
    plr3_message(to, "Configuring Firmware scalars\n");
    return write_channels(path, sub_frames_offset, 1);
}

} // namespace kestrel
