#include "parser/text_format.h"

#include <cctype>
#include <climits>
#include <cmath>
#include <cstdio>

namespace kestrel {

namespace {

constexpr std::size_t width_digits_max = 3; // a field is at most 999 wide

// One "%..." of a format: the text without length modifiers, and its conversion letter.
struct conversion {
    std::string spec;
    char letter = 0;
};

bool take_digits(std::string_view format, std::size_t &at, std::string &spec) {
    std::size_t digits = 0;
    while (at < format.size() && std::isdigit(static_cast<unsigned char>(format[at]))) {
        spec += format[at++];
        ++digits;
    }
    return digits <= width_digits_max;
}

// Parses the conversion that starts behind a '%' at `at`, and moves `at` behind it.
std::optional<conversion> take_conversion(std::string_view format, std::size_t &at, std::string &error) {
    conversion c{"%", 0};
    while (at < format.size() && std::string_view("-+ #0").find(format[at]) != std::string_view::npos)
        if (const char flag = format[at++]; c.spec.find(flag, 1) == std::string::npos)
            c.spec += flag;
    bool fits = take_digits(format, at, c.spec);
    if (at < format.size() && format[at] == '.') {
        c.spec += format[at++];
        fits = take_digits(format, at, c.spec) && fits;
    }
    if (!fits) {
        error = "Width or precision in format should have at most 3 digits";
        return std::nullopt;
    }
    while (at < format.size() && std::string_view("hlLqjzt").find(format[at]) != std::string_view::npos)
        ++at;
    if (at == format.size()) {
        error = "Format ends inside a conversion";
        return std::nullopt;
    }
    c.letter = format[at++];
    if (std::string_view("diouxXcseEfFgG").find(c.letter) == std::string_view::npos) {
        error = std::string("Conversion '%") + c.letter + "' is not supported";
        return std::nullopt;
    }
    c.spec += c.letter;
    return c;
}

// The one place with formats that the compiler cannot check: a user wrote them. take_conversion has put each
// together from checked pieces, one conversion with a field of at most 999 characters, and print_value calls
// with a value of the conversion's type.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <class T> std::string print(const std::string &spec, T value) {
    const int length = std::snprintf(nullptr, 0, spec.c_str(), value);
    if (length < 0)
        return {};
    std::string text(static_cast<std::size_t>(length), '\0');
    std::snprintf(text.data(), text.size() + 1, spec.c_str(), value);
    return text;
}
#pragma GCC diagnostic pop

std::optional<std::string> print_value(const conversion &c, const PE_Value &value, std::string &error) {
    if (c.letter == 's') {
        if (value.type == pe_string || value.type == pe_qualifier)
            return print(c.spec, value.StringValue.c_str());
        error = "Cannot print a number with '" + c.spec + "'";
        return std::nullopt;
    }
    if (!value.is_number()) {
        error = "Cannot print a string with '" + c.spec + "'";
        return std::nullopt;
    }
    if (std::string_view("eEfFgG").find(c.letter) != std::string_view::npos)
        return print(c.spec, value.number());
    if (value.type == pe_int)
        return print(c.spec, value.IntValue);
    if (!(value.DoubleValue > INT_MIN - 1.0 && value.DoubleValue < INT_MAX + 1.0)) {
        error = "Value does not fit an integer for '" + c.spec + "'";
        return std::nullopt;
    }
    return print(c.spec, static_cast<int>(value.DoubleValue));
}

} // namespace

std::optional<std::string> format_text(std::string_view format, std::span<const PE_Value> values,
                                       std::size_t max, std::string &error) {
    std::string text;
    std::size_t next = 0;
    for (std::size_t at = 0; at < format.size();) {
        const char c = format[at++];
        if (c != '%') {
            text += c;
            continue;
        }
        if (at < format.size() && format[at] == '%') {
            text += '%';
            ++at;
            continue;
        }
        const std::optional<conversion> spec = take_conversion(format, at, error);
        if (!spec)
            return std::nullopt;
        if (next == values.size()) {
            error = "No argument for '" + spec->spec + "'";
            return std::nullopt;
        }
        const std::optional<std::string> piece = print_value(*spec, values[next++], error);
        if (!piece)
            return std::nullopt;
        text += *piece;
    }
    if (text.size() > max)
        text.resize(max);
    return text;
}

} // namespace kestrel
