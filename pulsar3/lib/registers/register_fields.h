// pulsar3/lib/registers: the fields of the cards' registers, and the commands that set them. One row a field: from it
// come the commands' arguments, their checks and help, the print of a register and the manual's pages of registers. A
// new field is one row. The compiler reads the tables too: the server makes its rows from them.
//
// A command's fields stand together, in the order of its arguments; words that it shares with another command keep
// the other's bits when it writes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kestrel {

enum class register_scope { channel, card };

// How a command's line gives a field: a number in its place, or a word that sets its one bit.
enum class field_form { number, keyword };

// Which generations have it; bits.
enum register_generation : unsigned {
    on_gen3 = 1,
    on_gen3v7 = 2,
    on_gen3mini = 4,
    on_gen4 = 8,
    on_every = on_gen3 | on_gen3v7 | on_gen3mini | on_gen4,
};

struct register_field {
    register_scope scope;
    const char *reg; // the register's name
    int offset;      // words; of a card's register on generation 3
    const char *field;
    int first_bit, last_bit;
    int lowest, highest; // what may be written; below 0: two's complement
    const char *help;    // what it is, in which unit
    const char *command; // that sets it
    unsigned generations = on_every;
    field_form form = field_form::number;
};

// A command of which the table makes everything: "path, channel or card, fields".
struct register_command {
    const char *name;
    const char *function; // the library's name for it, in the texts of failures
    const char *help;
};

namespace register_rows {

inline constexpr auto chan = register_scope::channel;
inline constexpr auto card = register_scope::card;
inline constexpr auto word = field_form::keyword;

inline constexpr register_field fields[] = {
    {chan, "chan-cont", 2, "source", 0, 2, 0, 6,
     "where samples come from: 0 ADC, 1 alternative, 2 multiplexer, 3 and 4 playback, 5 the channel's own playback, "
     "6 global reset generator",
     "set-chan-cont"},
    {chan, "chan-cont", 2, "invert", 3, 3, 0, 1, "invert the samples", "set-chan-cont", on_every, word},
    {chan, "chan-cont", 2, "inl-corr", 4, 4, 0, 1, "correct the ADC's non-linearity", "set-chan-cont",
     on_every, word},
    {chan, "chan-cont", 2, "reset-corr", 5, 5, 0, 1, "correct what follows a reset", "set-chan-cont",
     on_every, word},
    {chan, "chan-cont", 2, "glitch", 6, 6, 0, 1, "remove glitches", "set-chan-cont", on_every, word},
    {chan, "chan-cont", 2, "servo", 7, 7, 0, 1, "run the baseline servo", "set-chan-cont", on_every, word},
    {chan, "chan-cont", 2, "trigger-b", 8, 8, 0, 1, "trigger by trigger B", "set-chan-cont", on_every, word},
    {chan, "chan-cont", 2, "trigger-c", 9, 9, 0, 1, "trigger by trigger C", "set-chan-cont", on_every, word},
    {chan, "chan-cont", 2, "lead-corr", 10, 10, 0, 1, "correct events by what leads them", "set-chan-cont",
     on_every, word},
    {chan, "chan-cont", 2, "tail-corr", 11, 11, 0, 1, "correct events by what they follow", "set-chan-cont",
     on_every, word},
    {chan, "chan-cont", 2, "xtk-corr", 12, 12, 0, 1, "correct cross-talk between channels", "set-chan-cont",
     on_every, word},
    {chan, "chan-cont", 2, "pileup", 13, 13, 0, 1, "reject piled-up events", "set-chan-cont", on_every, word},

    {chan, "reset-corr", 3, "decay", 0, 15, 0, 65535, "part of a reset's step that is lost a tick, in 2^-16",
     "set-reset-corr"},
    {chan, "reset-corr", 3, "length", 16, 27, 0, 4095, "ticks that the correction lasts", "set-reset-corr"},

    {chan, "reset-det-a", 4, "threshold", 0, 13, 0, 16383, "fall of a sample that is a reset, ADC steps",
     "set-reset-det"},
    {chan, "reset-det-b", 5, "before", 0, 7, 0, 255, "ticks before a reset without events", "set-reset-det"},
    {chan, "reset-det-c", 6, "hold", 0, 11, 0, 4095, "ticks after a reset without events", "set-reset-det"},
    {chan, "reset-det-a", 4, "rising", 14, 14, 0, 1, "a reset is a rise, not a fall", "set-reset-det",
     on_every, word},
    {chan, "reset-det-a", 4, "mwd-multiplier", 16, 31, 0, 65535,
     "moving-window deconvolution: loss of the decay a tick, in 2^-16", "set-mwd-multiplier"},
    {chan, "reset-det-c", 6, "mwd-dc-offset", 16, 31, -32768, 32767,
     "moving-window deconvolution: taken off every sample, ADC steps", "set-mwd-dc-offset"},
    {chan, "reset-det-b", 5, "fast-shift", 8, 11, 0, 15, "fast baseline average, log2 of samples",
     "set-diff-baseline"},
    {chan, "reset-det-b", 5, "slow-shift", 12, 15, 0, 15, "slow baseline average, log2 of samples",
     "set-diff-baseline"},
    {chan, "reset-det-b", 5, "offset", 16, 27, -2048, 2047, "added to the baselines' difference, ADC steps",
     "set-diff-baseline"},
    {chan, "reset-det-b", 5, "enable-diff", 28, 28, 0, 1, "1: take the baselines' difference",
     "enable-diff-baseline"},
    {chan, "reset-det-b", 5, "enable-magic", 29, 29, 0, 1, "1: trigger C looks at the baselines' difference",
     "enable-trigc-magic"},

    {chan, "glitch-a", 7, "low", 0, 15, 0, 65535, "step that may be a glitch, ADC steps", "set-glitch"},
    {chan, "glitch-a", 7, "high", 16, 31, 0, 65535, "step that is one, ADC steps", "set-glitch"},
    {chan, "glitch-b", 8, "width", 0, 7, 0, 255, "longest glitch, ticks", "set-glitch"},
    {chan, "glitch-b", 8, "pad", 8, 15, 0, 255, "ticks that are replaced beside it", "set-glitch"},
    {chan, "glitch-b", 8, "stretch", 16, 23, 0, 255, "ticks after a glitch without events",
     "set-glitch-stretch"},

    {chan, "trigger-b-a", 10, "threshold", 0, 15, 0, 65535,
     "difference of averages that is an event, ADC steps", "set-trigger-b"},
    {chan, "trigger-b-a", 10, "average", 16, 19, 0, 10, "length of both averages, log2 of ticks",
     "set-trigger-b"},
    {chan, "trigger-b-a", 10, "separation", 20, 27, 0, 255, "ticks between the averages", "set-trigger-b"},
    {chan, "trigger-b-b", 11, "hold", 0, 11, 0, 4095, "ticks after an event without another",
     "set-trigger-b"},
    {chan, "trigger-b-b", 11, "over", 12, 19, 0, 255, "ticks above the threshold that an event lasts",
     "set-trigger-b"},
    {chan, "trigger-b-c", 12, "rise-min", 0, 11, 0, 4095, "shortest rise of an event, ticks",
     "set-trigger-b"},
    {chan, "trigger-b-c", 12, "rise-max", 16, 27, 0, 4095, "longest rise of an event, ticks",
     "set-trigger-b"},
    {chan, "trigger-b-d", 21, "eng-average", 0, 11, 0, 4095, "longest average of an event's energy, ticks",
     "set-trigger-b"},
    {chan, "trigger-b-d", 21, "eng-gap", 16, 27, 0, 4095, "ticks between the averages of an event's energy",
     "set-trigger-b"},
    {chan, "trigger-b-e", 22, "eng-min", 0, 11, 0, 4095, "shortest average of an event's energy, ticks",
     "set-trigger-b"},

    {chan, "trigger-c-a", 13, "threshold", 0, 15, 0, 65535,
     "difference of averages that is an event, ADC steps", "set-trigger-c"},
    {chan, "trigger-c-a", 13, "average", 16, 19, 0, 10, "length of both averages, log2 of ticks",
     "set-trigger-c"},
    {chan, "trigger-c-a", 13, "separation", 20, 27, 0, 255, "ticks between the averages", "set-trigger-c"},
    {chan, "trigger-c-b", 14, "scale", 0, 15, 0, 65535, "threshold's part of an event's height, in 2^-16",
     "set-trigger-c"},
    {chan, "trigger-c-b", 14, "hold", 16, 27, 0, 4095, "ticks after an event without another",
     "set-trigger-c"},

    {chan, "ringing", 15, "delay", 0, 7, 0, 255, "ticks from an event to its ringing", "set-ringing"},
    {chan, "ringing", 15, "length", 8, 15, 0, 255, "ticks that it rings", "set-ringing"},
    {chan, "ringing", 15, "fraction", 16, 27, 0, 4095, "its height, in 2^-12 of the event's", "set-ringing"},
    {chan, "ringing", 15, "enable", 31, 31, 0, 1, "remove it", "set-ringing", on_every, word},

    {chan, "cal-events", 16, "period", 0, 23, 0, 16777215, "ticks from one calibration event to the next",
     "set-cal-events"},
    {chan, "cal-events", 16, "width", 24, 29, 0, 63, "ticks that one lasts", "set-cal-events"},
    {chan, "cal-events", 16, "enable", 31, 31, 0, 1, "make calibration events", "set-cal-events", on_every,
     word},

    {chan, "servo-a", 17, "gain", 0, 15, 0, 65535, "of the baseline servo, in 2^-16 a sample", "set-servo"},
    {chan, "servo-a", 17, "shift", 16, 20, 0, 31, "its average, log2 of samples", "set-servo"},
    {chan, "servo-b", 18, "target", 0, 15, -32768, 32767, "baseline that it keeps, ADC steps", "set-servo"},
    {chan, "servo-b", 18, "limit", 16, 31, 0, 65535, "largest correction, ADC steps", "set-servo"},
    {chan, "servo-c", 19, "rate", 0, 15, 0, 65535, "largest change, ADC steps in 1024 ticks", "set-servo"},
    {chan, "servo2", 20, "hold", 0, 11, 0, 4095, "ticks after an event that the servo waits", "set-servo2"},
    {chan, "servo2", 20, "window", 12, 23, 0, 4095, "largest difference that it follows, ADC steps",
     "set-servo2"},
    {chan, "servo2", 20, "freeze", 31, 31, 0, 1, "keep the correction as it is", "set-servo2", on_every,
     word},

    {chan, "pileup", 23, "max-width", 0, 11, 0, 4095, "longest trigger of a single event, ticks",
     "set-pileup-max-width"},

    {chan, "window0", 24, "low", 0, 15, 0, 65535, "energy bins of 16 bits", "set-window"},
    {chan, "window0", 24, "high", 16, 31, 0, 65535, "energy bins of 16 bits", "set-window"},
    {chan, "window1", 25, "low", 0, 15, 0, 65535, "energy bins of 16 bits", "set-window"},
    {chan, "window1", 25, "high", 16, 31, 0, 65535, "energy bins of 16 bits", "set-window"},
    {chan, "good-thres", 26, "threshold", 0, 15, 0, 65535,
     "events above it are good ones, energy bins of 16 bits", "set-good-thres"},

    {chan, "scaling", 27, "multiplier", 0, 15, 0, 65535, "of an event's height, in 2^-15", "set-scaling"},
    {chan, "scaling", 27, "offset", 16, 31, -32768, 32767, "added to it, energy bins of 16 bits",
     "set-scaling"},

    {chan, "format", 28, "nbits-eng", 0, 4, 1, 16, "bits of energy", "format-run"},
    {chan, "format", 28, "nbits-aux1", 8, 11, 0, 15, "bits of the first auxiliary coordinate", "format-run"},
    {chan, "format", 28, "nbits-aux2", 12, 15, 0, 15, "bits of the second auxiliary coordinate",
     "format-run"},
    {chan, "format", 28, "aux1-mode", 16, 19, 0, 15, "what the first auxiliary coordinate holds",
     "format-run"},
    {chan, "format", 28, "aux2-mode", 20, 23, 0, 15, "what the second auxiliary coordinate holds",
     "format-run"},

    {chan, "scope-search", 29, "value", 0, 15, 0, 65535, "sample that a capture waits for",
     "set-scope-search"},
    {chan, "scope-search", 29, "mask", 16, 31, 0, 65535, "bits of it that count", "set-scope-search"},

    {chan, "rst-xtk", 30, "threshold", 0, 15, 0, 65535, "reset of a neighbour that disturbs, ADC steps",
     "set-rst-xtk"},
    {chan, "rst-xtk", 30, "hold", 16, 27, 0, 4095, "ticks after it without events", "set-rst-xtk"},

    {chan, "xtk-corr", 31, "scale", 0, 15, 0, 65535, "of the cross-talk's shape, in 2^-16", "set-xtk-corr"},
    {chan, "xtk-corr", 31, "window", 16, 27, 0, 4095, "ticks in which a neighbour's event counts",
     "set-xtk-corr"},

    {chan, "sub-frames", 48, "number", 0, 15, 1, 65535, "parts of a time frame that scalers are counted in",
     "config"},

    {chan, "chan-cont2", 56, "quantity", 0, 3, 0, 7,
     "what is histogrammed: 0 energy, 1 sample, 2 baseline, 3 rise, 4 width, 5 gap to the event before, 6 servo, "
     "7 trigger",
     "setup-diag", on_gen3mini},
    {chan, "chan-cont2", 56, "divider", 4, 7, 0, 15, "bins put together, log2", "setup-diag", on_gen3mini},
    {chan, "chan-cont2", 56, "lead-by-width", 8, 8, 0, 1, "table of leads is addressed by width, not by time",
     "load-event-lead"},
    {chan, "chan-cont2", 56, "tail-by-width", 9, 9, 0, 1, "table of tails is addressed by width, not by time",
     "load-event-tail"},

    {card, "clock-control", 0, "source", 0, 1, 0, 2, "of the clock: 0 internal, 1 external, 2 mid-plane",
     "setup-clocks"},
    {card, "clock-control", 0, "test-pulse", 4, 5, 0, 3, "shape of the test pulse, 0 none", "setup-clocks"},
    {card, "clock-control", 0, "tsync", 9, 11, 0, 7,
     "what sets the time stamps to zero: 0 nothing, 1 a start, 2 an edge, 3 a level, 4 a time frame, 5 the cards' link, "
     "6 and 7 free",
     "set-user-tsync"},
    {card, "clock-control", 0, "sync", 12, 13, 0, 3,
     "whose run line a card follows: 0 card 0 by the back plane, 1 the link of its neighbour, 2 its own input, "
     "3 nobody's",
     "set-sync-mode"},

    {card, "timing-a", 2, "source", 0, 2, 0, 3, "what ends a time frame", "set-timing"},
    {card, "fixed-time", 3, "ticks", 0, 31, 0, 2147483647, "length of an internal time frame, ticks",
     "set-timing"},
    {card, "internal-frames", 8, "frames", 0, 31, 0, 2147483647, "internal time frames, 0 until stopped",
     "set-timing"},
    {card, "timing-a", 2, "hist-run", 28, 28, 0, 1, "histograms run", "start"},
    {card, "timing-a", 2, "count-enable", 29, 29, 0, 1, "counting is enabled", "start"},
    {card, "timing-a", 2, "scaler-run", 31, 31, 0, 1, "scalers run", "start"},
    {card, "num-tf", 9, "frames", 0, 31, 1, 2147483647, "time frames", "config"},

    {card, "adc-mux", 10, "stream0", 0, 3, 0, 15, "channel whose samples are stream 0 of the multiplexer",
     "set-adc-mux"},
    {card, "adc-mux", 10, "stream1", 4, 7, 0, 15, "channel of stream 1", "set-adc-mux"},
    {card, "adc-mux", 10, "stream2", 8, 11, 0, 15, "channel of stream 2", "set-adc-mux"},
    {card, "adc-mux", 10, "stream3", 12, 15, 0, 15, "channel of stream 3", "set-adc-mux"},

    {card, "alt-ttl-out", 11, "out0", 0, 3, 0, 15,
     "what output 0 shows: 0 as usual, 1 counting, 2 time frame, 3 event, 4 reset, 5 good event, 6 window 0, "
     "7 window 1, 8 to 15 stream bits",
     "set-alt-ttl-out"},
    {card, "alt-ttl-out", 11, "chan0", 4, 7, 0, 15, "channel of output 0", "set-alt-ttl-out"},
    {card, "alt-ttl-out", 11, "out1", 8, 11, 0, 15, "what output 1 shows", "set-alt-ttl-out"},
    {card, "alt-ttl-out", 11, "chan1", 12, 15, 0, 15, "channel of output 1", "set-alt-ttl-out"},
    {card, "alt-ttl-out", 11, "invert", 31, 31, 0, 1, "low when true", "set-alt-ttl-out", on_every, word},

    {card, "c2c", 12, "delay", 0, 7, 0, 255, "of what a neighbour card sends, ticks", "set-c2c"},
    {card, "c2c", 12, "send", 30, 30, 0, 1, "send events to the neighbour card", "set-c2c", on_every, word},
    {card, "c2c", 12, "receive", 31, 31, 0, 1, "take the neighbour's events", "set-c2c", on_every, word},

    {card, "glob-rst-gen", 14, "period", 0, 15, 0, 65535, "from reset to reset, 1024 ticks",
     "set-glob-rst-gen"},
    {card, "glob-rst-gen", 14, "width", 16, 27, 0, 4095, "of a reset, ticks", "set-glob-rst-gen"},
    {card, "glob-rst-gen", 14, "enable", 31, 31, 0, 1, "reset all channels together", "set-glob-rst-gen",
     on_every, word},
};

inline constexpr register_command commands[] = {
    {"set-alt-ttl-out", "plr3_set_alt_ttl_out", "Set what the TTL outputs show"},
    {"set-c2c", "plr3_set_c2c", "Set the links between cards"},
    {"set-chan-cont", "plr3_set_chan_cont", "Set a channel's control register"},
    {"set-reset-corr", "plr3_set_reset_corr", "Set the correction of what follows a reset"},
    {"set-reset-det", "plr3_set_reset", "Set the detector of resets"},
    {"set-mwd-multiplier", "plr3_set_mwd_multiplier",
     "Set the multiplier of the moving-window deconvolution"},
    {"set-mwd-dc-offset", "plr3_set_mwd_dc_offset", "Set the d.c. offset of the moving-window deconvolution"},
    {"set-diff-baseline", "plr3_set_diff_baseline_shifts_offset",
     "Set the averages of the difference baseline"},
    {"enable-diff-baseline", "plr3_enable_diff_baseline", "Switch the difference baseline"},
    {"enable-trigc-magic", "plr3_enable_trigc_magic", "Switch trigger C to the difference baseline"},
    {"set-glitch", "plr3_set_glitch", "Set the detector of glitches"},
    {"set-glitch-stretch", "plr3_set_glitch_stretch", "Set how long a glitch keeps events away"},
    {"set-rst-xtk", "plr3_set_rst_xtk", "Set what a neighbour's reset does"},
    {"set-xtk-corr", "plr3_set_xtk_corr", "Set the correction of cross-talk"},
    {"set-ringing", "plr3_set_trigger_b_ringing", "Set the removal of ringing from trigger B"},
    {"set-trigger-b", "plr3_set_trigger_b", "Set trigger B"},
    {"set-trigger-c", "plr3_set_trigger_c", "Set trigger C"},
    {"set-servo", "plr3_set_servo", "Set the baseline servo"},
    {"set-servo2", "plr3_set_servo2", "Set when the baseline servo waits"},
    {"set-scaling", "plr3_set_scaling", "Set the scale of energies"},
    {"set-good-thres", "plr3_set_good_thres", "Set the threshold of good events"},
    {"set-pileup-max-width", "plr3_set_pileup_max_width", "Set the longest trigger of a single event"},
    {"set-adc-mux", "plr3_set_adc_mux", "Set the multiplexer of samples"},
    {"set-scope-search", "plr3_set_scope_search", "Set what a capture waits for"},
    {"set-glob-rst-gen", "plr3_set_glob_rst_gen", "Set the generator of global resets"},
    {"set-cal-events", "plr3_set_cal_events", "Set the generator of calibration events"},
    {"setup-diag", "plr3_setup_diag", "Set what a mini model's diagnostic histogram counts"},
    {"set-user-tsync", "plr3_set_user_ts_sync_mode", "Set what sets the time stamps to zero"},
};

} // namespace register_rows

// Where a card's register of generation 3 lies on generation 4; most stay where they are.
constexpr int plr3_card_offset(int offset, bool generation4) {
    constexpr int clock_control = 0, multiplexer = 10;
    if (!generation4)
        return offset;
    return offset == clock_control ? 0x100000 : offset == multiplexer ? 13 : offset;
}

} // namespace kestrel
