#include "maths/peak_fit/lines.h"

namespace kestrel {

namespace {

struct element_lines {
    std::string_view name;
    peak_fit_lines lines;
};

// K lines: K-alpha (both, weighted) and K-beta1,3. One line where K-beta is too weak or too close.
constexpr element_lines k_lines(std::string_view name, double alpha, double beta = 0.0, double ratio = 0.0) {
    return {name, {beta > 0.0 ? 2 : 1, {alpha, beta}, {1.0, ratio}, {}}};
}

// With K-beta2, far enough from K-beta1,3 to be seen beside it; the ratio of the two is fixed.
constexpr element_lines k_lines(std::string_view name, double alpha, double beta1, double ratio1,
                                double beta2, double ratio2) {
    return {name, {3, {alpha, beta1, beta2}, {1.0, ratio1, ratio2}, {false, false, true}}};
}

// Energies in keV: J. A. Bearden, Rev. Mod. Phys. 39 (1967) 78. Heights: the radiative rates of S. T. Perkins
// et al., EADL, UCRL-50400 vol. 30 (1991), for the K and L3 lines, each as in the tables of T. Schoonjans et
// al., Spectrochim. Acta B 66 (2011) 776; the relative intensities of the X-Ray Data Booklet (Lawrence
// Berkeley National Laboratory, 2009, table 1-3) for the L lines of Pt and Au. Neighbours that no detector
// here resolves are one line at their weighted mean.
constexpr element_lines elements[] = {
    k_lines("fe55", 5.8950, 6.4904, 0.134), // Mn K lines
    k_lines("fe", 6.3995, 7.0580, 0.134),
    {"pt", {5, {9.4345, 11.0711, 11.2483, 12.9419, 8.2662}, {1.0, 0.60, 0.21, 0.12, 0.045}, {}}},
    k_lines("mo", 17.4432, 19.6013, 0.168, 19.9647, 0.0254),
    k_lines("br", 11.9081, 13.2896, 0.153),
    k_lines("cu", 8.0411, 8.9053, 0.134),
    {"au", {5, {9.7043, 11.4425, 11.5830, 13.3816, 8.4938}, {1.0, 0.60, 0.21, 0.12, 0.045}, {}}},
    k_lines("zr", 15.7463, 17.6625, 0.164, 17.9689, 0.0234),
    k_lines("pd", 21.1227, 23.8094, 0.177, 24.2992, 0.0297),
    k_lines("sb", 26.2724, 29.7099, 0.185, 30.3928, 0.0357),
    k_lines("se", 11.2082, 12.4938, 0.150),
    k_lines("sn", 25.1921, 28.4714, 0.183, 29.1115, 0.0344),
    k_lines("ti", 4.5089, 4.9318, 0.130),
    k_lines("co", 6.9252, 7.6494, 0.135),
    k_lines("zn", 8.6311, 9.5720, 0.137),
    k_lines("ar", 2.9567, 3.1902, 0.102),
    k_lines("mg", 1.2536),
    k_lines("Ni", 7.4723, 8.2647, 0.136),
    k_lines("V", 4.9496, 5.4273, 0.132),
    k_lines("Y", 14.9325, 16.7340, 0.161, 17.0128, 0.0220),
    k_lines("Al", 1.4867),
    {"Pb-l3", {3, {10.5408, 12.6201, 9.1845}, {1.0, 0.192, 0.053}, {}}},
};

} // namespace

const peak_fit_lines *peak_fit_find_element(std::string_view name) {
    for (const element_lines &element : elements)
        if (element.name == name)
            return &element.lines;
    return nullptr;
}

peak_fit_start_t peak_fit_pattern(const peak_fit_lines &lines, int main, double lor_frac) {
    peak_fit_start_t start{lines.num_peaks, lor_frac, 0, {}};
    const auto m = static_cast<std::size_t>(main);
    const auto count = static_cast<std::size_t>(lines.num_peaks);
    for (std::size_t i = 0; i < count; ++i) {
        peak_fit_seed_t &seed = start.peak[i];
        seed.rel_posn = lines.energy[m] > 0.0 ? lines.energy[i] / lines.energy[m] : 1.0;
        seed.rel_hgt = lines.height[m] > 0.0 ? lines.height[i] / lines.height[m] : 0.0;
        seed.peak_flags = lines.tied[i] ? peak_fit_tied_height : 0;
    }
    start.peak[m].rel_hgt = 1.0;
    return start;
}

} // namespace kestrel
