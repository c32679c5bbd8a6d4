#include "pulsar3/lib/counts/shape.h"

#include "pulsar3/lib/counts/run.h"
#include "pulsar3/lib/counts/run_sheet.h"
#include "pulsar3/lib/frames/count_board.h"
#include "pulsar3/lib/paths/access.h"
#include "pulsar3/lib/paths/card_module.h"
#include "pulsar3/lib/registers/bits.h"
#include "pulsar3/lib/registers/register_table.h"

#include <algorithm>
#include <string>
#include <vector>

namespace kestrel {

namespace {

constexpr std::uint32_t default_format = 12;  // 4096 energy bins, nothing else
constexpr std::uint32_t format_unknown = ~0U; // no register holds this: it is more energy bits than are taken
constexpr int status_planes = 2;              // the status of each frame, and its missing packets

// Words of a channel's histograms.
std::uint64_t memory_words(const PLR3Path &card) {
    return std::uint64_t{card.hist_frames_num_tf} * plr3_default_bins;
}

int field(std::uint32_t word, const char *name) {
    const register_field &f = plr3_register_field("format", name);
    return static_cast<int>(plr3_bits(word, f.first_bit, f.last_bit));
}

void set_format(Histogram &h, std::uint32_t word) {
    h.format_reg = word;
    h.nbits_eng = field(word, "nbits-eng");
    h.nbits_aux1 = field(word, "nbits-aux1");
    h.nbits_aux2 = field(word, "nbits-aux2");
    h.aux1_mode = field(word, "aux1-mode");
    h.aux2_mode = field(word, "aux2-mode");
    h.nbins_eng = 1 << std::min(h.nbits_eng, 30); // more than 16 bits is refused later
    h.nbins_aux1 = 1 << h.nbits_aux1;
    h.nbins_aux2 = 1 << h.nbits_aux2;
}

// A format that leaves no frame is refused.
int check_format(const PLR3Path &card, int chan, std::uint32_t word) {
    const int energy = field(word, "nbits-eng"), aux1 = field(word, "nbits-aux1"),
              aux2 = field(word, "nbits-aux2");
    const register_field &limits = plr3_register_field("format", "nbits-eng");
    const std::uint64_t words = std::uint64_t{1} << std::min(energy + aux1 + aux2, 62);
    if (energy >= limits.lowest && energy <= limits.highest && words <= memory_words(card))
        return 0;
    return plr3_fail(plr3_failed,
                     "plr3_format_run: channel %d: frames of %d energy bits and %d auxiliary bits do not fit "
                     "into %u time frames of 4096 words",
                     chan, energy, aux1 + aux2, card.hist_frames_num_tf);
}

Histogram &channel(const PLR3Path &card, int chan) {
    return *card.histogram[static_cast<std::size_t>(chan)];
}

// Nothing is written to the modules until they have been made anew.
void clear_areas(PLR3Path &card) {
    if (card.readout) {
        const std::lock_guard guard(card.readout->mutex);
        card.readout->scalers = {};
    }
    for (int chan = 0; chan < card.chans_per_card; ++chan) {
        Histogram &h = channel(card, chan);
        const std::lock_guard guard(h.mutex);
        h.buffer = {};
        h.frames.set_area({});
    }
}

void set_areas(PLR3Path &card, int frames) {
    const std::span<std::uint32_t> words = plr3_words(card.hist_mod), status = plr3_words(card.tf_status_mod);
    const auto channels = static_cast<std::size_t>(card.chans_per_card);
    for (std::size_t chan = 0; chan < channels; ++chan) {
        Histogram &h = channel(card, static_cast<int>(chan));
        frame_area area;
        area.frame_words = plr3_channel_shape(card, static_cast<int>(chan)).frame_words();
        h.buffer = words.subspan(chan * (words.size() / channels), words.size() / channels);
        area.buffer =
            h.buffer.first(std::min(h.buffer.size(), area.frame_words * static_cast<std::size_t>(frames)));
        area.status = &status[chan];
        area.missing = &status[chan + channels * static_cast<std::size_t>(frames)];
        area.pitch = channels;
        area.farm_mode = card.features.farm_mode != 0;
        area.circular = (card.run_flags & plr3_run_circular) != 0;
        const std::lock_guard guard(h.mutex);
        h.frames.set_area(area);
    }
}

// Where frames and scalers go, as the run flags are now.
void place_frames(PLR3Path &card) {
    if (plr3_has_histograms(card))
        set_areas(card, plr3_channel_shape(card, 0).frames);
    plr3_place_scalers(card);
}

int make_status(result_module &module, const PLR3Path &card, const char *name, int frames) {
    return plr3_make_module(module, card.message_to, name + std::to_string(card.startingCard),
                            {card.chans_per_card, frames, status_planes}, true);
}

int make_histograms(PLR3Path &card, const channel_shape &shape) {
    const int status =
        plr3_make_module(card.hist_mod, card.message_to, "plr3_hist" + std::to_string(card.startingCard),
                         {shape.energies, shape.frames * shape.auxiliaries, card.chans_per_card}, true);
    return status != 0 ? status : make_status(card.tf_status_mod, card, "plr3_tf_status", shape.frames);
}

// The words of every channel's format register.
int read_formats(int path, const PLR3Path &card, std::vector<std::uint32_t> &words) {
    words.resize(static_cast<std::size_t>(card.chans_per_card));
    for (int chan = 0; chan < card.chans_per_card; ++chan) {
        std::uint32_t &word = words[static_cast<std::size_t>(chan)];
        const int status =
            chan < card.num_chan ? plr3_read_reg(path, chan, 0, plr3_format_offset, {&word, 1}) : 0;
        if (status != 0)
            return status;
        if (chan >= card.num_chan || card.num_chan == 0) // one that is not in use
            word = channel(card, chan).format_reg;
        else if (const int refused = check_format(card, chan, word); refused != 0)
            return refused;
    }
    return 0;
}

int follow_card(int path, PLR3Path &card) {
    std::vector<std::uint32_t> words;
    if (const int status = read_formats(path, card, words); status != 0)
        return status;
    bool changed = false;
    for (int chan = 0; chan < card.chans_per_card; ++chan) {
        Histogram &h = channel(card, chan);
        changed = changed || h.format_reg != words[static_cast<std::size_t>(chan)];
        const std::lock_guard guard(h.mutex); // a readout's thread puts events into bins
        set_format(h, words[static_cast<std::size_t>(chan)]);
    }
    if (!changed) {
        place_frames(card);
        return 0;
    }
    const int status = plr3_histogram_mkmod(card);
    if (status == 0)
        plr3_keep_card_modules(card);
    else
        channel(card, 0).format_reg = format_unknown; // the next start tries again
    return status;
}

int write_format(int path, int chan, const format_request &r) {
    std::uint32_t word = 0;
    if (const int status = plr3_read_reg(path, chan, 0, plr3_format_offset, {&word, 1}); status != 0)
        return status;
    const struct {
        const char *name;
        int value;
    } asked[] = {{"nbits-eng", r.nbits_eng},
                 {"nbits-aux1", r.nbits_aux1},
                 {"nbits-aux2", r.nbits_aux2},
                 {"aux1-mode", r.aux1_mode},
                 {"aux2-mode", r.aux2_mode}};
    for (const auto &[name, value] : asked) {
        if (value < 0)
            continue;
        const register_field &f = plr3_register_field("format", name);
        const field_value one[] = {{f, value}};
        std::uint32_t bits = 0;
        if (const int status = plr3_pack_fields("plr3_format_run", one, bits); status != 0)
            return status;
        word = (word & ~plr3_mask(f.first_bit, f.last_bit)) | bits;
    }
    int card_path = 0, chan_of_card = 0;
    if (const int status = plr3_resolve_path(path, chan, card_path, chan_of_card); status != 0)
        return status;
    if (const int status = check_format(*plr3_path(card_path), chan_of_card, word); status != 0)
        return status;
    return plr3_write_reg(path, chan, 0, plr3_format_offset, {&word, 1});
}

} // namespace

channel_shape plr3_channel_shape(const PLR3Path &card, int chan_of_card) {
    const Histogram &h = channel(card, chan_of_card);
    channel_shape shape{h.nbins_eng, h.nbins_aux1 * h.nbins_aux2, 0};
    const std::size_t words = shape.frame_words();
    shape.frames = words == 0 ? 0 : static_cast<int>(memory_words(card) / words);
    return shape;
}

int plr3_shape_of(int path, int chan, channel_shape &shape) {
    int card_path = 0, chan_of_card = 0;
    if (const int status = plr3_resolve_path(path, chan, card_path, chan_of_card); status != 0)
        return status;
    const PLR3Path &card = *plr3_path(card_path);
    shape = plr3_channel_shape(card, chan_of_card);
    // A module has frames for channel 0; a channel with smaller frames has no more of them.
    shape.frames = std::min(shape.frames, plr3_channel_shape(card, 0).frames);
    return 0;
}

int plr3_common_shape(const char *function, int path, int first, int num_chan, channel_shape &shape) {
    if (const int status = plr3_shape_of(path, first, shape); status != 0)
        return status;
    for (int chan = first + 1; chan < first + num_chan; ++chan) {
        channel_shape other;
        if (const int status = plr3_shape_of(path, chan, other); status != 0)
            return status;
        if (other == shape)
            continue;
        const Histogram *h[2] = {};
        for (int i = 0; i < 2; ++i) {
            int card_path = 0, chan_of_card = 0;
            plr3_resolve_path(path, i == 0 ? first : chan, card_path, chan_of_card);
            h[i] = &channel(*plr3_path(card_path), chan_of_card);
        }
        return plr3_fail(plr3_out_of_range,
                         "%s: If reading more than 1 channel formats must match but Chan %d=(%d,%d,%d, %d), "
                         "Chan %d=(%d, %d, %d, %d)",
                         function, first, h[0]->nbins_eng, h[0]->nbins_aux1, h[0]->nbins_aux2, shape.frames,
                         chan, h[1]->nbins_eng, h[1]->nbins_aux1, h[1]->nbins_aux2, other.frames);
    }
    return 0;
}

bool plr3_has_histograms(const PLR3Path &card) {
    return card.features.generation != PulsarGen3Mini ||
           (card.readout_mode & (Plr3mRd_SendHistFrames | Plr3mRd_SendHistList)) != 0;
}

bool plr3_sends_scalers(const PLR3Path &card) {
    return card.features.generation == PulsarGen3Mini && (card.readout_mode & Plr3mRd_SendScalars) != 0;
}

void plr3_make_channels(PLR3Path &card, int path, int card_number) {
    for (int chan = 0; chan < card.chans_per_card; ++chan) {
        auto &slot = card.histogram[static_cast<std::size_t>(chan)];
        slot = std::make_unique<Histogram>();
        slot->path = path;
        slot->card = card_number;
        slot->chan_of_card = chan;
        slot->chan_of_system = card.chan_of_system + chan;
        slot->message_to = card.message_to;
        set_format(*slot, default_format);
        plr3_board_add(*slot);
    }
}

int plr3_histogram_mkmod(PLR3Path &card) {
    const channel_shape shape = plr3_channel_shape(card, 0);
    clear_areas(card);
    if (plr3_has_histograms(card))
        if (const int status = make_histograms(card, shape); status != 0)
            return status;
    if (plr3_has_histograms(card) || plr3_sends_scalers(card))
        if (const int status =
                make_status(card.scalar_tf_status_mod, card, "plr3_scalar_tf_status", shape.frames);
            status != 0)
            return status;
    card.total_scaler_num_tf = card.scaler_num_tf = static_cast<std::uint32_t>(shape.frames);
    if (const int status = plr3_make_module(card.scalers_mod, card.message_to,
                                            "plr3_scalers" + std::to_string(card.startingCard),
                                            {plr3_nr_scalers, card.chans_per_card, shape.frames}, true);
        status != 0)
        return status;
    if (const int status = plr3_make_run_sheet(card); status != 0)
        return status;
    place_frames(card);
    return 0;
}

void plr3_place_scalers(PLR3Path &card) {
    if (!card.readout)
        return;
    const std::size_t channels = static_cast<std::size_t>(card.chans_per_card);
    const std::span<std::uint32_t> status = plr3_words(card.scalar_tf_status_mod);
    const std::lock_guard guard(card.readout->mutex);
    card.readout->scalers = {plr3_words(card.scalers_mod), status.first(status.size() / status_planes),
                             channels, (card.run_flags & plr3_run_circular) != 0};
}

void plr3_keep_card_modules(PLR3Path &card) {
    for (result_module *module : {&card.hist_mod, &card.tf_status_mod, &card.scalers_mod,
                                  &card.scalar_tf_status_mod, &card.run_sheet_mod})
        module->keep();
}

int plr3_follow_formats(int path, int first, int end) {
    const PLR3Path &top = *plr3_path(path);
    for (int card = first; card < end; ++card) {
        const int leaf = plr3_leaf(top, path, card);
        if (const int status = follow_card(leaf, *plr3_path(leaf)); status != 0)
            return status;
    }
    return 0;
}

int plr3_format_run(int path, int chan, const format_request &request) {
    const PLR3Path *top = plr3_path(path);
    if (!top)
        return plr3_fail(plr3_invalid_path, "plr3_format_run: invalid path %d", path);
    if (const int status = plr3_note_ended_runs(path); status != 0)
        return status;
    if (plr3_run_is_on(path))
        return plr3_fail(plr3_failed, "plr3_format_run: path %d is counting", path);
    if (chan < -1 || chan >= top->num_chan)
        return plr3_fail(plr3_out_of_range, "plr3_format_run: illegal channel specified (%d)", chan);
    const int first = chan < 0 ? 0 : chan, end = chan < 0 ? top->num_chan : chan + 1;
    for (int one = first; one < end; ++one)
        if (const int status = write_format(path, one, request); status != 0)
            return status;
    return plr3_follow_formats(path, 0, top->num_cards);
}

} // namespace kestrel
