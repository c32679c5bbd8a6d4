// The `pulsar3` commands that set registers of channels and cards. All of one kind are made from the table of fields
// (register_fields.h); the few that do more stand here by themselves.
#include "parser/qualifiers.h"
#include "pulsar3/lib/paths/settings.h"
#include "pulsar3/server/commands.h"
#include "pulsar3/server/register_rows.h"
#include "pulsar3/server/told_here.h"
#include "server/output.h"

#include <vector>

namespace kestrel {

namespace {

// The numbers in their places, and the switches as 1 or 0, in the order of the table: keywords come in that order.
std::vector<int> values_of(const register_command &command, int quals, std::span<const pt_value> numbers) {
    std::vector<int> values;
    std::size_t next = 0;
    for (const register_field *field : plr3_fields_of(command.name)) {
        if (field->form == field_form::number) {
            values.push_back(numbers[next++].i);
            continue;
        }
        values.push_back(quals & 1);
        quals >>= 1;
    }
    return values;
}

template <std::size_t Index>
int set_registers(int quals, int cn, int path, int chan_or_card, std::span<const pt_value> numbers) {
    static constexpr const register_command &command = register_rows::commands[Index];
    const told_here here(path, cn);
    return pulsar3_status(cn,
                          plr3_set_fields(command, path, chan_or_card, values_of(command, quals, numbers)));
}

template <std::size_t Index> struct row_texts {
    static constexpr auto format = register_rows::format_of(register_rows::commands[Index].name);
    static constexpr auto arguments = register_rows::arguments_of(register_rows::commands[Index].name);
    static_assert(!format_reader({format.chars.data(), format.length}).read().faulty);
};

template <std::size_t Index> constexpr PARSE_TREE register_row() {
    return pt_command<set_registers<Index>>(
        register_rows::commands[Index].name, row_texts<Index>::format.chars.data(),
        register_rows::commands[Index].help, row_texts<Index>::arguments.chars.data());
}

constexpr pt_format set_window_format("%d %d %d %d %d = %d");

int pulsar3_set_window(int, int cn, int path, int chan, int win, int low, int high) {
    const told_here here(path, cn);
    const int status = plr3_set_window(path, chan, win, low, high);
    if (status == 0 && low > high)
        sv_printf(cn, "# Window %d counts nothing: low %d is above high %d\n", win, low, high);
    return pulsar3_status(cn, status);
}

constexpr pt_format set_sync_mode_format("%d %d = %d");

int pulsar3_set_sync_mode(int, int cn, int path, int mode) {
    return pulsar3_status(cn, plr3_set_sync_mode(path, mode));
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_set_window = pt_command<pulsar3_set_window>(
    "set-window", set_window_format, "Set the thresholds of a scaler window",
    "Path/Channel, -1 for all/Window, 0 or 1/Low threshold, bins of 16 bits/High threshold, bins of 16 bits");

extern constinit const PARSE_TREE row_pulsar3_set_sync_mode = pt_command<pulsar3_set_sync_mode>(
    "set-sync-mode", set_sync_mode_format, "Set whose run line the cards follow",
    "Path/Mode: 0 card 0 by the back plane, 1 the neighbour's link, 2 each its own input, 3 nobody's");

namespace {
using register_rows::command_index;
}

extern constinit const PARSE_TREE row_pulsar3_set_alt_ttl_out =
    register_row<command_index("set-alt-ttl-out")>();
extern constinit const PARSE_TREE row_pulsar3_set_c2c = register_row<command_index("set-c2c")>();
extern constinit const PARSE_TREE row_pulsar3_set_chan_cont = register_row<command_index("set-chan-cont")>();
extern constinit const PARSE_TREE row_pulsar3_set_reset_corr =
    register_row<command_index("set-reset-corr")>();
extern constinit const PARSE_TREE row_pulsar3_set_reset_det = register_row<command_index("set-reset-det")>();
extern constinit const PARSE_TREE row_pulsar3_set_mwd_multiplier =
    register_row<command_index("set-mwd-multiplier")>();
extern constinit const PARSE_TREE row_pulsar3_set_mwd_dc_offset =
    register_row<command_index("set-mwd-dc-offset")>();
extern constinit const PARSE_TREE row_pulsar3_set_diff_baseline =
    register_row<command_index("set-diff-baseline")>();
extern constinit const PARSE_TREE row_pulsar3_enable_diff_baseline =
    register_row<command_index("enable-diff-baseline")>();
extern constinit const PARSE_TREE row_pulsar3_enable_trigc_magic =
    register_row<command_index("enable-trigc-magic")>();
extern constinit const PARSE_TREE row_pulsar3_set_glitch = register_row<command_index("set-glitch")>();
extern constinit const PARSE_TREE row_pulsar3_set_glitch_stretch =
    register_row<command_index("set-glitch-stretch")>();
extern constinit const PARSE_TREE row_pulsar3_set_rst_xtk = register_row<command_index("set-rst-xtk")>();
extern constinit const PARSE_TREE row_pulsar3_set_xtk_corr = register_row<command_index("set-xtk-corr")>();
extern constinit const PARSE_TREE row_pulsar3_set_ringing = register_row<command_index("set-ringing")>();
extern constinit const PARSE_TREE row_pulsar3_set_trigger_b = register_row<command_index("set-trigger-b")>();
extern constinit const PARSE_TREE row_pulsar3_set_trigger_c = register_row<command_index("set-trigger-c")>();
extern constinit const PARSE_TREE row_pulsar3_set_servo = register_row<command_index("set-servo")>();
extern constinit const PARSE_TREE row_pulsar3_set_servo2 = register_row<command_index("set-servo2")>();
extern constinit const PARSE_TREE row_pulsar3_set_scaling = register_row<command_index("set-scaling")>();
extern constinit const PARSE_TREE row_pulsar3_set_good_thres =
    register_row<command_index("set-good-thres")>();
extern constinit const PARSE_TREE row_pulsar3_set_pileup_max_width =
    register_row<command_index("set-pileup-max-width")>();
extern constinit const PARSE_TREE row_pulsar3_set_adc_mux = register_row<command_index("set-adc-mux")>();
extern constinit const PARSE_TREE row_pulsar3_set_scope_search =
    register_row<command_index("set-scope-search")>();
extern constinit const PARSE_TREE row_pulsar3_set_glob_rst_gen =
    register_row<command_index("set-glob-rst-gen")>();
extern constinit const PARSE_TREE row_pulsar3_set_cal_events =
    register_row<command_index("set-cal-events")>();
extern constinit const PARSE_TREE row_pulsar3_setup_diag = register_row<command_index("setup-diag")>();
extern constinit const PARSE_TREE row_pulsar3_set_user_tsync =
    register_row<command_index("set-user-tsync")>();

} // namespace kestrel
