// The run that a path's histograms and scalers come from, as unified/handles/run.h tells it to whoever writes it down.
#include "pulsar3/lib/counts/corrected.h"
#include "pulsar3/lib/counts/dead_time.h"
#include "pulsar3/lib/counts/loss.h"
#include "pulsar3/lib/counts/run.h"
#include "pulsar3/lib/counts/shape.h"
#include "pulsar3/lib/saved/items.h"
#include "pulsar3/server/sources.h"
#include "unified/handles/run.h"

#include <algorithm>
#include <cstring>
#include <mutex>

namespace kestrel {

namespace {

// step(card's path) for each card; the first that does not give 0 ends it.
template <class F> int for_cards(int path, F step) {
    const PLR3Path &top = *plr3_path(path);
    for (int card = 0; card < top.num_cards; ++card)
        if (const int status = step(plr3_leaf(top, path, card)); status != 0)
            return status;
    return 0;
}

// ---------------------------------------------------------------- description

std::array<double, run_dead_time_names.size()> in_order(const ChannelDTC &d) {
    return {d.processDeadTimeAllEventGradient,     d.processDeadTimeAllEventOffset,
            d.processDeadTimeInWindowGradient,     d.processDeadTimeInWindowOffset,
            d.processDeadTimeAllEventRateGradient, d.processDeadTimeAllEventRateOffset,
            d.processDeadTimeInWindowRateGradient, d.processDeadTimeInWindowRateOffset};
}

int read_words(int path, const saved_item &item, std::vector<std::uint32_t> &words) {
    saved_bytes bytes;
    if (const int status = plr3_read_item(path, item, bytes); status != 0)
        return status;
    words.resize(bytes.size() / sizeof(std::uint32_t));
    std::memcpy(words.data(), bytes.data(), words.size() * sizeof(std::uint32_t));
    return 0;
}

// The registers of the card and its channels, by the list of what is saved of a card.
int describe_registers(int card_path, run_card &card) {
    for (const saved_item &item : plr3_saved_items(card_path)) {
        const auto channel = static_cast<std::size_t>(item.number);
        int status = 0;
        if (item.kind == saved_kind::globals)
            status = read_words(card_path, item, card.registers);
        else if (item.kind == saved_kind::region && item.region == 0 && channel < card.channels.size())
            status = read_words(card_path, item, card.channels[channel].registers);
        if (status != 0)
            return status;
    }
    return 0;
}

int describe_card(int card_path, run_description &run) {
    const PLR3Path &leaf = *plr3_path(card_path);
    if (leaf.num_chan == 0)
        return 0; // none of its channels is in use
    if (!leaf.hist_mod || !leaf.tf_status_mod)
        return plr3_fail(plr3_failed, "card %d keeps its histograms, and no module has them",
                         leaf.startingCard);
    if ((leaf.run_flags & plr3_run_circular) != 0)
        return plr3_fail(plr3_failed, "card %d has a circular buffer, whose frames overwrite each other",
                         leaf.startingCard);
    run_card card;
    card.index = leaf.startingCard;
    card.counts_module = datamod_descriptor(leaf.hist_mod.head());
    card.status_module = datamod_descriptor(leaf.tf_status_mod.head());
    card.channels.resize(static_cast<std::size_t>(leaf.num_chan));
    for (std::size_t chan = 0; chan < card.channels.size(); ++chan) {
        card.channels[chan].dead_time = in_order(leaf.dtc[chan]);
        card.channels[chan].dead_time_flags = leaf.dtc[chan].flags;
    }
    run.cards.push_back(std::move(card));
    return describe_registers(card_path, run.cards.back());
}

int describe(int number, run_description &run) {
    const pulsar3_source *source = pulsar3_source_of(number);
    if (!source)
        return -1;
    const PLR3Path &top = *plr3_path(source->path);
    channel_shape shape;
    if (const int status = plr3_common_shape("write-nexus", source->path, 0, top.num_chan, shape);
        status != 0)
        return pulsar3_source_status(status);
    run = {source->path,
           shape.energies,
           shape.auxiliaries,
           shape.frames,
           top.clock_period,
           top.deadtimeEnergy,
           {}};
    return pulsar3_source_status(for_cards(source->path, [&](int card) { return describe_card(card, run); }));
}

// ---------------------------------------------------------------- state

std::chrono::system_clock::time_point on_the_calendar(plr3_clock::time_point time) {
    using calendar = std::chrono::system_clock;
    return calendar::now() + std::chrono::duration_cast<calendar::duration>(time - plr3_clock::now());
}

// The latest end of a channel's run; nothing while one has none.
std::optional<plr3_clock::time_point> end_of(PLR3Path &leaf, std::optional<plr3_clock::time_point> latest) {
    for (int chan = 0; chan < leaf.num_chan && latest; ++chan) {
        Histogram &h = *leaf.histogram[static_cast<std::size_t>(chan)];
        const std::lock_guard guard(h.mutex);
        latest = h.frames_sent ? std::optional(std::max(*latest, h.run_over)) : std::nullopt;
    }
    return latest;
}

int frames_reached(int path, int &frames) {
    for (int chan = 0; chan < plr3_get_num_chan(path); ++chan) {
        std::int64_t first = 0, top = 0;
        if (const int status = plr3_histogram_get_tf_markers(path, chan, first, top); status != 0)
            return status;
        frames = std::max(frames, static_cast<int>(top));
    }
    return 0;
}

int state_of(int number, bool ask, run_state &state) {
    const pulsar3_source *source = pulsar3_source_of(number);
    if (!source)
        return -1;
    const int path = source->path;
    if (const int status = ask ? plr3_note_ended_runs(path) : 0; status != 0)
        return pulsar3_source_status(status);
    state = {};
    state.counting = plr3_run_is_on(path) || !plr3_run_settled(path);
    std::optional<plr3_clock::time_point> end(plr3_clock::time_point{});
    for_cards(path, [&](int card) {
        state.begun = std::max(state.begun, plr3_path(card)->start_time);
        end = end_of(*plr3_path(card), end);
        return 0;
    });
    state.begun = std::max(state.begun, plr3_path(path)->start_time);
    if (state.begun != plr3_clock::time_point{})
        state.start = on_the_calendar(state.begun);
    if (!state.counting && end && *end != plr3_clock::time_point{})
        state.end = on_the_calendar(*end);
    return pulsar3_source_status(frames_reached(path, state.frames));
}

// ---------------------------------------------------------------- what was counted

int losses_of(int number, std::vector<run_loss> &losses) {
    const pulsar3_source *source = pulsar3_source_of(number);
    if (!source)
        return -1;
    for (int chan = 0; chan < plr3_get_num_chan(source->path); ++chan) {
        frame_loss l;
        if (const int status = plr3_histogram_get_loss(source->path, chan, l); status != 0)
            return pulsar3_source_status(status);
        losses.push_back(
            {l.sent, l.whole, l.incomplete, l.missing, l.beyond, l.kernel, l.late, l.repeated, l.malformed});
    }
    return 0;
}

int scalers_of(int number, int frames, run_scalers &scalers) {
    const pulsar3_source *source = pulsar3_source_of(number);
    if (!source)
        return -1;
    plr3_scaler_box box;
    box.num_chan = plr3_get_num_chan(source->path);
    box.num_frame = std::min(frames, plr3_get_scaler_num_tf(source->path));
    scalers.counted.resize(box.size());
    scalers.corrected.resize(box.size());
    scalers.factors.resize(box.size() / plr3_nr_scalers);
    if (const int status = plr3_scaler_read(source->path, scalers.counted, box); status != 0)
        return pulsar3_source_status(status);
    return pulsar3_source_status(
        plr3_dtc_correct(source->path, scalers.counted, scalers.factors, scalers.corrected, box.num_frame));
}

int path_of_cards(int number) {
    const pulsar3_source *source = pulsar3_source_of(number);
    return source ? source->path : -1;
}

} // namespace

constinit const run_source pulsar3_histogram_run = {describe,   state_of,      losses_of,
                                                    scalers_of, path_of_cards, false};
constinit const run_source pulsar3_scaler_run = {describe,   state_of,      losses_of,
                                                 scalers_of, path_of_cards, true};

} // namespace kestrel
