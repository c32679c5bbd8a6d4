#include "sim/card/timing.h"

#include "sim/card/card.h"
#include "sim/card/frames.h"
#include "sim/card/packets.h"

#include <algorithm>
#include <mutex>
#include <thread>

namespace kestrel {

namespace {

using time_point = std::chrono::steady_clock::time_point;

constexpr std::uint32_t hist_run = 1u << 28, counting_enabled = 1u << 29, scalers_run = 1u << 31;
constexpr std::uint32_t source_mask = 7;
constexpr std::uint32_t status_running = 1, status_counting = 2;
constexpr std::uint32_t link_counter_reset = 16;

enum source : std::uint32_t { software, software_frames, timing_unit, internal };

std::thread timing_thread;
bool ending = false; // under the lock
bool gate_open = false;

card &master() {
    return *cards.cards.front();
}

source source_of(card &c) {
    return static_cast<source>(c.global(glob_time_a) & source_mask);
}

std::uint64_t ticks_between(time_point from, time_point to) {
    const double seconds = std::chrono::duration<double>(to - from).count();
    return seconds > 0 ? static_cast<std::uint64_t>(seconds * cards.clock * cards.speed) : 0;
}

time_point after_ticks(time_point from, std::uint64_t ticks) {
    const std::chrono::duration<double> seconds(static_cast<double>(ticks) / cards.clock / cards.speed);
    return from + std::chrono::duration_cast<std::chrono::steady_clock::duration>(seconds);
}

bool wants_run(card &c) {
    return c.alive && (c.global(glob_time_a) & (hist_run | scalers_run)) != 0;
}

bool wants_count(card &c) {
    switch (source_of(c)) {
    case software:
    case software_frames:
        return (c.global(glob_time_a) & counting_enabled) != 0;
    case timing_unit:
        return gate_open;
    case internal:
        return (c.global(glob_time_a) & counting_enabled) != 0 && !c.run.finished;
    default:
        return false;
    }
}

// Card 0's enable gates the others where it is a matter of software; its own timing has no say in theirs.
bool enabled_by_master(card &c) {
    return source_of(c) == timing_unit || (master().global(glob_time_a) & counting_enabled) != 0;
}

void put_status(card &c) {
    c.set_global(glob_status_a,
                 (c.run.running ? status_running : 0) | (c.run.counting ? status_counting : 0));
    c.set_global(glob_time_status_a, c.frames_ended);
}

void end_frame(card &c, std::uint64_t ticks) {
    c.run.in_frame = false;
    frames_end(c, ticks, c.run.hist, c.run.scalers);
    ++c.next_frame;
    ++c.frames_ended;
}

void begin_frame(card &c) {
    c.run.in_frame = true;
    c.run.ticks = 0;
}

void lose_run(card_run_state &run) {
    const std::uint64_t number = run.number;
    run = {};
    run.number = number;
}

void begin_run(card &c) {
    lose_run(c.run);
    c.run.running = true;
    ++c.run.number;
    c.frames_ended = 0;
}

void begin_counting(card &c, time_point now) {
    c.run.counting = true;
    c.run.since = now;
    if (!c.run.in_frame)
        begin_frame(c);
}

void end_counting(card &c, time_point now) {
    c.run.counting = false;
    c.run.ticks += ticks_between(c.run.since, now);
    if (source_of(c) == internal) // the thread may be late
        c.run.ticks = std::min<std::uint64_t>(c.run.ticks, c.global(glob_time_fixed));
    if (source_of(c) == software_frames)
        end_frame(c, c.run.ticks);
}

// Brings a card's run to where the registers, the master and the timing unit want it.
void follow(card &c, time_point now) {
    card_run_state &run = c.run;
    const bool running = wants_run(c) && wants_run(master());
    if (!c.alive)
        lose_run(run); // with the frame under way
    if (running && !run.running)
        begin_run(c);
    if (running) { // what runs is what ran when the run ends
        run.hist = (c.global(glob_time_a) & hist_run) != 0;
        run.scalers = (c.global(glob_time_a) & scalers_run) != 0;
    }
    const bool counting = running && wants_count(c) && enabled_by_master(c);
    if (counting && !run.counting)
        begin_counting(c, now);
    if (!counting && run.counting)
        end_counting(c, now);
    if (!running && run.running) {
        if (run.in_frame)
            end_frame(c, run.ticks);
        run.running = false;
    }
    put_status(c);
}

void follow_all() {
    const time_point now = std::chrono::steady_clock::now();
    for (const auto &c : cards.cards)
        follow(*c, now);
    cards.changed.notify_all();
}

// When the frame under way ends by itself; never for most.
time_point frame_due(card &c) {
    if (!c.run.counting || source_of(c) != internal)
        return time_point::max();
    const std::uint64_t length = c.global(glob_time_fixed);
    return after_ticks(c.run.since, length - std::min(length, c.run.ticks));
}

// The end of an internal frame, and the beginning of the next.
void end_internal(card &c, time_point due) {
    const std::uint32_t length = c.global(glob_time_fixed), frames = c.global(glob_frames);
    if (length != 0)
        end_frame(c, length);
    if (length == 0 || (frames != 0 && c.frames_ended >= frames)) {
        c.run.finished = true;
        c.run.counting = c.run.in_frame = false;
    } else {
        begin_frame(c);
        c.run.since = due;
    }
    put_status(c);
}

// One turn of what is due. False when nothing was.
bool work(time_point now) {
    bool done = false;
    for (const auto &c : cards.cards) {
        if (const time_point due = frame_due(*c); due <= now) {
            end_internal(*c, due);
            done = true;
        }
    }
    return packets_work() || done;
}

void run_thread() {
    std::unique_lock guard(cards.lock);
    while (!ending) {
        if (work(std::chrono::steady_clock::now())) {
            guard.unlock(); // others who wait come first
            guard.lock();
            continue;
        }
        time_point next = packets_due().value_or(time_point::max());
        for (const auto &c : cards.cards)
            next = std::min(next, frame_due(*c));
        if (next == time_point::max())
            cards.changed.wait(guard);
        else
            cards.changed.wait_until(guard, next);
    }
}

} // namespace

void timing_start() {
    timing_thread = std::thread(run_thread);
}

void timing_stop() {
    {
        std::lock_guard guard(cards.lock);
        ending = true;
        cards.changed.notify_all();
    }
    if (timing_thread.joinable())
        timing_thread.join();
}

void timing_registers_written(card &) {
    follow_all();
}

void timing_link_written(card &c, std::uint32_t first, std::size_t words) {
    if (link_counter_reset < first || link_counter_reset >= first + words)
        return;
    if (c.words(card_target::rdma).get(link_counter_reset) == 1)
        c.next_frame = 0;
}

void timing_gate(bool open) {
    gate_open = open;
    follow_all();
}

void timing_next_frame() {
    const time_point now = std::chrono::steady_clock::now();
    for (const auto &c : cards.cards) {
        if (source_of(*c) != timing_unit || !c->run.in_frame)
            continue;
        end_frame(*c, c->run.ticks + (c->run.counting ? ticks_between(c->run.since, now) : 0));
        if (c->run.counting) { // else the next one begins when the gate opens
            begin_frame(*c);
            c->run.since = now;
        }
        put_status(*c);
    }
}

} // namespace kestrel
