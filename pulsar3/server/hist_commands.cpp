// `pulsar3 hist`: counting into histograms. collect.cpp has the commands that wait for a run.
#include "parser/call.h"
#include "parser/qualifiers.h"
#include "pulsar3/lib/counts/histogram_read.h"
#include "pulsar3/lib/counts/loss.h"
#include "pulsar3/lib/counts/run.h"
#include "pulsar3/server/commands.h"
#include "server/output.h"

#include <algorithm>
#include <climits>

namespace kestrel {

namespace {

constexpr pt_format card_format("%d + %d = %d");

int hist_start(int, int cn, int path, int card) {
    return pulsar3_status(cn, plr3_histogram_start(path, pulsar3_card(card)));
}

int hist_arm(int, int cn, int path, int card) {
    return pulsar3_status(cn, plr3_histogram_arm(path, pulsar3_card(card)));
}

int hist_pause(int, int cn, int path, int card) {
    return pulsar3_status(cn, plr3_histogram_pause(path, pulsar3_card(card)));
}

int hist_continue(int, int cn, int path, int card) {
    return pulsar3_status(cn, plr3_histogram_continue(path, pulsar3_card(card)));
}

int hist_stop(int, int cn, int path, int card) {
    return pulsar3_status(cn, plr3_histogram_stop(path, pulsar3_card(card)));
}

constexpr pt_format test_pattern_format("%d inc = %d");

int hist_test_pattern(int quals, int cn, int path) {
    const pt_qualifiers<test_pattern_format> q(quals);
    return pulsar3_status(cn, plr3_histogram_test_pattern(path, q.given("inc")));
}

constexpr pt_format read_dropped_format("%d %d = %d");

int hist_read_dropped(int, int cn, int path, int chan) {
    if (const int status = plr3_note_ended_runs(path); status < 0)
        return pulsar3_status(cn, status);
    return pulsar3_status(cn, plr3_histogram_get_dropped(path, chan));
}

constexpr pt_format loss_format("%d + %d = %d");

// A channel that is not given means all. The result is the frames lost.
int hist_loss(int, int cn, int path, int chan) {
    if (const int status = plr3_note_ended_runs(path); status < 0)
        return pulsar3_status(cn, status);
    pulsar3_say();
    const int channels = plr3_get_num_chan(path);
    const int first = OptionalArgumentCount > 0 && chan != -1 ? chan : 0;
    const int end = OptionalArgumentCount > 0 && chan != -1 ? chan + 1 : channels;
    sv_printf(cn, "# %4s %9s %9s %10s %9s | %8s %8s %8s %9s %8s\n", "chan", "sent", "whole", "incomplete",
              "missing", "kernel", "late", "repeated", "malformed", "no place");
    std::uint64_t lost = 0;
    for (int one = first; one < end; ++one) {
        frame_loss l;
        if (const int status = plr3_histogram_get_loss(path, one, l); status < 0)
            return pulsar3_status(cn, status);
        lost += l.lost();
        sv_printf(cn, "# %4d %9llu %9llu %10llu %9llu | %8llu %8llu %8llu %9llu %8llu\n", one, l.sent + 0ULL,
                  l.whole + 0ULL, l.incomplete + 0ULL, l.missing + 0ULL, l.kernel + 0ULL, l.late + 0ULL,
                  l.repeated + 0ULL, l.malformed + 0ULL, l.beyond + 0ULL);
    }
    return static_cast<int>(std::min<std::uint64_t>(lost, INT_MAX));
}

} // namespace

extern constinit const PARSE_TREE row_hist_test_pattern = pt_command<hist_test_pattern>(
    "test-pattern", test_pattern_format, "Fill the histogram modules with a test pattern",
    "Path/Each bin its index in the channel");
extern constinit const PARSE_TREE row_hist_read_dropped =
    pt_command<hist_read_dropped>("read-dropped", read_dropped_format,
                                  "Read how many frames of a channel were lost in this run", "Path/Channel");
extern constinit const PARSE_TREE row_hist_start =
    pt_command<hist_start>("start", card_format, "Start histogramming", "Path/Card, all if omitted");
extern constinit const PARSE_TREE row_hist_arm = pt_command<hist_arm>(
    "arm", card_format, "Arm Histograming (use contine to start counting in software timing mode)",
    "Path/Card, all if omitted");
extern constinit const PARSE_TREE row_hist_pause = pt_command<hist_pause>(
    "pause", card_format, "Pause counting in software timing mode", "Path/Card, all if omitted");
extern constinit const PARSE_TREE row_hist_continue = pt_command<hist_continue>(
    "continue", card_format, "Continue counting in software timing mode", "Path/Card, all if omitted");
extern constinit const PARSE_TREE row_hist_stop =
    pt_command<hist_stop>("stop", card_format, "Stop histogramming", "Path/Card, all if omitted");
extern constinit const PARSE_TREE row_hist_loss = pt_command<hist_loss>(
    "loss", loss_format, "Show what became of the frames of the last run", "Path/Channel, all if omitted");

} // namespace kestrel
