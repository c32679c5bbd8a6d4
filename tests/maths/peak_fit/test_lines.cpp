// The line table against an independent library of X-ray data.
#include "maths/peak_fit/lines.h"

#include <gtest/gtest.h>

#include <xraylib/xraylib.h>

#include <cmath>
#include <string>
#include <vector>

using namespace kestrel;

namespace {

struct line {
    double energy, rate;
};

// Several lines of an element as one, at their mean.
line together(int z, std::initializer_list<int> lines) {
    line sum{0.0, 0.0};
    for (const int l : lines) {
        const double rate = RadRate(z, l, nullptr);
        sum.energy += rate * LineEnergy(z, l, nullptr);
        sum.rate += rate;
    }
    sum.energy /= sum.rate;
    return sum;
}

void check(std::string_view name, std::size_t i, const line &expected) {
    const peak_fit_lines *lines = peak_fit_find_element(name);
    ASSERT_NE(lines, nullptr) << name;
    ASSERT_LT(i, static_cast<std::size_t>(lines->num_peaks)) << name;
    EXPECT_NEAR(lines->energy[i], expected.energy, 0.0002) << name << " line " << i;
}

TEST(PeakLines, KLines) {
    const std::pair<const char *, int> all[] = {{"fe55", 25}, {"fe", 26}, {"mo", 42}, {"br", 35}, {"cu", 29},
                                                {"zr", 40},   {"pd", 46}, {"sb", 51}, {"se", 34}, {"sn", 50},
                                                {"ti", 22},   {"co", 27}, {"zn", 30}, {"ar", 18}, {"mg", 12},
                                                {"Ni", 28},   {"V", 23},  {"Y", 39},  {"Al", 13}};
    for (const auto &[name, z] : all) {
        const peak_fit_lines &lines = *peak_fit_find_element(name);
        const line alpha = together(z, {KL3_LINE, KL2_LINE});
        check(name, 0, alpha);
        if (lines.num_peaks < 2)
            continue;
        const line beta = together(z, {KM3_LINE, KM2_LINE});
        check(name, 1, beta);
        EXPECT_NEAR(lines.height[1], beta.rate / alpha.rate, 0.001) << name;
        if (lines.num_peaks < 3)
            continue;
        EXPECT_NEAR(lines.energy[2], LineEnergy(z, KN3_LINE, nullptr), 0.0002) << name;
        EXPECT_NEAR(lines.height[2], together(z, {KN3_LINE, KN2_LINE}).rate / alpha.rate, 0.001) << name;
        EXPECT_TRUE(lines.tied[2]);
    }
}

TEST(PeakLines, LLines) {
    for (const auto &[name, z] : {std::pair{"pt", 78}, {"au", 79}}) {
        check(name, 0, together(z, {L3M5_LINE, L3M4_LINE}));
        check(name, 1, together(z, {L2M4_LINE}));
        check(name, 2, together(z, {L3N5_LINE, L3N4_LINE}));
        check(name, 3, together(z, {L2N4_LINE}));
        check(name, 4, together(z, {L3M1_LINE}));
    }
    const line alpha = together(82, {L3M5_LINE, L3M4_LINE}), beta = together(82, {L3N5_LINE, L3N4_LINE});
    check("Pb-l3", 0, alpha);
    check("Pb-l3", 1, beta);
    check("Pb-l3", 2, together(82, {L3M1_LINE}));
    EXPECT_NEAR(peak_fit_find_element("Pb-l3")->height[1], beta.rate / alpha.rate, 0.001);
}

TEST(PeakLines, PatternRelativeToItsMainPeak) {
    const peak_fit_start_t start = peak_fit_pattern(*peak_fit_find_element("mo"), 0, 0.1);
    EXPECT_EQ(start.num_peaks, 3);
    EXPECT_DOUBLE_EQ(start.peak[0].rel_posn, 1.0);
    EXPECT_NEAR(start.peak[2].rel_posn, 19.9647 / 17.4432, 1e-12);
    EXPECT_EQ(start.peak[0].peak_flags, 0);
    EXPECT_EQ(start.peak[2].peak_flags, peak_fit_tied_height);
    EXPECT_EQ(peak_fit_find_element("Fe"), nullptr);
    for (const std::string_view keyword : peak_fit_element_keywords)
        EXPECT_NE(peak_fit_find_element(keyword), nullptr) << keyword;
}

} // namespace
