// The `peak-fit` commands: which spectra, which lines, where the results go.
#include "maths/commands.h"
#include "maths/module_rows.h"
#include "maths/peak_fit/far.h"
#include "maths/peak_fit_handle.h"
#include "maths/reader.h"
#include "parser/call.h"
#include "parser/qualifiers.h"
#include "server/output.h"
#include "support/text_join.h"

#include <algorithm>
#include <new>
#include <optional>
#include <utility>

namespace kestrel {

namespace {

// As `debug` and `max-threads` leave them; a request takes a copy at its command's start.
int peak_fit_debug = 0;
int peak_fit_single_pass = -1;
int peak_fit_max_threads = 1;

peak_fit_request new_request(int cn) {
    peak_fit_request request;
    request.cn = cn;
    request.debug = peak_fit_debug;
    request.single_pass = peak_fit_single_pass;
    request.max_threads = peak_fit_max_threads;
    return request;
}

// ---- which lines

// How the formats and the help of both fits end.
constexpr fixed_text
    line_words(" peak0 %g peak1 %g peak2 %g peak3 %g peak4 %g peak5 %g peak6 %g peak7 %g "
               "fe55 fe pt mo br cu au zr pd sb se sn ti co zn ar mg element %s no-lor by-top-sum = %d");
constexpr fixed_text line_help(
    "Energy of peak 0 in keV/Energy of peak 1 in keV/Energy of peak 2 in keV/Energy of peak 3 in keV/"
    "Energy of peak 4 in keV/Energy of peak 5 in keV/Energy of peak 6 in keV/Energy of peak 7 in keV/"
    "Fe-55 radioactive source/Iron foil/Platinum foil L lines/Molybdenum foil/Bromine solution/Copper/"
    "Gold L lines/Zirconium/Palladium/Antimony/Selenium/Tin/Titanium/Cobalt/Zinc/Argon/Magnesium/"
    "Element name: Ni, V, Y, Al or Pb-l3 (lead L3 lines only, excited at 13.2 keV)/No Lorenzian tails/"
    "Sum neighbours if insufficient counts");

// What these keywords ask for.
struct line_choice {
    std::array<bool, peak_fit_element_keywords.size()> element{};
    std::optional<const char *> named_element;
    std::array<std::optional<double>, peak_fit_max_peaks> peak{}; // keV
    unsigned constraints = 0;
};

template <class Qualifiers, std::size_t... I>
line_choice choice_of(const Qualifiers &q, std::index_sequence<I...>) {
    static constexpr typename Qualifiers::real_word peaks[] = {"peak0", "peak1", "peak2", "peak3",
                                                               "peak4", "peak5", "peak6", "peak7"};
    line_choice choice;
    choice.element = {q.given(peak_fit_element_keywords[I].data())...};
    if (q.given("element"))
        choice.named_element = q.text("element");
    for (std::size_t i = 0; i < choice.peak.size(); ++i)
        choice.peak[i] = q.real_if_given(peaks[i]);
    choice.constraints =
        (q.given("no-lor") ? peak_fit_no_lor : 0U) | (q.given("by-top-sum") ? peak_fit_by_top_sum : 0U);
    return choice;
}

template <const pt_format &Format> line_choice choice_of(const pt_qualifiers<Format> &q) {
    return choice_of(q, std::make_index_sequence<peak_fit_element_keywords.size()>());
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

int add_elements(int cn, const line_choice &choice, peak_fit_lines &lines) {
    for (std::size_t i = 0; i < choice.element.size(); ++i)
        if (choice.element[i] && add_element(cn, peak_fit_element_keywords[i], lines) != 0)
            return -1;
    return choice.named_element ? add_element(cn, *choice.named_element, lines) : 0;
}

constexpr double highest_energy = 1e6; // keV: beyond any X-ray, and safe to reckon with

int add_user_peaks(int cn, const line_choice &choice, peak_fit_lines &lines) {
    const auto count = std::count_if(choice.peak.begin(), choice.peak.end(),
                                     [](const auto &peak) { return peak.has_value(); });
    const bool to_element = lines.num_peaks > 0;
    for (int i = 0; i < count; ++i) {
        const std::optional<double> &peak = choice.peak[static_cast<std::size_t>(i)];
        if (!peak) {
            sv_printf(cn, "! ERROR: Please supply peaks 0..1 without gaps, gap at %d\n", i);
            return -1;
        }
        const double energy = *peak;
        if (!(energy > 0.0 && energy < highest_energy)) {
            sv_printf(cn, "! ERROR: Energy of peak %d should be above 0 and below %g keV, not %g\n", i,
                      highest_energy, energy);
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
int choose_lines(const line_choice &choice, peak_fit_request &request) {
    peak_fit_lines &lines = request.lines;
    if (add_elements(request.cn, choice, lines) != 0 || add_user_peaks(request.cn, choice, lines) != 0)
        return -1;
    if (lines.num_peaks == 0)
        add_line(lines, 0.0, 1.0, false);
    request.constraints = choice.constraints;
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

// ---- spectra in a module's rows

constexpr pt_format module_format(text_join<"%s %s + %d %d first-eng %d last-eng %d ", line_words>);

int limits_error(int cn, const char *end, int value, int channels) {
    sv_printf(cn, "! ERROR in %s value %d, expected0..%d\n", end, value, channels - 1);
    return -1;
}

int energy_limits(const pt_qualifiers<module_format> &q, int channels, peak_fit_request &request) {
    request.first = q.number("first-eng", 0);
    request.last = q.number("last-eng", channels - 1);
    if (request.first < 0 || request.first >= channels)
        return limits_error(request.cn, "first-x", request.first, channels);
    if (request.last < request.first || request.last >= channels)
        return limits_error(request.cn, "last-x", request.last, channels);
    return 0;
}

int peak_fit_module(int quals, int cn, const char *source, const char *result, int first, int last) {
    const pt_qualifiers<module_format> q(quals);
    peak_fit_request request = new_request(cn);
    if (choose_lines(choice_of(q), request) != 0)
        return -1;
    linked_module from;
    const int other = OptionalArgumentCount > 1 ? last : first;
    if (umaths_link_module(cn, source, from) != 0 || umaths_check_row(cn, "Row", from, first) != 0 ||
        umaths_check_row(cn, "Row", from, other) != 0 || energy_limits(q, from.view.num_x, request) != 0)
        return -1;
    const std::optional<mod_element> element = mod_element_of_code(from.view.data_type);
    if (!element) {
        sv_printf(cn, "! Can only handle float or long and some double data for umaths\n");
        return -1;
    }
    const std::size_t step = from.view.element_size;
    const std::size_t row = step * static_cast<std::size_t>(from.view.num_x);
    const peak_spectra spectra{
        from.view.data(), mod_handle_type_of(*element), step, row, 0, from.view.num_x, from.rows(), 1};
    const auto [q1, q2] = std::minmax(first, other);
    request.tell = request.debug >= 1 || q2 - q1 < told_most;
    return guarded(cn, [&, q1 = q1, q2 = q2] {
        return peak_fit_fit_rows(request, spectra, q1, q2, from.link.head(), result);
    });
}

// ---- spectra of a unified handle

constexpr pt_format unified_format(text_join<"%d %d %d %d %d %d %d %s x y t width %g ", line_words>);
// The same with the site of the workers before it: a command has room for no more keywords.
constexpr pt_format workers_format(text_join<"%s %d %d %d %d %d %d %d %s x y t width %g ", line_words>);

int choose_axes(int cn, const pt_qualifiers<unified_format> &q, peak_fit_scan &sc) {
    if (q.count({"x", "y", "t"}) > 1) {
        sv_printf(cn, "! Must specify exactly one of X, Y, T\n");
        return -1;
    }
    sc.energy = q.given("y") ? 1 : q.given("t") ? 2 : 0;
    sc.q = sc.energy == 0 ? 1 : 0;
    sc.s = sc.energy == 2 ? 1 : 2;
    return 0;
}

// The points are fitted by a site's workers, who have no session to tell anything to.
int choose_workers(const char *site, peak_fit_request &request) {
    if (!peak_fit_far.reach) {
        sv_printf(request.cn, "! This program knows no workers\n");
        return -1;
    }
    request.site = site;
    request.tell = false;
    request.debug = 0;
    return peak_fit_far.reach(request.cn, request.site) ? 0 : -1;
}

// Both commands' keywords are the same. Without a site the threads here fit.
int fit_region(int quals, int cn, int handle, const umaths_region &region, const char *result,
               const char *site) {
    const pt_qualifiers<unified_format> q(quals);
    peak_fit_request request = new_request(cn);
    peak_fit_scan sc;
    if (choose_lines(choice_of(q), request) != 0 || choose_axes(cn, q, sc) != 0)
        return -1;
    if (umaths_check_region(cn, region, handle, 0) != 0)
        return -1;
    sc.handle = handle;
    sc.origin = {region.x, region.y, region.t};
    sc.size = {region.dx, region.dy, region.dt};
    if (static_cast<long long>(sc.nq()) * sc.ns() > (1 << 26)) {
        sv_printf(cn, "! Can fit at most %d spectra at once\n", 1 << 26);
        return -1;
    }
    request.width = q.real("width");
    if (!(request.width >= 0.0)) {
        sv_printf(cn, "! Typical FWHM should be >= 0, not %g\n", request.width);
        return -1;
    }
    request.last = sc.channels() - 1;
    request.tell = request.debug >= 1 || sc.nq() * sc.ns() <= told_most;
    if (site && choose_workers(site, request) != 0)
        return -1;
    return guarded(cn, [&] { return peak_fit_fit_scan(request, sc, result); });
}

int peak_fit_unified(int quals, int cn, int handle, int x1, int y1, int t1, int x2, int y2, int t2,
                     const char *result) {
    return fit_region(quals, cn, handle, umaths_make_region(x1, y1, t1, x2, y2, t2), result, nullptr);
}

int peak_fit_workers(int quals, int cn, const char *site, int handle, int x1, int y1, int t1, int x2, int y2,
                     int t2, const char *result) {
    return fit_region(quals, cn, handle, umaths_make_region(x1, y1, t1, x2, y2, t2), result, site);
}

// ---- settings

constexpr pt_format debug_format("%d pass %d = %d");

int peak_fit_set_debug(int quals, int cn, int level) {
    const pt_qualifiers<debug_format> q(quals);
    const int pass = q.number("pass", -1);
    if (q.given("pass") && (pass < 0 || pass >= peak_fit_passes())) {
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

constexpr fixed_text
    region_help("Unified handle/x1/y1/t1/x2/y2/t2/Result module/Energy is along X/Energy is along Y/"
                "Energy is along T/Typical FWHM (in bins) to guide seeding/");

constinit const PARSE_TREE peak_fit_table[] = {
    pt_command<peak_fit_module>(
        "module", module_format, "Peak fit usually fluorescence data in module",
        text_join<
            "Source module/Result module/First row/Last row/"
            "First energy point to scan for the K-alpha peak/Last energy point to scan for the K-alpha peak/",
            line_help>),
    pt_command<peak_fit_unified>("unified", unified_format,
                                 "Peak fit usually fluorescence data from unified read handle",
                                 text_join<region_help, line_help>),
    pt_command<peak_fit_set_debug>("debug", debug_format, "Set debugging message level",
                                   "Level/Force a single pass, usually 0..8 only"),
    pt_command<peak_fit_set_max_threads>("max-threads", "%d = %d",
                                         "Set maximum number of thread to use (1 to disable threading)",
                                         "Number of threads, 1..64"),
    pt_command<peak_fit_workers>(
        "workers", workers_format, "As unified, but fitted by the workers of a site",
        text_join<"Site: HOST:PORT or unix:/PATH, #PREFIX/", region_help, line_help>),
    pt_end(),
};

} // namespace

constinit const PARSE_TREE row_peak_fit =
    pt_subtree("peak-fit", peak_fit_table, "Functions to perfrom peak fitting");

} // namespace kestrel
