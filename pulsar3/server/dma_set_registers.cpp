// `pulsar3 dma`: groups of a channel's registers as raw words, in one transfer where they lie side by side, and the map of
// cross-talk as it is without measurements.
#include "parser/qualifiers.h"
#include "pulsar3/lib/paths/memories.h"
#include "pulsar3/server/commands.h"
#include "pulsar3/server/told_here.h"

#include <algorithm>
#include <vector>

namespace kestrel {

namespace {

constexpr pt_format two_words("%d %d %d %d = %d");
constexpr pt_format three_words("%d %d %d %d %d = %d");
constexpr pt_format five_words("%d %d %d %d %d %d %d = %d");

// Registers that lie side by side.
struct register_span {
    int offset;
    std::size_t words;
};
constexpr register_span reset[] = {{4, 3}}, glitch[] = {{7, 2}}, servo[] = {{17, 3}}, trigger_c[] = {{13, 2}},
                        trigger_b[] = {{10, 3}, {21, 2}};

template <const auto &Spans>
int set_words(int, int cn, int path, int chan, std::span<const pt_value> values) {
    std::vector<std::uint32_t> words;
    for (const pt_value &value : values)
        words.push_back(static_cast<std::uint32_t>(value.i));
    std::span<const std::uint32_t> rest = words;
    const told_here here(path, cn);
    for (const register_span &at : Spans) {
        if (const int status = plr3_write_reg(path, chan, 0, at.offset, rest.first(at.words)); status != 0)
            return pulsar3_status(cn, status);
        rest = rest.subspan(at.words);
    }
    return 0;
}

constexpr pt_format init_xtk_map_format("%d %d = %d");

int init_xtk_map(int, int cn, int path, int chan) {
    return pulsar3_status(cn, plr3_init_xtk_map(path, chan));
}

} // namespace

extern constinit const PARSE_TREE row_pulsar3_dma_set_trigger_regs_b = pt_command<set_words<trigger_b>>(
    "set-trigger-regs-b", five_words, "Write the registers of trigger B",
    "Path/Channel, -1 for all/Word at offset 10/Word at 11/Word at 12/Word at 21/Word at 22");
extern constinit const PARSE_TREE row_pulsar3_dma_set_trigger_regs_c =
    pt_command<set_words<trigger_c>>("set-trigger-regs-c", two_words, "Write the registers of trigger C",
                                     "Path/Channel, -1 for all/Word at offset 13/Word at 14");
extern constinit const PARSE_TREE row_pulsar3_dma_set_reset_reg =
    pt_command<set_words<reset>>("set-reset-reg", three_words, "Write the registers of the reset detector",
                                 "Path/Channel, -1 for all/Word at offset 4/Word at 5/Word at 6");
extern constinit const PARSE_TREE row_pulsar3_dma_set_glitch_reg =
    pt_command<set_words<glitch>>("set-glitch-reg", two_words, "Write the registers of the glitch detector",
                                  "Path/Channel, -1 for all/Word at offset 7/Word at 8");
extern constinit const PARSE_TREE row_pulsar3_dma_set_servo_regs =
    pt_command<set_words<servo>>("set-servo-regs", three_words, "Write the registers of the baseline servo",
                                 "Path/Channel, -1 for all/Word at offset 17/Word at 18/Word at 19");
extern constinit const PARSE_TREE row_pulsar3_dma_init_xtk_map =
    pt_command<init_xtk_map>("init-xtk-map", init_xtk_map_format, "Let every channel hear its two neighbours",
                             "Path/Channel, -1 for all");

} // namespace kestrel
