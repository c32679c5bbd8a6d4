// sim/card: what a channel's detector sees, and what the channel makes of it in one time frame. Under the system's
// lock.
#pragma once

#include "sim/card/random.h"

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace kestrel {

// Energies are in bins of 12 bits (4096), times in seconds.
struct spectrum_line {
    double bin, intensity;
};

enum class dead_time {
    model,           // rates as below, the counts around them Poisson's
    non_paralysable, // event by event: dead for `tau` after each event taken
    paralysable,     // event by event: dead for `tau` after each event
};

struct channel_model {
    double rate = 1e5; // true events a second
    // Of x true events a second of live time, x exp(-x (a + b x)) are seen, x exp(-2 x (c + d x)) land in the spectrum.
    double a = 4e-7, b = 0.0, c = 3e-7, d = 0.0;
    dead_time way = dead_time::model;
    double tau = 1e-6;
    double resets = 0.01;     // of the time is lost to resets
    double noise = 6.0;       // standard deviation at no energy
    double fano = 0.0438;     // variance a bin of energy
    double background = 0.05; // of the events, flat over the spectrum
    std::vector<spectrum_line> lines = {{640, 1.0}, {706, 0.15}, {805, 0.3}};

    // the distribution over bins, made when it is first needed and after each change
    std::vector<double> weights;
    std::vector<std::uint32_t> alias;
    std::vector<float> keep;
    void changed() { weights.clear(); }
};

// How a channel sorts events: its format, windows and good threshold (16-bit energies) as its registers say.
struct channel_format {
    int energy_bits = 12;
    std::size_t energies = 4096, auxiliaries = 1;
    std::array<std::uint32_t, 2> low{}, high{};
    std::uint32_t good = 0;
    std::size_t words() const { return energies * auxiliaries; }
};

struct channel_event {
    std::uint32_t tick, energy, auxiliary;
};

using channel_scalers = std::array<std::uint32_t, 9>;

// Fills a frame of `ticks` ticks: the histogram (zeroed before), the scalers, and, if asked for, each event in order of
// time.
void spectrum_count(channel_model &model, const channel_format &format, card_random &random,
                    std::uint64_t ticks, double clock, std::span<std::uint32_t> histogram,
                    channel_scalers &scalers, std::vector<channel_event> *events);

// The words of the known pattern: of a frame's bin, or of a scaler (`word` from pattern_scalers on).
inline constexpr std::uint32_t pattern_scalers = 1u << 24;
constexpr std::uint32_t pattern_word(std::uint32_t card, std::uint32_t chan, std::uint32_t frame,
                                     std::uint32_t word) {
    return (card + 1) * 0x9E3779B1u + (chan + 1) * 0x85EBCA6Bu + (frame + 1) * 0xC2B2AE35u +
           word * 0x27D4EB2Fu;
}

} // namespace kestrel
