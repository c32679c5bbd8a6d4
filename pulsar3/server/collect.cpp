// Commands that wait for counting: `pulsar3 hist collect` and `pulsar3 check-progress`.
#include "parser/qualifiers.h"
#include "pulsar3/lib/counts/loss.h"
#include "pulsar3/lib/counts/run.h"
#include "pulsar3/lib/paths/access.h"
#include "pulsar3/server/commands.h"
#include "server/interrupt.h"
#include "server/output.h"
#include "server/timebar.h"
#include "server/wait.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
#include <string>

namespace kestrel {

namespace {

using clock = std::chrono::steady_clock;

constexpr double longest_collect = 1e6;    // seconds
constexpr double look_pause = 0.01;        // seconds, while the last frames come
constexpr double bar_pause = 0.1;          // seconds
constexpr double progress_pause = 0.5;     // seconds
constexpr std::uint32_t timing_source = 7; // bits of timing register A
constexpr int timing_a = 2;

double seconds_since(clock::time_point begin) {
    return std::chrono::duration<double>(clock::now() - begin).count();
}

// Waits with a progress bar: 0, or -1 after ^C.
int wait_counting(int cn, double seconds) {
    const auto begin = clock::now();
    for (;;) {
        pulsar3_say();
        const double done = std::min(seconds_since(begin), seconds);
        sv_timebar(cn, static_cast<int>(done * 10), static_cast<int>(std::ceil(seconds * 10)), "Collecting");
        if (done >= seconds)
            return 0;
        if (sv_sleep(cn, std::min(bar_pause, seconds - done)) != 0)
            return -1;
    }
}

// At most as long as a frame may be on its way; ^C ends the wait, not the account.
void wait_for_last_frames(int cn, int path) {
    const auto begin = clock::now();
    const double most = std::chrono::duration<double>(plr3_tail).count() + 2 * look_pause;
    while (!plr3_run_settled(path) && seconds_since(begin) < most)
        if (sv_sleep(cn, look_pause) != 0)
            return;
}

// One line: what was stored, and, where there was any, what was lost.
int report(int cn, int path) {
    frame_loss sum;
    const int channels = plr3_get_num_chan(path);
    for (int chan = 0; chan < channels; ++chan) {
        frame_loss l;
        if (const int status = plr3_histogram_get_loss(path, chan, l); status < 0)
            return pulsar3_status(cn, status);
        sum.sent += l.sent;
        sum.whole += l.whole;
        sum.incomplete += l.incomplete;
        sum.missing += l.missing;
        sum.kernel += l.kernel;
    }
    std::string line =
        "# Collected " + std::to_string(sum.whole) + " frames of " + std::to_string(channels) + " channels";
    if (sum.lost() > 0)
        line += ", lost " + std::to_string(sum.lost()) + " of " + std::to_string(sum.sent) + ": " +
                std::to_string(sum.incomplete) + " incomplete, " + std::to_string(sum.missing) +
                " missing; the kernel dropped " + std::to_string(sum.kernel) + " packets";
    sv_print(cn, line + "\n");
    return 0;
}

int check_timing(int cn, int path) {
    std::uint32_t word = 0;
    if (const int status = plr3_read_card_reg(path, 0, timing_a, {&word, 1}); status < 0)
        return pulsar3_status(cn, status);
    if ((word & timing_source) <= plr3_timing_pauses)
        return 0;
    sv_printf(cn, "! ERROR: collect needs software timing, the timing source of path %d is %u\n", path,
              word & timing_source);
    return -1;
}

constexpr pt_format collect_format("%d %g = %d");

int hist_collect(int, int cn, int path, double seconds) {
    if (!(seconds >= 0 && seconds <= longest_collect)) {
        sv_printf(cn, "! ERROR: the time to collect should be 0 to %g s\n", longest_collect);
        return -1;
    }
    if (const int status = check_timing(cn, path); status != 0)
        return status;
    if (const int status = plr3_histogram_start(path, -1); status < 0)
        return pulsar3_status(cn, status);
    const int waited = wait_counting(cn, seconds);
    if (const int status = plr3_histogram_stop(path, -1); status < 0)
        return pulsar3_status(cn, status);
    if (waited == 0)
        wait_for_last_frames(cn, path);
    pulsar3_say();
    const int reported = report(cn, path);
    return waited != 0 ? waited : reported;
}

// ---- progress

constexpr pt_format check_progress_format("%d busy once num-t %d = %d");

// The smallest number of frames reached, or a status after its line.
int show_progress(int cn, int path, bool busy) {
    std::uint64_t least = INT_MAX;
    std::string line = "#";
    for (int card = 0; card < plr3_get_num_cards(path); ++card) {
        run_progress p;
        if (const int status = plr3_get_progress(path, card, p); status < 0)
            return pulsar3_status(cn, status);
        least = std::min(least, p.reached);
        line += (card > 0 ? "; card " : " card ") + std::to_string(card) + ": " + std::to_string(p.reached) +
                " of " + std::to_string(p.asked) +
                (p.counting  ? ", counting"
                 : p.running ? ", running"
                             : ", stopped");
        if (busy)
            line += plr3_histogram_is_busy(path, card) > 0 ? ", busy" : ", idle";
    }
    sv_print(cn, line + "\n");
    return static_cast<int>(least);
}

int check_progress(int quals, int cn, int path) {
    const pt_qualifiers<check_progress_format> q(quals);
    const std::optional<int> wanted = q.number_if_given("num-t");
    if (plr3_get_num_cards(path) < 0)
        return pulsar3_status(cn, plr3_get_num_cards(path));
    for (;;) {
        if (const int status = plr3_note_ended_runs(path); status < 0)
            return pulsar3_status(cn, status);
        pulsar3_say();
        const int reached = show_progress(cn, path, q.given("busy"));
        if (reached < 0 || q.given("once") || (wanted && reached >= *wanted))
            return reached;
        if (sv_sleep(cn, progress_pause) != 0)
            return reached;
    }
}

} // namespace

extern constinit const PARSE_TREE row_hist_collect =
    pt_command<hist_collect>("collect", collect_format, "Histogram for a given time with software timing",
                             "Path/Acquisition time in seconds");
extern constinit const PARSE_TREE row_pulsar3_check_progress = pt_command<check_progress>(
    "check-progress", check_progress_format, "Report the time frames that a run has reached",
    "Path/Show also whether the receive threads are busy/One reading only, else until ^C/"
    "Until so many time frames are reached");

} // namespace kestrel
