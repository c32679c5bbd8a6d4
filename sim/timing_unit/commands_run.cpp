// `kairo start`, `wait`, `read` and their like: the unit at work.
#include "parser/qualifiers.h"
#include "server/output.h"
#include "server/receive.h"
#include "server/session.h"
#include "server/timebar.h"
#include "server/wait.h"
#include "sim/timing_unit/commands.h"
#include "sim/timing_unit/unit.h"

#include <cstdio>
#include <sys/socket.h>

namespace kestrel {

namespace {

constexpr pt_format options_format(" auto-disarm %d auto-cont %d signal %d = %d");
constexpr pt_format stop_format(" pause end-of-cycle = %d");
constexpr pt_format wait_format(" ignore-pause timebar lux luy stream1 stream12 stream3 stream34 = %d");

constexpr double look_every = 0.002; // seconds
constexpr int looks_a_bar = 100;

int not_now(int cn) {
    sv_printf(cn, "! The unit is %s%s\n", unit_state_name(unit_look().state),
              unit_look().frames == 0 ? ", and has no frames" : "");
    return -1;
}

int options(int quals, int cn) {
    const pt_qualifiers<options_format> q(quals);
    if (!unit_ready(cn))
        return -1;
    if (q.given("auto-cont"))
        unit_auto_continue(q.number("auto-cont") != 0);
    return 0;
}

int init(int, int cn) {
    if (!unit_ready(cn))
        return -1;
    unit_stop(unit_stop_how::now);
    return 0;
}

int begin(int cn, bool (*how)()) {
    if (!unit_ready(cn))
        return -1;
    return how() ? times_renew(cn) : not_now(cn);
}
int start(int, int cn) {
    return begin(cn, unit_start);
}
int arm(int, int cn) {
    return begin(cn, unit_arm);
}

int cont(int, int cn) {
    if (!unit_ready(cn))
        return -1;
    return unit_continue() ? 0 : not_now(cn);
}

// A client that has left waits for nothing, and others want their turn.
bool has_left(int cn) {
    char byte;
    return use_network && ::recv(sv_input_fd(*sv_get_descriptor(cn)), &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

void show_bar(int cn, const unit_view &view) {
    constexpr double steps = 1000.0;
    if (view.total > 0.0)
        sv_timebar(cn, static_cast<int>(view.done / view.total * steps), static_cast<int>(steps), "run");
}

int wait(int quals, int cn) {
    const pt_qualifiers<wait_format> q(quals);
    if (!unit_ready(cn))
        return -1;
    for (int looks = 0;; ++looks) {
        const unit_view view = unit_look();
        if (view.state == unit_state::idle || (view.state == unit_state::paused && !q.given("ignore-pause")))
            return 0;
        if (q.given("timebar") && looks % looks_a_bar == 0)
            show_bar(cn, view);
        if (has_left(cn) || sv_sleep(cn, look_every) != 0)
            return -1;
    }
}

int stop(int quals, int cn) {
    const pt_qualifiers<stop_format> q(quals);
    if (!unit_ready(cn))
        return -1;
    unit_stop(q.given("pause")          ? unit_stop_how::pause_next_frame
              : q.given("end-of-cycle") ? unit_stop_how::end_of_lap
                                        : unit_stop_how::now);
    return 0;
}

int clear_starts(int, int cn) {
    if (!unit_ready(cn))
        return -1;
    unit_clear_starts();
    return times_renew(cn);
}

int trigger(int, int cn) {
    return unit_trigger() ? 0 : not_now(cn);
}

// ---------------------------------------------------------------- read

int read_lap(int, int cn) {
    return unit_ready(cn) ? unit_look().lap : -1;
}
int read_frame(int, int cn) {
    return unit_ready(cn) ? unit_look().frame : -1;
}
int read_full(int, int cn) {
    return unit_ready(cn) ? static_cast<int>(unit_look().halves & 0x7fffffff) : -1;
}

pt_string read_status(int, int cn) {
    if (!unit_ready(cn))
        return std::nullopt;
    return unit_state_name(unit_look().state);
}

pt_string read_progress(int, int cn) {
    if (!unit_ready(cn))
        return std::nullopt;
    const unit_view view = unit_look();
    char text[160];
    std::snprintf(text, sizeof text, "%s: lap %d of %d, frame %d of %d, %s, %.3f of %.3f s",
                  unit_state_name(view.state), view.lap, view.laps, view.frame, view.frames,
                  view.live ? "live" : "dead", view.done, view.total);
    return text;
}

} // namespace

constinit const PARSE_TREE commands_read[] = {
    pt_command<read_lap>("lap", "= %d", "get the lap, from 0", ""),
    pt_command<read_frame>("frame", "= %d", "get the frame, from 0", ""),
    pt_command<read_status>("status", "= %s", "get the state: IDLE, ARMED, RUNNING or PAUSED", ""),
    pt_command<read_full>("full", "= %d", "count the dead and live parts that have ended", ""),
    pt_command<read_progress>("progress", "= %s", "get state, lap, frame and seconds", ""),
    pt_end(),
};
constinit const PARSE_TREE row_options = pt_command<options>("options", options_format, "set options",
                                                             "Is taken/Pass pauses by (0 or 1)/Is taken");
constinit const PARSE_TREE row_init = pt_command<init>("init", "= %d", "stop whatever runs", "");
constinit const PARSE_TREE row_start = pt_command<start>(
    "start", " no-init = %d", "start, or wait for the trigger as the table says", "Is taken");
constinit const PARSE_TREE row_arm =
    pt_command<arm>("arm", " no-init = %d", "start with the trigger", "Is taken");
constinit const PARSE_TREE row_cont = pt_command<cont>("cont", "= %d", "go on behind a pause", "");
constinit const PARSE_TREE row_wait =
    pt_command<wait>("wait", wait_format, "wait until the unit is idle or pauses",
                     "Not for pauses/Show progress/Is taken/Is taken/Is taken/Is taken/Is taken/Is taken");
constinit const PARSE_TREE row_stop = pt_command<stop>(
    "stop", stop_format, "stop", "Pause before the next frame instead/At the end of the lap");
constinit const PARSE_TREE row_clear_starts =
    pt_command<clear_starts>("clear-starts", " = %d", "clear the count of starts", "");
constinit const PARSE_TREE row_trigger =
    pt_command<trigger>("trigger", "= %d", "the external start that an armed unit waits for", "");

} // namespace kestrel
