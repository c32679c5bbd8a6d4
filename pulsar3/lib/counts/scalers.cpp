#include "pulsar3/lib/counts/scalers.h"

#include "pulsar3/lib/counts/run_sheet.h"
#include "pulsar3/lib/counts/shape.h"

#include <algorithm>
#include <cstring>

namespace kestrel {

namespace {

constexpr std::uint32_t memory_first = 0x80000000; // byte address of the scalers in a card's memory
constexpr std::uint64_t memory_bytes = 0x80000000;

std::size_t count_of(int n) {
    return static_cast<std::size_t>(n);
}

bool within(int first, int count, int size) {
    return first >= 0 && count > 0 && first < size && count <= size - first;
}

int check_box(const char *function, int path, const plr3_scaler_box &b) {
    const int frames = plr3_get_scaler_num_tf(path);
    if (frames < 0)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    if (within(b.scaler, b.num_scaler, plr3_nr_scalers) && within(b.frame, b.num_frame, frames) &&
        within(b.chan, b.num_chan, plr3_path(path)->num_chan))
        return 0;
    return plr3_fail(plr3_out_of_range,
                     "%s: region from (%d, %d, %d) for (%d, %d, %d) does not fit in (%d, %d, %d)", function,
                     b.scaler, b.chan, b.frame, b.num_scaler, b.num_chan, b.num_frame, plr3_nr_scalers,
                     plr3_path(path)->num_chan, frames);
}

// ---- one card

// A card's part of a box: its own channels, and the channels of the box that come before them.
struct card_part {
    PLR3Path &card;
    plr3_scaler_box box;
    int before = 0;
};

// part(card_part) for every card that the box touches, up to the first that fails.
template <class F> int for_cards(int path, const plr3_scaler_box &box, F part) {
    const PLR3Path &top = *plr3_path(path);
    int base = 0;
    for (int i = 0; i < top.num_cards && base < box.chan + box.num_chan; ++i) {
        PLR3Path *card = plr3_path(plr3_leaf(top, path, i));
        if (!card)
            return plr3_fail(plr3_illegal_sub_path, "plr3_scaler: resolved illegal sub path (path=%d)",
                             plr3_leaf(top, path, i));
        const int first = std::max(box.chan, base);
        const int behind = std::min(box.chan + box.num_chan, base + card->num_chan);
        plr3_scaler_box own = box;
        own.chan = first - base;
        own.num_chan = behind - first;
        base += card->num_chan;
        if (behind <= first)
            continue;
        if (const int status = part(card_part{*card, own, first - box.chan}); status != 0)
            return status;
    }
    return 0;
}

// Looks at the card's module: others may have changed it.
int look(PLR3Path &card, module_view &view) {
    result_module &module = card.scalers_mod;
    const char *fault = module ? mod_look(module.head(), view) : "does not exist";
    if (!fault && (view.data_type != MOD_U_INT32 || view.num_x != plr3_nr_scalers ||
                   view.num_y != card.chans_per_card || view.num_t != static_cast<int>(card.scaler_num_tf)))
        fault = "has another shape now";
    else if (!fault && view.data_offset % sizeof(std::uint32_t) != 0)
        fault = "has elements at odd places now";
    return fault ? plr3_fail(plr3_failed, "module '%s' %s", module.name().c_str(), fault) : 0;
}

std::uint32_t *word_at(const module_view &view, int scaler, int chan, int frame) {
    return reinterpret_cast<std::uint32_t *>(view.at(scaler, chan, frame));
}

// The elements of a box lie in runs: f(first word, words) for each, the words as they are numbered in module and memory.
// 0, or what f returns that is not.
template <class F> int for_runs(const PLR3Path &card, const plr3_scaler_box &b, F f) {
    const std::size_t row = plr3_nr_scalers, frame = row * count_of(card.chans_per_card);
    const bool all_scalers = b.num_scaler == plr3_nr_scalers;
    const bool all = all_scalers && b.num_chan == card.chans_per_card;
    const int frames = all ? 1 : b.num_frame, chans = all_scalers ? 1 : b.num_chan;
    const std::size_t words =
        (all ? count_of(b.num_frame) : 1) * (all_scalers ? count_of(b.num_chan) : 1) * count_of(b.num_scaler);
    for (int t = 0; t < frames; ++t)
        for (int c = 0; c < chans; ++c) {
            const std::size_t at = count_of(b.frame + t) * frame + count_of(b.chan + c) * row;
            if (const int status = f(at + count_of(b.scaler), words); status != 0)
                return status;
        }
    return 0;
}

bool is_in_module(const PLR3Path &card, plr3_scaler_from from) {
    return !card.femHandle || (from == plr3_scaler_from::usual && plr3_sends_scalers(card));
}

int check_memory(const PLR3Path &card) {
    const std::uint64_t bytes = 4ULL * card.scaler_num_tf * plr3_nr_scalers * count_of(card.chans_per_card);
    if (bytes <= memory_bytes)
        return 0;
    return plr3_fail(plr3_out_of_range, "scalers of %u time frames are more than the card's memory holds",
                     card.scaler_num_tf);
}

std::uint32_t address_of(std::size_t word) {
    return memory_first + static_cast<std::uint32_t>(4 * word);
}

// Words of the card's memory to the same ones of its module, which lie at `module`.
int fetch(PLR3Path &card, std::uint32_t *module, std::size_t first, std::size_t words) {
    constexpr std::size_t requests_at_once = 16; // between two looks at ^C
    const std::size_t most = requests_at_once * count_of(card.femHandle->max_rx_bytes) / 4;
    for (std::size_t done = 0; done < words; done += most) {
        if (plr3_interrupted())
            return plr3_fail(plr3_failed, "interrupted");
        const std::span<std::uint32_t> part(module + first + done, std::min(most, words - done));
        if (const int status = pulsar3FemReadDMABuff(*card.femHandle, address_of(first + done), part);
            status != 0)
            return status;
    }
    return 0;
}

// Reads from the first to the last scaler of the box into the module, with what lies in between: a frame is less than a
// request of either protocol holds, so that each frame by itself would be more of them.
int fetch_box(PLR3Path &card, const module_view &view, const plr3_scaler_box &b) {
    const std::size_t row = plr3_nr_scalers, frame = row * count_of(card.chans_per_card);
    const std::size_t first = frame * count_of(b.frame) + row * count_of(b.chan) + count_of(b.scaler);
    const std::size_t last = frame * count_of(b.frame + b.num_frame - 1) +
                             row * count_of(b.chan + b.num_chan - 1) + count_of(b.scaler + b.num_scaler - 1);
    const std::vector<bool> over = plr3_frames_over(card, b.frame, b.num_frame);
    const int status = fetch(card, word_at(view, 0, 0, 0), first, last + 1 - first);
    if (status == 0 && b.num_scaler == plr3_nr_scalers)
        plr3_mark_scalers(card, b.frame, over, b.chan, b.num_chan);
    return status;
}

int read_part(const card_part &part, std::span<std::uint32_t> buffer, const plr3_scaler_box &whole,
              plr3_scaler_from from) {
    module_view view;
    if (const int status = look(part.card, view); status != 0)
        return status;
    const plr3_scaler_box &b = part.box;
    if (!is_in_module(part.card, from)) {
        int status = check_memory(part.card);
        if (status == 0)
            status = fetch_box(part.card, view, b);
        if (status != 0)
            return status;
    }
    std::unique_lock<fair_mutex> from_readout; // a mini model's are put there as they come
    if (part.card.readout)
        from_readout = std::unique_lock(part.card.readout->mutex);
    const std::size_t row = count_of(b.num_scaler), frame = row * count_of(whole.num_chan);
    std::uint32_t *to = buffer.data() + row * count_of(part.before);
    const bool together = b.num_scaler == plr3_nr_scalers;
    for (int t = 0; t < b.num_frame; ++t, to += frame)
        for (int c = 0; c < (together ? 1 : b.num_chan); ++c)
            std::memcpy(to + row * count_of(c), word_at(view, b.scaler, b.chan + c, b.frame + t),
                        4 * row * (together ? count_of(b.num_chan) : 1));
    return 0;
}

int clear_part(const card_part &part) {
    PLR3Path &card = part.card;
    module_view view;
    int status = look(card, view);
    if (status == 0)
        status = check_memory(card);
    if (status != 0)
        return status;
    return for_runs(card, part.box, [&](std::size_t first, std::size_t words) {
        if (plr3_interrupted())
            return plr3_fail(plr3_failed, "interrupted");
        if (card.femHandle) {
            const int cleared =
                pulsar3FemZeroDMABuff(*card.femHandle, address_of(first), static_cast<std::uint32_t>(words));
            if (cleared != 0)
                return cleared;
        }
        std::memset(word_at(view, 0, 0, 0) + first, 0, 4 * words);
        return 0;
    });
}

} // namespace

int plr3_get_scaler_num_tf(int path) {
    const PLR3Path *top = plr3_path(path);
    const PLR3Path *card = top ? plr3_path(plr3_leaf(*top, path, 0)) : nullptr;
    return card ? static_cast<int>(card->scaler_num_tf)
                : plr3_fail(plr3_invalid_path, "plr3_get_scaler_num_tf: invalid path %d", path);
}

int plr3_scaler_read(int path, std::span<std::uint32_t> buffer, const plr3_scaler_box &box,
                     plr3_scaler_from from) {
    constexpr const char *name = "plr3_scaler_read";
    if (const int status = check_box(name, path, box); status != 0)
        return status;
    if (buffer.size() < box.size())
        return plr3_fail(plr3_out_of_range, "%s: no room for %zu scalers", name, box.size());
    const int status =
        for_cards(path, box, [&](const card_part &part) { return read_part(part, buffer, box, from); });
    return status == 0 ? 0 : plr3_fail(status, "%s: %s", name, plr3_get_error_message());
}

int plr3_scaler_clear(int path, const plr3_scaler_box &box) {
    constexpr const char *name = "plr3_scaler_clear";
    if (const int status = check_box(name, path, box); status != 0)
        return status;
    const int status = for_cards(path, box, clear_part);
    return status == 0 ? 0 : plr3_fail(status, "%s: %s", name, plr3_get_error_message());
}

int plr3_check_sub_frames(const char *function, int path, plr3_sub_frames sub) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    if (p->scaler_num_sub_frames == 1 && sub.first == 0 && sub.count == 1)
        return 0;
    return plr3_fail(plr3_out_of_range, "%s: sub-frames %d for %d of %d: only frames of one are known",
                     function, sub.first, sub.count, p->scaler_num_sub_frames);
}

int plr3_scaler_read_sf(int path, std::span<std::uint32_t> buffer, const plr3_scaler_box &box,
                        plr3_sub_frames sub) {
    const int status = plr3_check_sub_frames("plr3_scaler_read_sf", path, sub);
    return status == 0 ? plr3_scaler_read(path, buffer, box) : status;
}

} // namespace kestrel
