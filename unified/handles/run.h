// unified/handles: the run of counting that a handle's data come from. A source that has one gives a run_source with
// its callbacks (handles.h); who writes the run down asks for it here and knows nothing of the cards. Command thread.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrel {

// What became of a channel's frames, the last five in packets (docs/manual/counting.md).
inline constexpr std::array run_loss_names = {"sent",   "whole", "incomplete", "missing",  "no_place",
                                              "kernel", "late",  "repeated",   "malformed"};
using run_loss = std::array<std::uint64_t, run_loss_names.size()>;

// A channel's dead times, each gradient * energy + offset: seconds, the rate terms in seconds squared.
struct run_dead_time_name {
    const char *name, *units;
};
inline constexpr std::array<run_dead_time_name, 8> run_dead_time_names = {{
    {"all_event_gradient", ""},
    {"all_event_offset", "s"},
    {"in_window_gradient", ""},
    {"in_window_offset", "s"},
    {"all_event_rate_gradient", ""},
    {"all_event_rate_offset", "s2"},
    {"in_window_rate_gradient", ""},
    {"in_window_rate_offset", "s2"},
}};

struct run_channel {
    std::array<double, run_dead_time_names.size()> dead_time{};
    std::int32_t dead_time_flags = 0;
    std::vector<std::uint32_t> registers; // control registers
};

// A card, whose channels are those of the path that follow the channels of the cards before it.
struct run_card {
    int index = 0;                              // in the installation
    int counts_module = -1, status_module = -1; // descriptors, good while the handle stands
    std::vector<run_channel> channels;          // that are in use
    std::vector<std::uint32_t> registers;
};

struct run_description {
    int path = 0;
    int energies = 0, auxiliaries = 0, frames = 0; // that there is room for
    double clock_period = 0;                       // seconds a tick
    double dead_time_energy = 0;
    std::vector<run_card> cards;
};

struct run_state {
    bool counting = false;                         // frames may still come
    int frames = 0;                                // that have ended and have a place
    std::chrono::steady_clock::time_point begun{}; // which tells runs apart
    std::optional<std::chrono::system_clock::time_point> start, end;
};

// Channel fastest, then frame; nine scalers each.
struct run_scalers {
    std::vector<std::uint32_t> counted;
    std::vector<double> corrected, factors; // factors: one a channel and frame
};

// Each gets the source's own path; a negative number means failure, explained.
struct run_source {
    int (*describe)(int path, run_description &run) = nullptr;
    // `ask`: the cards, too, whether they have ended the run by themselves.
    int (*state)(int path, bool ask, run_state &state) = nullptr;
    int (*losses)(int path, std::vector<run_loss> &losses) = nullptr; // one a channel
    int (*scalers)(int path, int frames, run_scalers &scalers) = nullptr;
    int (*path_of)(int path) = nullptr; // of the cards
    bool has_scalers = false;           // what the handle's elements are
};

// The handle's run source and what to call it with; nothing after a line for a handle that is none, or has none.
struct run_handle {
    const run_source *source = nullptr;
    int path = 0;
};
std::optional<run_handle> unified_run_of(int cn, int handle);

// Whether the handle is open still, over the same thing.
bool unified_is_run(int handle, const run_handle &run);

// The line of a callback that has failed: -1.
int unified_run_failed(int cn);

} // namespace kestrel
