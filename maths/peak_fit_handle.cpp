#include "maths/peak_fit_handle.h"

#include "maths/reader.h"
#include "server/output.h"
#include "unified/handles/handles.h"

#include <algorithm>

namespace kestrel {

namespace {

constexpr std::size_t read_most = 0x10000000; // bytes of spectra read at once

peak_spectra layout(const peak_fit_scan &sc, const std::byte *first, int type,
                    std::array<std::size_t, 3> steps) {
    return {first, type, steps[sc.energy], steps[sc.q], steps[sc.s], sc.channels(), sc.nq(), sc.ns()};
}

// What is read at once: points q0 - before .. q0 + nq - 1 + after, planes s0 .. s0 + ns - 1.
struct piece {
    int q0, nq, s0, ns;
    int before, after; // neighbours
};

piece piece_at(const peak_fit_scan &sc, int q0, int s0, int most, int neighbours) {
    if (sc.nq() <= most)
        return {0, sc.nq(), s0, std::min(sc.ns() - s0, most / sc.nq()), 0, 0};
    const int nq = std::min(sc.nq() - q0, std::max(1, most - 2 * neighbours));
    return {q0, nq, s0, 1, std::min(q0, neighbours), std::min(sc.nq() - q0 - nq, neighbours)};
}

// A copy of a piece. 0, or -1 after a line.
int read_piece(int cn, const peak_fit_scan &whole, const piece &p, std::vector<std::byte> &buffer,
               peak_spectra &spectra) {
    peak_fit_scan sc = whole;
    sc.origin[sc.q] += p.q0 - p.before;
    sc.size[sc.q] = p.before + p.nq + p.after;
    sc.origin[sc.s] += p.s0;
    sc.size[sc.s] = p.ns;
    const unified_info entry = *unified_info_of(sc.handle);
    const std::size_t step = static_cast<std::size_t>(entry.elem_size);
    const std::size_t row = step * static_cast<std::size_t>(sc.size[0]);
    const std::size_t frame = row * static_cast<std::size_t>(sc.size[1]);
    buffer.resize(frame * static_cast<std::size_t>(sc.size[2]));
    if (app_unified_read(cn, sc.handle, buffer.data(), sc.origin[0], sc.origin[1], sc.origin[2], sc.size[0],
                         sc.size[1], sc.size[2]) < 0)
        return umaths_read_error(cn);
    spectra = layout(sc, buffer.data(), entry.data_type, {step, row, frame});
    return 0;
}

// Reads and fits piece by piece, whole planes of the scan where they fit.
int fit_copies(const peak_fit_request &request, const peak_fit_scan &sc, const char *result) {
    const std::size_t bytes =
        static_cast<std::size_t>(sc.channels()) * static_cast<std::size_t>(unified_get_bsize(sc.handle));
    const int most = static_cast<int>(std::clamp<std::size_t>(read_most / bytes, 1, 1 << 24));
    const int neighbours = request.constraints & peak_fit_by_top_sum ? peak_fit_most_neighbours : 0;
    const int total = sc.nq() * sc.ns();
    result_module output;
    std::vector<std::byte> buffer;
    peak_spectra spectra;
    peak_fit_counts counts;
    int done = 0;
    for (int q0 = 0, s0 = 0; s0 < sc.ns() && !counts.ended();) {
        const piece p = piece_at(sc, q0, s0, most, neighbours);
        if (read_piece(request.cn, sc, p, buffer, spectra) != 0 ||
            (done == 0 && peak_fit_open_results(request, result, sc.nq(), sc.ns(), output) != 0))
            return -1;
        const peak_fit_part part{&spectra, p.before, p.before + p.nq - 1, p.q0, p.s0, sc.nq(), 0};
        counts += peak_fit_fit_part(request, part, output, done, total);
        done += p.nq * p.ns;
        q0 += p.nq;
        if (q0 >= sc.nq()) {
            q0 = 0;
            s0 += p.ns;
        }
    }
    return peak_fit_close(request.cn, counts, total);
}

} // namespace

int peak_fit_fit_scan(const peak_fit_request &request, const peak_fit_scan &sc, const char *result) {
    const unified_box box{sc.origin[0], sc.origin[1], sc.origin[2], sc.size[0], sc.size[1], sc.size[2]};
    const std::optional<unified_look> look = unified_look_at(sc.handle, box);
    if (!look)
        return fit_copies(request, sc, result);
    const unified_info entry = *unified_info_of(sc.handle);
    const auto step = static_cast<std::size_t>(entry.elem_size);
    const peak_spectra spectra =
        layout(sc, look->first, entry.data_type, {step, look->row_stride, look->frame_stride});
    return peak_fit_fit_rows(request, spectra, 0, sc.nq() - 1, look->owner, result);
}

} // namespace kestrel
