// The `peak-fit` commands: which spectra, which lines, where the results go.
#include "maths/commands.h"
#include "maths/peak_job.h"
#include "maths/reader.h"
#include "modules/store/view.h"
#include "parser/call.h"
#include "server/interrupt.h"
#include "server/output.h"

#include <algorithm>
#include <cerrno>
#include <new>

namespace kestrel {

namespace {

constexpr std::size_t read_most = 0x10000000; // bytes of spectra read at once

// Keywords that both commands have, from some bit on: peak0..7, the elements, element, no-lor, by-top-sum.
constexpr int element_keywords = static_cast<int>(peak_fit_element_keywords.size());
constexpr int named_element = peak_fit_max_peaks + element_keywords;
constexpr int no_lor = named_element + 1, by_top_sum = named_element + 2;

bool has(int quals, int keyword) {
    return (static_cast<unsigned>(quals) >> keyword & 1u) != 0;
}

int out_of_peaks(int cn) {
    sv_printf(cn, "! ERROR: Can fit at most %d peaks\n", peak_fit_max_peaks);
    return -1;
}

bool add_line(peak_fit_lines &lines, double energy, double height, bool tied) {
    const auto at = static_cast<std::size_t>(lines.num_peaks);
    if (at >= lines.energy.size())
        return false;
    lines.energy[at] = energy;
    lines.height[at] = height;
    lines.tied[at] = tied;
    ++lines.num_peaks;
    return true;
}

int add_element(int cn, std::string_view name, peak_fit_lines &lines) {
    const peak_fit_lines *element = peak_fit_find_element(name);
    if (!element) {
        sv_printf(cn, "! ERROR: Cannot identify element name '%.*s'\n", static_cast<int>(name.size()),
                  name.data());
        return -1;
    }
    for (std::size_t i = 0; i < static_cast<std::size_t>(element->num_peaks); ++i)
        if (!add_line(lines, element->energy[i], element->height[i], element->tied[i]))
            return out_of_peaks(cn);
    return 0;
}

int add_elements(int cn, int quals, int first, peak_fit_lines &lines) {
    for (int i = 0; i < element_keywords; ++i)
        if (has(quals, first + peak_fit_max_peaks + i) &&
            add_element(cn, peak_fit_element_keywords[static_cast<std::size_t>(i)], lines) != 0)
            return -1;
    const int named = first + named_element;
    return has(quals, named) ? add_element(cn, Qualifier[named].StringArg, lines) : 0;
}

int add_user_peaks(int cn, int quals, int first, peak_fit_lines &lines) {
    int count = 0;
    for (int i = 0; i < peak_fit_max_peaks; ++i)
        count += has(quals, first + i);
    const bool to_element = lines.num_peaks > 0;
    for (int i = 0; i < count; ++i) {
        if (!has(quals, first + i)) {
            sv_printf(cn, "! ERROR: Please supply peaks 0..1 without gaps, gap at %d\n", i);
            return -1;
        }
        const double energy = Qualifier[first + i].DoubleArg;
        if (!(energy > 0.0 && energy < 1e6)) {
            sv_printf(cn, "! ERROR: Energy of peak %d should be > 0 keV, not %g\n", i, energy);
            return -1;
        }
        if (!add_line(lines, energy, 0.0, false))
            return out_of_peaks(cn);
        if (to_element)
            sv_printf(cn,
                      "# Added user peak to element specific peak, num_peaks = %d, posn[0]=%g "
                      "[posn][num_peaks-1]=%g\n",
                      lines.num_peaks, lines.energy[0], energy);
    }
    return 0;
}

// The lines that the keywords ask for; without any, one peak of unknown energy. 0, or -1 after a line.
int choose_lines(int cn, int quals, int first, peak_fit_lines &lines) {
    if (add_elements(cn, quals, first, lines) != 0 || add_user_peaks(cn, quals, first, lines) != 0)
        return -1;
    if (lines.num_peaks == 0)
        add_line(lines, 0.0, 1.0, false);
    peak_fit_constraint = (has(quals, first + no_lor) ? peak_fit_no_lor : 0) |
                          (has(quals, first + by_top_sum) ? peak_fit_by_top_sum : 0);
    return 0;
}

int limits_error(int cn, const char *format, int value, int channels) {
    char text[80];
    std::snprintf(text, sizeof text, format, value, channels - 1);
    sv_print(cn, text);
    return -1;
}

// ---- spectra in a module's rows

constexpr int first_eng = 0, last_eng = 1, module_peaks = 2;

int element_of(int module_type) {
    return module_type == MOD_U_INT32  ? el_long
           : module_type == MOD_FLOAT  ? el_float
           : module_type == MOD_DOUBLE ? el_double
                                       : el_none;
}

int check_row(int cn, const module_view &mod, int row) {
    const long long rows = static_cast<long long>(mod.num_y) * mod.num_t;
    if (row >= 0 && row < rows)
        return 0;
    sv_printf(cn, "! Row should be 0..%d not %d\n", static_cast<int>(rows - 1), row);
    return -1;
}

int energy_limits(int cn, int quals, int channels, peak_fit_request &request) {
    request.first = has(quals, first_eng) ? Qualifier[first_eng].IntArg : 0;
    request.last = has(quals, last_eng) ? Qualifier[last_eng].IntArg : channels - 1;
    if (request.first < 0 || request.first >= channels)
        return limits_error(cn, "! ERROR in first-x value %d, expected0..%d\n", request.first, channels);
    if (request.last < request.first || request.last >= channels)
        return limits_error(cn, "! ERROR in last-x value %d, expected0..%d\n", request.last, channels);
    return 0;
}

int same_module(int cn) {
    sv_printf(cn, "! The result module must not be the source\n");
    return -1;
}

int finish(const peak_fit_request &request, const peak_spectra &spectra, const char *result) {
    peak_fit_output output;
    if (peak_fit_start_output(request.cn, result, spectra.nq, spectra.ns, request.lines.num_peaks, output) !=
        0)
        return -1;
    const peak_fit_part part{&spectra, 0, spectra.nq - 1, 0, 0, spectra.nq};
    const int total = spectra.nq * spectra.ns;
    return peak_fit_close(request.cn, peak_fit_fit_part(request, part, output, 0, total), total);
}

// ---- spectra of a unified handle

constexpr int axis_keywords = 3; // x y t: energy
constexpr int width_keyword = 3, unified_peaks = 4;

// A region by its axes: energy, scan, second scan. Sizes and origins are in the order x, y, t.
struct scan {
    int handle = -1;
    std::array<int, 3> origin{}, size{};
    std::size_t energy = 0, q = 1, s = 2;
    int channels() const { return size[energy]; }
    int nq() const { return size[q]; }
    int ns() const { return size[s]; }
};

int choose_axes(int cn, int quals, scan &sc) {
    int given = 0;
    for (int axis = 0; axis < axis_keywords; ++axis) {
        if (!has(quals, axis))
            continue;
        sc.energy = static_cast<std::size_t>(axis);
        ++given;
    }
    if (given > 1) {
        sv_printf(cn, "! Must specify exactly one of X, Y, T\n");
        return -1;
    }
    sc.q = sc.energy == 0 ? 1 : 0;
    sc.s = sc.energy == 2 ? 1 : 2;
    return 0;
}

peak_spectra layout(const scan &sc, const std::byte *first, int type, std::array<std::size_t, 3> steps) {
    return {first, type, steps[sc.energy], steps[sc.q], steps[sc.s], sc.channels(), sc.nq(), sc.ns()};
}

// The part of a scan that is read at once: points q0 - before .. q0 + nq - 1 + after, planes s0 .. s0 + ns
// - 1.
struct piece {
    int q0, nq, s0, ns;
    int before, after; // neighbours
};

piece piece_at(const scan &sc, int q0, int s0, int most, int neighbours) {
    if (sc.nq() <= most)
        return {0, sc.nq(), s0, std::min(sc.ns() - s0, most / sc.nq()), 0, 0};
    const int nq = std::min(sc.nq() - q0, std::max(1, most - 2 * neighbours));
    return {q0, nq, s0, 1, std::min(q0, neighbours), std::min(sc.nq() - q0 - nq, neighbours)};
}

int fit_piece(const peak_fit_request &request, const scan &whole, const piece &p,
              const peak_fit_output &output, int done, std::vector<std::byte> &buffer,
              peak_fit_counts &counts) {
    scan sc = whole;
    sc.origin[sc.q] += p.q0 - p.before;
    sc.size[sc.q] = p.before + p.nq + p.after;
    sc.origin[sc.s] += p.s0;
    sc.size[sc.s] = p.ns;
    const _unif_open_tbl *entry = unified_entry(sc.handle);
    if (!entry)
        return -1;
    const std::size_t step = static_cast<std::size_t>(entry->elem_size);
    const std::size_t row = step * static_cast<std::size_t>(sc.size[0]);
    const std::size_t frame = row * static_cast<std::size_t>(sc.size[1]);
    buffer.resize(frame * static_cast<std::size_t>(sc.size[2]));
    if (app_unified_read(request.cn, sc.handle, buffer.data(), sc.origin[0], sc.origin[1], sc.origin[2],
                         sc.size[0], sc.size[1], sc.size[2]) < 0)
        return umaths_read_error(request.cn);
    const peak_spectra spectra = layout(sc, buffer.data(), entry->data_type, {step, row, frame});
    const peak_fit_part part{&spectra, p.before, p.before + p.nq - 1, p.q0, p.s0, whole.nq()};
    counts += peak_fit_fit_part(request, part, output, done, whole.nq() * whole.ns());
    return 0;
}

// Reads and fits piece by piece, whole planes of the scan where they fit.
int fit_copies(const peak_fit_request &request, const scan &sc, const char *result) {
    peak_fit_output output;
    if (peak_fit_start_output(request.cn, result, sc.nq(), sc.ns(), request.lines.num_peaks, output) != 0)
        return -1;
    const std::size_t bytes = static_cast<std::size_t>(sc.channels()) *
                              static_cast<std::size_t>(unified_entry(sc.handle)->elem_size);
    const int most = static_cast<int>(std::clamp<std::size_t>(read_most / bytes, 1, 1 << 24));
    const int neighbours = peak_fit_constraint & peak_fit_by_top_sum ? peak_fit_most_neighbours : 0;
    std::vector<std::byte> buffer;
    peak_fit_counts counts;
    int done = 0;
    for (int q0 = 0, s0 = 0; s0 < sc.ns() && !counts.stopped;) {
        const piece p = piece_at(sc, q0, s0, most, neighbours);
        if (fit_piece(request, sc, p, output, done, buffer, counts) != 0)
            return -1;
        done += p.nq * p.ns;
        q0 += p.nq;
        if (q0 >= sc.nq()) {
            q0 = 0;
            s0 += p.ns;
        }
    }
    return peak_fit_close(request.cn, counts, sc.nq() * sc.ns());
}

int fit_region(const peak_fit_request &request, const scan &sc, const char *result) {
    const unified_box box{sc.origin[0], sc.origin[1], sc.origin[2], sc.size[0], sc.size[1], sc.size[2]};
    const std::optional<unified_look> look = unified_look_at(sc.handle, box);
    if (!look)
        return fit_copies(request, sc, result);
    if (const module_link link(result); link && link.head() == look->owner)
        return same_module(request.cn);
    const _unif_open_tbl &entry = *unified_entry(sc.handle);
    const auto step = static_cast<std::size_t>(entry.elem_size);
    return finish(request,
                  layout(sc, look->first, entry.data_type, {step, look->row_stride, look->frame_stride}),
                  result);
}

// Out of memory ends the command with a line of its own.
template <class F> int guarded(int cn, F fit) {
    try {
        return fit();
    } catch (const std::bad_alloc &) {
        sv_printf(cn, "! ERROR: Cannot malloc memory for x vector\n");
        return -1;
    }
}

constexpr int told_most = 64; // points that are told one by one

} // namespace

int peak_fit_module(int quals, int cn, const char *source, const char *result, int first, int last) {
    peak_fit_request request;
    request.cn = cn;
    if (choose_lines(cn, quals, module_peaks, request.lines) != 0)
        return -1;
    const module_link link(source);
    if (!link) {
        sv_printf(cn, "! Cannot link to module '%s', errno = %d\n", source, errno);
        return -1;
    }
    module_view mod;
    const int from = first, to = OptionalArgumentCount > 1 ? last : first;
    if (mod_look(cn, source, link.head(), mod) != 0 || check_row(cn, mod, from) != 0 ||
        check_row(cn, mod, to) != 0 || energy_limits(cn, quals, mod.num_x, request) != 0)
        return -1;
    const int type = element_of(mod.data_type);
    if (type == el_none) {
        sv_printf(cn, "! Can only handle float or long and some double data for umaths\n");
        return -1;
    }
    if (const module_link other(result); other && other.head() == link.head())
        return same_module(cn);
    const int row = std::min(from, to);
    const peak_spectra spectra{mod.at(0, row, 0),
                               type,
                               mod.element_size,
                               mod.element_size * static_cast<std::size_t>(mod.num_x),
                               0,
                               mod.num_x,
                               std::max(from, to) - row + 1,
                               1};
    request.tell = peak_fit_debug >= 1 || spectra.nq <= told_most;
    return guarded(cn, [&] { return finish(request, spectra, result); });
}

int peak_fit_unified(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2,
                     const char *result) {
    peak_fit_request request;
    request.cn = cn;
    scan sc;
    if (choose_lines(cn, quals, unified_peaks, request.lines) != 0 || choose_axes(cn, quals, sc) != 0)
        return -1;
    const umaths_region region = umaths_make_region(x1, y1, t1, x2, y2, t2);
    if (umaths_check_region(cn, region, handle, 0) != 0)
        return -1;
    sc.handle = handle;
    sc.origin = {region.x, region.y, region.t};
    sc.size = {region.dx, region.dy, region.dt};
    if (static_cast<long long>(sc.nq()) * sc.ns() > (1 << 26)) {
        sv_printf(cn, "! Can fit at most %d spectra at once\n", 1 << 26);
        return -1;
    }
    request.width = has(quals, width_keyword) ? Qualifier[width_keyword].DoubleArg : 0.0;
    if (!(request.width >= 0.0)) {
        sv_printf(cn, "! Typical FWHM should be >= 0, not %g\n", request.width);
        return -1;
    }
    request.last = sc.channels() - 1;
    request.tell = peak_fit_debug >= 1 || sc.nq() * sc.ns() <= told_most;
    return guarded(cn, [&] { return fit_region(request, sc, result); });
}

int peak_fit_set_debug(int quals, int cn, int level) {
    const int pass = has(quals, 0) ? Qualifier[0].IntArg : -1;
    if (has(quals, 0) && (pass < 0 || pass >= peak_fit_passes())) {
        sv_printf(cn, "! ERROR: Please set pass in range 0..%d\n", peak_fit_passes() - 1);
        return -1;
    }
    peak_fit_debug = level;
    peak_fit_single_pass = pass;
    return 0;
}

int peak_fit_set_max_threads(int, int cn, int threads) {
    if (threads < 1 || threads > 64) {
        sv_printf(cn, "! ERROR: Please set max threads in range 1..64\n");
        return -1;
    }
    peak_fit_max_threads = threads;
    return 0;
}

} // namespace kestrel
