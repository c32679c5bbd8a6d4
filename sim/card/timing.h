// sim/card: the run line, the time frames, and the thread that ends them. Called under the system's lock but for the
// first two.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kestrel {

struct card;

// A card's place in its run. The bits of its timing register ask for a run; card 0's run line and its counting enable
// gate those of all.
struct card_run_state {
    bool running = false, counting = false;
    bool in_frame = false;                         // a time frame is under way, perhaps paused
    bool hist = false, scalers = false;            // what runs
    bool finished = false;                         // the internal timing made all its frames
    std::uint64_t ticks = 0;                       // of the frame under way, counted before `since`
    std::chrono::steady_clock::time_point since{}; // when counting last began
    std::uint64_t number = 0;                      // of the run, since the program began
};

void timing_start();
void timing_stop();

// A write to registers of channels or globals, or a card switched off or on: what follows from it has happened on
// return, so that the answer to a stop says that the last time frame has ended.
void timing_registers_written(card &c);

// A write to the data link's registers from `first` on.
void timing_link_written(card &c, std::uint32_t first, std::size_t words);

// The timing unit, for cards that follow it.
void timing_gate(bool open);
void timing_next_frame();

} // namespace kestrel
