// Scalers and histograms as they would be without dead time.
#include "pulsar3/lib/counts/corrected.h"

#include "pulsar3/lib/counts/dead_time.h"
#include "pulsar3/lib/counts/histogram_read.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <vector>

namespace kestrel {

namespace {

constexpr const char *scaler_name = "plr3_scaler_dtc_read";

std::size_t count_of(int n) {
    return static_cast<std::size_t>(n);
}

// Work buffers: what the scalers of some channels and frames say of each.
struct correction {
    std::vector<std::uint32_t> readings;
    std::vector<double> factors, estimates;
};

int no_memory(std::size_t scalers) {
    return plr3_fail(plr3_failed, "%s: no memory for %zu scalers", scaler_name, scalers);
}

int calculate(int path, const plr3_scaler_box &box, std::span<const std::uint32_t> readings,
              std::span<double> factors, std::span<double> estimates) {
    const int status = plr3_calculateDeadtimeCorrectionFactors(path, readings, factors, estimates,
                                                               box.num_frame, box.chan, box.num_chan);
    if (status == 0)
        return 0;
    return plr3_fail(status, "plr3_scaler_dtc_read: dtc calculation: %s", plr3_get_error_message());
}

int find_correction(int path, const plr3_scaler_box &box, plr3_scaler_from from, correction &c) {
    plr3_scaler_box all = box;
    all.scaler = 0;
    all.num_scaler = plr3_nr_scalers;
    const std::size_t values = count_of(box.num_chan) * count_of(box.num_frame);
    try {
        c.readings.resize(all.size());
        c.factors.resize(values);
        c.estimates.resize(values);
    } catch (const std::bad_alloc &) {
        return no_memory(all.size());
    }
    if (const int status = plr3_scaler_read(path, c.readings, all, from); status != 0)
        return plr3_fail(status, "plr3_scaler_dtc_read: read error: %s", plr3_get_error_message());
    return calculate(path, box, c.readings, c.factors, c.estimates);
}

// Sizes that cannot be are refused before memory is asked for.
int check_sizes(const char *name, int path, const plr3_scaler_box &b) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", name, path);
    const bool fits = b.num_scaler > 0 && b.num_scaler <= plr3_nr_scalers && b.num_chan > 0 &&
                      b.num_chan <= p->num_chan && b.num_frame > 0 &&
                      b.num_frame <= plr3_get_scaler_num_tf(path);
    return fits ? 0
                : plr3_fail(plr3_out_of_range, "%s: (%d, %d, %d) scalers are more than there are", name,
                            b.num_scaler, b.num_chan, b.num_frame);
}

// The scalers of one channel and frame, corrected.
std::array<double, plr3_nr_scalers> corrected_scalers(const std::uint32_t *raw, bool good, double factor,
                                                      double estimate) {
    std::array<double, plr3_nr_scalers> s;
    std::copy_n(raw, s.size(), s.begin());
    s[plr3_scaler_in_window0] *= factor;
    s[plr3_scaler_in_window1] *= factor;
    s[good ? plr3_scaler_all_good : plr3_scaler_all_event] = estimate;
    return s;
}

// Which channels' events are the good ones.
int find_good(int path, const plr3_scaler_box &box, std::vector<char> &good) {
    for (int chan = 0; chan < box.num_chan; ++chan) {
        int flags = 0;
        if (const int status = plr3_getDeadtimeCorrectionFlags(path, box.chan + chan, flags); status != 0)
            return status;
        good.push_back((flags & plr3_dtc_use_good_event) != 0);
    }
    return 0;
}

int correct_scalers(int path, const plr3_scaler_box &box, std::span<const std::uint32_t> readings,
                    std::span<const double> factors, std::span<const double> estimates, double *to) {
    std::vector<char> good;
    if (const int status = find_good(path, box, good); status != 0)
        return status;
    const PLR3Path &p = *plr3_path(path);
    for (std::size_t value = 0; value < factors.size(); ++value, to += box.num_scaler) {
        const std::size_t chan = value % good.size();
        if (p.debug > 1)
            plr3_message(p.message_to, "channel=%d t=%d: dtc factor %g\n", box.chan + static_cast<int>(chan),
                         box.frame + static_cast<int>(value / good.size()), factors[value]);
        const auto scalers = corrected_scalers(&readings[value * plr3_nr_scalers], good[chan] != 0,
                                               factors[value], estimates[value]);
        std::copy_n(scalers.begin() + box.scaler, box.num_scaler, to);
    }
    return 0;
}

} // namespace

int plr3_scaler_dtc_read(int path, std::span<double> buffer, const plr3_scaler_box &box,
                         plr3_scaler_from from) {
    if (const int status = check_sizes(scaler_name, path, box); status != 0)
        return status;
    if (buffer.size() < box.size())
        return plr3_fail(plr3_out_of_range, "%s: no room for %zu scalers", scaler_name, box.size());
    if (box.scaler < 0 || box.scaler > plr3_nr_scalers - box.num_scaler)
        return plr3_fail(plr3_out_of_range, "%s: scalers %d for %d are out of range 0..%d", scaler_name,
                         box.scaler, box.num_scaler, plr3_nr_scalers - 1);
    correction c;
    const int status = find_correction(path, box, from, c);
    return status == 0 ? correct_scalers(path, box, c.readings, c.factors, c.estimates, buffer.data())
                       : status;
}

int plr3_dtc_correct(int path, std::span<const std::uint32_t> readings, std::span<double> factors,
                     std::span<double> corrected, int num_tf) {
    plr3_scaler_box box;
    box.num_chan = std::max(plr3_get_num_chan(path), 0);
    box.num_frame = num_tf;
    std::vector<double> estimates;
    try {
        estimates.resize(factors.size());
    } catch (const std::bad_alloc &) {
        return no_memory(readings.size());
    }
    if (corrected.size() < readings.size())
        return plr3_fail(plr3_out_of_range, "%s: no room for %zu scalers", scaler_name, readings.size());
    const int status = calculate(path, box, readings, factors, estimates);
    return status == 0 ? correct_scalers(path, box, readings, factors, estimates, corrected.data()) : status;
}

int plr3_scaler_dtc_read_sf(int path, std::span<double> buffer, const plr3_scaler_box &box,
                            plr3_sub_frames sub) {
    const int status = plr3_check_sub_frames("plr3_scaler_dtc_read_sf", path, sub);
    return status == 0 ? plr3_scaler_dtc_read(path, buffer, box) : status;
}

namespace {

struct bins {
    int eng, aux, num_eng, num_aux;
    std::size_t size() const { return count_of(num_eng) * count_of(num_aux); }
};

// Frames that follow each other in memory. A channel's frame is read to behind the place of its doubles,
// and is still in the nearest cache when it becomes them.
int read_frames(int path, double *to, const bins &b, const plr3_scaler_box &box) {
    correction c;
    if (const int status = find_correction(path, box, plr3_scaler_from::usual, c); status != 0)
        return status;
    const std::size_t row = b.size();
    for (std::size_t i = 0; i < c.factors.size(); ++i, to += row) {
        const int chan = box.chan + static_cast<int>(i % count_of(box.num_chan));
        const int frame = box.frame + static_cast<int>(i / count_of(box.num_chan));
        std::uint32_t *const counts = reinterpret_cast<std::uint32_t *>(to) + row;
        if (const int status =
                plr3_histogram_read4d(path, counts, b.eng, b.aux, chan, frame, b.num_eng, b.num_aux, 1, 1);
            status != 0)
            return status;
        plr3_dtc_multiply(counts, to, row, c.factors[i]);
    }
    return 0;
}

} // namespace

int plr3_hist_dtc_read4d(int path, double *buffer, int eng, int aux, int chan, int tf, int num_eng,
                         int num_aux, int num_chan, int num_tf) {
    if (const int status =
            plr3_histogram_check4d(path, eng, aux, chan, tf, num_eng, num_aux, num_chan, num_tf);
        status != 0)
        return status;
    const bins b{eng, aux, num_eng, num_aux};
    const int frames = plr3_get_scaler_num_tf(path);
    plr3_scaler_box box;
    box.chan = chan;
    box.num_chan = num_chan;
    // In a circular buffer, where a frame may have any number, the first follows the last.
    const int first = tf % frames;
    for (int done = 0; done < num_tf; done += box.num_frame) {
        box.frame = (first + done) % frames;
        box.num_frame = std::min(num_tf - done, frames - box.frame);
        if (const int status = read_frames(path, buffer, b, box); status != 0)
            return status;
        buffer += b.size() * count_of(num_chan) * count_of(box.num_frame);
    }
    return 0;
}

int plr3_hist_dtc_read3d(int path, double *buffer, int eng, int aux, int chan, int num_eng, int num_aux,
                         int num_chan, int tf) {
    return plr3_hist_dtc_read4d(path, buffer, eng, aux, chan, tf, num_eng, num_aux, num_chan, 1);
}

int plr3_hist_dtc_read4d_sf(int path, double *buffer, int eng, int aux, int chan, int tf, int num_eng,
                            int num_aux, int num_chan, int num_tf, plr3_sub_frames sub) {
    const int status = plr3_check_sub_frames("plr3_hist_dtc_read4d_sf", path, sub);
    return status == 0
               ? plr3_hist_dtc_read4d(path, buffer, eng, aux, chan, tf, num_eng, num_aux, num_chan, num_tf)
               : status;
}

int plr3_hist_dtc_read3d_sf(int path, double *buffer, int eng, int aux, int chan, int num_eng, int num_aux,
                            int num_chan, int tf, plr3_sub_frames sub) {
    const int status = plr3_check_sub_frames("plr3_hist_dtc_read3d_sf", path, sub);
    return status == 0 ? plr3_hist_dtc_read3d(path, buffer, eng, aux, chan, num_eng, num_aux, num_chan, tf)
                       : status;
}

// Sixteen at a time, which are all in registers before the first is written. Through a signed number, for which processors
// have an instruction; the sum is exact.
void plr3_dtc_multiply(const std::uint32_t *counts, double *corrected, std::size_t count, double factor) {
    constexpr std::size_t together = 16;
    constexpr std::uint32_t top = 0x80000000;
    const auto change = [factor](std::uint32_t n) {
        return (static_cast<double>(static_cast<std::int32_t>(n ^ top)) + top) * factor;
    };
    std::array<std::uint32_t, together> part;
    std::array<double, together> result;
    std::size_t done = 0;
    for (; count - done >= together; done += together) {
        std::memcpy(part.data(), counts + done, sizeof part);
        for (std::size_t i = 0; i < together; ++i)
            result[i] = change(part[i]);
        std::memcpy(corrected + done, result.data(), sizeof result);
    }
    for (; done < count; ++done) {
        std::memcpy(part.data(), counts + done, sizeof part[0]);
        corrected[done] = change(part[0]);
    }
}

} // namespace kestrel
