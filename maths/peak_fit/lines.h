// maths/peak_fit: which lines a spectrum is fitted with: the element keywords and peaks that the user gives.
#pragma once

#include "maths/peak_fit/model.h"

#include <span>
#include <string_view>

namespace kestrel {

// Energies (keV) and relative heights of the lines; a height of 0 is not known. The first line is the one
// that the spectrum is searched for.
struct peak_fit_lines {
    int num_peaks = 0;
    std::array<double, peak_fit_max_peaks> energy{};
    std::array<double, peak_fit_max_peaks> height{};
    std::array<bool, peak_fit_max_peaks> tied{}; // its height is tied to the previous line's
};

// The keywords of the commands, in their order.
inline constexpr std::array<std::string_view, 17> peak_fit_element_keywords = {
    "fe55", "fe", "pt", "mo", "br", "cu", "au", "zr", "pd", "sb", "se", "sn", "ti", "co", "zn", "ar", "mg"};

// The lines of a keyword or of one of the names Ni, V, Y, Al, Pb-l3; null for an unknown name.
const peak_fit_lines *peak_fit_find_element(std::string_view name);

// The start pattern with line `main` as the main peak.
peak_fit_start_t peak_fit_pattern(const peak_fit_lines &lines, int main, double lor_frac);

} // namespace kestrel
