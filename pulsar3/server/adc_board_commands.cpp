// `pulsar3 adc-board`: gains, offsets, terminations and the power of a card's ADC boards.
#include "parser/qualifiers.h"
#include "pulsar3/lib/boards/adc_board.h"
#include "pulsar3/server/commands.h"
#include "server/output.h"

namespace kestrel {

namespace {

// Channel -1: all of the path.
struct channel_range {
    int first, number;
};
channel_range channels_of(int path, int chan) {
    return chan == -1 ? channel_range{0, plr3_get_num_chan(path)} : channel_range{chan, 1};
}

constexpr pt_format set_gain_format("%d %d %d %d = %d");

int set_gain(int, int cn, int path, int chan, int stage1, int stage2) {
    const auto [first, number] = channels_of(path, chan);
    return pulsar3_status(cn, plr3_set_gain(path, first, number, stage1, stage2));
}

constexpr pt_format channel_format("%d %d = %d");

// The result is stage 1 and, 16 times, stage 2.
int get_gain(int, int cn, int path, int chan) {
    int stage1 = 0, stage2 = 0;
    if (const int status = plr3_get_gain(path, chan, {&stage1, 1}, {&stage2, 1}); status != 0)
        return pulsar3_status(cn, status);
    sv_printf(cn, "# Channel %d: gain of stage 1 %d, of stage 2 %d\n", chan, stage1, stage2);
    return stage1 + (plr3_gain_max + 1) * stage2;
}

constexpr pt_format set_offset_format("%d %d %d = %d");

int set_offset(int, int cn, int path, int chan, int offset) {
    const auto [first, number] = channels_of(path, chan);
    return pulsar3_status(cn, plr3_set_offset(path, first, number, offset));
}

int get_offset(int, int cn, int path, int chan) {
    int offset = 0;
    const int status = plr3_get_offset(path, chan, {&offset, 1});
    return status != 0 ? pulsar3_status(cn, status) : offset;
}

constexpr pt_format set_term_format("%d %d %d %d = %d");

int set_term(int, int cn, int path, int card, int in, int out) {
    int status = plr3_set_trig_in_term(path, card, static_cast<std::uint32_t>(in));
    if (status == 0)
        status = plr3_set_trig_out_term(path, card, static_cast<std::uint32_t>(out));
    return pulsar3_status(cn, status);
}

constexpr pt_format card_format("%d %d = %d");

int get_term(int, int cn, int path, int card) {
    std::uint32_t in = 0, out = 0;
    int status = plr3_get_trig_in_term(path, card, in);
    if (status == 0)
        status = plr3_get_trig_out_term(path, card, out);
    if (status != 0)
        return pulsar3_status(cn, status);
    sv_printf(cn, "# Card %d: terminations of inputs 0x%X, of outputs 0x%X\n", card, in, out);
    return 0;
}

constexpr pt_format ignore_over_temp_format("%d %d off = %d");

int ignore_over_temp(int quals, int cn, int path, int card) {
    const bool ignore = !pt_qualifiers<ignore_over_temp_format>(quals).given("off");
    return pulsar3_status(cn, plr3_set_ignore_over_temp(path, card, ignore));
}

int get_revision(int, int cn, int path, int card) {
    std::uint32_t revision = 0;
    const int status = plr3_read_adc_revision(path, card, revision);
    return status != 0 ? pulsar3_status(cn, status) : static_cast<int>(revision);
}

// The result is the number of supplies that are on without being good.
int read_psu(int, int cn, int path, int card) {
    psu_state state;
    if (const int status = plr3_read_psu_cont(path, card, state); status != 0)
        return pulsar3_status(cn, status);
    sv_printf(cn, "# Card %d: power supplies on 0x%02X, good 0x%02X\n", card, state.on, state.good);
    return __builtin_popcount(state.on & ~state.good);
}

constinit const PARSE_TREE adc_board_table[] = {
    pt_command<set_gain>("set-gain", set_gain_format, "Set the gain switches of a channel",
                         "Path/Channel, -1 for all/Stage 1, 0 to 15/Stage 2, 0 to 15"),
    pt_command<get_gain>("get-gain", channel_format, "Get the gain switches of a channel", "Path/Channel"),
    pt_command<set_offset>("set-offset", set_offset_format, "Set the offset of a channel",
                           "Path/Channel, -1 for all/Offset, 0 to 65535"),
    pt_command<get_offset>("get-offset", channel_format, "Get the offset of a channel", "Path/Channel"),
    pt_command<set_term>("set-term", set_term_format, "Set the terminations of the trigger lines",
                         "Path/Card, -1 for all/Inputs, a bit each/Outputs, a bit each"),
    pt_command<get_term>("get-term", card_format, "Get the terminations of the trigger lines", "Path/Card"),
    pt_command<ignore_over_temp>("ignore-over-temp", ignore_over_temp_format,
                                 "Leave the ADC boards on when they are too hot",
                                 "Path/Card, -1 for all/Switch them off as usual"),
    pt_command<get_revision>("get-revision", card_format, "Get the revision of a card's ADC boards",
                             "Path/Card"),
    pt_command<read_psu>("read-psu", card_format, "Read the power supplies of a card's ADC boards",
                         "Path/Card"),
    pt_end(),
};

} // namespace

extern constinit const PARSE_TREE row_pulsar3_adc_board =
    pt_subtree("adc-board", adc_board_table, "prefix for the ADC boards");

} // namespace kestrel
