#include "files/nexus_follow.h"

#include "files/commands.h"
#include "instruments/timing/frame_times.h"
#include "modules/store/view.h"
#include "server/hooks.h"
#include "server/interrupt.h"
#include "server/output.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <unistd.h>
#include <utility>
#include <vector>

namespace kestrel {

namespace {

using steady = std::chrono::steady_clock;
constexpr std::chrono::seconds ask_again(2); // the cards, whether they have ended the run

std::vector<std::unique_ptr<nexus_follower>> followers;
std::vector<std::pair<int, std::string>> to_say; // session and line
// Descriptors that the loop may still watch: closed a turn after it was told otherwise.
std::vector<unique_fd> unwatched;

nexus_times frame_times(int frames) {
    nexus_times times;
    const module_link link(frame_times_name);
    module_view view;
    if (!link || mod_look(link.head(), view) != nullptr || view.num_y < 2)
        return times;
    for (int frame = 0; frame < std::min(frames, view.num_x); ++frame) {
        times.dead.push_back(mod_get_element(view.at(frame, 0, 0), view.data_type));
        times.live.push_back(mod_get_element(view.at(frame, 1, 0), view.data_type));
    }
    return times;
}

void lose(nexus_follower &f, const std::string &why) {
    f.lost = why;
    f.helper.leave();
}

// Whether the run is over; its end may make that the next step.
void look_at_run(nexus_follower &f) {
    if (!unified_is_run(f.handle, f.run) ||
        (f.scaler_handle >= 0 && !unified_is_run(f.scaler_handle, f.scalers)))
        return lose(f, "a handle was closed before the run was over");
    const bool ask = steady::now() >= f.asked + ask_again;
    if (ask)
        f.asked = steady::now();
    run_state state;
    if (f.run.source->state(f.run.path, ask, state) < 0) {
        unified_run_failed(-1);
        return lose(f, "the cards cannot be asked whether the run is over");
    }
    if (state.begun != f.begun)
        return lose(f, "another run began before it was whole");
    if (state.counting)
        return;
    if (nexus_give_results(-1, f, state) != 0)
        return lose(f, "what the run came to cannot be read");
    f.over = true;
    f.helper.order(nexus_end);
}

// The frames are copied: they are one run's when no other has begun.
void confirm(nexus_follower &f) {
    run_state state;
    if (!unified_is_run(f.handle, f.run) || f.run.source->state(f.run.path, false, state) < 0)
        return lose(f, "a handle was closed before it was whole");
    if (state.begun != f.begun)
        return lose(f, "another run began before it was whole");
    f.confirmed = true;
    f.helper.order(nexus_rename);
}

std::string line_of(const nexus_follower &f) {
    if (f.helper.has_said("whole"))
        return "# NeXus file '" + f.name + "' is whole: " + std::to_string(f.frames) + " frames\n";
    if (!f.lost.empty())
        return "! ERROR: NeXus file '" + f.name + "': " + f.lost + "; what there is stays as '" + f.name +
               ".part'\n";
    f.helper.clear_up();
    return "! ERROR: cannot write NeXus file '" + f.name + "': " + f.helper.cause() + "\n";
}

void look_after(nexus_follower &f) {
    f.helper.listen();
    if (f.helper.has_ended() || !f.lost.empty() || sv_quit > 0)
        return;
    if (!f.over)
        look_at_run(f);
    else if (!f.confirmed && f.helper.has_said("copied"))
        confirm(f);
}

void look_after_all() {
    for (const auto &f : followers) {
        look_after(*f);
        if (!f->helper.has_ended())
            continue;
        to_say.emplace_back(f->cn, line_of(*f));
        unwatched.push_back(f->helper.take_descriptor());
    }
    std::erase_if(followers, [](const auto &f) { return f->helper.has_ended(); });
}

int (*select_add_before)(fd_set *set, int highest) = nullptr;

int select_add(fd_set *set, int highest) {
    if (select_add_before)
        highest = select_add_before(set, highest);
    unwatched.clear();
    if (followers.empty())
        return highest;
    look_after_all();
    for (const auto &f : followers)
        if (const int fd = f->helper.descriptor(); fd < FD_SETSIZE) {
            FD_SET(fd, set);
            highest = std::max(highest, fd);
        }
    return highest;
}

} // namespace

int nexus_give_results(int cn, nexus_follower &f, const run_state &state) {
    nexus_results_of_run results;
    results.state = state;
    results.state.frames = std::min(state.frames, f.description.frames);
    results.times = frame_times(results.state.frames);
    f.frames = results.state.frames;
    if (f.run.source->losses(f.run.path, results.losses) < 0)
        return unified_run_failed(cn);
    if (f.scaler_handle >= 0 &&
        f.scalers.source->scalers(f.scalers.path, results.state.frames, results.scalers.emplace()) < 0)
        return unified_run_failed(cn);
    if (f.helper.give_results(nexus_end_records(f.description, results)))
        return 0;
    sv_printf(cn, "! ERROR: cannot hand over what the run came to: %s\n", std::strerror(errno));
    return -1;
}

void nexus_follow(std::unique_ptr<nexus_follower> follower) {
    followers.push_back(std::move(follower));
}

void files_init() {
    select_add_before = std::exchange(user_select_add, select_add);
}

void files_turn(int cn) {
    if (!followers.empty())
        look_after_all();
    if (to_say.empty())
        return;
    for (const auto &[to, line] : to_say)
        if (to < 0 || to == cn)
            sv_print(to, line);
    std::erase_if(to_say, [cn](const auto &said) { return said.first < 0 || said.first == cn; });
}

void files_connection_lost(int cn) {
    for (const auto &f : followers)
        f->cn = f->cn == cn ? -1 : f->cn;
    for (auto &[to, line] : to_say)
        to = to == cn ? -1 : to;
}

// The helpers close their files; who has not after so long is ended.
void files_exit() {
    const auto end = steady::now() + std::chrono::seconds(10);
    for (const auto &f : followers)
        f->helper.leave();
    const auto is_busy = [](const auto &f) { return !f->helper.has_ended(); };
    while (std::ranges::any_of(followers, is_busy) && steady::now() < end) {
        for (const auto &f : followers)
            f->helper.listen();
        ::usleep(1000);
    }
    followers.clear();
}

} // namespace kestrel
