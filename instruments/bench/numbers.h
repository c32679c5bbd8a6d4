// instruments/bench: numbers in what instruments answer. Never more than what is surely there: nothing instead of a guess.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel::bench {

// The whole text as one finite number, blanks around it aside.
std::optional<double> whole_number(std::string_view text);

// The numbers that begin the items between commas, each perhaps with a unit behind it ("+1.5E+00VDC"); items of times
// and reading numbers ("SECS", "RDNG#") are left out. Empty when an item is no number.
std::vector<double> readings(std::string_view text);

// Mantissa and signed exponent, "-01234-03" is -1.234; without an exponent the mantissa.
std::optional<double> mantissa_exponent(std::string_view text);

// Mean and standard deviation of the sample (n - 1; 0 of one value).
struct statistics {
    double mean = 0.0, stddev = 0.0;
};
statistics statistics_of(const std::vector<double> &values);

// What a high-voltage module says of itself: "484230;3.08;2000V;6mA".
struct module_id {
    std::string serial, release;
    double max_volts = 0.0, max_amperes = 0.0;
};
// How many of the four fields, in their order, could be read: 4 is all.
int parse_module_id(std::string_view text, module_id &id);

// As "%d" shows it: whatever it is, a number that an int can hold.
int shown(double value);

} // namespace kestrel::bench
