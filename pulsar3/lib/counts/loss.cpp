#include "pulsar3/lib/counts/loss.h"

#include "pulsar3/lib/counts/run.h"
#include "pulsar3/lib/counts/shape.h"

#include <algorithm>

namespace kestrel {

namespace {

Histogram *channel(const char *function, int path, int chan, int &status) {
    int card_path = 0, chan_of_card = 0;
    if (!plr3_path(path)) {
        status = plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
        return nullptr;
    }
    status = plr3_resolve_path(path, chan, card_path, chan_of_card);
    return status != 0 ? nullptr
                       : plr3_path(card_path)->histogram[static_cast<std::size_t>(chan_of_card)].get();
}

int status_of(Histogram &h, int tf) {
    const frame_area &area = h.frames.area();
    const auto frames = static_cast<int>(area.frames());
    if (!area.status || tf < 0 || (tf >= frames && !area.circular))
        return plr3_fail(plr3_out_of_range,
                         "plr3_histogram_get_tf_status: time frame %d is out of range 0..%d", tf, frames - 1);
    const std::size_t word = static_cast<std::size_t>(tf % frames) * area.pitch;
    return static_cast<int>(std::atomic_ref(area.status[word]).load(std::memory_order_acquire));
}

} // namespace

int plr3_histogram_get_loss(int path, int chan, frame_loss &loss) {
    int status = 0;
    Histogram *h = channel("plr3_histogram_get_loss", path, chan, status);
    if (!h)
        return status;
    plr3_histogram_settled(*h); // what is due is accounted for
    const std::lock_guard guard(h->mutex);
    const frame_counts &c = h->frames.counts;
    loss = {0,      c.whole,    c.incomplete, c.missing, c.beyond, h->kernel_dropped,
            c.late, c.repeated, c.malformed};
    loss.sent = std::max<std::uint64_t>(c.reached, h->frames_sent.value_or(0));
    return 0;
}

int plr3_histogram_get_dropped(int path, int chan) {
    int status = 0;
    Histogram *h = channel("plr3_histogram_get_dropped", path, chan, status);
    if (!h)
        return status;
    plr3_histogram_settled(*h);
    return h->dropped_frames();
}

int plr3_histogram_get_tf_status(int path, int chan, int tf) {
    int status = 0;
    Histogram *h = channel("plr3_histogram_get_tf_status", path, chan, status);
    return h ? status_of(*h, tf) : status;
}

int plr3_histogram_get_tf_status_block(int path, std::span<std::uint32_t> status, int chan, int tf,
                                       int num_chan, int num_tf) {
    if (num_chan < 0 || num_tf < 0 ||
        status.size() / static_cast<std::size_t>(std::max(num_chan, 1)) < static_cast<std::size_t>(num_tf))
        return plr3_fail(plr3_out_of_range,
                         "plr3_histogram_get_tf_status_block: %d channels of %d time frames do not fit",
                         num_chan, num_tf);
    std::size_t at = 0;
    for (int frame = tf; frame < tf + num_tf; ++frame)
        for (int one = chan; one < chan + num_chan; ++one) {
            const int word = plr3_histogram_get_tf_status(path, one, frame);
            if (word < 0)
                return word;
            status[at++] = static_cast<std::uint32_t>(word);
        }
    return 0;
}

int plr3_histogram_get_tf_markers(int path, int chan, std::int64_t &first, std::int64_t &top) {
    int status = 0;
    Histogram *h = channel("plr3_histogram_get_tf_markers", path, chan, status);
    if (!h)
        return status;
    const std::lock_guard guard(h->mutex);
    top = static_cast<std::int64_t>(h->frames.expected_frame());
    const auto frames = static_cast<std::int64_t>(h->frames.area().frames());
    first = h->frames.area().circular ? std::max<std::int64_t>(top - frames, 0) : 0;
    if (!h->frames.area().circular)
        top = std::min(top, frames);
    return 0;
}

int plr3_histogram_circ_ack(int path, std::int64_t tf) {
    const PLR3Path *top = plr3_path(path);
    if (!top)
        return plr3_fail(plr3_invalid_path, "plr3_histogram_circ_ack: invalid path %d", path);
    if (tf < 0)
        return plr3_fail(plr3_out_of_range, "plr3_histogram_circ_ack: time frame %lld is below 0",
                         static_cast<long long>(tf));
    for (int chan = 0; chan < top->num_chan; ++chan) {
        int status = 0;
        Histogram *h = channel("plr3_histogram_circ_ack", path, chan, status);
        if (!h)
            return status;
        h->frames.acknowledged = static_cast<std::uint64_t>(tf);
    }
    return 0;
}

int plr3_histogram_get_circ_overrun(int path, int chan, std::int64_t &first, std::int64_t &count) {
    int status = 0;
    Histogram *h = channel("plr3_histogram_get_circ_overrun", path, chan, status);
    if (!h)
        return status;
    first = h->frames.first_overrun;
    count = static_cast<std::int64_t>(h->frames.overruns);
    return 0;
}

} // namespace kestrel
