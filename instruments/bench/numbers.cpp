#include "instruments/bench/numbers.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <span>
#include <system_error>

namespace kestrel::bench {

namespace {

constexpr std::size_t longest_unit = 8;
constexpr std::string_view unit_letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz#";

std::string_view trimmed(std::string_view text) {
    while (text.starts_with(' '))
        text.remove_prefix(1);
    while (text.ends_with(' '))
        text.remove_suffix(1);
    return text;
}

// The finite number that the text begins with, a "+" before it allowed; the text is what follows it then.
std::optional<double> take_number(std::string_view &text) {
    std::string_view digits = text;
    if (digits.starts_with('+')) {
        digits.remove_prefix(1);
        if (digits.starts_with('-'))
            return std::nullopt;
    }
    double value = 0.0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || !std::isfinite(value))
        return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return value;
}

bool is_unit(std::string_view text) {
    return text.size() <= longest_unit && text.find_first_not_of(unit_letters) == std::string_view::npos;
}

struct unit {
    std::string_view name;
    double times;
};
constexpr unit volt_units[] = {{"", 1.0}, {"V", 1.0}, {"kV", 1e3}};
constexpr unit ampere_units[] = {{"", 1.0}, {"A", 1.0}, {"mA", 1e-3}, {"uA", 1e-6}, {"nA", 1e-9}};

// A positive number with one of the units.
bool take_maximum(std::string_view text, std::span<const unit> units, double &value) {
    text = trimmed(text);
    const std::optional<double> number = take_number(text);
    for (const unit &u : units) {
        if (number && *number > 0.0 && trimmed(text) == u.name) {
            value = *number * u.times;
            return true;
        }
    }
    return false;
}

std::string_view next_item(std::string_view &rest, char separator) {
    const std::size_t at = std::min(rest.find(separator), rest.size());
    const std::string_view item = rest.substr(0, at);
    rest.remove_prefix(std::min(at + 1, rest.size()));
    return item;
}

} // namespace

std::optional<double> whole_number(std::string_view text) {
    text = trimmed(text);
    const std::optional<double> value = take_number(text);
    return text.empty() ? value : std::nullopt;
}

std::vector<double> readings(std::string_view text) {
    std::vector<double> found;
    for (bool more = true; more;) {
        more = text.find(',') != std::string_view::npos;
        std::string_view item = trimmed(next_item(text, ','));
        const std::optional<double> value = take_number(item);
        if (!value || !is_unit(item))
            return {};
        if (item != "SECS" && item != "RDNG#")
            found.push_back(*value);
    }
    return found;
}

std::optional<double> mantissa_exponent(std::string_view text) {
    text = trimmed(text);
    const std::size_t sign = text.find_first_of("+-", 1);
    if (text.empty() || text.find_first_not_of("+-0123456789") != std::string_view::npos)
        return std::nullopt;
    const std::optional<double> mantissa = whole_number(text.substr(0, sign));
    if (!mantissa || sign == std::string_view::npos)
        return mantissa;
    const std::optional<double> exponent = whole_number(text.substr(sign));
    if (!exponent || std::abs(*exponent) > 99)
        return std::nullopt;
    return *exponent < 0.0 ? *mantissa / std::pow(10.0, -*exponent) : *mantissa * std::pow(10.0, *exponent);
}

statistics statistics_of(const std::vector<double> &values) {
    if (values.empty())
        return {};
    const auto n = static_cast<double>(values.size());
    double sum = 0.0, squares = 0.0;
    for (const double v : values)
        sum += v;
    const double mean = sum / n;
    for (const double v : values)
        squares += (v - mean) * (v - mean);
    return {mean, values.size() > 1 ? std::sqrt(squares / (n - 1.0)) : 0.0};
}

int parse_module_id(std::string_view text, module_id &id) {
    const std::string_view serial = trimmed(next_item(text, ';'));
    if (serial.empty() || serial.find_first_not_of("0123456789") != std::string_view::npos)
        return 0;
    id.serial = serial;
    const std::string_view release = trimmed(next_item(text, ';'));
    if (!whole_number(release))
        return 1;
    id.release = release;
    if (!take_maximum(next_item(text, ';'), volt_units, id.max_volts))
        return 2;
    return take_maximum(next_item(text, ';'), ampere_units, id.max_amperes) ? 4 : 3;
}

int shown(double value) {
    if (std::isnan(value))
        return 0;
    return static_cast<int>(std::clamp(value, static_cast<double>(INT_MIN), static_cast<double>(INT_MAX)));
}

} // namespace kestrel::bench
