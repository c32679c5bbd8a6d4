// modules/store: what a card's module "plr3_run%d" says of its last run, for programs that follow it: doubles, one row
// for the card and one for each channel's dead time. The readout library alone writes it.
//
// run_sheet_begun is 0 while a run is being prepared: whoever copies frames looks at it before and after, and trusts
// the copy when it was the same.
#pragma once

#include <cstddef>

namespace kestrel {

inline constexpr const char *run_sheet_prefix = "plr3_run";
inline constexpr std::size_t run_sheet_words = 16; // of a row

// The card's row.
enum run_sheet_word : std::size_t {
    run_sheet_begun,    // seconds since the epoch; the same for all cards of a run
    run_sheet_state,    // run_over or run_counting
    run_sheet_frames,   // that the card has ended, once the run is over
    run_sheet_channels, // in use
    run_sheet_energies, // bins of a channel
    run_sheet_auxiliaries,
    run_sheet_places,        // frames that there is room for; later ones are thrown away
    run_sheet_circular,      // 1: frame n lies at place n modulo the places
    run_sheet_clock,         // seconds a tick
    run_sheet_first_channel, // as the path numbers them
    run_sheet_cards,         // of the run
};
inline constexpr double run_over = 0, run_counting = 1;

// A channel's row: dead times at the energy that was set when the run began.
enum run_sheet_channel_word : std::size_t {
    run_sheet_all_event,       // seconds
    run_sheet_all_event_rate,  // seconds squared
    run_sheet_in_window,       // seconds
    run_sheet_in_window_rate,  // seconds squared
    run_sheet_omitted,         // 1: the channel has factor 0
    run_sheet_use_good_events, // 1: its events are those above the good threshold
};

} // namespace kestrel
