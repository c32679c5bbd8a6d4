#include "sim/timing_unit/unit.h"

#include "sim/timing_unit/gates.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>
#include <utility>

namespace kestrel {

namespace {

using clock_type = std::chrono::steady_clock;

struct {
    std::mutex lock;
    std::condition_variable changed;
    std::thread thread;
    bool ending = false;

    int max_frames = 0;
    frame_table table;
    bool auto_continue = false;
    int starts = 0;

    unit_view view;
    bool resumed = false; // asked for, to be seen by the thread
    bool stopping = false, pausing = false, last_lap = false;
    clock_type::time_point part_began{};
} unit;

using guard_type = std::unique_lock<std::mutex>;

bool over() {
    return unit.ending || unit.stopping;
}

double seconds_of(const unit_frame &frame) {
    return frame.dead + frame.live;
}

// Waits in a pause, if there is one here; the time that the next part begins at.
clock_type::time_point pause_here(guard_type &guard, bool wanted, clock_type::time_point due) {
    if (!wanted || unit.auto_continue || over())
        return due;
    unit.view.state = unit_state::paused;
    unit.resumed = false;
    unit.changed.notify_all();
    unit.changed.wait(guard, [] { return over() || unit.resumed; });
    unit.view.state = unit_state::running;
    unit.changed.notify_all();
    return clock_type::now();
}

// Lets a dead or live part pass; false when the run was stopped in it.
bool pass(guard_type &guard, bool live, double seconds, clock_type::time_point &due) {
    unit.view.live = live;
    unit.part_began = due;
    due += std::chrono::duration_cast<clock_type::duration>(std::chrono::duration<double>(seconds));
    unit.changed.wait_until(guard, due, over);
    unit.view.done += seconds;
    ++unit.view.halves;
    return !over();
}

bool run_frame(guard_type &guard, const unit_frame &frame, clock_type::time_point &due) {
    const bool asked = std::exchange(unit.pausing, false);
    unit.view.live = false;
    due = pause_here(guard, frame.dead_pause || asked, due);
    if (over() || !pass(guard, false, frame.dead, due))
        return false;
    due = pause_here(guard, frame.live_pause, due);
    if (over())
        return false;
    gates_open();
    due = clock_type::now(); // however late the gate opened, the cards get all of the live time
    const bool whole = pass(guard, true, frame.live, due);
    gates_close();
    gates_end_frame();
    return whole;
}

void run_table(guard_type &guard) {
    clock_type::time_point due = unit.part_began;
    for (int lap = 0; lap < unit.table.laps; ++lap) {
        unit.view.lap = lap;
        for (std::size_t i = 0; i < unit.table.frames.size(); ++i) {
            unit.view.frame = static_cast<int>(i);
            if (!run_frame(guard, unit.table.frames[i], due))
                return;
        }
        if (unit.last_lap)
            return;
    }
}

void run_thread() {
    guard_type guard(unit.lock);
    while (!unit.ending) {
        unit.changed.wait(guard, [] {
            return unit.ending || unit.view.state == unit_state::running ||
                   (unit.view.state == unit_state::armed && unit.stopping);
        });
        if (!over())
            run_table(guard);
        const bool again = unit.table.auto_rearm && !over() && !unit.last_lap;
        unit.view.state = again ? unit_state::armed : unit_state::idle;
        unit.view.live = unit.stopping = unit.pausing = unit.last_lap = false;
        unit.changed.notify_all();
    }
}

// From now on who asks sees a run; its time counts from here, whenever the thread wakes.
void run() {
    unit.view.state = unit_state::running;
    unit.view.done = 0.0;
    unit.view.halves = 0;
    unit.part_began = clock_type::now();
    unit.changed.notify_all();
}

bool begin(unit_state state) {
    if (unit.view.state != unit_state::idle || unit.table.frames.empty())
        return false;
    unit.view.lap = unit.view.frame = 0;
    unit.view.total = 0.0;
    for (const unit_frame &frame : unit.table.frames)
        unit.view.total += seconds_of(frame) * unit.table.laps;
    ++unit.starts;
    unit.view.state = state;
    if (state == unit_state::running)
        run();
    return true;
}

} // namespace

void unit_start_thread() {
    unit.thread = std::thread(run_thread);
}

void unit_stop_thread() {
    {
        const guard_type guard(unit.lock);
        unit.ending = true;
        unit.changed.notify_all();
    }
    if (unit.thread.joinable())
        unit.thread.join();
}

void unit_configure(int max_frames) {
    const guard_type guard(unit.lock);
    unit.max_frames = max_frames;
    unit.table = {};
    unit.starts = 0;
}

int unit_max_frames() {
    const guard_type guard(unit.lock);
    return unit.max_frames;
}

bool unit_load(const frame_table &table) {
    const guard_type guard(unit.lock);
    if (unit.view.state != unit_state::idle)
        return false;
    unit.table = table;
    return true;
}

frame_table unit_table() {
    const guard_type guard(unit.lock);
    return unit.table;
}

void unit_auto_continue(bool on) {
    const guard_type guard(unit.lock);
    unit.auto_continue = on;
    unit.resumed = unit.resumed || on;
    unit.changed.notify_all();
}

unit_view unit_look() {
    const guard_type guard(unit.lock);
    unit_view view = unit.view;
    view.laps = unit.table.laps;
    view.frames = static_cast<int>(unit.table.frames.size());
    if (view.state == unit_state::running)
        view.done += std::chrono::duration<double>(clock_type::now() - unit.part_began).count();
    return view;
}

bool unit_start() {
    const guard_type guard(unit.lock);
    return begin(unit.table.ext_start ? unit_state::armed : unit_state::running);
}

bool unit_arm() {
    const guard_type guard(unit.lock);
    return begin(unit_state::armed);
}

bool unit_trigger() {
    const guard_type guard(unit.lock);
    if (unit.view.state != unit_state::armed)
        return false;
    run();
    return true;
}

bool unit_continue() {
    const guard_type guard(unit.lock);
    if (unit.view.state != unit_state::paused)
        return false;
    unit.resumed = true;
    unit.view.state = unit_state::running; // who asks now does not see the pause any more
    unit.changed.notify_all();
    return true;
}

void unit_stop(unit_stop_how how) {
    guard_type guard(unit.lock);
    if (unit.view.state == unit_state::idle)
        return;
    if (how == unit_stop_how::pause_next_frame)
        unit.pausing = true;
    else if (how == unit_stop_how::end_of_lap)
        unit.last_lap = true;
    else {
        unit.stopping = true;
        unit.changed.notify_all();
        unit.changed.wait(guard, [] { return unit.view.state == unit_state::idle; });
    }
}

int unit_starts() {
    const guard_type guard(unit.lock);
    return unit.starts;
}

void unit_clear_starts() {
    const guard_type guard(unit.lock);
    unit.starts = 0;
}

const char *unit_state_name(unit_state state) {
    constexpr const char *names[] = {"IDLE", "ARMED", "RUNNING", "PAUSED"};
    return names[static_cast<int>(state)];
}

} // namespace kestrel
