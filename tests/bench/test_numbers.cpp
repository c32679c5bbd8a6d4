// Numbers in what instruments answer: what is taken, and above all what is not.
#include "instruments/bench/numbers.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>

namespace kestrel::bench {

TEST(WholeNumber, TakesFiniteNumbersOnly) {
    EXPECT_EQ(whole_number("+5.000000E+01"), 50.0);
    EXPECT_EQ(whole_number(" -3 "), -3.0);
    EXPECT_EQ(whole_number("9.91E37"), 9.91e37);
    for (const char *bad : {"", " ", "+", "+-5", "--5", "5 V", "5,6", "nan", "inf", "-INF", "1e999", "0x10",
                            "5.5.5", "\xff", "1e", "e5"})
        EXPECT_FALSE(whole_number(bad)) << bad;
}

TEST(Readings, TakesTheNumbersOfItemsAndPassesOverTimes) {
    EXPECT_EQ(readings("+1.5E+00,-2E-09,+3.1E+02"), (std::vector<double>{1.5, -2e-9, 310.0}));
    EXPECT_EQ(readings("+1.5E+00VDC,+4865.121SECS,+00001RDNG#"), (std::vector<double>{1.5}));
    EXPECT_EQ(readings("7"), (std::vector<double>{7.0}));
    for (const char *bad : {"", ",", "1,", ",1", "1,,2", "VDC", "1,x", "1,nan", "9.-", "7\xfe", "1 2"})
        EXPECT_TRUE(readings(bad).empty()) << bad;
}

TEST(MantissaExponent, IsTheMantissaTimesTheTenthPowers) {
    const struct {
        const char *text;
        double value;
    } good[] = {{"01234-03", 1.234}, {"-01234-03", -1.234}, {"+05000-02", 50.0}, {"00012+02", 1200.0},
                {"100", 100.0},      {"010", 10.0},         {"05000-12", 5e-9},  {"0000-01", 0.0}};
    for (const auto &[text, value] : good)
        EXPECT_EQ(mantissa_exponent(text), value) << text;
    for (const char *bad : {"", "-", "S1=ON", "1.5-03", "1-", "1-2-3", "-", "+-1", "1 2", "1-999", "?WCN"})
        EXPECT_FALSE(mantissa_exponent(bad)) << bad;
}

TEST(Statistics, AreThoseOfTheSample) {
    EXPECT_EQ(statistics_of({3.0}).mean, 3.0);
    EXPECT_EQ(statistics_of({3.0}).stddev, 0.0);
    EXPECT_EQ(statistics_of({1.0, 2.0, 3.0, 4.0}).mean, 2.5);
    EXPECT_NEAR(statistics_of({1.0, 2.0, 3.0, 4.0}).stddev, std::sqrt(5.0 / 3.0), 1e-15);
    EXPECT_EQ(statistics_of({}).mean, 0.0);
}

TEST(ModuleId, SaysWhichFieldCannotBeRead) {
    module_id id;
    EXPECT_EQ(parse_module_id("484230;3.08;2000V;6mA", id), 4);
    EXPECT_EQ(id.serial, "484230");
    EXPECT_EQ(id.release, "3.08");
    EXPECT_EQ(id.max_volts, 2000.0);
    EXPECT_DOUBLE_EQ(id.max_amperes, 6e-3);
    const struct {
        const char *text;
        int understood;
    } cases[] = {{"1;2;4kV;100uA", 4}, {"", 0},       {"x;2;3V;4mA", 0},   {"1", 1},
                 {"1;x;3V;4mA", 1},    {"1;2", 2},    {"1;2;3W;4mA", 2},   {"1;2;-3V;4mA", 2},
                 {"1;2;0V;4mA", 2},    {"1;2;3V", 3}, {"1;2;3V;4mA;5", 4}, {"1;2;3V;mA", 3},
                 {"1;2;3V;nan mA", 3}};
    for (const auto &[text, understood] : cases)
        EXPECT_EQ(parse_module_id(text, id), understood) << text;
}

TEST(Shown, IsAnIntegerWhateverTheNumber) {
    EXPECT_EQ(shown(2000.9), 2000);
    EXPECT_EQ(shown(1e300), std::numeric_limits<int>::max());
    EXPECT_EQ(shown(-1e300), std::numeric_limits<int>::min());
    EXPECT_EQ(shown(std::nan("")), 0);
}

} // namespace kestrel::bench
