#include "pulsar3/lib/counts/run_sheet.h"

#include "modules/store/run_sheet.h"
#include "pulsar3/lib/counts/dead_time.h"
#include "pulsar3/lib/counts/shape.h"
#include "pulsar3/lib/paths/card_module.h"

#include <atomic>
#include <chrono>
#include <string>

namespace kestrel {

namespace {

constexpr std::uint32_t final_scalers = 1;

// A word of the sheet: row 0 is the card's. Others read it at any time.
void put(PLR3Path &card, std::size_t row, std::size_t word, double value) {
    auto *words = reinterpret_cast<double *>(card.run_sheet_mod.view().data());
    std::atomic_ref(words[row * run_sheet_words + word]).store(value, std::memory_order_release);
}

double get(PLR3Path &card, std::size_t row, std::size_t word) {
    auto *words = reinterpret_cast<double *>(card.run_sheet_mod.view().data());
    return std::atomic_ref(words[row * run_sheet_words + word]).load(std::memory_order_acquire);
}

template <class F> void for_sheets(int path, int first, int end, F f) {
    const PLR3Path &top = *plr3_path(path);
    for (int card = first; card < end; ++card)
        if (PLR3Path &leaf = *plr3_path(plr3_leaf(top, path, card)); leaf.run_sheet_mod)
            f(leaf);
}

void put_shape(PLR3Path &card) {
    const channel_shape shape = plr3_channel_shape(card, 0);
    put(card, 0, run_sheet_channels, card.num_chan);
    put(card, 0, run_sheet_energies, shape.energies);
    put(card, 0, run_sheet_auxiliaries, shape.auxiliaries);
    put(card, 0, run_sheet_places, shape.frames);
    put(card, 0, run_sheet_circular, (card.run_flags & plr3_run_circular) != 0);
    put(card, 0, run_sheet_clock, card.clock_period);
    put(card, 0, run_sheet_first_channel, card.chan_of_system);
}

void put_dead_time(PLR3Path &card, std::size_t chan) {
    const ChannelDTC &d = card.dtc[chan];
    const double energy = card.deadtimeEnergy;
    const double words[] = {
        plr3_dtc_at_energy(d.processDeadTimeAllEventGradient, d.processDeadTimeAllEventOffset, energy),
        plr3_dtc_at_energy(d.processDeadTimeAllEventRateGradient, d.processDeadTimeAllEventRateOffset,
                           energy),
        plr3_dtc_at_energy(d.processDeadTimeInWindowGradient, d.processDeadTimeInWindowOffset, energy),
        plr3_dtc_at_energy(d.processDeadTimeInWindowRateGradient, d.processDeadTimeInWindowRateOffset,
                           energy),
        (d.flags & plr3_dtc_omit) != 0 ? 1.0 : 0.0,
        (d.flags & plr3_dtc_use_good_event) != 0 ? 1.0 : 0.0};
    for (std::size_t word = 0; word < std::size(words); ++word)
        put(card, 1 + chan, word, words[word]);
}

void clear_scaler_status(PLR3Path &card) {
    for (std::uint32_t &word : plr3_words(card.scalar_tf_status_mod))
        std::atomic_ref(word).store(0, std::memory_order_relaxed);
}

} // namespace

int plr3_make_run_sheet(PLR3Path &card) {
    return plr3_make_module(
        card.run_sheet_mod, card.message_to, run_sheet_prefix + std::to_string(card.startingCard),
        {static_cast<int>(run_sheet_words), 1 + card.chans_per_card, 1, false, mod_element::float64}, true);
}

void plr3_sheets_clear(int path, int first, int end) {
    for_sheets(path, first, end, [](PLR3Path &card) { put(card, 0, run_sheet_begun, 0); });
}

void plr3_sheets_begin(int path, int first, int end) {
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    for_sheets(path, first, end, [&](PLR3Path &card) {
        clear_scaler_status(card);
        put_shape(card);
        for (std::size_t chan = 0; chan < static_cast<std::size_t>(card.chans_per_card); ++chan)
            put_dead_time(card, chan);
        put(card, 0, run_sheet_cards, end - first);
        put(card, 0, run_sheet_frames, 0);
        put(card, 0, run_sheet_state, run_counting);
        put(card, 0, run_sheet_begun, now.count());
    });
}

void plr3_sheet_end(PLR3Path &card, std::uint64_t frames) {
    if (!card.run_sheet_mod || get(card, 0, run_sheet_state) != run_counting)
        return; // the end of a run before stands there
    put(card, 0, run_sheet_frames, static_cast<double>(frames));
    put(card, 0, run_sheet_state, run_over);
}

std::vector<bool> plr3_frames_over(const PLR3Path &card, int first, int count) {
    const std::span<std::uint32_t> status = plr3_words(card.tf_status_mod);
    const auto channels = static_cast<std::size_t>(card.chans_per_card);
    std::vector<bool> over(static_cast<std::size_t>(count));
    for (std::size_t i = 0; i < over.size(); ++i) {
        const std::size_t at = (static_cast<std::size_t>(first) + i) * channels;
        const auto used = static_cast<std::size_t>(card.num_chan);
        over[i] = at + channels <= status.size() / 2;
        for (std::size_t chan = 0; over[i] && chan < used; ++chan)
            over[i] = std::atomic_ref(status[at + chan]).load(std::memory_order_acquire) != 0;
    }
    return over;
}

void plr3_mark_scalers(PLR3Path &card, int first, const std::vector<bool> &over, int chan, int num_chan) {
    const std::span<std::uint32_t> status = plr3_words(card.scalar_tf_status_mod);
    const auto channels = static_cast<std::size_t>(card.chans_per_card);
    for (std::size_t i = 0; i < over.size(); ++i)
        for (int c = chan; over[i] && c < chan + num_chan; ++c) {
            const std::size_t at =
                (static_cast<std::size_t>(first) + i) * channels + static_cast<std::size_t>(c);
            if (at < status.size() / 2)
                std::atomic_ref(status[at]).store(final_scalers, std::memory_order_release);
        }
}

} // namespace kestrel
