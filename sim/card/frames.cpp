#include "sim/card/frames.h"

#include "sim/card/card.h"
#include "sim/card/packets.h"
#include "sim/card/readout.h"

#include <algorithm>

namespace kestrel {

namespace {

constexpr std::size_t frame_words_max = 1 << 20;
constexpr std::uint32_t words_a_time_frame = 4096; // of num_tf
constexpr std::uint32_t whole_card = 0xffffffff;
constexpr std::size_t events_a_message = 8192;
constexpr std::uint64_t last_event = std::uint64_t{1} << 63;

// Buffers of the frame under way, kept from frame to frame.
std::vector<std::uint32_t> histogram;
std::vector<std::uint32_t> scaler_words;
std::vector<channel_event> events;

std::span<const std::uint8_t> bytes_of(std::span<const std::uint32_t> words) {
    return {reinterpret_cast<const std::uint8_t *>(words.data()), words.size_bytes()};
}

void fill_pattern(card &c, int chan, std::span<std::uint32_t> scalers) {
    const auto card_number = static_cast<std::uint32_t>(c.index),
               chan_number = static_cast<std::uint32_t>(chan);
    for (std::uint32_t i = 0; i < histogram.size(); ++i)
        histogram[i] = pattern_word(card_number, chan_number, c.next_frame, i);
    for (std::uint32_t i = 0; i < scalers.size(); ++i)
        scalers[i] = pattern_word(card_number, chan_number, c.next_frame, pattern_scalers + i);
}

void fill_counts(card &c, int chan, const channel_format &format, std::uint64_t ticks, bool list,
                 std::span<std::uint32_t> scalers) {
    card_random random = {cards.seed, static_cast<std::uint64_t>(c.index), static_cast<std::uint64_t>(chan),
                          c.run.number, c.frames_ended};
    channel_scalers counted{};
    events.clear();
    std::ranges::fill(histogram, 0);
    spectrum_count(c.models[static_cast<std::size_t>(chan)], format, random, ticks, cards.clock, histogram,
                   counted, list ? &events : nullptr);
    std::ranges::copy(counted, scalers.begin());
}

// Events as the readout has them: energy, auxiliary bin, time stamp; the last of a time frame is marked. A frame
// without events is a message without any.
void send_events(card &c, int chan) {
    std::vector<std::uint64_t> packed(events.size());
    std::ranges::transform(events, packed.begin(), [](const channel_event &e) {
        return static_cast<std::uint64_t>(e.energy & 0xffff) |
               static_cast<std::uint64_t>(e.auxiliary & 0xffff) << 16 |
               static_cast<std::uint64_t>(e.tick & 0x7fffffff) << 32;
    });
    if (!packed.empty())
        packed.back() |= last_event;
    std::size_t done = 0;
    do {
        const std::size_t n = std::min(events_a_message, packed.size() - done);
        const auto *first = reinterpret_cast<const std::uint8_t *>(packed.data() + done);
        readout_send(c, readout_events, static_cast<std::uint32_t>(chan), c.frames_ended, {first, 8 * n});
        done += n;
    } while (done < packed.size());
}

void end_channel(card &c, int chan, std::uint64_t ticks, bool with_histogram,
                 std::span<std::uint32_t> scalers) {
    const channel_format format = frames_format(c, chan);
    const bool list = (c.readout.mode & readout_events) != 0;
    histogram.resize(format.words());
    if (cards.pattern)
        fill_pattern(c, chan, scalers);
    else if (format.words() > 0)
        fill_counts(c, chan, format, ticks, list, scalers);
    if (!with_histogram || histogram.empty())
        return;
    const bool has_place = frames_kept(c) != 0 && format.words() == frames_format(c, 0).words();
    if (has_place && (cards.keep || c.kind->mini))
        c.words(card_target::memory).write(frames_place(c, chan, c.frames_ended), histogram);
    if (!c.kind->mini)
        return packets_send_frame(c, chan, c.next_frame, bytes_of(histogram));
    if (list)
        send_events(c, chan);
    readout_send(c, readout_histograms, static_cast<std::uint32_t>(chan), c.frames_ended,
                 bytes_of(histogram));
}

} // namespace

channel_format frames_format(card &c, int chan) {
    const std::uint32_t word = c.chan_register(chan, chan_format);
    const std::uint32_t energy = word & 31, auxiliary = (word >> 8 & 15) + (word >> 12 & 15);
    channel_format format;
    format.energy_bits = static_cast<int>(std::min(energy, 16u));
    format.energies = std::size_t{1} << energy;
    format.auxiliaries = std::size_t{1} << auxiliary;
    if (energy < 1 || energy > 16 || format.words() > frame_words_max)
        format.energies = format.auxiliaries = 0;
    for (std::size_t w = 0; w < 2; ++w) {
        const std::uint32_t window = c.chan_register(chan, chan_windows + static_cast<std::uint32_t>(w));
        format.low[w] = window & 0xffff;
        format.high[w] = window >> 16;
    }
    format.good = c.chan_register(chan, chan_good_threshold) & 0xffff;
    return format;
}

std::uint32_t frames_kept(card &c) {
    const std::uint64_t size = static_cast<std::uint64_t>(c.global(glob_num_tf)) * words_a_time_frame;
    const std::size_t words = frames_format(c, 0).words();
    if (words == 0 || size * static_cast<std::uint64_t>(c.channels) > scaler_start)
        return 0;
    return static_cast<std::uint32_t>(size / words);
}

std::uint32_t frames_place(card &c, int chan, std::uint32_t time_frame) {
    const auto words = static_cast<std::uint32_t>(frames_format(c, 0).words());
    return static_cast<std::uint32_t>(chan) * c.global(glob_num_tf) * words_a_time_frame +
           time_frame % frames_kept(c) * words;
}

void frames_end(card &c, std::uint64_t ticks, bool histograms, bool scalers) {
    const auto channels = static_cast<std::uint32_t>(c.channels);
    scaler_words.resize(channels * scalers_per_channel);
    for (std::uint32_t chan = 0; chan < channels; ++chan)
        end_channel(c, static_cast<int>(chan), ticks, histograms,
                    std::span(scaler_words).subspan(chan * scalers_per_channel, scalers_per_channel));
    if (!scalers)
        return;
    if (const std::uint32_t kept = frames_kept(c); kept != 0)
        c.words(card_target::memory)
            .write(scaler_start + c.frames_ended % kept * channels * scalers_per_channel, scaler_words);
    if (c.kind->mini)
        readout_send(c, readout_scalers, whole_card, c.frames_ended, bytes_of(scaler_words));
}

} // namespace kestrel
