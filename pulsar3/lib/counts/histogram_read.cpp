#include "pulsar3/lib/counts/histogram_read.h"

#include "pulsar3/lib/counts/run.h"
#include "pulsar3/lib/counts/shape.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace kestrel {

namespace {

struct region {
    int eng, aux, chan, tf;
    int num_eng, num_aux, num_chan, num_tf;
};

bool is_passive(const PLR3Path &card) {
    return !plr3_has_histograms(card);
}

bool is_circular(const PLR3Path &path) {
    return (path.run_flags & plr3_run_circular) != 0;
}

// Whether n elements from `first` on are among `size` of them.
bool inside(int first, int n, int size) {
    return first >= 0 && n >= 0 && first <= size && n <= size - first;
}

int check_region(const char *function, int path, const region &r, channel_shape &shape) {
    const PLR3Path *top = plr3_path(path);
    if (!top)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    if (r.chan < 0 || r.chan >= top->num_chan || r.num_chan > top->num_chan - r.chan)
        return plr3_fail(plr3_out_of_range, "%s: channel %d for %d channels is out of range 0..%d", function,
                         r.chan, r.num_chan, top->num_chan - 1);
    if (const int status = plr3_common_shape(function, path, r.chan, std::max(r.num_chan, 1), shape);
        status != 0)
        return status;
    if (r.num_eng <= 0 || r.num_aux <= 0 || r.num_chan <= 0 || r.num_tf <= 0)
        return plr3_fail(plr3_out_of_range,
                         "%s: no data requested from region from (%d, %d, %d, %d) for (%d, %d, %d, %d)",
                         function, r.eng, r.aux, r.chan, r.tf, r.num_eng, r.num_aux, r.num_chan, r.num_tf);
    if (is_circular(*top) && r.num_tf > shape.frames)
        return plr3_fail(plr3_out_of_range,
                         "%s: Circular buffer read requests %d frames, but buffer has only %d", function,
                         r.num_tf, shape.frames);
    const bool frames_fit = is_circular(*top) ? r.tf >= 0 : inside(r.tf, r.num_tf, shape.frames);
    if (!inside(r.eng, r.num_eng, shape.energies) || !inside(r.aux, r.num_aux, shape.auxiliaries) ||
        !frames_fit)
        return plr3_fail(
            plr3_out_of_range,
            "%s: Requested region from (%d, %d, %d, %d) for (%d, %d, %d, %d) DOES NOT FIT IN (%d, %d, %d, %d)",
            function, r.eng, r.aux, r.chan, r.tf, r.num_eng, r.num_aux, r.num_chan, r.num_tf, shape.energies,
            shape.auxiliaries, top->num_chan, shape.frames);
    return 0;
}

// The word of a channel's memory where a row begins.
std::size_t word_of(const channel_shape &shape, int tf, int aux, int eng) {
    return (static_cast<std::size_t>(tf % shape.frames) * static_cast<std::size_t>(shape.auxiliaries) +
            static_cast<std::size_t>(aux)) *
               static_cast<std::size_t>(shape.energies) +
           static_cast<std::size_t>(eng);
}

// The card's byte address of a word of a channel of a mini model, if all the words have one: they end with 32 bits.
std::optional<std::uint32_t> card_address(const PLR3Path &card, int chan, std::uint64_t word,
                                          std::uint64_t words) {
    const auto memory = std::uint64_t{card.hist_frames_num_tf} * plr3_default_bins;
    const std::uint64_t first = static_cast<std::uint64_t>(chan) * memory + word;
    if (first + words <= std::uint64_t{1} << 30)
        return static_cast<std::uint32_t>(4 * first);
    plr3_fail(plr3_out_of_range,
              "plr3_histogram_read: word %llu of channel %d is beyond the card's addresses",
              static_cast<unsigned long long>(word), chan);
    return std::nullopt;
}

// A mini model that sends nothing is asked: rows of one frame and channel.
int fetch_rows(PLR3Path &card, int chan, const channel_shape &shape, const region &r, int tf,
               std::uint32_t *to) {
    const auto width = static_cast<std::size_t>(r.num_eng);
    for (int aux = 0; aux < r.num_aux; ++aux, to += width) {
        const std::span row(to, width);
        if (!card.femHandle) {
            std::ranges::fill(row, 0);
            continue;
        }
        const auto address = card_address(card, chan, word_of(shape, tf, r.aux + aux, r.eng), width);
        if (!address)
            return plr3_out_of_range;
        if (const int status = pulsar3FemReadMiniHistogram(*card.femHandle, *address, row); status != 0)
            return status;
    }
    return 0;
}

int read_frame(int path, int chan, const channel_shape &shape, const region &r, int tf, std::uint32_t *to) {
    int card_path = 0, chan_of_card = 0;
    if (const int status = plr3_resolve_path(path, chan, card_path, chan_of_card); status != 0)
        return status;
    PLR3Path &card = *plr3_path(card_path);
    if (is_passive(card))
        return fetch_rows(card, chan_of_card, shape, r, tf, to);
    Histogram &h = *card.histogram[static_cast<std::size_t>(chan_of_card)];
    const std::lock_guard guard(h.mutex);
    const auto width = static_cast<std::size_t>(r.num_eng);
    for (int aux = 0; aux < r.num_aux; ++aux, to += width) {
        const std::size_t word = word_of(shape, tf, r.aux + aux, r.eng);
        if (word + width > h.buffer.size())
            return plr3_fail(plr3_failed, "plr3_histogram_read: the histogram module of path %d is too small",
                             card_path);
        std::memcpy(to, &h.buffer[word], width * 4);
    }
    return 0;
}

int read_region(const char *function, int path, std::uint32_t *buffer, const region &r) {
    channel_shape shape;
    if (const int status = check_region(function, path, r, shape); status != 0)
        return status;
    const std::size_t words = static_cast<std::size_t>(r.num_eng) * static_cast<std::size_t>(r.num_aux);
    const int first = r.tf % shape.frames; // in a circular buffer any number names a place
    for (int tf = first; tf < first + r.num_tf; ++tf)
        for (int chan = r.chan; chan < r.chan + r.num_chan; ++chan, buffer += words)
            if (const int status = read_frame(path, chan, shape, r, tf, buffer); status != 0)
                return status;
    return 0;
}

int clear_channel(int path, int chan, int first, int count) {
    int card_path = 0, chan_of_card = 0;
    channel_shape shape;
    if (const int status = plr3_resolve_path(path, chan, card_path, chan_of_card); status != 0)
        return status;
    if (const int status = plr3_shape_of(path, chan, shape); status != 0)
        return status;
    if (!inside(first, count, shape.frames))
        return plr3_fail(plr3_out_of_range, "plr3_histogram_clear: frames %d for %d are out of range 0..%d",
                         first, count, shape.frames - 1);
    PLR3Path &card = *plr3_path(card_path);
    const std::size_t begin = static_cast<std::size_t>(first) * shape.frame_words(),
                      words = static_cast<std::size_t>(count) * shape.frame_words();
    if (is_passive(card) && !card.femHandle)
        return 0;
    if (is_passive(card)) {
        const auto address = card_address(card, chan_of_card, begin, words);
        return address ? pulsar3FemZeroDMABuff(*card.femHandle, *address, static_cast<std::uint32_t>(words))
                       : plr3_out_of_range;
    }
    Histogram &h = *card.histogram[static_cast<std::size_t>(chan_of_card)];
    const std::lock_guard guard(h.mutex);
    if (begin + words <= h.buffer.size())
        std::ranges::fill(h.buffer.subspan(begin, words), 0);
    return 0;
}

} // namespace

int plr3_histogram_read4d(int path, std::uint32_t *buffer, int eng, int aux, int chan, int tf, int num_eng,
                          int num_aux, int num_chan, int num_tf) {
    return read_region("plr3_histogram_read4d", path, buffer,
                       {eng, aux, chan, tf, num_eng, num_aux, num_chan, num_tf});
}

int plr3_histogram_check4d(int path, int eng, int aux, int chan, int tf, int num_eng, int num_aux,
                           int num_chan, int num_tf) {
    channel_shape shape;
    return check_region("plr3_histogram_read4d", path,
                        {eng, aux, chan, tf, num_eng, num_aux, num_chan, num_tf}, shape);
}

int plr3_histogram_read3d(int path, std::uint32_t *buffer, int eng, int aux, int chan, int num_eng,
                          int num_aux, int num_chan, int tf) {
    return read_region("plr3_histogram_read3d", path, buffer,
                       {eng, aux, chan, tf, num_eng, num_aux, num_chan, 1});
}

int plr3_histogram_read_chan(int path, std::uint32_t *buffer, int chan, int eng, int aux, int tf, int num_eng,
                             int num_aux, int num_tf) {
    return read_region("plr3_histogram_read_chan", path, buffer,
                       {eng, aux, chan, tf, num_eng, num_aux, 1, num_tf});
}

int plr3_histogram_clear(int path, int first_chan, int num_chan, int first_frame, int num_frames) {
    const PLR3Path *top = plr3_path(path);
    if (!top)
        return plr3_fail(plr3_invalid_path, "plr3_histogram_clear: invalid path %d", path);
    if (!inside(first_chan, num_chan, top->num_chan))
        return plr3_fail(plr3_out_of_range,
                         "plr3_histogram_clear: channel %d for %d channels is out of range 0..%d", first_chan,
                         num_chan, top->num_chan - 1);
    for (int chan = first_chan; chan < first_chan + num_chan; ++chan)
        if (const int status = clear_channel(path, chan, first_frame, num_frames); status != 0)
            return status;
    return 0;
}

int plr3_histogram_test_pattern(int path, bool inc) {
    const PLR3Path *top = plr3_path(path);
    if (!top)
        return plr3_fail(plr3_invalid_path, "plr3_histogram_test_pattern: invalid path %d", path);
    if (plr3_run_is_on(path))
        return plr3_fail(plr3_failed, "plr3_histogram_test_pattern: path %d is counting", path);
    for (int chan = 0; chan < top->num_chan; ++chan) {
        int card_path = 0, chan_of_card = 0;
        if (const int status = plr3_resolve_path(path, chan, card_path, chan_of_card); status != 0)
            return status;
        const PLR3Path &card = *plr3_path(card_path);
        if (is_passive(card))
            return plr3_fail(plr3_failed,
                             "plr3_histogram_test_pattern: the histograms of path %d are in the card", path);
        Histogram &h = *card.histogram[static_cast<std::size_t>(chan_of_card)];
        const std::size_t frame_words = plr3_channel_shape(card, chan_of_card).frame_words();
        const std::lock_guard guard(h.mutex);
        for (std::size_t word = 0; word < h.buffer.size(); ++word)
            h.buffer[word] = static_cast<std::uint32_t>(
                inc ? word : 1000 * static_cast<std::size_t>(chan) + word / frame_words + word % frame_words);
    }
    return 0;
}

} // namespace kestrel
