// `kairo scan motor`: a motor goes from position to position, and the unit makes one time frame at each.
#include "instruments/links/clients.h"
#include "instruments/timing/commands.h"
#include "instruments/timing/forward.h"
#include "instruments/timing/kairo.h"
#include "server/interrupt.h"
#include "server/output.h"
#include "unified/handles/handles.h"

#include <climits>

namespace kestrel {

namespace {

constexpr pt_format scan_format("%d %d %d %g %d mem %d = %d");

constexpr double scan_dead_time = 2e-5; // seconds: scalers copy their data in it
constexpr int pause_each_frame = -1;
constexpr double shown_time = 0.5; // seconds; shorter frames go by without a line

struct scan_plan {
    int first, step, steps, motor;
    double time; // seconds a step
    int position(int i) const { return static_cast<int>(first + static_cast<long long>(step) * i); }
};

// The number of steps; 0 where there are none, or more than can be counted.
int steps_of(int first, int last, int step) {
    if (step == 0)
        return 0;
    const long long steps = (static_cast<long long>(last) - first) / step + 1;
    return steps < 1 || steps > INT_MAX ? 0 : static_cast<int>(steps);
}

// A memory that is not switched, such as a module, is only cleared.
int prepare_memory(int cn, int handle, int steps) {
    const auto memory = unified_info_of(handle);
    if (!memory || memory->nx < 1 || memory->ny < 1 || memory->nt < 0) {
        sv_printf(cn, "! ERROR: Determining size of memory system\n");
        return -1;
    }
    if (memory->nt != 0 && memory->nt < steps) { // 0: takes any frame
        sv_printf(cn, "! Insufficient memory for %d steps, only enough for %d\n", steps, memory->nt);
        return -1;
    }
    if (memory->is_switched && app_unified_disable(cn, handle) < 0)
        return -1;
    if (app_unified_clear(cn, handle, 0, 0, 0, memory->nx, memory->ny, steps) < 0) {
        sv_printf(cn, "! Unified clear returned error\n");
        return -1;
    }
    return memory->is_switched && app_unified_enable(cn, handle) < 0 ? -1 : 0;
}

int wait_for_pause(int cn) {
    return kairo_send(cn, "kairo wait") < 0 || sv_poll_quit(cn) != 0 ? -1 : 0;
}

int step_to(int cn, const scan_plan &plan, int position) {
    if (plan.time > shown_time)
        sv_printf(cn, "# Setting Scan variable to %d\n", position);
    if (links::send_wait(cn, links::link_motors,
                         "motor move-to" + kairo_number(plan.motor) + kairo_number(position)) < 0)
        sv_printf(cn, "# Set function returned ERROR\n");
    if (sv_poll_quit(cn) != 0)
        return -1;
    if (kairo_send(cn, "kairo cont") < 0) {
        sv_printf(cn, "! KAIRO cannot continue\n");
        return -1;
    }
    return wait_for_pause(cn);
}

// 0, or -1 at the first failure and at ^C.
int run_scan(int cn, const scan_plan &plan) {
    const std::string frames = "kairo generate" + kairo_number(1) + kairo_number(plan.steps) +
                               kairo_number(scan_dead_time) + kairo_number(plan.time) +
                               kairo_number(pause_each_frame);
    if (kairo_generate(cn, 1, frames) != 0 || kairo_start(cn, "kairo start") != 0 || wait_for_pause(cn) != 0)
        return -1;
    for (int i = 0; i < plan.steps; ++i) {
        if (step_to(cn, plan, plan.position(i)) != 0)
            return -1;
    }
    return 0;
}

// The unit stops although ^C has ended every other wait of this line.
void stop_after_quit(int cn) {
    const int quits = sv_quit.exchange(0);
    sv_printf(cn, "! Scan Aborted by quit signal\n");
    kairo_send(cn, "kairo stop");
    sv_quit += quits;
}

int scan_motor(int quals, int cn, int first, int last, int step, double time, int motor) {
    const pt_qualifiers<scan_format> q(quals);
    if (!kairo_ready(cn))
        return -1;
    const int steps = steps_of(first, last, step);
    if (steps == 0) {
        sv_printf(cn, "! ERROR: a scan from %d to %d by %d has no steps\n", first, last, step);
        return -1;
    }
    if (q.given("mem") && prepare_memory(cn, q.number("mem"), steps) != 0)
        return -1;
    const int result = run_scan(cn, {first, step, steps, motor, time});
    if (result != 0 && sv_poll_quit(cn) != 0)
        stop_after_quit(cn);
    return result;
}

} // namespace

constinit const PARSE_TREE kairo_scan_tree[] = {
    pt_command<scan_motor>(
        "motor", scan_format, "Scan stepper motor",
        "First posn/Last posn/Number of steps per move/Time (s)/Motor Number/Memory system handle if used"),
    pt_end(),
};

} // namespace kestrel
