// The `peak-fit` commands: which spectra, which lines, where the results go.
#include "maths/commands.h"
#include "maths/module_rows.h"
#include "maths/peak_fit_handle.h"
#include "maths/reader.h"
#include "parser/call.h"
#include "server/output.h"

#include <algorithm>
#include <new>

namespace kestrel {

namespace {

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

int energy_limits(int cn, int quals, int channels, peak_fit_request &request) {
    request.first = has(quals, first_eng) ? Qualifier[first_eng].IntArg : 0;
    request.last = has(quals, last_eng) ? Qualifier[last_eng].IntArg : channels - 1;
    if (request.first < 0 || request.first >= channels)
        return limits_error(cn, "! ERROR in first-x value %d, expected0..%d\n", request.first, channels);
    if (request.last < request.first || request.last >= channels)
        return limits_error(cn, "! ERROR in last-x value %d, expected0..%d\n", request.last, channels);
    return 0;
}

// ---- spectra of a unified handle

constexpr int axis_keywords = 3; // x y t: energy
constexpr int width_keyword = 3, unified_peaks = 4;

int choose_axes(int cn, int quals, peak_fit_scan &sc) {
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
    linked_module from;
    const int other = OptionalArgumentCount > 1 ? last : first;
    if (umaths_link_module(cn, source, from) != 0 ||
        umaths_check_row(cn, "! Row should be 0..%d not %d\n", from, first) != 0 ||
        umaths_check_row(cn, "! Row should be 0..%d not %d\n", from, other) != 0 ||
        energy_limits(cn, quals, from.view.num_x, request) != 0)
        return -1;
    const int type = element_of(from.view.data_type);
    if (type == el_none) {
        sv_printf(cn, "! Can only handle float or long and some double data for umaths\n");
        return -1;
    }
    const std::size_t step = from.view.element_size;
    const peak_spectra spectra{
        from.view.data(), type,        step, step * static_cast<std::size_t>(from.view.num_x), 0,
        from.view.num_x,  from.rows(), 1};
    const auto [q1, q2] = std::minmax(first, other);
    request.tell = peak_fit_debug >= 1 || q2 - q1 < told_most;
    return guarded(cn, [&, q1 = q1, q2 = q2] {
        return peak_fit_fit_rows(request, spectra, q1, q2, from.link.head(), result);
    });
}

int peak_fit_unified(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2,
                     const char *result) {
    peak_fit_request request;
    request.cn = cn;
    peak_fit_scan sc;
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
    return guarded(cn, [&] { return peak_fit_fit_scan(request, sc, result); });
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
